// Our Json beside the libraries that people take when they need one: how fast each reads, writes
// and builds what goes through the pipes. All build the same values and write the same numbers;
// bytes per second are those of our text.

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "JsonTexts.h"
#include "json/Json.h"

namespace {

struct Case {
  const char *name;
  std::string text;
};

const Case cases[] = {
    {"memory", memoryAnswer()}, {"stack", stackAnswer()}, {"small", smallRequest()}};

void report(benchmark::State &state, std::size_t bytes) {
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes) *
                          static_cast<std::int64_t>(state.iterations()));
}

// --- reading ------------------------------------------------------------------------------------

Json parseOurs(const std::string &text) {
  std::string error;
  Json value = Json::parse(text, error);
  if (!error.empty()) throw std::runtime_error(error);
  return value;
}

rapidjson::Document parseRapid(const std::string &text) {
  rapidjson::Document document;
  document.Parse(text.data(), text.size());
  if (document.HasParseError()) throw std::runtime_error("RapidJSON");
  return document;
}

void ParseOurs(benchmark::State &state, const Case &example) {
  for (auto _ : state) benchmark::DoNotOptimize(parseOurs(example.text));
  report(state, example.text.size());
}

void ParseNlohmann(benchmark::State &state, const Case &example) {
  for (auto _ : state) benchmark::DoNotOptimize(nlohmann::json::parse(example.text));
  report(state, example.text.size());
}

void ParseRapid(benchmark::State &state, const Case &example) {
  for (auto _ : state) benchmark::DoNotOptimize(parseRapid(example.text));
  report(state, example.text.size());
}

void ParseSimd(benchmark::State &state, const Case &example) {
  simdjson::dom::parser parser;
  const simdjson::padded_string text(example.text);
  for (auto _ : state) benchmark::DoNotOptimize(parser.parse(text).value());
  report(state, example.text.size());
}

// --- writing ------------------------------------------------------------------------------------

void DumpOurs(benchmark::State &state, const Case &example) {
  const Json value = parseOurs(example.text);
  if (value.dump() != example.text) throw std::runtime_error("not the text that was read");
  for (auto _ : state) benchmark::DoNotOptimize(value.dump());
  report(state, example.text.size());
}

void DumpNlohmann(benchmark::State &state, const Case &example) {
  const nlohmann::json value = nlohmann::json::parse(example.text);
  for (auto _ : state) benchmark::DoNotOptimize(value.dump());
  report(state, example.text.size());
}

std::string dump(const rapidjson::Value &value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return {buffer.GetString(), buffer.GetSize()};
}

void DumpRapid(benchmark::State &state, const Case &example) {
  const rapidjson::Document value = parseRapid(example.text);
  for (auto _ : state) benchmark::DoNotOptimize(dump(value));
  report(state, example.text.size());
}

void DumpSimd(benchmark::State &state, const Case &example) {
  simdjson::dom::parser parser;
  const simdjson::padded_string text(example.text);
  const simdjson::dom::element value = parser.parse(text).value();
  for (auto _ : state) benchmark::DoNotOptimize(simdjson::minify(value));
  report(state, example.text.size());
}

// --- building a memory answer from its bytes, and writing it
// ---------------------------------------

std::vector<unsigned char> memory() {
  std::vector<unsigned char> bytes(1 << 20);
  for (std::size_t at = 0; at < bytes.size(); ++at)
    bytes[at] = static_cast<unsigned char>(static_cast<unsigned>(at) * 2654435761u >> 24);
  return bytes;
}

void BuildOurs(benchmark::State &state) {
  const auto bytes = memory();
  const auto build = [&] {
    JsonBytes block(bytes.size());
    std::memcpy(block.data(), bytes.data(), bytes.size());
    return Json(Json::object{{"memory", Json(std::move(block))}, {"status", "ok"}}).dump();
  };
  if (build() != cases[0].text) throw std::runtime_error("another text");
  for (auto _ : state) benchmark::DoNotOptimize(build());
  report(state, cases[0].text.size());
}

void BuildNlohmann(benchmark::State &state) {
  const auto bytes = memory();
  for (auto _ : state)
    benchmark::DoNotOptimize(nlohmann::json{{"memory", bytes}, {"status", "ok"}}.dump());
  report(state, cases[0].text.size());
}

void BuildRapid(benchmark::State &state) {
  const auto bytes = memory();
  for (auto _ : state) {
    rapidjson::Document document(rapidjson::kObjectType);
    auto &allocator = document.GetAllocator();
    rapidjson::Value items(rapidjson::kArrayType);
    items.Reserve(static_cast<rapidjson::SizeType>(bytes.size()), allocator);
    for (const unsigned char byte : bytes) items.PushBack(byte, allocator);
    document.AddMember("memory", items, allocator);
    document.AddMember("status", "ok", allocator);
    benchmark::DoNotOptimize(dump(document));
  }
  report(state, cases[0].text.size());
}

}  // namespace

int main(int argc, char **argv) {
  for (const Case &example : cases) {
    const struct {
      const char *job;
      void (*function)(benchmark::State &, const Case &);
    } jobs[] = {{"parse/ours", ParseOurs},       {"parse/nlohmann", ParseNlohmann},
                {"parse/RapidJSON", ParseRapid}, {"parse/simdjson", ParseSimd},
                {"dump/ours", DumpOurs},         {"dump/nlohmann", DumpNlohmann},
                {"dump/RapidJSON", DumpRapid},   {"dump/simdjson", DumpSimd}};
    for (const auto &[job, function] : jobs)
      benchmark::RegisterBenchmark((std::string(job) + "/" + example.name).c_str(), function,
                                   example);
  }
  benchmark::RegisterBenchmark("build and dump/ours/memory", BuildOurs);
  benchmark::RegisterBenchmark("build and dump/nlohmann/memory", BuildNlohmann);
  benchmark::RegisterBenchmark("build and dump/RapidJSON/memory", BuildRapid);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
