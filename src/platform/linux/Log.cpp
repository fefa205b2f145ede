#include "platform/Log.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "platform/LogText.h"

namespace platform {

namespace {

/// Whether the log's daemon takes a record at once. syslog(3) would wait for one that does not
/// read, and the host's requests with it; where there is none it would make a socket for every
/// record before it finds that out.
bool daemonHasRoom() {
  if (access(_PATH_LOG, F_OK) != 0) return false;
  const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address{AF_UNIX, _PATH_LOG};
  pollfd room{probe, POLLOUT, 0};
  bool hasRoom = false;
  if (connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
    hasRoom = poll(&room, 1, 0) > 0 && (room.revents & POLLOUT) != 0;
  else
    hasRoom = errno == EPROTOTYPE;  // it reads a stream, which cannot be asked
  close(probe);
  return hasRoom;
}

}  // namespace

void openLog() { openlog("lldb-helper", LOG_PID, LOG_USER); }

bool logEnabled() { return (setlogmask(0) & LOG_MASK(LOG_NOTICE)) != 0; }

void logToSyslog(const char *format, ...) {
  if (!daemonHasRoom()) return;
  std::va_list arguments;
  va_start(arguments, format);
  syslog(LOG_USER | LOG_NOTICE, "%s", logText(format, arguments).c_str());
  va_end(arguments);
}

}  // namespace platform
