// handleRequest: the table of the commands, in the order of docs/protocol.md.

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "channel/Envelope.h"
#include "channel/LaunchArguments.h"
#include "session/DebugSession.h"

namespace {

using Session = DebugSession &;
using Request = const Json &;

struct Command {
  std::string_view name;
  /// Takes the command's arguments out of the request. An absent argument, or one of another kind,
  /// arrives as the accessor's default; only the handler can tell whether that is an error.
  Json (*handle)(Session session, Request request);
};

/// Deliberate: higher bits are cut off, not refused.
std::uint32_t low32(const Json &number) { return static_cast<std::uint32_t>(number.uint64Value()); }

Json prepareExecutable(Session session, Request request) {
  std::vector<EnvironmentEntry> environment;
  // Deliberate: a malformed text keeps the entries before the mistake and is no error.
  parseEnvironment(request["env"].stringValue(), environment);
  return session.prepareExecutable(request["path"].stringValue(), request["is64Bits"].boolValue(),
                                   request["triple"].stringValue(), request["cwd"].stringValue(),
                                   std::move(environment),
                                   splitArguments(request["args"].stringValue()));
}

// clang-format off
const Command commands[] = {
    {"ping",              [](Session, Request) { return okResponse(); }},
    {"prepareExecutable", prepareExecutable},
    {"createProcess",     [](Session s, Request) { return s.createProcess(); }},
    {"attachToProcess",   [](Session s, Request r) {
        return s.attachToProcess(r["pid"].uint64Value(), r["executable"].stringValue(),
                                 r["is64Bits"].boolValue(), r["triple"].stringValue()); }},
    {"detach",            [](Session s, Request) { return s.detach(); }},
    {"deleteProcess",     [](Session s, Request) { return s.deleteProcess(); }},
    {"hasProcess",        [](Session s, Request) { return s.hasProcess(); }},
    {"getProcessState",   [](Session s, Request) { return s.getProcessState(); }},
    {"continueExecution", [](Session s, Request) { return s.continueExecution(); }},
    {"stopExecution",     [](Session s, Request) { return s.stopExecution(); }},
    {"breakExecution",    [](Session s, Request) { return s.breakExecution(); }},
    {"getThreadIDList",   [](Session s, Request) { return s.getThreadIDList(); }},
    {"selectThreadID",    [](Session s, Request r) { return s.selectThreadID(r["tid"].uint64Value()); }},
    {"getRegisters",      [](Session s, Request) { return s.getRegisters(); }},
    {"setBreakpointAtVirtualAddress", [](Session s, Request r) {
        return s.setBreakpointAtVirtualAddress(r["address"].uint64Value()); }},
    {"removeBreakpoint",  [](Session s, Request r) { return s.removeBreakpoint(r["bkpt_id"].intValue()); }},
    {"removeAllBreakpoints", [](Session s, Request) { return s.removeAllBreakpoints(); }},
    {"stepInstruction",   [](Session s, Request) { return s.stepInstruction(); }},
    {"stepOver",          [](Session s, Request) { return s.stepOver(); }},
    {"stepOut",           [](Session s, Request) { return s.stepOut(); }},
    {"readMemory",        [](Session s, Request r) {
        return s.readMemory(r["address"].uint64Value(), r["length"].intValue()); }},
    {"writeByte",         [](Session s, Request r) {
        return s.writeByte(r["address"].uint64Value(),
                           static_cast<std::uint8_t>(r["value"].intValue() & 0xff)); }},
    {"getCallstack",      [](Session s, Request) { return s.getCallstack(); }},
    {"selectFrame",       [](Session s, Request r) { return s.selectFrame(low32(r["index"])); }},
    {"setRegister",       [](Session s, Request r) {
        return s.setRegister(r["register"].stringValue(), r["value"].stringValue()); }},
    {"executeCommand",    [](Session s, Request r) { return s.executeCommand(r["cli"].stringValue()); }},
    {"completeCommand",   [](Session s, Request r) {
        return s.completeCommand(r["cli"].stringValue(), low32(r["pos"])); }},
    {"sendToApplication", [](Session s, Request r) { return s.sendToApplication(r["data"].arrayItems()); }},
    {"moduleCount",       [](Session s, Request) { return s.moduleCount(); }},
    {"moduleAtIndex",     [](Session s, Request r) { return s.moduleAtIndex(low32(r["index"])); }},
    {"moduleForFile",     [](Session s, Request r) { return s.moduleForFile(r["file"].stringValue()); }},
    // "platform" is part of this request and not used.
    {"connectRemote",     [](Session s, Request r) {
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
