// Odd machines and surroundings: either everything works, or the host gets an answer that
// docs/troubleshooting.md explains.

#include <gtest/gtest.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <fstream>

#include "support/Inferior.h"
#include "support/SystemCalls.h"

namespace {

void refusePtrace() {
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // the search for leaks needs ptrace itself
  refuse(__NR_ptrace);
}

/// Nothing is left but what tells a sanitizer which reports are LLDB's.
void emptyEnvironment() {
  std::vector<std::pair<const char *, std::string>> kept;
  for (const char *name : {"LSAN_OPTIONS", "TSAN_OPTIONS"})
    if (const char *value = getenv(name)) kept.emplace_back(name, value);
  clearenv();
  for (const auto &[name, value] : kept) setenv(name, value.c_str(), 1);
}

/// A folder with what may lie about in somebody's home.
class Folder {
 public:
  Folder() {
    char name[] = "/tmp/lldb-helper-test-XXXXXX";
    path = mkdtemp(name);
    std::ofstream(path + "/.lldbinit") << "settings set prompt surprise\nquit 7\n";
    std::filesystem::create_directory(path + "/lldb");
    std::ofstream(path + "/lldb/__init__.py") << "raise ImportError('no LLDB here')\n";
    std::filesystem::create_directory(path + "/gone");
  }
  ~Folder() { std::filesystem::remove_all(path); }
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;

  std::string path;
};

struct Surroundings {
  const char *name;
  std::function<void()> prepare;
  /// How the answer to createProcess begins where it is none of "ok".
  std::string refusal = "";
};

bool isExplained(const std::string &message) {
  std::istringstream lines(readFile(DOCS "/troubleshooting.md"));
  for (std::string line; std::getline(lines, line);)
    if (line.rfind("### `", 0) == 0 && matches(message, line.substr(5, line.size() - 6)))
      return true;
  return false;
}

TEST(Environment, OddSurroundingsWorkOrAreToldClearly) {
  const Folder folder;
  const auto setFolder = [&](const char *name) { setenv(name, folder.path.c_str(), 1); };
  const Surroundings all[] = {
      {"an empty environment", emptyEnvironment},
      {"no home", [] { unsetenv("HOME"); }},
      {"commands in ~/.lldbinit", [&] { setFolder("HOME"); }},
      {"commands in ./.lldbinit", [&] { EXPECT_EQ(chdir(folder.path.c_str()), 0); }},
      {"a working directory that was removed",
       [&] {
         EXPECT_EQ(chdir((folder.path + "/gone").c_str()), 0);
         rmdir((folder.path + "/gone").c_str());
       }},
      {"no Python package beside LLDB", [&] { setFolder("PYTHONPATH"); }},
      {"another Python's home", [&] { setFolder("PYTHONHOME"); }},
      {"no log socket", [] { refuse(__NR_socket, AF_UNIX); }},
      {"fixed addresses refused", [] { refuse(__NR_personality, ADDR_NO_RANDOMIZE); }},
      {"no debug server", [] { setenv("LLDB_DEBUGSERVER_PATH", "/nowhere/lldb-server", 1); },
       "cannot create process: "},
      {"ptrace refused", refusePtrace, "cannot create process: "},
  };
  for (const Surroundings &surroundings : all) {
    SCOPED_TRACE(surroundings.name);
    Host host(Host::Options{.prepare = surroundings.prepare});
    host.prepare(inferior("hello"));
    const json response = host.ask("createProcess");
    if (surroundings.refusal.empty()) {
      ASSERT_EQ(response, ok);
      EXPECT_EQ(host.runToExit().output, "hello\r\nworld\r\n");
      const json prompt =
          host.ask({{"command", "executeCommand"}, {"cli", "settings show prompt"}});
      EXPECT_EQ(prompt["output"].get<std::string>().find("surprise"), std::string::npos) << prompt;
      EXPECT_EQ(host.ask("deleteProcess"), ok);
    } else {
      const std::string message = response["message"];
      EXPECT_EQ(message.rfind(surroundings.refusal, 0), 0u) << message;
      EXPECT_TRUE(isExplained(message)) << "not in docs/troubleshooting.md: " << message;
      EXPECT_EQ(host.ask("getProcessState"), errorMessage("no target"));
    }
    host.closeRequests();
    EXPECT_EQ(host.exitStatus(), 0);
  }
}

TEST(Environment, AttachingWithoutPermissionIsToldClearly) {
  Running program({inferior("wait")});
  program.line();
  Host host(Host::Options{.prepare = refusePtrace});
  const json response = host.ask({{"command", "attachToProcess"}, {"pid", program.pid()}});
  EXPECT_EQ(response["status"], "error");
  EXPECT_TRUE(isExplained(response["message"])) << response;
  EXPECT_TRUE(program.isAlive());
}

}  // namespace
