// Requests with arguments of every type, to a session without a process.

#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string>

#include "Check.h"
#include "NoProcess.h"
#include "session/DebugSession.h"

namespace {

/// Lines for LLDB's command line that have no effect.
constexpr const char *harmlessLines[] = {"", "help", "breakpoint list", "nonsense", "\xff"};

constexpr int deepest = 6;
constexpr double infinity = std::numeric_limits<double>::infinity();

class RequestMaker {
 public:
  RequestMaker(const std::uint8_t *data, std::size_t size) : bytes(data, size) {}

  Json make() {
    const auto &commands = noProcess::commands();
    const auto row = std::next(commands.begin(), bytes.ConsumeIntegralInRange<std::ptrdiff_t>(
                                                     0, std::ssize(commands) - 1));
    std::string command = row->first;
    Json::object members;
    for (const std::string &argument : row->second)
      if (bytes.ConsumeBool()) members[argument] = value(0);
    if (bytes.ConsumeProbability<float>() < 0.1f) command = bytes.ConsumeRandomLengthString(16);
    members["command"] = command;
    if (command == "executeCommand") members["cli"] = bytes.PickValueInArray(harmlessLines);
    return Json(std::move(members));
  }

 private:
  Json value(int depth) {
    switch (bytes.ConsumeIntegralInRange(0, depth < deepest ? 8 : 6)) {
      case 0: return Json();
      case 1: return bytes.ConsumeBool();
      case 2: return bytes.ConsumeIntegral<std::int32_t>();
      case 3: return bytes.ConsumeIntegral<std::uint64_t>();
      case 4: return bytes.ConsumeFloatingPoint<double>();
      case 5:
        return bytes.PickValueInArray({-2147483649.0, 4294967296.0, 18446744073709551616.0,
                                       infinity, -infinity, std::nan(""), -0.0});
      case 6: return bytes.ConsumeRandomLengthString(64);
      case 7: {
        Json::array items(bytes.ConsumeIntegralInRange<std::size_t>(0, 8));
        for (Json &item : items) item = value(depth + 1);
        return items;
      }
      default: {
        Json::object members;
        for (int count = bytes.ConsumeIntegralInRange(0, 4); count > 0; --count)
          members[bytes.ConsumeRandomLengthString(8)] = value(depth + 1);
        return members;
      }
    }
  }

  FuzzedDataProvider bytes;
};

/// Never destroyed: LLDB is not either.
DebugSession *session;

void checkCompletions(const Json &request, const Json &response) {
  const Json &completions = response["completions"];
  check(completions.type() == JsonType::Array, "completions are a list");
  for (const Json &completion : completions.arrayItems())
    check(completion.type() == JsonType::String, "a completion is a text");
  const std::uint64_t position = request["pos"].uint64Value() & 0xffffffff;
  if (position > request["cli"].stringValue().size())
    check(completions.arrayItems().empty(), "a position after the end has no completions");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  noProcess::start();
  session = new DebugSession(noProcess::makeStream(), noProcess::makeStream(), false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const Json request = RequestMaker(data, size).make();
  const std::string &command = request["command"].stringValue();
  const bool isCommandLine = command == "executeCommand",
             isCompletion = command == "completeCommand";
  if (noProcess::reachesOutside(request) && !isCommandLine && !isCompletion) return 0;
  const Json response = session->handleRequest(request);
  const std::string text = response.dump();
  std::string error;
  check(Json::parse(text, error).dump() == text && error.empty(), "a response can be parsed");
  if (isCommandLine) {
    check(
        response["status"].stringValue() == "ok" && response["succeeded"].type() == JsonType::Bool,
        "a command line is answered with ok");
  } else if (isCompletion) {
    checkCompletions(request, response);
  } else {
    noProcess::checkResponse(request, response);
  }
  return 0;
}
