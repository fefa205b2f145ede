#include "System.h"

#include <sched.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

std::map<std::string, std::uint64_t> symbolsOf(const std::string &program) {
  FILE *pipe = popen(("nm '" + program + "' 2>&1 || nm -D '" + program + "'").c_str(), "re");
  std::map<std::string, std::uint64_t> symbols;
  unsigned long long address = 0;
  char kind = 0, name[256], line[4096];
  while (std::fgets(line, sizeof line, pipe) != nullptr)
    if (std::sscanf(line, "%llx %c %255s", &address, &kind, name) == 3) symbols[name] = address;
  pclose(pipe);
  return symbols;
}

int runningTargets(const std::string &program) {
  int count = 0;
  for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
    std::error_code none;  // a zombie's link cannot be read
    count += std::filesystem::read_symlink(entry.path() / "exe", none) == program;
  }
  return count;
}

void stayOnCpu(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<unsigned>(cpu), &set);
  if (sched_setaffinity(0, sizeof set, &set) != 0) throw std::runtime_error("no such CPU");
}
