#include <sys/personality.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "platform/Process.h"

namespace platform {

bool isOwnProcess(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string name; status >> name; status.ignore(4096, '\n')) {
    pid_t value = 0;
    // The number may also be a thread's: then Tgid is its process.
    if ((name == "Tgid:" || name == "PPid:") && status >> value && value == getpid()) return true;
  }
  return false;
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
