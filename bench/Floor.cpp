// LLDB used plainly, for each job: its default settings and the obvious calls. No texts, no pipes.

#include <lldb/API/LLDB.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "Subject.h"
#include "json/HexDigits.h"

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

/// The bytes of a register that has no text, as lldb-helper writes them.
std::string hexText(lldb::SBData data) {
  std::string text = "0x";
  for (std::size_t at = data.GetByteSize(); at > 0; --at) {
    lldb::SBError error;
    appendHex(text, data.GetUnsignedInt8(error, at - 1));
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

class Floor : public Subject {
 public:
  Floor() : Subject("floor") {
    lldb::SBDebugger::Initialize();
    debugger = lldb::SBDebugger::Create();
    debugger.SetAsync(true);
    listenerThread = std::thread(&Floor::listen, this);
  }
  ~Floor() override {
    process().Destroy();
    ending = true;
    listenerThread.join();
    lldb::SBDebugger::Terminate();
  }

  void launch(const std::string &program, const std::vector<std::string> &arguments) override {
    outputSoFar.clear();
    lldb::SBError error;
    target = debugger.CreateTarget(program.c_str(), "", nullptr, false, error);
    check(error);
    debugger.GetListener().StartListeningForEvents(
        target.GetBroadcaster(), lldb::SBTarget::eBroadcastBitBreakpointChanged |
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
  void deleteProcess() override {
    process().Destroy();
    debugger.DeleteTarget(target);
    target = lldb::SBTarget();
  }
  void breakAt(std::uint64_t address) override { target.BreakpointCreateByAddress(address); }
  void removeBreakpoints() override { target.DeleteAllBreakpoints(); }
  void resume() override { awaitAfter(stops, std::bind(&lldb::SBProcess::Continue, process())); }
  void step() override {
    awaitAfter(stops, [this] { thread().StepInstruction(false); });
  }
  void runToExit() override { awaitAfter(exits, std::bind(&lldb::SBProcess::Continue, process())); }

  void readMemory(std::uint64_t address, std::size_t size) override {
    memory.resize(size);
    lldb::SBError error;
    process().ReadMemory(address, memory.data(), size, error);
    check(error);
  }

  void readRegisters() override {
    forEachRegister(frame(), [](std::string_view, lldb::SBValue &value) {
      if (value.GetValue() != nullptr) return;
      unsigned char raw[64];
      lldb::SBData data = value.GetData();
      lldb::SBError error;
      data.ReadRawData(error, 0, raw, data.GetByteSize());
    });
  }

  void readStack() override {
    lldb::SBThread thread = this->thread();
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

  void listThreads() override {
    lldb::SBProcess process = this->process();
    const std::uint32_t count = process.GetNumThreads();
    for (std::uint32_t index = 0; index < count; ++index) {
      lldb::SBThread thread = process.GetThreadAtIndex(index);
      sink = sink + thread.GetThreadID() + thread.GetStopReason();
    }
  }

  void listModules(bool) override {
    const std::uint32_t count = target.GetNumModules();
    for (std::uint32_t index = 0; index < count; ++index) {
      // Each module is a request of its own, which first checks that there is a process.
      if (!target.IsValid() || !process().IsValid() || index >= target.GetNumModules()) return;
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

  std::string bytes() override { return memory; }
  std::string output() override { return outputSoFar; }
  std::string stack() override {
    std::string text;
    for (std::uint32_t index = 0; index < thread().GetNumFrames(); ++index)
      text += std::to_string(thread().GetFrameAtIndex(index).GetPC()) + " ";
    return text;
  }
  std::string programCounter() override { return std::to_string(frame().GetPC()) + " "; }
  std::string threadCount() override { return std::to_string(process().GetNumThreads()); }
  std::string libraryCount() override {
    std::string names;
    for (std::uint32_t index = 0; index < target.GetNumModules(); ++index)
      names += target.GetModuleAtIndex(index).GetFileSpec().GetFilename();
    return countOf(library, names);
  }
  std::string registers() override {
    std::map<std::string_view, std::string> all;  // sorted, as lldb-helper writes them
    forEachRegister(frame(), [&](std::string_view name, lldb::SBValue &value) {
      const char *text = value.GetValue();
      all[name] = text != nullptr ? text : hexText(value.GetData());
    });
    std::string text;
    for (const auto &[name, value] : all) text.append(name).append("=").append(value).append(" ");
    return text;
  }
  std::uint64_t stackPointer() override { return frame().GetSP(); }

 private:
  lldb::SBProcess process() { return target.GetProcess(); }
  lldb::SBThread thread() { return process().GetSelectedThread(); }
  lldb::SBFrame frame() { return thread().GetSelectedFrame(); }

  /// Like lldb-helper's event thread, reads output in pieces of 256 bytes.
  void listen() {
    lldb::SBListener listener = debugger.GetListener();
    while (!ending) {
      lldb::SBEvent event;
      listener.WaitForEvent(1, event);
      if (!lldb::SBProcess::EventIsProcessEvent(event)) continue;
      const std::lock_guard lock(mutex);
      if (event.GetType() == lldb::SBProcess::eBroadcastBitStateChanged) {
        const lldb::StateType state = lldb::SBProcess::GetStateFromEvent(event);
        if (state == lldb::eStateStopped) ++stops;
        if (state == lldb::eStateExited) ++exits;
        changed.notify_all();
      } else if (event.GetType() == lldb::SBProcess::eBroadcastBitSTDOUT) {
        lldb::SBProcess process = lldb::SBProcess::GetProcessFromEvent(event);
        char piece[256];
        while (const std::size_t count = process.GetSTDOUT(piece, sizeof piece))
          outputSoFar.append(piece, count);
      }
    }
  }

  template <typename Action>
  void awaitAfter(unsigned &counter, Action action) {
    std::unique_lock lock(mutex);
    const unsigned before = counter;
    lock.unlock();
    action();
    lock.lock();
    changed.wait(lock, [&] { return counter > before; });
  }

  lldb::SBDebugger debugger;
  lldb::SBTarget target;
  std::string memory;

  std::mutex mutex;  ///< guards what follows
  std::condition_variable changed;
  unsigned stops = 0, exits = 0;
  std::string outputSoFar;

  std::atomic<bool> ending = false;
  std::thread listenerThread;
};

}  // namespace

std::unique_ptr<Subject> makeFloor() { return std::make_unique<Floor>(); }
