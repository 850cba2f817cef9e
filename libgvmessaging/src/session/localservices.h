#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <gvmessaging/serviceinfo.h>
#include <gvtype/object.h>

namespace gv {

/// What the sessions of this process offer on one directory: the sessions of a network share it,
/// so that each finds the services of the others without the network. Callable from any thread.
class LocalServices {
 public:
  /// The services on the directory of a session, the same object for all who ask while one has it.
  static std::shared_ptr<LocalServices> on(const std::string& directoryId);

  /// Makes a service callable by its id; findByName and infos do not show it yet. `info` names the
  /// session that offers it.
  void add(const ServiceInfo& info, const Object<Empty>& object);
  /// Makes it visible. False when it has been removed meanwhile.
  bool show(unsigned id);
  /// Removes a service of a session: the object, invalid where it has no such service.
  Object<Empty> remove(const std::string& sessionId, unsigned id);
  void removeAll(const std::string& sessionId);
  /// Where a session listens from now on.
  void setEndpoints(const std::string& sessionId, std::vector<Url> endpoints);

  /// The object of a session's service, shown or not; invalid where there is none.
  Object<Empty> find(const std::string& sessionId, unsigned id) const;
  /// The name of a service of any session, shown or not; empty where there is none.
  std::string nameOf(unsigned id) const;
  Object<Empty> findByName(const std::string& name) const;
  /// By rising id.
  std::vector<ServiceInfo> infos() const;

 private:
  struct Entry {
    ServiceInfo info;  // but for the endpoints, which are the session's
    Object<Empty> object;
    bool isVisible = false;
  };

  mutable std::mutex mutex_;  // guards what follows
  std::unordered_map<unsigned, Entry> entries_;
  std::unordered_map<std::string, unsigned> byName_;   // the visible ones
  std::map<std::string, std::vector<Url>> endpoints_;  // by session
};

}  // namespace gv
