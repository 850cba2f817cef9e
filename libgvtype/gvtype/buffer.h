#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace gv {

/// Raw bytes with value semantics: the C++ type of signature `r`. Not text: it never converts to a
/// string or back.
class Buffer {
 public:
  Buffer() = default;
  Buffer(const void* bytes, std::size_t size) : bytes_(static_cast<const char*>(bytes), size) {}

  const char* data() const { return bytes_.data(); }
  std::size_t size() const { return bytes_.size(); }
  std::string_view view() const { return bytes_; }

  bool operator==(const Buffer&) const = default;
  auto operator<=>(const Buffer&) const = default;

 private:
  std::string bytes_;
};

}  // namespace gv
