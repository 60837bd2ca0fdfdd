// What an id names: "/" around it are no part of the name. Internal to the library.

#ifndef REPOSITORYHANDLER_RESOURCEID_H
#define REPOSITORYHANDLER_RESOURCEID_H

#include <cstring>
#include <string>

// False for an id of nothing but "/": a path made from it is the directory that holds the resources.
inline bool hasName(const char* id) { return id[strspn(id, "/")] != '\0'; }

inline std::string withoutOuterSlashes(const std::string& id) {
  const size_t first = id.find_first_not_of('/');
  if (first == std::string::npos) return "";
  return id.substr(first, id.find_last_not_of('/') - first + 1);
}

#endif
