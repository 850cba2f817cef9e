#include "src/net/resolve.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <asio/error.hpp>
#include <asio/ip/address.hpp>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include <gv/blocking.h>

namespace gv::net {
namespace {

class ResolverCategory final : public std::error_category {
 public:
  const char* name() const noexcept override { return "resolver"; }
  std::string message(int code) const override { return ::gai_strerror(code); }
};

std::error_code resolverError(int code) {
  static const ResolverCategory category;
  if (code == EAI_SYSTEM) return {errno, std::system_category()};
  return {code, category};
}

Endpoint asEndpoint(const addrinfo& info, std::uint16_t port) {
  Endpoint endpoint;
  std::memcpy(endpoint.data(), info.ai_addr,
              std::min<std::size_t>(info.ai_addrlen, endpoint.capacity()));
  endpoint.resize(info.ai_addrlen);
  endpoint.port(port);
  return endpoint;
}

}  // namespace

std::string hostAndPort(const std::string& host, std::uint16_t port) {
  const bool isAddress6 = host.find(':') != std::string::npos;
  return (isAddress6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::optional<Endpoint> numericEndpoint(const std::string& host, std::uint16_t port) {
  std::error_code error;
  const asio::ip::address address = asio::ip::make_address(host, error);
  if (error) return {};
  return Endpoint(address, port);
}

// By hand and not through Asio's resolver, which starts a thread of its own.
std::vector<Endpoint> resolve(const std::string& host, std::uint16_t port, std::error_code& error) {
  if (const auto endpoint = numericEndpoint(host, port)) return {*endpoint};
  addrinfo wanted{};
  wanted.ai_family = AF_UNSPEC;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* first = nullptr;
  const BlockingRegion region;
  if (const int code = ::getaddrinfo(host.c_str(), nullptr, &wanted, &first)) {
    error = resolverError(code);
    return {};
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(first, ::freeaddrinfo);
  std::vector<Endpoint> endpoints;
  for (const addrinfo* info = first; info; info = info->ai_next) {
    if (info->ai_family == AF_INET || info->ai_family == AF_INET6)
      endpoints.push_back(asEndpoint(*info, port));
  }
  std::stable_partition(endpoints.begin(), endpoints.end(),
                        [](const Endpoint& endpoint) { return endpoint.address().is_v4(); });
  if (endpoints.empty()) error = asio::error::host_not_found;
  return endpoints;
}

std::vector<std::string> addressesOf(const std::string& host) {
  std::error_code error;
  std::vector<std::string> addresses;
  for (const Endpoint& endpoint : resolve(host, 0, error))
    addresses.push_back(endpoint.address().to_string());
  if (addresses.empty())
    throw std::runtime_error("cannot find the address of " + host + ": " + error.message());
  return addresses;
}

}  // namespace gv::net
