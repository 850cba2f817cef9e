#include "recordingproxy.h"

#include <poll.h>

#include <stdexcept>

namespace processes {

RecordingProxy::RecordingProxy(int serverPort)
    : recording_(
          std::async(std::launch::async, [this, serverPort] { return record(serverPort); })) {}

Recording RecordingProxy::record(int serverPort) {
  HostilePeer client = listener_.accept();
  HostilePeer server = HostilePeer::connectTo(serverPort);
  Recording recording;
  for (;;) {
    constexpr int guardMs = 20'000;
    pollfd both[2] = {{client.descriptor(), POLLIN, 0}, {server.descriptor(), POLLIN, 0}};
    if (::poll(both, 2, guardMs) <= 0) throw std::runtime_error("nobody says anything any more");
    if (both[0].revents != 0) {
      const std::string bytes = client.receive();
      if (bytes.empty()) return recording;
      recording.toServer += bytes;
      server.send(bytes);
    }
    if (both[1].revents != 0) {
      const std::string bytes = server.receive();
      if (bytes.empty()) return recording;
      recording.toClient += bytes;
      client.send(bytes);
    }
  }
}

}  // namespace processes
