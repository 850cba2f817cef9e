#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gvmessaging/api.h>
#include <gvmessaging/url.h>

namespace gv {

/// What the service directory tells of one service. A value.
class GVMESSAGING_API ServiceInfo {
 public:
  ServiceInfo() = default;
  ServiceInfo(std::string name, unsigned serviceId, std::string machineId, unsigned processId,
              std::string sessionId, std::vector<Url> endpoints)
      : name_(std::move(name)),
        serviceId_(serviceId),
        machineId_(std::move(machineId)),
        processId_(processId),
        sessionId_(std::move(sessionId)),
        endpoints_(std::move(endpoints)) {}

  const std::string& name() const { return name_; }
  /// Unique on its directory; ids rise and are never used again. 1 is the directory itself.
  unsigned serviceId() const { return serviceId_; }
  /// The machine and the process that host the service, as gv::os names them.
  const std::string& machineId() const { return machineId_; }
  unsigned processId() const { return processId_; }
  /// The session that registered it.
  const std::string& sessionId() const { return sessionId_; }
  /// Where that session listens; empty while it does not.
  const std::vector<Url>& endpoints() const { return endpoints_; }

  bool operator==(const ServiceInfo&) const = default;

 private:
  std::string name_;
  unsigned serviceId_ = 0;
  std::string machineId_;
  unsigned processId_ = 0;
  std::string sessionId_;
  std::vector<Url> endpoints_;
};

}  // namespace gv
