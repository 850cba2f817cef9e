#include "src/rpc/peerlog.h"

#include <mutex>

#include "src/rpc/recordlimit.h"

namespace gv::rpc {
namespace {

struct Limit {
  std::mutex mutex;  // guards the limit
  RecordLimit limit;
};

// Never destroyed: connections may end while the process exits.
Limit& instance() {
  static Limit& instance = *new Limit;
  return instance;
}

}  // namespace

std::optional<std::uint64_t> admitRecordOfPeer(const std::string& function,
                                               const std::string& address) {
  const std::lock_guard lock(instance().mutex);
  return instance().limit.admit(function + ' ' + address, std::chrono::steady_clock::now());
}

std::string leftOutText(std::uint64_t count) {
  return count == 0 ? std::string()
                    : " (" + std::to_string(count) + " like it were left out before)";
}

}  // namespace gv::rpc
