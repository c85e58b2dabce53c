#include "service/memfd.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>

#include "platform/file_writer.h"

namespace orvia::service {
namespace {

Error errno_error(const char* what) { return Error{std::string(what) + ": " + std::strerror(errno)}; }

}  // namespace

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

int reply_seals() { return F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL; }

Result<UniqueFd> make_sealed_memfd(std::string_view bytes, const char* name) {
  UniqueFd fd(::memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!fd) return errno_error("memfd_create");
  // Sizing first lets a short memory fail here (ENOSPC) rather than half-way through the writes.
  if (::ftruncate(fd.get(), static_cast<off_t>(bytes.size())) != 0) return errno_error("ftruncate");
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::pwrite(fd.get(), bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno_error("write to memfd");
    }
    done += static_cast<std::size_t>(n);
  }
  if (::fcntl(fd.get(), F_ADD_SEALS, reply_seals()) != 0) return errno_error("seal memfd");
  return fd;
}

MemfdSink::MemfdSink(const char* name) : fd_(::memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING)) {
  if (!fd_) error_ = errno_error("memfd_create").message;
}

void MemfdSink::expect(std::uint64_t total_size) {
  if (fd_ && error_.empty() && ::ftruncate(fd_.get(), static_cast<off_t>(total_size)) != 0)
    error_ = errno_error("ftruncate").message;
}

bool MemfdSink::put(std::string_view piece) {
  if (!fd_ || !error_.empty()) return false;
  std::size_t done = 0;
  while (done < piece.size()) {
    ssize_t n = ::pwrite(fd_.get(), piece.data() + done, piece.size() - done, static_cast<off_t>(written_ + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      error_ = errno_error("write to memfd").message;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  written_ += piece.size();
  return true;
}

Result<UniqueFd> MemfdSink::seal() {
  if (!error_.empty()) return Error{error_};
  if (!fd_) return Error{"no memory file"};
  if (::fcntl(fd_.get(), F_ADD_SEALS, reply_seals()) != 0) return errno_error("seal memfd");
  return std::move(fd_);
}

namespace {

// Below this size a copy through the page cache is as quick as one straight to the disk.
constexpr off_t kDirectCopyMin = off_t{1} << 20;
constexpr std::size_t kWindow = std::size_t{16} << 20;

struct Mapping {
  void* at = MAP_FAILED;
  std::size_t size = 0;
  ~Mapping() {
    if (at != MAP_FAILED) ::munmap(at, size);
  }
};

// Copies a memory file sealed against shrinking (so its mapping cannot fault) through a file writer,
// which takes its pages straight to the disk where it can: a window of it mapped at a time, so the copy
// never holds more than a window's pages. Nothing when the source cannot be mapped, before anything is
// written.
std::optional<Result<bool>> copy_mapped(int fd, std::size_t size, const std::string& path) {
  const int seals = ::fcntl(fd, F_GET_SEALS);
  if (seals < 0 || !(seals & F_SEAL_SHRINK)) return std::nullopt;
  FileWriter out;
  for (std::size_t offset = 0; offset < size; offset += kWindow) {
    Mapping window;
    window.size = std::min(kWindow, size - offset);
    window.at = ::mmap(nullptr, window.size, PROT_READ, MAP_SHARED, fd, static_cast<off_t>(offset));
    if (window.at == MAP_FAILED) {
      if (offset == 0) return std::nullopt;
      return errno_error("mmap");
    }
    if (offset == 0) {
      if (auto opened = out.open(path); !opened.ok()) return opened;
    }
    if (!out.write(std::string_view(static_cast<const char*>(window.at), window.size))) return Error{out.error()};
  }
  return out.close();
}

}  // namespace

Result<bool> copy_whole_fd_to_file(int fd, const std::string& path) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return errno_error("fstat");
  if (S_ISREG(st.st_mode) && st.st_size >= kDirectCopyMin) {
    if (auto copied = copy_mapped(fd, static_cast<std::size_t>(st.st_size), path)) return *copied;
  }
  UniqueFd out(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!out) return errno_error("open");
  off_t offset = 0;
  const off_t size = st.st_size;
  while (offset < size) {
    ssize_t n = ::sendfile(out.get(), fd, &offset, static_cast<std::size_t>(size - offset));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EINVAL || errno == ENOSYS) && offset == 0) {
      // No in-kernel copy between these files: through a buffer.
      char buf[1 << 16];
      while (offset < size) {
        ssize_t r = ::pread(fd, buf, sizeof buf, offset);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return r < 0 ? errno_error("read archive") : Error{"archive ended early"};
        for (ssize_t w = 0; w < r;) {
          ssize_t m = ::write(out.get(), buf + w, static_cast<std::size_t>(r - w));
          if (m < 0 && errno == EINTR) continue;
          if (m <= 0) return errno_error("write");
          w += m;
        }
        offset += r;
      }
      break;
    }
    if (n < 0) return errno_error("sendfile");
    if (n == 0) return Error{"archive ended early"};
  }
  if (::close(out.release()) != 0) return errno_error("close");
  return true;
}

Result<std::string> read_whole_fd(int fd, std::size_t max_size) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return errno_error("fstat");
  std::string out;
  if (S_ISREG(st.st_mode)) {
    if (st.st_size < 0 || static_cast<std::uint64_t>(st.st_size) > max_size) {
      return Error{"archive of " + std::to_string(st.st_size) + " bytes is larger than allowed"};
    }
    out.resize(static_cast<std::size_t>(st.st_size));
    std::size_t done = 0;
    while (done < out.size()) {
      ssize_t n = ::pread(fd, out.data() + done, out.size() - done, static_cast<off_t>(done));
      if (n < 0) {
        if (errno == EINTR) continue;
        return errno_error("read archive");
      }
      if (n == 0) return Error{"archive ended after " + std::to_string(done) + " of " + std::to_string(out.size()) + " bytes"};
      done += static_cast<std::size_t>(n);
    }
    return out;
  }
  // A pipe or socket: read to the end.
  char buf[65536];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno_error("read archive");
    }
    if (n == 0) return out;
    if (out.size() + static_cast<std::size_t>(n) > max_size) return Error{"archive is larger than allowed"};
    out.append(buf, static_cast<std::size_t>(n));
  }
}

}  // namespace orvia::service
