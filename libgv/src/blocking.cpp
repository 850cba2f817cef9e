#include <gv/blocking.h>

namespace gv {
namespace {

// Trivially destructible: waits in destructors of other thread-locals still find it.
thread_local BlockingObserverScope* innermost = nullptr;

}  // namespace

BlockingObserverScope::BlockingObserverScope(BlockingObserver* observer) noexcept
    : observer_(observer), outer_(innermost) {
  innermost = this;
}

BlockingObserverScope::~BlockingObserverScope() {
  innermost = outer_;
}

BlockingRegion::BlockingRegion() noexcept {
  for (auto* scope = innermost; scope; scope = scope->outer_) {
    if (scope->depth_++ == 0) scope->observer_->willBlock();
  }
}

BlockingRegion::~BlockingRegion() {
  for (auto* scope = innermost; scope; scope = scope->outer_) {
    if (--scope->depth_ == 0) scope->observer_->hasUnblocked();
  }
}

}  // namespace gv
