#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <gvmessaging/serviceinfo.h>
#include <gvtype/object.h>

namespace gv {

/// The objects that a session offers. Callable from any thread.
class LocalServices {
 public:
  /// Makes a service callable by its id; findByName and infos do not show it yet.
  void add(const ServiceInfo& info, const Object<Empty>& object);
  /// Makes it visible. False when it has been removed meanwhile.
  bool show(unsigned id);
  /// The object that was removed, invalid when there was none.
  Object<Empty> remove(unsigned id);
  void clear();

  Object<Empty> find(unsigned id) const;
  Object<Empty> findByName(const std::string& name) const;
  std::vector<ServiceInfo> infos() const;

 private:
  struct Entry {
    ServiceInfo info;
    Object<Empty> object;
    bool isVisible = false;
  };

  mutable std::mutex mutex_;  // guards entries_
  std::map<unsigned, Entry> entries_;
};

}  // namespace gv
