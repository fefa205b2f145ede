#include <sys/select.h>

#include "platform/Descriptors.h"

namespace platform {

/// Uses select: macOS's poll does not support devices, and a pty is one (see its manual).
bool ptyHasRoom(int pty, std::chrono::milliseconds time) {
  // select cannot check such a descriptor. It exists only when a thousand others are open.
  if (pty >= FD_SETSIZE) return true;
  fd_set writable;
  FD_ZERO(&writable);
  FD_SET(pty, &writable);
  timeval patience{0, static_cast<suseconds_t>(std::chrono::microseconds(time).count())};
  return select(pty + 1, nullptr, &writable, nullptr, &patience) != 0;
}

}  // namespace platform
