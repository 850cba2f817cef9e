#include "src/session/localservices.h"

#include <stdexcept>

namespace gv {

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
  return true;
}

Object<Empty> LocalServices::remove(unsigned id) {
  const std::lock_guard lock(mutex_);
  const auto removed = entries_.extract(id);
  return removed ? removed.mapped().object : Object<Empty>();
}

void LocalServices::clear() {
  std::map<unsigned, Entry> removed;
  const std::lock_guard lock(mutex_);
  removed.swap(entries_);
}

Object<Empty> LocalServices::find(unsigned id) const {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(id);
  return found == entries_.end() ? Object<Empty>() : found->second.object;
}

Object<Empty> LocalServices::findByName(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  for (const auto& [id, entry] : entries_)
    if (entry.isVisible && entry.info.name() == name) return entry.object;
  return {};
}

std::vector<ServiceInfo> LocalServices::infos() const {
  const std::lock_guard lock(mutex_);
  std::vector<ServiceInfo> list;
  for (const auto& [id, entry] : entries_)
    if (entry.isVisible) list.push_back(entry.info);
  return list;
}

}  // namespace gv
