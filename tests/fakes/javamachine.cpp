#include "fakes/javamachine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "fakes/fakes.h"

namespace {

constexpr char kString[] = "java/lang/String";
constexpr char kClass[] = "java/lang/Class";
constexpr char kIntArray[] = "[I";
constexpr char kStringArray[] = "[Ljava/lang/String;";
constexpr char kReceiver[] = "corvanta/util/RepositoryHandler";
constexpr char kIndexError[] = "java/lang/ArrayIndexOutOfBoundsException";

constexpr long kLocalReferences = 16;  // what a machine promises to a native that asks for no more

// Stands in every slot of the table that is not defined below. Slots count from 0, as in the description of JNI.
template <size_t Slot>
void* unannounced() {
  ADD_FAILURE() << "JNI function " << Slot << " was called, which no test announced";
  return nullptr;
}

template <size_t... Slots>
constexpr auto unannouncedSlots(std::index_sequence<Slots...>) {
  return std::array<void* (*)(), sizeof...(Slots)>{unannounced<Slots>...};
}

std::string ranged(jsize start, jsize length) { return std::to_string(start) + " " + std::to_string(length); }

std::string listed(const std::vector<jint>& values) {
  std::string list;
  for (const jint value : values) list += (list.empty() ? "" : ", ") + std::to_string(value);
  return "[" + list + "]";
}

}  // namespace

FakeJavaMachine::FakeJavaMachine(std::optional<jint> status) {
  static constexpr auto slots = unannouncedSlots(std::make_index_sequence<sizeof table / sizeof(void*)>());
  static_assert(sizeof slots == sizeof table);
  memcpy(&table, slots.data(), sizeof table);
  defineStrings();
  defineArrays();
  defineObjects();
  defineExceptions();
  functions = &table;
  Object object = {kReceiver, "", {}, {}, {}};
  if (status) object.fields["status I"] = *status;
  receiver = handleTo<jobject>(objects.emplace_back(object), false);
}

jstring FakeJavaMachine::string(const std::string& text) {
  return handleTo<jstring>(objects.emplace_back(Object{kString, text, {}, {}, {}}), false);
}

jintArray FakeJavaMachine::ints(const std::vector<jint>& values) {
  return handleTo<jintArray>(objects.emplace_back(Object{kIntArray, "", values, {}, {}}), false);
}

std::string FakeJavaMachine::shown(jobject result) const {
  if (!result) return "null";
  const Reference& reference = *reinterpret_cast<const Reference*>(result);
  if (!reference.isLive) return "a deleted reference";
  const Object& object = *reference.object;
  if (object.type == kString) return object.text;
  if (object.type == kIntArray) return listed(object.ints);
  std::string list;
  for (const Object* element : object.elements) list += (list.empty() ? "" : ", ") + element->text;
  return "[" + list + "]";
}

std::optional<jint> FakeJavaMachine::status() const {
  const auto& fields = reinterpret_cast<const Reference*>(receiver)->object->fields;
  const auto found = fields.find("status I");
  if (found == fields.end()) return std::nullopt;
  return found->second;
}

void FakeJavaMachine::failAt(const std::string& function, int skipped, const std::string& thrown) {
  failingFunction = function;
  skip = skipped;
  failure = thrown;
}

const std::vector<std::string>& FakeJavaMachine::calls() {
  noteLog();
  return recorded;
}

void FakeJavaMachine::note(const std::string& call) {
  noteLog();
  recorded.push_back(call);
}

void FakeJavaMachine::noteLog() {
  const FakeSyslog* const log = FakeSyslog::announced();
  if (!log) return;
  for (; logLinesSeen < log->lines.size(); ++logLinesSeen) recorded.push_back("log " + log->lines[logLinesSeen].text);
}

bool FakeJavaMachine::begins(const std::string& function, const std::string& arguments, bool canFail) {
  note(function + " " + arguments);
  if (!exception.empty()) {
    ADD_FAILURE() << recorded.back() << " was called while " << exception << " was pending";
    return false;
  }
  const bool isMeant = failingFunction.empty() ? canFail : failingFunction == function;
  if (skip < 0 || !isMeant || skip-- > 0) return true;
  failedFunction = function;
  raise(failure);
  return false;
}

void FakeJavaMachine::leaveNative() {
  for (const Conversion& conversion : conversions)
    ADD_FAILURE() << "the bytes of \"" << conversion.string->text << "\" were not released";
  conversions.clear();
  for (Reference& reference : references) reference.isLocal = false;  // the caller's now
}

template <typename Handle>
Handle FakeJavaMachine::handleTo(const Object& object, bool isLocal) {
  references.push_back({const_cast<Object*>(&object), isLocal, true});
  const auto isCounted = [](const Reference& reference) { return reference.isLocal && reference.isLive; };
  EXPECT_LE(std::count_if(references.begin(), references.end(), isCounted), kLocalReferences)
      << "live local references; the machine need not have room for more";
  return reinterpret_cast<Handle>(&references.back());
}

// Null, and a failure of the test, for anything that is no live reference.
FakeJavaMachine::Reference* FakeJavaMachine::referenceOf(jobject handle) {
  for (Reference& reference : references)
    if (reinterpret_cast<jobject>(&reference) == handle && reference.isLive) return &reference;
  ADD_FAILURE() << handle << " is no live reference";
  return nullptr;
}

FakeJavaMachine::Object* FakeJavaMachine::objectOf(jobject handle, const std::string& type) {
  const Reference* const reference = referenceOf(handle);
  if (!reference) return nullptr;
  EXPECT_EQ(reference->object->type, type);
  return reference->object->type == type ? reference->object : nullptr;
}

// Strings

const char* FakeJavaMachine::convert(const Object& text, jboolean* isCopy) {
  if (isCopy) {
    copyFlags.push_back({isCopy, *isCopy});
    *isCopy = JNI_TRUE;
  }
  std::unique_ptr<char[]> bytes(new char[text.text.size() + 1]);
  memcpy(bytes.get(), text.text.c_str(), text.text.size() + 1);
  conversions.push_back({&text, std::move(bytes)});
  return conversions.back().bytes.get();
}

void FakeJavaMachine::giveBack(const Object& text, const char* bytes) {
  const auto found = std::find_if(conversions.begin(), conversions.end(), [&](const Conversion& conversion) {
    return conversion.string == &text && conversion.bytes.get() == bytes;
  });
  if (found != conversions.end())
    conversions.erase(found);
  else
    ADD_FAILURE() << "these are no bytes of \"" << text.text << "\", or they were released before";
}

void FakeJavaMachine::defineStrings() {
  table.GetStringUTFChars = [](JNIEnv* env, jstring string, jboolean* isCopy) -> const char* {
    FakeJavaMachine& machine = of(env);
    const Object* const text = machine.objectOf(string, kString);
    if (!text || !machine.begins("GetStringUTFChars", text->text)) return nullptr;
    return machine.convert(*text, isCopy);
  };
  table.ReleaseStringUTFChars = [](JNIEnv* env, jstring string, const char* bytes) {
    FakeJavaMachine& machine = of(env);
    const Object* const text = machine.objectOf(string, kString);
    if (!text) return;
    machine.note("ReleaseStringUTFChars " + text->text);  // allowed while an exception is pending
    machine.giveBack(*text, bytes);
  };
  table.NewStringUTF = [](JNIEnv* env, const char* bytes) -> jstring {
    FakeJavaMachine& machine = of(env);
    EXPECT_NE(bytes, nullptr);
    const std::string text = bytes ? bytes : "";
    if (!machine.begins("NewStringUTF", text)) return nullptr;
    return machine.handleTo<jstring>(machine.objects.emplace_back(Object{kString, text, {}, {}, {}}), true);
  };
}

// Arrays

bool FakeJavaMachine::isInside(const Object& array, jsize start, jsize length) {
  const auto size = static_cast<jsize>(array.ints.size());
  if (start >= 0 && length >= 0 && start <= size - length) return true;
  raise(kIndexError);
  return false;
}

void FakeJavaMachine::defineArrays() {
  table.NewObjectArray = [](JNIEnv* env, jsize length, jclass elementClass, jobject initial) -> jobjectArray {
    FakeJavaMachine& machine = of(env);
    const Object* const type = machine.objectOf(elementClass, kClass);
    const Object* const element = machine.objectOf(initial, kString);
    EXPECT_GE(length, 0);
    if (!type || !element || length < 0) return nullptr;
    EXPECT_EQ(type->text, kString);
    if (!machine.begins("NewObjectArray", std::to_string(length) + " \"" + element->text + "\"")) return nullptr;
    const std::vector<const Object*> elements(static_cast<size_t>(length), element);
    return machine.handleTo<jobjectArray>(machine.objects.emplace_back(Object{kStringArray, "", {}, elements, {}}),
                                          true);
  };
  table.SetObjectArrayElement = [](JNIEnv* env, jobjectArray array, jsize index, jobject value) {
    FakeJavaMachine& machine = of(env);
    Object* const target = machine.objectOf(array, kStringArray);
    const Object* const element = machine.objectOf(value, kString);
    if (!target || !element) return;
    if (!machine.begins("SetObjectArrayElement", std::to_string(index) + " " + element->text)) return;
    if (index >= 0 && index < static_cast<jsize>(target->elements.size()))
      target->elements[static_cast<size_t>(index)] = element;
    else
      machine.raise(kIndexError);
  };
  table.NewIntArray = [](JNIEnv* env, jsize length) -> jintArray {
    FakeJavaMachine& machine = of(env);
    EXPECT_GE(length, 0);
    if (!machine.begins("NewIntArray", std::to_string(length)) || length < 0) return nullptr;
    const std::vector<jint> values(static_cast<size_t>(length));
    return machine.handleTo<jintArray>(machine.objects.emplace_back(Object{kIntArray, "", values, {}, {}}), true);
  };
  table.GetIntArrayRegion = [](JNIEnv* env, jintArray array, jsize start, jsize length, jint* out) {
    FakeJavaMachine& machine = of(env);
    const Object* const source = machine.objectOf(array, kIntArray);
    if (!source || !machine.begins("GetIntArrayRegion", ranged(start, length))) return;
    if (machine.isInside(*source, start, length)) std::copy_n(source->ints.begin() + start, length, out);
  };
  table.SetIntArrayRegion = [](JNIEnv* env, jintArray array, jsize start, jsize length, const jint* values) {
    FakeJavaMachine& machine = of(env);
    Object* const target = machine.objectOf(array, kIntArray);
    if (!target || !machine.begins("SetIntArrayRegion", ranged(start, length), false)) return;
    if (machine.isInside(*target, start, length)) std::copy_n(values, length, target->ints.begin() + start);
  };
}

// Classes, fields, references

void FakeJavaMachine::defineObjects() {
  table.FindClass = [](JNIEnv* env, const char* name) -> jclass {
    FakeJavaMachine& machine = of(env);
    if (!machine.begins("FindClass", name)) return nullptr;
    return machine.handleTo<jclass>(machine.objects.emplace_back(Object{kClass, name, {}, {}, {}}), true);
  };
  table.GetObjectClass = [](JNIEnv* env, jobject object) -> jclass {
    FakeJavaMachine& machine = of(env);
    const Reference* const reference = machine.referenceOf(object);
    if (!reference || !machine.begins("GetObjectClass", reference->object->type, false)) return nullptr;
    return machine.handleTo<jclass>(machine.objects.emplace_back(Object{kClass, reference->object->type, {}, {}, {}}),
                                    true);
  };
  // A field's identifier is the place of its value.
  table.GetFieldID = [](JNIEnv* env, jclass type, const char* name, const char* signature) -> jfieldID {
    FakeJavaMachine& machine = of(env);
    const Object* const owner = machine.objectOf(type, kClass);
    const std::string field = std::string(name) + " " + signature;
    if (!owner || !machine.begins("GetFieldID", field)) return nullptr;
    EXPECT_EQ(owner->text, kReceiver);
    auto& fields = reinterpret_cast<Reference*>(machine.receiver)->object->fields;
    const auto found = fields.find(field);
    if (found != fields.end()) return reinterpret_cast<jfieldID>(&found->second);
    machine.raise("java/lang/NoSuchFieldError");
    return nullptr;
  };
  table.SetIntField = [](JNIEnv* env, jobject object, jfieldID field, jint value) {
    FakeJavaMachine& machine = of(env);
    Object* const target = machine.objectOf(object, kReceiver);
    if (!target || !machine.begins("SetIntField", std::to_string(value))) return;
    for (auto& [name, place] : target->fields)
      if (reinterpret_cast<jfieldID>(&place) == field) place = value;
  };
  table.DeleteLocalRef = [](JNIEnv* env, jobject handle) {
    Reference* const reference = of(env).referenceOf(handle);
    if (!reference) return;
    of(env).note("DeleteLocalRef " + reference->object->text);  // allowed while an exception is pending
    EXPECT_TRUE(reference->isLocal);
    reference->isLive = false;
  };
}

// Exceptions

void FakeJavaMachine::defineExceptions() {
  table.ExceptionCheck = [](JNIEnv* env) -> jboolean { return of(env).exception.empty() ? JNI_FALSE : JNI_TRUE; };
  table.ExceptionClear = [](JNIEnv* env) {
    of(env).note("ExceptionClear");
    of(env).exception.clear();
  };
}
