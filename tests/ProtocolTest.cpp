// Bytes on the wire and the request loop's own answers, asked of the program itself.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>

#include "support/Inferior.h"

namespace {

using std::string_literals::operator""s;

TEST(Protocol, AnswersAreExact) {
  const std::pair<std::string, std::string> rows[] = {
      {R"({"command":"ping"})", R"({"status": "ok"})"},
      {R"({"command":"ping","id":5})", R"({"id": 5, "status": "ok"})"},
      {R"({"command":"ping","id":null})", R"({"status": "ok"})"},
      {R"({"command":"ping","id":"abc"})", R"({"id": 0, "status": "ok"})"},
      {R"({"command":"ping","id":true})", R"({"id": 0, "status": "ok"})"},
      {R"({"command":"ping","id":[1]})", R"({"id": 0, "status": "ok"})"},
      {R"({"command":"ping","id":-1})", R"({"id": 18446744073709551615, "status": "ok"})"},
      {R"({"command":"ping","id":2.9})", R"({"id": 2, "status": "ok"})"},
      {R"({"command":"ping","id":18446744073709551615})",
       R"({"id": 18446744073709551615, "status": "ok"})"},
      {R"({"command":"Ping","id":1})",
       R"({"id": 1, "message": "unknown command 'Ping'", "status": "error"})"},
      {R"({"command":"ping "})", R"({"message": "unknown command 'ping '", "status": "error"})"},
      {R"({"command":5})", R"({"message": "unknown command ''", "status": "error"})"},
      {"{}", R"({"message": "unknown command ''", "status": "error"})"},
      {"[1, 2]", R"({"message": "unknown command ''", "status": "error"})"},
      {"true", R"({"message": "unknown command ''", "status": "error"})"},
      {"null", R"({"message": "Cannot decode JSON: ", "status": "error"})"},
      {"", R"({"message": "Cannot decode JSON: unexpected end of input", "status": "error"})"},
      {"{\"command\":\"ping\"}\0garbage"s, R"({"status": "ok"})"},
      {"\0"s, R"({"message": "Cannot decode JSON: unexpected end of input", "status": "error"})"},
      {R"({"id":3)",
       R"({"message": "Cannot decode JSON: unexpected end of input", "status": "error"})"},
      {"{\"command\":\"\xff\n\"}",
       R"({"message": "Cannot decode JSON: unescaped (10) in string", "status": "error"})"},
  };
  Host host;
  host.conformance.checksRequests = false;
  for (const auto &[request, response] : rows) {
    host.sendFrame(request);
    EXPECT_EQ(host.nextText(), response) << request;
  }
  host.closeRequests();
  EXPECT_EQ(host.readAll(), "");
  EXPECT_EQ(host.exitStatus(), 0);
}

TEST(Protocol, CommandsWithoutTargetOrProcess) {
  const std::pair<const char *, const char *> rows[] = {
      {"detach", "no process"},           {"deleteProcess", "no process"},
      {"hasProcess", "no process"},       {"stopExecution", "no process"},
      {"breakExecution", "no process"},   {"getProcessState", "no target"},
      {"continueExecution", "no target"},
  };
  Host host;
  for (const auto &[command, message] : rows)
    EXPECT_EQ(host.ask(command), (json{{"message", message}, {"status", "error"}})) << command;
}

/// No argument of whatever kind ends the program or goes unanswered, with a process or without.
TEST(Protocol, EveryCommandTakesArgumentsOfEveryKind) {
  const json values[] = {nullptr,
                         true,
                         -1,
                         0,
                         0.5,
                         1e300,
                         18446744073709551615u,
                         "text",
                         "",
                         "\"",
                         std::string(5000, 'a'),
                         json::array(),
                         json::array({nullptr, "x", 7}),
                         {{"a", 1}}};
  // From the last of the table to the first: those that end a process come behind those that look
  // into it.
  const json &definitions = protocolSchema()["$defs"];
  std::deque<std::string> commands;
  json allArguments;
  for (const json &reference : definitions["request"]["anyOf"]) {
    const std::string path = reference["$ref"];
    commands.push_front(path.substr(path.rfind('/') + 1));
    for (const json &name : definitions["requests"][commands.front()]["x-arguments"])
      allArguments[name] = nullptr;
  }
  ASSERT_EQ(commands.size(), 32u);
  allArguments.erase("pid");  // might be somebody's
  Host host;
  host.conformance.checksRequests = false;
  for (const bool withProcess : {false, true}) {
    for (const json &value : values) {
      if (withProcess) host.launch(inferior("wait"));
      for (const std::string &command : commands) {
        if (command == "connectRemote" && value != "text") continue;  // takes seconds each time
        json request = allArguments;
        for (json &argument : request) argument = value;
        request["command"] = command;
        const std::string status = host.ask(request)["status"];
        ASSERT_TRUE(status == "ok" || status == "error") << request;
      }
      host.ask("deleteProcess");
    }
  }
  EXPECT_EQ(host.ask("ping"), ok);
}

TEST(Protocol, TheLogTellsOfTheStart) {
  char file[] = "/tmp/lldb-helper-test-XXXXXX";
  close(mkstemp(file));
  Host host(
      Host::Options{.environment = {std::string("SYSLOG_FILE=") + file, "LD_PRELOAD=" SYSLOG_SHIM,
                                    "ASAN_OPTIONS=verify_asan_link_order=0"}});
  host.ask("hasProcess");
  host.closeRequests();
  EXPECT_EQ(host.exitStatus(), 0);
  std::istringstream log(readFile(file));
  unlink(file);
  // Ident, then facility user with level notice, then the text.
  const std::string head = "lldb-helper " + std::to_string(LOG_USER | LOG_NOTICE) + " ";
  const auto next = [&] {
    std::string record;
    std::getline(log, record, '\x1e');
    return record;
  };
  EXPECT_EQ(next(), head + "\n\n-------------- STARTING --------------\n");
  const std::string version = next();
  EXPECT_EQ(version.rfind(head + "Debugger version: lldb version ", 0), 0u) << version;
  EXPECT_EQ(version.back(), '\n');
  EXPECT_EQ(next(), head + "Error in hasProcess: no process");
  EXPECT_EQ(next(), "");
}

TEST(Protocol, AFrameIsLengthAndText) {
  Host host;
  host.sendBytes("\x12\0\0\0{\"command\":\"ping\"}"s);
  host.closeRequests();
  EXPECT_EQ(host.readAll(), "\x10\0\0\0{\"status\": \"ok\"}"s);
}

TEST(Protocol, FramesMayComeInAnyPortions) {
  Host host;
  const std::string request = Host::frame(R"({"command":"ping","id":1})");
  for (const char byte : request) host.sendBytes({&byte, 1});
  EXPECT_EQ(host.nextText(), R"({"id": 1, "status": "ok"})");

  std::string many;
  for (int id = 0; id < 1000; ++id)
    many += Host::frame(json{{"command", "ping"}, {"id", id}}.dump());
  host.sendBytes(many);
  for (int id = 0; id < 1000; ++id) ASSERT_EQ(host.nextMessage()["id"], id);
}

TEST(Protocol, ALargeRequestIsAnswered) {
  Host host;
  const json request{{"command", std::string(8 << 20, 'x')}, {"id", 1}};
  host.sendFrame(request.dump());
  EXPECT_EQ(host.nextMessage()["message"],
            "unknown command '" + request["command"].get<std::string>() + "'");
}

/// What ends the input ends the program, in order and without an answer.
TEST(Protocol, EndOfInput) {
  const std::string rows[] = {
      "",                     // nothing at all
      "\x05\0"s,              // half a length
      "\x05\0\0\0{\"co"s,     // half a text
      "\xff\xff\xff\xff{}"s,  // 4 GiB less a byte
      "\0\0\0\x80{}"s,        // 2 GiB
      "\xff\xff\xff\x7f{}"s,  // 2 GiB less a byte, of which two come
  };
  for (const std::string &bytes : rows) {
    Host host;
    host.sendBytes(bytes);
    // A length that is refused must not wait for its text.
    if (bytes.size() < 4 || bytes[3] != '\x80') host.closeRequests();
    EXPECT_EQ(host.readAll(), "") << testing::PrintToString(bytes);
    EXPECT_EQ(host.exitStatus(), 0) << testing::PrintToString(bytes);
  }
}

TEST(Protocol, RunningOutOfMemoryIsAnswered) {
  if (isSanitized) GTEST_SKIP() << "NOT TESTED: a sanitizer ends the program when memory runs out";
  Host host;
  host.launch(inferior("wait"));
  const rlim_t little = 1024 * (statusFigure(host.pid(), "VmSize") + 256 * 1024);
  const rlimit limit{little, RLIM_INFINITY};
  ASSERT_EQ(prlimit(host.pid(), RLIMIT_AS, &limit, nullptr), 0);
  // In a handler, and outside of one.
  EXPECT_EQ(host.ask({{"command", "readMemory"}, {"length", 2147483647}}),
            errorMessage("bad request: std::bad_alloc"));
  host.conformance.listens = false;
  host.sendBytes("\0\0\0\x70"s);
  EXPECT_EQ(host.nextText(), R"({"message": "EOF", "status": "ok"})");
  EXPECT_EQ(host.ask("deleteProcess"), ok);
  host.closeRequests();
  EXPECT_EQ(host.exitStatus(), 0);
}

TEST(Protocol, AReaderThatIsGoneIsNoReasonToEnd) {
  Host host;
  host.ask("ping");
  host.closeMessages();
  for (int round = 0; round < 100; ++round) host.send({{"command", "ping"}});
  host.closeRequests();
  EXPECT_EQ(host.exitStatus(), 0);
}

TEST(Protocol, DescriptorsThatCannotBeUsed) {
  // 0 is the requests' pipe: it can be read, not written.
  for (const auto &arguments :
       {std::vector<std::string>{"77", "78"}, {"0", "78"}, {"77", "1"}, {"-1", "1"}}) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    Host host(
        Host::Options{.arguments = arguments, .prepare = [&] { dup2(ends[1], STDERR_FILENO); }});
    close(ends[1]);
    EXPECT_EQ(host.exitStatus(), 1);
    char complaint[256];
    const ssize_t length = read(ends[0], complaint, sizeof complaint);
    close(ends[0]);
    EXPECT_EQ(std::string(complaint, std::max<ssize_t>(length, 0)),
              "lldb-helper: cannot use descriptors " + arguments[0] + " and " + arguments[1] +
                  " as input and output\n");
  }
}

TEST(Protocol, TheStandardDescriptorsCanBeTheChannel) {
  Host host(Host::Options{.arguments = {{"0", "1"}}});
  EXPECT_EQ(host.ask("ping"), ok);
  host.closeRequests();
  EXPECT_EQ(host.exitStatus(), 0);
}

std::string console(const std::vector<std::string> &arguments, const std::string &input) {
  Host host(Host::Options{.arguments = arguments});
  host.sendBytes(input);
  host.closeRequests();
  std::string output = host.readAll();
  EXPECT_EQ(host.exitStatus(), 0);
  return output;
}

TEST(Console, EchoesAndAnswers) {
  const std::string ok = "OUTPUT: {\"status\": \"ok\"}";
  const std::string nothing =
      "OUTPUT: {\"message\": \"Cannot decode JSON: unexpected end of input\", \"status\": "
      "\"error\"}";
  const std::string ping = "{\"command\":\"ping\"}";
  EXPECT_EQ(console({}, ping + "\n" + ping + "\n"),
            "INPUT: " + ping + "\n\n" + ok + "INPUT: " + ping + "\n\n" + ok);
  // The last line needs no end.
  EXPECT_EQ(console({}, ping), "INPUT: " + ping + "\n" + ok);
  EXPECT_EQ(console({}, "\n"), "INPUT: \n\n" + nothing);
  EXPECT_EQ(console({}, ""), "");
  // One and three arguments are no descriptors.
  EXPECT_EQ(console({"7"}, ping), "INPUT: " + ping + "\n" + ok);
  EXPECT_EQ(console({"7", "8", "9"}, ping), "INPUT: " + ping + "\n" + ok);
}

TEST(Console, LongLinesAreSeveralRequests) {
  // 1,023 bytes are one request with its line end left over as the next.
  const std::string fill(1023 - 18, ' ');
  const std::string output = console({}, "{\"command\":\"ping\"}" + fill + "\n");
  EXPECT_EQ(
      output,
      "INPUT: {\"command\":\"ping\"}" + fill + "\nOUTPUT: {\"status\": \"ok\"}INPUT: \n\n" +
          "OUTPUT: {\"message\": \"Cannot decode JSON: unexpected end of input\", \"status\": " +
          "\"error\"}");
}

}  // namespace
