#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gv/future.h>
#include <gvmessaging/serviceinfo.h>
#include <gvmessaging/url.h>
#include <gvtype/object.h>

namespace gv {

struct SessionSettings;

/// A process's place in a network of services: it offers objects under names and finds those of
/// others. One session of a network listens with a service directory (listenStandalone); the others
/// connect to it and, to offer services of their own, listen for their peers.
///
/// Life: made unconnected; listenStandalone or connect gives it its directory, once; close ends it
/// for good. Make it with boost::make_shared<gv::Session>(). Destroying it closes it.
///
/// Every operation may be called from any thread, inside callbacks and methods too, and none
/// blocks: the returned futures settle on the framework's threads. A failed future carries a text
/// that names what was asked for and the cause. Its state is UserError where the directory or a
/// peer refused, NotSent where there was no directory to ask, ConnectionLost where it went before
/// it answered. A directory that has stopped is waited for without bound where nothing else is
/// said.
///
/// Sessions of one process that use the same directory hand each other the objects themselves;
/// those of different directories know nothing of each other.
class GVMESSAGING_API Session {
 public:
  enum class ServiceLocality { All, Local, Remote };

  Session();
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Starts a service directory in this session and listens on `url` ("tcp://host:port"; port 0
  /// asks the system for a free one). Settles when peers can connect. An error names the address
  /// and the system's reason; the session may try again then.
  Future<void> listenStandalone(const Url& url);
  /// Joins the directory at a URL. Settles when the directory has answered, in error after 10 s at
  /// the latest; the session may try again then. A name may stand for several addresses: they are
  /// tried beside each other, 250 ms apart.
  Future<void> connect(const std::string& url);
  /// Accepts direct connections of peers on `url`, as often as wanted. Settles from the socket
  /// alone: while the session is still connecting, its endpoints are announced when the connection
  /// stands.
  Future<void> listen(const Url& url);
  /// Withdraws everything: connections close, pending calls and whatever else this session was
  /// asked for fail, services disappear. Settles when that is done, within about a second, also
  /// where peers or the directory have stopped; bodies of methods that are running are not waited
  /// for. To close twice is no error; later operations fail.
  Future<void> close();

  /// Whether the session has its directory: listening with one, or connected to one. A session that
  /// has lost it still serves its peers and finds the services of its process, and cannot join
  /// another.
  bool isConnected() const;
  /// The address of the directory, host as given, port as bound. Throws std::runtime_error on a
  /// session that is neither listening nor connected.
  Url url() const;
  /// Where peers can reach this session: of 0.0.0.0 every usable address of the machine. Empty
  /// while it does not listen.
  std::vector<Url> endpoints() const;

  /// Offers an object under a name; the value is the service's id. When it settles, whoever sees
  /// the service can call it. Refused for a name outside the grammar (isValidName) or in use. The
  /// session keeps the object until it is unregistered.
  Future<unsigned> registerService(const std::string& name, Object<Empty> object);
  /// Withdraws a service of this session. No body of a call that came over a connection starts from
  /// the return on: calls that wait for their turn are refused, bodies that run finish with their
  /// object alive and are not waited for. Settles when the directory lists it no more; in error for
  /// an id that is none of this session's, and where the directory does not answer within 5 s, or
  /// at once where it has not since the last time.
  Future<void> unregisterService(unsigned serviceId);

  /// All: the directory's whole list, itself included, by rising id, in one round trip. Local: what
  /// this process registered on this directory, without the directory; settles before it returns
  /// and does not ask the directory. Remote: the rest.
  Future<std::vector<ServiceInfo>> services(ServiceLocality locality = ServiceLocality::All);

  /// The object of a service: itself where it is of this process, else a remote object, which this
  /// session keeps until the service or the connection has gone. `protocol` "local" looks in this
  /// process only, settles before it returns and never touches the network. A service that is not
  /// there is a UserError; one that was withdrawn before the look-up began is never found.
  ///
  /// A peer not connected yet is reached over its endpoints, loopback first on the same machine, 8
  /// at most, each within 2 s for connecting and for the handshake. To wait for a service: connect
  /// to the signal serviceAdded (id, name) of the service "ServiceDirectory", then look it up, then
  /// wait for the signal.
  Future<Object<Empty>> service(const std::string& name, const std::string& protocol = "");

 private:
  friend struct SessionSettings;  // makes sessions with other bounds
  explicit Session(const SessionSettings& settings);

  class Private;
  std::shared_ptr<Private> p_;
};

}  // namespace gv
