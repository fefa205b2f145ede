#include "commands/ApplicationInput.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

#include "platform/Log.h"

namespace {

/// A write ends at once when the last holder of the terminal is gone. Only a program that left
/// children of its own on it can keep one waiting, and then nobody should wait along.
constexpr std::chrono::seconds endBound{2};

}  // namespace

/// Shared with the thread, which may have to be left behind.
struct ApplicationInput::Queue {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<std::string> texts;
  bool closed = false;
  bool ended = false;
};

ApplicationInput::ApplicationInput(lldb::SBProcess process)
    : queue(std::make_shared<Queue>()), thread(run, queue, process) {}

ApplicationInput::~ApplicationInput() {
  std::unique_lock lock(queue->mutex);
  queue->closed = true;
  queue->changed.notify_all();
  const bool ended = queue->changed.wait_for(lock, endBound, [this] { return queue->ended; });
  lock.unlock();
  if (ended) {
    thread.join();
  } else {
    LOG_RECORD("Leaving a write to the application's input behind\n");
    thread.detach();
  }
}

void ApplicationInput::write(std::string bytes) {
  const std::lock_guard lock(queue->mutex);
  queue->texts.push_back(std::move(bytes));
  queue->changed.notify_all();
}

void ApplicationInput::run(std::shared_ptr<Queue> queue, lldb::SBProcess process) {
  std::unique_lock lock(queue->mutex);
  for (;;) {
    queue->changed.wait(lock, [&] { return queue->closed || !queue->texts.empty(); });
    if (queue->closed) break;
    const std::string text = std::move(queue->texts.front());
    queue->texts.pop_front();
    lock.unlock();
    process.PutSTDIN(text.data(), text.size());
    lock.lock();
  }
  queue->ended = true;
  queue->changed.notify_all();
}
