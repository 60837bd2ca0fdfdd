// How every room runs a command. Internal to the library.

#ifndef REPOSITORYHANDLER_SHELL_H
#define REPOSITORYHANDLER_SHELL_H

#include <cstdlib>
#include <string>

// Returns what system returns.
inline int run(const std::string& command) { return system(command.c_str()); }

#endif
