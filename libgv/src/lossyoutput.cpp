#include "src/lossyoutput.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace gv::log {
namespace {

// A terminal says that it takes more when it has room for so much at least, each line end doubled.
constexpr std::size_t terminalPiece = 128;

/// What one write passes at most, so that it does not wait where poll() says that there is room.
std::size_t pieceSize(int descriptor, std::size_t whole) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || S_ISREG(status.st_mode)) return whole;
  return std::min<std::size_t>(whole, S_ISCHR(status.st_mode) ? terminalPiece : PIPE_BUF);
}

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
  const std::size_t piece = pieceSize(descriptor_, text.size());
  while (!text.empty()) {
    const bool hasRoom = takesMore(descriptor_);
    const ssize_t written = hasRoom ? writeOnce(descriptor_, text.substr(0, piece)) : 0;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
    isCut_ = !text.empty();
  }
  return true;
}

}  // namespace gv::log
