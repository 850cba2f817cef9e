#include <unistd.h>

#include <vector>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>
#include <boost/make_shared.hpp>

#include "messaging/inprocess.h"
#include "messaging/peer.h"

namespace bench {
namespace {

class Module : public JX::JXModule {
 public:
  Module(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JX::JXModule(broker, name) {
    functionName("add", getName(), "Adds two numbers.");
    bindMethod(JX::makeFunctor([](int a, int b) { return a + b; }));
    functionName("echo", getName(), "Sends bytes back.");
    bindMethod(JX::makeFunctor([](const gv::Buffer& bytes) { return bytes; }));
    functionName("list", getName(), "Sends a list back.");
    bindMethod(JX::makeFunctor([](const JX::JXValue& values) { return values; }));
  }
};

JX::JXValue mixedValues() {
  std::vector<JX::JXValue> values;
  for (int i = 0; i < Peer::listSize; ++i) {
    if (i % 3 == 0) values.emplace_back(std::int64_t{i});
    if (i % 3 == 1) values.emplace_back(i / 2.0);
    if (i % 3 == 2) values.emplace_back("value" + std::to_string(i));
  }
  return values;
}

/// A connection of its own: two proxies of one broker would share one.
class JxPeer final : public Peer {
 public:
  explicit JxPeer(std::uint16_t port)
      : broker_(JX::JXBroker::createBroker("client", "127.0.0.1", 0, "127.0.0.1", port)),
        proxy_(boost::make_shared<JX::JXProxy>(broker_, "Bench")) {}
  ~JxPeer() override { broker_->shutdown(); }
  JxPeer(const JxPeer&) = delete;
  JxPeer& operator=(const JxPeer&) = delete;

  int add(int a, int b) override { return proxy_->call<int>("add", a, b); }

  bool addUntyped(int a, int b) override {
    return proxy_->genericCall("add", std::vector<JX::JXValue>{a, b}).toInt() == a + b;
  }

  std::size_t echo(std::size_t size) override {
    if (sent_.size() != size) sent_ = gv::Buffer(std::string(size, 'x').data(), size);
    return proxy_->call<gv::Buffer>("echo", sent_).size();
  }

  std::size_t list() override {
    return static_cast<std::size_t>(proxy_->call<JX::JXValue>("list", values_).getSize());
  }

  double addInFlight(Seconds) override { return 0; }

 private:
  const boost::shared_ptr<JX::JXBroker> broker_;
  const boost::shared_ptr<JX::JXProxy> proxy_;
  gv::Buffer sent_;  // echoes
  const JX::JXValue values_ = mixedValues();
};

void serve(std::uint16_t port, void (*announce)(int)) {
  const auto broker = JX::JXBroker::createBroker("server", "127.0.0.1", port, "", 0);
  JX::createModule<Module>(broker, "Bench");
  announce(broker->getPort());
  for (;;) ::pause();
}

void reportInProcess() {
  const auto module = boost::make_shared<Module>(nullptr, "Bench");
  JX::JXProxy proxy(module->asObject(), "Bench");
  reportCall("jx", "call_by_name", [&](int a) { return proxy.call<int>("add", a, 1); });
  reportCall("jx", "call_by_name_untyped", [&](int a) {
    return proxy.genericCall("add", std::vector<JX::JXValue>{a, 1}).toInt();
  });
}

}  // namespace

const Kind jxKind = {
    "jx", serve,
    [](std::uint16_t port) -> std::unique_ptr<Peer> { return std::make_unique<JxPeer>(port); },
    reportInProcess};

}  // namespace bench
