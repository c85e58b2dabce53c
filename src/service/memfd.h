// The archive of a reply travels as a sealed memory file: the receiver gets a file descriptor whose
// contents can no longer change (no write, no growing, no shrinking, no further seals), so it may read
// it without copying it first and without trusting the sender.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "platform/bplist_format.h"
#include "platform/result.h"

namespace orvia::service {

// Owns one file descriptor; closes it at scope end.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& o) noexcept {
    reset(std::exchange(o.fd_, -1));
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

// Every seal a reply's memory file carries.
int reply_seals();

// A new close-on-exec memory file holding exactly `bytes`, sealed against any change.
Result<UniqueFd> make_sealed_memfd(std::string_view bytes, const char* name = "orvia-archive");

// Takes a file's bytes piece by piece into a new memory file (sized first, so a short memory fails at
// once), to be sealed and handed on: a large archive is never held in memory beside it.
class MemfdSink final : public bplist::Builder::Sink {
 public:
  explicit MemfdSink(const char* name = "orvia-archive");
  void expect(std::uint64_t total_size) override;
  bool put(std::string_view piece) override;
  // The sealed file, or why it could not be made.
  Result<UniqueFd> seal();

 private:
  UniqueFd fd_;
  std::uint64_t written_ = 0;
  std::string error_;
};

// Copies the whole contents of a regular or memory file into the file at `path` (made or emptied): a large
// sealed memory file straight from its pages to the disk where the file system takes it (see
// FileWriter), anything else inside the kernel where it can. The source's file position is untouched.
Result<bool> copy_whole_fd_to_file(int fd, const std::string& path);

// The whole contents of a file descriptor: a regular or memory file is read by its size with
// positioned reads (the file position is untouched); anything else is read to its end. Fails for
// contents larger than max_size.
Result<std::string> read_whole_fd(int fd, std::size_t max_size);

}  // namespace orvia::service
