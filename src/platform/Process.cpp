#include "platform/Process.h"

#include <signal.h>
#include <stdlib.h>

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

void forgetPythonHome() { unsetenv("PYTHONHOME"); }

void blockBrokenPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace platform
