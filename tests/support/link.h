#pragma once

#include <memory>
#include <string>

#include "support/faultproxy.h"

namespace house {

/// The way of a test to a server on 127.0.0.1. As a rule the server itself; where HOUSE_FAULTS says
/// "split" or "delay", a proxy that writes in small pieces, or passes everything on late, which no
/// test must notice.
class Link {
 public:
  explicit Link(int serverPort);

  int port() const { return proxy_ ? proxy_->port() : serverPort_; }
  std::string url() const { return "tcp://127.0.0.1:" + std::to_string(port()); }
  int serverPort() const { return serverPort_; }

 private:
  int serverPort_;
  std::unique_ptr<FaultProxy> proxy_;
};

}  // namespace house
