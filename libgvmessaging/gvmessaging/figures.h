#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gvtype/struct.h>

namespace gv {

// What a session tells of itself to who asks one of its objects over a connection, also while every
// thread of its process is blocked:
//
//     object.call<gv::Figures>("figures")
//     object.share()->call<gv::Figures>(static_cast<unsigned>(gv::BuiltinMethod::Figures))
//
// The second way is there also where the object has a method of its own of that name. Each is of
// one moment, but not all of the same one. Ages are milliseconds, good to some ten.

/// Of the process's event loop; see EventLoop::Figures.
struct EventLoopFigures {
  std::uint32_t threads = 0;
  std::uint32_t blocked = 0;
  std::uint32_t maxThreads = 0;
  std::uint64_t queued = 0;
  std::uint64_t delayed = 0;
  std::uint64_t longestWait = 0;  ///< Milliseconds.
};
GV_STRUCT(EventLoopFigures, threads, blocked, maxThreads, queued, delayed, longestWait)

/// Of one connection. What is counted is counted since it began.
struct ConnectionFigures {
  std::uint64_t id = 0;              ///< Unique in the process.
  std::string peer;                  ///< "tcp://ip:port".
  std::string session;               ///< The peer's.
  std::uint32_t process = 0;         ///< The peer's, as it says.
  std::string role;                  ///< "client" for who began it, or "server".
  std::uint64_t age = 0;             ///< Milliseconds.
  std::uint64_t made = 0;            ///< Calls that wait for the peer's reply.
  std::uint64_t served = 0;          ///< Calls and posts of the peer that have not ended.
  std::uint64_t output = 0;          ///< Bytes that wait for the peer to take them.
  std::uint64_t listenedTo = 0;      ///< Signals here that the peer listens to.
  std::uint64_t listening = 0;       ///< Signals of the peer's that are listened to here.
  std::uint64_t eventsDropped = 0;   ///< Events of the peer's, unreadable or to no subscription.
  std::uint64_t repliesIgnored = 0;  ///< The peer's, to no call that waits.
  std::uint64_t postsDropped = 0;    ///< The peer's, that could not be run or failed.
  std::uint64_t callsRefused = 0;    ///< The peer's, for a limit: of calls under way or of threads.
};
GV_STRUCT(ConnectionFigures, id, peer, session, process, role, age, made, served, output,
          listenedTo, listening, eventsDropped, repliesIgnored, postsDropped, callsRefused)

/// Of one call or post that has not ended. The made end and the served end of one call have the
/// same message id, each on its connection to the other's session.
struct CallFigures {
  std::uint64_t connection = 0;  ///< ConnectionFigures::id.
  bool isServed = false;         ///< The peer made it; else it is this session's.
  bool isPost = false;
  std::uint64_t message = 0;  ///< Its id.
  /// The call that its caller was serving; 0: none. A made one's is served by this process over the
  /// connection of number `parentConnection`; a served one's is known to the peer.
  std::uint64_t parent = 0;
  std::uint64_t parentConnection = 0;  ///< 0 for served ones.
  std::string trace;                   ///< 32 hexadecimal digits, the same for all descendants.
  std::uint32_t service = 0;
  std::uint32_t object = 0;
  std::uint32_t member = 0;
  std::string serviceName;  ///< Empty where it is not known (any more), and for lent objects.
  std::string memberName;   ///< Likewise.
  std::uint64_t age = 0;    ///< Milliseconds since it was sent or read.
};
GV_STRUCT(CallFigures, connection, isServed, isPost, message, parent, parentConnection, trace,
          service, object, member, serviceName, memberName, age)

/// Of a session. Of calls and of connections the 1,000 oldest are listed; the numbers are of all.
struct Figures {
  std::string session;        ///< Its id.
  std::uint32_t process = 0;  ///< The process's id.
  EventLoopFigures eventLoop;
  std::uint64_t connectionCount = 0;
  std::vector<ConnectionFigures> connections;
  std::uint64_t callCount = 0;
  std::vector<CallFigures> calls;  ///< The oldest first. The call that asks is not among them.
};
GV_STRUCT(Figures, session, process, eventLoop, connectionCount, connections, callCount, calls)

}  // namespace gv
