#include "src/directory/servicedirectory.h"

#include <limits>
#include <stdexcept>

#include <boost/make_shared.hpp>

#include <gvtype/dynamicobjectbuilder.h>

#include "src/rpc/callcontext.h"
#include "src/rpc/handshake.h"

namespace gv::directory {
namespace {

constexpr std::size_t mostEntries = 20'000;  // of one connection
constexpr std::size_t mostEndpoints = 64;
constexpr std::size_t longestEndpoint = 300;

std::uint64_t callingConnection() {
  return rpc::CallContext::current().connectionId;
}

/// The service as it is registered: of a connection, what its handshake said counts.
ServiceInfo stamped(const ServiceInfo& asked, unsigned id) {
  if (const rpc::Greeting* peer = rpc::CallContext::current().peer)
    return {asked.name(), id, peer->machineId, peer->processId, peer->sessionId, {}};
  return {asked.name(), id, asked.machineId(), asked.processId(), asked.sessionId(), {}};
}

}  // namespace

std::shared_ptr<ServiceDirectory> ServiceDirectory::make(const ServiceInfo& self) {
  return std::shared_ptr<ServiceDirectory>(new ServiceDirectory(self));
}

ServiceDirectory::ServiceDirectory(const ServiceInfo& self) {
  entries_.emplace(directoryServiceId, Entry{self, 0, true});
  idsByName_.emplace(directoryName, directoryServiceId);
}

Object<Empty> ServiceDirectory::object() {
  const auto self = shared_from_this();
  DynamicObjectBuilder builder;
  builder.setDescription("Knows the services of the network and where they are.");
  builder.advertiseMethod("service",
                          [self](const std::string& name) { return self->service(name); });
  builder.advertiseMethod("services", [self] { return self->services(); });
  builder.advertiseMethod("registerService", [self](const ServiceEntry& entry) {
    return self->registerService(entry);
  });
  builder.advertiseMethod("serviceReady", [self](unsigned id) { self->serviceReady(id); });
  builder.advertiseMethod("unregisterService",
                          [self](unsigned id) { self->unregisterService(id); });
  builder.advertiseMethod("announceEndpoints", [self](const std::vector<std::string>& endpoints) {
    self->announceEndpoints(endpoints);
  });
  return builder.object();
}

ServiceEntry ServiceDirectory::service(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = idsByName_.find(name);
  if (found == idsByName_.end() || !entries_.at(found->second).isReady)
    throw std::runtime_error("there is no service '" + name + "'");
  return toEntryLocked(entries_.at(found->second));
}

std::vector<ServiceEntry> ServiceDirectory::services() const {
  const std::lock_guard lock(mutex_);
  std::vector<ServiceEntry> list;
  for (const auto& [id, entry] : entries_)
    if (entry.isReady) list.push_back(toEntryLocked(entry));
  return list;
}

unsigned ServiceDirectory::registerService(const ServiceEntry& entry) {
  const ServiceInfo asked = toInfo(entry);
  if (!isValidName(asked.name()))
    throw std::runtime_error("a service cannot have the name '" + asked.name() +
                             "': names have 1 to 255 bytes, no control characters, no '/', no '(' "
                             "and do not start with a blank");
  const std::uint64_t owner = callingConnection();
  const std::lock_guard lock(mutex_);
  if (const auto taken = idsByName_.find(asked.name()); taken != idsByName_.end())
    throw std::runtime_error("a service '" + asked.name() + "' is registered already, by process " +
                             std::to_string(entries_.at(taken->second).info.processId()));
  std::size_t& count = counts_[owner];
  if (count >= mostEntries || lastId_ == std::numeric_limits<unsigned>::max())
    throw std::runtime_error("too many services are registered");
  ++count;
  const unsigned id = ++lastId_;
  entries_.emplace(id, Entry{stamped(asked, id), owner, false});
  idsByName_.emplace(asked.name(), id);
  return id;
}

void ServiceDirectory::serviceReady(unsigned id) {
  const std::lock_guard lock(mutex_);
  ownEntryLocked(id).isReady = true;
}

void ServiceDirectory::unregisterService(unsigned id) {
  const std::lock_guard lock(mutex_);
  ownEntryLocked(id);
  eraseLocked(entries_.find(id));
}

void ServiceDirectory::announceEndpoints(const std::vector<std::string>& endpoints) {
  if (endpoints.size() > mostEndpoints)
    throw std::runtime_error("more than " + std::to_string(mostEndpoints) + " endpoints");
  for (const std::string& endpoint : endpoints)
    if (endpoint.size() > longestEndpoint || !Url(endpoint).isValid())
      throw std::runtime_error("an announced endpoint is no address");
  const std::lock_guard lock(mutex_);
  endpoints_[callingConnection()] = endpoints;
}

void ServiceDirectory::connectionLost(std::uint64_t connectionId) {
  const std::lock_guard lock(mutex_);
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    const auto next = std::next(entry);
    if (entry->second.owner == connectionId) eraseLocked(entry);
    entry = next;
  }
  endpoints_.erase(connectionId);
  counts_.erase(connectionId);
}

ServiceEntry ServiceDirectory::toEntryLocked(const Entry& entry) const {
  ServiceEntry result = toEntry(entry.info);
  if (const auto found = endpoints_.find(entry.owner); found != endpoints_.end())
    std::get<5>(result) = found->second;
  return result;
}

ServiceDirectory::Entry& ServiceDirectory::ownEntryLocked(unsigned id) {
  const auto found = entries_.find(id);
  if (found == entries_.end())
    throw std::runtime_error("there is no service with id " + std::to_string(id));
  if (found->second.owner != callingConnection() || id == directoryServiceId)
    throw std::runtime_error("the service with id " + std::to_string(id) +
                             " was registered by somebody else");
  return found->second;
}

void ServiceDirectory::eraseLocked(std::map<unsigned, Entry>::iterator entry) {
  idsByName_.erase(entry->second.info.name());
  if (const auto count = counts_.find(entry->second.owner); count != counts_.end()) --count->second;
  entries_.erase(entry);
}

}  // namespace gv::directory
