#pragma once

#include <mutex>
#include <utility>
#include <vector>

#include <boost/intrusive/list.hpp>

#include "src/rpc/callrecord.h"

namespace gv::rpc {

/// The calls and posts of one peer that were read and have not ended, for who asks. Callable from
/// any thread.
class ServedCalls {
 public:
  /// One of them, listed while it lives. It stands with what runs the call, wherever that is, and
  /// may be moved on; it must not outlive the list.
  class Entry : public boost::intrusive::list_base_hook<> {
   public:
    Entry(ServedCalls& calls, const wire::FrameHeader& header) : calls_(&calls), record_(header) {
      const std::lock_guard lock(calls_->mutex_);
      calls_->entries_.push_back(*this);
    }
    Entry(Entry&& other) noexcept : calls_(other.calls_), record_(other.record_) {
      const std::lock_guard lock(calls_->mutex_);
      swap_nodes(other);
    }
    ~Entry() {
      const std::lock_guard lock(calls_->mutex_);
      if (is_linked()) calls_->entries_.erase(calls_->entries_.iterator_to(*this));
    }
    Entry& operator=(Entry&&) = delete;

   private:
    friend class ServedCalls;
    ServedCalls* const calls_;
    const CallRecord record_;
  };

  void list(std::vector<CallRecord>& calls) const {
    const std::lock_guard lock(mutex_);
    for (const Entry& entry : entries_) calls.emplace_back(entry.record_).isServed = true;
  }

 private:
  mutable std::mutex mutex_;  // guards the list, and the entries' places in it
  boost::intrusive::list<Entry> entries_;
};

}  // namespace gv::rpc
