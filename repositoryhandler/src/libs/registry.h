// The process's repositories. They live from their first look-up until a later one finds their configuration
// changed, or until the process ends; then the registry goes before the logger, so that what it deletes may
// still log. There is no lock: one thread at a time.

#ifndef REPOSITORYHANDLER_REGISTRY_H
#define REPOSITORYHANDLER_REGISTRY_H

#include <map>
#include <string>

#include "KTApi.h"
#include "KTRepositoryHandler.h"
#include "librarylog.h"

// Repositories by identifier, as given by the callers, byte for byte. It owns them.
class KT_API RepMap : public std::map<std::string, KTRepositoryHandler*> {
 public:
  RepMap();
  ~RepMap();
  RepMap(const RepMap&) = delete;
  RepMap& operator=(const RepMap&) = delete;
};

extern KT_API RepMap repositoryMap;

// The handler of the repository at `id`, built on first use and built anew when a configuration file of it is
// missing or has changed. The registry's: valid until the next look-up, which may delete it. Throws
// KTAssertionException for a null, when a listed mount's directory does not exist, or when the dirty set cannot
// be read, and KTIOException when the dirty set's lock file cannot be removed; there is no entry for the repository
// then.
KT_API KTRepositoryHandler* getRepository(const char* id);

#endif
