#include "session/ConnectionBound.h"

#include "platform/Descriptors.h"
#include "platform/Log.h"

namespace {

using namespace std::chrono_literals;

constexpr auto timeToConnect = 60s;
constexpr auto period = 1s;

}  // namespace

ConnectionBound::ConnectionBound()
    : known(platform::openDescriptors()), thread([this] { watch(); }) {}

ConnectionBound::~ConnectionBound() {
  {
    const std::lock_guard lock(mutex);
    isOver = true;
  }
  changed.notify_all();
  thread.join();
}

void ConnectionBound::watch() {
  std::unique_lock lock(mutex);
  for (std::chrono::seconds wait = timeToConnect;
       !changed.wait_for(lock, wait, [&] { return isOver; }); wait = period) {
    if (!reached.exchange(true)) LOG_RECORD("Cutting a connection that does not complete\n");
    platform::shutDownSockets(known);
  }
}
