// Our Json beside well-known libraries: how fast each reads, writes and builds what goes through
// the pipes. All build the same values and write the same numbers. Bytes per second are those of
// our text.

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include <cstring>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "JsonTexts.h"
#include "json/Json.h"

namespace {

struct Ours {
  static constexpr const char *name = "ours";
  Json parse(const std::string &text) {
    std::string error;
    Json value = Json::parse(text, error);
    if (!error.empty()) throw std::runtime_error(error);
    return value;
  }
  std::string dump(const Json &value) { return value.dump(); }
  std::string build(const std::vector<unsigned char> &bytes) {
    JsonBytes block(bytes.size());
    std::memcpy(block.data(), bytes.data(), bytes.size());
    return Json(Json::object{{"memory", Json(std::move(block))}, {"status", "ok"}}).dump();
  }
};

struct Nlohmann {
  static constexpr const char *name = "nlohmann";
  nlohmann::json parse(const std::string &text) { return nlohmann::json::parse(text); }
  std::string dump(const nlohmann::json &value) { return value.dump(); }
  std::string build(const std::vector<unsigned char> &bytes) {
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
  std::string build(const std::vector<unsigned char> &bytes) {
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

void measure(const std::string &job, const char *library, const char *text, std::size_t size,
             const std::function<void()> &work) {
  const std::string name = job + "/" + library + "/" + text;
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
    for (auto _ : state) work();
    state.SetBytesProcessed(static_cast<std::int64_t>(size) *
                            static_cast<std::int64_t>(state.iterations()));
  });
}

template <typename Library>
void registerAll(const char *name, const std::string &text) {
  const auto library = std::make_shared<Library>();
  measure("parse", Library::name, name, text.size(),
          [=] { benchmark::DoNotOptimize(library->parse(text)); });
  // The value that is written comes from a parser of its own: simdjson's values live in theirs.
  const auto writer = std::make_shared<Library>();
  const auto written = std::make_shared<decltype(writer->parse(text))>(writer->parse(text));
  measure("dump", Library::name, name, text.size(),
          [=] { benchmark::DoNotOptimize(writer->dump(*written)); });
  if constexpr (requires { library->build({}); }) {
    if (name != std::string("memory")) return;
    std::vector<unsigned char> bytes(1 << 20);
    for (std::size_t at = 0; at < bytes.size(); ++at) bytes[at] = memoryByte(at);
    measure("build and dump", Library::name, name, text.size(),
            [=] { benchmark::DoNotOptimize(library->build(bytes)); });
  }
}

}  // namespace

int main(int argc, char **argv) {
  const std::pair<const char *, std::string> texts[] = {{"memory", memoryAnswer()},
                                                        {"stack", stackAnswer()},
                                                        {"small", smallRequest()},
                                                        {"input", inputRequest()}};
  for (const auto &[name, text] : texts) {
    if (Ours().dump(Ours().parse(text)) != text) throw std::runtime_error("another text");
    registerAll<Ours>(name, text);
    registerAll<Nlohmann>(name, text);
    registerAll<Rapid>(name, text);
    registerAll<Simd>(name, text);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
