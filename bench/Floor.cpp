// LLDB used plainly, for each job: its default settings and the obvious calls. No texts, no pipes.

#include <lldb/API/LLDB.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "Subject.h"

namespace {

/// Adding to it keeps the compiler from removing calls whose results are not used.
volatile std::size_t sink;

void use(const char *text) { sink = sink + (text != nullptr); }

void useNames(lldb::SBModule &module) {
  use(module.GetUUIDString());
  const lldb::SBFileSpec file = module.GetFileSpec();
  if (file.IsValid()) use(file.GetFilename());
}

void check(const lldb::SBError &error) {
  if (error.Fail()) throw std::runtime_error(error.GetCString());
}

}  // namespace

class Floor : public Subject {
 public:
  Floor();
  ~Floor() override;

  std::string name() const override { return "floor"; }
  void launch(const std::string &program, const std::vector<std::string> &arguments) override;
  void deleteProcess() override;
  void breakAt(std::uint64_t address) override { target.BreakpointCreateByAddress(address); }
  void removeBreakpoints() override { target.DeleteAllBreakpoints(); }
  void resume() override;
  void step() override;
  void runToExit() override;
  void readMemory(std::uint64_t address, std::size_t size) override;
  void readRegisters() override;
  void readStack() override;
  void listThreads() override;
  void listModules(bool waits) override;

  std::string bytes() override { return memory; }
  std::string output() override { return outputSoFar; }
  std::vector<std::uint64_t> stack() override;
  std::size_t benchLibraries() override;
  std::size_t threads() override { return target.GetProcess().GetNumThreads(); }
  std::uint64_t programCounter() override { return frame().GetPC(); }
  std::uint64_t stackPointer() override { return frame().GetSP(); }
  std::string registers() override;

 private:
  lldb::SBFrame frame() { return target.GetProcess().GetSelectedThread().GetSelectedFrame(); }
  void listen();
  template <typename Action>
  void awaitAfter(unsigned &counter, Action action);

  lldb::SBDebugger debugger;
  lldb::SBTarget target;
  std::string memory;

  std::mutex mutex;  ///< guards what follows
  std::condition_variable changed;
  unsigned stops = 0;
  unsigned exits = 0;
  std::string outputSoFar;
  bool ending = false;
  std::thread listenerThread;
};

Floor::Floor() {
  lldb::SBDebugger::Initialize();
  debugger = lldb::SBDebugger::Create();
  debugger.SetAsync(true);
  listenerThread = std::thread(&Floor::listen, this);
}

Floor::~Floor() {
  target.GetProcess().Destroy();
  {
    const std::lock_guard lock(mutex);
    ending = true;
  }
  listenerThread.join();
  lldb::SBDebugger::Terminate();
}

/// Like lldb-helper's event thread, reads output in pieces of 256 bytes.
void Floor::listen() {
  lldb::SBListener listener = debugger.GetListener();
  for (;;) {
    lldb::SBEvent event;
    listener.WaitForEvent(1, event);
    if (lldb::SBProcess::EventIsProcessEvent(event)) {
      lldb::SBProcess process = lldb::SBProcess::GetProcessFromEvent(event);
      const std::lock_guard lock(mutex);
      if (event.GetType() == lldb::SBProcess::eBroadcastBitStateChanged) {
        const lldb::StateType state = lldb::SBProcess::GetStateFromEvent(event);
        if (state == lldb::eStateStopped) ++stops;
        if (state == lldb::eStateExited) ++exits;
        changed.notify_all();
      } else if (event.GetType() == lldb::SBProcess::eBroadcastBitSTDOUT) {
        char piece[256];
        while (const std::size_t count = process.GetSTDOUT(piece, sizeof piece))
          outputSoFar.append(piece, count);
      }
    }
    const std::lock_guard lock(mutex);
    if (ending) return;
  }
}

template <typename Action>
void Floor::awaitAfter(unsigned &counter, Action action) {
  std::unique_lock lock(mutex);
  const unsigned before = counter;
  lock.unlock();
  action();
  lock.lock();
  changed.wait(lock, [&] { return counter > before; });
}

void Floor::launch(const std::string &program, const std::vector<std::string> &arguments) {
  outputSoFar.clear();
  lldb::SBError error;
  target = debugger.CreateTarget(program.c_str(), "", nullptr, false, error);
  check(error);
  debugger.GetListener().StartListeningForEvents(target.GetBroadcaster(),
                                                 lldb::SBTarget::eBroadcastBitBreakpointChanged |
                                                     lldb::SBTarget::eBroadcastBitModulesLoaded |
                                                     lldb::SBTarget::eBroadcastBitModulesUnloaded);
  std::vector<const char *> words;
  for (const std::string &argument : arguments) words.push_back(argument.c_str());
  words.push_back(nullptr);
  lldb::SBLaunchInfo info(words.data());
  info.SetEnvironmentEntries(const_cast<const char **>(environ), false);
  info.SetLaunchFlags(lldb::eLaunchFlagStopAtEntry | lldb::eLaunchFlagDisableASLR);
  awaitAfter(stops, [&] {
    target.Launch(info, error);
    check(error);
  });
}

void Floor::deleteProcess() {
  target.GetProcess().Destroy();
  debugger.DeleteTarget(target);
  target = lldb::SBTarget();
}

void Floor::resume() {
  awaitAfter(stops, [this] { target.GetProcess().Continue(); });
}

void Floor::step() {
  awaitAfter(stops, [this] { target.GetProcess().GetSelectedThread().StepInstruction(false); });
}

void Floor::runToExit() {
  awaitAfter(exits, [this] { target.GetProcess().Continue(); });
}

void Floor::readMemory(std::uint64_t address, std::size_t size) {
  memory.resize(size);
  lldb::SBError error;
  target.GetProcess().ReadMemory(address, memory.data(), size, error);
  check(error);
}

namespace {

/// The bytes of a register that has no text, as lldb-helper writes them.
std::string hexText(lldb::SBData data) {
  std::string text = "0x";
  for (std::size_t at = data.GetByteSize(); at > 0; --at) {
    lldb::SBError error;
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", data.GetUnsignedInt8(error, at - 1));
    text += digits;
  }
  return text;
}

template <typename Action>
void forEachRegister(lldb::SBFrame frame, Action action) {
  lldb::SBValueList sets = frame.GetRegisters();
  for (std::uint32_t index = 0; index < sets.GetSize(); ++index) {
    lldb::SBValue set = sets.GetValueAtIndex(index);
    const std::uint32_t count = set.GetNumChildren();
    for (std::uint32_t child = 0; child < count; ++child) {
      lldb::SBValue value = set.GetChildAtIndex(child);
      const std::string_view name = value.GetName();
      if (!name.starts_with("ymm") && !name.starts_with("zmm")) action(name, value);
    }
  }
}

}  // namespace

void Floor::readRegisters() {
  forEachRegister(frame(), [](std::string_view, lldb::SBValue &value) {
    if (value.GetValue() != nullptr) return;
    unsigned char raw[64];
    lldb::SBData data = value.GetData();
    lldb::SBError error;
    data.ReadRawData(error, 0, raw, data.GetByteSize());
  });
}

std::string Floor::registers() {
  std::map<std::string, std::string> all;
  forEachRegister(frame(), [&](std::string_view name, lldb::SBValue &value) {
    const char *text = value.GetValue();
    all[std::string(name)] = text != nullptr ? text : hexText(value.GetData());
  });
  std::string text;
  for (const auto &[name, value] : all) text.append(name).append("=").append(value).append(" ");
  return text;
}

void Floor::readStack() {
  lldb::SBThread thread = target.GetProcess().GetSelectedThread();
  const std::uint32_t count = thread.GetNumFrames();
  lldb::SBModule last;
  for (std::uint32_t index = 0; index < count; ++index) {
    lldb::SBFrame frame = thread.GetFrameAtIndex(index);
    lldb::SBModule module = frame.GetModule();
    if (module != last) {
      last = module;
      if (module.IsValid()) useNames(module);
    }
    use(frame.GetFunctionName());
    sink = sink + frame.GetPC();
  }
}

std::vector<std::uint64_t> Floor::stack() {
  lldb::SBThread thread = target.GetProcess().GetSelectedThread();
  std::vector<std::uint64_t> counters;
  for (std::uint32_t index = 0; index < thread.GetNumFrames(); ++index)
    counters.push_back(thread.GetFrameAtIndex(index).GetPC());
  return counters;
}

void Floor::listThreads() {
  lldb::SBProcess process = target.GetProcess();
  const std::uint32_t count = process.GetNumThreads();
  for (std::uint32_t index = 0; index < count; ++index) {
    lldb::SBThread thread = process.GetThreadAtIndex(index);
    sink = sink + thread.GetThreadID() + thread.GetStopReason();
  }
}

void Floor::listModules(bool) {
  const std::uint32_t count = target.GetNumModules();
  for (std::uint32_t index = 0; index < count; ++index) {
    // Each module is a request of its own, which first checks that there is a process.
    if (!target.IsValid() || !target.GetProcess().IsValid() || index >= target.GetNumModules())
      return;
    lldb::SBModule module = target.GetModuleAtIndex(index);
    if (!module.IsValid()) return;
    useNames(module);
    for (std::size_t at = 0; at < module.GetNumSections(); ++at) {
      lldb::SBSection section = module.GetSectionAtIndex(at);
      use(section.GetName());
      sink = sink + section.GetLoadAddress(target) + section.GetFileAddress() +
             section.GetByteSize() + section.GetFileByteSize();
    }
  }
}

std::size_t Floor::benchLibraries() {
  std::size_t found = 0;
  for (std::uint32_t index = 0; index < target.GetNumModules(); ++index)
    found += std::string_view(target.GetModuleAtIndex(index).GetFileSpec().GetFilename())
                 .starts_with("libbench");
  return found;
}

std::unique_ptr<Subject> makeFloor() { return std::make_unique<Floor>(); }
