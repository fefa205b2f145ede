#include <sys/select.h>

#include <algorithm>
#include <thread>

#include "platform/Descriptors.h"

namespace platform {

/// Uses select: macOS's poll does not support devices, and a terminal is one (see its manual).
bool isReady(int descriptor, Use use, std::chrono::milliseconds time) {
  // select cannot check such a descriptor. It exists only when a thousand others are open.
  if (descriptor >= FD_SETSIZE) {
    std::this_thread::sleep_for(std::min(time, std::chrono::milliseconds(1)));
    return true;
  }
  fd_set checked;
  FD_ZERO(&checked);
  FD_SET(descriptor, &checked);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  const std::chrono::microseconds rest = time - seconds;
  timeval patience{static_cast<time_t>(seconds.count()), static_cast<suseconds_t>(rest.count())};
  return select(descriptor + 1, use == Use::Read ? &checked : nullptr,
                use == Use::Write ? &checked : nullptr, nullptr, &patience) != 0;
}

bool hasBufferedInput(FILE *stream) { return stream->_r > 0; }

}  // namespace platform
