#pragma once

#include <lldb/API/LLDB.h>

#include <atomic>
#include <cstdint>
#include <future>
#include <optional>

#include "channel/MessageChannel.h"
#include "events/PublicState.h"

/// What the event thread runs: takes LLDB's events for one target and its process and reports them
/// to the host as messages with "status": "event".
///
/// Everything LLDB that it touches is its own copy, taken when it starts; a new process therefore
/// gets a new monitor. Beside that it uses the channel's writer, which any thread may, the stop
/// flag, and the public state.
class EventMonitor {
 public:
  /// An event of this type, from a broadcaster that the debugger's listener listens to, ends a wait
  /// before its time. It matches nothing and is ignored.
  static constexpr std::uint32_t wakeupBit = 1;

  /// The section by which a module's place is told: on macOS the one behind __PAGEZERO, __TEXT.
  static constexpr std::size_t placingSection = 1;

  /// `channel`, `stop` and `publicState` must outlive the monitor. `silentState`, if there is one,
  /// is the state that the process reached without an event of LLDB's.
  EventMonitor(lldb::SBDebugger debugger, lldb::SBTarget target, MessageChannel &channel,
               std::atomic<bool> &stop, PublicState &publicState,
               std::optional<lldb::StateType> silentState = std::nullopt);

  /// Clears `stop`, and fulfils `listening` when no event can be missed any more and no stop
  /// request lost. Then reports the silent state, and what LLDB's events are about, until `stop` is
  /// set.
  void run(std::promise<void> &listening);

 private:
  void handleEvent();
  void handleProcessEvent(std::uint32_t type);
  void handleTargetEvent(std::uint32_t type);

  /// One message for each read of at most 256 bytes, until a read comes back shorter.
  using OutputReader = std::size_t (lldb::SBProcess::*)(char *, std::size_t) const;
  void reportOutput(const char *type, OutputReader read);
  void reportState(lldb::StateType state, bool isRestarted);
  void reportModulesLoaded();
  void reportModulesUnloaded();

  /// Completes `members` with "status" and "type" and sends them.
  void send(const char *type, Json::object members);

  lldb::SBTarget target;
  lldb::SBProcess process;
  lldb::SBListener listener;
  lldb::SBEvent event;
  MessageChannel &channel;
  std::atomic<bool> &stop;
  PublicState &publicState;
  std::optional<lldb::StateType> silentState;
};
