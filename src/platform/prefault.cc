#include "platform/prefault.h"

#include <sys/mman.h>

#include <cstdint>

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

namespace orvia {

void prefault(void* p, std::size_t bytes) {
  constexpr std::uintptr_t kPage = 4096;
  const auto start = reinterpret_cast<std::uintptr_t>(p);
  const std::uintptr_t first = (start + kPage - 1) & ~(kPage - 1);
  const std::uintptr_t end = (start + bytes) & ~(kPage - 1);
  if (end > first) (void)::madvise(reinterpret_cast<void*>(first), end - first, MADV_POPULATE_WRITE);
}

}  // namespace orvia
