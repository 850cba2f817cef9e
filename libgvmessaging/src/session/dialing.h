#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gv/future.h>
#include <gvmessaging/url.h>

#include "src/net/connector.h"
#include "src/net/timer.h"
#include "src/rpc/connection.h"

namespace gv {

/// Reaching one peer over any of several addresses: when one has failed or `stagger` is over the
/// next is tried beside it, each within a bound. The first connection that opens wins and the
/// others are closed. So black holes delay, but by less than 2 s in all.
class Dialing : public std::enable_shared_from_this<Dialing> {
 public:
  using ConnectionPointer = std::shared_ptr<rpc::Connection>;
  /// Begins the handshake over a stream to the URL that was asked for, and tells of one of both:
  /// `opened` answers whether the connection is to be kept. Where it throws, the address failed.
  using Opened = std::function<bool(const ConnectionPointer&)>;
  using Failed = std::function<void(const std::string& cause)>;
  using Starter = std::function<ConnectionPointer(std::shared_ptr<net::Stream>, const Url& asked,
                                                  Opened, Failed)>;

  static constexpr std::chrono::milliseconds stagger{250};
  static constexpr std::size_t mostAddresses = 8;  // the rest is not tried

  /// `bound` is that of each address to connect.
  Dialing(std::vector<Url> urls, std::chrono::milliseconds bound, Starter starter)
      : bound_(bound), starter_(std::move(starter)), asked_(std::move(urls)) {}

  /// Begins, once. A name among the hosts is resolved first, on the event loop.
  void start();
  /// Ends what is under way; the future fails with `cause` unless it had ended. Any thread.
  void cancel(const std::string& cause);
  /// The connection, open; or an error that names each address with its cause.
  Future<ConnectionPointer> future() const { return promise_.future(); }

 private:
  /// One address under way: being connected, then in its handshake.
  struct Try {
    std::shared_ptr<net::Connector> connector;
    std::weak_ptr<rpc::Connection> connection;
  };
  using Tries = std::map<std::size_t, Try>;
  struct Address {
    Url url;  // its host in numbers
    Url asked;
  };

  void resolve();
  void tryNext();
  void onStream(std::size_t number, net::ConnectResult result);
  ConnectionPointer shakeHands(std::size_t number, std::shared_ptr<net::Stream> stream,
                               const Url& asked);
  bool onOpened(std::size_t number, const ConnectionPointer& connection);
  void onFailed(std::size_t number, const std::string& cause);
  bool settle(Tries& abandoned);
  static void abandon(const Tries& tries, const std::string& cause);

  const std::chrono::milliseconds bound_;
  const Starter starter_;
  const std::vector<Url> asked_;
  const Promise<ConnectionPointer> promise_;

  std::mutex mutex_;        // guards what follows
  bool isSettled_ = false;  // who sets it settles the promise
  std::vector<Address> addresses_;
  std::size_t next_ = 0;  // of addresses_
  Tries tries_;           // by their place in addresses_
  std::string causes_;
  std::shared_ptr<net::Timer> timer_;
};

}  // namespace gv
