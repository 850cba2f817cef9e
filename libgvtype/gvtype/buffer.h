#pragma once

#include <compare>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

namespace gv {

/// Raw bytes with value semantics: the C++ type of signature `r`. Never converts to text or back.
/// The bytes never change, and copies share them; received ones may hold memory of twice their
/// size.
class Buffer {
 public:
  Buffer() = default;
  /// Copies the bytes.
  Buffer(const void* bytes, std::size_t size) {
    if (size == 0) return;
    const auto copy = std::make_shared_for_overwrite<char[]>(size);
    std::memcpy(copy.get(), bytes, size);
    bytes_ = {copy, copy.get()};
    size_ = size;
  }
  /// Shares bytes that @p owner, not null, keeps. Nobody may change them any more.
  Buffer(std::string_view bytes, const std::shared_ptr<const void>& owner)
      : bytes_(owner, bytes.data()), size_(bytes.size()) {}

  /// Never null.
  const char* data() const { return bytes_ ? bytes_.get() : ""; }
  std::size_t size() const { return bytes_ ? size_ : 0; }
  std::string_view view() const { return {data(), size()}; }

  friend bool operator==(const Buffer& a, const Buffer& b) { return a.view() == b.view(); }
  friend auto operator<=>(const Buffer& a, const Buffer& b) { return a.view() <=> b.view(); }

 private:
  std::shared_ptr<const char> bytes_;
  std::size_t size_ = 0;  // not of one that was moved from
};

}  // namespace gv
