#include <sys/select.h>

#include "platform/Process.h"

namespace platform {

/// By select: macOS's poll does not support devices, its manual says, and terminals are devices.
bool terminalHasRoom(int terminal, std::chrono::milliseconds time) {
  // Descriptors get the lowest free number. A host that has a thousand open gets its text written
  // without looking first.
  if (terminal >= FD_SETSIZE) return true;
  fd_set writable;
  FD_ZERO(&writable);
  FD_SET(terminal, &writable);
  timeval patience{0, static_cast<suseconds_t>(std::chrono::microseconds(time).count())};
  return select(terminal + 1, nullptr, &writable, nullptr, &patience) != 0;
}

}  // namespace platform
