#include "src/rpc/callcontext.h"

#include <atomic>
#include <cstring>
#include <random>

namespace gv::rpc {
namespace {

CallContext& slot() {
  thread_local CallContext context;
  return context;
}

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

const CallContext& CallContext::current() {
  return slot();
}

CallContextScope::CallContextScope(const CallContext& context) : previous_(slot()) {
  slot() = context;
}

CallContextScope::~CallContextScope() {
  slot() = previous_;
}

std::array<std::uint8_t, 16> traceIdForNewCall() {
  const CallContext& context = slot();
  return context.callId != 0 ? context.traceId : randomBytes();
}

std::uint64_t nextCallId() {
  static std::atomic<std::uint64_t> last{0};
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
