#pragma once

#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <gvtype/object.h>

namespace gv::rpc {

/// The objects of this process that one peer holds. Each has a number, and a count of how often it
/// was sent and not given back: what crosses a new sending on its way back loses nothing. Callable
/// from any thread.
class LentObjects {
 public:
  explicit LentObjects(std::size_t limit) : limit_(limit) {}

  /// Lends an object once more; the number is never 0. Throws std::runtime_error when too many are
  /// lent, and after end().
  unsigned lend(const Object<Empty>& object);

  /// Ends `count` lendings. Gives the object when they were the last. False, and nothing changes,
  /// when so many were not made.
  bool takeBack(unsigned number, std::uint64_t count, Object<Empty>& last);

  /// Invalid where nothing is lent under the number.
  Object<Empty> find(unsigned number) const;

  /// Lends nothing more and forgets all, which the caller gets.
  std::vector<Object<Empty>> end();

 private:
  struct Lent {
    Object<Empty> object;
    std::uint64_t count = 0;
  };

  unsigned newNumberLocked();

  const std::size_t limit_;
  mutable std::mutex mutex_;  // guards what follows
  std::unordered_map<unsigned, Lent> lent_;
  std::unordered_map<const GenericObject*, unsigned> numbers_;
  unsigned lastNumber_ = 0;
  bool isEnded_ = false;
};

}  // namespace gv::rpc
