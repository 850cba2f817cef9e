#include <unistd.h>

#include <boost/make_shared.hpp>
#include <stdexcept>
#include <vector>

#include <gvmessaging/session.h>
#include <gvtype/anyvalue.h>
#include <gvtype/dynamicobjectbuilder.h>

#include "messaging/peer.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Values = std::vector<gv::AnyValue>;

Values mixedValues() {
  Values values;
  for (std::size_t i = 0; i < Peer::listSize; ++i) {
    if (i % 3 == 0) values.push_back(gv::AnyValue::from(static_cast<std::int64_t>(i)));
    if (i % 3 == 1) values.push_back(gv::AnyValue::from(static_cast<double>(i) / 2));
    if (i % 3 == 2) values.push_back(gv::AnyValue::from("value" + std::to_string(i)));
  }
  return values;
}

class GvPeer final : public Peer {
 public:
  explicit GvPeer(const std::string& address) {
    session_->connect(address).value();
    object_ = session_->service("Bench").value();
  }

  int add(int a, int b) override { return object_.call<int>("add", a, b); }

  std::size_t echo(const gv::Buffer& bytes) override {
    return object_.call<gv::Buffer>("echo", bytes).size();
  }

  std::size_t list() override { return object_.call<Values>("list", values_).size(); }

  double addInFlight(std::chrono::duration<double> time) override {
    std::vector<gv::Future<int>> calls;
    for (int i = 0; i < callsInFlight; ++i) calls.push_back(object_.async<int>("add", i, 1));
    const auto start = Clock::now();
    long done = 0;
    std::chrono::duration<double> took{};
    for (; took < time; took = Clock::now() - start) {
      for (int i = 0; i < callsInFlight; ++i, ++done) {
        gv::Future<int>& call = calls[static_cast<std::size_t>(i)];
        if (call.value() != i + 1) throw std::runtime_error("a wrong sum");
        call = object_.async<int>("add", i, 1);
      }
    }
    for (auto& call : calls) call.wait();
    return static_cast<double>(done) / took.count();
  }

 private:
  boost::shared_ptr<gv::Session> session_ = boost::make_shared<gv::Session>();
  gv::Object<gv::Empty> object_;
  const Values values_ = mixedValues();
};

void serve(void (*announce)(const std::string&)) {
  gv::DynamicObjectBuilder builder;
  builder.advertiseMethod("add", [](int a, int b) { return a + b; });
  builder.advertiseMethod("echo", [](const gv::Buffer& bytes) { return bytes; });
  builder.advertiseMethod("list", [](const Values& values) { return values; });
  const auto session = boost::make_shared<gv::Session>();
  session->listenStandalone("tcp://127.0.0.1:0").value();
  session->registerService("Bench", builder.object()).value();
  announce(session->url().str());
  for (;;) ::pause();
}

}  // namespace

const Kind gvKind = {"gv", serve, [](const std::string& address) -> std::unique_ptr<Peer> {
                       return std::make_unique<GvPeer>(address);
                     }};

}  // namespace bench
