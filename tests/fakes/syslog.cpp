#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "fakes/fakes.h"

namespace {

FakeSyslog* current = nullptr;

// The connection as libc keeps it: process-wide, whichever test looks.
std::string openIdent;
int openOption = 0;
int openFacility = LOG_USER;

std::string expanded(const char* format, va_list args) {
  va_list again;
  va_copy(again, args);
  const int length = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) return format;
  std::string text(static_cast<size_t>(length) + 1, '\0');
  vsnprintf(text.data(), text.size(), format, args);
  text.pop_back();
  return text;
}

}  // namespace

FakeSyslog::FakeSyslog() { current = this; }
FakeSyslog::~FakeSyslog() { current = nullptr; }
FakeSyslog* FakeSyslog::announced() { return current; }

std::vector<std::string> FakeSyslog::texts() const {
  std::vector<std::string> result;
  for (const LogLine& line : lines) result.push_back(line.text);
  return result;
}

std::vector<std::string> FakeSyslog::texts(int priority) const {
  std::vector<std::string> result;
  for (const LogLine& line : lines)
    if (line.priority == priority) result.push_back(line.text);
  return result;
}

extern "C" {

void openlog(const char* ident, int option, int facility) {
  openIdent = ident;
  openOption = option;
  openFacility = facility;
  if (current)
    current->events.push_back("openlog " + openIdent + " " + std::to_string(option) + " " + std::to_string(facility));
  static const auto real = realFunction<void (*)(const char*, int, int)>("openlog");
  real(ident, option, facility);
}

void closelog() {
  if (current) current->events.push_back("closelog");
  static const auto real = realFunction<void (*)()>("closelog");
  real();
}

void vsyslog(int priority, const char* format, va_list args) {
  if (!current) {
    static const auto real = realFunction<void (*)(int, const char*, va_list)>("vsyslog");
    return real(priority, format, args);
  }
  const bool expands = current->expandsFormats || strcmp(format, "%s") == 0;
  const std::string text = expands ? expanded(format, args) : format;
  current->lines.push_back({priority, text, format, openIdent, openOption, openFacility});
  current->events.push_back("vsyslog " + std::to_string(priority) + " " + text);
}
}
