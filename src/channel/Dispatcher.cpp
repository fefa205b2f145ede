// handleRequest: the table of the commands, in the order of docs/protocol.md.

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "channel/Envelope.h"
#include "channel/LaunchArguments.h"
#include "session/DebugSession.h"

namespace {

struct Command {
  std::string_view name;
  /// Takes the command's arguments from the request and calls the handler. An argument that is
  /// missing or of another kind becomes the accessor's default. The handler decides whether that is
  /// an error.
  Json (*handle)(DebugSession &session, const Json &request);
};

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

// clang-format off
const Command commands[] = {
    {"ping",              [](DebugSession &, const Json &) { return okResponse(); }},
    {"prepareExecutable", prepareExecutable},
    {"createProcess",     [](DebugSession &s, const Json &) { return s.createProcess(); }},
    {"attachToProcess",   [](DebugSession &s, const Json &r) {
        return s.attachToProcess(r["pid"].uint64Value(), r["executable"].stringValue(),
                                 r["is64Bits"].boolValue(), r["triple"].stringValue()); }},
    {"detach",            [](DebugSession &s, const Json &) { return s.detach(); }},
    {"deleteProcess",     [](DebugSession &s, const Json &) { return s.deleteProcess(); }},
    {"hasProcess",        [](DebugSession &s, const Json &) { return s.hasProcess(); }},
    {"getProcessState",   [](DebugSession &s, const Json &) { return s.getProcessState(); }},
    {"continueExecution", [](DebugSession &s, const Json &) { return s.continueExecution(); }},
    {"stopExecution",     [](DebugSession &s, const Json &) { return s.stopExecution(); }},
    {"breakExecution",    [](DebugSession &s, const Json &) { return s.breakExecution(); }},
    {"getThreadIDList",   [](DebugSession &s, const Json &) { return s.getThreadIDList(); }},
    {"selectThreadID",    [](DebugSession &s, const Json &r) { return s.selectThreadID(r["tid"].uint64Value()); }},
    {"getRegisters",      [](DebugSession &s, const Json &) { return s.getRegisters(); }},
    {"setBreakpointAtVirtualAddress", [](DebugSession &s, const Json &r) {
        return s.setBreakpointAtVirtualAddress(r["address"].uint64Value()); }},
    {"removeBreakpoint",  [](DebugSession &s, const Json &r) { return s.removeBreakpoint(r["bkpt_id"].intValue()); }},
    {"removeAllBreakpoints", [](DebugSession &s, const Json &) { return s.removeAllBreakpoints(); }},
    {"stepInstruction",   [](DebugSession &s, const Json &) { return s.stepInstruction(); }},
    {"stepOver",          [](DebugSession &s, const Json &) { return s.stepOver(); }},
    {"stepOut",           [](DebugSession &s, const Json &) { return s.stepOut(); }},
    {"readMemory",        [](DebugSession &s, const Json &r) {
        return s.readMemory(r["address"].uint64Value(), r["length"].intValue()); }},
    {"writeByte",         [](DebugSession &s, const Json &r) {
        return s.writeByte(r["address"].uint64Value(),
                           static_cast<std::uint8_t>(r["value"].intValue() & 0xff)); }},
    {"getCallstack",      [](DebugSession &s, const Json &) { return s.getCallstack(); }},
    {"selectFrame",       [](DebugSession &s, const Json &r) { return s.selectFrame(truncateToUint32(r["index"])); }},
    {"setRegister",       [](DebugSession &s, const Json &r) {
        return s.setRegister(r["register"].stringValue(), r["value"].stringValue()); }},
    {"executeCommand",    [](DebugSession &s, const Json &r) { return s.executeCommand(r["cli"].stringValue()); }},
    {"completeCommand",   [](DebugSession &s, const Json &r) {
        return s.completeCommand(r["cli"].stringValue(), truncateToUint32(r["pos"])); }},
    {"sendToApplication", [](DebugSession &s, const Json &r) { return s.sendToApplication(r["data"].arrayItems()); }},
    {"moduleCount",       [](DebugSession &s, const Json &) { return s.moduleCount(); }},
    {"moduleAtIndex",     [](DebugSession &s, const Json &r) { return s.moduleAtIndex(truncateToUint32(r["index"])); }},
    {"moduleForFile",     [](DebugSession &s, const Json &r) { return s.moduleForFile(r["file"].stringValue()); }},
    // The request also has "platform", which is not used.
    {"connectRemote",     [](DebugSession &s, const Json &r) {
        return s.connectRemote(r["is64Bits"].boolValue(), r["triple"].stringValue(),
                               r["url"].stringValue(), r["plugin"].stringValue(),
                               r["file"].stringValue()); }},
};
// clang-format on

}  // namespace

Json DebugSession::handleRequest(const Json &request) {
  const std::string &name = request["command"].stringValue();
  const auto command = std::find_if(std::begin(commands), std::end(commands),
                                    [&](const Command &row) { return row.name == name; });
  if (command != std::end(commands)) return command->handle(*this, request);
  return errorResponse("handleRequest", "unknown command '" + name + "'");
}
