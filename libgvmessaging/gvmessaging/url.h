#pragma once

#include <cstdint>
#include <string>

#include <gvmessaging/api.h>

namespace gv {

/// Where a peer listens: "tcp://host:port", or "tcps://host:port" where it speaks TLS. A value; an
/// address of any other form makes an invalid one, and no operation throws for it.
///
/// The host is a name, an IPv4 address, or an IPv6 address in brackets: "tcp://[::1]:9559".
class GVMESSAGING_API Url {
 public:
  /// An invalid address.
  Url() = default;

  /// Reads @p text. Invalid unless it is "tcp://" or "tcps://", a host, ":" and a port of 0 to
  /// 65535.
  Url(const std::string& text);
  Url(const char* text);

  /// The address of @p host and @p port; an IPv6 address is given without brackets.
  static Url tcp(const std::string& host, std::uint16_t port);
  /// The same with the protocol "tcp" or "tcps".
  static Url make(const std::string& protocol, const std::string& host, std::uint16_t port);

  /// True when the text had the form of an address. Says nothing about anybody listening there.
  bool isValid() const { return !protocol_.empty(); }

  /// The whole text; of an invalid address the text it was made from.
  const std::string& str() const { return text_; }

  /// "tcp" or "tcps"; empty when invalid.
  const std::string& protocol() const { return protocol_; }

  /// The host without brackets; empty when invalid.
  const std::string& host() const { return host_; }

  /// The port, 0 for "any free one" when listening; 0 when invalid.
  std::uint16_t port() const { return port_; }

  friend bool operator==(const Url& a, const Url& b) = default;

 private:
  std::string text_;
  std::string protocol_;
  std::string host_;
  std::uint16_t port_ = 0;
};

}  // namespace gv
