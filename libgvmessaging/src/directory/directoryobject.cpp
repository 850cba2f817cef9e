#include "src/directory/directoryobject.h"

#include <gvtype/dynamicobjectbuilder.h>
#include <gvtype/weakobject.h>

#include "src/directory/serviceentry.h"
#include "src/rpc/callcontext.h"
#include "src/rpc/connection.h"

namespace gv::directory {
namespace {

/// The directory as its callers see it, each in its own name.
struct Counter {
  const std::shared_ptr<Directory> directory;
  const Registrant own;

  Registrant caller() const {
    const rpc::Connection* connection = rpc::directoryCaller();
    if (!connection) return own;
    const rpc::Greeting& peer = connection->peer();
    return {connection->id(), peer.machineId, peer.processId, peer.sessionId,
            connection->peerAddress()};
  }

  unsigned reserve(const ServiceEntry& entry) const {
    const unsigned id = directory->reserve(caller(), std::get<0>(entry));
    dropIfLost();
    return id;
  }

  void announce(const std::vector<std::string>& endpoints) const {
    directory->announce(caller(), endpoints);
    dropIfLost();
  }

  /// The directory may have been told of the connection's end before this call reached it.
  void dropIfLost() const {
    const rpc::Connection* connection = rpc::directoryCaller();
    if (connection && !connection->isOpen()) directory->connectionLost(connection->id());
  }
};

}  // namespace

Object<Empty> makeDirectoryObject(const std::shared_ptr<Directory>& directory,
                                  const Registrant& own) {
  const Counter counter{directory, own};
  DynamicObjectBuilder builder;
  builder.setDescription("Knows the services of the network and where they are.");
  builder.advertiseMethod("service", [counter](const std::string& name) {
    return toEntry(counter.directory->find(name));
  });
  builder.advertiseMethod("services", [counter] {
    std::vector<ServiceEntry> entries;
    for (const ServiceInfo& info : counter.directory->list()) entries.push_back(toEntry(info));
    return entries;
  });
  builder.advertiseMethod("registerService",
                          [counter](const ServiceEntry& entry) { return counter.reserve(entry); });
  builder.advertiseMethod("serviceReady", [counter](unsigned id) {
    counter.directory->makeReady(counter.caller(), id);
  });
  builder.advertiseMethod("unregisterService", [counter](unsigned id) {
    counter.directory->withdraw(counter.caller(), id);
  });
  builder.advertiseMethod(
      "announceEndpoints",
      [counter](const std::vector<std::string>& endpoints) { counter.announce(endpoints); });
  builder.advertiseSignal<unsigned, std::string>("serviceAdded");
  builder.advertiseSignal<unsigned, std::string>("serviceRemoved");
  const Object<Empty> object = builder.object();
  directory->watch([weak = WeakObject<Empty>(object)](const Notice& notice) {
    if (const Object<Empty> alive = weak.lock())
      alive.emit(notice.isAdded ? "serviceAdded" : "serviceRemoved", notice.serviceId, notice.name);
  });
  return object;
}

}  // namespace gv::directory
