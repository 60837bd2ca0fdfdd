// Ids that no careful caller takes, for every entry that takes one.

#ifndef TESTS_SUPPORT_HOSTILEIDS_H
#define TESTS_SUPPORT_HOSTILEIDS_H

#include <ostream>
#include <string>
#include <vector>

struct HostileId {
  const char* name;  // of its tests
  std::string id;
};

// googletest shows one by this.
inline void PrintTo(const HostileId& hostile, std::ostream* out) { *out << hostile.name; }

// A name that a file system takes; with what stands before it, a lock file's no more.
const std::string kLongest(255, 'x');
const std::string kTooLong(256, 'x');

const std::vector<HostileId> kHostileIds = {
    {"Empty", ""},
    {"Slash", "/"},
    {"Dot", "."},
    {"DotDot", ".."},
    {"Path", "a/b"},
    {"PathUp", "../a"},
    {"SlashesAround", "/a/"},
    {"Bytes255", kLongest},
    {"Bytes256", kTooLong},
    {"Blank", " "},
    {"Tab", "\t"},
    {"LineFeed", "\n"},
    {"CarriageReturn", "\r"},
    {"Semicolon", ";"},
    {"Ampersand", "&"},
    {"Substitution", "$()"},
    {"Backquote", "`"},
    {"Quote", "'"},
    {"DoubleQuote", "\""},
    {"Star", "*"},
    {"Option", "-rf"},
    {"Tilde", "~"},
    {"Hash", "#"},
    {"Conversion", "%s%n"},
    {"Backslash", "\\"},
    {"NoCharacter", "\xff\xfe"},
    {"OverlongSlash", "\xc0\xaf"},
    {"LockFile", "semaphore_2009"},
    {"LostAndFound", "lost+found"},
};

#endif
