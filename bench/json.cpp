// Our Json beside well-known libraries: how fast each reads, writes and builds what goes through
// the pipes. All build the same values and write the same numbers. Bytes per second are those of
// our text.
//   bench-json [OPTIONS OF GOOGLE BENCHMARK]
//   bench-json --count          writes the names of our own cases
//   bench-json --count CASE     does smaller work twice. callgrind counts the second time, as what
//                               is made or looked up once does not count.

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "json/Json.h"

/// What callgrind counts.
extern "C" __attribute__((noinline)) void measured(const std::function<void()> &work) {
  work();
  asm volatile("");  // a jump in place of the call would already leave the function
}

namespace {

using Bytes = std::vector<unsigned char>;

struct Ours {
  static constexpr const char *name = "ours";
  Json parse(const std::string &text) {
    std::string error;
    Json value = Json::parse(text, error);
    if (!error.empty()) throw std::runtime_error(error);
    return value;
  }
  std::string dump(const Json &value) { return value.dump(); }
  std::string build(const Bytes &bytes) {
    JsonBytes block(bytes.size());
    std::memcpy(block.data(), bytes.data(), bytes.size());
    return Json(Json::object{{"memory", Json(std::move(block))}, {"status", "ok"}}).dump();
  }
};

struct Nlohmann {
  static constexpr const char *name = "nlohmann";
  nlohmann::json parse(const std::string &text) { return nlohmann::json::parse(text); }
  std::string dump(const nlohmann::json &value) { return value.dump(); }
  std::string build(const Bytes &bytes) {
    return nlohmann::json{{"memory", bytes}, {"status", "ok"}}.dump();
  }
};

struct Rapid {
  static constexpr const char *name = "RapidJSON";
  rapidjson::Document parse(const std::string &text) {
    rapidjson::Document document;
    document.Parse(text.data(), text.size());
    if (document.HasParseError()) throw std::runtime_error("RapidJSON");
    return document;
  }
  std::string dump(const rapidjson::Value &value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
  }
  std::string build(const Bytes &bytes) {
    rapidjson::Document document(rapidjson::kObjectType);
    auto &allocator = document.GetAllocator();
    rapidjson::Value items(rapidjson::kArrayType);
    items.Reserve(static_cast<rapidjson::SizeType>(bytes.size()), allocator);
    for (const unsigned char byte : bytes) items.PushBack(byte, allocator);
    document.AddMember("memory", items, allocator);
    document.AddMember("status", "ok", allocator);
    return dump(document);
  }
};

struct Simd {
  static constexpr const char *name = "simdjson";
  simdjson::dom::parser parser;
  simdjson::dom::element parse(const std::string &text) { return parser.parse(text).value(); }
  std::string dump(const simdjson::dom::element &value) { return simdjson::minify(value); }
};

/// Calls take(name, size, work) for each case of a text. `bytes` are those of the text "memory".
template <typename Library>
void takeCases(const auto &take, const std::string &name, const std::string &text,
               const Bytes &bytes) {
  const auto add = [&](const char *job, const std::function<void()> &work) {
    take(std::string(job) + "/" + Library::name + "/" + name, text.size(), work);
  };
  const auto library = std::make_shared<Library>();
  add("parse", [=] { benchmark::DoNotOptimize(library->parse(text)); });
  // The value that is written comes from a parser of its own: simdjson's values live in theirs.
  const auto writer = std::make_shared<Library>();
  const auto value = std::make_shared<decltype(writer->parse(text))>(writer->parse(text));
  add("dump", [=] { benchmark::DoNotOptimize(writer->dump(*value)); });
  if constexpr (requires { library->build(bytes); }) {
    if (name == "memory")
      add("build and dump", [=] { benchmark::DoNotOptimize(library->build(bytes)); });
  }
}

template <typename Item>
std::string jsonList(std::size_t count, Item item) {
  std::string text = "[";
  for (std::size_t at = 0; at < count; ++at) text += (at > 0 ? ", " : "") + item(at);
  return text + "]";
}

}  // namespace

int main(int argc, char **argv) {
  const bool counts = argc > 1 && argv[1] == std::string("--count");
  const std::size_t frames = counts ? 1000 : 10000;
  Bytes bytes(counts ? 1 << 16 : 1 << 20);
  for (std::size_t at = 0; at < bytes.size(); ++at)
    bytes[at] = static_cast<unsigned char>(static_cast<unsigned>(at) * 2654435761u >> 24);
  const auto number = [&](std::size_t at) { return std::to_string(bytes[at]); };
  const auto frame = [](std::size_t at) {
    return R"-({"filename": "libexample.so.6", "function": "example::descend(int, token const&)", )-"
           R"("pc": )" +
           std::to_string(0x7ffff7a00000 + at * 48) +
           R"(, "uuid": "6374AF2D-A869-4C4C-3CD0-7620417EB0DE-659209EB"})";
  };
  // What goes through lldb-helper's pipes, as it writes it.
  const std::pair<const char *, std::string> texts[] = {
      {"memory", R"({"memory": )" + jsonList(bytes.size(), number) + R"(, "status": "ok"})"},
      {"stack", R"({"callstack": )" + jsonList(frames, frame) + R"(, "status": "ok"})"},
      {"small",
       R"({"address": 140737353854976, "command": "readMemory", "id": 12345, "length": 64})"},
      {"input", R"({"command": "sendToApplication", "data": )" + jsonList(65536, number) +
                    R"(, "id": 12345})"}};
  const auto take = [&](const std::string &name, std::size_t size,
                        const std::function<void()> &work) {
    if (!counts) {
      benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
        for (auto _ : state) work();
        state.SetBytesProcessed(static_cast<std::int64_t>(size) *
                                static_cast<std::int64_t>(state.iterations()));
      });
    } else if (argc == 2) {
      std::puts(name.c_str());
    } else if (name == argv[2]) {
      work();
      measured(work);
    }
  };
  for (const auto &[name, text] : texts) {
    if (Ours().dump(Ours().parse(text)) != text) throw std::runtime_error("another text");
    takeCases<Ours>(take, name, text, bytes);
    if (counts) continue;
    takeCases<Nlohmann>(take, name, text, bytes);
    takeCases<Rapid>(take, name, text, bytes);
    takeCases<Simd>(take, name, text, bytes);
  }
  if (Ours().build(bytes) != texts[0].second) throw std::runtime_error("another text");
  if (counts) return 0;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
