// A directory as the walks see it: its names in their order, and its entries, examined relative to the directory
// itself. So the kernel follows one path for each directory, not one for each name. It stays open, one descriptor,
// while the object lives: a walk down to the resources holds four. One that another process moves meanwhile is still
// the one that was opened.

#ifndef REPOSITORYHANDLER_SORTEDDIRECTORY_H
#define REPOSITORYHANDLER_SORTEDDIRECTORY_H

#include <dirent.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

class SortedDirectory {
 public:
  // Reads `where`. One that cannot be read, in whole, has no names; nothing is logged.
  explicit SortedDirectory(std::string where);

  std::string pathOf(const std::string& name) const { return path + "/" + name; }
  // stat of an entry, links followed, into *status. Returns 0, or 8 when it failed (logged, by its path).
  int examine(const std::string& name, struct stat* status) const;

  const std::string path;
  bool isWhole = false;            // it was read to its end
  bool mayHoldMore = false;        // it was not, though it may be there: in the safe mode
  std::vector<std::string> names;  // without "." and "..", as scandir with alphasort orders them

 private:
  struct Closer {
    void operator()(DIR* opened) const { closedir(opened); }
  };
  const std::unique_ptr<DIR, Closer> directory;
};

#endif
