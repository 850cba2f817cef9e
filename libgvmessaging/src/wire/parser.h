#pragma once

#include <bit>
#include <boost/container/small_vector.hpp>
#include <cstddef>
#include <cstdint>
#include <span>

namespace gv::wire {

/// Reads one MessagePack value and tells a visitor of its parts, in order and without recursion.
/// The visitor is one as MessagePack's library has it (msgpack::null_visitor), stops the reading
/// by returning false, and may have `std::size_t readWhole(std::span<const char> rest)`: it takes
/// the value that `rest` begins with by itself and says how many bytes that were, 0 for none.
template <class Visitor>
class Parser {
 public:
  Parser(std::span<const char> bytes, Visitor& visitor)
      : begin_(bytes.data()), at_(begin_), end_(begin_ + bytes.size()), visitor_(visitor) {}

  /// False where the bytes are no complete value, or the visitor stopped it.
  bool parse() {
    do {
      if (at_ == end_) return endsEarly();
      if (!readPart()) return false;
    } while (!open_.empty());
    return true;
  }
  std::size_t offset() const { return static_cast<std::size_t>(at_ - begin_); }

 private:
  enum class Next { Element, Key, Value };
  /// A container whose parts are being read.
  struct Open {
    Next next;
    std::uint32_t rest;
  };

  std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }
  bool endsEarly() {
    visitor_.insufficient_bytes(offset(), offset());
    return false;
  }

  /// Reads a value, or the beginning of a container.
  bool readPart() {
    if constexpr (requires { visitor_.readWhole(std::span<const char>()); }) {
      if (const std::size_t size = visitor_.readWhole({at_, end_})) {
        at_ += size;
        return finishValue();
      }
    }
    const auto tag = static_cast<std::uint8_t>(*at_++);
    if (tag < 0x80) return visitor_.visit_positive_integer(tag) && finishValue();
    if (tag < 0x90) return beginMap(tag & 0x0f);
    if (tag < 0xa0) return beginArray(tag & 0x0f);
    if (tag < 0xc0) return readString(tag & 0x1f);
    if (tag >= 0xe0)
      return visitor_.visit_negative_integer(static_cast<std::int8_t>(tag)) && finishValue();
    return readLong(tag);
  }

  /// What is said by a whole first byte, and mostly has a number behind it.
  bool readLong(std::uint8_t tag) {
    switch (tag) {
      case 0xc0:
        return visitor_.visit_nil() && finishValue();
      case 0xc2:
      case 0xc3:
        return visitor_.visit_boolean(tag == 0xc3) && finishValue();
      case 0xc4:
      case 0xc5:
      case 0xc6:
        return withNumber(1u << (tag - 0xc4), [this](auto size) {
          return withBody(size, [&](const char* bytes) {
            return visitor_.visit_bin(bytes, static_cast<std::uint32_t>(size));
          });
        });
      case 0xc7:
      case 0xc8:
      case 0xc9:
        return withNumber(1u << (tag - 0xc7), [this](auto size) { return readExt(size); });
      case 0xca:
        return withNumber(4, [this](auto bits) {
          const auto number = std::bit_cast<float>(static_cast<std::uint32_t>(bits));
          return visitor_.visit_float32(number) && finishValue();
        });
      case 0xcb:
        return withNumber(8, [this](auto bits) {
          return visitor_.visit_float64(std::bit_cast<double>(bits)) && finishValue();
        });
      case 0xcc:
      case 0xcd:
      case 0xce:
      case 0xcf:
        return withNumber(1u << (tag - 0xcc), [this](auto number) {
          return visitor_.visit_positive_integer(number) && finishValue();
        });
      case 0xd0:
      case 0xd1:
      case 0xd2:
      case 0xd3: {
        const unsigned width = 1u << (tag - 0xd0);
        return withNumber(width, [&](auto number) {
          const unsigned unused = 64 - 8 * width;  // the sign comes down from the top
          const auto value = static_cast<std::int64_t>(number << unused) >> unused;
          return visitor_.visit_negative_integer(value) && finishValue();
        });
      }
      case 0xd4:
      case 0xd5:
      case 0xd6:
      case 0xd7:
      case 0xd8:
        return readExt(1u << (tag - 0xd4));
      case 0xd9:
      case 0xda:
      case 0xdb:
        return withNumber(1u << (tag - 0xd9), [this](auto size) { return readString(size); });
      case 0xdc:
      case 0xdd:
        return withNumber(2u << (tag - 0xdc), [this](auto count) { return beginArray(count); });
      case 0xde:
      case 0xdf:
        return withNumber(2u << (tag - 0xde), [this](auto count) { return beginMap(count); });
      default:
        visitor_.parse_error(offset() - 1, offset());
        return false;
    }
  }

  template <class Use>
  bool withNumber(unsigned width, Use use) {
    if (left() < width) return endsEarly();
    std::uint64_t number = 0;
    for (unsigned i = 0; i < width; ++i) number = number << 8 | static_cast<std::uint8_t>(*at_++);
    return use(number);
  }
  template <class Visit>
  bool withBody(std::size_t size, Visit visit) {
    if (left() < size) return endsEarly();
    const char* body = at_;
    at_ += size;
    return visit(body) && finishValue();
  }
  bool readString(std::size_t size) {
    return withBody(size, [&](const char* text) {
      return visitor_.visit_str(text, static_cast<std::uint32_t>(size));
    });
  }
  /// The visitor sees the type as the first byte.
  bool readExt(std::size_t size) {
    return withBody(size + 1, [&](const char* bytes) {
      return visitor_.visit_ext(bytes, static_cast<std::uint32_t>(size + 1));
    });
  }

  bool beginArray(std::uint64_t size) {
    const auto count = static_cast<std::uint32_t>(size);
    if (!visitor_.start_array(count)) return false;
    if (count == 0) return visitor_.end_array() && finishValue();
    open_.push_back({Next::Element, count});
    return visitor_.start_array_item();
  }
  bool beginMap(std::uint64_t size) {
    const auto count = static_cast<std::uint32_t>(size);
    if (!visitor_.start_map(count)) return false;
    if (count == 0) return visitor_.end_map() && finishValue();
    open_.push_back({Next::Key, count});
    return visitor_.start_map_key();
  }

  /// Ends the value that was read, and the containers of which it is the last part; begins the next
  /// part of the one around.
  bool finishValue() {
    while (!open_.empty()) {
      Open& open = open_.back();
      if (open.next == Next::Key) {
        open.next = Next::Value;
        return visitor_.end_map_key() && visitor_.start_map_value();
      }
      const bool isArray = open.next == Next::Element;
      if (!(isArray ? visitor_.end_array_item() : visitor_.end_map_value())) return false;
      if (--open.rest > 0) {
        if (isArray) return visitor_.start_array_item();
        open.next = Next::Key;
        return visitor_.start_map_key();
      }
      open_.pop_back();
      if (!(isArray ? visitor_.end_array() : visitor_.end_map())) return false;
    }
    return true;
  }

  const char* const begin_;
  const char* at_;
  const char* const end_;
  Visitor& visitor_;
  boost::container::small_vector<Open, 16> open_;
};

}  // namespace gv::wire
