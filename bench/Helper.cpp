// lldb-helper over its pipes.

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "Child.h"
#include "Subject.h"

namespace {

using json = nlohmann::json;

class Helper : public Subject {
 public:
  explicit Helper(const std::string &program)
      : Subject("lldb-helper"), child({program}, Child::Pipes::Arguments) {
    roundTrip();
  }

  void launch(const std::string &program, const std::vector<std::string> &arguments) override {
    outputSoFar.clear();
    std::string words;
    for (const std::string &argument : arguments) words += argument + ' ';
    ask(json{{"command", "prepareExecutable"}, {"path", program}, {"args", words}}.dump());
    askAndAwait(R"({"command": "createProcess"})", stops);
  }
  void deleteProcess() override { ask(R"({"command": "deleteProcess"})"); }
  void breakAt(std::uint64_t address) override {
    ask(json{{"command", "setBreakpointAtVirtualAddress"}, {"address", address}}.dump());
  }
  void removeBreakpoints() override { ask(R"({"command": "removeAllBreakpoints"})"); }
  void resume() override { askAndAwait(R"({"command": "continueExecution"})", stops); }
  void step() override { askAndAwait(R"({"command": "stepInstruction"})", stops); }
  void runToExit() override { askAndAwait(R"({"command": "continueExecution"})", exits); }

  void readMemory(std::uint64_t address, std::size_t size) override {
    ask("{\"command\": \"readMemory\", \"address\": " + std::to_string(address) +
        ", \"length\": " + std::to_string(size) + "}");
  }
  void readRegisters() override { ask(R"({"command": "getRegisters"})"); }
  void readStack() override { ask(R"({"command": "getCallstack"})"); }
  void listThreads() override { ask(R"({"command": "getThreadIDList"})"); }
  void listModules(bool waits) override {
    ask(R"({"command": "moduleCount"})");
    const unsigned count = json::parse(answer)["count"];
    modules.clear();
    std::string requests;
    for (unsigned index = 0, answers = 0; index < count; ++index) {
      requests +=
          frame("{\"command\": \"moduleAtIndex\", \"index\": " + std::to_string(index) + "}");
      if (!waits && index + 1 < count) continue;
      child.write(std::exchange(requests, ""));
      for (; answers <= index; ++answers) modules += child.readFrame();
    }
  }
  void roundTrip() override { ask(R"({"command": "ping"})"); }

  std::string bytes() override {
    // By hand: a value for each of 128 Mi bytes is more than this machine has.
    std::string found;
    for (char *at = const_cast<char *>(&answer.at(answer.find('['))); *at != ']';)
      found += static_cast<char>(std::strtoul(at + 1, &at, 10));
    return found;
  }
  std::string output() override {
    std::string bytes;
    for (const std::string &event : outputSoFar) bytes += bytesAfter("\"output\": \"", event);
    return bytes;
  }
  std::string stack() override { return numbersAfter("\"pc\": ", answer); }
  std::string programCounter() override {
    readRegisters();
    return numbersAfter("\"rip\": \"", answer);
  }
  std::string threadCount() override { return countOf("\"thread-id\": [0-9]+", answer); }
  std::string libraryCount() override { return countOf(library, modules); }
  std::string registers() override {
    std::string text;
    const json all = json::parse(answer)["registers"];
    for (const auto &[name, value] : all.items())
      text += name + "=" + value.get<std::string>() + " ";
    return text;
  }
  double peakMemory() override { return child.peakMemory(); }

 private:
  void ask(std::string_view request) {
    child.write(frame(request));
    answer = {};
    while (answer.empty()) readMessage();
  }

  void askAndAwait(std::string_view request, const unsigned &counter) {
    const unsigned before = counter;
    ask(request);
    while (counter == before) readMessage();
  }

  void readMessage() {
    const std::string_view message = child.readFrame();
    const std::string_view end = endOf(message);
    if (!contains(end, "\"status\": \"event\"")) {
      if (contains(end, "\"status\": \"error\"")) throw std::runtime_error(std::string(message));
      answer = message;
    } else if (contains(end, "\"type\": \"stdout\"")) {
      outputSoFar.emplace_back(message);
    } else {
      stops += contains(end, "\"eStateStopped\"");
      exits += contains(end, "\"eStateExited\"");
    }
  }

  Child child;
  std::string_view answer;               ///< until the next message is read
  std::string modules;                   ///< answers
  std::vector<std::string> outputSoFar;  ///< events
  unsigned stops = 0, exits = 0;
};

}  // namespace

std::unique_ptr<Subject> makeHelper(const std::string &program) {
  return std::make_unique<Helper>(program);
}
