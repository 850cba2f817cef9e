#include "src/directory/directorytable.h"

#include <limits>
#include <stdexcept>

#include <gv/os.h>
#include <gvtype/metaobject.h>

#include "src/directory/endpoints.h"
#include "src/rpc/peerlog.h"

namespace gv::directory {
namespace {

constexpr std::size_t mostEntries = 20'000;  // of one connection
constexpr std::size_t mostEndpoints = 64;
constexpr std::size_t longestEndpoint = 300;

/// Those of the announced endpoints that the registrant can have.
std::vector<Url> believed(const Registrant& who, const std::vector<std::string>& announced) {
  if (announced.size() > mostEndpoints)
    throw std::runtime_error("more than " + std::to_string(mostEndpoints) + " endpoints");
  const std::vector<std::string> ownHosts = os::hostAddresses();
  std::vector<Url> endpoints;
  for (const std::string& text : announced) {
    const Url url(text);
    if (text.size() > longestEndpoint || !url.isValid())
      throw std::runtime_error("an announced endpoint is no address");
    if (who.connectionId == 0 || canHave(who.address, url.host(), ownHosts))
      endpoints.push_back(url);
    else
      rpc::logOfPeer(log::Level::Info, "gvmessaging.directory", "announceEndpoints", who.address,
                     [&] {
                       return "leaving out the endpoint " + url.str() + ", which a peer at " +
                              who.address + " announced and cannot be shown to have";
                     });
  }
  return endpoints;
}

}  // namespace

DirectoryTable::DirectoryTable(const Registrant& own) {
  Owner& owner = ownerLocked(own);
  const auto self = entries_.emplace(directoryServiceId, Entry{directoryName, &owner, true}).first;
  byName_.emplace(directoryName, self);
}

unsigned DirectoryTable::reserve(const Registrant& who, const std::string& name) {
  if (!isValidName(name))
    throw std::runtime_error("a service cannot have the name '" + name +
                             "': names have 1 to 255 bytes, no control characters, no '/', no '(' "
                             "and do not start with a blank");
  const std::lock_guard lock(mutex_);
  if (const auto taken = byName_.find(name); taken != byName_.end())
    throw std::runtime_error("a service '" + name + "' is registered already, by process " +
                             std::to_string(taken->second->second.owner->who.processId));
  Owner& owner = ownerLocked(who);
  if (owner.services.size() >= mostEntries || lastId_ == std::numeric_limits<unsigned>::max())
    throw std::runtime_error("too many services are registered");
  const unsigned id = ++lastId_;
  owner.services.insert(id);
  byName_.emplace(name, entries_.emplace(id, Entry{name, &owner, false}).first);
  return id;
}

void DirectoryTable::makeReady(const Registrant& who, unsigned id) {
  {
    const std::lock_guard lock(mutex_);
    Entry& entry = ownEntryLocked(who, id)->second;
    if (!entry.isReady) notices_->push({true, id, entry.name});
    entry.isReady = true;
  }
  notices_->flush();
}

void DirectoryTable::withdraw(const Registrant& who, unsigned id) {
  {
    const std::lock_guard lock(mutex_);
    const auto entry = ownEntryLocked(who, id);
    entry->second.owner->services.erase(id);
    eraseLocked(entry);
  }
  notices_->flush();
}

void DirectoryTable::announce(const Registrant& who, const std::vector<std::string>& endpoints) {
  std::vector<Url> urls = believed(who, endpoints);
  const std::lock_guard lock(mutex_);
  ownerLocked(who).endpoints = std::move(urls);
}

void DirectoryTable::connectionLost(std::uint64_t connectionId) {
  {
    const std::lock_guard lock(mutex_);
    const auto found = owners_.find(connectionId);
    if (found == owners_.end()) return;
    for (const unsigned id : found->second.services) eraseLocked(entries_.find(id));
    ownersBySession_.erase(found->second.who.sessionId);
    owners_.erase(found);
  }
  notices_->flush();
}

ServiceInfo DirectoryTable::find(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = byName_.find(name);
  if (found == byName_.end() || !found->second->second.isReady)
    throw std::runtime_error("there is no service '" + name + "'");
  return infoOf(*found->second);
}

std::vector<ServiceInfo> DirectoryTable::list() const {
  std::vector<ServiceInfo> list;
  const std::lock_guard lock(mutex_);
  for (const auto& entry : entries_)
    if (entry.second.isReady) list.push_back(infoOf(entry));
  return list;
}

void DirectoryTable::watch(Watcher watcher) {
  notices_->add(std::move(watcher));
}

ServiceInfo DirectoryTable::infoOf(const Entries::value_type& entry) {
  const auto& [id, what] = entry;
  const Registrant& who = what.owner->who;
  return {what.name, id, who.machineId, who.processId, who.sessionId, what.owner->endpoints};
}

DirectoryTable::Owner& DirectoryTable::ownerLocked(const Registrant& who) {
  const auto claimed = ownersBySession_.emplace(who.sessionId, who.connectionId);
  if (claimed.first->second != who.connectionId)
    throw std::runtime_error("the session " + who.sessionId +
                             " is connected to the directory already");
  return owners_.try_emplace(who.connectionId, Owner{who, {}, {}}).first->second;
}

DirectoryTable::Entries::iterator DirectoryTable::ownEntryLocked(const Registrant& who,
                                                                 unsigned id) {
  const auto found = entries_.find(id);
  if (found == entries_.end())
    throw std::runtime_error("there is no service with id " + std::to_string(id));
  if (found->second.owner->who.connectionId != who.connectionId || id == directoryServiceId)
    throw std::runtime_error("the service with id " + std::to_string(id) +
                             " was registered by somebody else");
  return found;
}

void DirectoryTable::eraseLocked(Entries::iterator entry) {
  if (entry->second.isReady) notices_->push({false, entry->first, entry->second.name});
  byName_.erase(entry->second.name);
  entries_.erase(entry);
}

}  // namespace gv::directory
