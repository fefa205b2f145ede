// The registers of the selected thread's selected frame, as texts.

#include "channel/Envelope.h"
#include "session/DebugSession.h"
#include "session/LldbError.h"

Json DebugSession::getRegisters() {
  const lldb::SBFrame frame = process.GetSelectedThread().GetSelectedFrame();
  return okResponseWith({{"registers", registerReader.read(process, frame, hasOwnServer())}});
}

Json DebugSession::setRegister(const std::string &name, const std::string &value) {
  lldb::SBFrame frame = process.GetSelectedThread().GetSelectedFrame();
  lldb::SBValue found = frame.FindRegister(name.c_str());
  if (!found.IsValid()) return errorResponse(__func__, "register not found");
  lldb::SBError error;
  if (!found.SetValueFromCString(value.c_str(), error))
    return errorResponse(__func__, "cannot set the register value: " + errorText(error));
  // LLDB keeps the frames that it has unwound with the old value, and drops them only when the
  // program counter is set. So this sets it to the value that it already has. In an outer frame
  // that would change the program, so it is not set there, and LLDB keeps the unwound frames.
  const lldb::addr_t pc = frame.FindRegister("pc").GetValueAsUnsigned(LLDB_INVALID_ADDRESS);
  if (frame.GetFrameID() == 0 && pc != LLDB_INVALID_ADDRESS) frame.SetPC(pc);
  return okResponse();
}
