#include "src/session/localservices.h"

#include <algorithm>
#include <stdexcept>

namespace gv {
namespace {

struct Networks {
  std::mutex mutex;  // guards the map
  std::map<std::string, std::weak_ptr<LocalServices>> byDirectory;
};

}  // namespace

std::shared_ptr<LocalServices> LocalServices::on(const std::string& directoryId) {
  static Networks& networks = *new Networks;  // sessions may go in static destruction
  const std::lock_guard lock(networks.mutex);
  std::erase_if(networks.byDirectory, [](const auto& entry) { return entry.second.expired(); });
  std::weak_ptr<LocalServices>& known = networks.byDirectory[directoryId];
  std::shared_ptr<LocalServices> services = known.lock();
  if (!services) known = services = std::make_shared<LocalServices>();
  return services;
}

void LocalServices::add(const ServiceInfo& info, const Object<Empty>& object) {
  const std::lock_guard lock(mutex_);
  if (!entries_.emplace(info.serviceId(), Entry{info, object}).second)
    throw std::runtime_error("there is a service with id " + std::to_string(info.serviceId()) +
                             " already");
}

bool LocalServices::show(unsigned id) {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(id);
  if (found == entries_.end()) return false;
  found->second.isVisible = true;
  byName_[found->second.info.name()] = id;
  return true;
}

Object<Empty> LocalServices::remove(const std::string& sessionId, unsigned id) {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(id);
  if (found == entries_.end() || found->second.info.sessionId() != sessionId) return {};
  const auto named = byName_.find(found->second.info.name());
  if (named != byName_.end() && named->second == id) byName_.erase(named);
  return entries_.extract(found).mapped().object;
}

void LocalServices::removeAll(const std::string& sessionId) {
  std::vector<Entry> removed;  // dies after the unlock
  const std::lock_guard lock(mutex_);
  endpoints_.erase(sessionId);
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    const auto next = std::next(entry);
    if (entry->second.info.sessionId() == sessionId)
      removed.push_back(std::move(entries_.extract(entry).mapped()));
    entry = next;
  }
  std::erase_if(byName_, [this](const auto& named) { return !entries_.contains(named.second); });
}

void LocalServices::setEndpoints(const std::string& sessionId, std::vector<Url> endpoints) {
  const std::lock_guard lock(mutex_);
  endpoints_[sessionId].swap(endpoints);
}

Object<Empty> LocalServices::find(const std::string& sessionId, unsigned id) const {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(id);
  const bool isOwn = found != entries_.end() && found->second.info.sessionId() == sessionId;
  return isOwn ? found->second.object : Object<Empty>();
}

std::string LocalServices::nameOf(unsigned id) const {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(id);
  return found == entries_.end() ? std::string() : found->second.info.name();
}

Object<Empty> LocalServices::findByName(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = byName_.find(name);
  return found == byName_.end() ? Object<Empty>() : entries_.at(found->second).object;
}

std::vector<ServiceInfo> LocalServices::infos() const {
  std::vector<ServiceInfo> list;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [name, id] : byName_) {
      const ServiceInfo& info = entries_.at(id).info;
      const auto listening = endpoints_.find(info.sessionId());
      list.emplace_back(info.name(), id, info.machineId(), info.processId(), info.sessionId(),
                        listening == endpoints_.end() ? std::vector<Url>() : listening->second);
    }
  }
  std::sort(list.begin(), list.end(), [](const ServiceInfo& a, const ServiceInfo& b) {
    return a.serviceId() < b.serviceId();
  });
  return list;
}

}  // namespace gv
