#include "src/stderrhandler.h"

#include <pthread.h>
#include <signal.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>

#include "src/lossyoutput.h"

namespace gv::log {
namespace {

spdlog::level::level_enum spdlogLevel(Level level) {
  switch (level) {
    case Level::Silent:
      return spdlog::level::off;
    case Level::Fatal:
      return spdlog::level::critical;
    case Level::Error:
      return spdlog::level::err;
    case Level::Warning:
      return spdlog::level::warn;
    case Level::Info:
      return spdlog::level::info;
    case Level::Verbose:
      return spdlog::level::debug;
    case Level::Debug:
      return spdlog::level::trace;
  }
  return spdlog::level::off;
}

/// Not one of spdlog's sinks with a lock: these share it with the whole program, and it would stay
/// locked in the child of a fork.
class StderrSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  /// Whether the last record was written, and wholly.
  bool isWritten() const { return isWritten_; }

 private:
  void sink_it_(const spdlog::details::log_msg& record) override {
    spdlog::memory_buf_t line;
    formatter_->format(record, line);
    isWritten_ = output_.write({line.data(), line.size()});
  }
  void flush_() override {}

  LossyOutput output_{STDERR_FILENO};
  bool isWritten_ = false;
};

struct StderrWriter {
  explicit StderrWriter(const StderrWriter* before) : replaced(before), logger("gv", sink) {
    logger.set_level(spdlog::level::trace);
    logger.set_pattern("[%L] %v");
  }

  const StderrWriter* const replaced;  // never destroyed: another thread's lock in it is not ours
  std::mutex mutex;                    // guards what follows
  unsigned long lost = 0;              // records since the last one that was written
  const std::shared_ptr<StderrSink> sink = std::make_shared<StderrSink>();
  spdlog::logger logger;
};

constinit std::atomic<StderrWriter*> currentWriter{nullptr};

StderrWriter& stderrWriter() {
  if (StderrWriter* made = currentWriter.load(std::memory_order_acquire)) return *made;
  auto made = std::make_unique<StderrWriter>(nullptr);
  StderrWriter* other = nullptr;
  if (currentWriter.compare_exchange_strong(other, made.get())) return *made.release();
  return *other;
}

/// Keeps a write to a closed pipe from killing the process, without touching its signal handlers.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    wasPending_ = isPending();
    pthread_sigmask(SIG_BLOCK, &pipe_, &previous_);
  }
  ~SigpipeGuard() {
    if (!wasPending_ && isPending()) takePending();
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  void takePending() {
#ifdef __APPLE__
    int signal = 0;
    sigwait(&pipe_, &signal);
#else
    // Another thread may have taken it: not waited for.
    const timespec now{};
    sigtimedwait(&pipe_, nullptr, &now);
#endif
  }
  static bool isPending() {
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
  }

  sigset_t pipe_;
  sigset_t previous_;
  bool wasPending_;
};

/// "2030-01-31 23:59:59.999Z". Made here from UTC: the C library's conversions take a lock, which
/// stays locked in the child of a fork when another thread held it.
std::string timeText(std::chrono::system_clock::time_point time) {
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(std::chrono::floor<std::chrono::milliseconds>(time - day));
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02u %02d:%02d:%02d.%03dZ",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()),
                static_cast<int>(clock.subseconds().count()));
  return text.data();
}

void appendEscape(std::string& to, unsigned char byte) {
  constexpr char digits[] = "0123456789abcdef";
  switch (byte) {
    case '\n':
      to += "\\n";
      return;
    case '\t':
      to += "\\t";
      return;
    case '\r':
      to += "\\r";
      return;
    default:
      to += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
  }
}

}  // namespace

std::string escapeControls(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const unsigned next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    // U+0080 to U+009F, two bytes in UTF-8, steer terminals too.
    if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {
      appendEscape(escaped, byte);
      appendEscape(escaped, static_cast<unsigned char>(next));
      ++i;
    } else if (byte < 0x20 || byte == 0x7f) {
      appendEscape(escaped, byte);
    } else {
      escaped += text[i];
    }
  }
  return escaped;
}

void writeToStderr(const Record& record) {
  const std::string begin = timeText(record.time) + ' ' + std::to_string(record.threadId) + ' ';
  std::string line = begin + escapeControls(record.category);
  if (!record.function.empty()) line += ": " + escapeControls(record.function);
  line += ": " + escapeControls(record.text);
  SigpipeGuard guard;
  StderrWriter& writer = stderrWriter();
  std::lock_guard lock(writer.mutex);
  // Passed as text, not as a format: braces in it mean nothing.
  const auto write = [&](Level level, const std::string& text) {
    writer.logger.log(record.time, spdlog::source_loc{}, spdlogLevel(level),
                      spdlog::string_view_t(text));
    return writer.sink->isWritten();
  };
  const bool hasRoom = writer.lost == 0 ||
                       write(Level::Warning, begin + "gv.log: nobody read the standard error: " +
                                                 std::to_string(writer.lost) + " records are lost");
  if (hasRoom) writer.lost = 0;
  if (!hasRoom || !write(record.level, line)) ++writer.lost;
}

void renewStderrAfterFork() {
  if (const StderrWriter* writer = currentWriter.load()) currentWriter = new StderrWriter(writer);
}

}  // namespace gv::log
