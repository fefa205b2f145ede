#include <libproc.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include "platform/Process.h"

namespace platform {

bool isOwnProcess(pid_t pid) {
  int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, pid};
  kinfo_proc information{};
  std::size_t size = sizeof information;
  if (sysctl(name, 4, &information, &size, nullptr, 0) != 0 || size == 0) return false;
  if (pid == getpid()) return true;
  char path[PROC_PIDPATHINFO_MAXSIZE];
  return information.kp_eproc.e_ppid == getpid() && proc_pidpath(pid, path, sizeof path) > 0 &&
         isDebugServer(path);
}

void setDebugServerPath() {}

bool canDisableAslr() { return true; }

}  // namespace platform
