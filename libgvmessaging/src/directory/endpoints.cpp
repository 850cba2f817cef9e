#include "src/directory/endpoints.h"

#include <algorithm>

namespace gv::directory {
namespace {

/// An IPv6 address without the interface that it is reached by, which each machine numbers itself.
std::string withoutZone(const std::string& host) {
  return host.substr(0, host.find('%'));
}

}  // namespace

bool isLoopback(const std::string& host) {
  const bool isNumeric = host.find_first_not_of("0123456789.") == std::string::npos;
  return host == "::1" || (isNumeric && host.starts_with("127."));
}

bool canHave(const std::string& from, const std::string& host,
             const std::vector<std::string>& ownHosts) {
  const auto isOwn = [&ownHosts](const std::string& address) {
    return isLoopback(address) ||
           std::any_of(ownHosts.begin(), ownHosts.end(), [&address](const std::string& own) {
             return withoutZone(own) == withoutZone(address);
           });
  };
  return withoutZone(host) == withoutZone(from) || (isOwn(from) && isOwn(host));
}

}  // namespace gv::directory
