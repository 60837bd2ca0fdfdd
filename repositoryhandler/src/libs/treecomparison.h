// The safe mode's comparison of a resource with its copy. None follows a link. Internal to the library.

#ifndef REPOSITORYHANDLER_TREECOMPARISON_H
#define REPOSITORYHANDLER_TREECOMPARISON_H

#include <string>

// Returns 0 when two trees hold the same: names, types, contents of files, targets of links, numbers of devices. Else
// the status of diff, or that of a diff that found a difference.
int compareTrees(const std::string& origin, const std::string& copy);

// Whether a tree holds everything that another one holds, the same in each place; it may hold more.
bool isContained(const std::string& part, const std::string& whole);

// The same for names and types alone: no file is read.
bool namesAreContained(const std::string& part, const std::string& whole);

#endif
