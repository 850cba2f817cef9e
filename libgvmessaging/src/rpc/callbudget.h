#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

#include "src/rpc/servedcalls.h"

namespace gv::rpc {

/// What one peer has asked for and not been answered yet, and what it has told and nobody handled
/// yet. Atomic: calls end on any thread.
struct CallBudget {
  std::atomic<std::size_t> calls{0};
  std::atomic<std::size_t> bytes{0};
  ServedCalls served;  // those too that run where they were read, and take nothing of the budget

  /// Counts while it lives.
  class Share;
};

class CallBudget::Share {
 public:
  Share(std::shared_ptr<CallBudget> budget, std::size_t calls, std::size_t bytes)
      : budget_(std::move(budget)), calls_(calls), bytes_(bytes) {
    budget_->calls += calls_;
    budget_->bytes += bytes_;
  }
  ~Share() {
    budget_->calls -= calls_;
    budget_->bytes -= bytes_;
  }
  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;

 private:
  const std::shared_ptr<CallBudget> budget_;
  const std::size_t calls_;
  const std::size_t bytes_;
};

}  // namespace gv::rpc
