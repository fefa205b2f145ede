// A tool of the tests, preloaded into the helper. It replaces syslog(3), and delays the event thread.
//
// Of LLDB it intercepts two functions, which the event thread alone calls:
//   SBListener::StartListeningForEvents   so that requests come before the thread listens
//   SBListener::WaitForEvent              so that requests come while an event is queued or not yet handled
// Such races are rare on an idle machine. With the delays they happen each time.
//
// SYSLOG_FILE   gets the name and the text of each record, with a byte 0x1e at its end
// SLOW_START    the milliseconds by which the event thread starts late to listen for events
// SLOW_EVENTS   the milliseconds by which it takes and then handles each event late
#include <lldb/API/LLDB.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

namespace {

const char *const logFile = std::getenv("SYSLOG_FILE");
const char *identity;

bool isLog(const char *path) { return logFile != nullptr && std::strcmp(path, "/dev/log") == 0; }

void wait(const char *variable) {
  if (const char *time = std::getenv(variable); time != nullptr)
    std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(time)));
}

template <typename Function>
Function *original(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {
void openlog(const char *name, int, int) { identity = name; }

// The helper's format is "%s".
void syslog(int priority, const char *, const char *text) {
  if (logFile != nullptr)
    std::ofstream(logFile, std::ios::app) << identity << ' ' << priority << ' ' << text << '\x1e';
}
// Distributions that build with _FORTIFY_SOURCE call this.
void __syslog_chk(int priority, int, const char *format, const char *text) {
  syslog(priority, format, text);
}

// The log exists, also where the system has none.
int access(const char *path, int mode) {
  return isLog(path) ? 0 : faccessat(AT_FDCWD, path, mode, 0);
}
int connect(int descriptor, const sockaddr *address, socklen_t size) {
  if (address->sa_family != AF_UNIX || !isLog(address->sa_data))
    return static_cast<int>(syscall(SYS_connect, descriptor, address, size));
  errno = EPROTOTYPE;
  return -1;
}
}

uint32_t lldb::SBListener::StartListeningForEvents(const SBBroadcaster &source, uint32_t mask) {
  wait("SLOW_START");
  return original<uint32_t(SBListener *, const SBBroadcaster &, uint32_t)>(
      "_ZN4lldb10SBListener23StartListeningForEventsERKNS_13SBBroadcasterEj")(this, source, mask);
}

bool lldb::SBListener::WaitForEvent(uint32_t seconds, SBEvent &event) {
  wait("SLOW_EVENTS");
  const bool found = original<bool(SBListener *, uint32_t, SBEvent &)>(
      "_ZN4lldb10SBListener12WaitForEventEjRNS_7SBEventE")(this, seconds, event);
  wait("SLOW_EVENTS");
  return found;
}
