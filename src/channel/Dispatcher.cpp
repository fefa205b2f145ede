// handleRequest: the table of the commands, in the order of docs/protocol.md.

#include <algorithm>
#include <iterator>
#include <string_view>

#include "channel/ArgumentText.h"
#include "channel/Envelope.h"
#include "session/DebugSession.h"

namespace {

using Handler = Json (*)(DebugSession &session, const Json &request);

struct Command {
  std::string_view name;
  /// Takes the command's arguments out of the request. An absent argument, or one of another kind,
  /// arrives as the accessor's default; only the command itself can tell whether that is an error.
  Handler handle;
};

Json prepareExecutable(DebugSession &session, const Json &request) {
  std::vector<EnvironmentEntry> environment;
  // Deliberate: a malformed text keeps the entries before the mistake and is no error.
  parseEnvironment(request["env"].stringValue(), environment);
  return session.prepareExecutable(request["path"].stringValue(), request["is64Bits"].boolValue(),
                                   request["triple"].stringValue(), request["cwd"].stringValue(),
                                   std::move(environment),
                                   splitArguments(request["args"].stringValue()));
}

/// A handler without arguments.
template <Json (DebugSession::*handler)()>
Json plain(DebugSession &session, const Json &) {
  return (session.*handler)();
}

const Command commands[] = {
    {"ping", [](DebugSession &, const Json &) { return okResponse(); }},
    {"prepareExecutable", prepareExecutable},
    {"createProcess", plain<&DebugSession::createProcess>},
    {"attachToProcess", nullptr},
    {"detach", plain<&DebugSession::detach>},
    {"deleteProcess", plain<&DebugSession::deleteProcess>},
    {"hasProcess", plain<&DebugSession::hasProcess>},
    {"getProcessState", plain<&DebugSession::getProcessState>},
    {"continueExecution", plain<&DebugSession::continueExecution>},
    {"stopExecution", plain<&DebugSession::stopExecution>},
    {"breakExecution", plain<&DebugSession::breakExecution>},
    {"getThreadIDList", nullptr},
    {"selectThreadID", nullptr},
    {"getRegisters", nullptr},
    {"setBreakpointAtVirtualAddress", nullptr},
    {"removeBreakpoint", nullptr},
    {"removeAllBreakpoints", nullptr},
    {"stepInstruction", nullptr},
    {"stepOver", nullptr},
    {"stepOut", nullptr},
    {"readMemory", nullptr},
    {"writeByte", nullptr},
    {"getCallstack", nullptr},
    {"selectFrame", nullptr},
    {"setRegister", nullptr},
    {"executeCommand", nullptr},
    {"completeCommand", nullptr},
    {"sendToApplication", nullptr},
    {"moduleCount", nullptr},
    {"moduleAtIndex", nullptr},
    {"moduleForFile", nullptr},
    {"connectRemote", nullptr},
};

}  // namespace

Json DebugSession::handleRequest(const Json &request) {
  const std::string &name = request["command"].stringValue();
  const auto command = std::find_if(std::begin(commands), std::end(commands),
                                    [&](const Command &row) { return row.name == name; });
  Json response;
  if (command != std::end(commands) && command->handle != nullptr)
    response = command->handle(*this, request);
  if (response.type() == JsonType::Null)
    return errorResponse("handleRequest", "unknown command '" + name + "'");
  return response;
}
