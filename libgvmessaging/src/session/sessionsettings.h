#pragma once

#include <chrono>

#include <boost/shared_ptr.hpp>

#include <gvmessaging/api.h>

namespace gv {

class Session;

/// How long a session waits for its directory. Programs live with what stands here.
struct SessionSettings {
  std::chrono::milliseconds connectTime{10'000};  ///< To join, in all.
  std::chrono::milliseconds withdrawTime{5'000};  ///< For the answer to unregisterService.

  GVMESSAGING_API boost::shared_ptr<Session> makeSession() const;
};

}  // namespace gv
