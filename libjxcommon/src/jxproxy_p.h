#pragma once

#include <string>

#include <jxcommon/fwd.h>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

namespace JX {

/// Constant once the proxy's constructor has returned.
class JXProxyPrivate {
 public:
  std::string moduleName;
  bool isLocal = false;
  boost::weak_ptr<JXBroker> broker;
};

}  // namespace JX
