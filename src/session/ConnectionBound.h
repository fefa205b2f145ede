#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <thread>
#include <vector>

#include "platform/Mutex.h"

/// Bounds an attempt to connect. LLDB itself waits for ever for a peer that echoes, or that sends
/// without end.
///
/// When `time` has passed since its construction the object shuts down every stream socket that was
/// opened since. It does so again each second until it is destroyed: LLDB may connect again. Other
/// kinds of connections, such as a serial line, stay open.
class ConnectionBound {
 public:
  /// Throws std::system_error when no thread can be started.
  explicit ConnectionBound(std::chrono::seconds time);
  ~ConnectionBound();

  /// Whether the time has passed. The sockets of the connection are shut down then, and what LLDB
  /// has of it is useless.
  bool wasReached() const { return reached; }

 private:
  void watch();

  const std::chrono::seconds time;
  const std::vector<int> known;  ///< the descriptors that were open before
  Mutex mutex;
  std::condition_variable_any changed;
  bool isOver GUARDED_BY(mutex) = false;
  std::atomic<bool> reached = false;  ///< written by the thread
  std::thread thread;
};
