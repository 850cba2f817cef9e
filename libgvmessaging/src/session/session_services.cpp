// The part of a session that offers and finds services.

#include <algorithm>
#include <stdexcept>

#include <gv/os.h>

#include "src/rpc/callcontext.h"
#include "src/rpc/releasedelsewhere.h"
#include "src/rpc/remoteobject.h"
#include "src/session/neighbourhood.h"
#include "src/session/session_p.h"

namespace gv {

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
  rpc::CallContext context = rpc::CallContext::current();
  context.connectionId = 0;
  context.peer = nullptr;
  const rpc::CallContextScope scope(context);
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
  // Callable first, visible then: whoever sees the service can call it.
  local_.add(ServiceInfo(info.name(), id, info.machineId(), info.processId(), info.sessionId(), {}),
             object);
  return askDirectory<void>("serviceReady", id)
      .then(
          [self = shared_from_this(), id](Future<void> ready) {
            if (ready.hasError()) rpc::releasedElsewhere(self->local_.remove(id));
            ready.value();
            if (!self->local_.show(id)) throw std::runtime_error("the session was closed");
            return id;
          },
          FutureCallbackType::Sync);
}

Future<void> Session::Private::unregisterService(unsigned serviceId) {
  if (!local_.remove(serviceId))
    return makeFailedFuture<void>("this session has no service with id " +
                                  std::to_string(serviceId));
  return askDirectory<void>("unregisterService", serviceId);
}

Object<Empty> Session::Private::findService(unsigned id) const {
  if (id != directory::directoryServiceId) return local_.find(id);
  const std::lock_guard lock(mutex_);
  return ownDirectory_ ? directory_ : Object<Empty>();
}

// ---- Looking services up

std::vector<std::shared_ptr<Session::Private>> Session::Private::neighbours() const {
  std::string wanted;
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::Joined || state_ == State::Orphaned) wanted = directoryId_;
  }
  std::vector<std::shared_ptr<Private>> found;
  if (wanted.empty()) return found;
  for (auto& session : Neighbourhood<Private>::instance().members()) {
    const std::lock_guard lock(session->mutex_);
    if (session->state_ != State::Closed && session->directoryId_ == wanted)
      found.push_back(session);
  }
  return found;
}

std::vector<ServiceInfo> Session::Private::localInfos() const {
  std::vector<ServiceInfo> list;
  for (const auto& session : neighbours())
    for (const ServiceInfo& info : session->local_.infos())
      list.emplace_back(info.name(), info.serviceId(), info.machineId(), info.processId(),
                        info.sessionId(), session->endpoints());
  std::sort(list.begin(), list.end(), [](const ServiceInfo& a, const ServiceInfo& b) {
    return a.serviceId() < b.serviceId();
  });
  return list;
}

Object<Empty> Session::Private::findLocal(const std::string& name) const {
  for (const auto& session : neighbours())
    if (Object<Empty> object = session->local_.findByName(name)) return object;
  return {};
}

Future<std::vector<ServiceInfo>> Session::Private::services(ServiceLocality locality) {
  using Infos = std::vector<ServiceInfo>;
  if (locality == ServiceLocality::Local) return makeReadyFuture(localInfos());
  Infos toLeaveOut = locality == ServiceLocality::Remote ? localInfos() : Infos();
  return askDirectory<std::vector<directory::ServiceEntry>>("services")
      .then(
          [toLeaveOut](Future<std::vector<directory::ServiceEntry>> answer) {
            Infos list;
            for (const auto& entry : answer.value()) {
              ServiceInfo info = directory::toInfo(entry);
              const auto isSame = [&info](const ServiceInfo& other) {
                return other.serviceId() == info.serviceId();
              };
              if (std::none_of(toLeaveOut.begin(), toLeaveOut.end(), isSame))
                list.push_back(std::move(info));
            }
            return list;
          },
          FutureCallbackType::Sync);
}

Future<Object<Empty>> Session::Private::service(const std::string& name,
                                                const std::string& protocol) {
  if (protocol != "" && protocol != "local")
    return makeFailedFuture<Object<Empty>>("unknown protocol '" + protocol + "' for service '" +
                                           name + "'");
  if (const Object<Empty> local = findLocal(name)) return makeReadyFuture(local);
  if (protocol == "local")
    return makeFailedFuture<Object<Empty>>("there is no service '" + name + "' in this process");
  if (name == directory::directoryName)
    if (const Object<Empty> own = directory()) return makeReadyFuture(own);
  return askDirectory<directory::ServiceEntry>("service", name)
      .then(
          [self = shared_from_this(), name](Future<directory::ServiceEntry> answer) {
            if (answer.hasError()) self->forgetRemote(name);
            return self->remoteService(directory::toInfo(answer.value()));
          },
          FutureCallbackType::Sync);
}

Future<Object<Empty>> Session::Private::remoteService(const ServiceInfo& info) {
  if (const Object<Empty> known = cachedRemote(info)) return makeReadyFuture(known);
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
  std::map<std::string, Remote>::node_type forgotten;  // dies after the unlock
  const std::lock_guard lock(mutex_);
  forgotten = remotes_.extract(name);
}

Object<Empty> Session::Private::cachedRemote(const ServiceInfo& info) {
  const std::lock_guard lock(mutex_);
  const auto found = remotes_.find(info.name());
  if (found == remotes_.end() || found->second.serviceId != info.serviceId()) return {};
  return found->second.object;
}

Object<Empty> Session::Private::cacheRemote(const ServiceInfo& info,
                                            const ConnectionPointer& connection,
                                            const Object<Empty>& object) {
  Remote replaced;  // dies after the unlock
  const std::lock_guard lock(mutex_);
  // Asked under the lock: if it ends later, onConnectionClosed removes what is kept here.
  if (!connection->isOpen() || state_ == State::Closed)
    throw std::runtime_error("the connection to service '" + info.name() + "' was lost");
  Remote& kept = remotes_[info.name()];
  // Two look-ups at once made two objects: all callers get the first.
  if (kept.object && kept.serviceId == info.serviceId()) return kept.object;
  replaced = kept;
  kept = {info.serviceId(), connection->id(), object};
  return object;
}

}  // namespace gv
