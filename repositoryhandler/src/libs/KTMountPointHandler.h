// KTMountPointHandler: one mount point of a repository, normally the root of a disk. It knows whether the
// disk is there, how full it is and which limits that reaches, and finds, makes, lists and removes resources
// under the hashed layout of this one disk. A mount is present while its file "repositorypart.cfg" exists:
// a disk that is not mounted lacks it, and one taken out of service has it under another name.
//
// The mount layer takes no lock of a resource: the repository layer above holds it. Only the walks for candidates
// take the dirty set's lock for each name, and a dirty resource's own. An
// object belongs to one thread; other processes change the disk meanwhile, so each answer is a snapshot.

#ifndef REPOSITORYHANDLER_KTMOUNTPOINTHANDLER_H
#define REPOSITORYHANDLER_KTMOUNTPOINTHANDLER_H

#include <ctime>
#include <list>
#include <set>
#include <string>

#include "KTApi.h"
#include "ResourceEntry.h"

class KTRepositoryHandler;
class SortedDirectory;

// Status bits of a mount. The values reach the repository's status and its callers.
enum MountStatus {
  MOUNT_REMIND = 0x01,   // at or above the repository's remindLimit
  MOUNT_WARN = 0x02,     // the repository's warnLimit
  MOUNT_WARN2 = 0x04,    // the repository's warn2Limit
  MOUNT_WARN3 = 0x08,    // the repository's warn3Limit
  MOUNT_SWITCH = 0x10,   // the mount's switchLimit
  MOUNT_FULL = 0x20,     // the mount's fullLimit: takes no new resources
  MOUNT_CLEAN = 0x40,    // the mount's cleanLimit: takes no moved resources, and is drained down to it
  MOUNT_MOVE = 0x80,     // the mount's moveLimit: draining begins
  MOUNT_MISSING = 0x100  // not there, or its file system could not be asked; no other bit is set with it
};

class KT_API KTMountPointHandler {
 public:
  // Sets up; see there.
  KTMountPointHandler(const std::string& path, KTRepositoryHandler* owner);
  // A fresh probe of the same mount, not a copy of the fields.
  KTMountPointHandler(const KTMountPointHandler& other);
  KTMountPointHandler& operator=(const KTMountPointHandler&) = delete;
  ~KTMountPointHandler();

  // Points the object at the mount directory `path` of `owner`, which it does not own; takes the limits
  // of the owner, probes the disk, and applies the mount's own configuration when it is present. Throws
  // KTAssertionException when the directory does not exist or `owner` is null.
  void setup(const std::string& path, KTRepositoryHandler* owner);
  // Reads "repositorypart.cfg", if there is one: limits that it names replace the present ones, values
  // that are no natural numbers are passed over. Always 0.
  int parseConfigFile();
  // False when "repositorypart.cfg" has gone or has changed since it was read.
  bool isUpToDate();
  // Percent of the disk's blocks that an unprivileged user cannot have any more, or -1 when the file system
  // could not be asked (logged).
  float getUsedPercentage();
  // The status bits, computed afresh and stored. With `useCached` the stored bits stand and the file system
  // is not asked, but a mount that went away or came back since is noticed either way; one that came back
  // is read and probed in full.
  int checkStatus(bool useCached);
  // The decimal natural number `text`, or -1 when it is empty, null or holds anything but digits. Larger numbers
  // wrap around modulo 2^32 into the signed result.
  static int parseNatInt(const char* text);

  // The path of a resource on this mount, in a fresh char array, or null.
  //   id           the resource; its last component is hashed too
  //   result       out, may be null: 0 found, 4 not found; untouched when the mount is missing. In the safe mode 8 when
  //                the mount could not be looked at, which then counts as missing
  //   mountStatus  out, may be null: the mount's fresh status
  //   touch        set the resource's times to now
  // Throws KTAssertionException for a null id.
  char* getLocation(const char* id, int* result, int* mountStatus, bool touch);
  // The path at which a resource is to be made, in a fresh char array, with its hash directories made; null
  // when the mount is missing or a directory above the last hash level cannot be made in five attempts (logged). That
  // the last level could not be made is not told: callers look whether it exists.
  //   id      one path component, "/" around it ignored; another "/" throws KTAssertionException, as null
  //           does
  //   result  out, may be null: 0 or 8
  char* createLocation(const char* id, int* result);
  // The same, and the resource's own directory is made; that it could not be made is not told either.
  char* createDirectory(const char* id, int* result);
  // Deletes a resource and the hash directories that it leaves empty. Returns 0, 4 when it is not on this
  // mount, or 8 when not all of it could be deleted. Throws KTAssertionException for a null id.
  int removeResource(const char* id);
  // Appends the ids of the resources on this mount, in the order of the walk; a missing mount has none.
  //   typeFilter  a ResourceTypeFilter
  void listResources(std::list<std::string>& out, int typeFilter);

  // Adds to *result the oldest resources below mountPath + prefix that were not used within nomoveTime, so
  // that it holds at most `max`. A name in the dirty set is located instead, which joins its copies, and is
  // no candidate: that takes the resource's lock, so the caller holds none, and up to 30 seconds when it is held.
  //   prefix  "" for the whole mount; inside the walk, the path below the mount, beginning with "/"
  //   depth   of prefix: 0 for the mount, 3 where the entries are resources
  // Returns the size of *result, 0 for a max of 0, or -1 when the mount is missing. Throws
  // KTAssertionException for a null.
  int getOldestResources(std::set<ResourceEntry, ltres>* result, unsigned int max, const char* prefix,
                         unsigned int depth);
  // The same, but resources as they are listed, of any age, until *result holds `max`; their time is 0.
  int getRandomResources(std::set<ResourceEntry, ltres>* result, unsigned int max, const char* prefix,
                         unsigned int depth);

  // Hook: a resource at this path was handed out. Empty.
  void writeToLog(const char* text);

  std::string mountPath;
  KTRepositoryHandler* repository = nullptr;  // not owned
  int status = 0;                             // MountStatus bits
  int switchLimit = 0;                        // percent of used space, as the three below
  int fullLimit = 0;
  int cleanLimit = 0;
  int moveLimit = 0;
  int nomoveTime = 0;     // seconds
  std::string logPath;    // of the mount's operation log
  time_t configTime = 0;  // modification time of "repositorypart.cfg" when it was read; 0: never

 private:
  using Candidates = std::set<ResourceEntry, ltres>;
  class KT_LOCAL CandidateWalk;
  class KT_LOCAL OldestWalk;
  class KT_LOCAL RandomWalk;

  friend class KTRepositoryHandler;  // looks for one resource on mount after mount: the path below them is the same

  int statusBits(float used) const;
  // getLocation and removeResource of the resource at this path below the mount, which begins with "/".
  KT_LOCAL char* locate(const std::string& below, int* result, int* mountStatus, bool touch);
  KT_LOCAL int remove(const std::string& below);
  KT_LOCAL char* notLookedAt(int* result, int* mountStatus) const;
  int collect(CandidateWalk& walk, const char* prefix, unsigned int depth);
  KT_LOCAL static void passOver(CandidateWalk& walk, const std::string& path);
  void walkDirectory(CandidateWalk& walk, const std::string& path, unsigned int depth);
  void walkEntry(CandidateWalk& walk, const SortedDirectory& directory, const std::string& name, unsigned int depth);

  std::string configFile;  // path of "repositorypart.cfg", which every look at the mount begins with
  bool passedOver = true;  // whether the last walk for candidates may have left resources unseen: in the safe mode
};

#endif
