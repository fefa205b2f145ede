// The registers of the selected thread's selected frame, as texts.

#include "channel/Envelope.h"
#include "session/DebugSession.h"
#include "session/LldbError.h"

Json DebugSession::getRegisters() {
  const lldb::SBFrame frame = process.GetSelectedThread().GetSelectedFrame();
  return okResponseWith({{"registers", registerReader.read(process, frame, hasOwnServer())}});
}

Json DebugSession::setRegister(const std::string &name, const std::string &value) {
  lldb::SBValue found = process.GetSelectedThread().GetSelectedFrame().FindRegister(name.c_str());
  if (!found.IsValid()) return errorResponse(__func__, "register not found");
  lldb::SBError error;
  if (!found.SetValueFromCString(value.c_str(), error))
    return errorResponse(__func__, "cannot set the register value: " + errorText(error));
  return okResponse();
}
