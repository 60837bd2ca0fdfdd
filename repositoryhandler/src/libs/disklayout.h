// Constants of the layout on disk.

#ifndef REPOSITORYHANDLER_DISKLAYOUT_H
#define REPOSITORYHANDLER_DISKLAYOUT_H

// Hashed levels above a resource. With another value nothing is found.
constexpr unsigned int kHashLevels = 3;

// The mode of every directory that the system makes.
constexpr unsigned long kDirectoryMode = 0755;

// The file at the root of a mount that puts it in service.
constexpr char kMountConfig[] = "/repositorypart.cfg";

// The file system's own directory at the root of a disk; never part of a repository there.
constexpr char kLostAndFound[] = "lost+found";

#endif
