// Breakpoints, steps and threads.

#include <gtest/gtest.h>

#include <set>

#include "support/Inferior.h"

namespace {

json breakpoint(std::uint64_t address) {
  return {{"command", "setBreakpointAtVirtualAddress"}, {"address", address}};
}

json remove(std::int32_t id) { return {{"command", "removeBreakpoint"}, {"bkpt_id", id}}; }

TEST(Control, WithoutTargetOrProcess) {
  Host host;
  EXPECT_EQ(host.ask(breakpoint(1)), errorMessage("no target"));
  EXPECT_EQ(host.ask(remove(1)), errorMessage("no target"));
  EXPECT_EQ(host.ask("removeAllBreakpoints"), errorMessage("no target"));
  for (const char *command :
       {"stepInstruction", "stepOver", "stepOut", "getThreadIDList", "selectThreadID"})
    EXPECT_EQ(host.ask(command), errorMessage("no process")) << command;
}

/// The same program, linked in every way that changes where its code lies or what is known of it.
class ControlOfAProgram : public testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(Linked, ControlOfAProgram,
                         testing::Values("steps", "steps-fixed", "steps-static", "steps-stripped"),
                         [](const auto &linked) {
                           std::string name = linked.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

TEST_P(ControlOfAProgram, StopsAtABreakpointAndSteps) {
  Debugged host(GetParam());
  host.symbolFile = inferior(std::string(GetParam()) == "steps-stripped" ? "steps" : GetParam());
  const std::uint64_t leaf = host.addressOf("leaf"), middle = host.addressOf("middle");

  const json set = host.breakAt("middle");
  char location[48];
  std::snprintf(location, sizeof location, "load addr: %lx", static_cast<unsigned long>(middle));
  EXPECT_EQ(set, (json{{"bkpt_id", set["bkpt_id"]}, {"bl0", location}, {"status", "ok"}}));
  ASSERT_TRUE(set["bkpt_id"].is_number_integer());

  host.resume();
  ASSERT_EQ(host.pc(), middle);
  const json threads = host.ask("getThreadIDList");
  EXPECT_EQ(threads["threads"][0]["state"], "Breakpoint");

  // To the first call, by instructions; over it; to the second; into that; and out again.
  const std::uint64_t end = host.addressOf("main");
  const auto isInside = [&](std::uint64_t pc) { return pc >= middle && pc < end; };
  std::uint64_t call = 0;
  while (isInside(host.pc())) {
    call = host.pc();
    host.step("stepInstruction");
  }
  ASSERT_EQ(host.pc(), leaf) << "the first call leads to leaf";
  host.step("stepOut");
  const std::uint64_t behind = host.pc();
  EXPECT_TRUE(behind > call && behind <= call + 8) << "behind the call";

  std::set<std::uint64_t> seen;
  while (isInside(host.pc())) {
    seen.insert(host.pc());
    host.step("stepOver");
    ASSERT_NE(host.pc(), leaf) << "stepping over went into the second call";
  }
  EXPECT_GT(seen.size(), 3u);

  // Breakpoints can go, singly or all.
  ASSERT_EQ(host.ask(remove(set["bkpt_id"])), ok);
  EXPECT_EQ(host.ask(remove(set["bkpt_id"])), ok) << "a breakpoint that is not there";
  host.goTo("leaf");
  EXPECT_EQ(host.pc(), leaf);
  EXPECT_EQ(host.ask("removeAllBreakpoints"), ok);
  host.ask("continueExecution");
  const Host::Ending ending = host.awaitExit();
  EXPECT_EQ(ending.output, "counted 20\r\n");
  EXPECT_EQ(ending.exit["exit_status"], 0);
}

TEST(Control, EveryHitStops) {
  Debugged host("steps");
  host.breakAt("leaf");
  int hits = 0;
  host.ask("continueExecution");
  for (;;) {
    const json last = host.awaitEvent([](const json &event) {
      return event["type"] == "state" && event["state_desc"] != "eStateRunning";
    });
    if (last["state_desc"] == "eStateExited") break;
    ++hits;
    ASSERT_EQ(host.ask("continueExecution"), ok);
  }
  EXPECT_EQ(hits, 10);
}

TEST(Control, ABreakpointWhereNothingIsHasALocationAllTheSame) {
  Debugged host("steps");
  const json set = host.ask(breakpoint(0x10));
  EXPECT_EQ(set["bl0"], "load addr: 10") << set;
  EXPECT_EQ(host.ask(remove(set["bkpt_id"])), ok);
  // LLDB's "no address" is no exception.
  EXPECT_EQ(host.ask(breakpoint(18446744073709551615u))["bl0"], "load addr: ffffffffffffffff");
}

TEST(Control, ABreakpointOnAnotherThread) {
  Debugged host("threads");
  host.goTo("work");
  const json threads = host.ask("getThreadIDList")["threads"];
  ASSERT_EQ(threads.size(), 3u);
  std::multiset<std::string> reasons;
  std::uint64_t atBreakpoint = 0, first = threads[0]["thread-id"];
  for (const json &thread : threads) {
    EXPECT_EQ(thread.size(), 2u);
    reasons.insert(thread["state"]);
    if (thread["state"] == "Breakpoint") atBreakpoint = thread["thread-id"];
  }
  EXPECT_EQ(reasons, (std::multiset<std::string>{"Breakpoint", "None", "None"}));
  EXPECT_EQ(first, static_cast<std::uint64_t>(host.inferiorPid()));
  EXPECT_NE(atBreakpoint, first);

  // What is selected is what the call stack shows; a stop selects nothing by itself.
  const auto select = [&](std::uint64_t id) {
    return host.ask({{"command", "selectThreadID"}, {"tid", id}});
  };
  ASSERT_EQ(select(first), ok);
  EXPECT_EQ(host.stack().back()["function"], "_start");
  ASSERT_EQ(select(atBreakpoint), ok);
  EXPECT_EQ(host.function(), "work");
  EXPECT_EQ(select(0xffffffff00000001), errorMessage("no thread 18446744069414584321"));
  EXPECT_EQ(host.ask("selectThreadID"), errorMessage("no thread 0"));
  // Its low 32 bits would name a thread; all 64 count.
  EXPECT_EQ(select(first | 0x100000000),
            errorMessage("no thread " + std::to_string(first | 0x100000000)));
  EXPECT_EQ(host.function(), "work");
}

TEST(Control, CommandsInTheWrongStateAnswerAndHarmNothing) {
  Debugged host("wait");
  ASSERT_EQ(host.ask("continueExecution"), ok);
  host.awaitOutput();
  for (const char *step : {"stepInstruction", "stepOver", "stepOut"})
    EXPECT_EQ(host.ask(step), ok) << step;
  EXPECT_EQ(host.ask("continueExecution")["status"], "error");
  EXPECT_EQ(host.ask("getThreadIDList")["status"], "ok");
  EXPECT_EQ(host.ask("getRegisters")["status"], "ok");
  EXPECT_EQ(host.ask("getCallstack")["status"], "ok");
  const json write = host.ask({{"command", "writeByte"}, {"address", 0x10}, {"value", 1}});
  const std::string message = write["message"];
  EXPECT_EQ(message.rfind("unable to write memory: ", 0), 0u) << message;
  EXPECT_NE(message.find(" (state eStateRunning)"), std::string::npos) << message;
  EXPECT_EQ(host.ask("getProcessState")["state-string"], "eStateRunning");

  // The next stop is told as it is, whatever was asked for too early.
  ASSERT_EQ(host.ask("breakExecution"), ok);
  host.awaitState("eStateStopped");
  EXPECT_EQ(host.stack()[1].value("function", ""), "main") << host.stack();

  ASSERT_EQ(host.ask("stopExecution"), ok);
  host.awaitState("eStateExited");
  for (const char *command :
       {"stepInstruction", "stepOver", "stepOut", "breakExecution", "stopExecution", "detach",
        "getThreadIDList", "getRegisters", "getCallstack", "moduleCount"})
    EXPECT_EQ(host.ask(command)["status"], "ok") << command;
  EXPECT_EQ(host.ask("continueExecution")["status"], "error");
  ASSERT_EQ(host.ask("deleteProcess"), ok);
  EXPECT_TRUE(descendants(host.pid(), "wait").empty());
}

TEST(Control, KillThenDelete) {
  for (int round = 0; round < 5; ++round) {
    Debugged host("wait");
    host.ask("continueExecution");
    EXPECT_EQ(host.ask("stopExecution"), ok);
    EXPECT_EQ(host.ask("deleteProcess"), ok);
    EXPECT_TRUE(descendants(host.pid(), "wait").empty());
    host.closeRequests();
    EXPECT_EQ(host.exitStatus(), 0);
  }
}

}  // namespace
