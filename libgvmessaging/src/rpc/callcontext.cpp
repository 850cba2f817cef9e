#include "src/rpc/callcontext.h"

#include <atomic>
#include <cstring>
#include <random>
#include <utility>

#include <gvtype/callcontext.h>

namespace gv::rpc {
namespace {

thread_local const Connection* directoryCaller_ = nullptr;

std::array<std::uint8_t, 16> randomBytes() {
  thread_local std::mt19937_64 generator = [] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }();
  const std::uint64_t words[2] = {generator(), generator()};
  std::array<std::uint8_t, 16> bytes;
  std::memcpy(bytes.data(), words, bytes.size());
  return bytes;
}

}  // namespace

const Connection* directoryCaller() {
  return directoryCaller_;
}

DirectoryCallerScope::DirectoryCallerScope(const Connection* caller)
    : previous_(std::exchange(directoryCaller_, caller)) {}

DirectoryCallerScope::~DirectoryCallerScope() {
  directoryCaller_ = previous_;
}

std::array<std::uint8_t, 16> traceIdForNewCall() {
  const CallContext& context = CallContext::current();
  return context.call != 0 ? context.trace : randomBytes();
}

std::uint32_t randomIdStart() {
  return std::random_device()();
}

std::uint64_t nextCallId() {
  static std::atomic<std::uint64_t> last{std::uint64_t{randomIdStart()} << 32};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::string randomHexId() {
  constexpr const char* digits = "0123456789abcdef";
  std::random_device device;  // not the generator of trace ids, which peers see
  std::string text;
  for (int word = 0; word < 4; ++word)
    for (unsigned bits = device(), i = 0; i < 8; ++i, bits >>= 4) text += digits[bits & 15];
  return text;
}

}  // namespace gv::rpc
