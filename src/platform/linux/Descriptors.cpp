#include <poll.h>

#include "platform/Descriptors.h"

namespace platform {

bool isReady(int descriptor, Use use, std::chrono::milliseconds time) {
  const short events = use == Use::Read ? POLLIN : POLLOUT;
  pollfd state{.fd = descriptor, .events = events, .revents = {}};
  return poll(&state, 1, static_cast<int>(time.count())) != 0;
}

bool hasBufferedInput(FILE *stream) { return stream->_IO_read_ptr < stream->_IO_read_end; }

}  // namespace platform
