#include "KTHooks.h"

constinit KTHooks ktHooks = {nullptr, nullptr, nullptr};
