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
/// opened since, and does so again each second until it is destroyed: LLDB may connect again. LLDB
/// waits for nothing else during an attempt.
class ConnectionBound {
 public:
  /// Throws std::system_error when no thread can be started.
  explicit ConnectionBound(std::chrono::seconds time);
  ~ConnectionBound();

  /// Whether a connection was cut. What LLDB has of it is useless then.
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
