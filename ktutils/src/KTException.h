// The exceptions of the system and its assertion. A failure that a caller cannot simply test for travels
// as one of four classes, thrown by value and caught as KTException. Each carries a code and a message
// and renders itself as text for a log. The classes hold no global state; an object belongs to one
// thread.

#ifndef KTUTILS_KTEXCEPTION_H
#define KTUTILS_KTEXCEPTION_H

#include <cstdio>
#include <ostream>
#include <string>

#include "KTApi.h"

// The base, thrown itself only by code outside the library.
class KT_API KTException {
 public:
  // "Unknown exception", code 1.
  KTException();
  // `code` and an empty message.
  KTException(int code);
  KTException(int code, const std::string& message);
  // `format` expanded as by vsnprintf, cut to its first 1023 characters.
  KTException(int code, const char* format, ...);
  // The same with code 1.
  KTException(const char* format, ...);
  KTException(const KTException&) = default;
  KTException& operator=(const KTException&) = default;
  virtual ~KTException();

  // Writes the rendering, "Unknown Exception: [code] message", over `out`.
  virtual void toString(std::string& out) const;
  // The same in a fresh char array, which the caller frees with array delete.
  char* toString() const;
  // Write the rendering and one line break; the stream is flushed.
  void print(std::ostream& os) const;
  // The same to a stdio stream, which is not flushed.
  void print(FILE* stream) const;

  std::string m_message;
  int m_code;  // errno for an I/O failure, 1 for assertions and time-outs
};

// A system call on the file system failed; the code is its errno.
class KT_API KTIOException : public KTException {
 public:
  KTIOException(int code, const std::string& message);
  KTIOException(const KTIOException&) = default;
  KTIOException& operator=(const KTIOException&) = default;
  ~KTIOException() override;
  using KTException::toString;
  // "IO Exception: [code] message"
  void toString(std::string& out) const override;
};

// A wait for an inter-process lock ran out of time.
class KT_API KTTimeoutException : public KTException {
 public:
  KTTimeoutException(int code, const std::string& message);
  KTTimeoutException(const KTTimeoutException&) = default;
  KTTimeoutException& operator=(const KTTimeoutException&) = default;
  ~KTTimeoutException() override;
  using KTException::toString;
  // "Timeout Exception: [code] message"
  void toString(std::string& out) const override;
};

// A precondition or an invariant did not hold.
class KT_API KTAssertionException : public KTException {
 public:
  // The message is the assertion text, "ASSERT (expression) in file at line n."
  KTAssertionException(const char* expression, long line, const char* file);
  // The message is `format` expanded, cut to its first 1023 characters; it explains the assertion text.
  KTAssertionException(const char* expression, long line, const char* file, const char* format, ...);
  KTAssertionException(const KTAssertionException&) = default;
  KTAssertionException& operator=(const KTAssertionException&) = default;
  ~KTAssertionException() override;
  using KTException::toString;
  // The assertion text; below it, when there is one, the explanation. No code.
  void toString(std::string& out) const override;

  std::string m_expression;  // as written in the source
  std::string m_file;
  long m_line;
  bool m_detailed;  // made with an explanation
};

// The source path that assertion texts name. A library sets one for all its files when it is built.
#ifndef KT_SOURCE_FILE
#define KT_SOURCE_FILE __FILE__
#endif

// Throws KTAssertionException when `expression` is false. Never compiled out: callers rely on the throw.
// The expression is stringised here and at once, so that macros in it stay as they are written.
#define KT_ASSERT(expression) KT_ASSERT_AS(#expression, expression)

// The same under another text.
#define KT_ASSERT_AS(text, expression)                                             \
  do {                                                                             \
    if (!(expression)) throw KTAssertionException(text, __LINE__, KT_SOURCE_FILE); \
  } while (false)

#endif
