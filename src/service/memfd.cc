#include "service/memfd.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

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
// Offsets and lengths of direct writes are multiples of this: a page, which covers the logical block
// size of the usual devices (one that needs more refuses the first write, and the copy goes through the
// page cache instead).
constexpr std::size_t kDirectAlign = 4096;
constexpr std::size_t kDirectChunk = std::size_t{16} << 20;

struct Mapping {
  void* at = MAP_FAILED;
  std::size_t size = 0;
  ~Mapping() {
    if (at != MAP_FAILED) ::munmap(at, size);
  }
};

enum class DirectCopy { Done, NotHere, Failed };

// Writes a memory file sealed against shrinking straight from its pages to the disk (O_DIRECT), so the
// copy takes no page cache of its own: a copy through the cache needs as much fresh memory again as the
// archive, and fresh memory is what a large copy spends its time on (on a virtual machine, each new page
// may have to be backed by the host first). NotHere when the file system or the device does not take
// direct writes of this alignment, having written nothing that a later copy does not replace.
DirectCopy copy_direct(int fd, off_t size, const std::string& path, Error& error) {
  const int seals = ::fcntl(fd, F_GET_SEALS);
  if (seals < 0 || !(seals & F_SEAL_SHRINK)) return DirectCopy::NotHere;  // a shrinking file would fault its mapping
  UniqueFd out(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_DIRECT, 0644));
  if (!out) {
    if (errno == EINVAL) return DirectCopy::NotHere;
    error = errno_error("open");
    return DirectCopy::Failed;
  }
  const std::size_t total = static_cast<std::size_t>(size);
  const std::size_t whole = total / kDirectAlign * kDirectAlign;
  auto write_at = [&](const char* from, std::size_t length, std::size_t offset) {
    while (length > 0) {
      ssize_t n = ::pwrite(out.get(), from, length, static_cast<off_t>(offset));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0 || static_cast<std::size_t>(n) % kDirectAlign != 0) {
        if (n < 0 && errno == EINVAL) return DirectCopy::NotHere;
        error = n < 0 ? errno_error("write") : Error{"short write"};
        return DirectCopy::Failed;
      }
      from += n;
      offset += static_cast<std::size_t>(n);
      length -= static_cast<std::size_t>(n);
    }
    return DirectCopy::Done;
  };
  // One window of the source mapped at a time, so the copy never holds more than a window's pages.
  auto window = [&](std::size_t offset, std::size_t length, Mapping& mapping) {
    mapping.size = length;
    mapping.at = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, static_cast<off_t>(offset));
    return mapping.at != MAP_FAILED;
  };
  for (std::size_t offset = 0; offset < whole; offset += kDirectChunk) {
    const std::size_t length = std::min(kDirectChunk, whole - offset);
    Mapping source;
    if (!window(offset, length, source)) return DirectCopy::NotHere;
    const DirectCopy step = write_at(static_cast<const char*>(source.at), length, offset);
    if (step != DirectCopy::Done) return step;
  }
  if (whole < total) {  // the last partial block, padded, then cut back to the file's size
    Mapping source;
    if (!window(whole, total - whole, source)) return DirectCopy::NotHere;
    std::unique_ptr<char, decltype(&std::free)> block(static_cast<char*>(std::aligned_alloc(kDirectAlign, kDirectAlign)),
                                                      &std::free);
    if (!block) {
      error = Error{"out of memory"};
      return DirectCopy::Failed;
    }
    std::memset(block.get(), 0, kDirectAlign);
    std::memcpy(block.get(), source.at, total - whole);
    const DirectCopy step = write_at(block.get(), kDirectAlign, whole);
    if (step != DirectCopy::Done) return step;
    if (::ftruncate(out.get(), size) != 0) {
      error = errno_error("ftruncate");
      return DirectCopy::Failed;
    }
  }
  if (::close(out.release()) != 0) {
    error = errno_error("close");
    return DirectCopy::Failed;
  }
  return DirectCopy::Done;
}

}  // namespace

Result<bool> copy_whole_fd_to_file(int fd, const std::string& path) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return errno_error("fstat");
  if (S_ISREG(st.st_mode) && st.st_size >= kDirectCopyMin) {
    Error error;
    switch (copy_direct(fd, st.st_size, path, error)) {
      case DirectCopy::Done: return true;
      case DirectCopy::Failed: return error;
      case DirectCopy::NotHere: break;  // through the page cache, below
    }
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
