#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <stdexcept>

#include "support/repository.h"

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

constexpr time_t kLongAgo = 1000;

struct Ended {
  int status;  // as waitpid gives it
  std::string output;
  std::string errors;
};

bool endedWith(const Ended& ended, int exitStatus) {
  return WIFEXITED(ended.status) && WEXITSTATUS(ended.status) == exitStatus;
}

// Runs the program with these arguments and waits for its end.
Ended mountwarden(const std::vector<std::string>& arguments) {
  const ScratchDirectory place;
  const pid_t process = fork();
  if (process < 0) throw std::runtime_error("no second process");
  if (process == 0) {
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    if (!freopen((place / "output").c_str(), "w", stdout) || !freopen((place / "errors").c_str(), "w", stderr))
      _exit(126);
    std::vector<char*> list = {const_cast<char*>("mountwarden")};
    for (const std::string& argument : arguments) list.push_back(const_cast<char*>(argument.c_str()));
    list.push_back(nullptr);
    execv(KT_MOUNTWARDEN_FILE, list.data());
    _exit(127);
  }
  Ended ended = {-1, "", ""};
  waitpid(process, &ended.status, 0);
  ended.output = readFile(place / "output");
  ended.errors = readFile(place / "errors");
  return ended;
}

constexpr const char* kUsage = "Usage: mountwarden <repository>\n";

// The environment variable TMPDIR, pointing to a directory whose disk has some percent of its blocks used: a mount
// there is above a limit of one percent, whatever else is on the disk.
std::string placeOnAUsedDisk() {
  const char* const given = getenv("TMPDIR");
  const std::string candidates[] = {given ? given : "/tmp", fs::path(KT_MOUNTWARDEN_FILE).parent_path().string(),
                                    fs::current_path().string()};
  for (const std::string& candidate : candidates) {
    struct statvfs space;
    if (statvfs(candidate.c_str(), &space) == 0 && space.f_blocks > 0 &&
        static_cast<double>(space.f_bavail) < 0.98 * static_cast<double>(space.f_blocks))
      return candidate;
  }
  throw std::runtime_error("no disk here is used by two percent; point TMPDIR to one that is");
}

}  // namespace

TEST(MountwardenTest, TellsItsUsageAndExitsWith255WithoutAnArgument) {
  const Ended ended = mountwarden({});
  EXPECT_TRUE(endedWith(ended, 255)) << ended.status;
  EXPECT_EQ(ended.output, kUsage);
  EXPECT_EQ(ended.errors, "");
}

TEST(MountwardenTest, TellsItsUsageAndExitsWith255WithTwoArguments) {
  const Ended ended = mountwarden({"/srv/repository", "/srv/other"});
  EXPECT_TRUE(endedWith(ended, 255)) << ended.status;
  EXPECT_EQ(ended.output, kUsage);
  EXPECT_EQ(ended.errors, "");
}

// A call would end by SIGABRT here.
TEST(MountwardenTest, DoesNotCallTheLibraryWithTwoArguments) {
  const TestRepository repository({"d1"});
  fs::remove_all(repository.mount(0));
  EXPECT_TRUE(endedWith(mountwarden({repository.path(), "-v"}), 255));
  EXPECT_TRUE(endedWith(mountwarden({repository.path(), ""}), 255));
}

TEST(MountwardenTest, RunsAVerbosePass) {
  const TestRepository repository({"d1", "d2"});
  repository.takeOut(0);
  repository.takeOut(1);
  const Ended ended = mountwarden({repository.path()});
  EXPECT_TRUE(endedWith(ended, 0)) << ended.status;
  EXPECT_EQ(ended.output, "calling library...\nchecking repository " + repository.path() + "\nchecking mount " +
                              repository.mount(0) + "\nmount is unmounted\nchecking mount " + repository.mount(1) +
                              "\nmount is unmounted\n");
  EXPECT_EQ(ended.errors, "");
  EXPECT_THAT(repository.locksLeft(), IsEmpty());
}

TEST(MountwardenTest, PassesOverADirectoryWithoutConfigurationAsItsOwnMount) {
  const TestRepository repository({"d1"});
  fs::remove(repository.path() + "/repository.cfg");
  const Ended ended = mountwarden({repository.path()});
  EXPECT_TRUE(endedWith(ended, 0)) << ended.status;
  EXPECT_EQ(ended.output, "calling library...\nchecking repository " + repository.path() + "\nchecking mount " +
                              repository.path() + "\nmount is unmounted\n");
  EXPECT_EQ(ended.errors, "");
}

TEST(MountwardenTest, ExitsWith0ForARepositoryThatDoesNotExist) {
  const TestRepository lockPlace({"d1"});
  for (const std::string& name : {lockPlace.scratch() + "/nowhere", std::string()}) {
    const Ended ended = mountwarden({name});
    EXPECT_TRUE(endedWith(ended, 0)) << ended.status;
    EXPECT_EQ(ended.output, "calling library...\nchecking repository \n");
  }
}

TEST(MountwardenTest, TakesTheArgumentAsItStandsForTheRepository) {
  const TestRepository repository({"d1"});
  repository.takeOut(0);
  const Ended ended = mountwarden({repository.path() + "/"});
  EXPECT_EQ(ended.output, "calling library...\nchecking repository " + repository.path() + "/\nchecking mount " +
                              repository.path() + "//d1\nmount is unmounted\n");
}

TEST(MountwardenTest, ExitsWith0WhenTheRepositoryCannotBeLocked) {
  const TestRepository repository({"d1"});
  repository.takeOut(0);
  const EnvironmentVariable noLocks("LOCK_VAR", repository.scratch() + "/nowhere");
  const Ended ended = mountwarden({repository.path()});
  EXPECT_TRUE(endedWith(ended, 0)) << ended.status;
  EXPECT_EQ(ended.output, "calling library...\nchecking repository " + repository.path() + "\nThe repository \"" +
                              repository.path() + "\" could not be locked.\n");
}

TEST(MountwardenTest, SaysHowFullAMountIsThatNeedsNoMaintenance) {
  TestRepository repository({"d1"});
  repository.configureMount(0, "moveLimit=101\n");
  const Ended ended = mountwarden({repository.path()});
  EXPECT_TRUE(endedWith(ended, 0)) << ended.status;
  EXPECT_THAT(ended.output, MatchesRegex("calling library\\.\\.\\.\nchecking repository " + repository.path() +
                                         "\nchecking mount " + repository.mount(0) +
                                         "\nmount does not need maintenance "
                                         "\\(moveLimit=101, used=[0-9]+\\.[0-9]{6}\\)\n"));
}

TEST(MountwardenTest, MovesWhatIsOldOffAMountAtItsMoveLimit) {
  const EnvironmentVariable place("TMPDIR", placeOnAUsedDisk());
  TestRepository repository({"d1", "d2"}, "switchLimit=101\nfullLimit=101\ncleanLimit=101\nmoveLimit=101\n");
  repository.configureMount(0, "moveLimit=1\ncleanLimit=1\n");
  const std::string from = repository.place(0, "old", "content", kLongAgo);
  const std::string to = repository.resourcePath(1, "old");
  const std::string young = repository.place(0, "young");
  const Ended ended = mountwarden({repository.path()});
  EXPECT_TRUE(endedWith(ended, 0)) << ended.status;
  EXPECT_THAT(ended.output,
              MatchesRegex("calling library\\.\\.\\.\nchecking repository " + repository.path() + "\nchecking mount " +
                           repository.mount(0) + "\ntrying to clean mount " + repository.mount(0) +
                           "\nCheckOverload tries to move\nCheckOverload moves " + from + " to " + to +
                           "\nCheckOverload: Last access/modification time of the resource: "
                           "Thu Jan  1 00:16:40 1970\n\nMove succeeded\n"
                           "\\(moveLimit=1, used=[0-9]+\\.[0-9]{6}\\)\nchecking mount " +
                           repository.mount(1) +
                           "\nmount does not need maintenance "
                           "\\(moveLimit=101, used=[0-9]+\\.[0-9]{6}\\)\n"));
  EXPECT_EQ(ended.errors, "");
  EXPECT_EQ(readFile(to + "/content"), "content");
  EXPECT_FALSE(isThere(from));
  EXPECT_TRUE(isThere(young));
  EXPECT_THAT(repository.locksLeft(), IsEmpty());
}

TEST(MountwardenTest, EndsByTheHandlerForUncaughtExceptionsWhenAListedMountDoesNotExist) {
  const TestRepository repository({"d1"});
  fs::remove_all(repository.mount(0));
  const Ended ended = mountwarden({repository.path()});
  ASSERT_TRUE(WIFSIGNALED(ended.status)) << ended.status;
  EXPECT_EQ(WTERMSIG(ended.status), SIGABRT);
  EXPECT_THAT(ended.errors, HasSubstr("KTAssertionException"));
}

TEST(MountwardenTest, HasToldHowFarItCameWhenAnExceptionEndsIt) {
  const TestRepository repository({"d1"});
  fs::remove_all(repository.mount(0));
  EXPECT_EQ(mountwarden({repository.path()}).output, "calling library...\n");
}
