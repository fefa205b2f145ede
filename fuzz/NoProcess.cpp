#include "NoProcess.h"

#include <lldb/API/LLDB.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "Check.h"
#include "platform/Log.h"
#include "platform/Process.h"

namespace noProcess {

namespace {

constexpr std::string_view outside[] = {"attachToProcess", "completeCommand", "connectRemote",
                                        "createProcess", "executeCommand"};

/// The commands that need no target, and those whose error is "no target". Of all others it is
/// "no process".
constexpr std::string_view withoutNeeds[] = {"ping", "prepareExecutable"};
constexpr std::string_view onTargets[] = {"getProcessState", "continueExecution",
                                          "setBreakpointAtVirtualAddress", "removeBreakpoint",
                                          "removeAllBreakpoints"};
constexpr std::string_view onProcesses[] = {
    "detach",          "deleteProcess",  "hasProcess",        "stopExecution",   "breakExecution",
    "getThreadIDList", "selectThreadID", "getRegisters",      "stepInstruction", "stepOver",
    "stepOut",         "readMemory",     "writeByte",         "getCallstack",    "selectFrame",
    "setRegister",     "moduleCount",    "sendToApplication", "moduleAtIndex",   "moduleForFile"};

template <typename Names>
bool isIn(const Names &names, std::string_view name) {
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

Json error(const std::string &message) {
  return Json(Json::object{{"message", message}, {"status", "error"}});
}

}  // namespace

void start() {
  platform::startEnvironment();
  platform::forgetPythonHome();
  platform::setLogSink([](const std::string &) {});
  lldb::SBDebugger::Initialize();
}

FILE *makeStream() {
  FILE *stream = std::tmpfile();
  check(stream != nullptr, "there is room for a temporary file");
  return stream;
}

void fill(FILE *stream, const std::string &bytes) {
  std::rewind(stream);
  check(ftruncate(fileno(stream), 0) == 0, "a temporary file can be emptied");
  check(std::fwrite(bytes.data(), 1, bytes.size(), stream) == bytes.size() &&
            std::fflush(stream) == 0,
        "a temporary file can be written to");
  std::rewind(stream);
}

std::string written(FILE *stream) {
  std::fflush(stream);
  std::string bytes(static_cast<std::size_t>(std::ftell(stream)), '\0');
  // Through the descriptor: standard output is not open for reading.
  check(pread(fileno(stream), bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
        "a temporary file can be read");
  return bytes;
}

bool reachesOutside(const Json &request) { return isIn(outside, request["command"].stringValue()); }

Json response(const Json &request) {
  const std::string &name = request["command"].stringValue();
  if (isIn(withoutNeeds, name)) return Json(Json::object{{"status", "ok"}});
  if (isIn(onTargets, name)) return error("no target");
  if (isIn(onProcesses, name)) return error("no process");
  return error("unknown command '" + name + "'");
}

}  // namespace noProcess
