#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gvmessaging/api.h>

#include "src/wire/limits.h"

namespace gv::net {

/// Who may begin a handshake when many want to. Decides only: it owns no connection, has no clock
/// and no lock; whoever holds it carries out what it says and guards it.
///
/// Places are limited in all and for each address. Who finds none is parked, unread. The newest
/// parked is next: it is the one whose owner still waits. While somebody is parked, a handshake
/// under way for longer than the limit gives its place away, so that peers which send nothing, or
/// a byte now and then, never keep a real client out; a quarter of that is enough while no more can
/// be parked. All of them together hold a quarter of the process's descriptors at most.
class GVMESSAGING_API Admission {
 public:
  using Id = std::uint64_t;
  using Time = std::chrono::steady_clock::time_point;

  /// What to do now. Ids in close are forgotten already: finished() need not follow for them.
  struct Decision {
    std::vector<Id> start;  ///< Begin to read these.
    std::vector<Id> close;  ///< Close these: too slow, or parked for too long.
  };

  /// @p descriptors is how many the process may have.
  Admission(const wire::Limits& limits, std::size_t descriptors);

  /// A connection @p id, of a number not in use, was accepted from @p address.
  [[nodiscard]] Decision arrived(Id id, const std::string& address, Time now);

  /// The handshake of @p id succeeded, or the connection went, parked or not. Unknown: no effect.
  [[nodiscard]] Decision finished(Id id, Time now);

  /// The system has no descriptor for another one: the oldest parked goes, or a slow handshake.
  [[nodiscard]] Decision outOfDescriptors(Time now);

  /// Time has passed; to be called at nextLook().
  [[nodiscard]] Decision timePassed(Time now);

  /// When a place may be given away next; nothing while nobody is parked.
  std::optional<Time> nextLook() const;

  std::size_t unfinished() const { return unfinished_.size(); }
  std::size_t parked() const { return parked_.size(); }

 private:
  struct Entry {
    Id id;
    std::string address;
    Time since;  // of unfinished ones: when the handshake began
  };
  using Entries = std::deque<Entry>;

  std::chrono::milliseconds patience() const;
  void dropOldestParked(Decision& decision);
  void placeParked(Time now, Decision& decision);
  bool makeRoom(const std::string& address, Time now, Decision& decision);
  bool hasPlace(const std::string& address) const;
  void begin(Entry entry, Time now, Decision& decision);
  void drop(Entries::const_iterator unfinished, Decision& decision);
  void leave(Entries::const_iterator entry);
  Entries::const_iterator oldestInTheWayOf(const std::string& address) const;

  wire::Limits limits_;                         // constant after construction
  Entries unfinished_;                          // oldest first
  std::map<std::string, unsigned> perAddress_;  // of unfinished_
  Entries parked_;                              // newest last
};

}  // namespace gv::net
