#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>

namespace processes {

/// Which bodies ran, for several processes, of which some are killed: counts in shared memory.
class Ledger {
 public:
  static constexpr std::size_t capacity = 1u << 19;

  struct Entry {
    std::atomic<int> begun{0};
    std::atomic<int> ended{0};
  };

  /// A new one, in a file that goes with it.
  Ledger() : path_("/tmp/ledger-XXXXXX"), isOwner_(true) {
    map(::mkstemp(path_.data()));
    new (pages_) Pages;
  }
  /// The one of another process.
  explicit Ledger(const std::string& path) : path_(path), isOwner_(false) {
    map(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  }
  ~Ledger() {
    ::munmap(pages_, sizeof(Pages));
    if (isOwner_) ::unlink(path_.c_str());
  }
  Ledger(const Ledger&) = delete;
  Ledger& operator=(const Ledger&) = delete;

  const std::string& path() const { return path_; }

  Entry& operator[](int nonce) { return pages_->entries[static_cast<std::size_t>(nonce)]; }

  /// How many bodies have begun in all.
  std::atomic<int>& begun() { return pages_->begun; }

 private:
  struct Pages {
    std::atomic<int> begun{0};
    Entry entries[capacity];
  };

  void map(int file) {
    const bool isThere = file >= 0 && (!isOwner_ || ::ftruncate(file, sizeof(Pages)) == 0);
    void* const pages =
        isThere ? ::mmap(nullptr, sizeof(Pages), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0)
                : MAP_FAILED;
    ::close(file);
    if (pages == MAP_FAILED) throw std::runtime_error("no ledger at " + path_);
    pages_ = static_cast<Pages*>(pages);
  }

  std::string path_;
  const bool isOwner_;
  Pages* pages_ = nullptr;
};

}  // namespace processes
