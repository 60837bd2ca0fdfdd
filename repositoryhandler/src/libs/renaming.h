// Renaming that replaces nothing. Internal to the library.

#ifndef REPOSITORYHANDLER_RENAMING_H
#define REPOSITORYHANDLER_RENAMING_H

#include <string>

// Renames `from` to `to`, where nothing may be: not even an empty directory, which would make way. False, with errno,
// when that failed, EEXIST when something is there.
bool renameToNothing(const std::string& from, const std::string& to);

#endif
