#include "KTProperties.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <utility>

#include "KTException.h"
#include "KTLinePieces.h"
#include "KTOwned.h"

namespace {

bool isBlank(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

}  // namespace

KTProperty::KTProperty() = default;

// Through the empty pair, so that a value that cannot be copied leaves no name behind.
KTProperty::KTProperty(const char* nameText, const char* valueText) : KTProperty() {
  name = copy(nameText);
  value = copy(valueText);
}

KTProperty::~KTProperty() {
  delete[] name;
  delete[] value;
}

char* KTProperty::copy(const char* str) {
  KT_ASSERT(str);
  const size_t size = strlen(str) + 1;
  OwnedChars dest(new char[size]);
  KT_ASSERT(dest);
  memcpy(dest.get(), str, size);
  return dest.release();
}

void KTProperty::setValue(const char* newValue) {
  KT_ASSERT_AS("value", newValue);
  char* fresh = copy(newValue);  // before the old one goes: it may be what is copied
  delete[] value;
  value = fresh;
}

const char* KTProperty::getName() const { return name; }

const char* KTProperty::getValue() const { return value; }

KTProperties::KTProperties() = default;

KTProperties::~KTProperties() = default;

bool KTProperties::load(const char* filename) {
  KT_ASSERT(filename);
  const OwnedFile file(fopen(filename, "rb"));
  if (!file) return false;
  KTLinePieces pieces(file.get());
  while (char* line = pieces.next()) loadLine(line);
  return true;
}

void KTProperties::loadLine(char* line) {
  char* cursor = skipWhiteSpaces(line);
  if (*cursor == '#' || *cursor == '\0') return;
  const char* name = getNextValue(cursor, '=');
  if (!name || *name == '\0') return;
  replace(cursor, '"', ' ');
  setProperty(name, trim(cursor));
}

const char* KTProperties::getProperty(const char* name) {
  KT_ASSERT(name);
  const auto found = find(name);
  return found == properties.end() ? nullptr : (*found)->getValue();
}

void KTProperties::setProperty(const char* name, const char* value) {
  KT_ASSERT(name);
  KT_ASSERT(value);
  const auto found = find(name);
  if (found == properties.end())
    properties.push_back(std::make_unique<KTProperty>(name, value));
  else
    (*found)->setValue(value);
}

void KTProperties::remove(const char* name) {
  KT_ASSERT(name);
  const auto found = find(name);
  if (found != properties.end()) properties.erase(found);
}

void KTProperties::clear() { properties.clear(); }

void KTProperties::replace(char* text, char from, char to) { std::replace(text, text + strlen(text), from, to); }

char* KTProperties::skipWhiteSpaces(char* text) {
  while (isBlank(*text)) ++text;
  return text;
}

char* KTProperties::trim(char* text) {
  char* first = skipWhiteSpaces(text);
  for (char* end = first + strlen(first); end > first && isBlank(end[-1]); --end) end[-1] = '\0';
  return first;
}

char* KTProperties::getNextValue(char*& cursor, char separator) {
  char* found = strchr(cursor, separator);
  if (!found) return nullptr;
  *found = '\0';
  return trim(std::exchange(cursor, found + 1));
}

KTProperties::PropertyList::iterator KTProperties::find(const char* name) {
  return std::find_if(properties.begin(), properties.end(),
                      [name](const auto& property) { return strcmp(property->getName(), name) == 0; });
}
