// The log's records, word for word and in order, and what becomes of them on this platform.

#undef _FORTIFY_SOURCE  // this file defines syslog, and must not get it from a header

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/DebugServer.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "session/DebugSession.h"

namespace {

using Records = std::vector<std::string>;

std::mutex recordsMutex;
Records records;

Records takeRecords() {
  const std::lock_guard lock(recordsMutex);
  return std::exchange(records, {});
}

void keepRecord(const std::string &record) {
  const std::lock_guard lock(recordsMutex);
  records.push_back(record);
}

std::string frame(const std::string &text) {
  const auto length = static_cast<std::uint32_t>(text.size());
  std::string bytes(sizeof length, '\0');
  std::memcpy(bytes.data(), &length, sizeof length);
  return bytes + text;
}

class Log : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    platform::startEnvironment();
    platform::provideDebugServer();
    lldb::SBDebugger::Initialize();
  }
  static void TearDownTestSuite() { lldb::SBDebugger::Terminate(); }
  void SetUp() override {
    platform::setLogSink(keepRecord);
    takeRecords();
  }
  void TearDown() override { platform::setLogSink(nullptr); }

  /// Has a session answer these bytes and returns what it sent.
  std::string answer(const std::string &bytes) {
    FILE *input = std::tmpfile();
    FILE *output = std::tmpfile();
    std::fwrite(bytes.data(), 1, bytes.size(), input);
    std::rewind(input);
    {
      DebugSession session(input, output, false);
      session.run();
    }
    std::string sent(static_cast<std::size_t>(std::ftell(output)), '\0');
    std::rewind(output);
    EXPECT_EQ(std::fread(sent.data(), 1, sent.size(), output), sent.size());
    std::fclose(input);
    std::fclose(output);
    return sent;
  }

  Records recordsOf(const std::vector<std::string> &requests) {
    std::string bytes;
    for (const std::string &request : requests) bytes += frame(request);
    answer(bytes);
    return takeRecords();
  }
};

TEST_F(Log, ErrorsNameTheOperationThatFailed) {
  const std::pair<const char *, const char *> rows[] = {
      {R"({"command":"hasProcess"})", "Error in hasProcess: no process"},
      {R"({"command":"getProcessState"})", "Error in getProcessState: no target"},
      {R"({"command":"continueExecution"})", "Error in continueExecution: no target"},
      {R"({"command":"deleteProcess"})", "Error in deleteProcess: no process"},
      {R"({"command":"x%s%n"})", "Error in handleRequest: unknown command 'x%s%n'"},
      {"[", "Error in sendError: Cannot decode JSON: unexpected end of input"},
      {"null", "Error in sendError: Cannot decode JSON: "},
  };
  for (const auto &[request, record] : rows) {
    const Records logged = recordsOf({request});
    ASSERT_EQ(logged.size(), 1u) << request;
    EXPECT_EQ(logged[0], record);
  }
  EXPECT_EQ(recordsOf({R"({"command":"ping"})"}), Records{});
}

TEST_F(Log, ALengthThatIsRefusedIsLogged) {
  EXPECT_EQ(answer("\xff\xff\xff\xff"), "");
  EXPECT_EQ(takeRecords(), Records{"Refusing a message of 4294967295 bytes\n"});
}

TEST_F(Log, ALaunchIsToldStepByStep) {
  const Records logged = recordsOf({
      R"({"command":"prepareExecutable","path":"/bin/true","triple":"","is64Bits":true})",
      R"({"command":"createProcess"})",
      R"({"command":"deleteProcess"})",
      R"({"command":"prepareExecutable","path":"/bin/true"})",
  });
  // The event thread's records fall where they fall; these are the main thread's.
  Records ours;
  for (const std::string &record : logged)
    if (record.rfind("State changed to ", 0) != 0) ours.push_back(record);
  ASSERT_EQ(ours.size(), 8u) << testing::PrintToString(logged);
  EXPECT_EQ(ours[0], "Preparing executable /bin/true, 64bit");
  EXPECT_EQ(ours[1], "Building launchinfo\n");
  EXPECT_EQ(ours[2], "About to launch target\n");
  EXPECT_EQ(ours[3], "Restarting event thread\n");
  EXPECT_EQ(ours[4], "Starting to wait for process to change state");
  EXPECT_EQ(ours[5], "Process current state eStateStopped\n");
  EXPECT_EQ(ours[6], "Process is ready with final state eStateStopped\n");
  EXPECT_EQ(ours[7], "Preparing executable /bin/true, 32bit");
}

TEST_F(Log, AnAttachNamesTheProcess) {
  const Records logged = recordsOf({R"({"command":"attachToProcess","pid":18446744073709551615})"});
  ASSERT_EQ(logged.size(), 2u) << testing::PrintToString(logged);
  EXPECT_EQ(logged[0], "About to attach to process 18446744073709551615");
  EXPECT_EQ(logged[1].rfind("Error in attachToProcess: cannot attach to process: ", 0), 0u);
}

/// The records of a connection's first second, which are ten whatever happens.
void expectSteps(const Records &logged, std::size_t first) {
  ASSERT_GE(logged.size(), first + 10) << testing::PrintToString(logged);
  for (std::size_t step = 0; step < 10; ++step)
    EXPECT_EQ(logged[first + step].rfind("step " + std::to_string(step) + ": eState", 0), 0u)
        << logged[first + step];
  EXPECT_EQ(logged.back(), "Error in connectRemote: cannot connect to remote, invalid process");
}

TEST_F(Log, AConnectionIsWatchedForASecond) {
  const Records logged =
      recordsOf({R"({"command":"connectRemote","plugin":"gdb-remote","url":"no-such-scheme://"})"});
  expectSteps(logged, 0);
  ASSERT_EQ(logged.size(), 12u) << testing::PrintToString(logged);
  EXPECT_EQ(logged[10].rfind("Cannot connect: ", 0), 0u) << "LLDB's own reason";
}

TEST_F(Log, AKernelIsReachedThroughTwoCommandLines) {
  const Records logged = recordsOf(
      {R"({"command":"connectRemote","plugin":"kdp-remote","url":"a url","file":"/bin/true"})"});
  ASSERT_EQ(logged.size(), 13u) << testing::PrintToString(logged);
  EXPECT_EQ(logged[0], "target create \"/bin/true\"\n");
  EXPECT_EQ(logged[1], "process connect --plugin kdp-remote \"a url\"\n");
  expectSteps(logged, 2);
}

// What reaches syslog(3): these take the C library's place.

struct Syslog {
  std::string ident;
  int priority = -1;
  std::string text;
  int mask = LOG_UPTO(LOG_DEBUG);
} syslogCalls;

TEST_F(Log, RecordsReachSyslogAsPlainText) {
  platform::setLogSink(nullptr);
  platform::openLog();
  LOG_RECORD("Error in %{public}s: %{public}s, %s %d %%", "a", "b", "c", 4);
  EXPECT_EQ(syslogCalls.ident, "lldb-helper");
  EXPECT_EQ(syslogCalls.priority, LOG_USER | LOG_NOTICE);
  EXPECT_EQ(syslogCalls.text, "Error in a: b, c 4 %");
}

TEST_F(Log, TheMaskSaysWhetherTheLevelIsEnabled) {
  syslogCalls.mask = LOG_UPTO(LOG_WARNING);
  int evaluated = 0;
  LOG_RECORD("%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  syslogCalls.mask = LOG_MASK(LOG_NOTICE);
  LOG_RECORD("%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(takeRecords(), Records{"1"});
}

}  // namespace

extern "C" {

/// Somebody listens, also where there is no log.
int access(const char *path, int mode) noexcept {
  return std::string_view(path) == _PATH_LOG ? 0 : faccessat(AT_FDCWD, path, mode, 0);
}

int connect(int descriptor, const sockaddr *address, socklen_t size) {
  if (address->sa_family != AF_UNIX || std::string_view(address->sa_data) != _PATH_LOG)
    return static_cast<int>(syscall(SYS_connect, descriptor, address, size));
  errno = EPROTOTYPE;
  return -1;
}

void openlog(const char *ident, int, int) { syslogCalls.ident = ident; }

int setlogmask(int mask) {
  return mask == 0 ? syslogCalls.mask : std::exchange(syslogCalls.mask, mask);
}

void vsyslog(int priority, const char *format, std::va_list arguments) {
  char text[1024];
  std::vsnprintf(text, sizeof text, format, arguments);
  syslogCalls.priority = priority;
  syslogCalls.text = text;
}

void syslog(int priority, const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

// What distributions that build with _FORTIFY_SOURCE call in its place.
void __syslog_chk(int priority, int, const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}
}
