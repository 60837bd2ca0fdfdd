#include "KTLogger.h"

#include <syslog.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "KTHooks.h"

const LOG_FACILITY FACILITY_ARRAY[6] = {FACILITY_OPER, FACILITY_OPER, FACILITY_MAIN,
                                        FACILITY_MAIN, FACILITY_MAIN, FACILITY_NONE};

bool g_ktDebug = false;
bool g_ktVerbose = false;

LOG_FACILITY KTLogger::m_lastFacility = FACILITY_NONE;

namespace {

struct NamedFacility {
  const char* name;
  int facility;
};

constexpr NamedFacility kFacilities[] = {
    {"local0", LOG_LOCAL0}, {"local1", LOG_LOCAL1}, {"local2", LOG_LOCAL2}, {"local3", LOG_LOCAL3},
    {"local4", LOG_LOCAL4}, {"local5", LOG_LOCAL5}, {"local6", LOG_LOCAL6}, {"local7", LOG_LOCAL7},
};

int facilityNamed(const char* name) {
  if (!name) return LOG_LOCAL0;
  for (const NamedFacility& known : kFacilities)
    if (strcmp(name, known.name) == 0) return known.facility;
  return LOG_LOCAL0;
}

int priorityOf(LOG_MODE mode) {
  switch (mode) {
    case MODE_OPER_ERROR:
    case MODE_ERROR:
      return LOG_ERR;
    case MODE_OPER_INFO:
    case MODE_INFO:
      return LOG_INFO;
    default:
      return LOG_DEBUG;
  }
}

__attribute__((format(printf, 2, 3))) void sendText(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsyslog(priority, format, args);
  va_end(args);
}

char* copyOf(const char* text) {
  if (!text) return nullptr;
  const size_t size = strlen(text) + 1;
  char* copy = new char[size];
  memcpy(copy, text, size);
  return copy;
}

}  // namespace

KTLogger::KTLogger(const char* name) : ident(copyOf(name)) {}

KTLogger::~KTLogger() {
  delete[] ident;
  if (m_lastFacility == FACILITY_NONE) return;
  closelog();
  m_lastFacility = FACILITY_NONE;
}

void KTLogger::openLog(LOG_FACILITY facility) {
  const char* variable = facility == FACILITY_OPER ? "LOG_OPER_FACILITY" : "LOG_FACILITY";
  openlog(ident ? ident : "unknown", LOG_PID, facilityNamed(getenv(variable)));
  m_lastFacility = facility;
}

void KTLogger::log(LOG_MODE mode, const char* format, va_list& args) {
  const int kept = errno;  // callers build further messages from it after a line was logged
  const LOG_FACILITY stream = FACILITY_ARRAY[mode];
  if (stream != m_lastFacility) openLog(stream);
  const auto text = ktHooks.logText ? ktHooks.logText(format, args) : std::nullopt;
  if (text)
    sendText(priorityOf(mode), "%s", text->c_str());
  else
    vsyslog(priorityOf(mode), format, args);
  errno = kept;
}

// One body for the five levels; a variadic function cannot hand its arguments on in any shorter way.
#define KT_LOG_AT(mode)    \
  va_list args;            \
  va_start(args, format);  \
  log(mode, format, args); \
  va_end(args)

void KTLogger::operErrorLog(const char* format, ...) { KT_LOG_AT(MODE_OPER_ERROR); }

void KTLogger::operInfoLog(const char* format, ...) { KT_LOG_AT(MODE_OPER_INFO); }

void KTLogger::errorLog(const char* format, ...) { KT_LOG_AT(MODE_ERROR); }

void KTLogger::infoLog(const char* format, ...) { KT_LOG_AT(MODE_INFO); }

void KTLogger::debugLog(const char* format, ...) { KT_LOG_AT(MODE_DEBUG); }

#undef KT_LOG_AT
