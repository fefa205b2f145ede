// The code, docs/protocol.md and docs/protocol.schema.json name the same commands, arguments,
// members, events and error texts.

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>

#include "support/Conformance.h"
#include "support/Host.h"

namespace {

using Names = std::set<std::string>;

std::string sources(const std::string &folder = "") {
  std::string text;
  for (const auto &file : std::filesystem::recursive_directory_iterator(SOURCES + folder))
    if (file.path().extension() == ".cpp") text += readFile(file.path());
  return text;
}

/// The matches of a pattern, each with its groups; a group that did not take part is empty.
using Match = std::vector<std::string>;
std::vector<Match> all(const std::string &text, const char *pattern) {
  std::vector<Match> matches;
  const std::regex regex(pattern);
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match)
    matches.emplace_back(match->begin(), match->end());
  return matches;
}

Names keysOf(const json &object) {
  Names keys;
  for (const auto &item : object.items()) keys.insert(item.key());
  return keys;
}

const json &definitions() { return protocolSchema()["$defs"]; }

/// The names of all members that a part of the schema has at any depth.
Names membersIn(const json &schema) {
  Names names;
  if (schema.is_object() && schema.contains("properties")) names = keysOf(schema["properties"]);
  if (schema.is_structured())
    for (const json &inner : schema) names.merge(membersIn(inner));
  if (schema.is_object() && schema.contains("$ref"))
    names.merge(membersIn(
        protocolSchema().at(json::json_pointer(schema["$ref"].get<std::string>().substr(1)))));
  return names;
}

/// The error texts of a command in the schema.
Names errorsIn(const json &schema) {
  Names texts;
  if (schema.is_object() && schema.contains("x-errors")) texts = schema["x-errors"].get<Names>();
  if (schema.is_structured())
    for (const json &inner : schema) texts.merge(errorsIn(inner));
  return texts;
}

TEST(Reference, TheTableOfCommandsIsTheSchemas) {
  const std::string table = readFile(SOURCES "/channel/Dispatcher.cpp");
  const std::string rows = table.substr(table.find("const Command commands[]"));
  std::map<std::string, Names> commands;
  std::string last;
  for (const Match &match : all(rows, R"re(\{"(\w+)",|r\["(\w+)"\])re")) {
    if (!match[1].empty())
      commands[last = match[1]];
    else
      commands[last].insert(match[2]);
  }
  for (const Match &match :
       all(table.substr(0, table.size() - rows.size()), R"re(request\["(\w+)"\])re"))
    commands["prepareExecutable"].insert(match[1]);  // the row with a function of its own
  commands["connectRemote"].insert("platform");      // taken and not used

  EXPECT_EQ(commands.size(), 32u);
  for (const auto &[command, arguments] : commands) {
    ASSERT_TRUE(definitions()["requests"].contains(command)) << command;
    const json &schema = definitions()["requests"][command];
    Names named = keysOf(schema["properties"]);
    EXPECT_EQ(schema["x-arguments"].get<Names>(), arguments) << command;
    EXPECT_EQ(named.erase("command") + named.erase("id"), 2u) << command;
    EXPECT_EQ(named, arguments) << command;
  }
  EXPECT_EQ(keysOf(definitions()["requests"]).size(), commands.size());
}

/// An error text as it stands in the code: literals, and "…" for what is put between them.
std::string errorPattern(std::string expression) {
  expression = std::regex_replace(expression, std::regex(R"re(std::string\(("[^"]*")\))re"), "$1");
  std::string pattern;
  for (const Match &match : all(expression, R"re("([^"]*)"|[^\s+"][^"]*)re"))
    pattern += match[0][0] == '"' ? match[1] : "…";
  return pattern;
}

TEST(Reference, TheErrorTextsOfTheCodeAreTheSchemas) {
  std::map<std::string, Names> errors;
  for (const Match &match :
       all(sources(), R"re((?:errorResponse\("(\w+)",|(sendError)\()\s*([^;]*)\);)re")) {
    const std::string function = match[1];
    // sendError itself passes its caller's text on.
    if (match[3].find("errorResponse") != std::string::npos) continue;
    const bool isCommand = definitions()["requests"].contains(function);
    errors[isCommand ? function : "*"].insert(errorPattern(match[3]));
  }
  EXPECT_GE(errors.size(), 25u);
  for (const auto &[command, schema] : definitions()["responses"].items())
    EXPECT_EQ(errorsIn(schema), errors[command]) << command;
}

TEST(Reference, TheMembersOfTheCodeAreTheSchemas) {
  Names written;
  for (const std::string folder : {"/commands", "/session", "/events", "/channel"}) {
    const std::string code = folder == "/channel" ? readFile(SOURCES "/channel/Envelope.cpp") +
                                                        readFile(SOURCES "/channel/RequestLoop.cpp")
                                                  : sources(folder);
    for (const Match &match : all(code, R"re([{\[]"([\w-]+)"[,\]])re")) written.insert(match[1]);
  }
  Names named = membersIn(definitions()["responses"]);
  named.merge(membersIn(definitions()["events"]));
  EXPECT_EQ(named, written);

  Names types;
  for (const Match &match :
       all(readFile(SOURCES "/events/EventMonitor.cpp"), R"re((?:send|reportOutput)\("(\w+)")re"))
    types.insert(match[1]);
  EXPECT_EQ(keysOf(definitions()["events"]), types);
}

/// The page's text about each command, on one line.
std::map<std::string, std::string> sections() {
  std::map<std::string, std::string> sections;
  const std::string page = readFile(DOCS "/protocol.md");
  const std::string commands = page.substr(page.find("\n## Commands"),
                                           page.find("\n## Events") - page.find("\n## Commands"));
  for (std::size_t at = commands.find("\n### "); at != std::string::npos;) {
    const auto next = commands.find("\n### ", at + 1);
    const std::string section = commands.substr(at + 5, next - at - 5);
    const std::string heading = section.substr(0, section.find('\n'));
    const std::string text = std::regex_replace(section, std::regex(R"(\s+)"), " ");
    for (const Match &match : all(heading, R"(\w+)")) sections[match[0]] = text;
    at = next;
  }
  return sections;
}

bool isQuoted(const std::string &text, const std::string &section) {
  if (text == "no process" && section.find("*no process*") != std::string::npos) return true;
  return section.find("`" + text) != std::string::npos;
}

TEST(Reference, ThePageTellsOfAllThatTheSchemaNames) {
  const auto page = sections();
  EXPECT_EQ(page.size(), 32u);
  for (const auto &[command, request] : definitions()["requests"].items()) {
    ASSERT_TRUE(page.count(command)) << command << " has no section";
    const std::string &section = page.at(command);
    Names names = request["x-arguments"].get<Names>();
    names.merge(membersIn(definitions()["responses"][command]));
    for (const char *common : {"status", "message", "id"}) names.erase(common);
    for (const std::string &name : names)
      EXPECT_TRUE(isQuoted(name + "`", section)) << command << " does not tell of " << name;

    const Names errors = errorsIn(definitions()["responses"][command]);
    for (const std::string &text : errors)
      if (text != "…")
        EXPECT_TRUE(isQuoted(text.substr(0, text.find("…")), section))
            << command << " does not tell of the error " << text;
    // And the other way round.
    const auto told = section.find("Errors: ");
    const std::string list = told == std::string::npos ? "" : section.substr(told);
    for (const Match &match : all(list.substr(0, list.find(". ")), "`([^`]+)`")) {
      const std::string text = match[1];
      const bool isError = std::any_of(errors.begin(), errors.end(), [&](const std::string &error) {
        return error.find(text) != std::string::npos;
      });
      EXPECT_TRUE(isError || page.count(text) > 0)
          << command << " tells of an error «" << text << "»";
    }
  }
  const std::string whole = readFile(DOCS "/protocol.md");
  for (const auto &[type, event] : definitions()["events"].items())
    for (const std::string &name : membersIn(event))
      if (name != "status" && name != "type")
        EXPECT_NE(whole.find("`" + name + "`"), std::string::npos) << type << ": " << name;
}

}  // namespace
