#include "session/InferiorInput.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

#include "platform/Descriptors.h"
#include "platform/Log.h"

namespace {

using namespace std::chrono_literals;

/// How long a thread that waits for room takes to notice that it must end.
constexpr auto roomWait = 20ms;

/// Up to this many bytes one write keeps an escape sequence whole. Longer text goes byte by byte: a
/// writable pty guarantees room for one byte only.
constexpr std::size_t singleWriteLimit = 256;

/// LLDB may wait much longer than this for a remote stub that does not answer.
constexpr auto endBound = 2s;

}  // namespace

/// Shared with the thread, which may outlive the object.
struct InferiorInput::Queue {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<std::string> texts;
  std::atomic<bool> closed = false;
  bool ended = false;
  /// The master side of the program's pty. -1 when LLDB talks to a remote stub instead.
  const int pty = platform::unblockAndDuplicateInferiorPty();
  ~Queue() {
    if (pty >= 0) close(pty);
  }
};

InferiorInput::InferiorInput(lldb::SBProcess process)
    : process(process), queue(std::make_shared<Queue>()), thread(run, queue, process) {}

InferiorInput::~InferiorInput() {
  std::unique_lock lock(queue->mutex);
  queue->closed = true;
  queue->changed.notify_all();
  const bool ended = queue->changed.wait_for(lock, endBound, [this] { return queue->ended; });
  lock.unlock();
  if (ended) {
    thread.join();
  } else {
    LOG_RECORD("Leaving a write to the application's input running\n");
    thread.detach();
  }
}

void InferiorInput::write(std::string bytes) {
  const std::lock_guard lock(queue->mutex);
  queue->texts.push_back(std::move(bytes));
  queue->changed.notify_all();
}

void InferiorInput::run(std::shared_ptr<Queue> queue, lldb::SBProcess process) {
  std::unique_lock lock(queue->mutex);
  for (;;) {
    queue->changed.wait(lock, [&] { return queue->closed || !queue->texts.empty(); });
    if (queue->closed) break;
    const std::string text = std::move(queue->texts.front());
    queue->texts.pop_front();
    lock.unlock();
    writeWhenReady(*queue, process, text);
    lock.lock();
  }
  queue->ended = true;
  queue->changed.notify_all();
}

void InferiorInput::writeWhenReady(const Queue &queue, lldb::SBProcess &process,
                                   std::string_view text) {
  if (queue.pty < 0) {
    process.PutSTDIN(text.data(), text.size());
    return;
  }
  const std::size_t pieceSize = text.size() <= singleWriteLimit ? singleWriteLimit : 1;
  do {
    while (!platform::ptyHasRoom(queue.pty, roomWait))
      if (queue.closed) return;
    const std::string_view piece = text.substr(0, pieceSize);
    // LLDB returns 0, however much it wrote.
    process.PutSTDIN(piece.data(), piece.size());
    text.remove_prefix(piece.size());
  } while (!text.empty() && !queue.closed);
}
