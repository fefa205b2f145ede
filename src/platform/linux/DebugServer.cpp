#include "platform/DebugServer.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

namespace platform {

namespace {

constexpr char variable[] = "LLDB_DEBUGSERVER_PATH";

bool isExecutable(const std::string &path) { return access(path.c_str(), X_OK) == 0; }

std::string findInPath(const std::string &program) {
  const char *path = std::getenv("PATH");
  std::istringstream folders(path != nullptr ? path : "");
  for (std::string folder; std::getline(folders, folder, ':');)
    if (isExecutable(folder + "/" + program)) return folder + "/" + program;
  return std::string();
}

/// The build knows where its LLDB keeps lldb-server; an installed copy may run where it is only
/// in the PATH, under the name with LLDB's major version or without.
std::string findDebugServer() {
  if (isExecutable(LLDB_HELPER_DEBUG_SERVER)) return LLDB_HELPER_DEBUG_SERVER;
  const std::string versioned = findInPath("lldb-server-" LLDB_HELPER_LLDB_MAJOR);
  return !versioned.empty() ? versioned : findInPath("lldb-server");
}

}  // namespace

void provideDebugServer() {
  const std::string server = findDebugServer();
  if (!server.empty()) setenv(variable, server.c_str(), 0);
}

}  // namespace platform
