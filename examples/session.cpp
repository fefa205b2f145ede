// Debugs a small program from its launch to its exit, and shows the messages on the two pipes.
//
// Usage: session HELPER PROGRAM

#include <filesystem>
#include <iostream>

#include "host.hpp"

using nlohmann::json;

static json ask(Helper &helper, const std::string &command,
                const json &arguments = json::object()) {
  std::cout << "-> " << command << ' ' << Helper::dump(arguments) << std::endl;
  json response = helper.ask(command, arguments);
  if (response["status"] != "ok")
    throw std::runtime_error(
        command + ": " + response["message"].get<std::string>() +
        "\ndocs/troubleshooting.md explains this message under \"Launching\".");
  return response;
}

// The output arrives as two hexadecimal digits for each byte.
static std::string decoded(const std::string &digits) {
  std::string bytes;
  for (std::size_t at = 0; at + 1 < digits.size(); at += 2)
    bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
  return bytes;
}

// Reads events up to the one with this state, and returns that event. Collects the output.
static json readUntil(Helper &helper, const std::string &state, std::string &output) {
  for (;;) {
    const json event = helper.nextEvent();
    if (event["type"] == "stdout" || event["type"] == "stderr") {
      output += decoded(event["output"]);
      continue;
    }
    std::cout << " * " << Helper::dump(event) << std::endl;
    if (event["type"] != "state") continue;
    if (event["state_desc"] == state) return event;
    if (event["state_desc"] == "eStateExited")
      throw std::runtime_error("the program did not reach " + state);
  }
}

static bool debug(Helper &helper, const std::string &program) {
  std::string output;
  ask(helper, "prepareExecutable",
      {{"path", std::filesystem::absolute(program).string()},
       {"args", "world"},
       {"env", "GREETING=\"Good morning\""},
       {"cwd", std::filesystem::current_path().string()},
       {"triple", ""},
       {"is64Bits", true}});
  ask(helper, "createProcess");
  readUntil(helper, "eStateStopped", output);

  // Read 64-bit numbers as such. A double or an int loses digits.
  const auto pc = ask(helper, "getCallstack")["callstack"][0]["pc"].get<std::uint64_t>();
  const json registers = ask(helper, "getRegisters")["registers"];
  const std::string counter = registers[registers.contains("rip") ? "rip" : "pc"];
  std::cout << "   pc 0x" << std::hex << pc << std::dec << std::endl;
  if (pc != std::stoull(counter, nullptr, 16)) throw std::runtime_error("pc is not " + counter);

  ask(helper, "continueExecution");
  const int status = readUntil(helper, "eStateExited", output)["exit_status"];
  // The program runs on its own terminal, which ends lines with "\r\n".
  std::cout << output << "exit status " << status << std::endl;
  ask(helper, "deleteProcess");
  return output.find("Good morning, world!") != std::string::npos && status == 3;
}

int main(int argc, char **argv) {
  if (argc != 3) {
    std::cerr << "usage: session HELPER PROGRAM" << std::endl;
    return 1;
  }
  try {
    Helper helper(argv[1]);
    const bool asExpected = debug(helper, argv[2]);
    const int status = helper.close();
    std::cout << "the helper ended with " << status << std::endl;
    return asExpected && status == 0 ? 0 : 1;
  } catch (const std::exception &failure) {
    std::cerr << failure.what() << std::endl;
    return 1;
  }
}
