// KTLogger writes the system's messages to syslog. It knows two streams, each with a facility of its
// own: the operational stream for operators, and the general stream for everything the library reports.
// No level is suppressed and nothing is added to a message: filtering is the syslog daemon's business.
// Which stream is open is process-wide state without a lock, so one thread logs at a time; processes
// may log at once.

#ifndef KTUTILS_KTLOGGER_H
#define KTUTILS_KTLOGGER_H

#include <cstdarg>

#include "KTApi.h"

// A stream. Its facility comes from an environment variable, read each time the stream is opened: one of
// "local0" to "local7", anything else or nothing meaning "local0".
enum LOG_FACILITY {
  FACILITY_OPER = 0,  // LOG_OPER_FACILITY
  FACILITY_MAIN = 1,  // LOG_FACILITY
  FACILITY_NONE = 2   // no stream is open
};

// A level.
enum LOG_MODE { MODE_OPER_INFO = 0, MODE_OPER_ERROR = 1, MODE_INFO = 2, MODE_ERROR = 3, MODE_DEBUG = 4, MODE_NONE = 5 };

// The stream of each level.
extern KT_API const LOG_FACILITY FACILITY_ARRAY[6];

// Process-wide switches that programs around the library may share; the logger does not consult them.
extern KT_API bool g_ktDebug;
extern KT_API bool g_ktVerbose;

class KT_API KTLogger {
 public:
  // `name` is the syslog ident and is copied; null logs under "unknown". Opens nothing.
  explicit KTLogger(const char* name);
  // Closes the system log when a stream is open, whichever logger opened it.
  ~KTLogger();
  KTLogger(const KTLogger&) = delete;
  KTLogger& operator=(const KTLogger&) = delete;

  // Opens the system log for `facility` with this logger's ident and the process id in each line.
  void openLog(LOG_FACILITY facility);
  // Writes one message, opening the stream of `mode` first when another one is open. `format` is always
  // a format: a "%" in a built text is expanded. errno is left as it was.
  void log(LOG_MODE mode, const char* format, va_list& args);

  // As printf, each at its level. The text of a message that was built with strings goes in as `format`.
  // They report no failure and throw nothing.
  void operErrorLog(const char* format, ...);
  void operInfoLog(const char* format, ...);
  void errorLog(const char* format, ...);
  void infoLog(const char* format, ...);
  void debugLog(const char* format, ...);

  static LOG_FACILITY m_lastFacility;  // the stream for which the system log was last opened

  char* ident;  // owned, from array new; null: none was given
};

#endif
