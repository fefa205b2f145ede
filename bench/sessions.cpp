// Times the jobs of a debugging session: lldb-helper, the same calls on LLDB without a protocol,
// and where they are given other debuggers. Round by round, all subjects one after the other, so
// that a machine's moods meet all of them. Writes medians as JSON. script/bench builds and calls
// it.

#include <lldb/API/LLDB.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <stdexcept>

#include "Child.h"
#include "Subject.h"

namespace {

using json = nlohmann::ordered_json;

struct Options {
  std::string helper, target, libraries, lldbDap, gdb;
  std::string only = ".*";  ///< jobs, as a regular expression
  double effort = 1;        ///< multiplies the rounds
};

double microsecondsOf(const std::function<void()> &action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
      .count();
}

double quantile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1) + 0.5)];
}

/// The addresses of the benchmark program's symbols, which is linked to run where it says.
std::map<std::string, std::uint64_t> symbolsOf(const std::string &program) {
  FILE *pipe = popen(("nm '" + program + "'").c_str(), "re");
  std::map<std::string, std::uint64_t> symbols;
  unsigned long long address = 0;
  char kind = 0, name[256], line[512];
  while (std::fgets(line, sizeof line, pipe) != nullptr)
    if (std::sscanf(line, "%llx %c %255s", &address, &kind, name) == 3) symbols[name] = address;
  pclose(pipe);
  return symbols;
}

/// How many processes that run the benchmark's program are alive.
int runningTargets(const std::string &program) {
  int count = 0;
  for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
    std::error_code none;
    // Of one that is only waiting to be waited for the link cannot be read.
    count += std::filesystem::read_symlink(entry.path() / "exe", none) == program;
  }
  return count;
}

class Bench {
 public:
  explicit Bench(const Options &options);

  void run();
  json results() const { return rows; }

 private:
  using Action = std::function<void(Subject &, int number)>;
  using Evidence = std::function<std::string(Subject &)>;

  bool wanted(const std::string &job) const {
    return std::regex_search(job, std::regex(options.only));
  }

  bool wantsAny(std::initializer_list<const char *> jobs) const {
    return std::any_of(jobs.begin(), jobs.end(), [this](const char *job) { return wanted(job); });
  }

  /// Times `action` on every subject, round by round, and compares what it brought. A round is a
  /// row of `times` actions of one subject after the other: the first ones find the processor's
  /// caches full of another subject's data.
  void measure(const std::string &job, int rounds, int times, const Action &prepare,
               const Action &action, const Evidence &evidence);
  void addRow(const std::string &job, const char *unit, const char *base,
              const std::map<std::string, std::vector<double>> &samples);

  /// Brings every subject to the symbol in a program with these arguments.
  void launchAll(const std::vector<std::string> &arguments, const std::string &symbol);
  void deleteAll();

  void startToFirstAnswer();
  void roundTrips();
  void launches();
  void workOnOneProgram();
  void stacks();
  void modules();
  void outputs();

  const Options options;
  std::map<std::string, std::uint64_t> symbols;
  std::vector<std::unique_ptr<Subject>> subjects;  ///< the floor is the first
  json rows = json::array();
};

Bench::Bench(const Options &options) : options(options), symbols(symbolsOf(options.target)) {
  subjects.push_back(makeFloor());
  subjects.push_back(makeHelper(options.helper));
  if (!options.lldbDap.empty()) subjects.push_back(makeLldbDap(options.lldbDap));
  if (!options.gdb.empty()) subjects.push_back(makeGdb(options.gdb));
}

void Bench::run() {
  startToFirstAnswer();
  roundTrips();
  launches();
  workOnOneProgram();
  stacks();
  modules();
  outputs();
}

void Bench::measure(const std::string &job, int rounds, int times, const Action &prepare,
                    const Action &action, const Evidence &evidence) {
  if (!wanted(job)) return;
  rounds = std::max(2, static_cast<int>(rounds * options.effort));
  std::map<std::string, std::vector<double>> samples;
  // The first round only warms up.
  for (int round = 0; round <= rounds; ++round) {
    std::string expected;
    for (const auto &subject : subjects) {
      for (int number = round * times; number < (round + 1) * times; ++number) {
        if (prepare) prepare(*subject, number);
        const double time = microsecondsOf([&] { action(*subject, number); });
        if (round > 0) samples[subject->name()].push_back(time);
      }
      const std::string found = evidence(*subject);
      if (expected.empty()) expected = found;
      if (!found.empty() && found != expected)
        throw std::runtime_error(job + ": " + subject->name() +
                                 " did other work: " + found.substr(0, 2000) + "\ninstead of " +
                                 expected.substr(0, 2000));
    }
  }
  addRow(job, "us", "floor", samples);
}

void Bench::addRow(const std::string &job, const char *unit, const char *base,
                   const std::map<std::string, std::vector<double>> &samples) {
  json row{{"job", job}, {"unit", unit}, {"base", base}, {"rounds", samples.at(base).size()}};
  for (const auto &[name, values] : samples) {
    row["median"][name] = quantile(values, 0.5);
    row["quartiles"][name] = {quantile(values, 0.25), quantile(values, 0.75)};
  }
  for (const auto &[name, values] : samples)
    if (name != base)
      row["ratio"][name] = quantile(values, 0.5) / row["median"][base].get<double>();
  std::cerr << row["job"].get<std::string>() << ": " << row["median"] << " " << row["ratio"]
            << "\n";
  rows.push_back(std::move(row));
}

void Bench::launchAll(const std::vector<std::string> &arguments, const std::string &symbol) {
  for (const auto &subject : subjects) {
    subject->launch(options.target, arguments);
    subject->breakAt(symbols.at(symbol));
    subject->resume();
    subject->removeBreakpoints();
  }
}

void Bench::deleteAll() {
  for (const auto &subject : subjects) {
    subject->deleteProcess();
    subject->afterDeletion();
  }
}

/// New processes for every round: how soon they answer, and the memory they have used by then.
void Bench::startToFirstAnswer() {
  if (!wantsAny({"start to first answer", "memory at the first answer"})) return;
  std::map<std::string, std::vector<double>> times, memory;
  const auto sample = [&](const std::string &name, std::vector<std::string> command,
                          Child::Pipes pipes, const std::function<void(Child &)> &firstAnswer) {
    std::optional<Child> child;
    const double time = microsecondsOf([&] {
      child.emplace(std::move(command), pipes);
      firstAnswer(*child);
    });
    times[name].push_back(time);
    memory[name].push_back(static_cast<double>(child->peakMemory()));
  };
  const auto ping = [](Child &child) {
    child.write(frame(R"({"command": "ping"})"));
    readFrame(child);
  };
  const auto ask = [](const std::string &request) {
    return [request](Child &child) {
      child.write(request);
      child.readLine();
    };
  };
  const std::string initialize =
      R"({"seq": 1, "type": "request", "command": "initialize", "arguments": {"adapterID": "bench"}})";
  for (int round = 0; round < 2 + 20 * options.effort; ++round) {
    sample("floor", {"/proc/self/exe", "--start"}, Child::Pipes::Arguments, ping);
    sample("lldb-helper", {options.helper}, Child::Pipes::Arguments, ping);
    if (!options.lldbDap.empty())
      sample("lldb-dap", {options.lldbDap}, Child::Pipes::StandardStreams,
             ask("Content-Length: " + std::to_string(initialize.size()) + "\r\n\r\n" + initialize));
    if (!options.gdb.empty())
      sample("gdb", {options.gdb, "--interpreter=mi3", "-nx", "-q"}, Child::Pipes::StandardStreams,
             ask("-gdb-show confirm\n"));
  }
  addRow("start to first answer", "us", "floor", times);
  addRow("memory at the first answer", "bytes", "floor", memory);
}

/// The same message sent back by a program that does nothing else is what it costs at least.
void Bench::roundTrips() {
  if (!wanted("round trip")) return;
  Child echo({"/proc/self/exe", "--echo"}, Child::Pipes::Arguments);
  std::map<std::string, std::vector<double>> samples;
  const auto sample = [&](const std::string &name, const std::function<void()> &action) {
    for (int number = 0; number < 100; ++number) samples[name].push_back(microsecondsOf(action));
  };
  for (int round = 0; round < 2 + 20 * options.effort; ++round) {
    sample("raw echo", [&] {
      echo.write(frame(R"({"command": "ping"})"));
      readFrame(echo);
    });
    for (const auto &subject : subjects)
      if (subject != subjects.front()) sample(subject->name(), [&] { subject->roundTrip(); });
  }
  addRow("round trip", "us", "raw echo", samples);
}

void Bench::launches() {
  if (!wantsAny({"launch to entry", "deleteProcess"})) return;
  const auto counter = [](Subject &subject) { return std::to_string(subject.programCounter()); };
  const auto drop = [](Subject &subject) {
    subject.deleteProcess();
    subject.afterDeletion();
  };
  const auto launch = [this](Subject &subject, int) { subject.launch(options.target, {"work"}); };
  const auto targetsLeft = [this](Subject &subject) {
    subject.afterDeletion();
    return std::to_string(runningTargets(options.target));
  };
  measure("launch to entry", 12, 1, nullptr, launch, [&](Subject &subject) {
    const std::string found = counter(subject);
    drop(subject);
    return found;
  });
  measure(
      "deleteProcess", 12, 1, launch, [](Subject &subject, int) { subject.deleteProcess(); },
      targetsLeft);
}

void Bench::workOnOneProgram() {
  if (!wantsAny({"instruction step", "registers after a step", "registers again", "breakpoint hit",
                 "memory 64 B", "memory 4 KiB", "memory 1 MiB", "memory 128 MiB"}))
    return;
  const auto counter = [](Subject &subject) { return std::to_string(subject.programCounter()); };
  const auto step = [](Subject &subject, int) { subject.step(); };
  launchAll({"work"}, "ready");

  measure("instruction step", 5, 100, nullptr, step, counter);
  const auto readRegisters = [](Subject &subject, int) { subject.readRegisters(); };
  const auto registers = [](Subject &subject) { return subject.registers(); };
  measure("registers after a step", 10, 10, step, readRegisters, registers);
  measure("registers again", 10, 10, nullptr, readRegisters, registers);

  for (const auto &subject : subjects) subject->breakAt(symbols.at("hit"));
  measure(
      "breakpoint hit", 5, 50, nullptr, [](Subject &subject, int) { subject.resume(); }, counter);
  for (const auto &subject : subjects) subject->removeBreakpoints();

  const struct {
    const char *job;
    std::size_t size;
    int rounds;
    int times;
  } sizes[] = {
      {"memory 64 B", 64, 10, 50}, {"memory 4 KiB", 4096, 10, 50}, {"memory 1 MiB", 1 << 20, 8, 4}};
  // Each reads another place, none of which LLDB can have in its cache.
  const auto readMemory = [this](std::size_t size) {
    return [this, size](Subject &subject, int number) {
      const std::size_t apart = std::max<std::size_t>(size, 4096);
      subject.readMemory(symbols.at("block") + static_cast<std::size_t>(number) * apart, size);
    };
  };
  const auto bytes = [](Subject &subject) { return subject.bytes(); };
  for (const auto &[job, size, rounds, times] : sizes)
    measure(job, rounds, times, nullptr, readMemory(size), bytes);

  while (subjects.size() > 2) {  // the other debuggers do not get this far in any sensible time
    subjects.back()->deleteProcess();
    subjects.pop_back();
  }
  const std::size_t all = 128 << 20;
  measure(
      "memory 128 MiB", 3, 1, step,
      [&](Subject &subject, int) { subject.readMemory(symbols.at("block"), all); }, bytes);
  if (wanted("memory 128 MiB"))
    addRow("peak memory of memory 128 MiB", "bytes", "lldb-helper",
           {{"lldb-helper", {static_cast<double>(subjects[1]->peakMemory())}}});
  deleteAll();
  if (!options.lldbDap.empty()) subjects.push_back(makeLldbDap(options.lldbDap));
  if (!options.gdb.empty()) subjects.push_back(makeGdb(options.gdb));
}

void Bench::stacks() {
  for (const int depth : {100, 1000, 10000}) {
    const std::string job = "call stack " + std::to_string(depth);
    if (!wanted(job + ", after a step") && !wanted(job + ", again")) continue;
    launchAll({"stack", std::to_string(depth)}, "hit");
    const auto readStack = [](Subject &subject, int) { subject.readStack(); };
    const auto evidence = [](Subject &subject) {
      std::string text;
      for (const std::uint64_t counter : subject.stack()) text += std::to_string(counter) + " ";
      return text;
    };
    const int rounds = depth < 10000 ? 6 : 4;
    const int times = std::max(4, 1000 / depth);
    measure(
        job + ", after a step", rounds, times, [](Subject &subject, int) { subject.step(); },
        readStack, evidence);
    measure(job + ", again", rounds, times, nullptr, readStack, evidence);
    deleteAll();
  }
}

void Bench::modules() {
  for (const int count : {5, 50, 200}) {
    const std::string job = "modules, " + std::to_string(count) + " libraries";
    if (!wanted(job)) continue;
    launchAll({"modules", options.libraries, std::to_string(count)}, "ready");
    measure(
        job, 6, 5, nullptr, [](Subject &subject, int) { subject.listModules(); },
        [](Subject &subject) { return std::to_string(subject.benchLibraries()); });
    deleteAll();
  }
}

void Bench::outputs() {
  const std::string bytes = "1000000";
  measure(
      "1 MB of output", 8, 1,
      [&](Subject &subject, int) {
        subject.launch(options.target, {"output", bytes});
      },
      [](Subject &subject, int) {
        if (subject.showsOutput()) subject.runToExit();
      },
      [](Subject &subject) {
        std::string found = subject.output();
        subject.deleteProcess();
        subject.afterDeletion();
        return found;
      });
}

/// Sends back what it gets, until its input ends.
[[noreturn]] void echo(int input, int output) {
  char bytes[4096];
  for (ssize_t count = 0; (count = read(input, bytes, sizeof bytes)) > 0;)
    if (write(output, bytes, static_cast<std::size_t>(count)) != count) _exit(1);
  _exit(0);
}

/// What every program that uses LLDB does before it can do anything.
[[noreturn]] void startAndAnswer(int input, int output) {
  lldb::SBDebugger::Initialize();
  lldb::SBDebugger debugger = lldb::SBDebugger::Create();
  debugger.SetAsync(true);
  echo(input, output);
}

void stayOnCpu(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<unsigned>(cpu), &set);
  if (sched_setaffinity(0, sizeof set, &set) != 0) throw std::runtime_error("no such CPU");
}

}  // namespace

int main(int argc, char **argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 3 && words[0] == "--start")
    startAndAnswer(std::stoi(words[1]), std::stoi(words[2]));
  if (words.size() == 3 && words[0] == "--echo") echo(std::stoi(words[1]), std::stoi(words[2]));

  Options options;
  for (std::size_t at = 0; at + 1 < words.size(); at += 2) {
    const std::string &value = words[at + 1];
    if (words[at] == "--helper") options.helper = value;
    if (words[at] == "--target") options.target = value;
    if (words[at] == "--libraries") options.libraries = value;
    if (words[at] == "--lldb-dap") options.lldbDap = value;
    if (words[at] == "--gdb") options.gdb = value;
    if (words[at] == "--only") options.only = value;
    if (words[at] == "--effort") options.effort = std::stod(value);
    // Children inherit it: subject, debug server and program then share one processor, and no time
    // goes into waking another one up, which is what varies most from run to run.
    if (words[at] == "--cpu") stayOnCpu(std::stoi(value));
  }
  try {
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
