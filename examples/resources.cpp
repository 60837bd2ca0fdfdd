// How a native program uses the library: it puts directory trees into a repository and finds them again.
//
//   resources put REPOSITORY    reads lines "ID DAYS DIRECTORY" and stores a copy of each directory as the
//                               resource ID, last used so many days ago
//   resources find REPOSITORY   reads lines "ID" and prints "ID PATH" for each, PATH being "-" when there is none
//
// The entries are plain functions; a path that comes back is the caller's, who hands it to release.

#include <ctime>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include "KTException.h"
#include "entrypoints.h"
#include "paths.h"

namespace {

struct Releaser {
  void operator()(char* path) const { release(path); }
};
using Location = std::unique_ptr<char, Releaser>;

bool put(const std::string& repository, const std::string& id, long days, const std::string& source) {
  int status = 0;
  const Location location(createDirectory_(repository.c_str(), id.c_str(), &status, false));
  if (!location) {
    std::cerr << id << ": no place in the repository (status " << status << ")\n";
    return false;
  }
  using Options = std::filesystem::copy_options;
  std::filesystem::copy(source, location.get(), Options::recursive | Options::skip_symlinks);

  const time_t used = time(nullptr) - days * 24 * 60 * 60;
  utimbuf times = {used, used};
  return setTimeProperties_(repository.c_str(), id.c_str(), &times) != 0;
}

bool find(const std::string& repository, const std::string& id) {
  int status = 0;
  const Location location(getLocation_(repository.c_str(), id.c_str(), &status));
  std::cout << id << " " << (location ? location.get() : "-") << "\n";
  return location != nullptr;
}

bool putAll(const std::string& repository) {
  bool good = true;
  std::string id;
  std::string source;
  for (long days = 0; std::cin >> id >> days && std::getline(std::cin >> std::ws, source);)
    good = put(repository, id, days, source) && good;
  return good;
}

bool findAll(const std::string& repository) {
  bool good = true;
  for (std::string id; std::cin >> id;) good = find(repository, id) && good;
  return good;
}

}  // namespace

int main(int count, char** arguments) {
  const std::string command = count == 3 ? arguments[1] : "";
  if (command != "put" && command != "find") {
    std::cerr << "Usage: resources put|find <repository>\n";
    return 2;
  }
  try {
    return (command == "put" ? putAll(arguments[2]) : findAll(arguments[2])) ? 0 : 1;
  } catch (const KTException& failure) {  // a listed disk that is gone, a lock file that cannot be removed
    failure.print(std::cerr);
  } catch (const std::exception& failure) {
    std::cerr << failure.what() << "\n";
  }
  return 1;
}
