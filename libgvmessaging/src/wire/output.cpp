#include "src/wire/output.h"

namespace gv::wire {

void Output::borrow(std::string_view bytes) {
  borrowed_.push_back({own_.size(), bytes});
  borrowedSize_ += bytes.size();
}

Output::Pieces Output::pieces() const {
  const std::span<const char> own(own_.data(), own_.size());
  Pieces pieces;
  pieces.reserve(2 * borrowed_.size() + 1);
  std::size_t taken = 0;
  for (const Borrowed& borrowed : borrowed_) {
    pieces.push_back(own.subspan(taken, borrowed.before - taken));
    pieces.push_back(borrowed.bytes);
    taken = borrowed.before;
  }
  if (taken < own_.size()) pieces.push_back(own.subspan(taken));
  return pieces;
}

void Output::copyTo(std::vector<char>& out) const {
  out.reserve(out.size() + size());
  for (const auto piece : pieces()) out.insert(out.end(), piece.begin(), piece.end());
}

}  // namespace gv::wire
