#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gvmessaging/api.h>
#include <gvtype/object.h>

#include "src/directory/serviceentry.h"

namespace gv::directory {

inline constexpr unsigned directoryServiceId = 1;
inline constexpr const char* directoryName = "ServiceDirectory";

/// The table of a network's services, published by its master as service 1. Callers use it through
/// object(), in this process and in others alike:
///
///     service(name) -> entry          registerService(entry) -> id    unregisterService(id)
///     services() -> entries           serviceReady(id)                announceEndpoints(texts)
///
/// Who registers is who the handshake said it is: what an entry says of machine, process and
/// session is believed of this process's own session only. A service is seen by others from
/// serviceReady on. Only the connection that registered an entry may change it; ids rise and are
/// never used again. None of the methods blocks.
class GVMESSAGING_API ServiceDirectory : public std::enable_shared_from_this<ServiceDirectory> {
 public:
  /// `self` is the entry of the directory itself.
  static std::shared_ptr<ServiceDirectory> make(const ServiceInfo& self);

  /// A handle on the directory as an object.
  Object<Empty> object();

  /// Withdraws all that a connection registered. To be called in the network's thread, where calls
  /// of that connection are served too: no registration of it can come later.
  void connectionLost(std::uint64_t connectionId);

 private:
  struct Entry {
    ServiceInfo info;     // but for the endpoints, which are the owner's
    std::uint64_t owner;  // the connection that registered it; 0: this process's own session
    bool isReady;
  };

  explicit ServiceDirectory(const ServiceInfo& self);

  ServiceEntry service(const std::string& name) const;
  std::vector<ServiceEntry> services() const;
  unsigned registerService(const ServiceEntry& entry);
  void serviceReady(unsigned id);
  void unregisterService(unsigned id);
  void announceEndpoints(const std::vector<std::string>& endpoints);

  ServiceEntry toEntryLocked(const Entry& entry) const;
  Entry& ownEntryLocked(unsigned id);
  void eraseLocked(std::map<unsigned, Entry>::iterator entry);

  mutable std::mutex mutex_;  // guards what follows
  std::map<unsigned, Entry> entries_;
  std::map<std::string, unsigned> idsByName_;
  std::map<std::uint64_t, std::vector<std::string>> endpoints_;  // by owner
  std::map<std::uint64_t, std::size_t> counts_;                  // of entries, by owner
  unsigned lastId_ = directoryServiceId;
};

}  // namespace gv::directory
