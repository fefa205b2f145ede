// Reading a block of memory, and writing one byte.

#include "channel/Envelope.h"
#include "channel/MessageChannel.h"
#include "events/StateName.h"
#include "session/DebugSession.h"
#include "session/LldbError.h"
#include "session/LldbSettings.h"

namespace {

/// The rest of a response with memory takes fewer bytes than this.
constexpr std::size_t envelopeRoom = 1024;

}  // namespace

Json DebugSession::readMemory(std::uint64_t address, std::int64_t length) {
  if (length < 0) return errorResponse(__func__, "unable to read memory");
  JsonBytes bytes(static_cast<std::size_t>(length));
  lldb::SBError error;
  {
    const UncachedRead uncached(debugger, target, bytes.size());
    process.ReadMemory(address, bytes.data(), bytes.size(), error);
  }
  // A text that does not fit a frame is an error, not a shorter answer.
  if (!error.Success() || bytes.textSize() > MessageChannel::maxOutgoingSize - envelopeRoom)
    return errorResponse(__func__, "unable to read memory");
  return okResponseWith({{"memory", Json(std::move(bytes))}});
}

Json DebugSession::writeByte(std::uint64_t address, std::uint8_t byte) {
  lldb::SBError error;
  process.WriteMemory(address, &byte, 1, error);
  if (error.Success()) return okResponse();
  return errorResponse(__func__, "unable to write memory: " + errorText(error) + " (state " +
                                     stateName(process.GetState()) + ")");
}
