#pragma once

#include <gv/api.h>

namespace gv {

/// Who wants to know when one thread is about to sleep: the owner of a pool or of a connection, so
/// that another thread can take over meanwhile.
///
/// Both calls arrive on the watched thread itself, in pairs, with no lock of libgv held. They must
/// be short and must neither block nor wait on a future.
class GV_API BlockingObserver {
 public:
  /// The thread is about to wait for something that another thread has to do.
  virtual void willBlock() noexcept = 0;
  /// The wait that `willBlock` announced is over.
  virtual void hasUnblocked() noexcept = 0;

 protected:
  BlockingObserver() = default;
  BlockingObserver(const BlockingObserver&) = default;
  BlockingObserver& operator=(const BlockingObserver&) = default;
  ~BlockingObserver() = default;
};

/// Installs an observer for the calling thread while the scope lives. Scopes nest, and all
/// observers of the thread are told. Created and destroyed on the same thread, last one first; the
/// observer must outlive the scope.
class GV_API BlockingObserverScope {
 public:
  explicit BlockingObserverScope(BlockingObserver* observer) noexcept;
  ~BlockingObserverScope();
  BlockingObserverScope(const BlockingObserverScope&) = delete;
  BlockingObserverScope& operator=(const BlockingObserverScope&) = delete;

 private:
  friend class BlockingRegion;

  BlockingObserver* const observer_;
  BlockingObserverScope* const outer_;
  unsigned depth_ = 0;  // of the regions entered since this scope was
};

/// Says that the calling thread may sleep while this object lives. `Future::wait` does so by
/// itself; put one around foreign code that blocks (a read from a device, a join), so that a pool
/// thread is replaced at once:
///
///     gv::BlockingRegion region;
///     ::read(device, buffer, size);
///
/// Regions nest; each observer hears of its outermost one only. On a thread without an
/// observer it does nothing. Created and destroyed on the same thread.
class GV_API BlockingRegion {
 public:
  BlockingRegion() noexcept;
  ~BlockingRegion();
  BlockingRegion(const BlockingRegion&) = delete;
  BlockingRegion& operator=(const BlockingRegion&) = delete;
};

}  // namespace gv
