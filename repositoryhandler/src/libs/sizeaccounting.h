// countSize: the disk usage of every resource below a directory, measured by du and remembered in the file
// ".count" there, so that a resource that was not used since is not measured again. For outside callers;
// the library itself does not call it. No lock is taken: two calls on one directory at once share its
// ".count" and ".countres" and must not happen.

#ifndef REPOSITORYHANDLER_SIZEACCOUNTING_H
#define REPOSITORYHANDLER_SIZEACCOUNTING_H

#include <map>
#include <set>
#include <string>

#include "KTApi.h"

// What is remembered of a resource, by its name.
struct KT_API CountResourceEntry {
  long time;  // lastAccess when it was measured, seconds since the epoch
  long size;  // kilobytes
};

// One resource found by a walk.
struct KT_API CountResourceSetEntry {
  std::string name;
  long time;
  long size;
};

// Names in descending byte order: the order of the lines in ".count".
struct KT_API ctres {
  bool operator()(const CountResourceSetEntry& a, const CountResourceSetEntry& b) const;
};

// Measures all resources below `directory` and rewrites its ".count". Returns the total in kilobytes. A
// resource that du cannot measure counts as 0 until it is used again. Resources of one name all count, but
// stand once in the file.
//   flat  the directory's entries are the resources, symbolic links apart; otherwise it holds the hashed
//         layout
// Names stand in the command between double quotes: a double quote, "$" or backquote in one makes another command.
// Throws KTAssertionException for a null directory, and "f" when ".count" or the output of du cannot be opened;
// ".count" is then as it was. The output of du stays behind in ".countres".
extern "C" KT_API long countSize(const char* directory, bool flat);

// The walk: adds the resources below `directory` to *found and gives `total` plus their kilobytes.
//   cache  what is remembered, by name
//   root   where ".countres" is written
//   depth  3 is the level of the resources
// No pointer may be null.
// Throws KTAssertionException "f" when the output of du cannot be opened.
KT_API long countSizeRecursively(const char* directory, std::map<std::string, CountResourceEntry>* cache,
                                 std::set<CountResourceSetEntry, ctres>* found, const char* root, long total,
                                 unsigned int depth, bool flat);

#endif
