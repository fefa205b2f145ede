// LLDB's own command line, and the debugged program's standard input.

#include <cstring>

#include "channel/Envelope.h"
#include "session/DebugSession.h"

Json DebugSession::executeCommand(const std::string &commandLine) {
  lldb::SBCommandInterpreter interpreter = debugger.GetCommandInterpreter();
  lldb::SBCommandReturnObject result;
  constexpr bool addToHistory = false;
  const lldb::SBProcess before = currentProcess();
  eventThread.awaitStates(before);  // the line may be "kill"
  eventThread.showStops();          // or "continue"
  interpreter.HandleCommand(commandLine.c_str(), result, addToHistory);
  if (!target.IsValid()) forgetTarget(before);  // or "target delete"
  Json::object members;
  if (const char *output = result.GetOutput()) members["output"] = output;
  if (const char *error = result.GetError()) members["error"] = error;
  members["succeeded"] = result.Succeeded();
  // Deliberate: a command that LLDB refuses is no failure of the request; "succeeded" tells.
  return okResponseWith(std::move(members));
}

void DebugSession::forgetTarget(const lldb::SBProcess &itsProcess) {
  eventThread.awaitStates(itsProcess);  // its exit is the host's, if LLDB still knows of it
  eventThread.stop();
  applicationInput.reset();
  target = lldb::SBTarget();
  process = lldb::SBProcess();
}

Json DebugSession::completeCommand(const std::string &commandLine, std::uint32_t position) {
  lldb::SBCommandInterpreter interpreter = debugger.GetCommandInterpreter();
  lldb::SBStringList matches;
  constexpr int firstMatch = 0;
  constexpr int allMatches = -1;
  // Behind the end LLDB completes nothing, if it does not crash while looking at what lies there.
  // To LLDB a zero byte is the end.
  const char *const line = commandLine.c_str();
  if (position <= std::strlen(line))
    interpreter.HandleCompletion(line, position, firstMatch, allMatches, matches);
  Json::array completions;
  for (std::uint32_t index = 0; index < matches.GetSize(); ++index) {
    const char *match = matches.GetStringAtIndex(index);
    completions.push_back(match != nullptr ? match : "");
  }
  return okResponseWith({{"completions", std::move(completions)}});
}

Json DebugSession::sendToApplication(const Json::array &data) {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("sendToApplication", "no process");
  std::string bytes;
  bytes.reserve(data.size());
  for (const Json &item : data) bytes += static_cast<char>(item.intValue() & 0xff);
  // LLDB's command line may have put a new process in place of the one that was written to.
  if (applicationInput && !applicationInput->isFor(current)) applicationInput.reset();
  process = current;  // the earlier one's terminal closes with its last handle
  if (!applicationInput) applicationInput = std::make_unique<ApplicationInput>(current);
  applicationInput->write(std::move(bytes));
  return okResponse();
}
