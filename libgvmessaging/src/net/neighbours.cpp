#include "src/net/neighbours.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <asio/ip/address.hpp>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

namespace gv::net {
namespace {

using Clock = std::chrono::steady_clock;

// A flood of connections asks the system no more often.
constexpr std::chrono::milliseconds freshFor{200};

/// The bytes of an address of one of the two families; their number, 0 for other families.
std::size_t copyBytes(const sockaddr* from, LinkNetwork::Bytes& to) {
  if (!from) return 0;
  if (from->sa_family == AF_INET) {
    sockaddr_in v4;
    std::memcpy(&v4, from, sizeof v4);
    std::memcpy(to.data(), &v4.sin_addr, sizeof v4.sin_addr);
    return sizeof v4.sin_addr;
  }
  if (from->sa_family == AF_INET6) {
    sockaddr_in6 v6;
    std::memcpy(&v6, from, sizeof v6);
    std::memcpy(to.data(), &v6.sin6_addr, sizeof v6.sin6_addr);
    return sizeof v6.sin6_addr;
  }
  return 0;
}

/// A network of one address.
LinkNetwork aloneAt(const sockaddr* address) {
  LinkNetwork network;
  network.size = copyBytes(address, network.address);
  network.mask.fill(0xff);
  return network;
}

bool contains(const LinkNetwork& network, const LinkNetwork& peer) {
  if (network.size != peer.size) return false;
  for (std::size_t i = 0; i < peer.size; ++i)
    if (((network.address[i] ^ peer.address[i]) & network.mask[i]) != 0) return false;
  return true;
}

LinkNetwork bytesOf(const asio::ip::address& address) {
  LinkNetwork bytes;
  const auto take = [&bytes](const auto& from) {
    bytes.size = from.size();
    std::copy(from.begin(), from.end(), bytes.address.begin());
  };
  address.is_v4() ? take(address.to_v4().to_bytes()) : take(address.to_v6().to_bytes());
  return bytes;
}

struct Known {
  std::mutex mutex;  // guards what follows
  Clock::time_point readAt;
  std::vector<LinkNetwork> networks;
};

}  // namespace

void addNetworks(const ifaddrs& interface, std::vector<LinkNetwork>& networks) {
  LinkNetwork network = aloneAt(interface.ifa_addr);
  if ((interface.ifa_flags & IFF_UP) == 0 || network.size == 0) return;
  const bool isPointToPoint = (interface.ifa_flags & IFF_POINTOPOINT) != 0;
  const LinkNetwork neighbour = aloneAt(isPointToPoint ? interface.ifa_dstaddr : nullptr);
  if (neighbour.size == network.size) networks.push_back(neighbour);
  const bool hasMask =
      !isPointToPoint && copyBytes(interface.ifa_netmask, network.mask) == network.size;
  if (!hasMask) network.mask.fill(0xff);
  networks.push_back(network);
}

std::vector<LinkNetwork> linkNetworks() {
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) return {};
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> list(first, &::freeifaddrs);
  std::vector<LinkNetwork> networks;
  for (const ifaddrs* interface = list.get(); interface; interface = interface->ifa_next)
    addNetworks(*interface, networks);
  return networks;
}

Distance distanceOf(const std::string& address, std::span<const LinkNetwork> networks) {
  std::error_code error;
  const asio::ip::address parsed = asio::ip::make_address(address, error);
  if (error) return Distance::Routed;
  if (parsed.is_loopback()) return Distance::Loopback;
  const LinkNetwork peer = bytesOf(parsed);
  const bool isOnLink = std::any_of(networks.begin(), networks.end(), [&peer](const auto& network) {
    return contains(network, peer);
  });
  return isOnLink ? Distance::OnLink : Distance::Routed;
}

Distance distanceOf(const std::string& address) {
  static Known& known = *new Known;  // never destroyed: peers may come while the process exits
  const std::lock_guard lock(known.mutex);
  if (known.networks.empty() || Clock::now() - known.readAt > freshFor) {
    // Without a descriptor left the system tells nothing: they are where they were.
    if (auto networks = linkNetworks(); !networks.empty()) known.networks = std::move(networks);
    known.readAt = Clock::now();
  }
  return distanceOf(address, known.networks);
}

}  // namespace gv::net
