#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include <gv/api.h>

/// Log records by category and level, and handlers that receive them.
///
/// Everything here may be called from any thread, from static initialisers and destructors of any
/// library in any order, and from inside handlers. Nothing throws but for lack of memory. In a
/// forked child everything works on, with the handlers of the parent.
///
/// Levels start at info. The environment variable GV_LOG changes that before the first record:
/// `GV_LOG=warning`, `GV_LOG=info,JXBroker*=verbose`; its items read like calls of `setLevel`, left
/// to right. Until it is removed, a default handler writes records to the standard error, times in
/// UTC.
namespace gv::log {

/// How grave a record is, from nothing at all to the finest detail. As the level of a category:
/// what is as grave or graver is enabled. `Silent` as a category's level enables nothing; a record
/// of level `Silent` is never enabled.
enum class Level { Silent, Fatal, Error, Warning, Info, Verbose, Debug };

/// One message, as its writer gave it: text is not escaped and may hold any bytes.
struct Record {
  Level level;
  std::string category;
  std::string function;  ///< bare name of the operation, may be empty
  std::string file;      ///< may be empty
  std::string text;
  int line;           ///< 0 when unknown
  unsigned threadId;  ///< kernel's number of the thread that wrote it
  std::chrono::system_clock::time_point time;
};

/// Names a handler; 0 is never one.
using HandlerId = std::uint64_t;
/// The handler that is there from the start and writes to the standard error, one line a record,
/// control characters escaped. It never waits for who reads that: what a full pipe, socket or
/// terminal does not take is lost, and the next line that it takes says how many records were. A
/// closed standard error is ignored.
inline constexpr HandlerId DefaultHandler = 1;

/// Adds a handler, called with every enabled record from now on: in the thread that logs, before
/// its `write` returns, in several threads at a time, with no lock held. A handler may log, add and
/// remove handlers: what it logs goes to the other handlers only. What it throws is swallowed; the
/// first time that happens, an error record goes to the other handlers.
/// The name is for messages about the handler and need not be unique.
GV_API HandlerId addHandler(const std::string& name, std::function<void(const Record&)> handler);

/// Removes a handler; an id that is unknown or removed is ignored. Waits for calls of the handler
/// running in other threads, so that when it returns the handler does not run and will not run, but
/// for calls on the calling thread's own stack. Of threads inside handlers that
/// remove each other's (or their own) in a circle, none waits for the others.
GV_API void removeHandler(HandlerId id);

/// Sets the level of every category that matches the pattern (`*` any text, `?` any character), of
/// categories still to come too. Of several patterns that match, the one set last decides.
GV_API void setLevel(Level level, const std::string& categoryPattern = "*");

/// True when a record would be handed to the handlers. One relaxed load with a `Category` (below);
/// with a name, which need not be registered, a lock and a look-up more.
GV_API bool isEnabled(const std::string& category, Level level);

/// Registers a category, so that tools can list it; again, or by another library, changes nothing.
GV_API void addCategory(const std::string& name);

/// Hands a record to all handlers when the category's level enables it. Handlers run before it
/// returns: call it with no lock held that a handler could want.
GV_API void write(Level level, const std::string& category, const std::string& function,
                  const std::string& file, int line, const std::string& text);

/// A registered category, resolved once and kept: lives until the process ends.
class GV_API Category {
 public:
  Category(const Category&) = delete;
  Category& operator=(const Category&) = delete;

  const std::string& name() const noexcept { return name_; }
  bool isEnabled(Level level) const noexcept {
    // Relaxed: the level orders nothing else; a change need only arrive at some time.
    return level != Level::Silent && level <= level_.load(std::memory_order_relaxed);
  }

 private:
  friend class CategoryTable;
  Category(std::string name, Level level) : name_(std::move(name)), level_(level) {}

  const std::string name_;
  std::atomic<Level> level_;  // written under the mutex of the table
};

/// The category of that name, registered if it was not. Keep the reference where the look-up
/// counts.
GV_API const Category& category(const std::string& name);

/// As `write` above, with a resolved category; the strings become those of the record.
GV_API void write(Level level, const Category& category, std::string function, std::string file,
                  int line, std::string text);

}  // namespace gv::log

/// Logs `text` (anything that makes a std::string, evaluated only when enabled) from `function`,
/// with an empty file and line 0. A disabled line costs the load of its level, through the category
/// that its first pass found: no lock, no guard. The category must be the same at each pass:
///
///     GV_LOG(gv::log::Level::Warning, "gv.session", "connect", peer + " does not answer");
///
#define GV_LOG(level, category_, function, text)                                               \
  do {                                                                                         \
    static constinit ::std::atomic<const ::gv::log::Category*> gvLogFound_{nullptr};           \
    const ::gv::log::Category* gvLogCategory_ = gvLogFound_.load(::std::memory_order_acquire); \
    if (!gvLogCategory_) [[unlikely]] {                                                        \
      gvLogCategory_ = &::gv::log::category(category_);                                        \
      gvLogFound_.store(gvLogCategory_, ::std::memory_order_release);                          \
    }                                                                                          \
    if (gvLogCategory_->isEnabled(level)) [[unlikely]]                                         \
      ::gv::log::write(level, *gvLogCategory_, function, "", 0, text);                         \
  } while (false)
