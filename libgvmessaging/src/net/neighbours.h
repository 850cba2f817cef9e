#pragma once

#include <ifaddrs.h>

#include <array>
#include <span>
#include <string>
#include <vector>

#include <gvmessaging/api.h>

namespace gv::net {

/// Where a peer is: on this machine, on a link that this machine is on, or beyond a router.
enum class Distance { Loopback, OnLink, Routed };

/// One network that this machine is on: the addresses that equal `address` where `mask` has ones.
struct LinkNetwork {
  using Bytes = std::array<unsigned char, 16>;

  std::size_t size = 0;  ///< Bytes of an address: 4 or 16.
  Bytes address{};
  Bytes mask{};
};

/// Those of one interface that is up. At the other end of a tunnel only the address counts that the
/// interface names: its mask says which addresses are routed into it, and not who is near.
GVMESSAGING_API void addNetworks(const ifaddrs& interface, std::vector<LinkNetwork>& networks);

/// The networks of the interfaces that are up; empty where the system does not tell them now.
GVMESSAGING_API std::vector<LinkNetwork> linkNetworks();

/// Where the numeric address of a peer is, seen from a machine on `networks`. What is no address is
/// far away.
GVMESSAGING_API Distance distanceOf(const std::string& address,
                                    std::span<const LinkNetwork> networks);

/// The same, seen from this machine as it was in the last 200 ms, or when the system last told its
/// networks. Any thread.
GVMESSAGING_API Distance distanceOf(const std::string& address);

}  // namespace gv::net
