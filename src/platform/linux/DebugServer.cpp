#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "platform/Process.h"

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

/// Prefers the path that the build found. An installed copy may run where lldb-server is only in
/// PATH, with or without LLDB's major version in its name.
std::string findDebugServer() {
  if (isExecutable(LLDB_HELPER_DEBUG_SERVER)) return LLDB_HELPER_DEBUG_SERVER;
  const std::string versioned = findInPath("lldb-server-" LLDB_HELPER_LLDB_MAJOR);
  return !versioned.empty() ? versioned : findInPath("lldb-server");
}

}  // namespace

void setDebugServerPath() {
  const std::string server = findDebugServer();
  if (!server.empty()) setenv(variable, server.c_str(), 0);
}

}  // namespace platform
