#include "recordingproxy.h"

#include <poll.h>

#include <stdexcept>
#include <system_error>

namespace processes {

RecordingProxy::RecordingProxy(int serverPort)
    : recording_(
          std::async(std::launch::async, [this, serverPort] { return record(serverPort); })) {}

Recording RecordingProxy::record(int serverPort) {
  house::RawPeer client = listener_.accept();
  house::RawPeer server = house::RawPeer::connectTo(serverPort);
  Recording recording;
  const auto passOn = [](house::RawPeer& from, house::RawPeer& to, std::string& record) {
    std::string bytes;
    try {
      bytes = from.receive();
    } catch (const std::system_error&) {  // a reset is an end, too
    }
    record += bytes;
    to.send(bytes);
    return !bytes.empty();
  };
  for (bool isOpen = true; isOpen;) {
    constexpr int guardMs = 20'000;
    pollfd both[2] = {{client.descriptor(), POLLIN, 0}, {server.descriptor(), POLLIN, 0}};
    if (::poll(both, 2, guardMs) <= 0) throw std::runtime_error("nobody says anything any more");
    if (both[0].revents != 0) isOpen = passOn(client, server, recording.toServer);
    if (both[1].revents != 0) isOpen = passOn(server, client, recording.toClient) && isOpen;
  }
  return recording;
}

}  // namespace processes
