#include "NoProcess.h"

#include <lldb/API/LLDB.h>
#include <syslog.h>

#include <fstream>
#include <iterator>
#include <set>

#include "Check.h"
#include "platform/Process.h"

namespace noProcess {

void start() {
  platform::initialEnvironment();
  platform::forgetPythonHome();
  setlogmask(LOG_MASK(LOG_EMERG));  // no records of the helper's level
  lldb::SBDebugger::Initialize();
}

FILE *makeStream() {
  FILE *stream = std::tmpfile();
  check(stream != nullptr, "a temporary file can be created");
  return stream;
}

const std::map<std::string, std::vector<std::string>> &commands() {
  static const auto all = [] {
    std::ifstream file(PROTOCOL_SCHEMA);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    std::string error;
    const Json schema = Json::parse(text, error);
    std::map<std::string, std::vector<std::string>> found;
    for (const auto &[command, request] : schema["$defs"]["requests"].objectItems())
      for (const auto &[argument, form] : request["properties"].objectItems())
        found[command].push_back(argument);
    check(found.size() > 1, "the schema has commands");
    return found;
  }();
  return all;
}

bool reachesOutside(const Json &request) {
  static const std::set<std::string> outside{"attachToProcess", "completeCommand", "connectRemote",
                                             "createProcess", "executeCommand"};
  return outside.contains(request["command"].stringValue());
}

void checkResponse(const Json &request, const Json &response) {
  const std::string &command = request["command"].stringValue();
  const std::string text = response.dump();
  if (!commands().contains(command)) {
    check(response["message"].stringValue() == "unknown command '" + command + "'" &&
              response["status"].stringValue() == "error" && response.objectItems().size() == 2,
          "an unknown command is refused");
  } else {
    check(text == R"({"status": "ok"})" ||
              text == R"({"message": "no target", "status": "error"})" ||
              text == R"({"message": "no process", "status": "error"})",
          "a known command answers ok, no target or no process");
  }
}

}  // namespace noProcess
