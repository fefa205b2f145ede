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

}  // namespace platform
