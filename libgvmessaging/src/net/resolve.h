#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "src/net/nativesocket.h"

namespace gv::net {

/// "host:port" for texts, an IPv6 address in brackets.
std::string hostAndPort(const std::string& host, std::uint16_t port);

/// The endpoint of a numeric @p host; nothing for a name.
std::optional<Endpoint> numericEndpoint(const std::string& host, std::uint16_t port);

/// The endpoints of @p host, IPv4 first. May block for long where it is a name. Empty only with
/// @p error, whose message is the resolver's own.
std::vector<Endpoint> resolve(const std::string& host, std::uint16_t port, std::error_code& error);

/// The same as numeric addresses. Throws std::runtime_error, naming @p host.
std::vector<std::string> addressesOf(const std::string& host);

}  // namespace gv::net
