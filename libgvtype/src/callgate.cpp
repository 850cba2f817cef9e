#include <gvtype/callgate.h>

#include <utility>

namespace gv {
namespace {

thread_local const CallGate* nextCall = nullptr;

}  // namespace

CallGateScope::CallGateScope(const CallGate& gate) {
  nextCall = &gate;
}

CallGateScope::~CallGateScope() {
  nextCall = nullptr;
}

const CallGate* CallGateScope::take() {
  return std::exchange(nextCall, nullptr);
}

}  // namespace gv
