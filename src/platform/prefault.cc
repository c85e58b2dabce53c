#include "platform/prefault.h"

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/queue.h"

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

namespace orvia {

namespace {

// madvise over the whole pages within [p, p + bytes) (an allocator need not align a block on a page).
void advise_whole_pages(void* p, std::size_t bytes, int advice) {
  constexpr std::uintptr_t kPage = 4096;
  const auto start = reinterpret_cast<std::uintptr_t>(p);
  const std::uintptr_t first = (start + kPage - 1) & ~(kPage - 1);
  const std::uintptr_t end = (start + bytes) & ~(kPage - 1);
  if (end > first) (void)::madvise(reinterpret_cast<void*>(first), end - first, advice);
}

}  // namespace

void prefault(void* p, std::size_t bytes) { advise_whole_pages(p, bytes, MADV_POPULATE_WRITE); }

namespace {

// The blocks made ready, and the thread making them. Never destroyed: the thread may outlive statics.
struct Prepared {
  std::mutex mutex;
  std::vector<std::byte*> ready;
  std::atomic<std::size_t> ready_count{0};  // read without the lock by resident_block()
  std::size_t wanted = 0;                   // blocks to make, counting those taken already
  std::size_t made = 0;
  int holders = 0;
  std::thread thread;
};

Prepared& prepared() {
  static Prepared* p = new Prepared;
  return *p;
}

std::byte* new_block() { return static_cast<std::byte*>(::operator new(kResidentBlock)); }

void make_blocks(Prepared& s) {
  name_this_thread("orvia-prefault");
  // Only when a core is otherwise idle: the import's own threads always come first.
  sched_param param{};
  (void)pthread_setschedparam(pthread_self(), SCHED_IDLE, &param);
  std::unique_lock lock(s.mutex);
  while (s.holders > 0 && s.made < s.wanted) {
    lock.unlock();
    std::byte* block = nullptr;
    try {
      block = new_block();
      // Page by page rather than with one madvise: a page fault holds only its own mapping's lock
      // (briefly), never the process's map lock for a whole block, which a thread that maps memory
      // would wait for while this one, running only on an idle core, may not be running.
      for (std::size_t at = 0; at < kResidentBlock; at += 4096)
        static_cast<volatile std::byte*>(block)[at] = std::byte{0};
    } catch (const std::bad_alloc&) {  // no memory to spare: the builder makes its own
    }
    lock.lock();
    if (!block) break;
    s.ready.push_back(block);
    s.ready_count.store(s.ready.size(), std::memory_order_relaxed);
    ++s.made;
  }
}

}  // namespace

void ResidentBlockFree::operator()(std::byte* p) const noexcept { ::operator delete(p); }

void give_back(ResidentBlock& block) noexcept {
  if (!block) return;
  give_back_pages(block.get(), kResidentBlock);
  block.reset();
}

void give_back_pages(void* p, std::size_t bytes) noexcept { advise_whole_pages(p, bytes, MADV_DONTNEED); }

ResidentBlock resident_block() {
  Prepared& s = prepared();
  if (s.ready_count.load(std::memory_order_relaxed) > 0) {
    std::lock_guard lock(s.mutex);
    if (!s.ready.empty()) {
      ResidentBlock block(s.ready.back());
      s.ready.pop_back();
      s.ready_count.store(s.ready.size(), std::memory_order_relaxed);
      return block;
    }
  }
  ResidentBlock block(new_block());
  prefault(block.get(), kResidentBlock);
  return block;
}

PreparedBlocks::PreparedBlocks(std::size_t bytes) {
  Prepared& s = prepared();
  std::lock_guard lock(s.mutex);
  ++s.holders;
  s.wanted = std::max(s.wanted, bytes / kResidentBlock);
  if (s.thread.joinable() || s.made >= s.wanted) return;
  try {
    s.thread = std::thread([&s] { make_blocks(s); });
  } catch (const std::system_error&) {  // no thread to be had: the builder makes its own blocks
  }
}

PreparedBlocks::~PreparedBlocks() {
  Prepared& s = prepared();
  std::vector<std::byte*> untaken;
  std::thread thread;
  {
    std::lock_guard lock(s.mutex);
    if (--s.holders > 0) return;
    thread = std::move(s.thread);
    untaken.swap(s.ready);
    s.ready_count.store(0, std::memory_order_relaxed);
    s.wanted = 0;
    s.made = 0;
  }
  if (thread.joinable()) thread.join();  // it stops after the block in hand (holders is 0)
  std::lock_guard lock(s.mutex);
  // What it made meanwhile goes too, unless a new holder has come to take it.
  if (s.holders == 0) {
    untaken.insert(untaken.end(), s.ready.begin(), s.ready.end());
    s.ready.clear();
    s.ready_count.store(0, std::memory_order_relaxed);
    s.made = 0;
  }
  for (std::byte* p : untaken) ::operator delete(p);
}

}  // namespace orvia
