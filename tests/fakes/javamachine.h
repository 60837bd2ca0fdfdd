// FakeJavaMachine: a Java virtual machine as a native sees it. It is a JNIEnv whose functions are its own: they keep
// strings, arrays and one receiver, record every call, and fail where a test says so. It is as strict as a native must
// expect any machine to be, and fails the test at
// - a JNI function that none of its tests needs,
// - a call made while an exception is pending, but for those that JNI allows then,
// - a reference that it did not hand out or that was deleted, and one to an object of another class,
// - the bytes of a string given back twice, with another pointer, or not at all,
// - more local references at once than a machine promises room for.

#ifndef TESTS_FAKES_JAVAMACHINE_H
#define TESTS_FAKES_JAVAMACHINE_H

#include <jni.h>

#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

class FakeJavaMachine : public JNIEnv {
 public:
  // The receiver has the int field "status" with this value; nullopt: no such field.
  explicit FakeJavaMachine(std::optional<jint> status);
  FakeJavaMachine(const FakeJavaMachine&) = delete;
  FakeJavaMachine& operator=(const FakeJavaMachine&) = delete;

  // What a Java caller hands over.
  jstring string(const std::string& text);
  jintArray ints(const std::vector<jint>& values);

  // Calls a native on the receiver and looks whether it gave back the strings that it took.
  template <typename Result, typename... Args>
  Result call(Result (*native)(JNIEnv*, jobject, Args...), std::type_identity_t<Args>... args) {
    const NativeFrame frame(*this);
    return native(this, receiver, args...);
  }

  // What came back: "null", a string's text, or an array's elements as "[A, B]".
  std::string shown(jobject result) const;
  std::optional<jint> status() const;
  // Class of the pending exception; empty: none.
  const std::string& pending() const { return exception; }

  // The next call of `function`, after `skipped` of them, throws `thrown` and does nothing. "" is any function that can
  // fail for a reason other than its arguments.
  void failAt(const std::string& function, int skipped = 0, const std::string& thrown = "java/lang/OutOfMemoryError");
  // Which function that was; empty when it was not reached.
  const std::string& failed() const { return failedFunction; }

  // "FUNCTION ARGUMENTS" of each call and "log TEXT" of each line that the library logged, in order. ExceptionCheck is
  // left out: it changes nothing, and a native may look as often as it likes.
  const std::vector<std::string>& calls();

  // The is-copy flags of the conversions: which variable, and its value before. The machine always copies.
  struct CopyFlag {
    const jboolean* flag;
    jboolean before;
  };
  std::vector<CopyFlag> copyFlags;

 private:
  struct Object {
    std::string type;  // class, as FindClass and signatures name it
    std::string text;  // of a string; of a class its name
    std::vector<jint> ints;
    std::vector<const Object*> elements;
    std::map<std::string, jint> fields;  // by name and signature
  };
  struct Reference {
    Object* object;
    bool isLocal;
    bool isLive;
  };
  struct Conversion {
    const Object* string;
    std::unique_ptr<char[]> bytes;
  };

  // A native's stay in the library.
  class NativeFrame {
   public:
    explicit NativeFrame(FakeJavaMachine& owner) : machine(owner) {}
    ~NativeFrame() { machine.leaveNative(); }
    NativeFrame(const NativeFrame&) = delete;
    NativeFrame& operator=(const NativeFrame&) = delete;

   private:
    FakeJavaMachine& machine;
  };

  static FakeJavaMachine& of(JNIEnv* env) { return *static_cast<FakeJavaMachine*>(env); }
  void defineStrings();
  void defineArrays();
  void defineObjects();
  void defineExceptions();

  void note(const std::string& call);
  void noteLog();
  // False when the call is to do nothing, since it fails or must not be made at all.
  bool begins(const std::string& function, const std::string& arguments, bool canFail = true);
  void raise(const std::string& thrown) { exception = thrown; }
  void leaveNative();

  template <typename Handle>
  Handle handleTo(const Object& object, bool isLocal);
  Reference* referenceOf(jobject handle);
  Object* objectOf(jobject handle, const std::string& type);
  bool isInside(const Object& array, jsize start, jsize length);
  const char* convert(const Object& text, jboolean* isCopy);
  void giveBack(const Object& text, const char* bytes);

  JNINativeInterface_ table;
  std::list<Object> objects;
  std::deque<Reference> references;
  std::vector<Conversion> conversions;  // bytes that the native holds
  jobject receiver;
  std::string exception;
  std::string failingFunction;
  std::string failure;
  int skip = -1;  // calls to pass before the failing one; less than 0: none fails
  std::string failedFunction;
  std::vector<std::string> recorded;
  size_t logLinesSeen = 0;
};

#endif
