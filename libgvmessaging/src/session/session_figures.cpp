// The part of a session that tells what it is at.

#include <algorithm>
#include <unordered_map>
#include <utility>

#include <gv/eventloop.h>
#include <gv/os.h>

#include "src/rpc/frameworkmethods.h"
#include "src/rpc/releasedelsewhere.h"
#include "src/session/session_p.h"

namespace gv {
namespace {

// About a megabyte in all, whatever names and ids peers chose: of 255 bytes each.
constexpr std::size_t mostListed = 1000;

/// A call, and the connection it is on.
struct ListedCall {
  rpc::CallRecord record;
  const rpc::Connection* connection;
};

EventLoopFigures eventLoopFigures() {
  const EventLoop::Figures figures = getEventLoop()->figures();
  return {figures.threads,    figures.blocked,
          figures.maxThreads, figures.queued,
          figures.delayed,    static_cast<std::uint64_t>(figures.longestWait.count())};
}

template <std::size_t Size>
std::string hexOf(const std::array<std::uint8_t, Size>& bytes) {
  constexpr const char* digits = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : bytes) (text += digits[byte >> 4]) += digits[byte & 15];
  return text;
}

CallFigures figuresOf(const ListedCall& listed) {
  const rpc::CallRecord& call = listed.record;
  CallFigures figures;
  figures.connection = listed.connection->id();
  figures.isServed = call.isServed;
  figures.isPost = call.isPost;
  figures.message = call.message;
  figures.parent = call.parent;
  figures.parentConnection = call.parentConnection;
  figures.trace = hexOf(call.trace);
  figures.service = call.address.service;
  figures.object = call.address.object;
  figures.member = call.member;
  figures.age = static_cast<std::uint64_t>(rpc::coarseMilliseconds() - call.begin);
  return figures;
}

std::string memberName(const Object<Empty>& object, unsigned member) {
  if (member == rpc::subscribeId) return rpc::subscribeMethod().name();
  const MetaMethod* method = object ? object.metaObject().method(member) : nullptr;
  return method ? method->name() : "";
}

/// All calls of a connection, counted in its figures.
ConnectionFigures listConnection(const rpc::Connection& connection,
                                 std::vector<ListedCall>& listed) {
  ConnectionFigures figures = connection.figures();
  std::vector<rpc::CallRecord> calls;
  connection.listCalls(calls);
  for (const rpc::CallRecord& call : calls) {
    ++(call.isServed ? figures.served : figures.made);
    listed.push_back({call, &connection});
  }
  return figures;
}

void keepOldest(std::vector<ListedCall>& listed) {
  const std::size_t kept = std::min(listed.size(), mostListed);
  std::partial_sort(
      listed.begin(), listed.begin() + static_cast<std::ptrdiff_t>(kept), listed.end(),
      [](const ListedCall& a, const ListedCall& b) { return a.record.begin < b.record.begin; });
  listed.resize(kept);
}

}  // namespace

/// The services elsewhere that this session uses, by their ids.
std::unordered_map<unsigned, Session::Private::UsedService> Session::Private::usedServices() const {
  std::unordered_map<unsigned, UsedService> used;
  const std::lock_guard lock(mutex_);
  for (const auto& [name, remote] : remotes_) used[remote.serviceId] = {name, remote.object};
  used[directory::directoryServiceId] = {directory::directoryName, directory_};
  return used;
}

Figures Session::Private::figures() const {
  Figures figures;
  figures.session = id_;
  figures.process = os::processId();
  figures.eventLoop = eventLoopFigures();
  const auto connections = peers_->open();
  figures.connectionCount = connections.size();
  std::vector<ListedCall> calls;
  for (const ConnectionPointer& connection : connections) {
    const ConnectionFigures one = listConnection(*connection, calls);
    if (figures.connections.size() < mostListed) figures.connections.push_back(one);
  }
  figures.callCount = calls.size();
  keepOldest(calls);

  // Any of these handles may be an object's last one.
  const auto used = rpc::releasedElsewhere(usedServices());
  const auto objects = rpc::releasedElsewhere(std::vector<Object<Empty>>());
  const auto local = localServices();
  for (const ListedCall& listed : calls) {
    CallFigures& call = figures.calls.emplace_back(figuresOf(listed));
    const auto service = used->find(call.service);
    Object<Empty> object = listed.connection->objectOf(listed.record);
    if (service != used->end()) {
      call.serviceName = service->second.name;
      if (!object) object = service->second.object;
    } else if (local) {
      call.serviceName = local->nameOf(call.service);
    }
    call.memberName = memberName(object, call.member);
    objects->push_back(std::move(object));
  }
  return figures;
}

}  // namespace gv
