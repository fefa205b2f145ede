// LLDB's own command line, and the debugged program's standard input.

#include <gtest/gtest.h>

#include "support/Inferior.h"

namespace {

json execute(const std::string &line) { return {{"command", "executeCommand"}, {"cli", line}}; }

json complete(const std::string &line, std::uint64_t position) {
  return {{"command", "completeCommand"}, {"cli", line}, {"pos", position}};
}

json input(const std::string &bytes) {
  json data = json::array();
  for (const char byte : bytes) data.push_back(static_cast<unsigned char>(byte));
  return {{"command", "sendToApplication"}, {"data", data}};
}

TEST(Interpreter, AnswersWithWhatLldbSays) {
  struct Row {
    std::string line;
    bool succeeded;
    std::string output, error;  // what they contain; «» for nothing at all
  };
  const Row rows[] = {
      {"version", true, "lldb version", ""},
      {"settings set target.x86-disassembly-flavor intel", true, "", ""},
      {"no-such-command", false, "", "error: "},
      {"register read", false, "", "error: "},
      {"help settings show", true, "Show matching debugger settings", ""},
  };
  Host host;
  for (const Row &row : rows) {
    SCOPED_TRACE(row.line);
    const json response = host.ask(execute(row.line));
    EXPECT_EQ(response["status"], "ok");
    EXPECT_EQ(response["succeeded"], row.succeeded);
    const std::string output = response.value("output", ""), error = response.value("error", "");
    EXPECT_TRUE(row.output.empty() ? output.empty() : output.find(row.output) != std::string::npos)
        << output;
    EXPECT_TRUE(row.error.empty() ? error.empty() : error.find(row.error) != std::string::npos)
        << error;
  }
}

TEST(Interpreter, Completes) {
  Host host;
  const auto completions = [&](const std::string &line, std::uint64_t position) {
    const json response = host.ask(complete(line, position));
    EXPECT_EQ(response["status"], "ok");
    return response["completions"];
  };
  const json commands = completions("bre", 3);
  ASSERT_GE(commands.size(), 2u);
  EXPECT_EQ(commands[0], "akpoint ") << "first the text that all have in common";
  EXPECT_EQ(commands[1], "breakpoint");
  EXPECT_GT(completions("breakpoint ", 11).size(), 5u);
  for (const std::uint64_t position : {4ull, 1000ull, 100000ull, 4294967295ull})
    EXPECT_EQ(completions("bre", position), json::array()) << position;
  // Of a position only 32 bits count.
  EXPECT_EQ(completions("bre", 4294967299), commands);
  EXPECT_EQ(host.ask("completeCommand")["status"], "ok");
  EXPECT_EQ(host.ask("executeCommand")["status"], "ok");
}

TEST(Interpreter, PromptsDoNotHangNorTouchTheChannel) {
  Debugged host("steps");
  host.breakAt("leaf");
  for (const char *line : {"breakpoint delete", "expression", "script", "command script add x",
                           "breakpoint command add 1", "platform shell cat", "process launch"}) {
    EXPECT_EQ(host.ask(execute(line))["status"], "ok") << line;
    EXPECT_EQ(host.ask("ping"), ok) << line;
  }
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Interpreter, PromptsDoNotEatConsoleLines) {
  Host host(Host::Options{.arguments = std::vector<std::string>{}});
  std::string requests;
  // LLDB asks before it deletes all breakpoints.
  for (const std::string &line :
       {"target create " + inferior("hello"), std::string("breakpoint set -n main"),
        std::string("breakpoint delete"), std::string("script"), std::string("expression"),
        std::string("platform shell cat")})
    requests += execute(line).dump() + "\n{\"command\":\"ping\",\"id\":4711}\n";
  host.sendBytes(requests);
  host.closeRequests();
  const std::string output = host.readAll();
  const std::string answer = "OUTPUT: {\"id\": 4711, \"status\": \"ok\"}";
  int answers = 0;
  for (auto at = output.find(answer); at != std::string::npos; at = output.find(answer, at + 1))
    ++answers;
  EXPECT_EQ(answers, 6) << output;
  EXPECT_EQ(host.exitStatus(), 0);
}

TEST(Interpreter, ResumesAndKillsTheProcess) {
  Debugged host("steps");
  host.breakAt("leaf");
  EXPECT_EQ(host.ask(execute("process continue"))["succeeded"], true);
  host.awaitState("eStateRunning");
  host.awaitState("eStateStopped");
  EXPECT_EQ(host.function(), "leaf");
  EXPECT_EQ(host.ask(execute("process kill"))["succeeded"], true);
  host.awaitState("eStateExited");
  EXPECT_EQ(host.ask("getProcessState")["state"], 10);
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Interpreter, ADeletedProcessLeavesNoTarget) {
  Host host;
  for (int round = 0; round < 3; ++round) {
    host.launch(inferior("hello"));
    ASSERT_EQ(host.ask("deleteProcess"), ok);
    host.prepare("/nowhere/program");
    host.ask("createProcess");
    host.prepare(inferior("hello"), {{"cwd", "/nowhere"}});
    host.ask("createProcess");
    host.ask({{"command", "attachToProcess"}, {"pid", 999999999}});
  }
  const std::string targets = host.ask(execute("target list")).value("output", "");
  EXPECT_EQ(targets, "No targets.\n");
}

TEST(Interpreter, AProcessStartedInTheSameTargetIsReported) {
  Debugged host("hello");
  EXPECT_EQ(host.runToExit().output, "hello\r\nworld\r\n");
  ASSERT_EQ(host.ask(execute("process launch"))["succeeded"], true);
  const Host::Ending again = host.awaitExit();
  EXPECT_EQ(again.output, "hello\r\nworld\r\n");
  EXPECT_EQ(again.exit["exit_status"], 3);
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Interpreter, EventsOfOtherProcessesAreNotReported) {
  Debugged host("wait");
  // A second target's process: its events come to the same listener.
  ASSERT_EQ(host.ask(execute("target create " + inferior("hello")))["succeeded"], true);
  ASSERT_EQ(host.ask(execute("process launch"))["status"], "ok");
  awaitThat("the other program has run", [&] { return descendants(host.pid(), "hello").empty(); });
  host.ask("continueExecution");
  host.awaitOutput();
  for (const json &message : host.history) {
    EXPECT_EQ(message.count("exit_status"), 0u) << message;
    if (message.value("type", "") == "stdout") EXPECT_EQ(outputOf(message), "ready\r\n");
  }
  host.ask(execute("target delete 1"));
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

TEST(Input, ReachesTheProgramByteByByte) {
  Debugged host("echo");
  host.conformance.checksRequests = false;
  ASSERT_EQ(host.ask("continueExecution"), ok);
  std::string output;
  const auto awaitOutput = [&](const std::string &end) {
    host.awaitEvent([&](const json &event) {
      if (event["type"] == "stdout") output += outputOf(event);
      return output.size() >= end.size() && output.substr(output.size() - end.size()) == end;
    });
  };
  awaitOutput("ready\r\n");
  // One text behind the other, and none at all.
  EXPECT_EQ(host.ask(input("hi\n")), ok);
  EXPECT_EQ(host.ask(input("")), ok);
  EXPECT_EQ(host.ask("sendToApplication"), ok);
  EXPECT_EQ(host.ask(input(std::string("\0\xff\r\x03\x04", 5))), ok);
  EXPECT_EQ(
      host.ask({{"command", "sendToApplication"}, {"data", {256, -1, 1.9, "5", nullptr, 353}}}),
      ok);
  awaitOutput("68 69 0a 00 ff 0d 03 04 00 ff 01 00 00 61 ");
  EXPECT_EQ(host.ask(input("x")), ok);
  EXPECT_EQ(host.awaitExit().exit["exit_status"], 0);
  EXPECT_EQ(host.ask(input("too late")), ok);
  EXPECT_EQ(host.ask("deleteProcess"), ok);
}

/// More than the terminal holds, with three times as much coming back meanwhile.
TEST(Input, ALongTextArrivesWhole) {
  Debugged host("echo");
  ASSERT_EQ(host.ask("continueExecution"), ok);
  while (host.awaitOutput().find("ready") == std::string::npos) continue;
  std::string text, expected;
  for (int index = 0; text.size() < 100000; ++index) {
    text += static_cast<char>(index % 100);
    char digits[8];
    expected.append(digits, std::snprintf(digits, sizeof digits, "%02x ", index % 100));
  }
  ASSERT_EQ(host.ask(input(text)), ok);
  ASSERT_EQ(host.ask(input("x")), ok);
  EXPECT_TRUE(host.awaitExit().output == expected + "78 ");
}

TEST(Input, AProgramThatDoesNotReadHoldsNothingUp) {
  Debugged host("wait");
  // Most of LLDB's threads have names of their own; these are main, event thread, writer, and those
  // of LLDB's that have none.
  const auto threads = [&] { return countThreads(host.pid(), "lldb-helper"); };
  host.ask("continueExecution");
  host.awaitOutput();
  const int before = threads();
  std::string lines;
  while (lines.size() < 1000000) lines += "nobody reads this line\n";
  for (int round = 0; round < 2; ++round) EXPECT_EQ(host.ask(input(lines)), ok);
  EXPECT_EQ(host.ask("ping"), ok);
  // LLDB is not held up either.
  ASSERT_EQ(host.ask("breakExecution"), ok);
  host.awaitState("eStateStopped");
  ASSERT_EQ(host.ask("continueExecution"), ok);
  EXPECT_EQ(threads(), before + 1);
  EXPECT_EQ(host.ask("deleteProcess"), ok);
  EXPECT_EQ(threads(), before - 1) << "the writer outlived its process";
  host.closeRequests();
  EXPECT_EQ(host.exitStatus(), 0);
}

}  // namespace
