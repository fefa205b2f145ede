// Times the jobs of a debugging session: lldb-helper, the same calls on LLDB without a protocol,
// and other debuggers if they are given. Writes medians as JSON. script/bench builds and calls it.

#include <lldb/API/LLDB.h>

#include <algorithm>
#include <iostream>
#include <stdexcept>

#include "Start.h"
#include "System.h"
#include "Timing.h"

namespace {

using json = nlohmann::ordered_json;
using Words = std::vector<std::string>;

struct Options {
  /// Programs. Empty where there is none. "large" is a program of 100 MB.
  std::string helper, target, libraries, lldbDap, gdb, large;
  std::string only = ".*";  ///< jobs, as a regular expression
  double effort = 1;        ///< multiplies the rounds
};

// Actions and results of several jobs.

void step(Subject &subject, int) { subject.step(); }
void resume(Subject &subject, int) { subject.resume(); }
void readRegisters(Subject &subject, int) { subject.readRegisters(); }
void readStack(Subject &subject, int) { subject.readStack(); }
std::string nothing(Subject &) { return ""; }
std::string programCounter(Subject &subject) { return std::to_string(subject.programCounter()); }
std::string registers(Subject &subject) { return subject.registers(); }
std::string bytes(Subject &subject) { return subject.bytes(); }
std::string stack(Subject &subject) {
  std::string text;
  for (const std::uint64_t counter : subject.stack()) text += std::to_string(counter) + " ";
  return text;
}

class Bench {
 public:
  explicit Bench(const Options &options);
  void run();
  const json &results() const { return timing.rows(); }

 private:
  bool wantsAny(const std::vector<Job> &jobs) const {
    return std::any_of(jobs.begin(), jobs.end(),
                       [this](const Job &job) { return timing.wants(job.name); });
  }

  /// Brings every subject to an address in a program, does the jobs, and deletes the processes.
  void scene(const std::string &program, const Words &arguments, std::uint64_t address,
             const std::vector<Job> &jobs);

  void launches(const std::string &suffix, const std::string &program, const Words &arguments,
                std::uint64_t main);
  void workOnOneProgram();
  void largeMemory();
  void stacks();
  void threads();
  void modules();
  void output();

  /// What a host asks for after every stop.
  Job oneStop(const std::string &suffix, std::uint64_t code, int rounds, int times);

  const Options options;
  Timing timing;
  std::map<std::string, std::uint64_t> symbols;
  std::vector<std::unique_ptr<Subject>> subjects;  ///< the floor is the first
};

Bench::Bench(const Options &options)
    : options(options), timing(options.only, options.effort), symbols(symbolsOf(options.target)) {
  subjects.push_back(makeFloor());
  subjects.push_back(makeHelper(options.helper));
  if (!options.lldbDap.empty()) subjects.push_back(makeLldbDap(options.lldbDap));
  if (!options.gdb.empty()) subjects.push_back(makeGdb(options.gdb));
}

void Bench::run() {
  startToFirstAnswer(timing, {options.helper, options.lldbDap, options.gdb});
  roundTrips(timing, subjects);
  launches("", options.target, {"work"}, symbols.at("main"));
  workOnOneProgram();
  stacks();
  modules();
  output();
  threads();
  if (!options.large.empty())
    launches(", 100 MB", options.large, {"--version"}, symbolsOf(options.large).at("main"));
  largeMemory();
}

void Bench::scene(const std::string &program, const Words &arguments, std::uint64_t address,
                  const std::vector<Job> &jobs) {
  if (!wantsAny(jobs)) return;
  for (const auto &subject : subjects) {
    subject->launch(program, arguments);
    subject->breakAt(address);
    subject->resume();
    subject->removeBreakpoints();
  }
  for (const Job &job : jobs) timing.measure(job, subjects);
  for (const auto &subject : subjects) {
    subject->removeBreakpoints();
    subject->deleteProcess();
    subject->afterDeletion();
  }
}

void Bench::launches(const std::string &suffix, const std::string &program, const Words &arguments,
                     std::uint64_t main) {
  const auto launch = [=](Subject &subject, int) { subject.launch(program, arguments); };
  const auto prepareMain = [=](Subject &subject, int) {
    subject.launch(program, arguments);
    subject.breakAt(main);
  };
  const auto drop = [](Subject &subject) {
    const std::string found = programCounter(subject);
    subject.removeBreakpoints();  // gdb would keep them for the next process
    subject.deleteProcess();
    subject.afterDeletion();
    return found;
  };
  const auto targetsLeft = [=](Subject &subject) {
    subject.afterDeletion();
    return std::to_string(runningTargets(program));
  };
  const int rounds = suffix.empty() ? 12 : 4;
  timing.measure({"launch to entry" + suffix, 2, rounds, 1, nullptr, launch, drop}, subjects);
  timing.measure({"entry to main" + suffix, 1, rounds, 1, prepareMain, resume, drop}, subjects);
  timing.measure({"deleteProcess" + suffix, 1, rounds, 1, launch,
                  [](Subject &subject, int) { subject.deleteProcess(); }, targetsLeft},
                 subjects);
  if (!suffix.empty()) scene(program, arguments, main, {oneStop(suffix, main, 5, 5)});
}

Job Bench::oneStop(const std::string &suffix, std::uint64_t code, int rounds, int times) {
  Subject &floor = *subjects.front();
  const auto refresh = [&floor, code](Subject &subject, int) {
    subject.step();
    subject.listThreads();
    subject.readRegisters();
    subject.readStack();
    subject.readMemory(floor.stackPointer(), 512);
    subject.readMemory(code, 128);
  };
  return {"one stop" + suffix, 6, rounds, times, nullptr, refresh, bytes};
}

void Bench::workOnOneProgram() {
  const std::uint64_t hit = symbols.at("hit");
  // Each reads another place, which LLDB cannot have in its cache.
  const auto memory = [this](const char *name, std::size_t size, int rounds, int times) {
    const std::size_t apart = std::max<std::size_t>(size, 4096);
    const auto read = [=, this](Subject &subject, int number) {
      subject.readMemory(symbols.at("block") + static_cast<std::size_t>(number) * apart, size);
    };
    return Job{name, 1, rounds, times, nullptr, read, bytes};
  };
  const auto removeBreakpoints = [](Subject &subject, int) { subject.removeBreakpoints(); };
  const auto breakAtHit = [=](Subject &subject, int) { subject.breakAt(hit); };
  const auto breakOnce = [=](Subject &subject, int number) {
    if (number == 0) subject.breakAt(hit);
  };
  scene(options.target, {"work"}, symbols.at("ready"),
        {{"instruction step", 1, 5, 100, nullptr, step, programCounter},
         {"registers after a step", 1, 10, 10, step, readRegisters, registers},
         {"registers again", 1, 10, 10, nullptr, readRegisters, registers},
         {"set a breakpoint", 1, 10, 20, removeBreakpoints, breakAtHit, nothing},
         memory("memory 64 B", 64, 10, 50),
         memory("memory 4 KiB", 4096, 10, 50),
         memory("memory 1 MiB", 1 << 20, 8, 4),
         {"breakpoint hit", 1, 5, 50, breakOnce, resume, programCounter}});
}

/// Only the floor and lldb-helper do this in a sensible time. The last job of a run.
void Bench::largeMemory() {
  subjects.resize(2);
  const auto read = [this](Subject &subject, int) {
    subject.readMemory(symbols.at("block"), 128 << 20);
  };
  const Job job{"memory 128 MiB", 1, 3, 1, step, read, bytes};
  scene(options.target, {"work"}, symbols.at("ready"), {job});
  if (timing.wants(job.name))
    timing.addRow("peak memory of memory 128 MiB", "bytes", "lldb-helper",
                  {{"lldb-helper", {static_cast<double>(subjects[1]->peakMemory())}}});
}

void Bench::stacks() {
  const std::uint64_t hit = symbols.at("hit");
  scene(options.target, {"stack", "2"}, hit, {oneStop("", hit, 8, 20)});
  for (const int depth : {100, 1000, 10000}) {
    const std::string job = "call stack " + std::to_string(depth);
    const int rounds = depth < 10000 ? 6 : 4;
    const int times = std::max(4, 1000 / depth);
    scene(options.target, {"stack", std::to_string(depth)}, hit,
          {{job + ", after a step", 1, rounds, times, step, readStack, stack},
           {job + ", again", 1, rounds, times, nullptr, readStack, stack}});
  }
}

/// One thread comes to the breakpoint, the others wait.
void Bench::threads() {
  for (const int count : {1, 100, 1000}) {
    const std::string suffix = ", " + std::to_string(count) + (count == 1 ? " thread" : " threads");
    const int rounds = count < 1000 ? 5 : 2, times = count < 1000 ? 10 : 3;
    const auto breakOnce = [this](Subject &subject, int number) {
      if (number == 0) subject.breakAt(symbols.at("hit"));
    };
    const auto listThreads = [](Subject &subject, int) { subject.listThreads(); };
    const auto threadCount = [](Subject &subject) { return std::to_string(subject.threads()); };
    scene(options.target, {"threads", std::to_string(count)}, symbols.at("ready"),
          {{"breakpoint hit" + suffix, 1, rounds, times, breakOnce, resume, programCounter},
           {"thread list" + suffix, 1, rounds, times, nullptr, listThreads, threadCount}});
  }
}

void Bench::modules() {
  const auto libraries = [](Subject &subject) { return std::to_string(subject.benchLibraries()); };
  for (const int count : {5, 50, 200}) {
    const std::string job = "modules, " + std::to_string(count) + " libraries";
    const auto list = [](bool waits) {
      return [waits](Subject &subject, int) { subject.listModules(waits); };
    };
    // The program itself, the loader, the C library and the vdso are modules, too.
    scene(options.target, {"modules", options.libraries, std::to_string(count)},
          symbols.at("ready"),
          {{job, 2, 6, 5, nullptr, list(false), libraries},
           {job + ", one by one", count + 5, 6, 5, nullptr, list(true), libraries}});
  }
}

void Bench::output() {
  const auto launch = [this](Subject &subject, int) {
    subject.launch(options.target, {"output", "1000000"});
  };
  const auto run = [](Subject &subject, int) {
    if (subject.showsOutput()) subject.runToExit();
  };
  const auto drop = [](Subject &subject) {
    std::string found = subject.output();
    subject.deleteProcess();
    subject.afterDeletion();
    return found;
  };
  timing.measure({"1 MB of output", 1, 8, 1, launch, run, drop}, subjects);
}

}  // namespace

int main(int argc, char **argv) {
  const Words words(argv + 1, argv + argc);
  if (words.size() == 3) playSubject(words[0], std::stoi(words[1]), std::stoi(words[2]));

  Options options;
  const std::map<std::string, std::string *> texts{{"--helper", &options.helper},
                                                   {"--target", &options.target},
                                                   {"--libraries", &options.libraries},
                                                   {"--lldb-dap", &options.lldbDap},
                                                   {"--gdb", &options.gdb},
                                                   {"--large", &options.large},
                                                   {"--only", &options.only}};
  try {
    for (std::size_t at = 0; at + 1 < words.size(); at += 2) {
      const auto text = texts.find(words[at]);
      if (text != texts.end()) *text->second = words[at + 1];
      if (words[at] == "--effort") options.effort = std::stod(words[at + 1]);
      // Children inherit it: all processes share one processor, and no time goes into waking up
      // another one, which is what varies most from run to run.
      if (words[at] == "--cpu") stayOnCpu(std::stoi(words[at + 1]));
    }
    Bench bench(options);
    bench.run();
    std::cout
        << json{{"lldb", lldb::SBDebugger::GetVersionString()}, {"rows", bench.results()}}.dump(1)
        << "\n";
  } catch (const std::exception &exception) {
    std::cerr << "bench: " << exception.what() << "\n";
    return 1;
  }
  return 0;
}
