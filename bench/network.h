#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxproxy.h>

namespace bench {

/// A bench_broker with so many modules in a process of its own, and a child broker of it here.
class Network {
 public:
  explicit Network(long modules)
      : master_(::popen(("exec " BENCH_BROKER " " + std::to_string(modules)).c_str(), "r")) {
    int port = 0;
    if (!master_ || std::fscanf(master_, "%d", &port) != 1)
      throw std::runtime_error("no master with modules");
    url_ = "tcp://127.0.0.1:" + std::to_string(port);
    child_ = JX::JXBroker::createBroker("child", "127.0.0.1", 0, "127.0.0.1", port);
  }
  ~Network() {
    child_->getProxy("Bench", 0)->asObject().post("end");
    ::pclose(master_);
    child_->shutdown();
  }
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  const boost::shared_ptr<JX::JXBroker>& child() const { return child_; }
  /// Of the master.
  const std::string& url() const { return url_; }

 private:
  std::FILE* master_;
  std::string url_;
  boost::shared_ptr<JX::JXBroker> child_;
};

}  // namespace bench
