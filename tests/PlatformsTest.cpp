// What the wire shows of LLDB's version, against the table in docs/platforms.md: each row of the
// table has a probe here, and each probe a row.

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <map>

#include "support/Inferior.h"

namespace {

/// A row's text for the LLDB that is tested; nothing when it has no column. Columns are ordered by
/// version, and an empty cell stands for what the cell before it says.
std::map<std::string, std::string> expectations() {
  std::map<std::string, std::string> rows;
  std::vector<int> versions;
  std::istringstream lines(readFile(DOCS "/platforms.md"));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("| ", 0) != 0) continue;
    std::vector<std::string> cells;
    std::istringstream words(line.substr(2));
    for (std::string cell; std::getline(words, cell, '|');) {
      cell.erase(0, cell.find_first_not_of(' '));
      cells.push_back(cell.substr(0, cell.find_last_not_of(' ') + 1));
    }
    if (cells[0] == "What a host sees") {
      for (std::size_t column = 1; column < cells.size(); ++column)
        versions.push_back(std::stoi(cells[column].substr(5)));  // "LLDB 14"
    } else {
      for (std::size_t column = 0; column < versions.size(); ++column)
        if (versions[column] <= LLDB_MAJOR && !cells.at(column + 1).empty())
          rows[cells[0]] = cells[column + 1];
      if (std::count(versions.begin(), versions.end(), LLDB_MAJOR) == 0) rows.clear();
    }
  }
  return rows;
}

/// The message of a launch that fails.
std::string failedLaunch(const json &preparation) {
  Host host;
  host.prepare(inferior("hello"), preparation);
  return host.ask("createProcess")["message"];
}

std::string launchOfAFileThatIsNotExecutable() {
  char file[] = "/tmp/lldb-helper-test-XXXXXX";
  close(mkstemp(file));
  std::ofstream(file, std::ios::binary) << readFile(inferior("hello"));
  const std::string message = failedLaunch({{"path", file}});
  unlink(file);
  return message;
}

std::string attachToNothing() {
  Host host;
  return host.ask({{"command", "attachToProcess"}, {"pid", 4194304}})["message"];
}

std::unique_ptr<Debugged> runningWait() {
  auto host = std::make_unique<Debugged>("wait");
  host->ask("continueExecution");
  host->awaitOutput();
  return host;
}

std::string continueOfARunningProcess() {
  return runningWait()->ask("continueExecution")["message"];
}

std::string threadsOfARunningProcess() {
  std::string states;
  const json response = runningWait()->ask("getThreadIDList");
  for (const json &thread : response["threads"]) states += thread["state"].get<std::string>();
  return states.empty() ? "none" : "one, " + states;
}

/// The modules that come and go between entry and exit, without versions and processors in their
/// names.
std::string moduleEventsOfARun() {
  Debugged host("hello");
  host.runToExit();
  std::string text;
  for (const json &message : host.history) {
    const std::string type = message.value("type", "");
    if (type != "moduleLoaded" && type != "moduleUnloaded") continue;
    text += text.empty() ? "" : ", ";
    text += type == "moduleLoaded" ? "loaded" : "unloaded";
    for (const json &module : message["modules"]) {
      const std::string file = module["file"];
      text.append(" ").append(file, 0, file.find_first_of("-."));
    }
  }
  return text;
}

/// Which value a program sees of a name that it inherits and that was requested too.
std::string nameInBothEnvironments() {
  Host host(Host::Options{.environment = {"LLDB_HELPER_TEST=inherited"}});
  host.launch(inferior("show"), {{"env", "LLDB_HELPER_TEST=requested"}});
  const std::string output = host.runToExit().output, name = "LLDB_HELPER_TEST=";
  const auto value = output.find(name) + name.size();
  const bool isTwice = output.find(name, value) != std::string::npos;
  return output.substr(value, output.find('>', value) - value) + (isTwice ? ", then both" : "");
}

/// Where GNU gdbserver's first stop at a breakpoint is seen.
std::string stopUnderGnuGdbserver() {
  const std::string program = inferior("steps-fixed");
  const int port = freePort();
  Running server({"gdbserver", "127.0.0.1:" + std::to_string(port), program});
  awaitListener(port);
  Host host;
  host.ask({{"command", "connectRemote"},
            {"url", "connect://127.0.0.1:" + std::to_string(port)},
            {"plugin", "gdb-remote"},
            {"file", program}});
  host.ask(
      {{"command", "setBreakpointAtVirtualAddress"}, {"address", fileAddress(program, "leaf")}});
  host.ask("continueExecution");
  host.awaitState("eStateRunning");
  host.awaitState("eStateStopped");
  return host.ask("getCallstack")["callstack"][0].value("function", "");
}

TEST(Platforms, TheTableTellsWhatThisLldbDoes) {
  const std::map<std::string, std::function<std::string()>> probes{
      {"createProcess: no such file",
       [] {
         return failedLaunch({{"path", "/nowhere/program"}});
       }},
      {"createProcess: not a program",
       [] {
         return failedLaunch({{"path", "/etc/passwd"}});
       }},
      {"createProcess: no such folder",
       [] {
         return failedLaunch({{"cwd", "/nowhere"}});
       }},
      {"createProcess: not executable", launchOfAFileThatIsNotExecutable},
      {"attachToProcess: no such process", attachToNothing},
      {"continueExecution of a running process", continueOfARunningProcess},
      {"getThreadIDList of a running process", threadsOfARunningProcess},
      {"Module events from entry to exit", moduleEventsOfARun},
      {"A name inherited and requested", nameInBothEnvironments},
      {"First stop under GNU gdbserver", stopUnderGnuGdbserver},
  };
  auto rows = expectations();
  if (rows.empty()) GTEST_SKIP() << "NOT TESTED: docs/platforms.md tells nothing of this LLDB";
  for (const auto &[name, probe] : probes) {
    const std::string seen = probe();
    EXPECT_TRUE(rows.count(name)) << "docs/platforms.md has no row for «" << name << "»: " << seen;
    EXPECT_TRUE(matches(seen, rows[name]))
        << name << "\n  seen: " << seen << "\n  said: " << rows[name];
    rows.erase(name);
  }
  for (const auto &[name, text] : rows) ADD_FAILURE() << "nothing probes «" << name << "»";
}

}  // namespace
