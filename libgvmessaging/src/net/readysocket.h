#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace gv::net {

/// A socket that the readers look after.
class ReadySocket {
 public:
  virtual ~ReadySocket() = default;

  /// Reads and writes what can be without blocking, in the thread that leads the readers. May
  /// return with Readers::isReplaced(): then the next thread to lead begins with leaveRest().
  virtual void onReady(bool canRead, bool canWrite) = 0;
  /// Its turn, which it asked for by Readers::goOn(): to read though nothing may have come. As
  /// onReady.
  virtual void onTurn() = 0;
  /// Ends the turn of a thread that was replaced in it: what that has left is for a later turn.
  virtual void leaveRest() = 0;
  /// About once a millisecond while it is lent (see Readers::lend); false when it is no longer.
  virtual bool isStillLent() = 0;
};

/// The sockets that the readers look after, by their keys, and which of them are lent. Any thread.
class ReadySockets {
 public:
  std::uint64_t add(const std::weak_ptr<ReadySocket>& socket);
  void remove(std::uint64_t key);
  /// Null when it was removed or is gone.
  std::shared_ptr<ReadySocket> find(std::uint64_t key) const;

  /// True when no other was lent: somebody must begin to look after them.
  bool lend(std::uint64_t key);
  bool areLent() const { return areLent_; }
  /// Asks those that are lent whether they still are.
  void lookAfterLent();

 private:
  void lendLocked(std::uint64_t key);

  std::atomic<bool> areLent_{false};

  mutable std::mutex mutex_;  // guards what follows
  std::unordered_map<std::uint64_t, std::weak_ptr<ReadySocket>> sockets_;
  std::uint64_t lastKey_ = 0;
  std::vector<std::uint64_t> lent_;
};

}  // namespace gv::net
