#include "src/lossyoutput.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>

namespace gv::log {
namespace {

// What a terminal has room for where poll() says that there is some.
constexpr std::size_t pieceOfTerminal = 128;

// Of the descriptor's own flags nothing is changed: they are those of all who share it. Not kept: a
// pipe is at its end for its reader when the last descriptor was closed.
class WayToWrite {
 public:
  explicit WayToWrite(int descriptor) : descriptor_(descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || S_ISREG(status.st_mode)) return;
    piece_ = PIPE_BUF;
    // A terminal says that it has room when that is less than a line, and another process may take
    // the room of a pipe. Opened anew they need not wait.
    const bool isTerminal = ::isatty(descriptor) != 0;
    if (!S_ISFIFO(status.st_mode) && !isTerminal) return;
    const std::string path = "/dev/fd/" + std::to_string(descriptor);
    opened_ = ::open(path.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (isTerminal && opened_ < 0) piece_ = pieceOfTerminal;
  }
  ~WayToWrite() {
    if (opened_ >= 0) ::close(opened_);
  }
  WayToWrite(const WayToWrite&) = delete;
  WayToWrite& operator=(const WayToWrite&) = delete;

  int descriptor() const { return opened_ >= 0 ? opened_ : descriptor_; }
  /// What one write passes at most, so that it does not wait where poll() says that there is room.
  std::size_t piece() const { return piece_; }

 private:
  const int descriptor_;
  int opened_ = -1;
  std::size_t piece_ = std::string_view::npos;
};

bool takesMore(int descriptor) {
  pollfd wanted{descriptor, POLLOUT, 0};
  int ready = ::poll(&wanted, 1, 0);
  while (ready < 0 && errno == EINTR) ready = ::poll(&wanted, 1, 0);
  return ready > 0;
}

ssize_t writeOnce(int descriptor, std::string_view text) {
  ssize_t written = ::write(descriptor, text.data(), text.size());
  while (written < 0 && errno == EINTR) written = ::write(descriptor, text.data(), text.size());
  return written;
}

}  // namespace

bool LossyOutput::write(std::string_view line) {
  if (isCut_ && !writeAll("\n")) return false;
  isCut_ = false;
  return writeAll(line);
}

bool LossyOutput::writeAll(std::string_view text) {
  const WayToWrite way(descriptor_);
  while (!text.empty()) {
    const bool hasRoom = takesMore(way.descriptor());
    const ssize_t written = hasRoom ? writeOnce(way.descriptor(), text.substr(0, way.piece())) : 0;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
    isCut_ = !text.empty();
  }
  return true;
}

}  // namespace gv::log
