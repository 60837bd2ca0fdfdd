// The assertions that keep their number. Operators search logs for these lines, so expression and line
// stay as they were first shipped, whatever happens to the code around them; every other assertion takes
// its text and its line from the source.

#ifndef REPOSITORYHANDLER_ASSERTIONSITES_H
#define REPOSITORYHANDLER_ASSERTIONSITES_H

#include "KTException.h"

struct AssertionSite {
  const char* expression;
  long line;
};

constexpr AssertionSite kOriginExists{"access( origin, F_OK ) == 0", 538};
// The text speaks of X_OK as well, but F_OK & X_OK is F_OK: only existence is asked for.
constexpr AssertionSite kMountDirectoryExists{"access( mountPath.c_str(), F_OK & X_OK ) == 0", 1250};
constexpr AssertionSite kOneComponent{"subDirectory.find( '/' ) == string::npos", 1429};
constexpr AssertionSite kRepositoryGiven{"repository", 1682};
constexpr AssertionSite kDirtySetReadable{"f", 1705};
constexpr AssertionSite kDirtySetWritable{"f", 1781};

inline void assertAt(const AssertionSite& site, bool holds) {
  if (!holds) throw KTAssertionException(site.expression, site.line, KT_SOURCE_FILE);
}

#endif
