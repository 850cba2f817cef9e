#pragma once

namespace house {

/// How often a race is tried: fewer times where a sanitizer makes each much slower.
inline int rounds(int plain) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  return plain / 10;
#else
  return plain;
#endif
}

}  // namespace house
