#include "platform/Log.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "platform/LogFormat.h"

namespace platform {

namespace {

/// Whether the log daemon can take a record now. syslog(3) would block on a daemon that does not
/// read, and so would the host's requests. Without a daemon it would open a socket for each record.
bool daemonHasRoom() {
  if (access(_PATH_LOG, F_OK) != 0) return false;
  const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address{AF_UNIX, _PATH_LOG};
  pollfd room{probe, POLLOUT, 0};
  bool hasRoom = false;
  if (connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
    hasRoom = poll(&room, 1, 0) > 0 && (room.revents & POLLOUT) != 0;
  else
    hasRoom = errno == EPROTOTYPE;  // a stream socket, which this cannot check
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
  syslog(LOG_USER | LOG_NOTICE, "%s", formatRecord(format, arguments).c_str());
  va_end(arguments);
}

}  // namespace platform
