// Preloaded into the helper (LD_PRELOAD; machine.py's shim()): makes happen on purpose what
// otherwise needs bad luck, and shows what goes to the log. A variable that is not set changes
// nothing.
//
// SYSLOG_FILE   gets the name and the text of each record, with a byte 0x1e at its end. Replaces
//               syslog(3), and access(2) and connect(2) for /dev/log, which may be missing here
// SLOW_START    the milliseconds by which SBListener::StartListeningForEvents is late: the helper
//               begins to listen when a request is there already
// SLOW_EVENTS   the milliseconds before and after SBListener::WaitForEvent: the event thread takes
//               and handles each event late, as on a busy machine
// LATE_RUNNING  if set, the event thread handles a running state when the next state is queued, and
//               after ten seconds at most: the program has stopped when the host reads that it runs
// SLOW_SELECTION  the milliseconds by which SBProcess::GetThreadByID is late, in other threads than
//               the main one: the event thread is about to select the thread that the host stepped
// FAIL_THREAD   the number of the std::thread that cannot be started: 1 is the helper's first.
//               LLDB's own threads are no std::thread
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
#include <system_error>
#include <thread>

namespace {

const char *const logFile = std::getenv("SYSLOG_FILE");
const char *identity;

bool isLog(const char *path) { return logFile != nullptr && std::strcmp(path, "/dev/log") == 0; }

void wait(const char *variable) {
  if (const char *time = std::getenv(variable); time != nullptr)
    std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(time)));
}

void waitForNextState(lldb::SBListener &listener, const lldb::SBProcess &process) {
  constexpr int tenSeconds = 10000;
  lldb::SBEvent next;
  for (int milliseconds = 0; milliseconds < tenSeconds; ++milliseconds) {
    if (listener.PeekAtNextEventForBroadcasterWithType(
            process.GetBroadcaster(), lldb::SBProcess::eBroadcastBitStateChanged, next))
      return;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
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
  if (std::getenv("LATE_RUNNING") != nullptr && found && SBProcess::EventIsProcessEvent(event) &&
      SBProcess::GetStateFromEvent(event) == eStateRunning)
    waitForNextState(*this, SBProcess::GetProcessFromEvent(event));
  return found;
}

lldb::SBThread lldb::SBProcess::GetThreadByID(tid_t id) {
  if (gettid() != getpid()) wait("SLOW_SELECTION");
  return original<SBThread(SBProcess *, tid_t)>("_ZN4lldb9SBProcess13GetThreadByIDEm")(this, id);
}

#ifdef __GLIBCXX__
void std::thread::_M_start_thread(_State_ptr state, void (*depend)()) {
  static int started = 0;
  const char *failing = std::getenv("FAIL_THREAD");
  if (++started == (failing != nullptr ? std::atoi(failing) : 0))
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
  original<void(thread *, _State_ptr, void (*)())>(
      "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE")(
      this, std::move(state), depend);
}
#endif
