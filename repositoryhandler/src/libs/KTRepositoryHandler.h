// KTRepositoryHandler: one repository, a directory whose configuration names the mount points over which
// its resources are spread. It searches and places resources over all mounts, keeps the status of the whole,
// balances full mounts and takes mounts out of service. Get one from getRepository (registry.h); it is valid
// until the next lookup.
//
// One thread at a time. Between processes, whatever decides where a resource is holds that resource's lock,
// a balancing pass holds the repository's lock around them, and the dirty set's lock is the innermost. Each
// lock is waited for up to 30 seconds; one that is not taken is logged, and the operation answers without
// having done anything, but for the dirty set, which then answers "dirty".
//
// Strings handed out are fresh char arrays that the caller frees with `release`. Every operation throws
// KTAssertionException for a null resource, when the dirty set cannot be written, and when a copy that is being moved
// vanishes; and KTIOException when a lock file cannot be removed: the work is done then, or not yet begun when it was
// the lock of the dirty set.

#ifndef REPOSITORYHANDLER_KTREPOSITORYHANDLER_H
#define REPOSITORYHANDLER_KTREPOSITORYHANDLER_H

#include <utime.h>

#include <ctime>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "KTApi.h"
#include "KTDirtyFlagHandler.h"
#include "KTMountPointHandler.h"
#include "ResourceEntry.h"

// Status bits of a repository, beside the mount bits 0x01 to 0x10, which stand here when every present mount
// has them. 0x40 and 0x80 mean something else than on a mount: both meanings are established with callers.
enum RepositoryStatus {
  REPOSITORY_NOSPACE = 0x20,     // no present mount is below both its fullLimit and its cleanLimit
  REPOSITORY_FULL = 0x40,        // every present mount is at its fullLimit: nothing can be created
  REPOSITORY_INCOMPLETE = 0x80,  // a mount is missing, and one is present
  REPOSITORY_MISSING = 0x100     // no mount is present; no other bit is set with it
};

// What operations on a resource answer, besides the codes of moveRes and deleteRes, which pass through.
enum ResourceResult {
  kResourceFound = 0,     // or created, or removed
  kResourceDirty = 1,     // found, but a mount was away on which another copy may be
  kResourceConflict = 2,  // copies that cannot be joined
  kResourceNotFound = 4,
  kResourceNotCreated = 8,
  kResourceNotLocked = 16
};

// What emptying a mount answers.
enum FreeMountResult { kMountFreed = 0, kNoSuchMount = 1, kNoTargetMount = 2, kMountNotFreed = 3 };

class KTProperties;
class KTSemaphore;

class KT_API KTRepositoryHandler {
 public:
  // Sets up; see there.
  explicit KTRepositoryHandler(const char* path);
  // A fresh parse of the same repository, not a copy of the fields.
  KTRepositoryHandler(const KTRepositoryHandler& other);
  KTRepositoryHandler& operator=(const KTRepositoryHandler&) = delete;
  ~KTRepositoryHandler();

  // Forgets all settings, then reads configuration, mounts and dirty set of the repository at `path` and
  // computes the status. A path that does not exist gives status 0x100 and nothing else. Throws
  // KTAssertionException for a null, when a listed mount's directory does not exist, or when the dirty set
  // cannot be opened.
  void setup(const char* path);
  // Reads "repository.cfg" and builds the mounts anew. Without the file the root itself is appended as a mount,
  // once more on every call. Always 0. Throws as setup.
  int parseConfigFile();
  // False when the configuration file of the repository or of a mount is missing or has changed since it was
  // read.
  bool isUpToDate();
  // The paths that the last balancing pass deleted or tried to delete. The list is the handler's.
  std::list<std::string>* getDeletedDirs();
  // The identifier, the path of the root directory as the caller gave it. The text is the handler's.
  const char* getID();

  // Asks every mount and stores and returns the status bits.
  int checkRepositoryStatus();
  // Puts every mount that is out of service back and returns the new status bits.
  int giveBackMounts();
  // Takes the mount of that number out of service, or with `doMount` puts it back, by renaming its
  // configuration file. Returns 0, or -1 for a number that no mount has. Nothing tells that a rename failed but
  // the status.
  int MountUnmount(int mount, bool doMount);
  // Takes a mount drawn by rand() out of service, or puts it back. For trying what happens when disks go.
  void rndMount();
  // The number of the mount for a new resource, or -1 when none may take it. Refreshes the status. While a
  // mount is below its switchLimit the mounts are filled in order; then the least used one is taken.
  int getActualMountPoint();
  // The same for a resource that leaves `source`: never that mount, nor one at its cleanLimit.
  int getActualMountPointForMove(KTMountPointHandler* source);
  // The same for a resource that comes from legacyDir: a mount on its file system is preferred.
  int getActualMountPointForLegacy();

  // The path of a resource, or null. Imports it from the legacy directory, and joins the copies of a dirty one
  // onto the last mount that has one.
  //   result  out, may be null: 0, 1 with a path; 2, 4 or a moveRes code with null; untouched when the
  //           lock is not taken, and when the resource stays in the legacy directory
  //   lock    take the resource's lock; false when the caller holds it
  //   touch   set the resource's times to now
  char* getLocation(const char* resource, int* result, bool lock, bool touch);
  // The path of a resource, or the path where it is to be made on a mount chosen for it, its hash directories
  // made; null when it is not locked or no mount can take it (logged).
  //   result       out, may be null: as getLocation for a resource that exists; 0 or 8 for a new one;
  //                untouched when the lock is not taken
  //   noDirtyMark  do not mark a resource that is made while a mount is away, and may be on it, as dirty
  // Throws KTAssertionException for an id with a "/" inside, as getLocation does when it finds one in the legacy
  // directory. That the last directory of the path could not be made is not told: callers look whether it exists.
  char* createLocation(const char* resource, int* result, bool noDirtyMark);
  // The same, and the resource's directory is made.
  char* createDirectory(const char* resource, int* result, bool noDirtyMark);
  // Deletes a resource wherever it is. Returns 0, 1 when copies may be on a mount that is away (nothing is
  // deleted then), 4 when there is none, 8 when not all could be deleted, 16 when it is not locked.
  int removeResource(const char* resource);
  // The status that getLocation gives; 0 for a resource that stays in the legacy directory, 16 when it is not locked.
  int checkResourceStatus(const char* resource);
  // Sets a resource's access and modification time, to now for null times. False when it is not found or they cannot be
  // set. No lock but in the safe mode.
  bool setTimeProperties(const char* resource, utimbuf* times);
  // Reads them. False when the resource is not found; *times is then untouched. No lock but in the safe mode.
  bool getTimeProperties(const char* resource, utimbuf* times);
  // Makes a directory for a resource in the legacy directory and gives its path, or null when there is no
  // legacy directory or a directory above it cannot be made. No lock.
  char* createToLegacy(const char* resource);
  // The ids of all resources, a resource on several mounts once for each, as an array of *count strings: the
  // caller frees each with `release` and the array with array delete. Never null. No lock.
  //   typeFilter  a ResourceTypeFilter
  //   sort        by bytes; otherwise in mount order, as listed
  char** listResources(int typeFilter, long* count, bool sort);

  // Fills *result with the oldest resources of all present mounts that may be moved, 101 at most. Returns its
  // size. Throws KTAssertionException for a null. No lock but as getOldestResources.
  int getGlobalOldestResources(std::set<ResourceEntry, ltres>* result);

  // One balancing pass: mounts at their moveLimit are drained below their cleanLimit, oldest resources first;
  // in a clearable repository without room the oldest resources of all are deleted first. With `verbose` it
  // tells on standard output what it does. Holds the repository's lock; without it (logged) no resource is touched. A
  // mount on which nothing could be moved or deleted in three rounds is given up (logged).
  void checkOverload(bool verbose);
  // Moves the oldest resources off `mount` until it is below its cleanLimit. Returns 1 when no mount may take
  // them or there is none old enough, else 0, also when it gives up as a pass does. The caller holds the repository's
  // lock.
  int moveResourcesFromMount(KTMountPointHandler* mount, bool verbose);
  // Moves all resources off the mount whose directory is the repository's plus "/" plus `mountName`; in the safe mode
  // any name of the directory will do, as that of a mount which was left out for this one. Returns 0 when done, 1 when
  // there is no such mount, 2 when no mount could take them, 3 when some could not be moved. Also 2 when the last
  // target was mount 0, even if all were moved. Takes no lock of the repository.
  int moveAllResourcesFromMount(const char* mountName);
  // Clears the dirty set, puts all mounts back in service and removes every resource. Takes no lock of the repository.
  void makeEmpty();

  // Hook: a resource at this path in the legacy directory was found. Empty.
  void writeToLegacyLog(const char* text);

  std::string id;                                 // empty while the repository's directory was never there
  time_t configTime = 0;                          // modification time of "repository.cfg" when it was read; 0: never
  std::vector<KTMountPointHandler*> mountPoints;  // owned; the index is the mount's number
  KTDirtyFlagHandler dirtyFlagHandler;
  int status = 0;         // bits of RepositoryStatus and MountStatus
  std::string legacyDir;  // empty: none
  std::list<std::string> deletedDirs;
  int remindLimit = 0;  // percent of used space, as all limits; values for a new repository: see setup
  int warnLimit = 0;
  int warn2Limit = 0;
  int warn3Limit = 0;
  int switchLimit = 0;
  int fullLimit = 0;
  int cleanLimit = 0;
  int moveLimit = 0;
  int nomoveTime = 0;  // seconds
  bool isClearable = false;

 private:
  using Candidates = std::set<ResourceEntry, ltres>;
  using MountCreation = char* (KTMountPointHandler::*)(const char*, int*);

  // How far a pass has come with one mount.
  struct Progress {
    unsigned long tried = 0;      // resources that were to be moved or deleted
    unsigned long relocated = 0;  // those that were
    bool gaveUp = false;          // rounds in a row got nowhere
  };
  class KT_LOCAL FruitlessRounds;

  KTRepositoryHandler() = default;
  void applySettings(KTProperties& properties);
  void addMounts(const char* list);
  void addMount(const std::string& path);
  void removeMounts();

  int chooseMount(const KTMountPointHandler* source, int notFilled, int notBalanced);
  int leastUsedMount(const KTMountPointHandler* source, int excluded);

  std::string lockNameOf(const std::string& resource) const;
  bool takeResourceLock(KTSemaphore& semaphore) const;
  char* locate(const char* resource, int* result, bool touch);
  char* importFromLegacy(const char* resource, bool touch);
  KT_LOCAL bool moveFromLegacy(KTMountPointHandler* mount, const char* resource, const std::string& legacy);
  char* locateOnMounts(const char* resource, int* result, bool touch);
  char* create(const char* resource, int* result, bool noDirtyMark, MountCreation creation);
  char* createUnderLock(const char* resource, int* result, bool noDirtyMark, MountCreation creation);
  int removeEverywhere(const char* resource);
  std::list<std::string> allResources(int typeFilter);

  void relieveMount(KTMountPointHandler* mount, bool verbose);
  bool relieveOnce(KTMountPointHandler* mount, bool verbose, Progress& progress);
  bool deleteOldest(const KTMountPointHandler* mount, Candidates& oldest, bool verbose, Progress& progress);
  bool deleteCandidate(const KTMountPointHandler* mount, const ResourceEntry& entry, bool verbose);
  bool deleteUnderLock(const ResourceEntry& entry, bool verbose);
  bool moveOldest(KTMountPointHandler* mount, bool verbose, Progress& progress);
  void moveBatches(KTMountPointHandler* mount, Candidates& oldest, int target, bool verbose, Progress& progress);
  bool moveCandidate(KTMountPointHandler* mount, const ResourceEntry& entry, int& target, bool verbose);
  bool moveUnderLock(const ResourceEntry& entry, const std::string& destination, const char* failureLine, bool verbose);
  bool evacuateBatches(KTMountPointHandler* mount, Candidates& batch, int& target);
  bool evacuate(KTMountPointHandler* mount, const ResourceEntry& entry, int& target);
  KTMountPointHandler* mountAt(const std::string& path) const;
  std::string destinationOf(const ResourceEntry& entry, int target) const;
  void markDirty(const ResourceEntry& entry);
  KT_LOCAL bool markWhileMoved(const char* resource);
  KT_LOCAL void unmark(const char* resource);
  KT_LOCAL static int freed(const KTMountPointHandler* mount);
  KT_LOCAL void removeLeftovers(const KTMountPointHandler* mount) const;

  // Path of "repository.cfg", which every operation begins with; of the empty id at first.
  std::string configFile = "/repository.cfg";
};

#endif
