// KT_API marks what the shared library shows to its callers; everything else is built hidden.

#ifndef KTUTILS_KTAPI_H
#define KTUTILS_KTAPI_H

#define KT_API __attribute__((visibility("default")))

#endif
