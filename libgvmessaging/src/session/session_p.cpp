#include "src/session/session_p.h"

#include <atomic>
#include <stdexcept>

#include <gv/eventloop.h>
#include <gv/log.h>
#include <gv/os.h>

#include "src/net/reactor.h"
#include "src/rpc/callcontext.h"
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

/// In the network's thread, or, while nobody has been reached, in the one that closes the session.
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
  if (!isConnected() || texts.empty()) return;
  askDirectory<void>("announceEndpoints", texts)
      .connect(
          [](const Future<void>& told) {
            if (told.hasError(0))
              GV_LOG(log::Level::Warning, "gvmessaging.session", "announceEndpoints",
                     "peers cannot find this session: " + told.error(0));
          },
          FutureCallbackType::Sync);
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

}  // namespace gv
