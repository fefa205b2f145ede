#pragma once

#include <string>

#if defined(__APPLE__)
#include <os/log.h>
#endif

/// The program's log: one process-wide handle, every record at the default level.
///
/// On macOS records go to the unified log (subsystem "com.brimwick-soft.vantrel", category
/// "lldb-helper"); elsewhere to syslog(3) (ident "lldb-helper", facility user, level notice), where
/// the log mask says whether the level is enabled. Any thread may log once openLog has returned.
namespace platform {

/// Creates the handle. Called once, before any other thread exists.
void openLog();

/// Whether a record at the default level would go anywhere.
bool logEnabled();

/// Receives each record as plain text, on the thread that logs it.
using LogSink = void (*)(const std::string &record);

/// Sends every record to `sink` instead of the log; nullptr turns the log back on. For tests, which
/// set it before they start other threads.
void setLogSink(LogSink sink);

#if defined(__APPLE__)
#define LLDB_HELPER_LOG_FORMAT __attribute__((format(os_log, 1, 2)))
os_log_t logHandle();
#elif defined(__clang__)
#define LLDB_HELPER_LOG_FORMAT __attribute__((format(os_log, 1, 2)))
#else
#define LLDB_HELPER_LOG_FORMAT  // g++ knows no %{public}s
#endif

/// Writes a record to the sink, if there is one, and says so.
bool logToSink(const char *format, ...) LLDB_HELPER_LOG_FORMAT;

#if !defined(__APPLE__)
void logToSyslog(const char *format, ...) LLDB_HELPER_LOG_FORMAT;
#endif

}  // namespace platform

/// LOG_RECORD(format, ...) writes one record if the level is enabled, and evaluates the arguments
/// only then. A macro, because the unified log takes nothing but a literal as its format.
/// "%{public}s" marks what may be shown to everybody; the unified log hides what a plain "%s"
/// prints.
#if defined(__APPLE__)
#define LOG_RECORD(format, ...)                                                            \
  do {                                                                                     \
    if (platform::logEnabled() && !platform::logToSink(format __VA_OPT__(, ) __VA_ARGS__)) \
      os_log(platform::logHandle(), format __VA_OPT__(, ) __VA_ARGS__);                    \
  } while (false)
#else
#define LOG_RECORD(format, ...)                                                            \
  do {                                                                                     \
    if (platform::logEnabled() && !platform::logToSink(format __VA_OPT__(, ) __VA_ARGS__)) \
      platform::logToSyslog(format __VA_OPT__(, ) __VA_ARGS__);                            \
  } while (false)
#endif
