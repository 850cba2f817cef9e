#include "src/session/session_p.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <tuple>

#include <gv/eventloop.h>
#include <gv/os.h>

#include "src/net/reactor.h"
#include "src/rpc/callcontext.h"
#include "src/rpc/releasedelsewhere.h"
#include "src/rpc/remoteobject.h"
#include "src/session/neighbourhood.h"

namespace gv {
namespace {

constexpr std::chrono::seconds connectTime{10};

/// Runs `task`, which may block on a name server, on the event loop.
Future<void> onEventLoop(std::function<void()> task) {
  return getEventLoop()->async(std::move(task));
}

}  // namespace

/// A session on its way to a directory.
struct Session::Private::Joining {
  const Promise<void> promise;
  std::atomic<bool> isSettled{false};  // who sets it settles the promise
  std::shared_ptr<net::Timer> timer;   // constant once joining has begun
  ConnectionPointer connection;        // of the network's thread
};

std::shared_ptr<Session::Private> Session::Private::make() {
  std::shared_ptr<Private> session(new Private);
  const std::weak_ptr<Private> weak = session;
  session->peers_->setOwner(session, [weak](const ConnectionPointer& connection) {
    if (const auto self = weak.lock()) self->onConnectionClosed(connection);
  });
  return session;
}

Session::Private::Private()
    : id_(rpc::randomHexId()), peers_([this] {
        rpc::Greeting own;
        own.sessionId = id_;
        own.machineId = os::machineId();
        own.processId = os::processId();
        return std::make_shared<Peers>(own, wire::Limits());
      }()) {}

Session::Private::~Private() = default;

// ---- Joining a network

Future<void> Session::Private::listenStandalone(const Url& url) {
  try {
    if (!url.isValid()) throw std::runtime_error("'" + url.str() + "' is no address");
    beginJoining();
  } catch (const std::exception& error) {
    return makeFailedFuture<void>(error.what());
  }
  return onEventLoop([self = shared_from_this(), url] {
    try {
      self->makeDirectory();  // before anybody can connect and ask for it
      self->openDirectory(Url::tcp(url.host(), self->acceptOn(url)->boundPort()));
    } catch (...) {
      self->leaveJoining();
      throw;
    }
  });
}

void Session::Private::makeDirectory() {
  const ServiceInfo info(directory::directoryName, directory::directoryServiceId, os::machineId(),
                         os::processId(), id_, {});
  auto own = directory::ServiceDirectory::make(info);
  const Object<Empty> object = own->object();
  const std::lock_guard lock(mutex_);
  if (state_ != State::Joining) throw std::runtime_error("the session was closed");
  ownDirectory_ = std::move(own);
  directory_ = object;
  directoryId_ = id_;
}

void Session::Private::openDirectory(const Url& url) {
  {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Joining) throw std::runtime_error("the session was closed");
    url_ = url;
    state_ = State::Joined;
  }
  Neighbourhood<Private>::instance().join(weak_from_this());
  announceEndpoints();
}

Future<void> Session::Private::connect(const std::string& text) {
  const Url url(text);
  try {
    if (!url.isValid() || url.port() == 0)
      throw std::runtime_error("'" + text + "' is no address to connect to");
    net::Reactor::context();  // refuses a forked child and a process that exits
    beginJoining();
  } catch (const std::exception& error) {
    return makeFailedFuture<void>(error.what());
  }
  const auto joining = std::make_shared<Joining>();
  const auto self = shared_from_this();
  joining->timer = net::Timer::start(connectTime, [self, joining, text] {
    self->failJoining(joining, "the service directory at " + text + " did not answer within " +
                                   std::to_string(connectTime.count()) + " s");
  });
  peers_->dial(url, connectTime)
      .connect(
          [self, url, joining](const Future<ConnectionPointer>& dialed) {
            if (!dialed.hasValue(0)) return self->failJoining(joining, dialed.error(0));
            self->join(joining, url, dialed.value(0));
          },
          FutureCallbackType::Sync);
  return joining->promise.future();
}

void Session::Private::join(const std::shared_ptr<Joining>& joining, const Url& url,
                            const ConnectionPointer& connection) {
  joining->connection = connection;
  if (joining->isSettled) return connection->close("joined too late");
  rpc::RemoteObject::make(connection, directory::directoryServiceId)
      .connect(
          [self = shared_from_this(), joining, url,
           connection](const Future<Object<Empty>>& found) {
            if (!found.hasValue(0)) return self->failJoining(joining, found.error(0));
            if (joining->isSettled.exchange(true)) return;
            joining->timer->cancel();
            if (!self->useDirectory(url, connection, found.value(0))) {
              connection->close("the session was closed");
              return joining->promise.setError("the session was closed, or its connection");
            }
            Neighbourhood<Private>::instance().join(self->weak_from_this());
            self->announceEndpoints();
            joining->promise.setValue();
          },
          FutureCallbackType::Sync);
}

bool Session::Private::useDirectory(const Url& url, const ConnectionPointer& connection,
                                    const Object<Empty>& directory) {
  const std::lock_guard lock(mutex_);
  if (state_ != State::Joining) return false;
  // Asked under the lock: if it ends later, onConnectionClosed comes after this.
  if (!connection->isOpen()) {
    state_ = State::Idle;
    return false;
  }
  directory_ = directory;
  directoryId_ = connection->peer().sessionId;
  directoryConnection_ = connection->id();
  url_ = url;
  state_ = State::Joined;
  return true;
}

/// In the network's thread, as all steps of joining.
void Session::Private::failJoining(const std::shared_ptr<Joining>& joining,
                                   const std::string& text) {
  if (joining->isSettled.exchange(true)) return;
  joining->timer->cancel();
  leaveJoining();
  if (joining->connection) joining->connection->close(text);
  joining->promise.setError(text);
}

void Session::Private::beginJoining() {
  const std::lock_guard lock(mutex_);
  if (state_ == State::Closed) throw std::runtime_error("the session was closed");
  if (state_ != State::Idle)
    throw std::runtime_error("the session has a service directory already, or is joining one");
  state_ = State::Joining;
}

void Session::Private::leaveJoining() {
  Object<Empty> directory;  // dies after the unlock
  const std::lock_guard lock(mutex_);
  if (state_ != State::Joining) return;
  state_ = State::Idle;
  std::swap(directory, directory_);
  ownDirectory_.reset();
}

Future<void> Session::Private::listen(const Url& url) {
  if (!url.isValid()) return makeFailedFuture<void>("'" + url.str() + "' is no address");
  return onEventLoop([self = shared_from_this(), url] {
    self->acceptOn(url);
    self->announceEndpoints();
  });
}

std::shared_ptr<rpc::Acceptor> Session::Private::acceptOn(const Url& url) {
  auto acceptor = peers_->listen(url);
  {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Closed) {
      acceptors_.push_back(acceptor);
      return acceptor;
    }
  }
  acceptor->close();
  throw std::runtime_error("the session was closed");
}

void Session::Private::announceEndpoints() {
  std::vector<std::string> texts;
  for (const Url& url : endpoints()) texts.push_back(url.str());
  if (isConnected() && !texts.empty()) askDirectory<void>("announceEndpoints", texts);
}

// ---- The end

Future<void> Session::Private::close() {
  std::vector<std::shared_ptr<rpc::Acceptor>> acceptors;
  std::map<std::string, Remote> remotes;
  Object<Empty> directory;
  std::shared_ptr<directory::ServiceDirectory> ownDirectory;
  {
    const std::lock_guard lock(mutex_);
    state_ = State::Closed;
    acceptors.swap(acceptors_);
    remotes.swap(remotes_);
    std::swap(directory, directory_);
    ownDirectory.swap(ownDirectory_);
  }
  for (const auto& acceptor : acceptors) acceptor->close();
  local_.clear();
  return peers_->close("the session was closed");
}

void Session::Private::onConnectionClosed(const ConnectionPointer& connection) {
  std::vector<Object<Empty>> gone;  // dies after the unlock
  std::shared_ptr<directory::ServiceDirectory> ownDirectory;
  {
    const std::lock_guard lock(mutex_);
    ownDirectory = ownDirectory_;
    for (auto remote = remotes_.begin(); remote != remotes_.end();) {
      if (remote->second.connectionId == connection->id()) {
        gone.push_back(remote->second.object);
        remote = remotes_.erase(remote);
      } else {
        ++remote;
      }
    }
    if (connection->id() == directoryConnection_ && state_ == State::Joined) {
      state_ = State::Orphaned;
      gone.push_back(directory_);
      directory_ = {};
    }
  }
  if (ownDirectory) ownDirectory->connectionLost(connection->id());
}

// ---- What a session says of itself

bool Session::Private::isConnected() const {
  const std::lock_guard lock(mutex_);
  return state_ == State::Joined;
}

Url Session::Private::url() const {
  const std::lock_guard lock(mutex_);
  const bool isUsable =
      state_ == State::Joined || (state_ == State::Orphaned && !acceptors_.empty());
  if (!isUsable)
    throw std::runtime_error("the session is neither listening nor connected: it has no address");
  return url_;
}

std::vector<Url> Session::Private::endpoints() const {
  std::vector<std::shared_ptr<rpc::Acceptor>> acceptors;
  {
    const std::lock_guard lock(mutex_);
    acceptors = acceptors_;
  }
  std::vector<Url> urls;
  for (const auto& acceptor : acceptors) {
    const std::string& bound = acceptor->boundAddress();
    const bool isAny = bound == "0.0.0.0" || bound == "::";
    const std::vector<std::string> hosts =
        isAny ? os::hostAddresses() : std::vector<std::string>{bound};
    for (const std::string& host : hosts) {
      const bool isV6 = host.find(':') != std::string::npos;
      if (isV6 && bound == "0.0.0.0") continue;
      urls.push_back(Url::tcp(host, acceptor->boundPort()));
    }
  }
  return urls;
}

// ---- Services of this session

Object<Empty> Session::Private::directory() const {
  const std::lock_guard lock(mutex_);
  return directory_;
}

template <class R, class... A>
Future<R> Session::Private::askDirectory(const std::string& method, const A&... arguments) {
  const Object<Empty> asked = directory();
  if (!asked)
    return makeFailedFuture<R>("the session is not connected to a service directory",
                               FutureException::State::NotSent);
  // Asked in this session's own name, also from within a call that a peer made.
  rpc::CallContext context = rpc::CallContext::current();
  context.connectionId = 0;
  const rpc::CallContextScope scope(context);
  return asked.metaCall(method, makeParameters(arguments...))
      .then(
          [](Future<AnyReference> answer) {
            const AnyReference value = answer.value();
            if constexpr (!std::is_void_v<R>) return value.to<R>();
          },
          FutureCallbackType::Sync);
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
