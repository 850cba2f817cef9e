#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <span>
#include <utility>

namespace gv::wire {

/// The bytes behind a frame's header. It grows where it is if the system can, without a copy and
/// without being filled first, and may be kept by what was read from it. Belongs to one thread at a
/// time.
class Payload {
 public:
  Payload() = default;
  ~Payload() {
    if (!keeper_) std::free(bytes_);
  }
  Payload(Payload&& other) noexcept { swap(other); }
  Payload& operator=(Payload&& other) noexcept {
    Payload(std::move(other)).swap(*this);
    return *this;
  }

  char* data() { return bytes_; }
  const char* data() const { return bytes_; }
  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }

  /// What is new has any value.
  void resize(std::size_t size) {
    if (keeper_) *this = {};  // the bytes are others', too
    if (size > capacity_) {
      void* const grown = std::realloc(bytes_, size);
      if (!grown) throw std::bad_alloc();
      bytes_ = static_cast<char*>(grown);
      capacity_ = size;
    }
    size_ = size;
  }
  void assign(std::span<const char> bytes) {
    resize(bytes.size());
    std::copy(bytes.begin(), bytes.end(), bytes_);
  }

  /// Keeps the bytes where and as they are for as long as somebody has what this returns.
  std::shared_ptr<const void> keep() const {
    if (!keeper_) keeper_ = std::make_shared<Owned>(bytes_, &std::free);
    return keeper_;
  }

 private:
  using Owned = std::unique_ptr<char, void (*)(void*)>;

  void swap(Payload& other) noexcept {
    std::swap(bytes_, other.bytes_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
    keeper_.swap(other.keeper_);
  }

  char* bytes_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
  mutable std::shared_ptr<const void> keeper_;  // owns bytes_, where it is set
};

}  // namespace gv::wire
