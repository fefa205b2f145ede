#include "session/InferiorInput.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <optional>
#include <utility>

#include "platform/Descriptors.h"
#include "platform/Log.h"
#include "platform/Mutex.h"

namespace {

using namespace std::chrono_literals;

/// How long a thread that waits for room takes to notice that it must end.
constexpr auto roomWait = 20ms;

/// Up to this many bytes one write keeps an escape sequence whole. Longer text goes byte by byte: a
/// writable pty guarantees room for one byte only.
constexpr std::size_t singleWriteLimit = 256;

/// How long the destructor waits for the thread. LLDB may wait much longer for a remote stub that
/// does not answer.
constexpr auto endBound = 2s;

}  // namespace

/// The texts to write. Shared with the thread, which may outlive the object.
class InferiorInput::Queue {
 public:
  ~Queue() {
    if (pty >= 0) ::close(pty);
  }

  void add(std::string text) {
    const MutexLock lock(mutex);
    texts.push_back(std::move(text));
    changed.notify_all();
  }

  /// For the thread: waits for the next text. Returns nothing when the queue is closed.
  std::optional<std::string> take() {
    const MutexLock lock(mutex);
    while (!closed && texts.empty()) changed.wait(mutex);
    if (closed) return std::nullopt;
    std::string text = std::move(texts.front());
    texts.pop_front();
    return text;
  }

  /// For the thread, at its end.
  void setEnded() {
    const MutexLock lock(mutex);
    ended = true;
    changed.notify_all();
  }

  /// Asks the thread to end. Returns whether it does so within the bound.
  bool closeAndWait() {
    const auto end = std::chrono::steady_clock::now() + endBound;
    const MutexLock lock(mutex);
    closed = true;
    changed.notify_all();
    while (!ended && changed.wait_until(mutex, end) == std::cv_status::no_timeout) continue;
    return ended;
  }

  /// The master side of the program's pty. -1 when LLDB talks to a remote stub instead.
  const int pty = platform::unblockAndDuplicateInferiorPty();
  std::atomic<bool> closed = false;  ///< set by closeAndWait; the thread checks it between pieces

 private:
  Mutex mutex;
  std::condition_variable_any changed;
  std::deque<std::string> texts GUARDED_BY(mutex);
  bool ended GUARDED_BY(mutex) = false;
};

InferiorInput::InferiorInput(lldb::SBProcess process)
    : process(process), queue(std::make_shared<Queue>()), thread(run, queue, process) {}

InferiorInput::~InferiorInput() {
  if (queue->closeAndWait()) {
    thread.join();
  } else {
    LOG_RECORD("Leaving a write to the application's input running\n");
    thread.detach();
  }
}

void InferiorInput::write(std::string bytes) { queue->add(std::move(bytes)); }

void InferiorInput::run(std::shared_ptr<Queue> queue, lldb::SBProcess process) {
  while (const std::optional<std::string> text = queue->take())
    writeWhenReady(*queue, process, *text);
  queue->setEnded();
}

void InferiorInput::writeWhenReady(const Queue &queue, lldb::SBProcess &process,
                                   std::string_view text) {
  if (queue.pty < 0) {
    process.PutSTDIN(text.data(), text.size());
    return;
  }
  const std::size_t pieceSize = text.size() <= singleWriteLimit ? singleWriteLimit : 1;
  do {
    while (!platform::isReady(queue.pty, platform::Use::Write, roomWait))
      if (queue.closed) return;
    // The copy ends with a zero byte. LLDB formats the argument of each call as a C string, logged
    // or not. Without the copy it would format all of the remaining text for each byte.
    const std::string piece(text.substr(0, pieceSize));
    // LLDB returns 0, however much it wrote.
    process.PutSTDIN(piece.data(), piece.size());
    text.remove_prefix(piece.size());
  } while (!text.empty() && !queue.closed);
}
