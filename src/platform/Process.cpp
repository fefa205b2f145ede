#include "platform/Process.h"

#include <signal.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

extern "C" char **environ;

namespace platform {

const std::vector<std::string> &initialEnvironment() {
  static const std::vector<std::string> environment = [] {
    std::vector<std::string> entries;
    for (char **entry = environ; entry != nullptr && *entry != nullptr; ++entry)
      entries.emplace_back(*entry);
    return entries;
  }();
  return environment;
}

bool isDebugServer(const std::string &path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  if (name.starts_with("lldb-server") || name.starts_with("debugserver")) return true;
  const char *const known = std::getenv("LLDB_DEBUGSERVER_PATH");
  std::error_code error;
  return known != nullptr && std::filesystem::equivalent(path, known, error);
}

void forgetPythonHome() { unsetenv("PYTHONHOME"); }

void blockBrokenPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace platform
