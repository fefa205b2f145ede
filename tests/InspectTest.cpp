// Registers, memory, call stack and modules, compared with what the kernel and the files say.

#include <gtest/gtest.h>

#include <fstream>

#include "support/Inferior.h"

namespace {

json readMemory(std::uint64_t address, std::int64_t length) {
  return {{"command", "readMemory"}, {"address", address}, {"length", length}};
}

json setRegister(const std::string &name, const std::string &value) {
  return {{"command", "setRegister"}, {"register", name}, {"value", value}};
}

std::uint64_t number(const json &text) { return std::stoull(text.get<std::string>(), nullptr, 0); }

TEST(Inspect, WithoutProcess) {
  Host host;
  for (const char *command :
       {"getRegisters", "setRegister", "readMemory", "writeByte", "getCallstack", "selectFrame",
        "moduleCount", "moduleAtIndex", "moduleForFile", "sendToApplication"})
    EXPECT_EQ(host.ask(command), errorMessage("no process")) << command;
}

TEST(Inspect, RegistersAreReadAndSet) {
  Debugged host("steps");
  host.goTo("leaf");
  const json registers = host.registers();
  EXPECT_EQ(number(registers[pcRegister]), host.addressOf("leaf"));
  EXPECT_GT(registers.size(), 50u);
  for (const auto &[name, value] : registers.items()) {
    EXPECT_TRUE(name.rfind("ymm", 0) != 0 && name.rfind("zmm", 0) != 0) << name;
    EXPECT_TRUE(value.is_string() && value != "<error>") << name << " " << value;
  }
  // A vector register is its bytes, the most significant first.
  const std::string vector = registers[vectorRegister];
  EXPECT_EQ(vector.size(), 2u + 32u) << vector;

  EXPECT_EQ(host.ask(setRegister(plainRegister, "0x123456789abcdef0")), ok);
  EXPECT_EQ(host.registers()[plainRegister], "0x123456789abcdef0");
  EXPECT_EQ(host.ask(setRegister("no such", "1")), errorMessage("register not found"));
  const json refused = host.ask(setRegister(plainRegister, "not a number"));
  const std::string message = refused["message"], prefix = "cannot set the register value: ";
  EXPECT_EQ(message.rfind(prefix, 0), 0u) << message;
  EXPECT_GT(message.size(), prefix.size()) << "LLDB's reason is missing";
}

#if defined(__x86_64__)
TEST(Inspect, VectorRegistersComeMostSignificantByteFirst) {
  Debugged host("steps");
  host.goTo("leaf");
  const json set = host.ask({{"command", "executeCommand"},
                             {"cli",
                              "register write xmm0 \"{0x01 0x02 0x03 0x04 0x05 0x06 0x07 0x08 "
                              "0x09 0x0a 0x0b 0x0c 0x0d 0x0e 0x0f 0xf0}\""}});
  ASSERT_EQ(set["succeeded"], true) << set;
  EXPECT_EQ(host.registers()["xmm0"], "0xf00f0e0d0c0b0a090807060504030201");
}
#endif

TEST(Inspect, AFrameHasItsOwnRegisters) {
  Debugged host("steps");
  host.goTo("leaf");
  const json stack = host.stack();
  ASSERT_GE(stack.size(), 3u);
  const auto selectFrame = [&](std::uint64_t index) {
    return host.ask({{"command", "selectFrame"}, {"index", index}});
  };
  for (const std::uint64_t index : {1, 2, 0}) {
    ASSERT_EQ(selectFrame(index), ok);
    EXPECT_EQ(number(host.registers()[pcRegister]), stack[index]["pc"]) << index;
  }
  // An index past the end keeps the selection; of an index only 32 bits count.
  ASSERT_EQ(selectFrame(1), ok);
  EXPECT_EQ(selectFrame(100000), ok);
  EXPECT_EQ(selectFrame(4294967297), ok);
  EXPECT_EQ(number(host.registers()[pcRegister]), stack[1]["pc"]);
  EXPECT_EQ(host.ask("selectFrame"), ok);
  EXPECT_EQ(number(host.registers()[pcRegister]), stack[0]["pc"]);
}

TEST(Inspect, ADeepCallStack) {
  Debugged host("recurse", "1000");
  host.resume();  // to the trap
  const json stack = host.stack();
  ASSERT_GT(stack.size(), 1003u);
  // The innermost frame lies in memory of no module.
  EXPECT_EQ(stack[0], (json{{"pc", stack[0]["pc"]}}));
  EXPECT_EQ(stack[1]["function"], "end");
  for (int frame = 2; frame < 1002; ++frame)
    ASSERT_EQ(stack[frame]["function"], "recurse") << frame;
  EXPECT_EQ(stack[1002]["function"], "main");
  EXPECT_EQ(stack[1002]["filename"], "recurse");
  EXPECT_FALSE(stack[1002]["uuid"].get<std::string>().empty());
}

TEST(Inspect, FramesInALibrary) {
  Debugged host("recurse", "1 library");
  host.goTo("bottom");
  const json stack = host.stack();
  EXPECT_EQ(stack[0]["function"], "bottom");
  EXPECT_EQ(stack[1]["filename"].get<std::string>().rfind("libc.so", 0), 0u) << stack[1];
  EXPECT_EQ(stack[1]["filename"].get<std::string>().find('/'), std::string::npos);
}

/// The memory inferior, running or stopped, and where its block lies.
struct Block {
  explicit Block(const std::string &megabytes) : host("memory", megabytes) {
    host.ask("continueExecution");
    std::istringstream(host.awaitOutput()) >> start >> size;
    host.ask("breakExecution");
    host.awaitState("eStateStopped");
  }
  Debugged host;
  std::uint64_t start = 0, size = 0;
};

json numbers(const std::string &bytes) {
  json list = json::array();
  for (const char byte : bytes) list.push_back(static_cast<unsigned char>(byte));
  return list;
}

TEST(Inspect, MemoryIsWhatTheKernelShows) {
  Block block("1");
  const std::uint64_t end = block.start + block.size;
  for (const auto &[address, length] :
       std::initializer_list<std::pair<std::uint64_t, int>>{{block.start, 0},
                                                            {block.start, 1},
                                                            {block.start + 4090, 300},
                                                            {end - 64, 64},
                                                            {block.start + 1, 70000}})
    EXPECT_EQ(block.host.ask(readMemory(address, length)),
              (json{{"memory", numbers(peek(block.host.inferiorPid(), address, length))},
                    {"status", "ok"}}))
        << length;
  const json refused = errorMessage("unable to read memory");
  EXPECT_EQ(block.host.ask(readMemory(end - 8, 16)), refused) << "crosses the end";
  EXPECT_EQ(block.host.ask(readMemory(end, 16)), refused);
  EXPECT_EQ(block.host.ask(readMemory(0, 16)), refused);
  EXPECT_EQ(block.host.ask(readMemory(block.start, -1)), refused);
  EXPECT_EQ(block.host.ask(readMemory(block.start, -2147483648)), refused);
}

void expectPeakBelow(const Host &host, long kibibytes) {
  if (isSanitized) {
    std::printf("NOT CHECKED under a sanitizer: memory peak of %d below %ld KiB\n", host.pid(),
                kibibytes);
  } else {
    EXPECT_LT(statusFigure(host.pid(), "VmHWM"), kibibytes);
  }
}

TEST(Inspect, AnyLengthIsAnswered) {
  Block block("1");
  const long before = statusFigure(block.host.pid(), "VmHWM");
  // 2,147,483,647 as a host can write it: the shorter literal's form would be a double.
  EXPECT_EQ(block.host.ask(readMemory(block.start, 2147483647)),
            errorMessage("unable to read memory"));
  expectPeakBelow(block.host, before + 64 * 1024);
}

TEST(Inspect, ALargeBlockIsAnsweredWithinBounds) {
  constexpr std::uint64_t size = 128 << 20;
  Block block("128");
  block.host.send(readMemory(block.start, size));
  const std::string text = *block.host.nextText();
  const std::string prefix = "{\"memory\": [";
  ASSERT_EQ(text.compare(0, prefix.size(), prefix), 0);
  const char *at = text.c_str() + prefix.size();
  for (std::uint64_t offset = 0; offset < size; ++offset) {
    char *behind;
    const auto value = std::strtoul(at, &behind, 10);
    ASSERT_EQ(value, static_cast<unsigned char>(offset * 7 + offset / 4096)) << offset;
    at = behind + (offset + 1 < size ? 2 : 0);
  }
  EXPECT_STREQ(at, "], \"status\": \"ok\"}");
  expectPeakBelow(block.host, 1200 * 1024);
}

TEST(Inspect, BytesAreWritten) {
  Block block("1");
  block.host.conformance.checksRequests = false;
  const std::pair<json, int> rows[] = {{255, 255},  {256, 0}, {511, 255}, {-1, 255},
                                       {0x80, 128}, {"7", 0}, {1.9, 1},   {4294967296, 0}};
  for (const auto &[value, byte] : rows) {
    block.host.ask({{"command", "writeByte"}, {"address", block.start}, {"value", 77}});
    EXPECT_EQ(
        block.host.ask({{"command", "writeByte"}, {"address", block.start}, {"value", value}}), ok);
    EXPECT_EQ(block.host.ask(readMemory(block.start, 2))["memory"], (json{byte, 7})) << value;
    EXPECT_EQ(peek(block.host.inferiorPid(), block.start, 1)[0], static_cast<char>(byte)) << value;
  }
  const std::string message =
      block.host.ask({{"command", "writeByte"}, {"address", 16}, {"value", 1}})["message"];
  EXPECT_EQ(message.rfind("unable to write memory: ", 0), 0u) << message;
  EXPECT_NE(message.find(" (state eStateStopped)"), std::string::npos) << message;
}

TEST(Inspect, ModulesLieWhereTheKernelPutThem) {
  Debugged host("steps");
  host.conformance.checksRequests = false;
  host.goTo("main");
  const std::int32_t count = host.ask("moduleCount")["count"];
  ASSERT_GE(count, 3);
  bool sawProgram = false, sawLibrary = false;
  for (std::int32_t index = 0; index < count; ++index) {
    const json response = host.ask({{"command", "moduleAtIndex"}, {"index", index}});
    const json module = response["module"];
    EXPECT_EQ(module["is_valid"], true);
    const std::string name = module.value("filename", "");
    for (const json &section : module["sections"]) EXPECT_GE(section.size(), 4u) << section;
    // The kernel's own module has no file.
    for (const Mapping &mapping : mappings(host.inferiorPid())) {
      const bool isBase = mapping.offset == 0 && !mapping.file.empty() && mapping.file[0] == '/';
      if (!isBase || mapping.file.substr(mapping.file.rfind('/') + 1) != name) continue;
      (name == "steps" ? sawProgram : sawLibrary) = true;
      for (const json &section : module["sections"]) {
        const std::uint64_t load = section["loadAddr"], inFile = section["fileAddr"];
        if (load != 18446744073709551615u) EXPECT_EQ(load - inFile, mapping.start) << section;
      }
      // LLDB knows a library by the name under which the loader found it.
      if (name == "steps")
        EXPECT_EQ(host.ask({{"command", "moduleForFile"}, {"file", mapping.file}}), response);
    }
  }
  EXPECT_TRUE(sawProgram && sawLibrary);
  const json outside = errorMessage("index out of range");
  EXPECT_EQ(host.ask({{"command", "moduleAtIndex"}, {"index", count}}), outside);
  EXPECT_EQ(host.ask({{"command", "moduleAtIndex"}, {"index", -1}}), outside);
  EXPECT_EQ(host.ask({{"command", "moduleAtIndex"}, {"index", 4294967296}}),
            host.ask("moduleAtIndex"));
  const json missing = errorMessage("can't find module");
  EXPECT_EQ(host.ask("moduleForFile"), missing);
  EXPECT_EQ(host.ask({{"command", "moduleForFile"}, {"file", "/nowhere"}}), missing);
}

TEST(Inspect, SectionsThatAreNotLoadedSaySo) {
  Debugged host("steps");
  const std::string text =
      host.ask({{"command", "moduleForFile"}, {"file", host.file}})["module"].dump();
  EXPECT_NE(text.find("\"loadAddr\":18446744073709551615"), std::string::npos) << text;
}

TEST(Inspect, ALibraryComesAndGoes) {
  Debugged host("loader", inferior("libplugin.so"));
  host.goTo("opened");
  ASSERT_EQ(host.ask({{"command", "moduleForFile"}, {"file", inferior("libplugin.so")}})["status"],
            "ok");
  // LLDB 14 tells of a library twice, the first time perhaps before it has placed it.
  json loaded;
  for (const json &message : host.history)
    if (message.value("type", "") == "moduleLoaded")
      for (const json &module : message["modules"])
        if (module["file"] == "libplugin.so") loaded = module;
  ASSERT_TRUE(loaded.is_object());
  EXPECT_EQ(loaded["directory"].get<std::string>() + "/libplugin.so", inferior("libplugin.so"));
  EXPECT_EQ(loaded["slide"], imageBase(host.inferiorPid(), inferior("libplugin.so")));
  host.history.clear();
  host.goTo("done");
  const auto isUnload = [](const json &message) {
    return message ==
           json{{"modules", json::array()}, {"status", "event"}, {"type", "moduleUnloaded"}};
  };
  EXPECT_TRUE(std::any_of(host.history.begin(), host.history.end(), isUnload));
  EXPECT_EQ(host.ask({{"command", "moduleForFile"}, {"file", inferior("libplugin.so")}}),
            errorMessage("can't find module"));
}

TEST(Inspect, ProgramsThatNobodyHereWrote) {
  Host host;
  const std::pair<std::string, std::string> programs[] = {
      {"/bin/ls", "/proc/self/status"},
      {"/bin/cat", inferior("") + "../notes"},
      {"/usr/bin/python3", "-c \"print(6*7)\""}};
  const std::string outputs[] = {"/proc/self/status\r\n", "some notes\r\n", "42\r\n"};
  std::ofstream(inferior("") + "../notes") << "some notes\n";
  for (int index = 0; index < 3; ++index) {
    SCOPED_TRACE(programs[index].first);
    host.launch(programs[index].first, {{"args", programs[index].second}});
    EXPECT_GT(host.ask("getRegisters")["registers"].size(), 20u);
    EXPECT_GT(host.ask("getCallstack")["callstack"].size(), 0u);
    host.awaitState("eStateStopped");
    EXPECT_EQ(host.runToExit().output, outputs[index]);
    EXPECT_EQ(host.ask("deleteProcess"), ok);
  }
}

}  // namespace
