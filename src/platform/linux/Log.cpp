#include "platform/Log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "platform/Descriptors.h"
#include "platform/Mutex.h"

namespace platform {

namespace {

/// The way to the log daemon. syslog(3) would block on a daemon that does not read, and so would
/// the host's requests. Without a daemon it would open a socket for each record.
///
/// The daemon is looked for at most once a second: that takes longer than a record.
class DaemonProbe {
 public:
  /// Whether the daemon can take a record now. True for a daemon that reads a stream: it cannot be
  /// asked.
  bool hasRoom() {
    const MutexLock lock(mutex);
    const auto now = std::chrono::steady_clock::now();
    if (now >= nextLook) {
      nextLook = now + std::chrono::seconds(1);
      look();
    }
    if (!isDatagram) return isStream;
    return isReady(probe, Use::Write, std::chrono::milliseconds::zero());
  }

 private:
  void look() REQUIRES(mutex) {
    if (probe >= 0) close(probe);
    probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address{AF_UNIX, _PATH_LOG};
    isDatagram = connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    isStream = !isDatagram && errno == EPROTOTYPE;
  }

  Mutex mutex;
  std::chrono::steady_clock::time_point nextLook GUARDED_BY(mutex);
  int probe GUARDED_BY(mutex) = -1;
  bool isDatagram GUARDED_BY(mutex) = false;
  bool isStream GUARDED_BY(mutex) = false;
};

DaemonProbe daemonProbe;

}  // namespace

void openLog() { openlog("lldb-helper", LOG_PID, LOG_USER); }

bool logEnabled() { return (setlogmask(0) & LOG_MASK(LOG_NOTICE)) != 0; }

void logToSyslog(const char *format, ...) {
  if (!daemonProbe.hasRoom()) return;
  std::va_list arguments;
  va_start(arguments, format);
  syslog(LOG_USER | LOG_NOTICE, "%s", formatRecord(format, arguments).c_str());
  va_end(arguments);
}

}  // namespace platform
