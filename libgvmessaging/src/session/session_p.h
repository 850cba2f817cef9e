#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <gvmessaging/session.h>

#include "src/directory/directory.h"
#include "src/session/localservices.h"
#include "src/session/peers.h"
#include "src/session/sessionsettings.h"

namespace gv {

/// What a Session is made of. Continuations on the framework's threads keep it alive while they
/// run; the Session only owns it.
///
///     Idle ──listenStandalone, connect──> Joining ──> Joined ──directory lost──> Orphaned
///       └─────────────────────────close──────┴───────────┴──────────┴──> Closed
class Session::Private final : public rpc::ServiceHost,
                               public std::enable_shared_from_this<Session::Private> {
 public:
  static std::shared_ptr<Private> make(const SessionSettings& settings);
  ~Private() override;

  Future<void> listenStandalone(const Url& url);
  Future<void> connect(const std::string& url);
  Future<void> listen(const Url& url);
  Future<void> close();
  bool isConnected() const;
  Url url() const;
  std::vector<Url> endpoints() const;
  Future<unsigned> registerService(const std::string& name, const Object<Empty>& object);
  Future<void> unregisterService(unsigned serviceId);
  Future<std::vector<ServiceInfo>> services(ServiceLocality locality);
  Future<Object<Empty>> service(const std::string& name, const std::string& protocol);

  Object<Empty> findService(unsigned id) const override;
  Figures figures() const override;

 private:
  enum class State { Idle, Joining, Joined, Orphaned, Closed };
  using ConnectionPointer = Peers::ConnectionPointer;
  struct Joining;

  explicit Private(const SessionSettings& settings);

  void beginJoining();
  void leaveJoining();
  void makeDirectory();
  void openDirectory(const Url& url);
  void join(const std::shared_ptr<Joining>& joining, const ConnectionPointer& connection);
  void watchDirectory(const std::shared_ptr<Joining>& joining, const Object<Empty>& directory);
  void finishJoining(const std::shared_ptr<Joining>& joining, const Object<Empty>& directory);
  bool useDirectory(const Url& url, const ConnectionPointer& connection,
                    const Object<Empty>& directory);
  void failJoining(const std::shared_ptr<Joining>& joining, const std::string& text);
  std::shared_ptr<rpc::Acceptor> acceptOn(const Url& url);
  void announceEndpoints();
  void onConnectionClosed(const ConnectionPointer& connection);
  void onServiceRemoved(unsigned serviceId, const std::string& name);

  Object<Empty> directory() const;
  Future<AnyReference> callDirectory(const std::string& method,
                                     const GenericFunctionParameters& arguments);
  template <class R, class... A>
  Future<R> askDirectory(const std::string& method, const A&... arguments) {
    return callDirectory(method, makeParameters(arguments...))
        .then(
            [](Future<AnyReference> answer) {
              const AnyReference value = answer.value();
              if constexpr (!std::is_void_v<R>) return value.to<R>();
            },
            FutureCallbackType::Sync);
  }
  Future<unsigned> publish(unsigned id, const ServiceInfo& info, const Object<Empty>& object);
  Future<Object<Empty>> remoteService(const ServiceInfo& info);
  void forgetRemote(const std::string& name);
  Object<Empty> expectRemote(const ServiceInfo& info);
  Object<Empty> cacheRemote(const ServiceInfo& info, const ConnectionPointer& connection,
                            const Object<Empty>& object);

  /// As its figures name it.
  struct UsedService {
    std::string name;
    Object<Empty> object;
  };
  std::unordered_map<unsigned, UsedService> usedServices() const;

  /// Those of this process on the same directory; null without one.
  std::shared_ptr<LocalServices> localServices() const;
  void setLocalServicesLocked(const std::string& directoryId);

  const SessionSettings settings_;
  const std::string id_;
  const std::shared_ptr<Peers> peers_;

  /// Held while endpoints are announced, so that the last to be announced are the latest. Before
  /// mutex_.
  std::mutex announcing_;

  /// What this session has looked up. Without an object it is being reached: its removal meanwhile
  /// must not be missed.
  struct Remote {
    unsigned serviceId = 0;
    std::uint64_t connectionId = 0;
    Object<Empty> object;
  };

  mutable std::mutex mutex_;  // guards what follows
  State state_ = State::Idle;
  Url url_;
  Object<Empty> directory_;
  std::uint64_t directoryConnection_ = 0;
  std::shared_ptr<directory::Directory> ownDirectory_;  // of a master
  std::shared_ptr<LocalServices> local_;                // from joining on
  std::vector<std::shared_ptr<rpc::Acceptor>> acceptors_;
  std::unordered_map<std::string, Remote> remotes_;  // by name

  /// It let a withdrawal's time pass and has not answered one since.
  std::atomic<bool> isDirectorySilent_{false};

  /// The same as local_, for the path of a call, which takes no lock for it.
  std::atomic<const LocalServices*> offered_{nullptr};
};

}  // namespace gv
