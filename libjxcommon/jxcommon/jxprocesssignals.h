#pragma once

#include <functional>

#include <jxcommon/api.h>
#include <boost/function.hpp>
#include <boost/signals2/last_value.hpp>
#include <boost/signals2/signal.hpp>

namespace JX::detail {

/// Two signals that every module has for whoever holds it. The library connects and emits neither.
class JXCOMMON_API JXProcessSignals {
 public:
  using Signal = boost::signals2::signal<void(), boost::signals2::last_value<void>, int,
                                         std::less<int>, boost::function<void()>>;

  virtual ~JXProcessSignals();

  Signal firstSignal;
  Signal secondSignal;
};

}  // namespace JX::detail
