#pragma once

#include <algorithm>
#include <cstdlib>

namespace house {

/// How many times the everyday run this one is: JX_TEST_ROUNDS, which the long run sets.
inline int roundsFactor() {
  const char* asked = std::getenv("JX_TEST_ROUNDS");
  return asked ? std::max(1, std::atoi(asked)) : 1;
}

/// How often a race is tried: fewer times where a sanitizer makes each round much slower.
inline int rounds(int everyday) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  everyday /= 10;
#endif
  return everyday * roundsFactor();
}

}  // namespace house
