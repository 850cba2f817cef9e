#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <gv/log.h>

namespace gv::rpc {

/// Whether a record of this function that a peer at `address` causes is to be written now, and
/// after how many that were left out.
std::optional<std::uint64_t> admitRecordOfPeer(const std::string& function,
                                               const std::string& address);

/// " (5 like it were left out before)"; empty for none.
std::string leftOutText(std::uint64_t count);

/// Logs what a peer caused, which it may do at any rate: once a second at most for each function
/// and address. `text` makes the text, and is called for what is written only.
template <class Text>
void logOfPeer(log::Level level, const char* category, const char* function,
               const std::string& address, const Text& text) {
  static const log::Category& found = log::category(category);  // each caller has its own type
  if (!found.isEnabled(level)) return;
  if (const auto leftOut = admitRecordOfPeer(function, address))
    log::write(level, found, function, "", 0, text() + leftOutText(*leftOut));
}

}  // namespace gv::rpc
