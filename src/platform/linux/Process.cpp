#include <sys/personality.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "platform/Process.h"

namespace platform {

bool isOwnProcess(pid_t pid) {
  const std::string folder = "/proc/" + std::to_string(pid);
  std::ifstream status(folder + "/status");
  pid_t process = 0, parent = 0;
  for (std::string name; status >> name; status.ignore(4096, '\n')) {
    if (name == "Tgid:") status >> process;  // the number may also be a thread's
    if (name == "PPid:") status >> parent;
  }
  if (process == getpid()) return true;
  std::error_code error;
  return parent == getpid() &&
         isDebugServer(std::filesystem::read_symlink(folder + "/exe", error).string());
}

bool canDisableAslr() {
  constexpr unsigned long ask = 0xffffffff;
  const int current = personality(ask);
  if (current == -1) return false;
  const auto flags = static_cast<unsigned long>(current);
  if (personality(flags | ADDR_NO_RANDOMIZE) == -1) return false;
  personality(flags);
  return true;
}

}  // namespace platform
