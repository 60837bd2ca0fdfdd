// KT_API marks what the shared library shows to its callers; everything else is built hidden. KT_LOCAL hides a part of
// what is shown.

#ifndef KTUTILS_KTAPI_H
#define KTUTILS_KTAPI_H

#define KT_API __attribute__((visibility("default")))
#define KT_LOCAL __attribute__((visibility("hidden")))

#endif
