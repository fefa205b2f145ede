#pragma once

#include <cstdio>
#include <cstdlib>

/// Aborts when a rule is broken. libFuzzer then keeps the input.
inline void check(bool holds, const char *rule) {
  if (holds) return;
  std::fprintf(stderr, "BROKEN RULE: %s\n", rule);
  std::abort();
}
