// lldb-dap, LLDB's own back-end for editors, which speaks the Debug Adapter Protocol.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "Child.h"
#include "Subject.h"

namespace {

using json = nlohmann::json;

/// Where a message says what it is: keys come in alphabetical order, so a large "body" is before
/// it.
std::string_view endOf(std::string_view message) {
  return message.substr(message.size() - std::min<std::size_t>(message.size(), 128));
}

class LldbDap : public Subject {
 public:
  explicit LldbDap(std::string program) : program(std::move(program)) { start(); }

  std::string name() const override { return "lldb-dap"; }

  void launch(const std::string &file, const std::vector<std::string> &arguments) override {
    outputSoFar.clear();
    stops = 0;
    breakpoints = json::array();
    send("launch",
         {{"program", file}, {"args", arguments}, {"stopOnEntry", true}, {"disableASLR", true}});
    await([this] { return initialized; });
    ask("configurationDone");
    await([this] { return stops > 0; });
  }
  /// A session is one program's, so the next one needs a new lldb-dap.
  void deleteProcess() override {
    if (!exited) ask("disconnect", {{"terminateDebuggee", true}});  // it may have ended, too
  }
  void afterDeletion() override { start(); }

  void breakAt(std::uint64_t address) override {
    breakpoints.push_back({{"instructionReference", hex(address)}});
    ask("setInstructionBreakpoints", {{"breakpoints", breakpoints}});
  }
  void removeBreakpoints() override {
    breakpoints = json::array();
    ask("setInstructionBreakpoints", {{"breakpoints", breakpoints}});
  }
  void resume() override { askAndStop("continue", {{"threadId", thread}}); }
  void step() override {
    askAndStop("stepIn", {{"threadId", thread}, {"granularity", "instruction"}});
  }
  void runToExit() override {
    ask("continue", {{"threadId", thread}});
    await([this] { return exited; });
  }

  void readMemory(std::uint64_t address, std::size_t size) override {
    ask("readMemory", {{"memoryReference", hex(address)}, {"count", size}});
  }
  void readRegisters() override {
    ask("stackTrace", {{"threadId", thread}, {"levels", 1}});
    ask("scopes", {{"frameId", body("stackFrames")[0]["id"]}});
    const json scopes = body("scopes");
    const auto scope = std::find_if(scopes.begin(), scopes.end(),
                                    [](const json &entry) { return entry["name"] == "Registers"; });
    ask("variables", {{"variablesReference", (*scope)["variablesReference"]}});
    for (const json &set : body("variables"))
      ask("variables", {{"variablesReference", set["variablesReference"]}});
  }
  void readStack() override { ask("stackTrace", {{"threadId", thread}}); }
  void listThreads() override { ask("threads"); }
  void listModules(bool) override { ask("modules"); }
  /// Without a program lldb-dap refuses this, which is the least that it can do.
  void roundTrip() override { askWhatever("threads"); }

  std::string bytes() override {
    const std::string text = body("data");
    std::string bytes;
    unsigned bits = 0;
    int count = 0;
    for (const char letter : text) {
      static const std::string letters =
          "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
      const std::size_t value = letters.find(letter);
      if (value == std::string::npos) break;
      bits = bits << 6 | static_cast<unsigned>(value);
      if ((count += 6) >= 8) bytes += static_cast<char>(bits >> (count -= 8) & 0xff);
    }
    return bytes;
  }
  std::string output() override { return outputSoFar; }
  std::vector<std::uint64_t> stack() override {
    std::vector<std::uint64_t> counters;
    for (const json &frame : body("stackFrames"))
      counters.push_back(
          std::stoull(frame["instructionPointerReference"].get<std::string>(), nullptr, 16));
    return counters;
  }
  std::size_t threads() override { return body("threads").size(); }
  std::size_t benchLibraries() override {
    std::size_t found = 0;
    for (const json &module : body("modules"))
      found += module["name"].get<std::string>().starts_with("libbench");
    return found;
  }
  std::uint64_t programCounter() override {
    ask("stackTrace", {{"threadId", thread}, {"levels", 1}});
    return stack().at(0);
  }

 private:
  static std::string hex(std::uint64_t number) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(number));
    return text;
  }

  void start() {
    // On one processor LLDB's parallel loading may stand still for a minute.
    child.emplace(std::vector<std::string>{program, "--pre-init-command",
                                           "settings set target.parallel-module-load false"},
                  Child::Pipes::StandardStreams);
    initialized = exited = false;
    ask("initialize", {{"adapterID", "bench"}, {"supportsMemoryReferences", true}});
  }

  /// One member of the last answer's body.
  json body(const char *member) const { return json::parse(answer)["body"][member]; }

  void send(const char *command, json arguments) {
    const std::string text = json{
        {"seq", ++sequence},
        {"type", "request"},
        {"command", command},
        {"arguments",
         std::move(arguments)}}.dump();
    child->write("Content-Length: " + std::to_string(text.size()) + "\r\n\r\n" + text);
  }

  void askWhatever(const char *command, json arguments = json::object()) {
    send(command, std::move(arguments));
    const std::string mine = "\"request_seq\":" + std::to_string(sequence) + ",";
    answer = {};
    await([&] { return endOf(answer).find(mine) != std::string::npos; });
  }

  void ask(const char *command, json arguments = json::object()) {
    askWhatever(command, std::move(arguments));
    if (endOf(answer).find("\"success\":true") == std::string::npos)
      throw std::runtime_error("lldb-dap: " + std::string(answer));
  }

  void askAndStop(const char *command, json arguments) {
    const unsigned before = stops;
    ask(command, std::move(arguments));
    await([&] { return stops > before; });
  }

  template <typename Done>
  void await(Done done) {
    while (!done()) readMessage();
  }

  void readMessage() {
    std::size_t size = 0;
    for (std::string line; line != "\r\n"; line = child->readLine())
      if (line.starts_with("Content-Length: ")) size = std::stoul(line.substr(16));
    const std::string_view message = child->read(size);
    const std::string_view end = endOf(message);
    if (end.find("\"type\":\"event\"") == std::string_view::npos) {
      if (end.find("\"type\":\"response\"") != std::string_view::npos) answer = message;
      return;
    }
    const auto isEvent = [&](const char *name) {
      return end.find("\"event\":\"" + std::string(name) + "\"") != std::string_view::npos;
    };
    if (isEvent("output")) {
      const json event = json::parse(message)["body"];
      if (event.value("category", "") == "stdout")
        outputSoFar += event["output"].get<std::string>();
    } else if (isEvent("stopped")) {
      ++stops;
      thread = json::parse(message)["body"]["threadId"];
    } else if (isEvent("initialized")) {
      initialized = true;
    } else if (isEvent("exited")) {
      exited = true;
    }
  }

  const std::string program;
  std::optional<Child> child;
  unsigned sequence = 0;
  std::string_view answer;  ///< until the next message is read
  json breakpoints;
  std::uint64_t thread = 0;
  unsigned stops = 0;
  bool initialized = false;
  bool exited = false;
  std::string outputSoFar;
};

}  // namespace

std::unique_ptr<Subject> makeLldbDap(const std::string &program) {
  return std::make_unique<LldbDap>(program);
}
