#pragma once

#if defined(__APPLE__)
#include <os/log.h>
#endif

/// The program's log. It has one handle for the process. Every record has the default level.
///
/// On macOS records go to the unified log (subsystem "com.brimwick-soft.vantrel", category
/// "lldb-helper"; hosts' tools filter by these names). Elsewhere they go to syslog(3) (ident
/// "lldb-helper", facility user, level notice), unless the process's mask (setlogmask) leaves the
/// level out. The program never sets it. Any thread may log after openLog has returned.
namespace platform {

/// Creates the handle. Call it once, before any other thread exists.
void openLog();

/// Whether the system's log takes records of the default level. Says nothing of a log daemon.
bool logEnabled();

#if defined(__APPLE__)
os_log_t logHandle();
#define LLDB_HELPER_LOG(...) os_log(platform::logHandle(), __VA_ARGS__)
#else
#if defined(__clang__)
__attribute__((format(os_log, 1, 2)))  // g++ knows no %{public}s
#endif
void logToSyslog(const char *format, ...);
#define LLDB_HELPER_LOG(...) platform::logToSyslog(__VA_ARGS__)
#endif

}  // namespace platform

/// LOG_RECORD(format, ...) writes one record, and evaluates its arguments, if the level is enabled.
/// It is a macro because the unified log takes only a literal as its format. The unified log shows
/// what "%{public}s" prints, and hides what a plain "%s" prints.
///
/// Deliberate: the records' texts, their line ends and what is public in them stay as they are.
/// Hosts and their tools read them. An error's record has the name of the handler, or of the
/// function that answers.
///
/// On Linux the usual daemons receive datagrams. A record for which such a daemon has no room is
/// dropped without a sign. A daemon that reads a stream cannot be asked, and may make this wait.
#define LOG_RECORD(...)                                       \
  do {                                                        \
    if (platform::logEnabled()) LLDB_HELPER_LOG(__VA_ARGS__); \
  } while (false)
