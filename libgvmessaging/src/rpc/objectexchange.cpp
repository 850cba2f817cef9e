#include "src/rpc/objectexchange.h"

#include <stdexcept>
#include <tuple>
#include <utility>

#include "src/rpc/connection.h"
#include "src/rpc/frameworkmethods.h"
#include "src/rpc/peerlog.h"
#include "src/rpc/recentdescriptions.h"
#include "src/rpc/releasedelsewhere.h"
#include "src/rpc/remoteobject.h"
#include "src/wire/valuereader.h"

namespace gv::rpc {
namespace {

constexpr const char* category = "gvmessaging.objects";

}  // namespace

ObjectExchange::ObjectExchange(Connection& connection, std::weak_ptr<ServiceHost> host,
                               const wire::Limits& limits)
    : connection_(connection),
      host_(std::move(host)),
      limits_(limits),
      lent_(limits.lentObjects),
      borrowed_(limits.lentObjects) {}

Object<Empty> ObjectExchange::find(const ObjectAddress& address) const {
  if (address.service == 0) return lent_.find(address.object);
  const auto host = host_.lock();
  return host && address.object == 0 ? host->findService(address.service) : Object<Empty>();
}

void ObjectExchange::end() {
  releasedElsewhere(lent_.end());
}

// ---- Objects of this process

void ObjectExchange::Sending::takeBack() {
  for (const unsigned number : std::exchange(lent_, {})) exchange_.takeBack(number, 1);
}

wire::PassedObject ObjectExchange::Sending::pass(const Object<Empty>& object) {
  const Object<RemoteObject> remote(object);
  if (remote && &remote->connection() == &exchange_.connection_)
    return {true, remote->address().service, remote->address().object, {}};
  lent_.reserve(lent_.size() + 1);
  const unsigned number = exchange_.lent_.lend(object);
  lent_.push_back(number);
  return {false, 0, number, describeMetaObject(object.metaObject())};
}

void ObjectExchange::takeBack(unsigned number, std::uint64_t count) {
  Object<Empty> last;
  const bool wasLent = lent_.takeBack(number, count, last);
  if (last) releasedElsewhere(std::move(last));
  if (!wasLent)
    logOfPeer(log::Level::Verbose, category, "release", connection_.peerAddress(), [&] {
      return "ignoring that " + connection_.peerName() + " gives back object " +
             std::to_string(number) + " more often than it was lent";
    });
}

void ObjectExchange::onRelease(const wire::Frame& frame) {
  std::tuple<unsigned> arguments;
  try {
    wire::readValue(frame, AnyReference::from(arguments), limits_);
  } catch (const wire::PayloadError& error) {
    logOfPeer(log::Level::Verbose, category, "release", connection_.peerAddress(), [&] {
      return "ignoring a release of " + connection_.peerName() + ": " + error.what();
    });
    return;
  }
  takeBack(frame.header.object, std::get<0>(arguments));
}

// ---- Objects of the peer's

ObjectExchange::Receiving::~Receiving() {
  if (!isRead_) exchange_.giveBack(payload_, received_);
}

Object<Empty> ObjectExchange::Receiving::receive(const wire::PassedObject& passed) {
  Object<Empty> object;
  if (passed.isReceivers) {
    object = exchange_.find({passed.service, passed.number});
    if (!object) throw std::runtime_error("it names an object that is not here (any more)");
  } else {
    object = exchange_.borrow(passed);
  }
  ++received_;
  return object;
}

Object<Empty> ObjectExchange::borrow(const wire::PassedObject& passed) {
  if (passed.number == 0) throw std::runtime_error("it has an object without a number");
  return borrowed_.receive(passed.number, [&] {
    return RemoteObject::make(connection_.shared_from_this(), {0, passed.number},
                              makeSharedMetaObject(passed.description));
  });
}

void ObjectExchange::onUnused(unsigned number, const RemoteObject* object) {
  if (const unsigned count = borrowed_.forget(number, object)) release(number, count);
}

void ObjectExchange::giveBack(std::span<const char> payload, std::size_t received) {
  try {
    wire::forEachObject(payload, limits_, [&](const wire::PassedObject& passed) {
      if (received > 0)
        --received;
      else if (!passed.isReceivers)
        release(passed.number, 1);
    });
  } catch (const std::exception&) {
    // No more of a payload that is malformed can be found.
  }
}

void ObjectExchange::release(unsigned number, unsigned count) {
  try {
    connection_.post({0, number}, releaseMethod(), makeParameters(count));
  } catch (const std::exception&) {
    // The connection has ended, and all lendings with it.
  }
}

}  // namespace gv::rpc
