#include "platform/file_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace orvia {
namespace {

constexpr std::size_t kStage = std::size_t{1} << 20;

bool is_aligned(const void* p) { return reinterpret_cast<std::uintptr_t>(p) % FileWriter::kAlign == 0; }

struct FreeBlock {
  void operator()(char* p) const { std::free(p); }
};
using Block = std::unique_ptr<char, FreeBlock>;

}  // namespace

// Two staging buffers: the caller fills one while the writing thread takes the other to the file.
struct FileWriter::State {
  int fd = -1;
  std::atomic<bool> direct = false;  // the thread may turn it off
  bool positioned = true;            // a regular file, written at offsets (else a pipe or a device)
  Block stage[2];
  int filling = 0;            // the buffer the caller fills
  std::size_t staged = 0;     // bytes in it
  std::uint64_t written = 0;  // bytes handed to the file (or to the thread) so far

  std::mutex mutex;
  std::condition_variable changed;
  std::thread thread;
  bool busy = false;  // the thread has a buffer to write
  bool quit = false;
  bool threadless = false;  // no thread could be started: every write is made by the caller
  const char* job = nullptr;
  std::size_t job_length = 0;
  std::uint64_t job_offset = 0;
  std::string error;  // under the mutex once the thread runs

  ~State() {
    stop();
    if (fd >= 0) ::close(fd);
  }

  void stop() {
    if (!thread.joinable()) return;
    {
      std::lock_guard lock(mutex);
      quit = true;
    }
    changed.notify_all();
    thread.join();
  }

  std::string failure(const char* what) const { return std::string(what) + ": " + std::strerror(errno); }

  // Writes at `offset`, on whichever thread. A direct write the file system or device refuses (its
  // alignment needs more, say) is made again through the page cache, as is everything after it.
  std::string write_at(const char* bytes, std::size_t length, std::uint64_t offset) {
    while (length > 0) {
      ssize_t n = positioned ? ::pwrite(fd, bytes, length, static_cast<off_t>(offset)) : ::write(fd, bytes, length);
      if (n < 0 && errno == EINTR) continue;
      const bool refused = n < 0 && errno == EINVAL;
      if (n < 0 && !(refused && direct)) return failure("write");
      if (n == 0) return "write: no progress";
      if (refused || (direct && static_cast<std::size_t>(n) % kAlign != 0)) {  // or a short write ending mid-block
        const int flags = ::fcntl(fd, F_GETFL);
        if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_DIRECT) != 0) return failure("write");
        direct = false;
        if (refused) continue;
      }
      bytes += n;
      length -= static_cast<std::size_t>(n);
      offset += static_cast<std::uint64_t>(n);
    }
    return {};
  }

  void run() {
    std::unique_lock lock(mutex);
    for (;;) {
      changed.wait(lock, [&] { return quit || busy; });
      if (!busy) return;
      lock.unlock();
      std::string failed = write_at(job, job_length, job_offset);
      lock.lock();
      if (!failed.empty() && error.empty()) error = std::move(failed);
      busy = false;
      changed.notify_all();
    }
  }

  // Waits until the thread has no buffer; false when a write has failed.
  bool idle(std::unique_lock<std::mutex>& lock) {
    changed.wait(lock, [&] { return !busy; });
    return error.empty();
  }

  // Hands the filled buffer to the thread and goes on filling the other one (writes it here when no
  // thread can be had).
  bool hand_over() {
    if (!thread.joinable() && !threadless) {
      try {
        thread = std::thread([this] { run(); });
      } catch (const std::system_error&) {
        threadless = true;
      }
    }
    if (threadless) {
      if (!write_now(stage[filling].get(), staged)) return false;
      staged = 0;
      return true;
    }
    std::unique_lock lock(mutex);
    if (!idle(lock)) return false;
    job = stage[filling].get();
    job_length = staged;
    job_offset = written;
    busy = true;
    written += staged;
    filling ^= 1;
    staged = 0;
    changed.notify_all();
    return true;
  }

  // Writes on the caller's thread, once the thread has finished its buffer.
  bool write_now(const char* bytes, std::size_t length) {
    std::unique_lock lock(mutex);
    if (!idle(lock)) return false;
    std::string failed = write_at(bytes, length, written);
    if (!failed.empty()) {
      error = std::move(failed);
      return false;
    }
    written += length;
    return true;
  }
};

FileWriter::FileWriter() : state_(std::make_unique<State>()) {}
FileWriter::~FileWriter() = default;

bool FileWriter::is_open() const { return state_->fd >= 0; }

std::string FileWriter::error() const {
  std::lock_guard lock(state_->mutex);
  return state_->error;
}

Result<bool> FileWriter::open(const std::string& path, bool direct) {
  State& s = *state_;
  if (s.fd >= 0) return Error{"already open"};
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  s.direct = direct;
  s.fd = ::open(path.c_str(), kFlags | (direct ? O_DIRECT : 0), 0644);
  if (s.fd < 0 && direct && errno == EINVAL) {  // a file system without direct I/O
    s.direct = false;
    s.fd = ::open(path.c_str(), kFlags, 0644);
  }
  if (s.fd < 0) {
    s.error = s.failure("open");
    return Error{s.error};
  }
  struct stat st {};
  s.positioned = ::fstat(s.fd, &st) == 0 && S_ISREG(st.st_mode);
  if (s.direct && !s.positioned) {
    // A pipe or a device (/dev/stdout, say) takes its bytes in order, as they come: direct I/O would
    // make a pipe cut them into packets, and a padded last block could not be cut back.
    const int flags = ::fcntl(s.fd, F_GETFL);
    if (flags >= 0) ::fcntl(s.fd, F_SETFL, flags & ~O_DIRECT);
    s.direct = false;
  }
  for (Block& b : s.stage) {
    b.reset(static_cast<char*>(std::aligned_alloc(kAlign, kStage)));
    if (!b) {
      s.error = "out of memory";
      return Error{s.error};
    }
  }
  return true;
}

bool FileWriter::write(std::string_view bytes) {
  State& s = *state_;
  if (s.fd < 0) return false;
  while (!bytes.empty()) {
    if (s.direct && s.staged == 0 && bytes.size() >= kAlign && is_aligned(bytes.data())) {
      const std::size_t whole = bytes.size() / kAlign * kAlign;  // straight from the caller's pages
      if (!s.write_now(bytes.data(), whole)) return false;
      bytes.remove_prefix(whole);
      continue;
    }
    const std::size_t n = std::min(bytes.size(), kStage - s.staged);
    std::memcpy(s.stage[s.filling].get() + s.staged, bytes.data(), n);
    s.staged += n;
    bytes.remove_prefix(n);
    if (s.staged == kStage && !s.hand_over()) return false;
  }
  return true;
}

Result<bool> FileWriter::close() {
  State& s = *state_;
  if (s.fd < 0) return Error{s.error.empty() ? "not open" : s.error};
  {
    std::unique_lock lock(s.mutex);
    s.idle(lock);
  }
  s.stop();
  if (s.error.empty() && s.staged > 0) {
    const std::uint64_t size = s.written + s.staged;
    // A direct write ends on a whole block: the last one is padded, and the file cut back after it.
    const std::size_t length = s.direct ? (s.staged + kAlign - 1) / kAlign * kAlign : s.staged;
    std::memset(s.stage[s.filling].get() + s.staged, 0, length - s.staged);
    if (s.write_now(s.stage[s.filling].get(), length) && length != s.staged &&
        ::ftruncate(s.fd, static_cast<off_t>(size)) != 0)
      s.error = s.failure("ftruncate");
  }
  const int fd = std::exchange(s.fd, -1);
  if (::close(fd) != 0 && s.error.empty()) s.error = s.failure("close");
  for (Block& b : s.stage) b.reset();
  if (!s.error.empty()) return Error{s.error};
  return true;
}

}  // namespace orvia
