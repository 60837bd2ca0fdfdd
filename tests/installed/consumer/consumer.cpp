// A program of another project, built against the installed library.
//
//   consumer REPOSITORY ID ...     finds each resource, or makes it, and prints "ID PATH"
//
// It makes resources by the flat entries and looks them up again by the classes. Exits with 1 when both do not agree.

#include <ktutils/KTException.h>
#include <repositoryhandler/KTRepositoryHandler.h>
#include <repositoryhandler/entrypoints.h>
#include <repositoryhandler/registry.h>

#include <iostream>
#include <memory>
#include <string>

namespace {

struct Releaser {
  void operator()(char* path) const { release(path); }
};
using Path = std::unique_ptr<char, Releaser>;

bool makeAndFind(const char* repository, const char* resource) {
  int made = -1;
  int found = -1;
  const Path place(createDirectory_(repository, resource, &made, false));
  const Path again(getRepository(repository)->getLocation(resource, &found, true, true));
  if (!place || !again || std::string(place.get()) != again.get()) {
    std::cerr << resource << ": made with status " << made << ", found with status " << found << "\n";
    return false;
  }
  std::cout << resource << " " << again.get() << "\n";
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 3) {
    std::cerr << "Usage: consumer <repository> <id> ...\n";
    return 2;
  }
  bool good = true;
  try {
    for (int i = 2; i < count; ++i) good = makeAndFind(arguments[1], arguments[i]) && good;
  } catch (const KTException& failure) {
    failure.print(std::cerr);
    good = false;
  }
  return good ? 0 : 1;
}
