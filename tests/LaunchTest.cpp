// A host's main job on real programs: prepare, launch, continue, read, delete.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "support/Inferior.h"

namespace {

/// The lines that the show inferior writes under a heading: «heading <value>».
std::vector<std::string> shown(const std::string &output, const std::string &heading) {
  std::vector<std::string> values;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    const auto open = line.find(" <"), close = line.rfind('>');
    if (line.rfind(heading, 0) == 0 && close != std::string::npos)
      values.push_back(line.substr(open + 2, close - open - 2));
  }
  return values;
}

std::string run(Host &host, const std::string &program, const json &more = json::object()) {
  host.launch(program, more);
  EXPECT_EQ(host.ask("continueExecution"), ok);
  std::string output = host.awaitExit().output;
  EXPECT_EQ(host.ask("deleteProcess"), ok);
  return output;
}

TEST(Launch, FromEntryToExitAndAgain) {
  Host host;
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(host.prepare(inferior("hello")), ok);
    EXPECT_EQ(host.ask("createProcess"), ok);
    EXPECT_EQ(host.ask("hasProcess"), ok);
    EXPECT_EQ(host.ask("getProcessState"),
              (json{{"state", 5}, {"state-string", "eStateStopped"}, {"status", "ok"}}));
    EXPECT_EQ(host.ask("createProcess"), errorMessage("process already exists"));
    EXPECT_EQ(host.ask("continueExecution"), ok);
    const Host::Ending ending = host.awaitExit();
    EXPECT_EQ(ending.output, "hello\r\nworld\r\n");
    EXPECT_EQ(ending.exit, (json{{"exit_status", 3},
                                 {"inferior_state", 10},
                                 {"state_desc", "eStateExited"},
                                 {"status", "event"},
                                 {"type", "state"}}));
    EXPECT_EQ(host.ask("getProcessState")["state-string"], "eStateExited");
    EXPECT_EQ(host.ask("createProcess"), errorMessage("process already exists"));
    EXPECT_EQ(host.ask("deleteProcess"), ok);
    EXPECT_EQ(host.ask("getProcessState"), errorMessage("no target"));
  }
  host.closeRequests();
  EXPECT_EQ(host.exitStatus(), 0);
}

TEST(Launch, EventsAreExact) {
  Host host;
  host.launch(inferior("hello"));
  host.ask("continueExecution");
  host.awaitExit();
  std::vector<std::string> states;
  bool sawLibrary = false;
  for (const json &message : host.history) {
    if (message["status"] != "event") continue;
    if (message["type"] == "state") states.push_back(message["state_desc"]);
    if (message["type"] == "moduleUnloaded") EXPECT_EQ(message["modules"], json::array());
    if (message["type"] != "moduleLoaded") continue;
    for (const json &module : message["modules"]) {
      EXPECT_EQ(module.size(), 5u) << module;
      const std::uint64_t load = module["loadAddress"], file = module["fileAddress"];
      EXPECT_EQ(module["slide"], load - file);
      sawLibrary |= module["file"] == "libc.so.6" && !module["directory"].empty() && load > file;
    }
  }
  EXPECT_TRUE(sawLibrary);
  EXPECT_EQ(states, (std::vector<std::string>{"eStateStopped", "eStateRunning", "eStateExited"}));
}

TEST(Launch, TheInferiorGetsWhatWasPreparedAndNothingElse) {
  char folder[] = "/tmp/lldb-helper-test-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  Host host(Host::Options{.environment = {"LLDB_HELPER_TEST=inherited"}});
  // The later preparation replaces the earlier one wholesale.
  host.prepare(inferior("hello"), {{"args", "gone"}, {"env", "GONE=1"}, {"cwd", "/nowhere"}});
  const std::string output =
      run(host, inferior("show"),
          {{"args", "one \"two  three\" "}, {"env", "ADDED=\"a b\" EMPTY="}, {"cwd", folder}});
  rmdir(folder);

  EXPECT_EQ(shown(output, "argument"), (std::vector<std::string>{"one", "two  three"}));
  EXPECT_EQ(shown(output, "folder"), std::vector<std::string>{folder});
  EXPECT_EQ(shown(output, "blocked"), std::vector<std::string>{"0000000000000000"});

  std::vector<std::string> expected{"LLDB_HELPER_TEST=inherited", "ADDED=a b", "EMPTY="};
  for (char **entry = environ; *entry != nullptr; ++entry) expected.emplace_back(*entry);
  std::vector<std::string> got = shown(output, "environment");
  std::sort(expected.begin(), expected.end());
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, expected);
}

TEST(Launch, TheChannelStaysPrivate) {
  // One descriptor more than the host meant to hand down.
  const int extra = dup(STDERR_FILENO);
  Host host(Host::Options{.prepare = [&] { dup2(extra, 40); }});
  host.launch(inferior("wait"));
  const std::string own = "/proc/" + std::to_string(host.pid()) + "/fd/";
  char channel[256] = "";
  const std::string requests = "/proc/self/fd/" + std::to_string(host.requestDescriptor());
  ASSERT_GT(readlink(requests.c_str(), channel, sizeof channel - 1), 0);

  const auto children = descendants(host.pid());
  ASSERT_GE(children.size(), 2u) << "lldb-server and the inferior";
  for (const pid_t pid : children) {
    const std::string folder = "/proc/" + std::to_string(pid) + "/fd/";
    for (int descriptor = 0; descriptor < 64; ++descriptor) {
      char name[256] = "";
      if (readlink((folder + std::to_string(descriptor)).c_str(), name, sizeof name - 1) > 0)
        EXPECT_STRNE(name, channel) << "descriptor " << descriptor << " of " << pid;
    }
    EXPECT_NE(access((folder + "40").c_str(), F_OK), 0) << pid;
  }
  EXPECT_EQ(access((own + "40").c_str(), F_OK), 0);
}

struct Failure {
  const char *name;
  json preparation;
  std::string message;  // what the answer begins with
};

TEST(Launch, AFailedLaunchIsNeverOk) {
  char script[] = "/tmp/lldb-helper-test-XXXXXX";
  close(mkstemp(script));
  const std::string denied = std::string(script) + ".bin";
  std::ofstream(denied, std::ios::binary) << readFile(inferior("hello"));
  chmod(denied.c_str(), 0644);
  const Failure failures[] = {
      {"no such file", {{"path", "/nowhere/program"}}, "cannot build target: "},
      {"no program", {{"path", script}}, "cannot "},
      {"no path", {{"path", ""}}, "cannot "},
      {"no working directory", {{"cwd", "/nowhere"}}, "cannot create process: "},
      {"not executable", {{"path", denied}}, "cannot create process: "},
      {"no such triple", {{"triple", "bogus-bogus-bogus"}}, "cannot "},
      // LLDB takes the first for another machine's; launches here must go on to work all the same.
      {"remote platform", {{"triple", "x86_64-linux-gnu"}}, "cannot "},
      {"not executable, here", {{"path", denied}}, "cannot create process: "},
  };
  Host host;
  for (const Failure &failure : failures) {
    SCOPED_TRACE(failure.name);
    host.prepare(inferior("hello"), failure.preparation);
    for (int round = 0; round < 2; ++round) {
      const json response = host.ask("createProcess");
      EXPECT_EQ(response["status"], "error");
      const std::string message = response["message"];
      EXPECT_EQ(message.rfind(failure.message, 0), 0u) << message;
      EXPECT_GT(message.size(), failure.message.size() + 5)
          << "LLDB's text is missing: " << message;
      EXPECT_EQ(host.ask("getProcessState"), errorMessage("no target"));
      EXPECT_EQ(host.ask("hasProcess"), errorMessage("no process"));
    }
  }
  unlink(script);
  unlink(denied.c_str());
  EXPECT_EQ(run(host, inferior("hello")), "hello\r\nworld\r\n");
  EXPECT_TRUE(descendants(host.pid(), "hello").empty());
}

TEST(Launch, NoOutputIsLost) {
  Host host;
  // Eight bytes a line leave the program, nine arrive; 256 is what one event carries.
  for (const int lines : {1, 28, 32, 256, 1250, 131072}) {
    const std::string output = run(host, inferior("flood"), {{"args", std::to_string(8 * lines)}});
    EXPECT_EQ(output.size(), 9u * lines);
    EXPECT_TRUE(output == floodOf(lines)) << lines << " lines are not what was written";
  }
  for (const json &message : host.history)
    if (message.value("type", "") == "stdout")
      EXPECT_LE(message["output"].get<std::string>().size(), 512u);
}

}  // namespace
