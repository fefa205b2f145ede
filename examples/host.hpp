// A host for lldb-helper in one header: C++17, POSIX, and nlohmann/json, whose numbers hold all 64
// bits. Copy it, or read it before you write your own. host.py explains the rules for hosts. A
// thread reads all the time, so the helper never waits for the host.

#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

class Helper {
 public:
  using json = nlohmann::json;

  explicit Helper(const std::string &program) {
    const Channel down, up;
    const std::string in = std::to_string(down.theirs), out = std::to_string(up.theirs);
    child = fork();
    if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) {
      // Nothing may allocate between fork and exec in a program with threads.
      fcntl(down.theirs, F_SETFD, 0);
      fcntl(up.theirs, F_SETFD, 0);
      execlp(program.c_str(), program.c_str(), in.c_str(), out.c_str(), nullptr);
      _exit(127);
    }
    ::close(down.theirs);
    ::close(up.theirs);
    requests = down.ours;
    messages = up.ours;
    reader = std::thread([this] { readAll(); });
  }

  ~Helper() { close(); }
  Helper(const Helper &) = delete;
  Helper &operator=(const Helper &) = delete;

  /// Sends a request and returns its response, also if its status is "error". Throws if the helper
  /// has ended. Any thread may call it.
  json ask(const std::string &command, json arguments = json::object()) {
    arguments["command"] = command;
    std::future<json> response;
    {
      const std::lock_guard lock(writing);  // keeps requests whole and in the order of their ids
      const std::uint64_t id = nextId++;
      arguments["id"] = id;
      const std::string text = dump(arguments);
      {
        const std::lock_guard shared(mutex);
        if (ended) throw std::runtime_error("the helper has ended");
        response = pending[id].get_future();
      }
      const auto length = static_cast<std::uint32_t>(text.size());
      std::string frame(sizeof length, '\0');
      std::memcpy(frame.data(), &length, sizeof length);  // in the machine's byte order
      write(frame + text);
    }
    return response.get();
  }

  /// Returns the next event. Throws if none arrives within `patience`, or if the helper has ended.
  json nextEvent(std::chrono::seconds patience = std::chrono::seconds(60)) {
    std::unique_lock lock(mutex);
    news.wait_for(lock, patience, [this] { return ended || !events.empty(); });
    if (events.empty()) throw std::runtime_error(ended ? "the helper has ended" : "no event");
    json event = std::move(events.front());
    events.pop_front();
    return event;
  }

  /// Deletes the process and ends the helper, which stops only at the end of its input. Returns the
  /// helper's exit status, or 128 plus the number of the signal that ended it. No other thread may
  /// use the object.
  int close() {
    if (child < 0) return status;
    try {
      ask("deleteProcess");  // answers with an error if there is no process
    } catch (const std::exception &) {
      // The helper has ended already.
    }
    ::close(requests);
    reader.join();
    ::close(messages);
    int ending = 0;
    while (waitpid(child, &ending, 0) < 0 && errno == EINTR) continue;
    child = -1;
    return status = WIFEXITED(ending) ? WEXITSTATUS(ending) : 128 + WTERMSIG(ending);
  }

  /// Like json::dump and json::parse, but these do not throw for file names with bytes that are not
  /// UTF-8. The texts keep the bytes that the helper sent.
  static std::string dump(json value) {
    try {
      return value.dump();
    } catch (const json::type_error &) {
      changeTexts(value, widened);
      return narrowed(value.dump());
    }
  }
  static json parse(const std::string &text) {
    constexpr bool throws = false;
    json value = json::parse(text, nullptr, throws);
    if (!value.is_discarded()) return value;
    value = json::parse(widened(text));
    changeTexts(value, narrowed);
    return value;
  }

 private:
  static void changeTexts(json &value, std::string (*change)(const std::string &)) {
    if (value.is_string()) value = change(value.get_ref<const std::string &>());
    if (value.is_structured())
      for (json &item : value) changeTexts(item, change);
  }

  /// Returns UTF-8 with the characters U+0000 to U+00FF for the bytes 0x00 to 0xff.
  static std::string widened(const std::string &bytes) {
    std::string text;
    for (const char byte : bytes) {
      const auto code = static_cast<unsigned char>(byte);
      if (code < 0x80) {
        text += byte;
      } else {
        text += static_cast<char>(0xc0 | code >> 6);
        text += static_cast<char>(0x80 | (code & 0x3f));
      }
    }
    return text;
  }

  static std::string narrowed(const std::string &text) {
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
      const auto lead = static_cast<unsigned char>(text[at]);
      const bool isWide = (lead == 0xc2 || lead == 0xc3) && at + 1 < text.size();
      bytes += isWide ? static_cast<char>((lead & 3) << 6 | (text[at + 1] & 0x3f)) : text[at];
      if (isWide) ++at;
    }
    return bytes;
  }

  /// A socket pair. A write to a pipe without a reader would raise SIGPIPE, which ends a host that
  /// does not ignore it. Both ends close on exec, so that no other child of the host holds them.
  /// Otherwise the helper would not see the end of its input.
  struct Channel {
    int ours, theirs;
    Channel() {
      int ends[2];
#ifdef SOCK_CLOEXEC
      const int result = socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
#else
      const int result = socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
      for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
#endif
      if (result < 0) throw std::system_error(errno, std::generic_category(), "socketpair");
#ifdef SO_NOSIGPIPE
      const int yes = 1;
      setsockopt(ends[0], SOL_SOCKET, SO_NOSIGPIPE, &yes, sizeof yes);
#endif
      ours = ends[0];
      theirs = ends[1];
    }
  };

  /// A write may transfer less than requested. Ignores errors: the reader sees the end too.
  void write(const std::string &bytes) const {
#ifdef MSG_NOSIGNAL
    const int flags = MSG_NOSIGNAL;
#else
    const int flags = 0;
#endif
    for (std::size_t done = 0; done < bytes.size();) {
      const ssize_t count = send(requests, bytes.data() + done, bytes.size() - done, flags);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return;
      done += static_cast<std::size_t>(count);
    }
  }

  /// A read may transfer less than requested. Returns false at the end.
  bool read(void *to, std::size_t size) const {
    for (std::size_t done = 0; done < size;) {
      const ssize_t count = ::read(messages, static_cast<char *>(to) + done, size - done);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return false;
      done += static_cast<std::size_t>(count);
    }
    return true;
  }

  void readAll() {
    try {
      std::uint32_t length;
      while (read(&length, sizeof length)) {
        std::string text(length, '\0');
        if (!read(text.data(), length)) break;
        sort(parse(text));
      }
    } catch (const std::exception &) {  // out of memory counts as the helper's end
    }
    const std::lock_guard lock(mutex);
    ended = true;
    for (auto &[id, promise] : pending)
      promise.set_exception(std::make_exception_ptr(std::runtime_error("the helper has ended")));
    pending.clear();
    news.notify_all();
  }

  void sort(json message) {
    const std::lock_guard lock(mutex);
    if (message["status"] == "event") {
      events.push_back(std::move(message));
      news.notify_one();
      return;
    }
    // Responses keep their order: one without an id, to an unreadable request, is for the oldest.
    const auto found = message.contains("id") ? pending.find(message["id"]) : pending.begin();
    if (found == pending.end()) return;
    found->second.set_value(std::move(message));
    pending.erase(found);
  }

  pid_t child = -1;
  int status = -1;
  int requests = -1;
  int messages = -1;
  std::thread reader;
  std::mutex writing;
  std::uint64_t nextId = 1;  // guarded by `writing`

  std::mutex mutex;  // guards what follows
  std::condition_variable news;
  std::map<std::uint64_t, std::promise<json>> pending;
  std::deque<json> events;
  bool ended = false;
};
