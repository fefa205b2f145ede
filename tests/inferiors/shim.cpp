// Preloaded into the helper. Replaces syslog(3), and delays the helper's threads.
//
// SYSLOG_FILE    gets the name and the text of each record, with a byte 0x1e at its end
// SLOW_THREADS   the seconds by which each std::thread begins late
// SLOW_EVENTS    the milliseconds by which the event thread takes and then handles each event late
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
#include <memory>
#include <thread>

namespace {

const char *const logFile = std::getenv("SYSLOG_FILE");
const char *identity;

void wait(const char *variable, int unit) {
  const char *value = std::getenv(variable);
  if (value != nullptr)
    std::this_thread::sleep_for(std::chrono::milliseconds(unit * std::atoi(value)));
}

struct LateState : std::thread::_State {
  std::unique_ptr<std::thread::_State> state;
  void _M_run() override {
    wait("SLOW_THREADS", 1000);
    state->_M_run();
  }
};

bool isLog(const char *path) { return logFile != nullptr && std::strcmp(path, "/dev/log") == 0; }

}  // namespace

extern "C" {

void openlog(const char *name, int, int) { identity = name; }

// The helper's format is "%s".
void syslog(int priority, const char *, const char *text) {
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

void std::thread::_M_start_thread(_State_ptr state, void (*depend)()) {
  constexpr char name[] =
      "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE";
  auto late = std::make_unique<LateState>();
  late->state = std::move(state);
  reinterpret_cast<void (*)(std::thread *, _State_ptr, void (*)())>(dlsym(RTLD_NEXT, name))(
      this, std::move(late), depend);
}

bool lldb::SBListener::WaitForEvent(uint32_t seconds, SBEvent &event) {
  constexpr char name[] = "_ZN4lldb10SBListener12WaitForEventEjRNS_7SBEventE";
  wait("SLOW_EVENTS", 1);
  const bool found = reinterpret_cast<bool (*)(SBListener *, uint32_t, SBEvent &)>(
      dlsym(RTLD_NEXT, name))(this, seconds, event);
  wait("SLOW_EVENTS", 1);
  return found;
}
