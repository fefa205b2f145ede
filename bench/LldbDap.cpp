// lldb-dap, LLDB's own back-end for editors, which speaks the Debug Adapter Protocol.

#include <resolv.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "Child.h"
#include "Subject.h"

namespace {

using json = nlohmann::json;

std::string hexText(std::uint64_t number) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(number));
  return text;
}

class LldbDap : public Subject {
 public:
  explicit LldbDap(const std::string &program) : Subject("lldb-dap"), program(program) { start(); }

  void launch(const std::string &file, const std::vector<std::string> &arguments) override {
    outputSoFar.clear();
    stops = 0;
    send("launch",
         {{"program", file}, {"args", arguments}, {"stopOnEntry", true}, {"disableASLR", true}});
    await([this] { return initialized; });
    ask("configurationDone");
    await([this] { return stops > 0; });
  }
  // lldb-dap may end with its program. A session is one program's, so the next one needs a new
  // lldb-dap.
  void deleteProcess() override {
    if (!exited) ask("disconnect", {{"terminateDebuggee", true}});
  }
  void afterDeletion() override { start(); }

  void breakAt(std::uint64_t address) override {
    ask("setInstructionBreakpoints",
        {{"breakpoints", json::array({{{"instructionReference", hexText(address)}}})}});
  }
  void removeBreakpoints() override {
    if (!exited) ask("setInstructionBreakpoints", {{"breakpoints", json::array()}});
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
    ask("readMemory", {{"memoryReference", hexText(address)}, {"count", size}});
  }
  void readRegisters() override {
    readTopFrame();
    ask("scopes", {{"frameId", body("stackFrames")[0]["id"]}});
    const auto expand = [this](const json &variable) {
      ask("variables", {{"variablesReference", variable["variablesReference"]}});
    };
    for (const json &scope : body("scopes"))
      if (scope["name"] == "Registers") expand(scope);
    for (const json &set : body("variables")) expand(set);
  }
  void readStack() override { ask("stackTrace", {{"threadId", thread}}); }
  void listThreads() override { ask("threads"); }
  void listModules(bool) override { ask("modules"); }
  /// Without a program lldb-dap refuses this, which is the least that it can do.
  void roundTrip() override { ask("threads", json::object(), true); }

  std::string bytes() override {
    const std::string text = body("data");
    std::vector<unsigned char> bytes(text.size());
    const int size = b64_pton(text.c_str(), bytes.data(), bytes.size());
    return {bytes.begin(), bytes.begin() + size};
  }
  std::string output() override { return outputSoFar; }
  std::string stack() override {
    return numbersAfter("\"instructionPointerReference\":\"", answer);
  }
  std::string programCounter() override {
    readTopFrame();
    return stack();
  }
  std::string threadCount() override { return countOf("\"id\":[0-9]+", answer); }
  std::string libraryCount() override { return countOf(library, answer); }
  double peakMemory() override { return child->peakMemory(); }

 private:
  void start() {
    // On one processor LLDB's parallel loading may stand still for a minute.
    child.emplace(std::vector<std::string>{program, "--pre-init-command",
                                           "settings set target.parallel-module-load false"},
                  Child::Pipes::StandardStreams);
    initialized = exited = false;
    ask("initialize", {{"adapterID", "bench"}, {"supportsMemoryReferences", true}});
  }

  void readTopFrame() { ask("stackTrace", {{"threadId", thread}, {"levels", 1}}); }

  /// One member of the last answer's body.
  json body(const char *member) const { return json::parse(answer)["body"][member]; }

  void send(const char *command, json arguments) {
    json request{{"seq", ++sequence}, {"type", "request"}, {"command", command}};
    request["arguments"] = std::move(arguments);
    const std::string text = request.dump();
    child->write("Content-Length: " + std::to_string(text.size()) + "\r\n\r\n" + text);
  }

  void ask(const char *command, json arguments = json::object(), bool refusable = false) {
    send(command, std::move(arguments));
    const std::string mine = "\"request_seq\":" + std::to_string(sequence) + ",";
    answer = {};
    await([&] { return contains(endOf(answer), mine); });
    if (!refusable && !contains(endOf(answer), "\"success\":true"))
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
    if (contains(end, "\"type\":\"response\"")) {
      answer = message;
    } else if (contains(end, "\"event\":\"output\"")) {
      const json event = json::parse(message)["body"];
      if (event.value("category", "") == "stdout")
        outputSoFar += event["output"].get<std::string>();
    } else if (contains(end, "\"event\":\"stopped\"")) {
      ++stops;
      thread = json::parse(message)["body"]["threadId"];
    } else {
      initialized |= contains(end, "\"event\":\"initialized\"");
      exited |= contains(end, "\"event\":\"exited\"");
    }
  }

  const std::string program;
  std::optional<Child> child;
  unsigned sequence = 0;
  std::string_view answer;  ///< until the next message is read
  std::uint64_t thread = 0;
  unsigned stops = 0;
  bool initialized = false, exited = false;
  std::string outputSoFar;
};

}  // namespace

std::unique_ptr<Subject> makeLldbDap(const std::string &program) {
  return std::make_unique<LldbDap>(program);
}
