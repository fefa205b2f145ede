#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the run when a rule is broken: libFuzzer keeps the input then.
inline void check(bool holds, const char *rule) {
  if (holds) return;
  std::fprintf(stderr, "BROKEN RULE: %s\n", rule);
  std::abort();
}
