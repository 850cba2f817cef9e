#pragma once

#include <string>
#include <vector>

#include <gvmessaging/api.h>
#include <gvmessaging/url.h>

namespace gv::directory {

/// Whether a host is a loopback address, in numbers. A name never is.
GVMESSAGING_API bool isLoopback(const std::string& host);

/// Whether a peer whose connection came from the address `from` can be listening at `host`: at
/// that address; and, as it is on this machine, at each of `ownHosts` where it came from one of
/// them or from loopback. A name is refused: it could lead anywhere.
GVMESSAGING_API bool canHave(const std::string& from, const std::string& host,
                             const std::vector<std::string>& ownHosts);

}  // namespace gv::directory
