#include "commands/ApplicationInput.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

#include "platform/Log.h"
#include "platform/Process.h"

namespace {

using namespace std::chrono_literals;

/// How long a thread that waits for room may take to notice that it should end.
constexpr auto roomWait = 20ms;

/// Texts up to this many bytes are written by one call, so that what a key or a line consists of
/// comes to the program together. Longer ones are more than a terminal may have room for; they are
/// written byte by byte, because one byte is what room that is there is sure to be enough for.
constexpr std::size_t keptTogether = 256;

/// LLDB's own packets to a remote stub that does not answer can take longer than anybody should
/// wait.
constexpr auto endBound = 2s;

}  // namespace

/// Shared with the thread, which may have to be left behind.
struct ApplicationInput::Queue {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<std::string> texts;
  std::atomic<bool> closed = false;
  bool ended = false;
  /// The master side of the program's terminal; -1 where LLDB talks to a remote stub instead.
  const int terminal = platform::openTerminal();
  ~Queue() {
    if (terminal >= 0) close(terminal);
  }
};

ApplicationInput::ApplicationInput(lldb::SBProcess process)
    : processId(process.GetUniqueID()),
      queue(std::make_shared<Queue>()),
      thread(run, queue, process) {}

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
    put(*queue, process, text);
    lock.lock();
  }
  queue->ended = true;
  queue->changed.notify_all();
}

void ApplicationInput::put(const Queue &queue, lldb::SBProcess &process, std::string_view text) {
  if (queue.terminal < 0) {
    process.PutSTDIN(text.data(), text.size());
    return;
  }
  const std::size_t pieceSize = text.size() <= keptTogether ? keptTogether : 1;
  do {
    while (!platform::terminalHasRoom(queue.terminal, roomWait))
      if (queue.closed) return;
    const std::string_view piece = text.substr(0, pieceSize);
    // LLDB does not say how much it wrote: it returns 0.
    process.PutSTDIN(piece.data(), piece.size());
    text.remove_prefix(piece.size());
  } while (!text.empty() && !queue.closed);
}
