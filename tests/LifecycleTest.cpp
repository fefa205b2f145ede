// Starting, stopping and ending, in orders and at speeds that a debugger's threads dislike.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>

#include <chrono>

#include "support/Inferior.h"

namespace {

const json preparation{
    {"command", "prepareExecutable"}, {"path", inferior("hello")}, {"triple", ""}};

const std::vector<json> allWell(3, ok);

TEST(Lifecycle, CreateAndDeleteBackToBack) {
  Host host;
  for (int round = 0; round < 200; ++round)
    ASSERT_EQ(host.askAll({preparation, command("createProcess"), command("deleteProcess")}),
              allWell)
        << round;
  EXPECT_TRUE(descendants(host.pid(), "hello").empty());
  awaitThat("no lldb-server is left",
            [&] { return descendants(host.pid(), "lldb-server").empty(); });
}

/// Continues right behind createProcess. A stranded process would never exit.
void expectToRunThrough(Host &host) {
  EXPECT_EQ(host.askAll({preparation, command("createProcess"), command("continueExecution")}),
            allWell);
  EXPECT_EQ(host.awaitExit().exit["exit_status"], 3);
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Lifecycle, ContinueRightBehindCreate) {
  Host host;
  for (int round = 0; round < 200 && !HasFailure(); ++round) expectToRunThrough(host);
}

TEST(Lifecycle, ContinueRightBehindCreateInAFreshProgram) {
  for (int round = 0; round < 20 && !HasFailure(); ++round) {
    Host host;
    expectToRunThrough(host);
  }
}

TEST(Lifecycle, NoGhostsOfTheRunBefore) {
  Host host;
  for (int round = 0; round < 20; ++round) {
    host.launch(inferior("wait"));
    ASSERT_EQ(host.ask("deleteProcess"), ok);
  }
  for (const json &message : host.history) {
    EXPECT_EQ(message.count("exit_status"), 0u) << message;
    if (message["status"] == "event" && message["type"] == "state")
      EXPECT_EQ(message["state_desc"], "eStateStopped");
  }
}

TEST(Lifecycle, DeleteProcessDoesNotWaitForTheEventThreadsTimeout) {
  Host host;
  auto shortest = std::chrono::nanoseconds::max();
  for (int round = 0; round < 5; ++round) {
    host.launch(inferior("wait"));
    host.awaitState("eStateStopped");
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(host.ask("deleteProcess"), ok);
    shortest = std::min(shortest, std::chrono::steady_clock::now() - start);
  }
  // The event thread waits for a whole second at a time, and has just begun to.
  EXPECT_LT(shortest, std::chrono::milliseconds(500));
}

TEST(Lifecycle, DeletingARunningProcessLeavesNothing) {
  Host host;
  for (int round = 0; round < 5; ++round) {
    host.launch(inferior("wait"));
    ASSERT_EQ(host.ask("continueExecution"), ok);
    host.awaitOutput();
    EXPECT_EQ(host.ask("getProcessState")["state-string"], "eStateRunning");
    ASSERT_EQ(host.ask("deleteProcess"), ok);
    EXPECT_TRUE(descendants(host.pid(), "wait").empty());
  }
  host.closeRequests();
  EXPECT_EQ(host.exitStatus(), 0);
}

/// LLDB's idea of the process is behind it here, and a kill that trusts that idea crashes it or
/// waits 20 seconds for a stop that has been.
TEST(Lifecycle, EndingRightBehindAStep) {
  // Where all threads share a processor, the one that takes LLDB's events comes late.
  Host host(Host::Options{.prepare = [] {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    sched_setaffinity(0, sizeof one, &one);
  }});
  const json ends[] = {command("deleteProcess"), command("stopExecution")};
  for (int round = 0; round < 60; ++round) {
    ASSERT_EQ(host.askAll({preparation, command("createProcess")}), std::vector<json>(2, ok));
    const auto start = std::chrono::steady_clock::now();
    const json &end = ends[round % std::size(ends)];
    ASSERT_EQ(host.askAll({command("stepOver"), command("stepInstruction"), end}), allWell);
    ASSERT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << end;
    host.ask("deleteProcess");
  }
}

TEST(Lifecycle, StoppingARunningProcessTellsOfItsExitOnly) {
  Host host;
  host.launch(inferior("wait"));
  ASSERT_EQ(host.ask("continueExecution"), ok);
  host.awaitState("eStateRunning");
  host.awaitOutput();
  ASSERT_EQ(host.ask("stopExecution"), ok);
  const auto isState = [](const json &event) { return event["type"] == "state"; };
  EXPECT_EQ(host.awaitEvent(isState)["state_desc"], "eStateExited");
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Lifecycle, BreakContinueAndStop) {
  Host host;
  host.launch(inferior("wait"));
  host.awaitState("eStateStopped");
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(host.ask("continueExecution"), ok);
    host.awaitState("eStateRunning");
    const json twice = host.ask("continueExecution");
    EXPECT_EQ(twice["status"], "error");
    EXPECT_NE(twice["message"], "");
    ASSERT_EQ(host.ask("breakExecution"), ok);
    EXPECT_EQ(host.awaitState("eStateStopped")["inferior_state"], 5);
  }
  ASSERT_EQ(host.ask("stopExecution"), ok);
  host.awaitState("eStateExited");
  EXPECT_EQ(host.ask("getProcessState")["state"], 10);
  EXPECT_EQ(host.ask("continueExecution")["status"], "error");
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Lifecycle, DetachLeavesTheProcessAlone) {
  Host host;
  host.launch(inferior("wait"));
  host.ask("continueExecution");
  host.awaitOutput();
  const auto inferiors = descendants(host.pid(), "wait");
  ASSERT_EQ(inferiors.size(), 1u);
  ASSERT_EQ(host.ask("detach"), ok);
  EXPECT_EQ(host.ask("createProcess"),
            (json{{"message", "process already exists"}, {"status", "error"}}));
  EXPECT_EQ(host.ask("deleteProcess"), ok);
  EXPECT_EQ(kill(inferiors[0], 0), 0) << "the process is gone";
  host.launch(inferior("hello"));
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Lifecycle, TheEndUnderARunningEventThreadIsAbnormal) {
  Host host;
  host.launch(inferior("wait"));
  host.closeRequests();
  const int status = host.waitForEnd();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
}

TEST(Lifecycle, TheEndAfterDeleteProcessIsOrderly) {
  for (int round = 0; round < 5; ++round) {
    Host host;
    host.launch(inferior("hello"));
    host.ask("continueExecution");
    host.awaitExit();
    host.ask("deleteProcess");
    host.closeRequests();
    ASSERT_EQ(host.exitStatus(), 0);
  }
}

}  // namespace
