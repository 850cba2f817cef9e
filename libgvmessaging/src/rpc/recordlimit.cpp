#include "src/rpc/recordlimit.h"

#include <utility>

namespace gv::rpc {

std::optional<std::uint64_t> RecordLimit::admit(const std::string& kind, Time now) {
  Entry& entry = entryOf(kind, now);
  if (entry.written && now - *entry.written < interval) {
    ++entry.leftOut;
    return std::nullopt;
  }
  entry.written = now;
  return std::exchange(entry.leftOut, 0);
}

RecordLimit::Entry& RecordLimit::entryOf(const std::string& kind, Time now) {
  const auto found = kinds_.find(kind);
  if (found != kinds_.end()) return found->second;
  if (kinds_.size() >= mostKinds) forgetQuiet(now);
  return kinds_.size() < mostKinds ? kinds_[kind] : shared_;
}

void RecordLimit::forgetQuiet(Time now) {
  std::erase_if(kinds_, [&](const auto& kind) {
    const Entry& entry = kind.second;
    if (now - *entry.written < interval) return false;
    shared_.leftOut += entry.leftOut;
    return true;
  });
}

}  // namespace gv::rpc
