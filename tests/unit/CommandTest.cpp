#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>

#include "channel/CommandTable.h"

namespace {

const std::map<std::string, Needs> namesOfNeeds = {
    {"nothing", Needs::Nothing},      {"no target", Needs::NoTarget},
    {"no process", Needs::NoProcess}, {"a target", Needs::Target},
    {"a process", Needs::Process},    {"a target, then a process", Needs::TargetThenProcess},
};

TEST(CommandTable, TheReferenceNamesWhatEachCommandNeeds) {
  std::map<std::string, Needs> inTable, inReference;
  for (const Command &command : commandTable()) inTable[command.name] = command.needs;
  EXPECT_EQ(inTable.size(), commandTable().size());

  std::ifstream page(SOURCE_FOLDER "/docs/protocol.md");
  std::string line;
  while (std::getline(page, line) && line.find("| commands | needs |") != 0) continue;
  ASSERT_TRUE(page) << "the table is missing";
  std::getline(page, line);  // the rule below the heading
  const std::regex row(R"(\| ([^|]+) \| ([^|]+) \|.*)"), word(R"(\w+)");
  for (std::smatch cells; std::getline(page, line) && std::regex_match(line, cells, row);) {
    const std::string commands = cells[1];
    ASSERT_TRUE(namesOfNeeds.count(cells[2])) << cells[2];
    for (auto name = std::sregex_iterator(commands.begin(), commands.end(), word);
         name != std::sregex_iterator(); ++name)
      EXPECT_TRUE(inReference.emplace(name->str(), namesOfNeeds.at(cells[2])).second) << line;
  }
  EXPECT_EQ(inReference, inTable);
}

TEST(CommandTable, ACommandWithoutWhatItNeedsIsRefused) {
  struct Row {
    Needs needs;
    const char *withNothing, *withTarget, *withProcess;
  };
  const Row rows[] = {
      {Needs::Nothing, nullptr, nullptr, nullptr},
      {Needs::NoTarget, nullptr, "process already exists", "process already exists"},
      {Needs::NoProcess, nullptr, nullptr, "already has a process"},
      {Needs::Target, "no target", nullptr, nullptr},
      {Needs::Process, "no process", "no process", nullptr},
      {Needs::TargetThenProcess, "no target", "no process", nullptr},
  };
  EXPECT_EQ(std::size(rows), namesOfNeeds.size());
  for (const auto &[needs, withNothing, withTarget, withProcess] : rows) {
    EXPECT_STREQ(whyRefused(needs, false, false), withNothing);
    EXPECT_STREQ(whyRefused(needs, true, false), withTarget);
    EXPECT_STREQ(whyRefused(needs, true, true), withProcess);
  }
}

}  // namespace
