#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gvmessaging/session.h>

#include "src/directory/servicedirectory.h"
#include "src/session/localservices.h"
#include "src/session/peers.h"

namespace gv {

/// What a Session is made of. Continuations on the framework's threads keep it alive while they
/// run; the Session only owns it.
///
///     Idle ──listenStandalone, connect──> Joining ──> Joined ──directory lost──> Orphaned
///       └─────────────────────────close──────┴───────────┴──────────┴──> Closed
class Session::Private final : public rpc::ServiceHost,
                               public std::enable_shared_from_this<Session::Private> {
 public:
  static std::shared_ptr<Private> make();
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

 private:
  enum class State { Idle, Joining, Joined, Orphaned, Closed };
  using ConnectionPointer = Peers::ConnectionPointer;
  struct Joining;

  Private();

  void beginJoining();
  void leaveJoining();
  void makeDirectory();
  void openDirectory(const Url& url);
  void join(const std::shared_ptr<Joining>& joining, const Url& url,
            const ConnectionPointer& connection);
  bool useDirectory(const Url& url, const ConnectionPointer& connection,
                    const Object<Empty>& directory);
  void failJoining(const std::shared_ptr<Joining>& joining, const std::string& text);
  std::shared_ptr<rpc::Acceptor> acceptOn(const Url& url);
  void announceEndpoints();
  void onConnectionClosed(const ConnectionPointer& connection);

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
  Object<Empty> cachedRemote(const ServiceInfo& info);
  Object<Empty> cacheRemote(const ServiceInfo& info, const ConnectionPointer& connection,
                            const Object<Empty>& object);

  /// The sessions of this process that use the same directory, this one included.
  std::vector<std::shared_ptr<Private>> neighbours() const;
  std::vector<ServiceInfo> localInfos() const;
  Object<Empty> findLocal(const std::string& name) const;

  const std::string id_;
  const std::shared_ptr<Peers> peers_;
  LocalServices local_;

  struct Remote {
    unsigned serviceId;
    std::uint64_t connectionId;
    Object<Empty> object;
  };

  mutable std::mutex mutex_;  // guards what follows
  State state_ = State::Idle;
  Url url_;
  std::string directoryId_;  // the session that has the directory
  Object<Empty> directory_;
  std::uint64_t directoryConnection_ = 0;
  std::shared_ptr<directory::ServiceDirectory> ownDirectory_;  // of a master
  std::vector<std::shared_ptr<rpc::Acceptor>> acceptors_;
  std::map<std::string, Remote> remotes_;  // by name
};

}  // namespace gv
