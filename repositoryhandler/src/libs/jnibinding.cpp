// The natives of the Java class corvanta.util.RepositoryHandler: each turns its Java arguments into bytes, calls the
// flat entry that it is named after, and turns the result back. No exception of the library crosses into the virtual
// machine: it is logged, and the native answers null or -1. An error of the virtual machine itself (no memory, a
// `times` array that is too short) stays pending and reaches the Java caller; the native then does nothing more.
//
// Strings travel in the machine's own encoding, modified UTF-8: it is UTF-8 but for characters beyond U+FFFF, each of
// which is two sequences of three bytes, and for U+0000. A null string arrives as a null pointer, which the entries
// refuse.
//
// One Java thread at a time, as for the entries.

#include <jni.h>

#include "KTOwned.h"
#include "entrypoints.h"
#include "registry.h"

namespace {

constexpr jint kCallFailed = -1;
constexpr jsize kTimesLength = 2;  // access time, modification time: seconds since the epoch

// The bytes of one Java string, held for as long as the object lives.
class StringBytes {
 public:
  StringBytes(JNIEnv* machine, jstring text, jboolean* isCopy)
      : env(machine),
        string(text),
        bytes(text && !machine->ExceptionCheck() ? machine->GetStringUTFChars(text, isCopy) : nullptr) {}
  ~StringBytes() {
    if (bytes) env->ReleaseStringUTFChars(string, bytes);
  }
  StringBytes(const StringBytes&) = delete;
  StringBytes& operator=(const StringBytes&) = delete;

  const char* get() const { return bytes; }

 private:
  JNIEnv* env;
  jstring string;
  const char* bytes;  // the machine's; null for a null string, and when there was no memory (pending)
};

// What all natives have in common: the bytes of their strings, and the catch-all around the entry.
class NativeCall {
 public:
  NativeCall(JNIEnv* machine, jstring repositoryString, jstring resourceString = nullptr)
      : env(machine), repository(machine, repositoryString, &isCopy), resource(machine, resourceString, &isCopy) {}

  // Runs entry(repository, resource). False when it did not run, since an error is pending, or when it threw:
  // `caught`, a format for the two strings, is then logged.
  template <typename Entry>
  bool run(const char* caught, Entry entry) const {
    if (env->ExceptionCheck()) return false;
    try {
      entry(repository.get(), resource.get());
      return true;
    } catch (...) {
      rh_logger.errorLog(caught, repository.get(), resource.get());
      return false;
    }
  }

 private:
  JNIEnv* env;
  jboolean isCopy = JNI_FALSE;
  StringBytes repository;
  StringBytes resource;
};

// Sets the int field "status" of `object`. An object without one gets the machine's NoSuchFieldError, pending.
void setStatus(JNIEnv* env, jobject object, jint value) {
  jfieldID field = env->GetFieldID(env->GetObjectClass(object), "status", "I");
  if (!field) return;
  env->SetIntField(object, field, value);
  if (!env->ExceptionCheck()) return;
  rh_logger.errorLog("JNI error: cound not set status");
  env->ExceptionClear();
}

// The three natives that answer a path: `entry` gets the strings and where to store the status. The field is written
// whenever the entry came back, also when it left the status alone.
template <typename Entry>
jstring locationOf(JNIEnv* env, jobject object, jstring repository, jstring resource, const char* caught, Entry entry) {
  const NativeCall call(env, repository, resource);
  int status = 0;
  OwnedChars path;
  if (!call.run(caught, [&](const char* root, const char* id) { path.reset(entry(root, id, &status)); }))
    return nullptr;
  jstring location = path ? env->NewStringUTF(path.get()) : nullptr;
  path.reset();
  if (env->ExceptionCheck()) return nullptr;
  setStatus(env, object, status);
  return location;
}

// A native list of ids while it becomes a Java array.
class IdList {
 public:
  IdList() = default;
  ~IdList() {
    while (next < count) takeNext();
    delete[] ids;
  }
  IdList(const IdList&) = delete;
  IdList& operator=(const IdList&) = delete;

  OwnedChars takeNext() { return OwnedChars(ids[next++]); }

  char** ids = nullptr;
  long count = 0;

 private:
  long next = 0;
};

// Stores the rest of `list` in `array`; stops at an error, which is then pending.
void fill(JNIEnv* env, jobjectArray array, IdList& list) {
  for (jsize index = 0; index < list.count; ++index) {
    jstring id = env->NewStringUTF(list.takeNext().get());
    if (!id) return;
    env->SetObjectArrayElement(array, index, id);
    if (env->ExceptionCheck()) return;
    env->DeleteLocalRef(id);  // the machine keeps room for few of them in one call
  }
}

jobjectArray arrayOf(JNIEnv* env, IdList& list) {
  jclass stringClass = env->FindClass("java/lang/String");
  if (!stringClass) return nullptr;
  jstring empty = env->NewStringUTF("");
  if (!empty) return nullptr;
  jobjectArray array = env->NewObjectArray(static_cast<jsize>(list.count), stringClass, empty);
  if (array) fill(env, array, list);
  return env->ExceptionCheck() ? nullptr : array;
}

jobjectArray idsOf(JNIEnv* env, jstring repository, const char* caught, char** (*entry)(const char*, long*, bool),
                   jboolean sort) {
  const NativeCall call(env, repository);
  IdList list;
  if (!call.run(caught, [&](const char* root, const char*) { list.ids = entry(root, &list.count, sort != JNI_FALSE); }))
    return nullptr;
  return arrayOf(env, list);
}

}  // namespace

extern "C" {

// `times` null sets both times to now, as the entry does.
JNIEXPORT void JNICALL Java_corvanta_util_RepositoryHandler_setTimePropertiesNative(JNIEnv* env, jobject,
                                                                                    jstring repository,
                                                                                    jstring resource, jintArray times) {
  const NativeCall call(env, repository, resource);
  jint seconds[kTimesLength] = {};
  if (times && !env->ExceptionCheck()) env->GetIntArrayRegion(times, 0, kTimesLength, seconds);
  utimbuf wanted = {seconds[0], seconds[1]};
  call.run("An exception was caught in setTimeProperties_(%s, %s)",
           [&](const char* root, const char* id) { setTimeProperties_(root, id, times ? &wanted : nullptr); });
}

JNIEXPORT jintArray JNICALL Java_corvanta_util_RepositoryHandler_getTimePropertiesNative(JNIEnv* env, jobject,
                                                                                         jstring repository,
                                                                                         jstring resource) {
  utimbuf times = {};
  bool found = false;
  NativeCall(env, repository, resource)
      .run("An exception was caught in getTimeProperties_(%s, %s)",
           [&](const char* root, const char* id) { found = getTimeProperties_(root, id, &times) != 0; });
  if (!found) return nullptr;
  jintArray result = env->NewIntArray(kTimesLength);
  if (!result) return nullptr;
  const jint seconds[kTimesLength] = {static_cast<jint>(times.actime), static_cast<jint>(times.modtime)};
  env->SetIntArrayRegion(result, 0, kTimesLength, seconds);
  return result;
}

JNIEXPORT jobjectArray JNICALL Java_corvanta_util_RepositoryHandler_listDirsNative(JNIEnv* env, jobject,
                                                                                   jstring repository, jboolean sort) {
  return idsOf(env, repository, "An exception was caught in listDirs_(%s)", listDirs_, sort);
}

JNIEXPORT jobjectArray JNICALL Java_corvanta_util_RepositoryHandler_listFilesNative(JNIEnv* env, jobject,
                                                                                    jstring repository, jboolean sort) {
  return idsOf(env, repository, "An exception was caught in listFiles_(%s)", listFiles_, sort);
}

JNIEXPORT jint JNICALL Java_corvanta_util_RepositoryHandler_removeResourceNative(JNIEnv* env, jobject,
                                                                                 jstring repository, jstring resource) {
  jint result = kCallFailed;
  NativeCall(env, repository, resource)
      .run("An exception was caught in removeResource_(%s, %s)",
           [&](const char* root, const char* id) { result = removeResource_(root, id); });
  return result;
}

JNIEXPORT jint JNICALL Java_corvanta_util_RepositoryHandler_checkResourceStatusNative(JNIEnv* env, jobject,
                                                                                      jstring repository,
                                                                                      jstring resource) {
  jint result = kCallFailed;
  NativeCall(env, repository, resource)
      .run("An exception was caught in checkResourceStatus_(%s, %s)",
           [&](const char* root, const char* id) { result = checkResourceStatus_(root, id); });
  return result;
}

// The message names the operation of the repository, not the entry: operators search their logs for it.
JNIEXPORT jint JNICALL Java_corvanta_util_RepositoryHandler_getRepositoryStatusNative(JNIEnv* env, jobject,
                                                                                      jstring repository) {
  jint result = kCallFailed;
  NativeCall(env, repository)
      .run("An exception was caught in checkRepositoryStatus_(%s)",
           [&](const char* root, const char*) { result = getRepositoryStatus_(root); });
  return result;
}

JNIEXPORT jstring JNICALL Java_corvanta_util_RepositoryHandler_getLocationNative(JNIEnv* env, jobject object,
                                                                                 jstring repository, jstring resource) {
  return locationOf(env, object, repository, resource, "An exception was caught in getLocation_(%s, %s)", getLocation_);
}

JNIEXPORT jstring JNICALL Java_corvanta_util_RepositoryHandler_createLocationNative(JNIEnv* env, jobject object,
                                                                                    jstring repository,
                                                                                    jstring resource,
                                                                                    jboolean noDirtyMark) {
  return locationOf(env, object, repository, resource, "An exception was caught in createLocation_(%s, %s)",
                    [=](const char* root, const char* id, int* status) {
                      return createLocation_(root, id, status, noDirtyMark != JNI_FALSE);
                    });
}

JNIEXPORT jstring JNICALL Java_corvanta_util_RepositoryHandler_createDirectoryNative(JNIEnv* env, jobject object,
                                                                                     jstring repository,
                                                                                     jstring resource,
                                                                                     jboolean noDirtyMark) {
  return locationOf(env, object, repository, resource, "An exception was caught in createDirectory_(%s, %s)",
                    [=](const char* root, const char* id, int* status) {
                      return createDirectory_(root, id, status, noDirtyMark != JNI_FALSE);
                    });
}
}
