#include <poll.h>

#include "platform/Descriptors.h"

namespace platform {

bool ptyHasRoom(int pty, std::chrono::milliseconds time) {
  pollfd state{pty, POLLOUT, 0};
  return poll(&state, 1, static_cast<int>(time.count())) != 0;
}

}  // namespace platform
