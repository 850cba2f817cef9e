#include "src/session/localservices.h"

namespace gv {

void LocalServices::add(const ServiceInfo& info, const Object<Empty>& object) {
  const std::lock_guard lock(mutex_);
  entries_.emplace(info.serviceId(), Entry{info, object});
}

bool LocalServices::show(unsigned id) {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(id);
  if (found == entries_.end()) return false;
  found->second.isVisible = true;
  return true;
}

bool LocalServices::remove(unsigned id) {
  // What was taken out dies after the unlock: an object's destructor is foreign code.
  std::map<unsigned, Entry>::node_type removed;
  const std::lock_guard lock(mutex_);
  removed = entries_.extract(id);
  return !removed.empty();
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
