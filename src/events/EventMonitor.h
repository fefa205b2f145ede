#pragma once

#include <lldb/API/LLDB.h>

#include <atomic>
#include <cstdint>
#include <future>
#include <optional>

#include "channel/MessageChannel.h"

/// What the event thread runs: takes LLDB's events for one target and its process and reports them
/// to the host as messages with "status": "event".
///
/// Everything LLDB that it touches is its own copy, taken when it starts; a new process therefore
/// gets a new monitor. Beside that it uses the channel's writer, which any thread may, and the stop
/// flag.
class EventMonitor {
 public:
  /// What the thread that started the monitor may wait for.
  struct Milestones {
    /// From here on no event is missed and no stop request lost.
    std::promise<void> listening;
    /// The first state change of the process has been reported to the host.
    std::promise<void> firstStateReported;
  };

  /// An event of this type, from a broadcaster that the debugger's listener listens to, ends a wait
  /// before its time. It matches nothing and is ignored.
  static constexpr std::uint32_t wakeupBit = 1;

  /// The section by which a module's place is told: on macOS the one behind __PAGEZERO, __TEXT.
  static constexpr std::size_t placingSection = 1;

  /// `channel` and the two flags must outlive the monitor. While `stopsAreHidden` is set, stops are
  /// not the host's. `silentState`, if there is one, is the state that the process reached without
  /// an event of LLDB's.
  EventMonitor(lldb::SBDebugger debugger, lldb::SBTarget target, MessageChannel &channel,
               std::atomic<bool> &stop, const std::atomic<bool> &stopsAreHidden,
               Milestones milestones, std::optional<lldb::StateType> silentState = std::nullopt);

  /// Reports the silent state, then listens and reports until `stop` is set. Clears `stop` first.
  void run();

 private:
  void handleEvent();
  void handleProcessEvent(std::uint32_t type);
  void handleTargetEvent(std::uint32_t type);

  /// One message for each read of at most 256 bytes, until a read comes back shorter.
  using OutputReader = std::size_t (lldb::SBProcess::*)(char *, std::size_t) const;
  void reportOutput(const char *type, OutputReader read);
  void reportState(lldb::StateType state);
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
  const std::atomic<bool> &stopsAreHidden;
  Milestones milestones;
  std::optional<lldb::StateType> silentState;
  bool stateWasReported = false;
};
