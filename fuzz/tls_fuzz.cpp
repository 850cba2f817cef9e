// Whatever comes instead of TLS, the stream above it hears nothing but its end, once.

#include <cstdint>
#include <string>
#include <string_view>

#include "law.h"
#include "src/net/memorystream.h"
#include "src/net/tlsstream.h"
#include "support/certificates.h"

namespace {

using gv::net::MemoryStream;
using gv::net::TlsContext;

constexpr std::string_view kSecret = "a secret";

class Handler final : public gv::net::StreamHandler {
 public:
  std::span<char> inputSpace() override { return space_; }
  void onInput(std::size_t count) override {
    fuzz::require(count == 0, "nothing is heard from who has shown no certificate");
  }
  void onClosed(const std::string&) override { ++ends; }

  int ends = 0;

 private:
  char space_[1000];
};

struct Contexts {
  house::TemporaryFolder folder;
  house::Authority fleet{folder, "fleet"};
  gv::net::TlsFiles files{fleet.own().certificate, fleet.own().key, fleet.own().certificate};
  std::shared_ptr<const TlsContext> server = TlsContext::forServers(files);
  std::shared_ptr<const TlsContext> client = TlsContext::forClients(files);
};

}  // namespace

// The first byte says who connected, and how the rest is split.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Contexts contexts;
  if (size == 0) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  // A handshake says back some of what the peer said, its session's id for one.
  if (bytes.find(kSecret) != std::string::npos) return 0;
  const std::size_t piece = 1 + (data[0] >> 1) * 16;
  auto [near, far] = MemoryStream::makePair();
  const auto handler = std::make_shared<Handler>();
  const auto stream = gv::net::TlsStream::over(
      near, (data[0] & 1) != 0 ? *contexts.client : *contexts.server, "127.0.0.1");
  stream->start(handler);
  stream->send(gv::net::Bytes(kSecret.data(), kSecret.size()));
  far->send(gv::net::Bytes(bytes.data(), bytes.size()));
  while (near->step(piece) > 0) {
  }
  fuzz::require(far->take().find(kSecret) == std::string::npos,
                "nothing is said to who has shown no certificate");
  far->close("the peer has gone");
  while (near->step() > 0) {
  }
  fuzz::require(handler->ends == 1, "a stream ends exactly once");
  return 0;
}
