// Attaching to programs that run already.

#include <gtest/gtest.h>
#include <signal.h>

#include "support/Inferior.h"

namespace {

json attach(pid_t pid, const std::string &executable) {
  return {{"command", "attachToProcess"},
          {"pid", pid},
          {"executable", executable},
          {"triple", ""},
          {"is64Bits", true}};
}

TEST(Attach, ToARunningProgram) {
  // The right executable, a wrong one, none at all.
  for (const std::string &executable : {inferior("wait"), std::string("/nowhere"), std::string()}) {
    SCOPED_TRACE(executable);
    Running program({inferior("wait")});
    ASSERT_EQ(program.line(), "ready");
    Host host;
    const json response = host.ask(attach(program.pid(), executable));
    ASSERT_EQ(response["status"], "ok") << response;
    EXPECT_EQ(response.size(), 5u) << response;
    EXPECT_FALSE(response["sectionName"].get<std::string>().empty());
    const std::uint64_t load = response["loadAddr"], inFile = response["fileAddr"];
    EXPECT_EQ(load - inFile, imageBase(program.pid(), inferior("wait")));
    EXPECT_EQ(response["aslrSlide"], load - inFile);

    EXPECT_EQ(host.ask("getProcessState")["state-string"], "eStateStopped");
    EXPECT_EQ(host.ask(attach(program.pid(), executable)), errorMessage("process already exists"));
    EXPECT_EQ(host.ask("createProcess"), errorMessage("process already exists"));
    EXPECT_EQ(program.state(), 't') << "traced";
    ASSERT_EQ(host.ask("continueExecution"), ok);
    host.awaitState("eStateRunning");
    ASSERT_EQ(host.ask("detach"), ok);
    host.awaitState("eStateDetached");
    awaitThat("it sleeps, as it did", [&] { return program.state() == 'S'; });
    EXPECT_EQ(host.ask("deleteProcess"), ok);
    EXPECT_TRUE(program.isAlive());
    host.closeRequests();
    EXPECT_EQ(host.exitStatus(), 0);
  }
}

TEST(Attach, WithContinueRightBehindIt) {
  for (int round = 0; round < 10; ++round) {
    Running program({inferior("wait")});
    program.line();
    Host host;
    for (const json &response :
         host.askAll({attach(program.pid(), ""), command("continueExecution")}))
      ASSERT_EQ(response["status"], "ok") << response;
    host.awaitState("eStateRunning");
    kill(program.pid(), SIGTERM);
    host.awaitState("eStateStopped");
    EXPECT_EQ(host.ask("stopExecution"), ok);
  }
}

TEST(Attach, DeletingLeavesAnAttachedProgramAlone) {
  Running program({inferior("wait")});
  program.line();
  Host host;
  ASSERT_EQ(host.ask(attach(program.pid(), ""))["status"], "ok");
  ASSERT_EQ(host.ask("deleteProcess"), ok);
  awaitThat("LLDB detaches from what it did not start", [&] { return program.state() == 'S'; });
  ASSERT_EQ(host.ask(attach(program.pid(), ""))["status"], "ok") << "and can come back";
  ASSERT_EQ(host.ask("stopExecution"), ok);
  host.awaitState("eStateExited");
  EXPECT_EQ(host.ask("deleteProcess"), ok);
  awaitThat("it is gone", [&] { return !program.isAlive(); });
}

TEST(Attach, Failures) {
  Host host;
  host.conformance.checksRequests = false;
  for (const json &request : {attach(999999999, inferior("wait")), attach(0, ""), attach(-1, "")}) {
    for (int round = 0; round < 2; ++round) {
      const json response = host.ask(request);
      const std::string message = response["message"], prefix = "cannot attach to process: ";
      EXPECT_EQ(message.rfind(prefix, 0), 0u) << response;
      EXPECT_GT(message.size(), prefix.size());
      EXPECT_EQ(host.ask("getProcessState"), errorMessage("no target"));
    }
  }
  host.launch(inferior("hello"));
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

}  // namespace
