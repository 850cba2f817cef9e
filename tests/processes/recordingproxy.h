#pragma once

#include <future>
#include <string>

#include "support/rawpeer.h"

namespace processes {

/// What both sides of one connection sent.
struct Recording {
  std::string toServer;
  std::string toClient;
};

/// Stands between one client and a server on 127.0.0.1, passes on what they say and keeps it. A
/// thread of its own does that until the client has closed its connection.
class RecordingProxy {
 public:
  explicit RecordingProxy(int serverPort);

  /// Where the client connects to.
  int port() const { return listener_.port(); }
  /// Waits until the client has closed. Once only.
  Recording recording() { return recording_.get(); }

 private:
  Recording record(int serverPort);

  house::RawListener listener_;
  std::future<Recording> recording_;
};

}  // namespace processes
