// Reading a block of memory, and writing one byte.

#include "channel/Envelope.h"
#include "channel/MessageChannel.h"
#include "events/StateName.h"
#include "session/DebugSession.h"
#include "session/Outcome.h"

namespace {

/// What a response with memory holds beside it takes less.
constexpr std::size_t envelopeRoom = 1024;

}  // namespace

Json DebugSession::readMemory(std::uint64_t address, std::int64_t length) {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("readMemory", "no process");
  if (length < 0) return errorResponse("readMemory", "unable to read memory");
  JsonBytes bytes(static_cast<std::size_t>(length));
  lldb::SBError error;
  current.ReadMemory(address, bytes.data(), bytes.size(), error);
  // Where the text would not fit a frame there is no honest answer but this.
  if (!error.Success() || bytes.textSize() > MessageChannel::longestText - envelopeRoom)
    return errorResponse("readMemory", "unable to read memory");
  return okResponseWith({{"memory", Json(std::move(bytes))}});
}

Json DebugSession::writeByte(std::uint64_t address, std::uint8_t byte) {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("writeByte", "no process");
  lldb::SBError error;
  current.WriteMemory(address, &byte, 1, error);
  if (error.Success()) return okResponse();
  return errorResponse("writeByte", "unable to write memory: " + errorText(error) + " (state " +
                                        stateName(current.GetState()) + ")");
}
