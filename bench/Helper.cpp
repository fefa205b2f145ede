// lldb-helper over its pipes.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "Child.h"
#include "Subject.h"

namespace {

using json = nlohmann::json;

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

class Helper : public Subject {
 public:
  explicit Helper(const std::string &program) : child({program}, Child::Pipes::Arguments) {
    ask(R"({"command": "ping"})");
  }

  std::string name() const override { return "lldb-helper"; }

  void launch(const std::string &program, const std::vector<std::string> &arguments) override {
    outputSoFar.clear();
    std::string words;
    for (const std::string &argument : arguments) words += argument + ' ';
    ask(json{{"command", "prepareExecutable"}, {"path", program}, {"args", words}}.dump());
    askAndAwait(R"({"command": "createProcess"})", stopped);
  }
  void deleteProcess() override { ask(R"({"command": "deleteProcess"})"); }
  void breakAt(std::uint64_t address) override {
    ask(json{{"command", "setBreakpointAtVirtualAddress"}, {"address", address}}.dump());
  }
  void removeBreakpoints() override { ask(R"({"command": "removeAllBreakpoints"})"); }
  void resume() override { askAndAwait(R"({"command": "continueExecution"})", stopped); }
  void step() override { askAndAwait(R"({"command": "stepInstruction"})", stopped); }
  void runToExit() override { askAndAwait(R"({"command": "continueExecution"})", exited); }

  void readMemory(std::uint64_t address, std::size_t size) override {
    ask("{\"command\": \"readMemory\", \"address\": " + std::to_string(address) +
        ", \"length\": " + std::to_string(size) + "}");
  }
  void readRegisters() override { ask(R"({"command": "getRegisters"})"); }
  void readStack() override { ask(R"({"command": "getCallstack"})"); }
  void roundTrip() override { ask(R"({"command": "ping"})"); }

  void listThreads() override { ask(R"({"command": "getThreadIDList"})"); }
  void listModules(bool waits) override {
    ask(R"({"command": "moduleCount"})");
    const unsigned count = json::parse(answer)["count"];
    modules.clear();
    std::string requests;
    for (unsigned index = 0; index < count; ++index) {
      requests +=
          frame("{\"command\": \"moduleAtIndex\", \"index\": " + std::to_string(index) + "}");
      if (!waits) continue;
      child.write(std::exchange(requests, ""));
      modules.emplace_back(readFrame(child));
    }
    child.write(requests);
    while (modules.size() < count) modules.emplace_back(readFrame(child));
  }

  std::size_t peakMemory() override { return child.peakMemory(); }
  std::string bytes() override {
    // By hand: a value for each of 128 Mi bytes is more than this machine has.
    std::string found;
    unsigned value = 0;
    for (const char *at = answer.data() + answer.find('[') + 1;; ++at) {
      if (*at >= '0' && *at <= '9') {
        value = value * 10 + static_cast<unsigned>(*at - '0');
      } else if (*at == ',' || *at == ']') {
        found += static_cast<char>(value);
        value = 0;
        if (*at == ']') return found;
      }
    }
  }
  std::string output() override {
    std::string bytes;
    for (const std::string &event : outputSoFar) {
      const std::string digits = json::parse(event)["output"];
      for (std::size_t at = 0; at < digits.size(); at += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    }
    return bytes;
  }
  std::vector<std::uint64_t> stack() override {
    std::vector<std::uint64_t> counters;
    const json parsed = json::parse(answer);
    for (const json &frame : parsed["callstack"]) counters.push_back(frame["pc"]);
    return counters;
  }
  std::size_t threads() override { return json::parse(answer)["threads"].size(); }
  std::size_t benchLibraries() override {
    std::size_t found = 0;
    for (const std::string &module : modules) found += contains(module, "\"libbench");
    return found;
  }
  std::uint64_t programCounter() override {
    ask(R"({"command": "getRegisters"})");
    const std::string rip = json::parse(answer)["registers"]["rip"];
    return std::stoull(rip, nullptr, 16);
  }
  std::string registers() override {
    std::string text;
    const json parsed = json::parse(answer);
    for (const auto &[name, value] : parsed["registers"].items())
      text += name + "=" + value.get<std::string>() + " ";
    return text;
  }

 private:
  static constexpr std::string_view stopped = "\"eStateStopped\"";
  static constexpr std::string_view exited = "\"eStateExited\"";

  /// Sends a request and waits for its answer.
  void ask(std::string_view request) { askAndAwait(request, ""); }

  /// Waits for the answer and for a message that contains `awaited`.
  void askAndAwait(std::string_view request, std::string_view awaited) {
    child.write(frame(request));
    bool answered = false, happened = awaited.empty();
    while (!answered || !happened) {
      const std::string_view message = readFrame(child);
      // Members come in alphabetical order, so that the kind of a message stands at its end.
      const std::string_view end =
          message.substr(message.size() - std::min<std::size_t>(message.size(), 80));
      if (!contains(end, "\"status\": \"event\"")) {
        if (contains(end, "\"status\": \"error\"")) throw std::runtime_error(std::string(message));
        answered = true;
        answer = message;
      } else if (!awaited.empty() && contains(message, awaited)) {
        happened = true;
      } else if (contains(message, "\"output\"")) {
        outputSoFar.emplace_back(message);
      }
    }
  }

  Child child;
  std::string_view answer;  ///< until the next message is read
  std::vector<std::string> modules;
  std::vector<std::string> outputSoFar;
};

}  // namespace

std::unique_ptr<Subject> makeHelper(const std::string &program) {
  return std::make_unique<Helper>(program);
}
