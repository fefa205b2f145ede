// Hosts, debug servers and programs that behave badly: one sick peer must not cost the others
// anything.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "support/Inferior.h"

namespace {

using std::string_literals::operator""s;

json preparation(const char *program, const std::string &arguments = "") {
  return {{"command", "prepareExecutable"},
          {"path", inferior(program)},
          {"args", arguments},
          {"triple", ""}};
}

/// A session whose answers are the same every time: the program stays at its entry.
const std::vector<json> wholeSession{preparation("hello"),
                                     command("createProcess"),
                                     command("hasProcess"),
                                     command("getProcessState"),
                                     {{"command", "setBreakpointAtVirtualAddress"}, {"address", 1}},
                                     command("getRegisters"),
                                     command("getCallstack"),
                                     command("moduleCount"),
                                     {{"command", "moduleAtIndex"}, {"index", 0}},
                                     {{"command", "readMemory"}, {"address", 0}, {"length", 16}},
                                     {{"command", "moduleForFile"}, {"file", "/nowhere"}},
                                     command("deleteProcess"),
                                     command("hasProcess")};

TEST(Peers, AHostOfAnyMannersGetsTheSameAnswers) {
  const auto answersWhen = [](const std::function<void(Host &)> &sendAll) {
    Host host;
    sendAll(host);
    auto found = host.responses(wholeSession.size());
    host.closeRequests();
    EXPECT_EQ(host.exitStatus(), 0);
    return found;
  };
  std::vector<json> expected;
  answersWhen([&](Host &host) {
    for (const json &request : wholeSession) {
      host.send(request);
      expected.push_back(host.responses(1)[0]);
    }
    host.sendBytes(Host::frames(wholeSession));
  });
  EXPECT_EQ(answersWhen([](Host &host) { host.sendBytes(Host::frames(wholeSession)); }), expected);
  EXPECT_EQ(answersWhen([](Host &host) {
              for (const char byte : Host::frames(wholeSession)) host.sendBytes({&byte, 1});
            }),
            expected);
}

/// Whether whoever writes to the pipe behind `readEnd` has to wait. The number of bytes in it does
/// not tell: a message that the last page has no room for begins a page of its own, so a full pipe
/// may hold several kilobytes less than its size.
bool isFull(int readEnd) {
  const std::string path = "/proc/self/fd/" + std::to_string(readEnd);
  pollfd writeEnd{open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC), POLLOUT, 0};
  EXPECT_NE(writeEnd.fd, -1) << path;
  const bool full = poll(&writeEnd, 1, 0) == 0;
  close(writeEnd.fd);
  return full;
}

/// Reads nothing until the program's pipe is full and it has to wait.
TEST(Peers, AHostThatReadsLateMissesNothing) {
  Host host;
  constexpr int lines = 20000;
  host.launch(inferior("flood"), {{"args", std::to_string(8 * lines)}});
  host.send(command("continueExecution"));
  awaitThat("the pipe is full", [&] { return isFull(host.messageDescriptor()); });
  EXPECT_EQ(host.responses(1)[0], ok);
  EXPECT_TRUE(host.awaitExit().output == floodOf(lines));
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

/// Both threads write as fast as they can.
TEST(Peers, RequestsInTheMiddleOfAFlood) {
  Host host;
  constexpr int lines = 20000;
  host.launch(inferior("flood"), {{"args", std::to_string(8 * lines)}});
  std::vector<json> requests(1000, command("ping"));
  requests.front() = command("continueExecution");
  host.sendBytes(Host::frames(requests));
  for (const json &response : host.responses(requests.size())) EXPECT_EQ(response, ok);
  EXPECT_TRUE(host.awaitExit().output == floodOf(lines));
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

/// A host may go at any point. Without a process the program ends in order; with one it aborts
/// where its input ends, and does what it is told as long as only its output is gone.
TEST(Peers, EitherPipeMayCloseAtEveryPoint) {
  for (std::size_t point = 0; point <= wholeSession.size(); ++point) {
    SCOPED_TRACE(point);
    const std::vector<json> begun(wholeSession.begin(), wholeSession.begin() + point);
    const bool hasProcess = point > 1 && point < wholeSession.size() - 1;
    {
      Host host;
      host.sendBytes(Host::frames(begun));
      host.responses(begun.size());
      host.closeRequests();
      const int status = host.waitForEnd();
      EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, hasProcess ? SIGABRT : 0);
    }
    {
      Host host;
      host.sendBytes(Host::frames(begun));
      host.closeMessages();
      host.sendBytes(Host::frames({command("deleteProcess")}));
      host.closeRequests();
      EXPECT_EQ(host.exitStatus(), 0);
    }
  }
}

/// Where a program is when something happens to it.
enum class At { Entry, Running };

void bringTo(Host &host, At place) {
  host.launch(inferior("wait"));
  host.awaitState("eStateStopped");
  if (place == At::Entry) return;
  ASSERT_EQ(host.ask("continueExecution"), ok);
  host.awaitOutput();
}

void expectGoodHealth(Host &host) {
  EXPECT_EQ(host.ask("deleteProcess"), ok);
  host.launch(inferior("hello"));
  EXPECT_EQ(host.runToExit().exit["exit_status"], 3);
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Peers, AProgramKilledFromOutside) {
  for (const At place : {At::Entry, At::Running}) {
    Host host;
    bringTo(host, place);
    kill(descendants(host.pid(), "wait").at(0), SIGKILL);
    if (place == At::Entry) host.ask("continueExecution");  // how LLDB notices
    const json event = host.awaitState("eStateExited");
    if (place == At::Running) EXPECT_EQ(event["exit_status"], SIGKILL);
    host.ask("getCallstack");
    expectGoodHealth(host);
  }
}

TEST(Peers, ADebugServerKilledFromOutside) {
  for (const At place : {At::Entry, At::Running}) {
    Host host;
    bringTo(host, place);
    kill(descendants(host.pid(), "lldb-server").at(0), SIGKILL);
    if (place == At::Entry) host.ask("continueExecution");
    host.awaitState("eStateExited");
    host.ask("getCallstack");
    expectGoodHealth(host);
  }
}

/// A debug stub that follows a script: says one thing to whoever connects and then nothing more.
class Stub {
 public:
  Stub(std::string words, bool hangsUp) {
    sockaddr_in address{.sin_family = AF_INET, .sin_addr = {htonl(INADDR_LOOPBACK)}};
    bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address);
    socklen_t size = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size);
    port = ntohs(address.sin_port);
    listen(listener, 1);
    server = std::thread([this, words = std::move(words), hangsUp] {
      const int caller = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      send(caller, words.data(), words.size(), MSG_NOSIGNAL);
      char bytes[256];
      while (!hangsUp && recv(caller, bytes, sizeof bytes, 0) > 0) continue;
      close(caller);
    });
  }
  ~Stub() {
    shutdown(listener, SHUT_RDWR);  // ends a wait for a caller
    server.join();
    close(listener);
  }

  int port = 0;

 private:
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::thread server;
};

TEST(Peers, AStubThatIsNoneIsNoConnection) {
  const struct {
    const char *what;
    std::string words;
    bool hangsUp;
  } rows[] = {{"closes at once", "", true},
              {"says nothing", "", false},
              {"says garbage", "HTTP/1.1 400 Bad Request\r\n\r\n", false},
              {"says half a packet", "+$qSupp", false}};
  Host host;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    Stub stub(row.words, row.hangsUp);
    EXPECT_EQ(host.ask({{"command", "connectRemote"},
                        {"triple", ""},
                        {"file", inferior("hello")},
                        {"url", "connect://127.0.0.1:" + std::to_string(stub.port)}}),
              errorMessage("cannot connect to remote, invalid process"));
  }
  // What is left is a target without process, which the next connection may replace.
  EXPECT_EQ(host.ask("getProcessState"), errorMessage("no process"));
  EXPECT_EQ(host.ask("ping"), ok);
}

/// What becomes of the debug server and of the program when lldb-helper dies; docs/reliability.md
/// has the table.
TEST(Peers, WhatALostHelperLeaves) {
  const auto goes = [](pid_t pid) {
    // What is left of the dead is ours to bury.
    awaitThat("it is gone", [&] { return waitpid(pid, nullptr, WNOHANG) == pid; });
  };
  for (const bool aborts : {false, true}) {
    const auto end = [&](Host &host) {
      const auto servers = descendants(host.pid(), "lldb-server");
      if (aborts) {
        host.closeRequests();
      } else {
        kill(host.pid(), SIGKILL);
      }
      EXPECT_TRUE(WIFSIGNALED(host.waitForEnd()));
      for (const pid_t server : servers) goes(server);
    };
    SCOPED_TRACE(aborts ? "abort" : "SIGKILL");
    {
      Host host;
      bringTo(host, At::Entry);
      const pid_t program = descendants(host.pid(), "wait").at(0);
      end(host);
      goes(program);
    }
    {
      // May go on or not: the debug server lets it go, and its terminal is gone.
      Host host;
      bringTo(host, At::Running);
      end(host);
    }
    for (const bool continues : {false, true}) {
      Host host;
      Running program({inferior("wait")});
      ASSERT_EQ(program.line(), "ready");
      ASSERT_EQ(host.ask({{"command", "attachToProcess"},
                          {"pid", program.pid()},
                          {"executable", inferior("wait")},
                          {"triple", ""}})["status"],
                "ok");
      if (continues) {
        ASSERT_EQ(host.ask("continueExecution"), ok);
        host.awaitState("eStateRunning");
      }
      end(host);
      awaitThat("nobody traces it", [&] { return statusFigure(program.pid(), "TracerPid") == 0; });
      EXPECT_TRUE(program.isAlive());
    }
  }
}

/// Several on one machine, each with a program of its own.
TEST(Peers, HelpersSideBySide) {
  std::array<Host, 4> hosts;
  std::vector<std::thread> sessions;
  const auto run = [](Host &host) {
    for (int round = 0; round < 5; ++round) {
      host.launch(inferior("flood"), {{"args", "80000"}});
      const auto ending = host.runToExit();
      EXPECT_EQ(ending.output.size(), 90000u);
      EXPECT_EQ(ending.exit["exit_status"], 0);
      EXPECT_EQ(host.ask("deleteProcess"), ok);
    }
    host.closeRequests();
    EXPECT_EQ(host.exitStatus(), 0);
  };
  for (Host &host : hosts) sessions.emplace_back([&] { EXPECT_NO_THROW(run(host)); });
  for (std::thread &session : sessions) session.join();
}

}  // namespace
