// Requests with arguments of every kind, to a session without process.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>

#include "Check.h"
#include "NoProcess.h"
#include "session/DebugSession.h"

namespace {

/// All that do not reach outside, as docs/protocol.md lists them, and one that is none.
constexpr const char *harmlessCommands[] = {
    "ping",
    "prepareExecutable",
    "detach",
    "deleteProcess",
    "hasProcess",
    "getProcessState",
    "continueExecution",
    "stopExecution",
    "breakExecution",
    "getThreadIDList",
    "selectThreadID",
    "getRegisters",
    "setBreakpointAtVirtualAddress",
    "removeBreakpoint",
    "removeAllBreakpoints",
    "stepInstruction",
    "stepOver",
    "stepOut",
    "readMemory",
    "writeByte",
    "getCallstack",
    "selectFrame",
    "setRegister",
    "sendToApplication",
    "moduleCount",
    "moduleAtIndex",
    "moduleForFile",
    "Ping",
};

constexpr const char *argumentNames[] = {
    "address",  "args", "bkpt_id",  "cli",      "command", "cwd",  "data",   "env",
    "file",     "id",   "index",    "is64Bits", "length",  "path", "plugin", "pid",
    "platform", "pos",  "register", "tid",      "triple",  "url",  "value",  "executable"};

/// Lines for LLDB's command line that change nothing that outlives them.
constexpr const char *harmlessLines[] = {"",
                                         " ",
                                         "help",
                                         "version",
                                         "breakpoint list",
                                         "settings list target",
                                         "nonsense",
                                         "thread list",
                                         "register read",
                                         "frame variable",
                                         "image list",
                                         "help \"",
                                         "\xff"};

constexpr int deepest = 6;

class RequestMaker {
 public:
  RequestMaker(const std::uint8_t *data, std::size_t size) : bytes(data, size) {}

  Json::object make() {
    Json::object members;
    for (int count = bytes.ConsumeIntegralInRange(0, 6); count > 0; --count)
      members[bytes.PickValueInArray(argumentNames)] = value(0);
    members["command"] = command(members);
    return members;
  }

 private:
  Json command(Json::object &members) {
    switch (bytes.ConsumeIntegralInRange(0, 31)) {
      case 0: members["cli"] = bytes.PickValueInArray(harmlessLines); return "executeCommand";
      case 1: return "completeCommand";
      case 2: return bytes.ConsumeRandomLengthString(16);
      case 3: return value(0);
      default: return bytes.PickValueInArray(harmlessCommands);
    }
  }

  Json value(int depth) {
    switch (bytes.ConsumeIntegralInRange(0, depth < deepest ? 8 : 6)) {
      case 0: return Json();
      case 1: return bytes.ConsumeBool();
      case 2: return bytes.ConsumeIntegral<std::int32_t>();
      case 3: return bytes.ConsumeIntegral<std::uint64_t>();
      case 4: return bytes.ConsumeFloatingPoint<double>();
      case 5: return bytes.PickValueInArray(extremes());
      case 6: return bytes.ConsumeRandomLengthString(64);
      case 7: return array(depth);
      default: return object(depth);
    }
  }

  Json array(int depth) {
    Json::array items;
    for (int count = bytes.ConsumeIntegralInRange(0, 8); count > 0; --count)
      items.push_back(value(depth + 1));
    return Json(std::move(items));
  }

  Json object(int depth) {
    Json::object members;
    for (int count = bytes.ConsumeIntegralInRange(0, 4); count > 0; --count)
      members[bytes.ConsumeRandomLengthString(8)] = value(depth + 1);
    return Json(std::move(members));
  }

  static const std::array<Json, 16> &extremes() {
    using Limits = std::numeric_limits<double>;
    static const std::array<Json, 16> values{
        std::numeric_limits<std::int32_t>::min(),
        std::numeric_limits<std::int32_t>::max(),
        std::int32_t{-1},
        std::numeric_limits<std::uint64_t>::max(),
        std::uint64_t{0x80000000},
        std::uint64_t{0x100000000},
        Limits::infinity(),
        -Limits::infinity(),
        Limits::quiet_NaN(),
        Limits::max(),
        Limits::denorm_min(),
        18446744073709551616.0,
        -0.0,
        "",
        std::string(1, '\0'),
        "\xff\xfe\x80",
    };
    return values;
  }

  FuzzedDataProvider bytes;
};

/// Whether the request leaves the world outside as it is. Random texts may be names of commands
/// too. Completing a line only looks around.
bool isHarmless(const Json &request) {
  if (!noProcess::reachesOutside(request)) return true;
  const std::string &name = request["command"].stringValue();
  if (name != "executeCommand") return name == "completeCommand";
  return std::find(std::begin(harmlessLines), std::end(harmlessLines),
                   request["cli"].stringValue()) != std::end(harmlessLines);
}

/// Never destroyed, as LLDB is not either.
DebugSession *session;

void checkForm(const Json &response) {
  check(response.type() == JsonType::Object, "a response is an object");
  const std::string &status = response["status"].stringValue();
  check(status == "ok" || status == "error", "a response is ok or an error");
  if (status == "error")
    check(response["message"].type() == JsonType::String, "an error has a message");
  const std::string text = response.dump();
  std::string parseError;
  check(Json::parse(text, parseError).dump() == text && parseError.empty(),
        "a response survives writing and reading");
}

void checkCommandLine(const Json &response) {
  check(response["status"].stringValue() == "ok", "LLDB's commands are no errors");
  check(response["succeeded"].type() == JsonType::Bool, "whether it succeeded is told");
}

void checkCompletions(const Json &request, const Json &response) {
  const Json &completions = response["completions"];
  check(completions.type() == JsonType::Array, "completions are a list");
  for (const Json &completion : completions.arrayItems())
    check(completion.type() == JsonType::String, "completions are texts");
  const std::uint64_t position = request["pos"].uint64Value() & 0xffffffff;
  if (position > request["cli"].stringValue().size())
    check(completions.arrayItems().empty(), "behind the end is nothing to complete");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  noProcess::start();
  session = new DebugSession(noProcess::makeStream(), noProcess::makeStream(), false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const Json request(RequestMaker(data, size).make());
  if (!isHarmless(request)) return 0;
  const std::string &name = request["command"].stringValue();
  const Json response = session->handleRequest(request);
  checkForm(response);
  if (name == "executeCommand") {
    checkCommandLine(response);
  } else if (name == "completeCommand") {
    checkCompletions(request, response);
  } else {
    check(response.dump() == noProcess::response(request).dump(), "the response is as documented");
  }
  return 0;
}
