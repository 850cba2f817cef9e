// The part of a session that offers and finds services.

#include <algorithm>
#include <atomic>
#include <functional>
#include <stdexcept>
#include <unordered_set>

#include <gv/os.h>

#include "src/directory/serviceentry.h"
#include "src/net/timer.h"
#include "src/rpc/callcontext.h"
#include "src/rpc/releasedelsewhere.h"
#include "src/rpc/remoteobject.h"
#include "src/session/session_p.h"

namespace gv {
namespace {

std::string wasRemoved(const ServiceInfo& info) {
  return "service '" + info.name() + "' was removed while it was looked up";
}

/// The end of `asked`, or a failure with `text` when `bound` is over before; `tell` is told which
/// of both first.
Future<void> within(std::chrono::milliseconds bound, const Future<void>& asked,
                    const std::string& text, const std::function<void(bool hasAnswered)>& tell) {
  struct Wait {
    const Promise<void> promise{FutureCallbackType::Async};
    std::atomic<bool> isSettled{false};  // who sets it settles the promise
    std::shared_ptr<net::Timer> timer;   // constant once `asked` is waited for
  };
  const auto wait = std::make_shared<Wait>();
  wait->timer = net::Timer::start(bound, [wait, text, tell] {
    if (wait->isSettled.exchange(true)) return;
    tell(false);
    wait->promise.setError(text);
  });
  asked.connect(
      [wait, tell](const Future<void>& ended) {
        tell(true);
        if (wait->isSettled.exchange(true)) return;
        wait->timer->cancel();
        if (ended.hasValue(0))
          wait->promise.setValue();
        else
          wait->promise.setError(ended.error(0), ended.errorState(0));
      },
      FutureCallbackType::Sync);
  return wait->promise.future();
}

}  // namespace

Object<Empty> Session::Private::directory() const {
  const std::lock_guard lock(mutex_);
  return directory_;
}

Future<AnyReference> Session::Private::callDirectory(const std::string& method,
                                                     const GenericFunctionParameters& arguments) {
  const Object<Empty> asked = directory();
  if (!asked)
    return makeFailedFuture<AnyReference>("the session is not connected to a service directory",
                                          FutureException::State::NotSent);
  // Asked in this session's own name, also from within a call that a peer made.
  const rpc::DirectoryCallerScope scope(nullptr);
  return asked.metaCall(method, arguments);
}

Future<unsigned> Session::Private::registerService(const std::string& name,
                                                   const Object<Empty>& object) {
  if (!object) return makeFailedFuture<unsigned>("the object of service '" + name + "' is null");
  const ServiceInfo info(name, 0, os::machineId(), os::processId(), id_, {});
  return askDirectory<unsigned>("registerService", directory::toEntry(info))
      .then([self = shared_from_this(), info, held = rpc::releasedElsewhere(object)](
                Future<unsigned> reserved) { return self->publish(reserved.value(), info, *held); },
            FutureCallbackType::Sync);
}

Future<unsigned> Session::Private::publish(unsigned id, const ServiceInfo& info,
                                           const Object<Empty>& object) {
  const auto local = localServices();
  if (!local) throw std::runtime_error("the session was closed");
  // Callable first, visible then: whoever sees the service can call it.
  local->add(ServiceInfo(info.name(), id, info.machineId(), info.processId(), info.sessionId(), {}),
             object);
  return askDirectory<void>("serviceReady", id)
      .then(
          [self = shared_from_this(), local, id](Future<void> ready) {
            if (ready.hasError()) rpc::releasedElsewhere(local->remove(self->id_, id));
            ready.value();
            if (!local->show(id)) throw std::runtime_error("the session was closed");
            return id;
          },
          FutureCallbackType::Sync);
}

Future<void> Session::Private::unregisterService(unsigned serviceId) {
  const auto local = localServices();
  if (!local || !local->remove(id_, serviceId))
    return makeFailedFuture<void>("this session has no service with id " +
                                  std::to_string(serviceId));
  // One that leaves many services waits for a directory that stands still but once.
  const auto bound = isDirectorySilent_ ? std::chrono::milliseconds(0) : settings_.withdrawTime;
  return within(bound, askDirectory<void>("unregisterService", serviceId),
                "the service directory did not answer within " +
                    std::to_string(settings_.withdrawTime.count()) + " ms: service " +
                    std::to_string(serviceId) + " takes no more calls, but may still be listed",
                [weak = weak_from_this()](bool hasAnswered) {
                  if (const auto self = weak.lock()) self->isDirectorySilent_ = !hasAnswered;
                });
}

Object<Empty> Session::Private::findService(unsigned id) const {
  if (id != directory::directoryServiceId) {
    const LocalServices* offered = offered_;
    return offered ? offered->find(id_, id) : Object<Empty>();
  }
  const std::lock_guard lock(mutex_);
  return ownDirectory_ ? directory_ : Object<Empty>();
}

// ---- Looking services up

std::shared_ptr<LocalServices> Session::Private::localServices() const {
  const std::lock_guard lock(mutex_);
  return state_ == State::Joined || state_ == State::Orphaned ? local_ : nullptr;
}

Future<std::vector<ServiceInfo>> Session::Private::services(ServiceLocality locality) {
  using Infos = std::vector<ServiceInfo>;
  using Entries = std::vector<directory::ServiceEntry>;
  const auto local = localServices();
  Infos here = local && locality != ServiceLocality::All ? local->infos() : Infos();
  if (locality == ServiceLocality::Local) return makeReadyFuture(std::move(here));
  return askDirectory<Entries>("services")
      .then(
          [here](Future<Entries> answer) {
            std::unordered_set<unsigned> toLeaveOut;
            for (const ServiceInfo& info : here) toLeaveOut.insert(info.serviceId());
            Infos list;
            for (const auto& entry : answer.value())
              if (!toLeaveOut.contains(std::get<1>(entry)))
                list.push_back(directory::toInfo(entry));
            return list;
          },
          FutureCallbackType::Sync);
}

Future<Object<Empty>> Session::Private::service(const std::string& name,
                                                const std::string& protocol) {
  if (protocol != "" && protocol != "local")
    return makeFailedFuture<Object<Empty>>("unknown protocol '" + protocol + "' for service '" +
                                           name + "'");
  if (const auto services = localServices())
    if (const Object<Empty> local = services->findByName(name)) return makeReadyFuture(local);
  if (protocol == "local")
    return makeFailedFuture<Object<Empty>>("there is no service '" + name + "' in this process");
  if (name == directory::directoryName)
    if (const Object<Empty> own = directory()) return makeReadyFuture(own);
  return askDirectory<directory::ServiceEntry>("service", name)
      .then(
          [self = shared_from_this(), name](Future<directory::ServiceEntry> answer) {
            // Gone by the directory's word. Where that has gone itself, what is known lives on.
            if (answer.hasError() && answer.errorState() == FutureException::State::UserError)
              self->forgetRemote(name);
            return self->remoteService(directory::toInfo(answer.value()));
          },
          FutureCallbackType::Sync);
}

Future<Object<Empty>> Session::Private::remoteService(const ServiceInfo& info) {
  // The directory shows a service just before this process does.
  if (const auto services = localServices())
    if (const Object<Empty> local = services->find(info.sessionId(), info.serviceId()))
      return makeReadyFuture(local);
  if (info.sessionId() == id_) return makeFailedFuture<Object<Empty>>(wasRemoved(info));
  if (const Object<Empty> known = expectRemote(info)) return makeReadyFuture(known);
  return peers_->reach(info).then(
      [self = shared_from_this(), info](Future<ConnectionPointer> reached) {
        const ConnectionPointer connection = reached.value();
        return rpc::RemoteObject::make(connection, info.serviceId())
            .then(
                [self, info, connection](Future<Object<Empty>> made) {
                  return self->cacheRemote(info, connection, made.value());
                },
                FutureCallbackType::Sync);
      },
      FutureCallbackType::Sync);
}

void Session::Private::forgetRemote(const std::string& name) {
  decltype(remotes_)::node_type forgotten;  // dies after the unlock
  const std::lock_guard lock(mutex_);
  forgotten = remotes_.extract(name);
}

Object<Empty> Session::Private::expectRemote(const ServiceInfo& info) {
  Remote replaced;  // dies after the unlock
  const std::lock_guard lock(mutex_);
  Remote& kept = remotes_[info.name()];
  if (kept.serviceId < info.serviceId()) {
    replaced = std::move(kept);
    kept = {info.serviceId(), 0, {}};
  }
  return kept.serviceId == info.serviceId() ? kept.object : Object<Empty>();
}

Object<Empty> Session::Private::cacheRemote(const ServiceInfo& info,
                                            const ConnectionPointer& connection,
                                            const Object<Empty>& object) {
  const std::lock_guard lock(mutex_);
  // Asked under the lock: if it ends later, onConnectionClosed removes what is kept here.
  if (!connection->isOpen() || state_ == State::Closed)
    throw std::runtime_error("the connection to service '" + info.name() + "' was lost");
  const auto expected = remotes_.find(info.name());
  if (expected == remotes_.end() || expected->second.serviceId != info.serviceId())
    throw std::runtime_error(wasRemoved(info));
  // Two look-ups at once made two objects: all callers get the first.
  Remote& kept = expected->second;
  if (!kept.object) kept = {info.serviceId(), connection->id(), object};
  return kept.object;
}

}  // namespace gv
