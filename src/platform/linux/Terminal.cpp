#include <poll.h>

#include "platform/Process.h"

namespace platform {

bool terminalHasRoom(int terminal, std::chrono::milliseconds time) {
  pollfd state{terminal, POLLOUT, 0};
  return poll(&state, 1, static_cast<int>(time.count())) != 0;
}

}  // namespace platform
