// The library as another program sees it: the names that it exports, under which linkage, with which types.

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <gmock/gmock.h>
#include <link.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "KTException.h"
#include "KTLogger.h"
#include "KTOwned.h"
#include "KTProperties.h"
#include "KTRepositoryHandler.h"
#include "KTSemaphore.h"
#include "entrypoints.h"
#include "filestatus.h"
#include "hashlayout.h"
#include "listing.h"
#include "operationlog.h"
#include "paths.h"
#include "registry.h"
#include "sizeaccounting.h"
#include "support/results.h"
#include "support/scratch.h"
#include "transfer.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
}

// The signature behind a mangled name, the standard library's types under their usual names. A plain name is itself.
std::string demangled(const std::string& name) {
  if (!name.starts_with("_Z")) return name;
  int status = -1;
  const OwnedMalloc<char> text(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status));
  if (status != 0) return name;
  std::string signature(text.get());
  const char* const usual[][2] = {
      {"> >", ">>"},
      {"> >", ">>"},
      {"std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char>>", "std::string"},
      {"std::string >", "std::string>"},
      {"std::__cxx11::list<std::string, std::allocator<std::string>>", "std::list<std::string>"},
      {", std::less<std::string>, std::allocator<std::pair<std::string const, CountResourceEntry>>", ""},
      {", std::allocator<CountResourceSetEntry>", ""},
      {", std::allocator<ResourceEntry>", ""},
      {"std::basic_ostream<char, std::char_traits<char>>", "std::ostream"},
      // the argument list of C, which is another type on each machine of ours
      {"KTLogger::log(LOG_MODE, char const*, __va_list_tag (&) [1])", "KTLogger::log(LOG_MODE, char const*, va_list&)"},
      {"KTLogger::log(LOG_MODE, char const*, char*&)", "KTLogger::log(LOG_MODE, char const*, va_list&)"},
  };
  for (const auto& [found, wanted] : usual) replaceAll(signature, found, wanted);
  return signature;
}

// The library, opened by its path with every name bound.
class Library {
 public:
  Library() : handle(dlopen(KT_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL)) {
    if (!handle) throw std::runtime_error(dlerror());
  }
  ~Library() { dlclose(handle); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  // Null when the library itself has no such name, whatever those below it have.
  void* find(const char* name) const {
    void* const found = dlsym(handle, name);
    Dl_info place;
    if (!found || dladdr(found, &place) == 0) return nullptr;
    return std::filesystem::equivalent(place.dli_fname, KT_LIBRARY_FILE) ? found : nullptr;
  }

 private:
  void* handle;
};

// The tables of the library's file that the dynamic linker reads.
class LibraryFile {
 public:
  LibraryFile() : bytes(readFile(KT_LIBRARY_FILE)) {
    const auto* const header = at<ElfW(Ehdr)>(0);
    const auto* const sections = at<ElfW(Shdr)>(header->e_shoff);
    for (size_t i = 0; i < header->e_shnum; ++i) {
      const ElfW(Shdr)& section = sections[i];
      const char* const names = at<char>(sections[section.sh_link].sh_offset);
      if (section.sh_type == SHT_DYNSYM) readSymbols(section, names);
      if (section.sh_type == SHT_DYNAMIC) readNeeded(section, names);
    }
  }

  std::vector<std::string> defined;  // the exported names
  std::vector<std::string> needed;   // the libraries below it

  // In bytes; 0 when there is no such object.
  size_t sizeOf(const std::string& name) const {
    for (const auto& [symbol, size] : sizes)
      if (symbol == name) return size;
    return 0;
  }

 private:
  template <typename T>
  const T* at(size_t offset) const {
    return reinterpret_cast<const T*>(bytes.data() + offset);
  }

  void readSymbols(const ElfW(Shdr) & section, const char* names) {
    const auto* const symbols = at<ElfW(Sym)>(section.sh_offset);
    for (size_t i = 0; i < section.sh_size / sizeof *symbols; ++i) {
      if (symbols[i].st_shndx == SHN_UNDEF || symbols[i].st_shndx == SHN_ABS) continue;
      defined.emplace_back(names + symbols[i].st_name);
      sizes.emplace_back(defined.back(), symbols[i].st_size);
    }
  }

  void readNeeded(const ElfW(Shdr) & section, const char* names) {
    const auto* const entries = at<ElfW(Dyn)>(section.sh_offset);
    for (size_t i = 0; i < section.sh_size / sizeof *entries; ++i)
      if (entries[i].d_tag == DT_NEEDED) needed.emplace_back(names + entries[i].d_un.d_val);
  }

  std::string bytes;
  std::vector<std::pair<std::string, size_t>> sizes;
};

bool startsWithAny(const std::string& name, const std::vector<std::string>& starts) {
  return std::any_of(starts.begin(), starts.end(), [&](const std::string& start) { return name.starts_with(start); });
}

// Code of the standard library that its headers left in ours, and what compilers and linkers add.
bool isForeign(const std::string& name) {
  return startsWithAny(
      name, {"_ZNSt",    "_ZNKSt",        "_ZSt",           "_ZNSa",           "_ZNSs",           "_ZZNSt", "_ZZNKSt",
             "_ZTINSt",  "_ZTSNSt",       "_ZTVNSt",        "_ZTISt",          "_ZTSSt",          "_ZTVSt", "_ZGVNSt",
             "_ZGVZNSt", "_ZN9__gnu_cxx", "_ZNK9__gnu_cxx", "_ZTIN9__gnu_cxx", "_ZTSN9__gnu_cxx", "__",     "_init",
             "_fini",    "_edata",        "_end",           "mangle_path"});  // the last: of the coverage runtime
}

bool isNative(const std::string& name) { return name.starts_with("Java_"); }

// Our names among those that the library exports, as exports.txt writes them.
std::set<std::string> exportedNames() {
  std::set<std::string> names;
  for (const std::string& name : LibraryFile().defined)
    if (!isForeign(name)) names.insert(demangled(name));
  return names;
}

// The names that exports.txt lists.
std::set<std::string> listedNames() {
  std::set<std::string> names;
  std::istringstream list(readFile(KT_SOURCE_DIRECTORY "/tests/exports.txt"));
  for (std::string line; std::getline(list, line);)
    if (!line.empty() && !line.starts_with("#") && (KT_WITH_JNI || !isNative(line))) names.insert(line);
  return names;
}

// The names of `these` that are not among `those`.
std::vector<std::string> without(const std::set<std::string>& these, const std::set<std::string>& those) {
  std::vector<std::string> rest;
  std::set_difference(these.begin(), these.end(), those.begin(), those.end(), std::back_inserter(rest));
  return rest;
}

template <typename Want, typename Return, typename... Args>
constexpr bool returns(Return (*)(Args...)) {
  return std::is_same_v<Want, Return>;
}
template <typename Want, typename Class, typename Return, typename... Args>
constexpr bool returns(Return (Class::*)(Args...)) {
  return std::is_same_v<Want, Return>;
}
template <typename Want, typename Class, typename Return, typename... Args>
constexpr bool returns(Return (Class::*)(Args...) const) {
  return std::is_same_v<Want, Return>;
}

template <typename Field, typename Class, typename Type>
constexpr bool isField(Type Class::*) {
  return std::is_same_v<Field, Type>;
}

// The places of fields in an object, in the order in which they are given.
template <typename Class, typename... Types>
std::vector<const void*> places(const Class& object, Types Class::*... fields) {
  return {static_cast<const void*>(&(object.*fields))...};
}

}  // namespace

// A change that is meant goes into the list.
TEST(LibraryTest, ExportsTheListedNamesAndNoOthers) {
  const std::set<std::string> listed = listedNames();
  const std::set<std::string> exported = exportedNames();
  EXPECT_THAT(without(listed, exported), IsEmpty()) << "missing: tests/exports.txt lists them";
  EXPECT_THAT(without(exported, listed), IsEmpty()) << "new: tests/exports.txt does not list them";
}

TEST(LibraryTest, ExportsTenNativesWithTheJavaBindingAndNoneWithoutIt) {
  const std::set<std::string> exported = exportedNames();
  EXPECT_EQ(std::count_if(exported.begin(), exported.end(), isNative), KT_WITH_JNI ? 10 : 0);
}

TEST(LibraryTest, CanBeLoadedWithEveryNameBound) { EXPECT_NO_THROW(Library()); }

TEST(LibraryTest, PlainFunctionsHaveTheirTypes) {
  EXPECT_TRUE((std::is_same_v<decltype(release), void(char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(convertToHashed), char*(const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(createHashDirectory), int(const char*, const char*, const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(removeHashDirectory), int(const char*, const char*, const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(countSize), long(const char*, bool)>));
}

TEST(LibraryTest, FlatEntriesHaveTheirTypes) {
  EXPECT_TRUE((std::is_same_v<decltype(setTimeProperties_), int(const char*, const char*, utimbuf*)>));
  EXPECT_TRUE((std::is_same_v<decltype(getTimeProperties_), int(const char*, const char*, utimbuf*)>));
  EXPECT_TRUE((std::is_same_v<decltype(freeMount_), int(const char*, const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(checkOverload_), void(const char*, bool)>));
  EXPECT_TRUE((std::is_same_v<decltype(setup_), void(const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(getDeletedDirs_), std::list<std::string>*(const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(giveBackMounts_), int(const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(MountUnmount_), int(const char*, int, bool)>));
  EXPECT_TRUE((std::is_same_v<decltype(rndMount_), void(const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(makeEmpty_), void(const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(createToLegacy_), char*(const char*, const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(listDirs_), char**(const char*, long*, bool)>));
  EXPECT_TRUE((std::is_same_v<decltype(listFiles_), char**(const char*, long*, bool)>));
  EXPECT_TRUE((std::is_same_v<decltype(removeResource_), int(const char*, const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(checkResourceStatus_), int(const char*, const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(getRepositoryStatus_), int(const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(getLocation_), char*(const char*, const char*, int*)>));
  EXPECT_TRUE((std::is_same_v<decltype(createLocation_), char*(const char*, const char*, int*, bool)>));
  EXPECT_TRUE((std::is_same_v<decltype(createDirectory_), char*(const char*, const char*, int*, bool)>));
}

TEST(LibraryTest, NothingButTheStandardLibrariesIsNeeded) {
  std::vector<std::string> others;
  for (const std::string& name : LibraryFile().needed)
    if (!startsWithAny(
            name, {"libstdc++.so.", "libgcc_s.so.", "libc.so.", "libm.so.", "ld-linux", "libasan.so.", "libubsan.so."}))
      others.push_back(name);
  EXPECT_THAT(others, IsEmpty());
}

TEST(LibraryTest, VirtualOperationsStandInTheirSlots) {
  const Library library;
  const LibraryFile file;
  const struct {
    const char* table;
    const char* rendering;
  } classes[] = {
      {"_ZTV11KTException", "_ZNK11KTException8toStringERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"},
      {"_ZTV13KTIOException", "_ZNK13KTIOException8toStringERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"},
      {"_ZTV18KTTimeoutException",
       "_ZNK18KTTimeoutException8toStringERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"},
      {"_ZTV20KTAssertionException",
       "_ZNK20KTAssertionException8toStringERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"},
  };
  for (const auto& row : classes) {
    // offset and type, the two entries of the destructor, the rendering
    EXPECT_EQ(file.sizeOf(row.table), 5 * sizeof(void*)) << row.table;
    const auto* const slots = static_cast<void* const*>(library.find(row.table));
    ASSERT_NE(slots, nullptr) << row.table;
    EXPECT_EQ(slots[4], library.find(row.rendering)) << row.table;
  }
  const auto* const base = static_cast<void* const*>(library.find("_ZTV11KTException"));
  EXPECT_EQ(base[2], library.find("_ZN11KTExceptionD1Ev"));
  EXPECT_EQ(base[3], library.find("_ZN11KTExceptionD0Ev"));
}

TEST(LibraryTest, OtherClassesHaveNoVirtualOperations) {
  EXPECT_FALSE(std::is_polymorphic_v<KTLogger>);
  EXPECT_FALSE(std::is_polymorphic_v<KTProperty>);
  EXPECT_FALSE(std::is_polymorphic_v<KTProperties>);
  EXPECT_FALSE(std::is_polymorphic_v<KTSemaphore>);
  EXPECT_FALSE(std::is_polymorphic_v<KTDirtyFlagHandler>);
  EXPECT_FALSE(std::is_polymorphic_v<KTMountPointHandler>);
  EXPECT_FALSE(std::is_polymorphic_v<KTRepositoryHandler>);
  EXPECT_FALSE(std::is_polymorphic_v<RepMap>);
}

TEST(LibraryTest, FreeFunctionsHaveTheirResults) {
  EXPECT_TRUE(returns<char*>(mystrdup));
  EXPECT_TRUE(returns<void>(release_));
  EXPECT_TRUE(returns<int>(myunlink));
  EXPECT_TRUE(returns<char*>(baseDir));
  EXPECT_TRUE(returns<char*>(parentDir));
  EXPECT_TRUE(returns<char*>(append0));
  EXPECT_TRUE(returns<char*>(append));
  EXPECT_TRUE(returns<bool>(exists));
  EXPECT_TRUE(returns<int>(mkdirs));
  EXPECT_TRUE(returns<bool>(isDangling));
  EXPECT_TRUE(returns<char*>(createHash));
  EXPECT_TRUE(returns<char*>(convertToHashed_));
  EXPECT_TRUE(returns<int>(createDirectory));
  EXPECT_TRUE(returns<int>(removeDirectory));
  EXPECT_TRUE(returns<void>(mylink));
  EXPECT_TRUE(returns<bool>(isNotLink));
  EXPECT_TRUE(returns<int>(myStat));
  EXPECT_TRUE(returns<int>(isDir));
  EXPECT_TRUE(returns<time_t>(lastModified));
  EXPECT_TRUE(returns<time_t>(lastAccess));
  EXPECT_TRUE(returns<int>(myStatVfs));
  EXPECT_TRUE(returns<int>(blocksToFree));
  EXPECT_TRUE(returns<bool>(IsOnTheSameMount));
  EXPECT_TRUE(returns<int>(listDir));
  EXPECT_TRUE(returns<int>(listResourcesRecursively));
  EXPECT_TRUE(returns<char*>(toResourceID));
  EXPECT_TRUE(returns<long>(getSize));
  EXPECT_TRUE(returns<int>(moveRes));
  EXPECT_TRUE(returns<int>(mountRename));
  EXPECT_TRUE(returns<int>(deleteRes));
  EXPECT_TRUE(returns<void>(clearEmptyHash));
  EXPECT_TRUE(returns<long>(countSizeRecursively));
  EXPECT_TRUE(returns<void>(writeToLogGlobal));
  EXPECT_TRUE(returns<KTRepositoryHandler*>(getRepository));
}

TEST(LibraryTest, OperationsOfTheFoundationHaveTheirResults) {
  EXPECT_TRUE(returns<void>(static_cast<void (KTException::*)(std::string&) const>(&KTException::toString)));
  EXPECT_TRUE(returns<char*>(static_cast<char* (KTException::*)() const>(&KTException::toString)));
  EXPECT_TRUE(returns<void>(static_cast<void (KTException::*)(std::ostream&) const>(&KTException::print)));
  EXPECT_TRUE(returns<void>(static_cast<void (KTException::*)(FILE*) const>(&KTException::print)));
  EXPECT_TRUE(returns<void>(&KTLogger::openLog));
  EXPECT_TRUE(returns<void>(&KTLogger::log));
  EXPECT_TRUE(returns<char*>(KTProperty::copy));
  EXPECT_TRUE(returns<void>(&KTProperty::setValue));
  EXPECT_TRUE(returns<const char*>(&KTProperty::getName));
  EXPECT_TRUE(returns<const char*>(&KTProperty::getValue));
  EXPECT_TRUE(returns<bool>(&KTProperties::load));
  EXPECT_TRUE(returns<const char*>(&KTProperties::getProperty));
  EXPECT_TRUE(returns<void>(&KTProperties::setProperty));
  EXPECT_TRUE(returns<void>(&KTProperties::remove));
  EXPECT_TRUE(returns<void>(&KTProperties::clear));
  EXPECT_TRUE(returns<void>(KTProperties::replace));
  EXPECT_TRUE(returns<char*>(KTProperties::skipWhiteSpaces));
  EXPECT_TRUE(returns<char*>(KTProperties::trim));
  EXPECT_TRUE(returns<char*>(KTProperties::getNextValue));
  EXPECT_TRUE(returns<bool>(&KTSemaphore::lockResource));
  EXPECT_TRUE(returns<bool>(&KTSemaphore::lock));
  EXPECT_TRUE(returns<void>(&KTSemaphore::unlock));
}

TEST(LibraryTest, OperationsOfTheHandlersHaveTheirResults) {
  EXPECT_TRUE(returns<void>(&KTDirtyFlagHandler::setRepository));
  EXPECT_TRUE(returns<bool>(&KTDirtyFlagHandler::isDirty));
  EXPECT_TRUE(returns<void>(&KTDirtyFlagHandler::setDirty));
  EXPECT_TRUE(returns<void>(&KTDirtyFlagHandler::clearDirtySet));
  EXPECT_TRUE(returns<int>(&KTDirtyFlagHandler::writeSetFile));
  EXPECT_TRUE(returns<void>(&KTMountPointHandler::setup));
  EXPECT_TRUE(returns<int>(&KTMountPointHandler::parseConfigFile));
  EXPECT_TRUE(returns<bool>(&KTMountPointHandler::isUpToDate));
  EXPECT_TRUE(returns<float>(&KTMountPointHandler::getUsedPercentage));
  EXPECT_TRUE(returns<int>(&KTMountPointHandler::checkStatus));
  EXPECT_TRUE(returns<int>(KTMountPointHandler::parseNatInt)) << "callable without an object";
  EXPECT_TRUE(returns<char*>(&KTMountPointHandler::getLocation));
  EXPECT_TRUE(returns<char*>(&KTMountPointHandler::createLocation));
  EXPECT_TRUE(returns<char*>(&KTMountPointHandler::createDirectory));
  EXPECT_TRUE(returns<int>(&KTMountPointHandler::removeResource));
  EXPECT_TRUE(returns<void>(&KTMountPointHandler::listResources));
  EXPECT_TRUE(returns<int>(&KTMountPointHandler::getOldestResources));
  EXPECT_TRUE(returns<int>(&KTMountPointHandler::getRandomResources));
  EXPECT_TRUE(returns<void>(&KTRepositoryHandler::setup));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::parseConfigFile));
  EXPECT_TRUE(returns<bool>(&KTRepositoryHandler::isUpToDate));
  EXPECT_TRUE(returns<std::list<std::string>*>(&KTRepositoryHandler::getDeletedDirs));
  EXPECT_TRUE(returns<const char*>(&KTRepositoryHandler::getID));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::checkRepositoryStatus));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::giveBackMounts));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::MountUnmount));
  EXPECT_TRUE(returns<void>(&KTRepositoryHandler::rndMount));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::getActualMountPoint));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::getActualMountPointForMove));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::getActualMountPointForLegacy));
  EXPECT_TRUE(returns<char*>(&KTRepositoryHandler::getLocation));
  EXPECT_TRUE(returns<char*>(&KTRepositoryHandler::createLocation));
  EXPECT_TRUE(returns<char*>(&KTRepositoryHandler::createDirectory));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::removeResource));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::checkResourceStatus));
  EXPECT_TRUE(returns<bool>(&KTRepositoryHandler::setTimeProperties));
  EXPECT_TRUE(returns<bool>(&KTRepositoryHandler::getTimeProperties));
  EXPECT_TRUE(returns<char*>(&KTRepositoryHandler::createToLegacy));
  EXPECT_TRUE(returns<char**>(&KTRepositoryHandler::listResources));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::getGlobalOldestResources));
  EXPECT_TRUE(returns<void>(&KTRepositoryHandler::checkOverload));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::moveResourcesFromMount));
  EXPECT_TRUE(returns<int>(&KTRepositoryHandler::moveAllResourcesFromMount));
  EXPECT_TRUE(returns<void>(&KTRepositoryHandler::makeEmpty));
}

TEST(LibraryTest, FieldsAreReadableAndHaveTheirTypes) {
  EXPECT_TRUE(isField<int>(&KTException::m_code));
  EXPECT_TRUE(isField<std::string>(&KTException::m_message));
  EXPECT_TRUE(isField<std::string>(&KTAssertionException::m_expression));
  EXPECT_TRUE(isField<std::string>(&KTAssertionException::m_file));
  EXPECT_TRUE(isField<long>(&KTAssertionException::m_line));
  EXPECT_TRUE(isField<bool>(&KTAssertionException::m_detailed));
  EXPECT_TRUE(isField<time_t>(&KTRepositoryHandler::configTime));
  EXPECT_TRUE(isField<KTDirtyFlagHandler>(&KTRepositoryHandler::dirtyFlagHandler));
  EXPECT_TRUE(isField<std::vector<KTMountPointHandler*>>(&KTRepositoryHandler::mountPoints));
  EXPECT_TRUE(isField<std::list<std::string>>(&KTRepositoryHandler::deletedDirs));
  EXPECT_TRUE(isField<bool>(&KTRepositoryHandler::isClearable));
  EXPECT_TRUE(isField<time_t>(&KTMountPointHandler::configTime));
  EXPECT_TRUE(isField<KTRepositoryHandler*>(&KTMountPointHandler::repository));
  EXPECT_TRUE(isField<time_t>(&ResourceEntry::lastAccessTime));
  EXPECT_TRUE(isField<std::set<std::string>>(&KTDirtyFlagHandler::dirtySet));
  EXPECT_TRUE((std::is_base_of_v<std::map<std::string, KTRepositoryHandler*>, RepMap>));
}

TEST(LibraryTest, FieldsStandInTheirOrder) {
  const auto ordered = [](const std::vector<const void*>& fields) {
    return std::is_sorted(fields.begin(), fields.end(), std::less<>());
  };
  const KTAssertionException assertion("x", 1, "f");
  const KTException& base = assertion;
  EXPECT_TRUE(ordered(places(base, &KTException::m_message, &KTException::m_code)));
  EXPECT_TRUE(ordered(places(assertion, &KTAssertionException::m_expression, &KTAssertionException::m_file,
                             &KTAssertionException::m_line, &KTAssertionException::m_detailed)));
  const KTSemaphore semaphore("m1", true);
  EXPECT_TRUE(ordered(places(semaphore, &KTSemaphore::name, &KTSemaphore::directory, &KTSemaphore::autoUnlock,
                             &KTSemaphore::locked, &KTSemaphore::lockedElsewhere)));
  const KTRepositoryHandler repository("/no/such/repository");
  EXPECT_TRUE(ordered(
      places(repository, &KTRepositoryHandler::id, &KTRepositoryHandler::configTime, &KTRepositoryHandler::mountPoints,
             &KTRepositoryHandler::dirtyFlagHandler, &KTRepositoryHandler::status, &KTRepositoryHandler::legacyDir,
             &KTRepositoryHandler::deletedDirs, &KTRepositoryHandler::remindLimit, &KTRepositoryHandler::warnLimit,
             &KTRepositoryHandler::warn2Limit, &KTRepositoryHandler::warn3Limit, &KTRepositoryHandler::switchLimit,
             &KTRepositoryHandler::fullLimit, &KTRepositoryHandler::cleanLimit, &KTRepositoryHandler::moveLimit,
             &KTRepositoryHandler::nomoveTime, &KTRepositoryHandler::isClearable)));
  const ScratchDirectory directory;
  KTRepositoryHandler owner("/no/such/repository");
  const KTMountPointHandler mount(directory.path(), &owner);
  EXPECT_TRUE(ordered(places(mount, &KTMountPointHandler::mountPath, &KTMountPointHandler::repository,
                             &KTMountPointHandler::status, &KTMountPointHandler::switchLimit,
                             &KTMountPointHandler::fullLimit, &KTMountPointHandler::cleanLimit,
                             &KTMountPointHandler::moveLimit, &KTMountPointHandler::nomoveTime,
                             &KTMountPointHandler::logPath, &KTMountPointHandler::configTime)));
}

TEST(LibraryTest, GlobalsBeginWithTheirValues) {
  EXPECT_EQ(hashLength, 2U);
  EXPECT_FALSE(isDEBUGHASH);
  EXPECT_FALSE(g_ktDebug);
  EXPECT_FALSE(g_ktVerbose);
  EXPECT_THAT(FACILITY_ARRAY, ElementsAre(0, 0, 1, 1, 1, 2));
  EXPECT_EQ(KTLogger::m_lastFacility, FACILITY_NONE);
  EXPECT_STREQ(rh_logger.ident, "KTRepositoryHandler");
  EXPECT_THAT(repositoryMap, IsEmpty());
}

TEST(LibraryTest, PlainNamesAreTheSameFunctionsForAPlainCaller) {
  const Library library;
  const auto hash = reinterpret_cast<char* (*)(const char*)>(library.find("convertToHashed"));
  const auto giveBack = reinterpret_cast<void (*)(char*)>(library.find("release"));
  const auto hashedByClass = reinterpret_cast<char* (*)(const char*)>(library.find("_Z16convertToHashed_PKc"));
  char* const plain = hash("2009/12");
  char* const mangled = hashedByClass("2009/12");
  EXPECT_STREQ(plain, "FP/IA/L3/2009/12");
  EXPECT_STREQ(mangled, "FP/IA/L3/2009/12");
  giveBack(plain);
  giveBack(mangled);
  giveBack(nullptr);
}

TEST(LibraryTest, ExceptionThrownInsideIsCaughtOutsideUnderItsClass) {
  const Library library;
  const auto status = reinterpret_cast<int (*)(const char*)>(library.find("getRepositoryStatus_"));
  EXPECT_THROW(status(nullptr), KTAssertionException);
  const auto probe = reinterpret_cast<int (*)(const char*, struct stat*)>(library.find("_Z6myStatPKcP4stat"));
  EXPECT_EQ(thrownBy<KTException>([&] { probe(nullptr, nullptr); }).m_code, 1);
}
