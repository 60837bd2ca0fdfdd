#include "KTException.h"

#include <cstdarg>
#include <cstring>

#include "KTOwned.h"

namespace {

constexpr int kDefaultCode = 1;
constexpr size_t kMessageBuffer = 1024;  // bytes with the terminator; longer messages are cut

std::string expand(const char* format, va_list& args) {
  char buffer[kMessageBuffer] = "";
  vsnprintf(buffer, sizeof buffer, format, args);
  return buffer;
}

std::string assertionText(const std::string& expression, long line, const std::string& file) {
  return "ASSERT (" + expression + ") in " + file + " at line " + std::to_string(line) + ".";
}

std::string codeAndMessage(const char* kind, const KTException& exception) {
  return std::string(kind) + "[" + std::to_string(exception.m_code) + "] " + exception.m_message;
}

}  // namespace

KTException::KTException() : m_message("Unknown exception"), m_code(kDefaultCode) {}

KTException::KTException(int code) : m_code(code) {}

KTException::KTException(int code, const std::string& message) : m_message(message), m_code(code) {}

KTException::KTException(int code, const char* format, ...) : m_code(code) {
  va_list args;
  va_start(args, format);
  m_message = expand(format, args);
  va_end(args);
}

KTException::KTException(const char* format, ...) : m_code(kDefaultCode) {
  va_list args;
  va_start(args, format);
  m_message = expand(format, args);
  va_end(args);
}

KTException::~KTException() = default;

void KTException::toString(std::string& out) const { out = codeAndMessage("Unknown Exception: ", *this); }

char* KTException::toString() const {
  std::string text;
  toString(text);
  OwnedChars copy(new char[text.size() + 1]);
  memcpy(copy.get(), text.c_str(), text.size() + 1);
  return copy.release();
}

void KTException::print(std::ostream& os) const {
  std::string text;
  toString(text);
  os << text << std::endl;
}

void KTException::print(FILE* stream) const {
  std::string text;
  toString(text);
  fprintf(stream, "%s\n", text.c_str());
}

KTIOException::KTIOException(int code, const std::string& message) : KTException(code, message) {}

KTIOException::~KTIOException() = default;

void KTIOException::toString(std::string& out) const { out = codeAndMessage("IO Exception: ", *this); }

KTTimeoutException::KTTimeoutException(int code, const std::string& message) : KTException(code, message) {}

KTTimeoutException::~KTTimeoutException() = default;

void KTTimeoutException::toString(std::string& out) const { out = codeAndMessage("Timeout Exception: ", *this); }

KTAssertionException::KTAssertionException(const char* expression, long line, const char* file)
    : KTException(kDefaultCode, assertionText(expression, line, file)),
      m_expression(expression),
      m_file(file),
      m_line(line),
      m_detailed(false) {}

KTAssertionException::KTAssertionException(const char* expression, long line, const char* file, const char* format, ...)
    : KTException(kDefaultCode), m_expression(expression), m_file(file), m_line(line), m_detailed(true) {
  va_list args;
  va_start(args, format);
  m_message = expand(format, args);
  va_end(args);
}

KTAssertionException::~KTAssertionException() = default;

void KTAssertionException::toString(std::string& out) const {
  out = m_detailed ? assertionText(m_expression, m_line, m_file) + "\n" + m_message : m_message;
}
