#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include <gvmessaging/serviceinfo.h>

namespace gv::directory {

/// A ServiceInfo as it crosses between processes: name, id, machine, process, session, endpoints.
using ServiceEntry = std::tuple<std::string, std::uint32_t, std::string, std::uint32_t, std::string,
                                std::vector<std::string>>;

inline ServiceEntry toEntry(const ServiceInfo& info) {
  std::vector<std::string> endpoints;
  for (const Url& url : info.endpoints()) endpoints.push_back(url.str());
  return {info.name(),      info.serviceId(), info.machineId(),
          info.processId(), info.sessionId(), std::move(endpoints)};
}

/// Endpoints that are no addresses are left out.
inline ServiceInfo toInfo(const ServiceEntry& entry) {
  const auto& [name, id, machine, process, session, texts] = entry;
  std::vector<Url> endpoints;
  for (const std::string& text : texts)
    if (Url url(text); url.isValid()) endpoints.push_back(std::move(url));
  return {name, id, machine, process, session, std::move(endpoints)};
}

}  // namespace gv::directory
