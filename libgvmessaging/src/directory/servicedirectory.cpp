#include "src/directory/servicedirectory.h"

#include <stdexcept>

#include <boost/make_shared.hpp>

#include <gvtype/dynamicobjectbuilder.h>

#include "src/rpc/callcontext.h"

namespace gv::directory {
namespace {

std::uint64_t callingConnection() {
  return rpc::CallContext::current().connectionId;
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
  return toEntry(entries_.at(found->second).info);
}

std::vector<ServiceEntry> ServiceDirectory::services() const {
  const std::lock_guard lock(mutex_);
  std::vector<ServiceEntry> list;
  for (const auto& [id, entry] : entries_)
    if (entry.isReady) list.push_back(toEntry(entry.info));
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
  const unsigned id = ++lastId_;
  entries_.emplace(id, Entry{ServiceInfo(asked.name(), id, asked.machineId(), asked.processId(),
                                         asked.sessionId(), asked.endpoints()),
                             owner, false});
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
  const std::uint64_t owner = callingConnection();
  const std::lock_guard lock(mutex_);
  for (auto& [id, entry] : entries_) {
    if (entry.owner != owner) continue;
    ServiceEntry changed = toEntry(entry.info);
    std::get<5>(changed) = endpoints;
    entry.info = toInfo(changed);
  }
}

void ServiceDirectory::connectionLost(std::uint64_t connectionId) {
  const std::lock_guard lock(mutex_);
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    const auto next = std::next(entry);
    if (entry->second.owner == connectionId) eraseLocked(entry);
    entry = next;
  }
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
  entries_.erase(entry);
}

}  // namespace gv::directory
