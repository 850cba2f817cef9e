#pragma once

#include <boost/container/small_vector.hpp>
#include <boost/container/vector.hpp>
#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include <gvmessaging/api.h>

#include "src/wire/objectpassage.h"

namespace gv::wire {

/// What values are written to: bytes of its own, and between them views of the caller's large
/// strings and blobs, which must stay as they are until the pieces have been used.
class GVMESSAGING_API Output {
 public:
  using Bytes = boost::container::vector<char>;

  /// Strings and blobs of this size and more are not copied.
  static constexpr std::size_t leastBorrowed = 16u << 10;

  /// Without `objects` no object can be written.
  explicit Output(OutgoingObjects* objects = nullptr) : objects_(objects) {}

  OutgoingObjects* objects() const { return objects_; }

  /// Appends a copy. Named as MessagePack's packer wants it.
  void write(const char* bytes, std::size_t size) {
    const std::size_t before = own_.size();
    own_.resize(before + size, boost::container::default_init);
    if (size > 0) std::memcpy(own_.data() + before, bytes, size);
  }
  /// Appends the caller's bytes without a copy.
  void borrow(std::string_view bytes);

  std::size_t size() const { return own_.size() + borrowedSize_; }
  using Pieces = boost::container::small_vector<std::span<const char>, 4>;
  /// All that was written, in order. Good until the next byte is written.
  Pieces pieces() const;
  void copyTo(std::vector<char>& out) const;
  /// Appends a copy of all that was written, where nothing was borrowed.
  void appendTo(Output& other) const { other.write(own_.data(), own_.size()); }

 protected:
  Bytes own_;  // what was copied

 private:
  struct Borrowed {
    std::size_t before;  // how much of own_ comes first
    std::string_view bytes;
  };

  OutgoingObjects* const objects_;
  std::vector<Borrowed> borrowed_;
  std::size_t borrowedSize_ = 0;
};

}  // namespace gv::wire
