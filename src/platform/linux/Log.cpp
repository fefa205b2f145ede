#include "platform/Log.h"

#include <syslog.h>

#include <cstdarg>

#include "platform/LogText.h"

namespace platform {

void openLog() { openlog("lldb-helper", LOG_PID, LOG_USER); }

bool logEnabled() { return (setlogmask(0) & LOG_MASK(LOG_NOTICE)) != 0; }

void logToSyslog(const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  syslog(LOG_USER | LOG_NOTICE, "%s", logText(format, arguments).c_str());
  va_end(arguments);
}

}  // namespace platform
