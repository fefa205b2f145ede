#include "platform/Log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>

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

/// Formats like printf, without the marks "{public}", which only the unified log knows.
std::string formatRecord(const char *format, std::va_list arguments) {
  constexpr std::string_view mark = "{public}";
  std::string plain = format;
  for (auto at = plain.find(mark); at != std::string::npos; at = plain.find(mark, at))
    plain.erase(at, mark.size());

  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, plain.c_str(), again);
  va_end(again);
  if (length < 0) return plain;
  std::string text(static_cast<std::size_t>(length), '\0');
  std::vsnprintf(text.data(), text.size() + 1, plain.c_str(), arguments);
  return text;
}

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
