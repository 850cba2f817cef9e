// A peer that has finished the handshake may send any bytes to a process that serves an object and
// the directory: every call is answered once, and what it registered goes with its connection.

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gv/log.h>
#include <gvtype/dynamicobjectbuilder.h>

#include "law.h"
#include "src/directory/directoryobject.h"
#include "src/directory/directorytable.h"
#include "tests/memorypeer.h"

namespace {

using gv::wire::FrameType;

constexpr unsigned objectId = 7;

gv::Object<gv::Empty> makeObject() {
  using Points = std::map<std::string, std::tuple<int, double>>;
  gv::DynamicObjectBuilder builder;
  builder.advertiseMethod("echo", [](const gv::AnyValue& value) { return value; });
  builder.advertiseMethod("add", [](int a, double b) { return a + b; });
  builder.advertiseMethod("points", [](const Points& points) { return points; });
  builder.advertiseMethod("all", [](const gv::AnyArguments& all) { return all.args; });
  builder.advertiseMethod("fail", [](const std::string& text) { throw std::runtime_error(text); });
  builder.advertiseProperty<int>("precision", 5);
  builder.advertiseProperty<gv::AnyValue>("anything", gv::AnyValue());
  return builder.object();
}

/// Frames made of a few bytes each, so that more of them say something: type, service, member,
/// size of the payload, payload.
std::string framesFrom(std::string_view bytes) {
  constexpr std::array types = {FrameType::Call, FrameType::Post, FrameType::Call, FrameType::Reply,
                                FrameType::Error};
  constexpr std::array services = {gv::directory::directoryServiceId, objectId, 2u, 0xffffffffu};
  const auto at = [](std::string_view text, std::size_t i) {
    return static_cast<std::uint8_t>(text[i]);
  };
  std::string frames;
  while (bytes.size() >= 4) {
    gv::wire::FrameHeader header;
    header.type = types[at(bytes, 0) % types.size()];
    if (header.type == FrameType::Call)
      header.callType = static_cast<gv::wire::CallType>(at(bytes, 0) / types.size() % 3);
    header.messageId = at(bytes, 0) / 32 + 1;
    header.service = services[at(bytes, 1) % services.size()];
    header.object = at(bytes, 1) / 128;
    header.member = at(bytes, 2);
    const std::size_t size = std::min<std::size_t>(at(bytes, 3), bytes.size() - 4);
    frames += gv::frameText(header, bytes.substr(4, size));
    bytes.remove_prefix(4 + size);
  }
  return frames;
}

/// The ids of the frames of some types, sorted; of those before the first error.
std::vector<std::uint64_t> idsIn(std::string_view bytes, std::vector<FrameType> types) {
  std::vector<std::uint64_t> ids;
  gv::wire::FrameReader reader(gv::wire::Limits().payload);
  while (!bytes.empty() && reader.error().empty()) {
    const std::span<char> space = reader.space();
    const std::size_t count = std::min(space.size(), bytes.size());
    std::copy_n(bytes.begin(), count, space.begin());
    reader.fill(count);
    bytes.remove_prefix(count);
    for (gv::wire::Frame frame; reader.next(frame);)
      if (std::find(types.begin(), types.end(), frame.header.type) != types.end())
        ids.push_back(frame.header.messageId);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gv::log::setLevel(gv::log::Level::Silent);  // dropped posts are told of, a record each
  return 0;
}

// The first byte says how the rest is split, and whether it is made into frames first.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data + 1), size - 1);
  const std::string bytes = (data[0] & 1) != 0 ? framesFrom(input) : std::string(input);
  gv::rpc::Greeting own;
  own.sessionId = "fuzz";
  const auto directory =
      std::make_shared<gv::directory::DirectoryTable>(gv::directory::Registrant());
  const gv::Object<gv::Empty> services = gv::directory::makeDirectoryObject(directory, {});
  gv::MemoryPeer peer(gv::rpc::Role::Server, own,
                      {{gv::directory::directoryServiceId, services}, {objectId, makeObject()}});
  peer.tell(gv::greetingFrame(FrameType::Hello, own));
  peer.hear();
  peer.tell(bytes, 1 + (data[0] >> 1) * 8);
  if (peer.causes.empty()) {
    const auto calls = idsIn(bytes, {FrameType::Call});
    std::string answers;
    for (std::size_t i = 0; i < calls.size(); ++i) answers += peer.hear();
    answers += peer.heardSoFar();
    fuzz::require(idsIn(answers, {FrameType::Reply, FrameType::Error}) == calls,
                  "each call has one answer");
  }
  peer.close();
  fuzz::require(peer.causes.size() == 1, "a connection ends exactly once");
  directory->connectionLost(peer.connection->id());
  fuzz::require(services.call<std::vector<gv::AnyValue>>("services").size() == 1,
                "what a connection registered goes with it");
  return 0;
}
