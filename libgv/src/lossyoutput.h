#pragma once

#include <string_view>

#include <gv/api.h>

namespace gv::log {

/// Writes lines to a descriptor and never waits for who reads it: a pipe, socket or terminal takes
/// what it has room for, and the rest of a line is lost. Files are written as ever. A pipe or
/// terminal that this process cannot open anew, as one of another user or without a descriptor
/// left, is written in small pieces, but may wait where others take its room. Not locked.
class LossyOutput {
 public:
  explicit LossyOutput(int descriptor) : descriptor_(descriptor) {}

  /// False when the line, or its rest, was lost. After one that was cut short the next one begins
  /// on a line of its own.
  bool write(std::string_view line);

 private:
  bool writeAll(std::string_view text);

  const int descriptor_;
  bool isCut_ = false;  // the last line was, after its begin had been written
};

}  // namespace gv::log
