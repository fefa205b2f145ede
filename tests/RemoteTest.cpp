// Remote debug servers of several makers, on loopback ports.

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/Inferior.h"

namespace {

std::string loopback(int port) { return "127.0.0.1:" + std::to_string(port); }

json connect(int port, const std::string &file, const std::string &triple = "") {
  return {{"command", "connectRemote"},
          {"url", "connect://" + loopback(port)},
          {"plugin", "gdb-remote"},
          {"platform", "ignored"},
          {"file", file},
          {"triple", triple},
          {"is64Bits", true}};
}

bool isInstalled(const std::string &program) {
  return system(("command -v " + program + " >/dev/null").c_str()) == 0;
}

/// Registers, memory, a breakpoint, a step, and on to the exit.
void debugThrough(Host &host, const std::string &file, const char *pc, std::uint64_t slide) {
  const std::uint64_t leaf = fileAddress(file, "leaf") + slide;
  const auto registers = [&] { return host.ask("getRegisters")["registers"]; };
  const auto memory = [&](std::uint64_t address) {
    return host.ask({{"command", "readMemory"}, {"address", address}, {"length", 4}});
  };
  EXPECT_EQ(host.ask("getProcessState")["state-string"], "eStateStopped");
  const json set = host.ask({{"command", "setBreakpointAtVirtualAddress"}, {"address", leaf}});
  ASSERT_EQ(set["status"], "ok");
  const json code = memory(leaf);
  ASSERT_EQ(code["status"], "ok");

  ASSERT_EQ(host.ask("continueExecution"), ok);
  host.awaitState("eStateRunning");
  host.awaitState("eStateStopped");
  const json stopped = registers();
  EXPECT_EQ(std::stoull(stopped[pc].get<std::string>(), nullptr, 0), leaf);
  EXPECT_EQ(memory(leaf), code);
  EXPECT_EQ(host.ask("getCallstack")["callstack"][0]["function"], "leaf");
  EXPECT_EQ(host.ask("getThreadIDList")["threads"][0]["state"], "Breakpoint");

  ASSERT_EQ(host.ask("stepInstruction"), ok);
  host.awaitState("eStateRunning");
  host.awaitState("eStateStopped");
  EXPECT_NE(registers()[pc], stopped[pc]);
  ASSERT_EQ(host.ask("removeAllBreakpoints"), ok);
  ASSERT_EQ(host.ask("continueExecution"), ok);
  host.awaitExit();
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Remote, LldbServer) {
  const std::string program = inferior("steps-fixed");
  const int port = freePort();
  Running server({LLDB_SERVER, "gdbserver", loopback(port), program});
  awaitListener(port);
  Host host;
  ASSERT_EQ(host.ask(connect(port, program)), ok);
  EXPECT_EQ(host.ask(connect(port, program)), errorMessage("already has a process"));
  debugThrough(host, program, pcRegister, 0);
  host.closeRequests();
  EXPECT_EQ(host.exitStatus(), 0);
}

TEST(Remote, GnuGdbserver) {
  if (!isInstalled("gdbserver")) GTEST_SKIP() << "NOT TESTED: gdbserver is not installed here";
  if (LLDB_MAJOR < 22)
    GTEST_SKIP() << "NOT TESTED: this LLDB mistakes GNU gdbserver's stops, see docs/platforms.md";
  const std::string program = inferior("steps-fixed");
  const int port = freePort();
  Running server({"gdbserver", loopback(port), program});
  awaitListener(port);
  Host host;
  ASSERT_EQ(host.ask(connect(port, program)), ok);
  debugThrough(host, program, pcRegister, 0);
}

TEST(Remote, QemuWithAProgramOfAnotherArchitecture) {
  const std::string program = inferior("steps-aarch64");
  if (!isInstalled("qemu-aarch64") || access(program.c_str(), X_OK) != 0)
    GTEST_SKIP() << "NOT TESTED: qemu-aarch64 or the compiler for aarch64 is not installed here";
  const int port = freePort();
  Running server({"qemu-aarch64", "-g", std::to_string(port), program});
  awaitListener(port);
  Host host;
  ASSERT_EQ(host.ask(connect(port, program, "aarch64-unknown-linux-gnu")), ok);
  debugThrough(host, program, "pc", 0);
  EXPECT_EQ(server.line(), "counted 20");
}

TEST(Remote, ContinueRightBehindTheConnection) {
  const int port = freePort();
  Running server({LLDB_SERVER, "gdbserver", loopback(port), inferior("hello")});
  awaitListener(port);
  Host host;
  ASSERT_EQ(host.askAll({connect(port, inferior("hello")), command("continueExecution")}),
            (std::vector<json>{ok, ok}));
  host.awaitExit();
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Remote, ANobodyIsNoConnection) {
  const json refused = errorMessage("cannot connect to remote, invalid process");
  const int port = freePort();
  Host host;
  EXPECT_EQ(host.ask(connect(port, inferior("hello"))), refused);
  // A target stays, without process.
  EXPECT_EQ(host.ask("getProcessState"), errorMessage("no process"));
  EXPECT_EQ(host.ask("createProcess"), errorMessage("process already exists"));
  EXPECT_EQ(host.ask("deleteProcess"), errorMessage("no process"));
  EXPECT_EQ(host.ask({{"command", "connectRemote"}, {"plugin", "no such"}, {"url", "x"}}), refused);

  // And the connection may be tried again at once.
  Running server({LLDB_SERVER, "gdbserver", loopback(port), inferior("hello")});
  awaitListener(port);
  ASSERT_EQ(host.ask(connect(port, inferior("hello"))), ok);
  EXPECT_EQ(host.ask("deleteProcess"), ok);
  host.launch(inferior("hello"));
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Remote, AServerThatHangsUpEndsTheProcessNotTheProgram) {
  const int port = freePort();
  auto server = std::make_unique<Running>(
      std::vector<std::string>{LLDB_SERVER, "gdbserver", loopback(port), inferior("wait")});
  awaitListener(port);
  Host host;
  ASSERT_EQ(host.ask(connect(port, inferior("wait"))), ok);
  server.reset();
  host.ask("continueExecution");  // how LLDB notices
  host.awaitState("eStateExited");
  for (const char *command : {"continueExecution", "getRegisters", "stopExecution"})
    host.ask(command);
  EXPECT_EQ(host.ask("deleteProcess"), ok);
  EXPECT_EQ(host.ask("ping"), ok);
}

/// Connecting to a server without a program: nothing stops, so nothing but the event thread's own
/// start orders what follows.
TEST(Remote, ConnectAndDeleteBackToBack) {
  Host host;
  for (int round = 0; round < 3; ++round) {  // each takes LLDB five seconds
    const int port = freePort();
    Running server({LLDB_SERVER, "gdbserver", loopback(port)});
    awaitListener(port);
    ASSERT_EQ(host.askAll({connect(port, ""), command("deleteProcess")}),
              (std::vector<json>{ok, ok}));
  }
}

}  // namespace
