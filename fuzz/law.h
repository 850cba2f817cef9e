#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

/// Ends the program, so that the fuzzer keeps the input, where a law does not hold.
inline void require(bool holds, const char* law) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", law);
  std::abort();
}

}  // namespace fuzz
