// One case of the work that Json does, for a count of its instructions under callgrind:
// bench-instructions CASE. Unlike times, the count does not depend on what else the machine does.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>

#include "JsonTexts.h"
#include "json/Json.h"

/// What callgrind counts.
extern "C" __attribute__((noinline)) void measured(const std::function<void()> &work) {
  work();
  asm volatile("");  // a jump in place of the call would already leave the function
}

/// The second time: what is made or looked up once does not count.
void measureAgain(const std::function<void()> &work) {
  work();
  measured(work);
}

namespace {

Json parsed(const std::string &text) {
  std::string error;
  Json value = Json::parse(text, error);
  if (!error.empty()) std::abort();
  return value;
}

void parseCase(const std::string &text) {
  measureAgain([&] { parsed(text); });
}

void dumpCase(const std::string &text) {
  const Json value = parsed(text);
  std::string written;
  measureAgain([&] { written = value.dump(); });
  if (written != text) std::abort();
}

void buildCase(std::size_t size) {
  std::string written;
  measureAgain([&] {
    JsonBytes block(size);
    for (std::size_t at = 0; at < size; ++at)
      block.data()[at] = static_cast<std::uint8_t>(static_cast<unsigned>(at) * 2654435761u >> 24);
    written = Json(Json::object{{"memory", Json(std::move(block))}, {"status", "ok"}}).dump();
  });
  if (written != memoryAnswer(size)) std::abort();
}

}  // namespace

int main(int argc, char **argv) {
  constexpr std::size_t bytes = 1 << 16, frames = 1000;
  const std::map<std::string, std::function<void()>> cases{
      {"parse memory", [] { parseCase(memoryAnswer(bytes)); }},
      {"parse stack", [] { parseCase(stackAnswer(frames)); }},
      {"parse small", [] { parseCase(smallRequest()); }},
      {"dump memory", [] { dumpCase(memoryAnswer(bytes)); }},
      {"dump stack", [] { dumpCase(stackAnswer(frames)); }},
      {"dump small", [] { dumpCase(smallRequest()); }},
      {"build and dump memory", [] { buildCase(bytes); }},
  };
  if (argc == 2 && cases.contains(argv[1])) {
    cases.at(argv[1])();
    return 0;
  }
  for (const auto &[name, run] : cases) std::puts(name.c_str());
  return argc == 1 ? 0 : 2;
}
