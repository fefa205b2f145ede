#pragma once

#include <cstdint>
#include <map>
#include <string>

/// The addresses of a program's symbols. The program is linked to run at them.
std::map<std::string, std::uint64_t> symbolsOf(const std::string &program);

/// How many processes run the program.
int runningTargets(const std::string &program);

/// Keeps this process and its later children on one processor. Throws std::runtime_error.
void stayOnCpu(int cpu);
