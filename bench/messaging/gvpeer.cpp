#include <unistd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <cstdlib>
#include <vector>

#include <gvmessaging/session.h>
#include <gvtype/anyvalue.h>
#include <gvtype/dynamicobjectbuilder.h>

#include "messaging/inprocess.h"
#include "messaging/peer.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Values = std::vector<gv::AnyValue>;

Values mixedValues() {
  Values values;
  for (int i = 0; i < Peer::listSize; ++i) {
    if (i % 3 == 0) values.push_back(gv::AnyValue::from(std::int64_t{i}));
    if (i % 3 == 1) values.push_back(gv::AnyValue::from(i / 2.0));
    if (i % 3 == 2) values.push_back(gv::AnyValue::from("value" + std::to_string(i)));
  }
  return values;
}

/// Calls that each begin the next one when they have ended.
struct Chains {
  const gv::Object<gv::Empty> object;
  const char* const method;
  const Clock::time_point end;
  std::atomic<long> done{0};
  std::atomic<int> running{Peer::callsInFlight};
  const gv::Promise<void> ended{};

  void next(int i) {
    object.async<int>(method, i, 1)
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
  explicit GvPeer(std::uint16_t port) {
    session_->connect("tcp://127.0.0.1:" + std::to_string(port)).value();
    object_ = session_->service("Bench").value();
  }

  int add(int a, int b) override { return object_.call<int>("add", a, b); }

  std::size_t echo(std::size_t size) override {
    if (sent_.size() != size) sent_ = gv::Buffer(std::string(size, 'x').data(), size);
    return object_.call<gv::Buffer>("echo", sent_).size();
  }

  std::size_t list() override { return object_.call<Values>("list", values_).size(); }

  double addInFlight(Seconds time) override { return inFlight("add", time); }
  double addQueued(Seconds time) override { return inFlight("addQueued", time); }

 private:
  double inFlight(const char* method, Seconds time) {
    Chains chains{object_, method,
                  Clock::now() + std::chrono::duration_cast<Clock::duration>(time)};
    const auto start = Clock::now();
    for (int i = 0; i < callsInFlight; ++i) chains.next(i);
    chains.ended.future().wait();
    return static_cast<double>(chains.done) / Seconds(Clock::now() - start).count();
  }

  boost::shared_ptr<gv::Session> session_ = boost::make_shared<gv::Session>();
  gv::Object<gv::Empty> object_;
  gv::Buffer sent_;  // echoes
  const Values values_ = mixedValues();
};

gv::Object<gv::Empty> makeObject() {
  gv::DynamicObjectBuilder builder;
  const auto add = [](int a, int b) { return a + b; };
  builder.advertiseMethod("add", add);
  builder.advertiseMethod("addQueued", add, gv::MetaCallType::Queued);
  builder.advertiseMethod("echo", [](const gv::Buffer& bytes) { return bytes; });
  builder.advertiseMethod("list", [](const Values& values) { return values; });
  return builder.object();
}

void serve(std::uint16_t port, void (*announce)(int)) {
  const auto session = boost::make_shared<gv::Session>();
  session->listenStandalone("tcp://127.0.0.1:" + std::to_string(port)).value();
  session->registerService("Bench", makeObject()).value();
  announce(session->url().port());
  for (;;) ::pause();
}

void reportInProcess() {
  const auto object = makeObject();
  const gv::GenericObject& generic = *object.share();
  const auto id = static_cast<unsigned>(object.metaObject().findMethod("add").at(0).uid());
  reportCall("gv", "call_by_name", [&](int a) { return generic.call<int>("add", a, 1); });
  reportCall("gv", "call_by_slot", [&](int a) { return generic.call<int>(id, a, 1); });
  reportTasks("gv");
}

}  // namespace

const Kind gvKind = {
    "gv", serve,
    [](std::uint16_t port) -> std::unique_ptr<Peer> { return std::make_unique<GvPeer>(port); },
    reportInProcess};

}  // namespace bench
