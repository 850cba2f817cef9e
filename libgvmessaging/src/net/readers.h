#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <gv/detail/futurestate.h>
#include <gvmessaging/api.h>

#include "src/net/readiness.h"
#include "src/net/readysocket.h"
#include "src/net/waitingcalls.h"

namespace gv::net {

/// The threads that read all sockets of the process. One of them leads: it waits for sockets,
/// reads, and runs what the bytes ask for, foreign code included, without handing it over. When
/// foreign code blocks (and says so, as Future::wait does) or takes some milliseconds, another
/// thread takes the lead in the middle of it, and comes back to the socket that was being read when
/// others had their turn; the one that was replaced finishes its call and steps back. A spare
/// thread is always there to do so: it looks at the leader every few milliseconds, but for idle
/// times. So the network is read whatever user code does.
///
/// A replaced thread counts as a guest of the event loop until its call has ended.
///
/// Begins with the first use, ends with the process.
class GVMESSAGING_API Readers {
 public:
  Readers() = delete;

  /// The key under which a socket is watched; it is kept weakly. Throws std::system_error when no
  /// thread can be made.
  static std::uint64_t enroll(const std::weak_ptr<ReadySocket>& socket);
  static void dismiss(std::uint64_t key);
  /// As ReadinessSet::watch. Any thread.
  static bool watch(int descriptor, std::uint64_t key, ReadinessSet::Interest before,
                    ReadinessSet::Interest now);

  /// Has the leader call the socket's onTurn(), when others had their turn. Not again before that
  /// call. Any thread.
  static void goOn(std::uint64_t key);

  /// Says that some other thread reads the socket for a while, which is not watched meanwhile: it
  /// is asked isStillLent() until it denies.
  static void lend(std::uint64_t key);

  /// Runs foreign code in the leading thread, in order: for what must wait for nobody else. As the
  /// process exits, once nobody leads any more, in the calling one. Throws std::system_error when
  /// no thread can be made.
  static void post(std::function<void()> task);
  /// Runs a call that nobody has taken in the leading thread once the event loop has room for a
  /// guest, which may be at once; or refuses it when a second is over and there is none. Neither
  /// where the process exits. Any thread.
  static void postWhenThereIsRoom(WaitingCalls::Call call);

  /// True in the leading thread outside of foreign code, while a spare is there to replace it, or
  /// on its way.
  static bool mayRunForeignCode();
  /// True in a thread that led, until it has returned to its team: it must not touch what belongs
  /// to the reading side any more.
  static bool isReplaced();

  /// While it lives, the calling thread may be replaced if it leads. In any other thread, and
  /// inside another one, it does nothing.
  class GVMESSAGING_API ForeignCode {
   public:
    ForeignCode();
    ~ForeignCode();
    ForeignCode(const ForeignCode&) = delete;
    ForeignCode& operator=(const ForeignCode&) = delete;

   private:
    const bool isOutermost_;
  };

  /// While it lives, the calling thread reads for others while it waits for something of its own.
  /// It may hold locks that foreign code wants: callbacks run in the leading thread, destructors of
  /// users' objects on the event loop.
  class GVMESSAGING_API Borrowing {
   public:
    Borrowing();
    ~Borrowing();
    Borrowing(const Borrowing&) = delete;
    Borrowing& operator=(const Borrowing&) = delete;

    static bool isActive();

   private:
    const detail::CallbacksElsewhere callbacks_;
  };
};

}  // namespace gv::net
