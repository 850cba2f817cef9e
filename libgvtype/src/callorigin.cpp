#include <gvtype/callorigin.h>

#include <utility>

namespace gv {
namespace {

thread_local const CallOrigin* served = nullptr;

}  // namespace

CallOrigin::Scope::Scope(const CallOrigin& origin) : outer_(std::exchange(served, &origin)) {}

CallOrigin::Scope::~Scope() {
  served = outer_;
}

std::shared_ptr<const void> CallOrigin::holdOne() {
  return served ? served->hold() : nullptr;
}

}  // namespace gv
