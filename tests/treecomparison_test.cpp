// What counts as the same copy, seen through moves whose copy is altered before it is compared: each difference keeps
// the origin.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>

#include "fakes/fakes.h"
#include "support/scratch.h"
#include "transfer.h"

namespace fs = std::filesystem;

using testing::Contains;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

// Trees with a special file in them are walked by the library, all others by diff alone.
class TreeComparisonTest : public testing::TestWithParam<bool> {
 protected:
  TreeComparisonTest() {
    writeFile(from() + "/file", "content");
    writeFile(from() + "/-q", "a name like an option");
    writeFile(from() + "/a b;$(x)'`\n\"", "a name that a shell would take apart");
    writeFile(from() + "/sub/deep/file", "deep");
    makeDirectories(from() + "/empty");
    makeLink("file", from() + "/link");
    makeLink("nowhere", from() + "/dangling");
    if (GetParam()) {
      EXPECT_EQ(mkfifo((from() + "/pipe").c_str(), 0600), 0);
      EXPECT_EQ(mknod((from() + "/device").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0) << "needs root";
    }
  }
  std::string from() const { return directory / "from"; }
  std::string to() const { return directory / "to"; }

  // Moves, and alters the copy once it is made.
  int move(const std::function<void(const std::string& copy)>& alter) const {
    FakeShell shell;
    shell.answer = [&](const std::string& command) {
      const int status = FakeShell::runReal(command);
      if (!command.starts_with("cp ")) return status;
      for (const auto& entry : fs::directory_iterator(directory.path()))
        if (entry.path().filename().string().starts_with(".kt-move-")) alter(entry.path());
      return status;
    };
    return moveRes(from().c_str(), to().c_str());
  }

  ScratchDirectory directory;
  EnvironmentVariable safe{"KT_SAFE", "1"};
  FakeSyslog log;
};

struct Difference {
  const char* name;
  std::function<void(const std::string& copy)> make;
};

void replaceBy(const std::string& path, const std::function<void(const std::string&)>& make) {
  fs::remove_all(path);
  make(path);
}

void makePipe(const std::string& path) { EXPECT_EQ(mkfifo(path.c_str(), 0600), 0); }
void makeNode(const std::string& path) { EXPECT_EQ(mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 5)), 0); }
void makeFile(const std::string& path) { writeFile(path, ""); }

const Difference kDifferences[] = {
    {"a byte of a file", [](const std::string& copy) { writeFile(copy + "/sub/deep/file", "deeq"); }},
    {"a file that is shorter", [](const std::string& copy) { fs::resize_file(copy + "/file", 3); }},
    {"a file that is missing", [](const std::string& copy) { fs::remove(copy + "/sub/deep/file"); }},
    {"a file like an option", [](const std::string& copy) { writeFile(copy + "/-q", "another"); }},
    {"a file of a strange name", [](const std::string& copy) { writeFile(copy + "/a b;$(x)'`\n\"", "another"); }},
    {"a file more", [](const std::string& copy) { writeFile(copy + "/empty/more", ""); }},
    {"an empty directory that is missing", [](const std::string& copy) { fs::remove(copy + "/empty"); }},
    {"a file for a directory", [](const std::string& copy) { replaceBy(copy + "/empty", makeFile); }},
    {"a directory for a file", [](const std::string& copy) { replaceBy(copy + "/file", makeDirectories); }},
    {"a pipe for a file", [](const std::string& copy) { replaceBy(copy + "/file", makePipe); }},
    {"a pipe more", [](const std::string& copy) { makePipe(copy + "/more"); }},
    {"the target of a link",
     [](const std::string& copy) { replaceBy(copy + "/link", [](const std::string& path) { makeLink("-q", path); }); }},
    {"the target of a dangling link",
     [](const std::string& copy) {
       replaceBy(copy + "/dangling", [](const std::string& path) { makeLink("somewhere", path); });
     }},
    {"what a link points to for the link",
     [](const std::string& copy) {
       replaceBy(copy + "/link", [](const std::string& path) { writeFile(path, "content"); });
     }},
};

const Difference kSpecialDifferences[] = {
    {"a pipe that is missing", [](const std::string& copy) { fs::remove(copy + "/pipe"); }},
    {"a file for a pipe", [](const std::string& copy) { replaceBy(copy + "/pipe", makeFile); }},
    {"a device for a pipe", [](const std::string& copy) { replaceBy(copy + "/pipe", makeNode); }},
    {"another device", [](const std::string& copy) { replaceBy(copy + "/device", makeNode); }},
};

}  // namespace

TEST_P(TreeComparisonTest, EqualTreesAreTheSame) {
  EXPECT_EQ(move([](const std::string&) {}), 0);
  EXPECT_FALSE(isThere(from()));
  EXPECT_EQ(readFile(to() + "/sub/deep/file"), "deep");
  EXPECT_EQ(readFile(to() + "/-q"), "a name like an option");
}

TEST_P(TreeComparisonTest, TimesAndModesAreNotCompared) {
  EXPECT_EQ(move([](const std::string& copy) {
              setTimes(copy + "/file", 1);
              fs::permissions(copy + "/file", fs::perms::owner_read);
            }),
            0);
}

TEST_P(TreeComparisonTest, EachDifferenceKeepsTheOriginAndRemovesTheCopy) {
  const auto keepsTheOrigin = [&](const Difference& difference) {
    SCOPED_TRACE(difference.name);
    bool altered = false;
    EXPECT_EQ(move([&](const std::string& copy) {
                difference.make(copy);
                altered = true;
              }),
              8);
    EXPECT_TRUE(altered);
    EXPECT_EQ(readFile(from() + "/sub/deep/file"), "deep");
    EXPECT_FALSE(isThere(to()));
    EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), {}), 1);
  };
  for (const Difference& difference : kDifferences) keepsTheOrigin(difference);
  if (!GetParam()) return;
  for (const Difference& difference : kSpecialDifferences) keepsTheOrigin(difference);
}

TEST_P(TreeComparisonTest, ACopyThatIsNotThereDiffers) {
  EXPECT_EQ(move([](const std::string& copy) { fs::remove_all(copy); }), 8);
  EXPECT_TRUE(isThere(from() + "/file"));
}

TEST_P(TreeComparisonTest, ADiffThatCannotBeRunCountsAsADifference) {
  FakeShell shell;
  shell.answer = [](const std::string& command) {
    return command.starts_with("diff ") ? -1 : FakeShell::runReal(command);
  };
  EXPECT_EQ(moveRes(from().c_str(), to().c_str()), 8);
  EXPECT_TRUE(isThere(from() + "/file"));
  EXPECT_FALSE(isThere(to()));
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutSpecialFiles, TreeComparisonTest, testing::Bool());

TEST(TreeComparisonOfOneTest, ASpecialFileThatIsAResourceIsMovedToo) {
  const ScratchDirectory directory;
  const EnvironmentVariable safe("KT_SAFE", "1");
  const FakeSyslog log;
  makePipe(directory / "from");
  EXPECT_EQ(moveRes((directory / "from").c_str(), (directory / "to").c_str()), 0);
  struct stat status;
  ASSERT_EQ(lstat((directory / "to").c_str(), &status), 0);
  EXPECT_TRUE(S_ISFIFO(status.st_mode));
  EXPECT_FALSE(isThere(directory / "from"));
}
