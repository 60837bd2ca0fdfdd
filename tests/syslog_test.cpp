// The lines of the library as the system log gets them: a socket of the test stands in for the daemon's, in a mount
// namespace of its own, and one process makes a balancing pass.

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "entrypoints.h"
#include "fakes/fakes.h"
#include "realdisk/disks.h"
#include "support/child.h"
#include "support/repository.h"

namespace fs = std::filesystem;

using testing::ElementsAre;

namespace {

constexpr char kLogSocket[] = "/dev/log";
constexpr int kPatience = 60;  // seconds without a line after which a test fails instead of waiting for ever

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  return address;
}

void orThrow(bool done, const std::string& what) {
  if (!done) throw std::runtime_error("this machine cannot " + what + ": " + strerror(errno));
}

// Replaces /dev by a directory with a few devices in which "log" is the test's own, whether or not the machine has
// a log.
class LogDaemon {
 public:
  LogDaemon() {
    enterPrivateMounts();
    orThrow(mount("dev", directory.path().c_str(), "tmpfs", 0, "mode=755") == 0, "mount a tmpfs");
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) copyDevice(name);
    for (const char* name : {"fd", "stdin", "stdout", "stderr"}) copyLink(name);
    orThrow(socketNumber >= 0, "make a socket");
    const sockaddr_un address = addressOf(directory / "log");
    orThrow(bind(socketNumber, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "bind a socket");
    const timeval patience = {kPatience, 0};
    setsockopt(socketNumber, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    orThrow(mount(directory.path().c_str(), "/dev", nullptr, MS_MOVE, nullptr) == 0, "mount over /dev");
  }
  ~LogDaemon() {
    umount2("/dev", MNT_DETACH);
    close(socketNumber);
  }
  LogDaemon(const LogDaemon&) = delete;
  LogDaemon& operator=(const LogDaemon&) = delete;

  // All that arrives until the datagram `last`, which is not given back.
  std::vector<std::string> receiveUntil(const std::string& last) const {
    std::vector<std::string> lines;
    std::string buffer(65536, '\0');
    while (true) {
      const ssize_t size = recv(socketNumber, buffer.data(), buffer.size(), 0);
      orThrow(size >= 0, "receive the next line");
      const std::string line = buffer.substr(0, static_cast<size_t>(size));
      if (line == last) return lines;
      lines.push_back(line);
    }
  }

  static void send(const std::string& datagram) {
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = addressOf(kLogSocket);
    const ssize_t sent = sendto(sender, datagram.data(), datagram.size(), 0,
                                reinterpret_cast<const sockaddr*>(&address), sizeof address);
    close(sender);
    orThrow(sent >= 0, "send to the log");
  }

 private:
  void copyDevice(const std::string& name) {
    struct stat device;
    if (stat(("/dev/" + name).c_str(), &device) != 0) return;
    orThrow(mknod((directory / name).c_str(), device.st_mode, device.st_rdev) == 0, "make a device");
    chmod((directory / name).c_str(), device.st_mode & 07777);
  }
  void copyLink(const std::string& name) {
    std::error_code none;
    const fs::path target = fs::read_symlink("/dev/" + name, none);
    if (!none) fs::create_symlink(target, directory / name);
  }

  ScratchDirectory directory;
  int socketNumber = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

// What the log got from one process.
struct Logged {
  std::vector<std::string> lines;
  std::string process;  // its id
};

// A balancing pass, in a process of its own, that moves the resource "a" and meets a conflict over the file "b".
class LoggedPass {
 public:
  LoggedPass() {
    setTimes(repository.place(0, "a", "content", kUsed), kUsed);
    repository.placeFile(0, "b", "content", kUsed + 3600);
    repository.placeFile(1, "b", "other content", kUsed);
  }

  Logged run() {
    const std::string idFile = repository.scratch() + "/process";
    Child child([&](const Child::Parent&) {
      writeFile(idFile, std::to_string(getpid()));
      FakeDisks disks;
      disks.setUsed(repository.mount(0), 99.5);
      disks.setUsed(repository.mount(1), 10);
      checkOverload_(repository.id(), false);
      LogDaemon::send("end");
    });
    Logged logged;
    logged.lines = daemon.receiveUntil("end");
    EXPECT_EQ(child.join(), 0);
    logged.process = readFile(idFile);
    return logged;
  }

  // "<priority>Mmm dd hh:mm:ss KTRepositoryHandler[process]: text", without the time, which must look like one.
  static std::string withoutTime(const std::string& line) {
    const size_t begin = line.find('>') + 1;
    if (begin == 0 || line.size() < begin + 16) return line + " is no log line";
    tm parsed = {};
    const std::string time = line.substr(begin, 16);
    const char* end = strptime(time.c_str(), "%b %d %H:%M:%S ", &parsed);
    if (!end || *end) return line + " has no time";
    return line.substr(0, begin) + line.substr(begin + 16);
  }

  // The lines of a pass as they should arrive, with the priority numbers of the three levels.
  std::vector<std::string> expected(const Logged& logged, int error, int info, int debug) const {
    const std::string fromA = repository.resourcePath(0, "a");
    const std::string toA = repository.resourcePath(1, "a");
    const std::string fromB = repository.resourcePath(0, "b");
    const std::string toB = repository.resourcePath(1, "b");
    const auto line = [&](int priority, const std::string& text) {
      return std::string("<") + std::to_string(priority) + ">KTRepositoryHandler[" + logged.process + "]: " + text;
    };
    const std::string lastUse = "CheckOverload: Last access/modification time of the resource: ";
    return {line(debug, "CheckOverload detected " + repository.mount(0) + " has to be clean"),
            line(debug, "CheckOverload tries to move"),
            line(info, "CheckOverload moves " + fromA + " to " + toA),
            line(info, lastUse + "Sun Sep  9 01:46:40 2001\n"),
            line(info, "CheckOverload moves " + fromB + " to " + toB),
            line(info, lastUse + "Sun Sep  9 02:46:40 2001\n"),
            line(error, "The resource \"" + fromB + "\" conflicts with \"" + toB + "\".")};
  }

  static constexpr time_t kUsed = 1000000000;  // 2001-09-09 01:46:40 UTC

  TestRepository repository{{"d1", "d2"}};
  LogDaemon daemon;
};

// A pass tries a conflict over and over until it gives up; here the first lines matter.
std::vector<std::string> firstLines(const Logged& logged, size_t count) {
  std::vector<std::string> lines;
  for (const std::string& line : logged.lines)
    if (lines.size() < count) lines.push_back(LoggedPass::withoutTime(line));
  return lines;
}

TEST(SyslogTest, WithoutAFacilityLinesArriveAsLocal0) {
  LoggedPass pass;
  const Logged logged = pass.run();
  EXPECT_EQ(firstLines(logged, 7), pass.expected(logged, 131, 134, 135));  // 16 * 8 + 3, 6, 7
}

TEST(SyslogTest, LinesArriveUnderTheFacilityOfTheEnvironment) {
  const EnvironmentVariable facility("LOG_FACILITY", "local5");
  LoggedPass pass;
  const Logged logged = pass.run();
  EXPECT_EQ(firstLines(logged, 7), pass.expected(logged, 171, 174, 175));  // 21 * 8 + 3, 6, 7
}

TEST(SyslogTest, AnUnknownFacilityIsLocal0) {
  const EnvironmentVariable facility("LOG_FACILITY", "LOCAL5");
  LoggedPass pass;
  const Logged logged = pass.run();
  EXPECT_EQ(firstLines(logged, 7), pass.expected(logged, 131, 134, 135));
}

TEST(SyslogTest, TheOperatorsFacilityIsNotTheLibrarys) {
  const EnvironmentVariable facility("LOG_OPER_FACILITY", "local5");
  LoggedPass pass;
  const Logged logged = pass.run();
  EXPECT_EQ(firstLines(logged, 7), pass.expected(logged, 131, 134, 135));
}

TEST(SyslogTest, EveryLineOfAPassCarriesIdentAndProcess) {
  LoggedPass pass;
  const Logged logged = pass.run();
  ASSERT_FALSE(logged.lines.empty());
  for (const std::string& line : logged.lines)
    EXPECT_THAT(LoggedPass::withoutTime(line),
                testing::MatchesRegex("<13[145]>KTRepositoryHandler\\[" + logged.process + "\\]: [^$]*"));
}

// The established form of these lines: the error number is one raw character.
TEST(SyslogTest, TheErrorMarkArrivesAsOneRawCharacter) {
  TestRepository repository({"d1"});
  LogDaemon daemon;
  Child child([&](const Child::Parent&) {
    FakeDisks disks;
    disks.fail(repository.mount(0), EIO);
    getRepositoryStatus_(repository.id());
    LogDaemon::send("end");
  });
  const std::vector<std::string> lines = daemon.receiveUntil("end");
  EXPECT_EQ(child.join(), 0);
  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(lines.front(), testing::StartsWith("<131>"));
  EXPECT_THAT(lines.front(), testing::EndsWith("Error occured while statvfs call to \"" + repository.mount(0) +
                                               "\". Error code is \x05"));
}

// mountwarden is another program with a log of its own process; the ident is the library's all the same.
TEST(SyslogTest, TheCheckerLogsUnderTheSameIdent) {
  TestRepository repository({"d1", "d2"});
  // Whatever the fill of the disk below: one mount is always at its move limit, the other never full.
  repository.configureMount(0, "fullLimit=0\ncleanLimit=0\nmoveLimit=0\n");
  repository.configureMount(1, "cleanLimit=101\nmoveLimit=1\n");
  LogDaemon daemon;
  const std::string command = std::string(KT_MOUNTWARDEN_FILE) + " " + repository.path() + " > /dev/null";
  Child child([&](const Child::Parent&) {
    EXPECT_EQ(FakeShell::runReal(command), 0);
    LogDaemon::send("end");
  });
  const std::vector<std::string> lines = daemon.receiveUntil("end");
  EXPECT_EQ(child.join(), 0);
  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(LoggedPass::withoutTime(lines.front()),
              testing::MatchesRegex("<135>KTRepositoryHandler\\[[0-9]+\\]: CheckOverload detected " +
                                    repository.mount(1) + " has to be clean"));
}

}  // namespace
