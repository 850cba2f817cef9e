#include "src/session/session_p.h"

#include <atomic>
#include <stdexcept>
#include <utility>

#include <gv/eventloop.h>
#include <gv/log.h>
#include <gv/os.h>

#include "src/directory/directoryobject.h"
#include "src/directory/directorytable.h"
#include "src/net/reactor.h"
#include "src/rpc/callcontext.h"
#include "src/rpc/remoteobject.h"

namespace gv {
namespace {

constexpr const char* category = "gvmessaging.session";

/// Runs `task`, which may block on a name server, on the event loop.
Future<void> onEventLoop(std::function<void()> task) {
  return getEventLoop()->async(std::move(task));
}

}  // namespace

/// A session on its way to a directory.
struct Session::Private::Joining {
  const Url url;
  const Promise<void> promise;
  std::atomic<bool> isSettled{false};  // who sets it settles the promise
  std::shared_ptr<net::Timer> timer;   // constant once joining has begun
  std::mutex mutex;                    // guards the connection
  ConnectionPointer connection;

  explicit Joining(const Url& directory) : url(directory) {}
  ConnectionPointer reached() {
    const std::lock_guard lock(mutex);
    return connection;
  }
};

std::shared_ptr<Session::Private> Session::Private::make(const SessionSettings& settings) {
  std::shared_ptr<Private> session(new Private(settings));
  const std::weak_ptr<Private> weak = session;
  session->peers_->setOwner(session, [weak](const ConnectionPointer& connection) {
    if (const auto self = weak.lock()) self->onConnectionClosed(connection);
  });
  return session;
}

Session::Private::Private(const SessionSettings& settings)
    : settings_(settings), id_(rpc::randomHexId()), peers_([this] {
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
      self->openDirectory(Url::make(url.protocol(), url.host(), self->acceptOn(url)->boundPort()));
    } catch (...) {
      self->leaveJoining();
      throw;
    }
  });
}

void Session::Private::makeDirectory() {
  const directory::Registrant self{0, os::machineId(), os::processId(), id_, ""};
  const auto own = std::make_shared<directory::DirectoryTable>(self);
  const Object<Empty> object = directory::makeDirectoryObject(own, self);
  own->watch([weak = weak_from_this()](const directory::Notice& notice) {
    const auto session = weak.lock();
    if (session && !notice.isAdded) session->onServiceRemoved(notice.serviceId, notice.name);
  });
  const std::lock_guard lock(mutex_);
  if (state_ != State::Joining) throw std::runtime_error("the session was closed");
  ownDirectory_ = own;
  directory_ = object;
}

void Session::Private::openDirectory(const Url& url) {
  {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Joining) throw std::runtime_error("the session was closed");
    url_ = url;
    setLocalServicesLocked(id_);
    state_ = State::Joined;
  }
  announceEndpoints();
}

void Session::Private::setLocalServicesLocked(const std::string& directoryId) {
  local_ = LocalServices::on(directoryId);
  offered_ = local_.get();
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
  const auto joining = std::make_shared<Joining>(url);
  const auto self = shared_from_this();
  const auto bound = settings_.connectTime;
  joining->timer = net::Timer::start(bound, [self, joining, bound] {
    self->failJoining(joining, "the service directory at " + joining->url.str() +
                                   " did not answer within " + std::to_string(bound.count()) +
                                   " ms");
  });
  peers_->dial(url, bound)
      .connect(
          [self, joining](const Future<ConnectionPointer>& dialed) {
            if (!dialed.hasValue(0)) return self->failJoining(joining, dialed.error(0));
            self->join(joining, dialed.value(0));
          },
          FutureCallbackType::Sync);
  return joining->promise.future();
}

void Session::Private::join(const std::shared_ptr<Joining>& joining,
                            const ConnectionPointer& connection) {
  {
    const std::lock_guard lock(joining->mutex);
    joining->connection = connection;
  }
  // Asked after it was set: whoever settles later finds the connection.
  if (joining->isSettled) return connection->close("joined too late");
  rpc::RemoteObject::make(connection, directory::directoryServiceId)
      .connect(
          [self = shared_from_this(), joining](const Future<Object<Empty>>& found) {
            if (!found.hasValue(0)) return self->failJoining(joining, found.error(0));
            self->watchDirectory(joining, found.value(0));
          },
          FutureCallbackType::Sync);
}

/// Before the first look-up, so that no removal of what is found later goes unnoticed.
void Session::Private::watchDirectory(const std::shared_ptr<Joining>& joining,
                                      const Object<Empty>& directory) {
  const auto removed = [weak = weak_from_this()](unsigned id, const std::string& name) {
    if (const auto session = weak.lock()) session->onServiceRemoved(id, name);
  };
  directory.connect("serviceRemoved", removed)
      .connect(
          [self = shared_from_this(), joining, directory](const Future<SignalLink>& watching) {
            if (!watching.hasValue(0))
              GV_LOG(log::Level::Verbose, category, "connect",
                     "removed services are noticed by calls only: " + watching.error(0));
            self->finishJoining(joining, directory);
          },
          FutureCallbackType::Sync);
}

void Session::Private::finishJoining(const std::shared_ptr<Joining>& joining,
                                     const Object<Empty>& directory) {
  if (joining->isSettled.exchange(true)) return;
  joining->timer->cancel();
  const ConnectionPointer connection = joining->reached();
  if (!useDirectory(joining->url, connection, directory)) {
    connection->close("the session was closed");
    return joining->promise.setError("the session was closed, or its connection");
  }
  announceEndpoints();
  joining->promise.setValue();
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
  directoryConnection_ = connection->id();
  setLocalServicesLocked(connection->peer().sessionId);
  url_ = url;
  state_ = State::Joined;
  return true;
}

void Session::Private::failJoining(const std::shared_ptr<Joining>& joining,
                                   const std::string& text) {
  if (joining->isSettled.exchange(true)) return;
  joining->timer->cancel();
  GV_LOG(log::Level::Info, category, "connect", text);
  leaveJoining();
  if (const ConnectionPointer reached = joining->reached()) reached->close(text);
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
  Future<void> told;
  {
    const std::lock_guard lock(announcing_);
    const std::vector<Url> urls = endpoints();
    const auto local = localServices();
    if (!isConnected() || !local || urls.empty()) return;
    local->setEndpoints(id_, urls);
    std::vector<std::string> texts;
    for (const Url& url : urls) texts.push_back(url.str());
    told = askDirectory<void>("announceEndpoints", texts);
  }
  told.connect(
      [](const Future<void>& ended) {
        if (ended.hasError(0))
          GV_LOG(log::Level::Warning, category, "announceEndpoints",
                 "peers cannot find this session: " + ended.error(0));
      },
      FutureCallbackType::Sync);
}

// ---- The end

Future<void> Session::Private::close() {
  std::vector<std::shared_ptr<rpc::Acceptor>> acceptors;
  std::unordered_map<std::string, Remote> remotes;
  Object<Empty> directory;
  std::shared_ptr<directory::Directory> ownDirectory;
  std::shared_ptr<LocalServices> local;
  {
    const std::lock_guard lock(mutex_);
    state_ = State::Closed;
    acceptors.swap(acceptors_);
    remotes.swap(remotes_);
    std::swap(directory, directory_);
    ownDirectory.swap(ownDirectory_);
    local = local_;
  }
  for (const auto& acceptor : acceptors) acceptor->close();
  if (local) local->removeAll(id_);
  return peers_->close("the session was closed");
}

void Session::Private::onConnectionClosed(const ConnectionPointer& connection) {
  std::vector<Object<Empty>> gone;  // dies after the unlock
  std::shared_ptr<directory::Directory> ownDirectory;
  {
    const std::lock_guard lock(mutex_);
    ownDirectory = ownDirectory_;
    for (auto& [name, remote] : remotes_) {
      if (remote.connectionId != connection->id()) continue;
      gone.push_back(std::exchange(remote.object, {}));
      remote.connectionId = 0;
    }
    if (connection->id() == directoryConnection_ && state_ == State::Joined) {
      state_ = State::Orphaned;
      gone.push_back(directory_);
      directory_ = {};
    }
  }
  if (ownDirectory) ownDirectory->connectionLost(connection->id());
}

void Session::Private::onServiceRemoved(unsigned serviceId, const std::string& name) {
  Remote gone;  // dies after the unlock
  const std::lock_guard lock(mutex_);
  const auto found = remotes_.find(name);
  if (found == remotes_.end() || found->second.serviceId != serviceId) return;
  gone = std::move(found->second);
  remotes_.erase(found);
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
      urls.push_back(Url::make(acceptor->protocol(), host, acceptor->boundPort()));
    }
  }
  return urls;
}

}  // namespace gv
