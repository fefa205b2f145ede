// The table of the commands, and handleRequest, which goes by it.

#include <algorithm>
#include <utility>

#include "channel/Envelope.h"
#include "channel/LaunchArguments.h"
#include "session/DebugSession.h"

namespace {

/// What the session must have, or must not have, when a command is called.
enum class Needs {
  Nothing,
  NoTarget,           ///< else "process already exists"
  NoProcess,          ///< else "already has a process"
  Target,             ///< else "no target"
  Process,            ///< else "no process", which includes that there is no target
  TargetThenProcess,  ///< without a target "no target", without a process "no process"
};
using enum Needs;

/// Returns the message of the error, or null when the session has what the command needs.
const char *whyRefused(Needs needs, bool hasTarget, bool hasProcess) {
  switch (needs) {
    case Nothing: return nullptr;
    case NoTarget: return hasTarget ? "process already exists" : nullptr;
    case NoProcess: return hasProcess ? "already has a process" : nullptr;
    case Target: return hasTarget ? nullptr : "no target";
    case Process: return hasProcess ? nullptr : "no process";
    case TargetThenProcess: return whyRefused(hasTarget ? Process : Target, hasTarget, hasProcess);
  }
  return nullptr;
}

/// A row of the table. A new command is a new row, and a member of DebugSession with its name.
struct Command {
  const char *name;
  Needs needs;
  /// Takes the command's arguments from the request and calls the handler. An argument that is
  /// missing or of another kind becomes the accessor's default. The handler decides whether that is
  /// an error.
  Json (*call)(DebugSession &session, const Json &request);
};

/// Calls the handler of a command that takes no arguments.
template <Json (DebugSession::*handler)()>
Json plain(DebugSession &session, const Json &) {
  return (session.*handler)();
}

/// Deliberate: drops the higher bits. A host may extend the sign of a 32-bit number.
std::uint32_t truncateToUint32(const Json &number) {
  return static_cast<std::uint32_t>(number.uint64Value());
}

Json prepareExecutable(DebugSession &session, const Json &request) {
  std::vector<EnvironmentEntry> environment;
  // Deliberate: a malformed text is no error. The entries before the mistake count.
  parseEnvironment(request["env"].stringValue(), environment);
  return session.prepareExecutable(request["path"].stringValue(), request["is64Bits"].boolValue(),
                                   request["triple"].stringValue(), request["cwd"].stringValue(),
                                   std::move(environment),
                                   splitArguments(request["args"].stringValue()));
}

// All commands, in the order of docs/protocol.md.
// clang-format off
const Command commands[] = {
    {"ping",                          Nothing,           [](DebugSession &, const Json &) { return okResponse(); }},
    {"prepareExecutable",             Nothing,           prepareExecutable},
    {"createProcess",                 NoTarget,          plain<&DebugSession::createProcess>},
    {"attachToProcess",               NoTarget,          [](DebugSession &s, const Json &r) {
        return s.attachToProcess(r["pid"].uint64Value(), r["executable"].stringValue(),
                                 r["is64Bits"].boolValue(), r["triple"].stringValue()); }},
    {"detach",                        Process,           plain<&DebugSession::detach>},
    {"deleteProcess",                 Process,           plain<&DebugSession::deleteProcess>},
    {"hasProcess",                    Process,           plain<&DebugSession::hasProcess>},
    {"getProcessState",               TargetThenProcess, plain<&DebugSession::getProcessState>},
    {"continueExecution",             TargetThenProcess, plain<&DebugSession::continueExecution>},
    {"stopExecution",                 Process,           plain<&DebugSession::stopExecution>},
    {"breakExecution",                Process,           plain<&DebugSession::breakExecution>},
    {"getThreadIDList",               Process,           plain<&DebugSession::getThreadIDList>},
    {"selectThreadID",                Process,           [](DebugSession &s, const Json &r) {
        return s.selectThreadID(r["tid"].uint64Value()); }},
    {"getRegisters",                  Process,           plain<&DebugSession::getRegisters>},
    {"setBreakpointAtVirtualAddress", Target,            [](DebugSession &s, const Json &r) {
        return s.setBreakpointAtVirtualAddress(r["address"].uint64Value()); }},
    {"removeBreakpoint",              Target,            [](DebugSession &s, const Json &r) {
        return s.removeBreakpoint(r["bkpt_id"].intValue()); }},
    {"removeAllBreakpoints",          Target,            plain<&DebugSession::removeAllBreakpoints>},
    {"stepInstruction",               Process,           plain<&DebugSession::stepInstruction>},
    {"stepOver",                      Process,           plain<&DebugSession::stepOver>},
    {"stepOut",                       Process,           plain<&DebugSession::stepOut>},
    {"readMemory",                    Process,           [](DebugSession &s, const Json &r) {
        return s.readMemory(r["address"].uint64Value(), r["length"].intValue()); }},
    {"writeByte",                     Process,           [](DebugSession &s, const Json &r) {
        return s.writeByte(r["address"].uint64Value(),
                           static_cast<std::uint8_t>(r["value"].intValue() & 0xff)); }},
    {"getCallstack",                  Process,           plain<&DebugSession::getCallstack>},
    {"selectFrame",                   Process,           [](DebugSession &s, const Json &r) {
        return s.selectFrame(truncateToUint32(r["index"])); }},
    {"setRegister",                   Process,           [](DebugSession &s, const Json &r) {
        return s.setRegister(r["register"].stringValue(), r["value"].stringValue()); }},
    {"executeCommand",                Nothing,           [](DebugSession &s, const Json &r) {
        return s.executeCommand(r["cli"].stringValue()); }},
    {"completeCommand",               Nothing,           [](DebugSession &s, const Json &r) {
        return s.completeCommand(r["cli"].stringValue(), truncateToUint32(r["pos"])); }},
    {"sendToApplication",             Process,           [](DebugSession &s, const Json &r) {
        return s.sendToApplication(r["data"].arrayItems()); }},
    {"moduleCount",                   Process,           plain<&DebugSession::moduleCount>},
    {"moduleAtIndex",                 Process,           [](DebugSession &s, const Json &r) {
        return s.moduleAtIndex(truncateToUint32(r["index"])); }},
    {"moduleForFile",                 Process,           [](DebugSession &s, const Json &r) {
        return s.moduleForFile(r["file"].stringValue()); }},
    // The request also has "platform", which is not used.
    {"connectRemote",                 NoProcess,         [](DebugSession &s, const Json &r) {
        return s.connectRemote(r["is64Bits"].boolValue(), r["triple"].stringValue(),
                               r["url"].stringValue(), r["plugin"].stringValue(),
                               r["file"].stringValue()); }},
};
// clang-format on

}  // namespace

Json DebugSession::handleRequest(const Json &request) {
  const std::string &name = request["command"].stringValue();
  const auto row = std::find_if(std::begin(commands), std::end(commands),
                                [&](const Command &command) { return command.name == name; });
  if (row == std::end(commands)) return errorResponse(__func__, "unknown command '" + name + "'");
  // LLDB's command line may have replaced the process.
  process = target.IsValid() ? target.GetProcess() : lldb::SBProcess();
  if (const char *reason = whyRefused(row->needs, target.IsValid(), process.IsValid()))
    return errorResponse(row->name, reason);
  return row->call(*this, request);
}
