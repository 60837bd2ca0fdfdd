#include "registry.h"

#include <iostream>  // the stream initialiser is built before, and goes after, the two globals below
#include <memory>

#include "KTException.h"

// Built in this order, destroyed in reverse.
KTLogger rh_logger("KTRepositoryHandler");
RepMap repositoryMap;

RepMap::RepMap() = default;

RepMap::~RepMap() {
  for (const auto& entry : *this) delete entry.second;
  clear();
}

KTRepositoryHandler* getRepository(const char* id) {
  KT_ASSERT(id);
  // A stale handler lives until the fresh one stands, so that the two never share an address: callers tell a
  // rebuilt repository by its pointer.
  std::unique_ptr<KTRepositoryHandler> stale;
  const auto found = repositoryMap.find(id);
  if (found != repositoryMap.end()) {
    if (found->second->isUpToDate()) return found->second;
    stale.reset(found->second);
    repositoryMap.erase(found);
  }
  auto fresh = std::make_unique<KTRepositoryHandler>(id);
  repositoryMap[id] = fresh.get();
  return fresh.release();
}
