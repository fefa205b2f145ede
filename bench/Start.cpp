#include "Start.h"

#include <lldb/API/LLDB.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <utility>

#include "Child.h"

void startToFirstAnswer(Timing &timing, const Programs &programs) {
  if (!timing.wants("start to first answer") && !timing.wants("memory at the first answer")) return;
  Timing::Samples times, memory;
  const auto sample = [&](const std::string &name, std::vector<std::string> command,
                          Child::Pipes pipes, const std::function<void(Child &)> &firstAnswer) {
    std::optional<Child> child;
    times[name].push_back(microsecondsOf([&] {
      child.emplace(std::move(command), pipes);
      firstAnswer(*child);
    }));
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
  for (int round = 0; round < timing.roundsOf(20); ++round) {
    sample("floor", {"/proc/self/exe", "--start"}, Child::Pipes::Arguments, ping);
    sample("lldb-helper", {programs.helper}, Child::Pipes::Arguments, ping);
    if (!programs.lldbDap.empty())
      sample("lldb-dap", {programs.lldbDap}, Child::Pipes::StandardStreams,
             ask("Content-Length: " + std::to_string(initialize.size()) + "\r\n\r\n" + initialize));
    if (!programs.gdb.empty())
      sample("gdb", {programs.gdb, "--interpreter=mi3", "-nx", "-q"}, Child::Pipes::StandardStreams,
             ask("-gdb-show confirm\n"));
  }
  timing.addRow("start to first answer", "us", "floor", times);
  timing.addRow("memory at the first answer", "bytes", "floor", memory);
}

void roundTrips(Timing &timing, const std::vector<std::unique_ptr<Subject>> &subjects) {
  Child echo({"/proc/self/exe", "--echo"}, Child::Pipes::Arguments);
  Timing::Samples samples;
  const auto sample = [&](const std::string &name, const std::function<void()> &action) {
    for (int number = 0; number < 100; ++number) samples[name].push_back(microsecondsOf(action));
  };
  for (int round = 0; round < timing.roundsOf(20); ++round) {
    sample("raw echo", [&] {
      echo.write(frame(R"({"command": "ping"})"));
      readFrame(echo);
    });
    for (const auto &subject : subjects)
      if (subject != subjects.front()) sample(subject->name(), [&] { subject->roundTrip(); });
  }
  timing.addRow("round trip", "us", "raw echo", samples);
}

void playSubject(const std::string &part, int input, int output) {
  if (part != "--echo" && part != "--start") return;
  if (part == "--start") {
    // What every program that uses LLDB does before it can do anything.
    lldb::SBDebugger::Initialize();
    lldb::SBDebugger::Create().SetAsync(true);
  }
  char bytes[4096];
  for (ssize_t count = 0; (count = read(input, bytes, sizeof bytes)) > 0;)
    if (write(output, bytes, static_cast<std::size_t>(count)) != count) _exit(1);
  _exit(0);
}
