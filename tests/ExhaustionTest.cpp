// What is asked for is more than there is: descriptors, processes, memory, depth, requests. The
// answer is an error, or the end that docs/reliability.md tells of, and the next one is right.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include "support/Inferior.h"
#include "support/SystemCalls.h"

namespace {

using std::string_literals::operator""s;

json launchHello(Host &host) {
  host.prepare(inferior("hello"));
  return host.ask("createProcess");
}

void expectGoodHealth(Host &host) {
  if (host.ask("hasProcess") == ok) EXPECT_EQ(host.ask("deleteProcess"), ok);
  ASSERT_EQ(launchHello(host), ok);
  EXPECT_EQ(host.runToExit().exit["exit_status"], 3);
  EXPECT_EQ(host.ask("deleteProcess"), ok);
  host.closeRequests();
  EXPECT_EQ(host.exitStatus(), 0);
}

std::size_t openDescriptors(pid_t pid) {
  const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

/// As few more descriptors as make the launch fail at each of its steps, until there are enough.
TEST(Exhaustion, Descriptors) {
  if (isSanitized) GTEST_SKIP() << "NOT TESTED: a sanitizer needs a pipe to look at memory";
  Host host;
  host.ask("ping");
  rlimit before;
  ASSERT_EQ(prlimit(host.pid(), RLIMIT_NOFILE, nullptr, &before), 0);
  bool launched = false;
  int refused = 0;
  for (rlim_t more = 0; more < 32 && !launched; ++more) {
    const rlimit limit{openDescriptors(host.pid()) + more, before.rlim_max};
    ASSERT_EQ(prlimit(host.pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    const json response = launchHello(host);
    launched = response == ok;
    if (!launched) {
      EXPECT_EQ(response["status"], "error") << response;
      EXPECT_EQ(host.ask("getProcessState"), errorMessage("no target"));
      ++refused;
    }
    ASSERT_EQ(prlimit(host.pid(), RLIMIT_NOFILE, &before, nullptr), 0);
  }
  EXPECT_TRUE(launched);
  EXPECT_GT(refused, 0);
  expectGoodHealth(host);
}

TEST(Exhaustion, Processes) {
  // What fork passes to clone, and the start of a thread does not.
  Host host(Host::Options{.prepare = [] { refuse(SYS_clone, CLONE_CHILD_SETTID); }});
  const json response = launchHello(host);
  EXPECT_EQ(response["status"], "error") << response;
  EXPECT_EQ(response["message"].get<std::string>().find("cannot create process: "), 0u) << response;
  EXPECT_EQ(host.ask("getProcessState"), errorMessage("no target"));
  host.closeRequests();
  EXPECT_EQ(host.exitStatus(), 0);
}

/// LLVM's own code ends the program where it gets no memory; where ours does it answers.
TEST(Exhaustion, AddressSpace) {
  if (isSanitized) GTEST_SKIP() << "NOT TESTED: a sanitizer needs the address space itself";
  for (const rlim_t megabytes : {0, 4, 16, 24, 32, 48, 64, 96, 128, 256, 1024}) {
    SCOPED_TRACE(megabytes);
    Host host;
    host.prepare(inferior("hello"));
    const rlim_t size = static_cast<rlim_t>(statusFigure(host.pid(), "VmSize")) * 1024;
    const rlimit limit{size + (megabytes << 20), RLIM_INFINITY};
    ASSERT_EQ(prlimit(host.pid(), RLIMIT_AS, &limit, nullptr), 0);
    json response;
    try {
      response = host.ask("createProcess");
    } catch (const std::exception &) {
      const int status = host.waitForEnd();
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
      continue;
    }
    EXPECT_TRUE(response == ok || response["status"] == "error") << response;
    const rlimit none{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(prlimit(host.pid(), RLIMIT_AS, &none, nullptr), 0);
    expectGoodHealth(host);
  }
}

/// A daemon that has stopped reading loses records, not the host's time.
TEST(Exhaustion, AFullLog) {
  const sockaddr_un address{AF_UNIX, "/dev/log"};
  const int daemon = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (bind(daemon, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    close(daemon);
    GTEST_SKIP() << "NOT TESTED: no place for a log at /dev/log: " << std::strerror(errno);
  }
  Host host;
  EXPECT_NO_THROW({
    for (int round = 0; round < 1000; ++round)
      EXPECT_EQ(host.ask("getRegisters"), errorMessage("no process"));
  });
  char record[1024];
  EXPECT_GT(recv(daemon, record, sizeof record, MSG_DONTWAIT), 0);
  unlink(address.sun_path);
  close(daemon);
}

TEST(Exhaustion, LargeDeepAndManyRequests) {
  Host host;
  host.conformance.checksRequests = false;
  const std::string name(64 << 20, 'x');
  host.sendFrame("{\"command\":\"" + name + "\"}");
  EXPECT_TRUE(host.nextMessage()["message"] == "unknown command '" + name + "'");
  // The number lies one deeper than the lists around it, and they one deeper than the object.
  const auto nested = [](int lists) {
    return "{\"command\":" + std::string(lists, '[') + "1" + std::string(lists, ']') + "}";
  };
  host.sendFrame(nested(199));
  EXPECT_EQ(host.nextMessage(), errorMessage("unknown command ''"));
  host.sendFrame(nested(200));
  EXPECT_EQ(host.nextMessage(), errorMessage("Cannot decode JSON: exceeded maximum nesting depth"));
  // The answers do not fit the pipe, so the program stops reading until they are read.
  host.conformance.listens = false;  // it belongs to one thread
  std::string many;
  constexpr int requests = 10000;
  for (int id = 0; id < requests; ++id)
    many += Host::frame(json{{"command", "ping"}, {"id", id}}.dump());
  std::thread writer([&] { host.sendBytes(many); });
  for (int id = 0; id < requests; ++id)
    EXPECT_EQ(host.nextText(), "{\"id\": " + std::to_string(id) + ", \"status\": \"ok\"}");
  writer.join();
  host.closeRequests();
  EXPECT_EQ(host.exitStatus(), 0);
}

}  // namespace
