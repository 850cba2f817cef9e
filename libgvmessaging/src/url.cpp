#include "gvmessaging/url.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

namespace gv {
namespace {

constexpr std::string_view plain = "tcp";
constexpr std::string_view encrypted = "tcps";
constexpr std::string_view separator = "://";
constexpr std::size_t longestHost = 255;

// By hand: the functions of <cctype> depend on the locale and are undefined for negative chars.
bool isAlphanumeric(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isHostName(std::string_view host) {
  return !host.empty() && host.size() <= longestHost &&
         std::all_of(host.begin(), host.end(),
                     [](char c) { return isAlphanumeric(c) || c == '.' || c == '-' || c == '_'; });
}

// Only the letters are checked: whether it is an address is known where it is used.
bool isIpv6(std::string_view host) {
  return host.size() <= longestHost && host.find(':') != std::string_view::npos &&
         std::all_of(host.begin(), host.end(), [](char c) {
           return isAlphanumeric(c) || c == ':' || c == '.' || c == '%' || c == '-' || c == '_';
         });
}

std::optional<std::uint16_t> parsePort(std::string_view text) {
  if (text.empty() || text.size() > 5) return {};
  std::uint16_t port = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, port);
  if (error != std::errc() || stop != end) return {};
  return port;
}

// Takes the host off the front of `text`, which then begins with ":" when all is well.
std::optional<std::string_view> takeHost(std::string_view& text) {
  const bool bracketed = text.starts_with('[');
  const std::size_t end = text.find(bracketed ? ']' : ':');
  if (end == std::string_view::npos) return {};
  const std::string_view host = text.substr(bracketed ? 1 : 0, end - (bracketed ? 1 : 0));
  text.remove_prefix(bracketed ? end + 1 : end);
  if (bracketed ? !isIpv6(host) : !isHostName(host)) return {};
  return host;
}

}  // namespace

Url::Url(const std::string& text) : text_(text) {
  std::string_view rest = text_;
  const std::string_view protocol = rest.substr(0, rest.find(separator));
  if (protocol != plain && protocol != encrypted) return;
  rest.remove_prefix(std::min(protocol.size() + separator.size(), rest.size()));
  const auto host = takeHost(rest);
  if (!host || !rest.starts_with(':')) return;
  const auto port = parsePort(rest.substr(1));
  if (!port) return;
  protocol_ = protocol;
  host_ = *host;
  port_ = *port;
}

Url::Url(const char* text) : Url(std::string(text ? text : "")) {}

Url Url::make(const std::string& protocol, const std::string& host, std::uint16_t port) {
  const bool isAddress6 = host.find(':') != std::string::npos;
  return Url(protocol + std::string(separator) + (isAddress6 ? "[" + host + "]" : host) + ":" +
             std::to_string(port));
}

Url Url::tcp(const std::string& host, std::uint16_t port) {
  return make(std::string(plain), host, port);
}

}  // namespace gv
