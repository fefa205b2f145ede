// LLDB's own command line, and the debugged program's standard input.

#include <cstring>

#include "channel/Envelope.h"
#include "session/DebugSession.h"

Json DebugSession::executeCommand(const std::string &commandLine) {
  lldb::SBCommandInterpreter interpreter = debugger.GetCommandInterpreter();
  lldb::SBCommandReturnObject result;
  constexpr bool addToHistory = false;
  const lldb::SBProcess before = process;
  runControl.waitForQueuedStates(before);  // the line may be "kill"
  reportedState.showStops();               // or "continue"
  runControl.forgetStepped();              // or "thread select"
  interpreter.HandleCommand(commandLine.c_str(), result, addToHistory);
  if (!target.IsValid()) forgetTarget(before);  // or "target delete"
  Json::object members;
  if (const char *output = result.GetOutput()) members["output"] = output;
  if (const char *error = result.GetError()) members["error"] = error;
  members["succeeded"] = result.Succeeded();
  // Deliberate: a command that LLDB refuses is no error of the request. Hosts read "succeeded".
  return okResponseWith(std::move(members));
}

Json DebugSession::completeCommand(const std::string &commandLine, std::uint32_t position) {
  lldb::SBCommandInterpreter interpreter = debugger.GetCommandInterpreter();
  lldb::SBStringList matches;
  constexpr int firstMatch = 0;
  constexpr int allMatches = -1;
  // LLDB reads the byte at the position. LLDB 22 crashes far past the end, and all others complete
  // nothing there. LLDB ends the line at a zero byte.
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
  std::string bytes;
  bytes.reserve(data.size());
  for (const Json &item : data) bytes += static_cast<char>(item.intValue() & 0xff);
  // LLDB's command line may have replaced the process. The earlier writer ends first: it holds the
  // last handle of its process and so keeps that pty open, and the new writer would find that one.
  if (inferiorInput && !inferiorInput->isFor(process)) inferiorInput.reset();
  if (!inferiorInput) inferiorInput = std::make_unique<InferiorInput>(process);
  inferiorInput->write(std::move(bytes));
  return okResponse();
}
