#include "KTHooks.h"

constinit KTHooks ktHooks = {};
