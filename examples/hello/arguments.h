#pragma once

#include <charconv>
#include <optional>
#include <string>

namespace hello {

/// Where the robot listens, as both programs take it from the command line.
struct Address {
  std::string host;
  int port;
};

/// Reads "<address> <port>"; nothing when there are other arguments or the port is not a number
/// from `lowestPort` to 65535.
inline std::optional<Address> readAddress(int count, char** arguments, int lowestPort) {
  if (count != 3) return {};
  Address address{arguments[1], 0};
  const std::string port = arguments[2];
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), address.port);
  if (error != std::errc() || end != port.data() + port.size()) return {};
  if (address.host.empty() || address.port < lowestPort || address.port > 65535) return {};
  return address;
}

}  // namespace hello
