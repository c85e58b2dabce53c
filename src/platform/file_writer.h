// A new file written front to back, straight to the disk where the file system takes it (direct I/O),
// through the page cache where it does not.
//
// A large file written through the page cache needs as much fresh memory again as its bytes, and fresh
// memory is what such a write spends its time on (on a virtual machine, each new page may first have to
// be backed by the host): a 535 MB archive took 1.2-1.6 s to write through the cache on the machine the
// service was measured on, and 0.25-0.3 s straight to the disk. Direct writes go out from one reused
// staging buffer, or from the caller's own bytes where they are aligned to a page.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "platform/result.h"

namespace orvia {

class FileWriter {
 public:
  FileWriter();
  FileWriter(const FileWriter&) = delete;
  FileWriter& operator=(const FileWriter&) = delete;
  ~FileWriter();

  // Makes the file at `path` (or empties it). `direct`: false writes through the page cache only, as
  // does a path that names a pipe or a device (/dev/stdout), whose bytes go out in order.
  Result<bool> open(const std::string& path, bool direct = true);
  bool is_open() const;
  // Appends the bytes; false once a write is known to have failed (error() says why). A full staging buffer is
  // written out by a thread of the writer's own while the next one fills.
  bool write(std::string_view bytes);
  // Writes what is staged, sets the file's exact size and closes it.
  Result<bool> close();
  std::string error() const;

  static constexpr std::size_t kAlign = 4096;  // offsets, lengths and buffers of direct writes

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace orvia
