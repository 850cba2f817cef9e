#include <unistd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <cstdlib>
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

/// Calls that each begin the next one when they have ended.
struct Chains {
  const gv::Object<gv::Empty> object;
  const Clock::time_point end;
  std::atomic<long> done{0};
  std::atomic<int> running{Peer::callsInFlight};
  const gv::Promise<void> ended{};

  void next(int i) {
    object.async<int>("add", i, 1)
        .connect(
            [this, i](const gv::Future<int>& sum) {
              if (sum.value() != i + 1) std::abort();
              ++done;
              if (Clock::now() < end) return next(i);
              if (--running == 0) ended.setValue();
            },
            gv::FutureCallbackType::Sync);
  }
};

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
    Chains chains{object_, Clock::now() + std::chrono::duration_cast<Clock::duration>(time)};
    const auto start = Clock::now();
    for (int i = 0; i < callsInFlight; ++i) chains.next(i);
    chains.ended.future().wait();
    return static_cast<double>(chains.done) /
           std::chrono::duration<double>(Clock::now() - start).count();
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
