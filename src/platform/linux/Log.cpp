#include "platform/Log.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>

#include "platform/LogText.h"

namespace platform {

void openLog() { openlog("lldb-helper", LOG_PID, LOG_USER); }

bool logEnabled() { return (setlogmask(0) & LOG_MASK(LOG_NOTICE)) != 0; }

void logToSyslog(const char *format, ...) {
  // syslog(3) would make a socket for every record before it finds nobody to send it to, as in most
  // containers; a step takes two records.
  if (access(_PATH_LOG, F_OK) != 0) return;
  std::va_list arguments;
  va_start(arguments, format);
  syslog(LOG_USER | LOG_NOTICE, "%s", logText(format, arguments).c_str());
  va_end(arguments);
}

}  // namespace platform
