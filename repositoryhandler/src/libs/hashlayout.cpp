#include "hashlayout.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "KTOwned.h"
#include "disklayout.h"
#include "hashtrace.h"
#include "paths.h"

constexpr unsigned int hashLength = 2;

namespace {

// The output alphabet. 256 is no multiple of 37, so the last three characters come up a little less
// often; that bias is part of the layout.
constexpr char sHashTable[] = "QWERTYUIOPASDFGHJKLZXCVBNM1234567890_";
constexpr int nHashTableSize = 37;

constexpr unsigned int kCells = kHashLevels * hashLength;
constexpr size_t kLevelsLength = kCells + kHashLevels;  // the cells, and a "/" behind each level

// Writes the three hashed levels of a component, without a terminator.
void writeLevels(const char* name, size_t length, char (&levels)[kLevelsLength]) {
  uint8_t cells[kCells] = {};  // sums wrap modulo 256
  for (size_t i = 0; i < length; ++i) {
    const unsigned int byte = static_cast<unsigned char>(name[i]);
    for (unsigned int j = 0; j < kCells; ++j) {
      const unsigned int weight = static_cast<unsigned int>(i) + j + 1;
      cells[j] = static_cast<uint8_t>(cells[j] + byte * weight * weight);
    }
  }
  char* out = levels;
  for (unsigned int j = 0; j < kCells; ++j) {
    *out++ = sHashTable[cells[j] % nHashTableSize];
    if ((j + 1) % hashLength == 0) *out++ = '/';
  }
}

const char* orNull(const char* text) { return text ? text : "(null)"; }

std::string joined(const OwnedChars& a, const OwnedChars& b) { return std::string(a.get()).append(b ? b.get() : ""); }

// Goes up the link tree while the links dangle, and removes them. `rel` keeps the first that does not.
void removeDanglingLinks(const OwnedChars& linkRoot, OwnedChars& rel) {
  while (rel && isDangling(joined(linkRoot, rel).c_str())) {
    myunlink(joined(linkRoot, rel).c_str());
    rel.reset(parentDir(rel.get()));
  }
}

void linkOne(const std::string& link, const std::string& target) {
  const OwnedChars parent(baseDir(link.c_str()));
  if (!exists(target.c_str())) traceHash("Cannot link: target (%s) missing", target.c_str());
  if (!exists(parent.get())) traceHash("Cannot link: link's parent directory (%s) missing", parent.get());
  static_cast<void>(symlink(target.c_str(), link.c_str()));
}

}  // namespace

char* createHash(const char* name) {
  if (!name) return nullptr;
  char levels[kLevelsLength];
  const size_t length = strlen(name);
  writeLevels(name, length, levels);
  OwnedChars result(new char[kLevelsLength + length + 1]);
  memcpy(result.get(), levels, kLevelsLength);
  memcpy(result.get() + kLevelsLength, name, length + 1);
  return result.release();
}

char* convertToHashed_(const char* path) {
  if (!path) return nullptr;
  std::string result;
  result.reserve(strlen(path) + kLevelsLength);  // most paths have one component that is hashed
  const char* component = path;
  while (const char* slash = strchr(component, '/')) {
    if (slash != component) {
      char levels[kLevelsLength];
      writeLevels(component, static_cast<size_t>(slash - component), levels);
      result.append(levels, kLevelsLength).append(component, slash + 1);
    }
    component = slash + 1;
  }
  return mystrdup(result.append(component).c_str());  // the last component is the resource's own name
}

char* convertToHashed(const char* path) { return convertToHashed_(path); }

int createDirectory(const char* linkRoot, const char* hashRoot, const char* relPath) {
  traceHash("createDirectory started with (%s, %s, %s)", orNull(linkRoot), orNull(hashRoot), orNull(relPath));
  const OwnedChars rel(baseDir(relPath));
  if (!rel) return 1;
  const OwnedChars root(baseDir(hashRoot));
  if (!root) return 2;
  const OwnedChars hashedRel(convertToHashed_(rel.get()));
  const std::string directory = joined(root, hashedRel);
  traceHash("calling mkdirs with hashed path (%s)", directory.c_str());
  mkdirs(directory.c_str(), kDirectoryMode);
  traceHash("mkdirs returned");
  if (OwnedChars(baseDir(linkRoot))) mylink(linkRoot, hashRoot, relPath);
  return 0;
}

int createHashDirectory(const char* linkRoot, const char* hashRoot, const char* relPath) {
  return createDirectory(linkRoot, hashRoot, relPath);
}

int removeDirectory(const char* linkRoot, const char* hashRoot, const char* relPath) {
  const OwnedChars links(baseDir(linkRoot));
  const OwnedChars root(baseDir(hashRoot));
  OwnedChars rel(baseDir(relPath));
  OwnedChars rest(convertToHashed_(relPath));
  if (!root || !rest) {
    errno = EINVAL;
    return -1;
  }
  int result = 0;
  for (bool first = true, last = false; !last; first = false) {
    const std::string directory = joined(root, rest);
    rest.reset(parentDir(rest.get()));
    const int removed = rmdir(directory.c_str());
    if (first) result = removed;
    last = removed != 0 || !rest;
    if (links) removeDanglingLinks(links, rel);
  }
  return result;
}

int removeHashDirectory(const char* linkRoot, const char* hashRoot, const char* relPath) {
  return removeDirectory(linkRoot, hashRoot, relPath);
}

void mylink(const char* linkRoot, const char* hashRoot, const char* relPath) {
  const OwnedChars links(baseDir(linkRoot));
  const OwnedChars root(baseDir(hashRoot));
  const OwnedChars rel(baseDir(relPath));
  if (!links || !root || !rel) return;
  for (const char* slash = strchr(rel.get(), '/'); slash; slash = strchr(slash + 1, '/')) {
    const std::string prefix(rel.get(), static_cast<size_t>(slash - rel.get()));
    const std::string link = links.get() + prefix;
    if (exists(link.c_str())) continue;
    const OwnedChars target(convertToHashed_((prefix + "/").c_str()));
    linkOne(link, joined(root, target));
  }
}
