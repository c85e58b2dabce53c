// Fresh memory made resident in one call. A large block written for the first time otherwise takes one
// page fault per page, and on a virtual machine each fault costs several microseconds: the archive
// builder fills hundreds of megabytes of such blocks while the import's other thread waits on it.
#pragma once

#include <cstddef>
#include <memory>

namespace orvia {

// Makes the whole pages within [p, p + bytes) resident and writable. Contents are unchanged; a no-op
// where the system cannot (kernels before 5.14).
void prefault(void* p, std::size_t bytes);

// Starts loading the cache line at `p` (any address: nothing is read, no fault is taken). An asm
// statement rather than __builtin_prefetch: the compiler drops such a builtin as dead code when its
// address is worked out for it alone (a hash and a table slot), and g++ 12 did, so that the string
// table's slots were never loaded ahead.
inline void prefetch(const void* p) {
#if defined(__x86_64__) || defined(__i386__)
  asm volatile("prefetcht0 (%0)" : : "r"(p));
#else
  __builtin_prefetch(p);
#endif
}

// Blocks of at least this many bytes are worth it; smaller ones mostly reuse the allocator's pages.
inline constexpr std::size_t kPrefaultMinimum = std::size_t{256} << 10;

// The standard allocator, with large blocks prefaulted: for the vectors that grow to millions of
// entries (tables of the builder and the archiver).
template <class T>
struct PrefaultAllocator {
  using value_type = T;
  PrefaultAllocator() = default;
  template <class U>
  PrefaultAllocator(const PrefaultAllocator<U>&) {}
  T* allocate(std::size_t n) {
    T* p = std::allocator<T>().allocate(n);
    if (n * sizeof(T) >= kPrefaultMinimum) prefault(p, n * sizeof(T));
    return p;
  }
  void deallocate(T* p, std::size_t n) { std::allocator<T>().deallocate(p, n); }
  template <class U>
  bool operator==(const PrefaultAllocator<U>&) const {
    return true;
  }
};

// Blocks of a megabyte, for builders that fill hundreds of them (the archive builder's objects and
// bytes).
inline constexpr std::size_t kResidentBlock = std::size_t{1} << 20;
struct ResidentBlockFree {
  void operator()(std::byte* p) const noexcept;
};
using ResidentBlock = std::unique_ptr<std::byte[], ResidentBlockFree>;

// A resident block of kResidentBlock bytes: one made ready ahead by a PreparedBlocks when there is one,
// else a new one prefaulted here.
ResidentBlock resident_block();

// Frees a block, its pages given back to the system at once rather than kept by the allocator for its
// next blocks: for a builder that gives its memory back while it writes, so that the pages can hold
// what it writes (a memory file).
void give_back(ResidentBlock& block) noexcept;

// Gives the whole pages within [p, p + bytes) back to the system, for memory about to be freed that
// the allocator would otherwise keep resident a while. They read as zeros if touched again.
void give_back_pages(void* p, std::size_t bytes) noexcept;

// Makes blocks resident ahead of the builder that will take them, on a thread that runs only when a
// core would otherwise be idle: an import leaves one core idle while it reads the preferences and
// exports, then keeps both busy while it archives. Blocks nobody took are freed when the last
// PreparedBlocks alive ends.
class PreparedBlocks {
 public:
  explicit PreparedBlocks(std::size_t bytes);
  ~PreparedBlocks();
  PreparedBlocks(const PreparedBlocks&) = delete;
  PreparedBlocks& operator=(const PreparedBlocks&) = delete;
};

}  // namespace orvia
