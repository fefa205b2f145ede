// Times the jobs of a debugging session: lldb-helper, the same calls on LLDB without a protocol,
// and other debuggers if they are given. Writes medians as JSON. script/bench builds and calls it:
//   bench-sessions NAME=VALUE...
// helper, target, libraries, lldb-dap, gdb and large (a program of 100 MB) are paths; the last
// three may be missing. only (a regular expression) chooses jobs. effort multiplies the rounds.

#include <lldb/API/LLDB.h>
#include <unistd.h>

#include <iostream>

#include "Child.h"
#include "Timing.h"

namespace {

using json = nlohmann::ordered_json;
using Words = std::vector<std::string>;
using Options = std::map<std::string, std::string>;
using std::placeholders::_1;

// Actions of several jobs. None needs the action's number.
const auto step = std::bind(&Subject::step, _1);
const auto resume = std::bind(&Subject::resume, _1);
const auto readRegisters = std::bind(&Subject::readRegisters, _1);
const auto readStack = std::bind(&Subject::readStack, _1);

constexpr char ping[] = R"({"command": "ping"})";

constexpr char self[] = "/proc/self/exe";

/// What starts the other subjects, by the option that names their programs.
constexpr std::pair<const char *, decltype(&makeHelper)> makers[] = {
    {"helper", makeHelper}, {"lldb-dap", makeLldbDap}, {"gdb", makeGdb}};

/// The other end of two pipes, which sends every message back.
void playSubject(const std::string &part) {
  if (part == "--start") {
    // What every program that uses LLDB does before it can do anything.
    lldb::SBDebugger::Initialize();
    lldb::SBDebugger::Create().SetAsync(true);
  }
  char bytes[4096];
  for (ssize_t count = 0; (count = read(STDIN_FILENO, bytes, sizeof bytes)) > 0;)
    if (write(STDOUT_FILENO, bytes, static_cast<std::size_t>(count)) != count) _exit(1);
  _exit(0);
}

class Bench {
 public:
  explicit Bench(Options &options)
      : options(options),
        timing(options["only"], std::stod(options["effort"])),
        symbols(symbolsOf(options["target"])) {
    subjects.push_back(makeFloor());
    for (const auto &[option, make] : makers)
      if (!options[option].empty()) subjects.push_back(make(options[option]));
  }

  json run() {
    startToFirstAnswer();
    roundTrips();
    launches("", options["target"], {"work"}, symbols.at("main"));
    workOnOneProgram();
    stacks();
    modules();
    output();
    threads();
    if (const std::string large = options["large"]; !large.empty())
      launches(", 100 MB", large, {"--version"}, symbolsOf(large).at("main"));
    largeMemory();
    return {{"lldb", lldb::SBDebugger::GetVersionString()}, {"rows", timing.rows}};
  }

 private:
  /// New processes for every round: how soon they answer, and the memory they have used by then.
  void startToFirstAnswer() {
    if (!timing.wants("start to first answer") && !timing.wants("memory at the first answer"))
      return;
    Timing::Samples times, memory;
    for (int round = 0; round < timing.roundsOf(20); ++round) {
      std::optional<Child> floor;
      times["floor"].push_back(microsecondsOf([&] {
        floor.emplace(Words{self, "--start"}, Child::Pipes::StandardStreams);
        floor->write(ping);
        floor->read(1);
      }));
      memory["floor"].push_back(floor->peakMemory());
      for (const auto &maker : makers) {
        const std::string program = options[maker.first];
        if (program.empty()) continue;
        std::unique_ptr<Subject> subject;
        const double time = microsecondsOf([&] { subject = maker.second(program); });
        times[subject->name].push_back(time);
        memory[subject->name].push_back(subject->peakMemory());
      }
    }
    timing.addRow("start to first answer", "us", "floor", times);
    timing.addRow("memory at the first answer", "bytes", "floor", memory);
  }

  /// A program that only sends the message back shows the least that it can cost. Measured always,
  /// for the limits of the other jobs.
  void roundTrips() {
    Child echo({self, "--echo"}, Child::Pipes::StandardStreams);
    Timing::Samples samples;
    const auto sample = [&](const std::string &name, const std::function<void()> &action) {
      for (int number = 0; number < 100; ++number) samples[name].push_back(microsecondsOf(action));
    };
    for (int round = 0; round < timing.roundsOf(20); ++round) {
      sample("raw echo", [&] {
        echo.write(frame(ping));
        echo.readFrame();
      });
      for (const auto &subject : subjects)
        if (subject != subjects.front()) sample(subject->name, [&] { subject->roundTrip(); });
    }
    timing.addRow("round trip", "us", "raw echo", samples);
  }

  /// Brings every subject to an address in a program, does the jobs, and deletes the processes.
  void scene(const std::string &program, const Words &arguments, std::uint64_t address,
             const std::vector<Job> &jobs) {
    if (std::none_of(jobs.begin(), jobs.end(),
                     [this](auto &job) { return timing.wants(job.name); }))
      return;
    for (const auto &subject : subjects) {
      subject->launch(program, arguments);
      subject->breakAt(address);
      subject->resume();
      subject->removeBreakpoints();
    }
    for (const Job &job : jobs) timing.measure(job, subjects);
    for (const auto &subject : subjects) drop(*subject, nullptr);
  }

  /// Returns a result of a process, which it deletes.
  static std::string drop(Subject &subject, std::string (Subject::*result)()) {
    const std::string found = result != nullptr ? (subject.*result)() : "";
    subject.removeBreakpoints();  // gdb would keep them for the next process
    subject.deleteProcess();
    subject.afterDeletion();
    return found;
  }

  void launches(const std::string &suffix, const std::string &program, const Words &arguments,
                std::uint64_t main) {
    const auto launch = std::bind(&Subject::launch, _1, program, arguments);
    const auto launchToMain = [=](Subject &subject, int) {
      subject.launch(program, arguments);
      subject.breakAt(main);
    };
    const auto dropAtStop = std::bind(drop, _1, &Subject::programCounter);
    const auto processLeft = [=](Subject &subject) {
      subject.afterDeletion();
      return std::to_string(std::system(("pidof '" + program + "' >/dev/null").c_str()));
    };
    const int rounds = suffix.empty() ? 12 : 4;
    for (const Job &job : std::initializer_list<Job>{
             {"launch to entry" + suffix, 2, rounds, 1, nullptr, launch, dropAtStop},
             {"entry to main" + suffix, 1, rounds, 1, launchToMain, resume, dropAtStop},
             {"deleteProcess" + suffix, 1, rounds, 1, launch,
              std::bind(&Subject::deleteProcess, _1), processLeft}})
      timing.measure(job, subjects);
    if (!suffix.empty()) scene(program, arguments, main, {oneStop(suffix, main, 5, 5)});
  }

  /// What a host asks for after every stop.
  Job oneStop(const std::string &suffix, std::uint64_t code, int rounds, int times) {
    Subject &floor = *subjects.front();
    const auto refresh = [&floor, code](Subject &subject, int) {
      subject.step();
      subject.listThreads();
      subject.readRegisters();
      subject.readStack();
      subject.readMemory(floor.stackPointer(), 512);
      subject.readMemory(code, 128);
    };
    return {"one stop" + suffix, 6, rounds, times, nullptr, refresh, &Subject::bytes};
  }

  void workOnOneProgram() {
    const std::uint64_t hit = symbols.at("hit"), block = symbols.at("block");
    // Each reads another place, which LLDB cannot have in its cache.
    const auto memory = [block](const char *name, std::size_t size, int rounds, int times) {
      const std::size_t apart = std::max<std::size_t>(size, 4096);
      const auto read = [=](Subject &subject, int number) {
        subject.readMemory(block + static_cast<std::size_t>(number) * apart, size);
      };
      return Job{name, 1, rounds, times, nullptr, read, &Subject::bytes};
    };
    scene(options["target"], {"work"}, symbols.at("ready"),
          {{"instruction step", 1, 5, 100, nullptr, step, &Subject::programCounter},
           {"registers after a step", 1, 10, 10, step, readRegisters, &Subject::registers},
           {"registers again", 1, 10, 10, nullptr, readRegisters, &Subject::registers},
           {"set a breakpoint", 1, 10, 20, std::bind(&Subject::removeBreakpoints, _1),
            std::bind(&Subject::breakAt, _1, hit), nullptr},
           memory("memory 64 B", 64, 10, 50),
           memory("memory 4 KiB", 4096, 10, 50),
           memory("memory 1 MiB", 1 << 20, 8, 4),
           breakpointHits("", 5, 50)});
  }

  Job breakpointHits(const std::string &suffix, int rounds, int times) {
    const auto breakOnce = [hit = symbols.at("hit")](Subject &subject, int number) {
      if (number == 0) subject.breakAt(hit);
    };
    return {"breakpoint hit" + suffix, 1, rounds, times, breakOnce, resume,
            &Subject::programCounter};
  }

  /// Only the floor and lldb-helper do this in a sensible time. The last job of a run.
  void largeMemory() {
    subjects.resize(2);
    const auto read = std::bind(&Subject::readMemory, _1, symbols.at("block"), 128 << 20);
    const Job job{"memory 128 MiB", 1, 3, 1, step, read, &Subject::bytes};
    scene(options["target"], {"work"}, symbols.at("ready"), {job});
    if (timing.wants(job.name))
      timing.addRow("peak memory of memory 128 MiB", "bytes", "lldb-helper",
                    {{"lldb-helper", {subjects[1]->peakMemory()}}});
  }

  void stacks() {
    const std::uint64_t hit = symbols.at("hit");
    scene(options["target"], {"stack", "2"}, hit, {oneStop("", hit, 8, 20)});
    for (const int depth : {100, 1000, 10000}) {
      const std::string job = "call stack " + std::to_string(depth);
      const int rounds = depth < 10000 ? 6 : 4, times = std::max(4, 1000 / depth);
      scene(options["target"], {"stack", std::to_string(depth)}, hit,
            {{job + ", after a step", 1, rounds, times, step, readStack, &Subject::stack},
             {job + ", again", 1, rounds, times, nullptr, readStack, &Subject::stack}});
    }
  }

  /// One thread comes to the breakpoint, the others wait.
  void threads() {
    for (const int count : {1, 100, 1000}) {
      const std::string suffix =
          ", " + std::to_string(count) + (count == 1 ? " thread" : " threads");
      const int rounds = count < 1000 ? 5 : 2, times = count < 1000 ? 10 : 3;
      scene(options["target"], {"threads", std::to_string(count)}, symbols.at("ready"),
            {breakpointHits(suffix, rounds, times),
             {"thread list" + suffix, 1, rounds, times, nullptr,
              std::bind(&Subject::listThreads, _1), &Subject::threadCount}});
    }
  }

  void modules() {
    for (const int count : {5, 50, 200}) {
      const std::string job = "modules, " + std::to_string(count) + " libraries";
      const auto list = std::bind(&Subject::listModules, _1, false);
      const auto listOneByOne = std::bind(&Subject::listModules, _1, true);
      // The program itself, the loader, the C library and the vdso are modules, too.
      scene(
          options["target"], {"modules", options["libraries"], std::to_string(count)},
          symbols.at("ready"),
          {{job, 2, 6, 5, nullptr, list, &Subject::libraryCount},
           {job + ", one by one", count + 5, 6, 5, nullptr, listOneByOne, &Subject::libraryCount}});
    }
  }

  void output() {
    const auto launch =
        std::bind(&Subject::launch, _1, options["target"], Words{"output", "1000000"});
    timing.measure({"1 MB of output", 1, 8, 1, launch, std::bind(&Subject::runToExit, _1),
                    std::bind(drop, _1, &Subject::output)},
                   subjects);
  }

  Options &options;
  Timing timing;
  std::map<std::string, std::uint64_t> symbols;
  Subjects subjects;
};

}  // namespace

int main(int argc, char **argv) {
  Options options{{"only", ".*"}, {"effort", "1"}};
  for (const std::string &word : Words(argv + 1, argv + argc)) {
    if (word.starts_with("--")) playSubject(word);
    const std::size_t end = word.find('=');
    options[word.substr(0, end)] = word.substr(end + 1);
  }
  try {
    std::cout << Bench(options).run().dump(1) << "\n";
  } catch (const std::exception &exception) {
    std::cerr << "bench: " << exception.what() << "\n";
    return 1;
  }
  return 0;
}
