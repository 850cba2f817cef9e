#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gv/os.h>
#include <gvmessaging/url.h>

#include "src/directory/serviceentry.h"
#include "src/rpc/remoteobject.h"
#include "src/session/peers.h"

namespace gv {

/// What a session of another process is to those of this one: it shares nothing with them but
/// connections. It answers calls, and may join a directory, with the messages alone.
class ForeignSession {
 public:
  static constexpr int guardMs = 20'000;

  explicit ForeignSession(const std::string& id, const std::string& machine = os::machineId(),
                          const wire::Limits& limits = {},
                          const std::string& listening = "tcp://127.0.0.1:0") {
    rpc::Greeting own;
    own.sessionId = id;
    own.machineId = machine;
    peers = std::make_shared<Peers>(own, limits);
    peers->setOwner(host_, [](const auto&) {});
    acceptor_ = peers->listen(listening);
  }
  ~ForeignSession() {
    acceptor_->close();
    peers->close("the test has ended").wait(guardMs);
  }

  Url url(const std::string& host = "127.0.0.1") const {
    return Url::make(acceptor_->protocol(), host, acceptor_->boundPort());
  }
  Peers::ConnectionPointer dial(const Url& to) const {
    return peers->dial(to, std::chrono::seconds(10)).value(guardMs);
  }

  void join(const Url& master) {
    connection = dial(master);
    directory = rpc::RemoteObject::make(connection, 1).value(guardMs);
    directory.call<void>("announceEndpoints", std::vector<std::string>{url().str()});
  }
  unsigned offer(const std::string& name, const Object<Empty>& object) {
    const unsigned id = directory.call<unsigned>("registerService",
                                                 directory::ServiceEntry{name, 0, "", 0, "", {}});
    serve(id, object);
    directory.call<void>("serviceReady", id);
    return id;
  }
  void serve(unsigned id, const Object<Empty>& object) { host_->serve(id, object); }

  std::shared_ptr<Peers> peers;
  Peers::ConnectionPointer connection;  // to the directory
  Object<Empty> directory;

 private:
  class Host final : public rpc::ServiceHost {
   public:
    void serve(unsigned id, Object<Empty> object) {
      const std::lock_guard lock(mutex_);
      std::swap(objects_[id], object);
    }
    Object<Empty> findService(unsigned id) const override {
      const std::lock_guard lock(mutex_);
      const auto found = objects_.find(id);
      return found == objects_.end() ? Object<Empty>() : found->second;
    }
    Figures figures() const override { return {}; }

   private:
    mutable std::mutex mutex_;  // guards what follows
    std::map<unsigned, Object<Empty>> objects_;
  };

  const std::shared_ptr<Host> host_ = std::make_shared<Host>();
  std::shared_ptr<rpc::Acceptor> acceptor_;
};

}  // namespace gv
