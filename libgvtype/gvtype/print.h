#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>

#include <gvtype/anyreference.h>

namespace gv {

/// A value as text for people, logs and tools: `7`, `"quoted\n"`, `[1, 2]`, `{"a": 1}`, `(1,
/// true)`, `Point{x: 1, y: 2}`, `raw(3 bytes)`. What has no content to show appears as its type,
/// `<future<int32>>`; an empty optional or dynamic value as `nothing`. Bytes above 127 stand as
/// they are, so that UTF-8 stays readable.
///
/// A text of more than `maxLength` bytes is cut there, and so is a value that nests too deeply:
/// "..." stands for the rest.
GVTYPE_API std::string toText(const AnyReference& value, std::size_t maxLength = 1000);

GVTYPE_API std::ostream& operator<<(std::ostream& stream, const AnyValue& value);

}  // namespace gv
