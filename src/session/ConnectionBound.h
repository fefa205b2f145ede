#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

/// Bounds an attempt to connect, because LLDB does not: a peer that echoes, or sends without end,
/// keeps it for ever. From a minute after the construction on, each second, the stream sockets that
/// were opened since are shut down, until the object goes. LLDB waits for nothing else meanwhile.
class ConnectionBound {
 public:
  /// Throws std::system_error when there can be no thread.
  ConnectionBound();
  ~ConnectionBound();
  ConnectionBound(const ConnectionBound &) = delete;
  ConnectionBound &operator=(const ConnectionBound &) = delete;

  /// Whether a connection was cut: what LLDB has of it is of no use.
  bool wasReached() const { return reached; }

 private:
  void watch();

  const std::vector<int> known;  ///< descriptors that were open before
  std::mutex mutex;
  std::condition_variable changed;
  bool isOver = false;  ///< guarded by the mutex
  std::atomic<bool> reached = false;
  std::thread thread;
};
