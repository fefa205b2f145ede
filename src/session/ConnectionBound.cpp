#include "session/ConnectionBound.h"

#include "platform/Descriptors.h"
#include "platform/Log.h"

namespace {

using namespace std::chrono_literals;

constexpr auto period = 1s;

}  // namespace

ConnectionBound::ConnectionBound(std::chrono::seconds time)
    : time(time), known(platform::openDescriptors()), thread([this] { watch(); }) {}

ConnectionBound::~ConnectionBound() {
  {
    const MutexLock lock(mutex);
    isOver = true;
  }
  changed.notify_all();
  thread.join();
}

void ConnectionBound::watch() {
  auto nextCut = std::chrono::steady_clock::now() + time;
  const MutexLock lock(mutex);
  while (!isOver) {
    if (changed.wait_until(mutex, nextCut) == std::cv_status::no_timeout || isOver) continue;
    if (!reached.exchange(true)) LOG_RECORD("Cutting a connection that does not complete\n");
    platform::shutDownSockets(known);
    nextCut += period;
  }
}
