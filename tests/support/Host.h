#pragma once

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "support/Conformance.h"

using json = nlohmann::json;

/// A host as the tests need it: runs the program as a child, speaks frames or console lines with
/// it, and takes everything that the program started along when it ends. Anything that is awaited
/// has a deadline; missing it throws, which fails the test.
class Host {
 public:
  struct Options {
    /// In place of the two descriptor numbers.
    std::optional<std::vector<std::string>> arguments;
    /// name=value texts, added to the test's own environment.
    std::vector<std::string> environment;
    /// Runs in the child before the program. May change its environment.
    std::function<void()> prepare;
  };

  Host();
  explicit Host(Options options);
  ~Host();
  Host(const Host &) = delete;
  Host &operator=(const Host &) = delete;

  /// One request as a frame. Gives it no id.
  void send(const json &request) { sendFrame(request.dump()); }
  void sendFrame(const std::string &text) { sendBytes(frame(text)); }
  void sendBytes(std::string_view bytes);
  static std::string frame(const std::string &text);
  static std::string frames(const std::vector<json> &requests);

  /// Sends a request with the next id and returns its response. Events that come before it are kept
  /// for awaitEvent.
  json ask(json request);
  json ask(const char *command) { return ask(json{{"command", command}}); }
  /// Sends requests in one write, without ids, and returns their responses.
  std::vector<json> askAll(const std::vector<json> &requests);
  /// The next responses, as many as asked for. Events that come before them are kept, too.
  std::vector<json> responses(std::size_t count);

  /// The next event that `wanted` accepts; those before it are dropped.
  json awaitEvent(const std::function<bool(const json &)> &wanted);
  json awaitState(const std::string &name);
  /// The next piece of output, decoded.
  std::string awaitOutput();
  /// Events up to the exit: the output, decoded and joined, and the exit event.
  struct Ending {
    std::string output;
    json exit;
  };
  Ending awaitExit();
  /// Continues from a stop to the exit, through all stops on the way.
  Ending runToExit();

  /// The text of the next frame, of whatever kind; nothing at the end of the program's output.
  std::optional<std::string> nextText();
  json nextMessage();
  /// Everything the program writes until it closes its output.
  std::string readAll();

  void closeRequests();
  void closeMessages();
  /// The program's status as waitpid gives it, once it has ended.
  int waitForEnd();
  int exitStatus();

  pid_t pid() const { return child; }
  int requestDescriptor() const { return requests; }
  int messageDescriptor() const { return messages; }

  /// prepareExecutable for `program` with LLDB's own choice of a triple.
  json prepare(const std::string &program, json more = json::object());
  /// prepare and createProcess, both of which must be answered "ok".
  void launch(const std::string &program, json more = json::object());

  /// Compares what is said here with docs/protocol.schema.json.
  Conformance conformance;

  /// Every message that was read, in order.
  std::vector<json> history;

 private:
  bool waitReadable(std::chrono::steady_clock::time_point deadline);
  bool fill(std::size_t count);

  pid_t child = -1;
  int requests = -1;
  int messages = -1;
  int silent = -1;  // the other end of the program's standard input in pipe mode
  std::optional<int> endStatus;
  std::string unread;
  std::deque<json> events;
  std::uint64_t nextId = 1;
};

/// How long anything may take. Generous: a loaded machine is slow, and only failures wait this
/// long.
constexpr std::chrono::seconds deadline{60};

/// A request without arguments.
inline json command(const char *name) { return {{"command", name}}; }

/// The bytes that an output event carries.
std::string outputOf(const json &event);

/// The tests' own programs.
std::string inferior(const std::string &name);

/// The processes below `ancestor`, and those only whose program is called `name` if one is given.
std::vector<pid_t> descendants(pid_t ancestor, const std::string &name = "");

std::string readFile(const std::string &path);

/// Whether `text` is what `pattern` says, in which "…" stands for anything.
bool matches(const std::string &text, const std::string &pattern);

/// Waits until `holds` does; throws, naming `what`, when it does not come true in time.
void awaitThat(const std::string &what, const std::function<bool()> &holds);
