#include "platform/queue.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

#include "platform/log.h"

namespace orvia {
namespace {

bool is_process_main_thread() { return static_cast<pid_t>(::syscall(SYS_gettid)) == ::getpid(); }

// Blocks must not throw; one that does is logged and dropped, so the queue keeps serving.
void run_block(const Block& block) {
  try {
    block();
  } catch (const std::exception& e) {
    log_line(std::string("uncaught exception in a queued block: ") + e.what());
  } catch (...) {
    log_line("uncaught exception in a queued block");
  }
}

struct MainQueueState {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<Block> blocks;
  bool stop_requested = false;
  // The thread serving the queue (run() or drain()); when none serves it, the process's first thread
  // counts as the main thread, as on the platform.
  std::atomic<std::thread::id> owner{};
  int serving = 0;  // nesting of run()/drain() on the owner thread
};

MainQueueState& state() {
  // Never destroyed: background threads may still post while the process exits.
  static MainQueueState* s = new MainQueueState;
  return *s;
}

// Makes the calling thread the main thread for the scope of a run() or drain().
class ServingScope {
 public:
  explicit ServingScope(MainQueueState& s) : s_(s), previous_(s.owner.load()) {
    s_.owner.store(std::this_thread::get_id());
    ++s_.serving;
  }
  ~ServingScope() {
    if (--s_.serving == 0) s_.owner.store(previous_);
  }

 private:
  MainQueueState& s_;
  std::thread::id previous_;
};

}  // namespace

MainQueue& MainQueue::shared() {
  static MainQueue queue;
  return queue;
}

void MainQueue::async(Block block) {
  MainQueueState& s = state();
  {
    std::lock_guard lock(s.mutex);
    s.blocks.push_back(std::move(block));
  }
  s.cv.notify_all();
}

void MainQueue::sync(Block block) {
  if (is_main_thread()) {
    block();
    return;
  }
  struct Waiter {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    std::exception_ptr error;
  };
  auto waiter = std::make_shared<Waiter>();
  async([waiter, &block] {
    try {
      block();
    } catch (...) {
      waiter->error = std::current_exception();
    }
    std::lock_guard lock(waiter->mutex);
    waiter->done = true;
    waiter->cv.notify_all();
  });
  std::unique_lock lock(waiter->mutex);
  waiter->cv.wait(lock, [&] { return waiter->done; });
  // As if the block had run on this thread: its exception reaches the caller.
  if (waiter->error) std::rethrow_exception(waiter->error);
}

void MainQueue::run() {
  MainQueueState& s = state();
  ServingScope scope(s);
  std::unique_lock lock(s.mutex);
  for (;;) {
    s.cv.wait(lock, [&] { return s.stop_requested || !s.blocks.empty(); });
    if (s.stop_requested) {
      // stop() ends this run only; blocks still queued wait for the next run() or drain().
      s.stop_requested = false;
      return;
    }
    Block block = std::move(s.blocks.front());
    s.blocks.pop_front();
    lock.unlock();
    run_block(block);
    block = nullptr;  // release captures outside the lock
    lock.lock();
  }
}

// Waits up to max_wait for a first block when the queue is empty, then runs blocks (including those
// they enqueue) until the queue is empty or the deadline passes; with max_wait 0 it only runs what is
// queued, however long that takes.
void MainQueue::drain(std::chrono::milliseconds max_wait) {
  MainQueueState& s = state();
  ServingScope scope(s);
  const auto deadline = std::chrono::steady_clock::now() + max_wait;
  std::unique_lock lock(s.mutex);
  if (s.blocks.empty() && max_wait.count() > 0) {
    s.cv.wait_until(lock, deadline, [&] { return !s.blocks.empty() || s.stop_requested; });
  }
  while (!s.blocks.empty() && !s.stop_requested) {
    Block block = std::move(s.blocks.front());
    s.blocks.pop_front();
    lock.unlock();
    run_block(block);
    block = nullptr;
    lock.lock();
    if (max_wait.count() > 0 && std::chrono::steady_clock::now() >= deadline) break;
  }
  s.stop_requested = false;
}

void MainQueue::stop() {
  MainQueueState& s = state();
  {
    std::lock_guard lock(s.mutex);
    s.stop_requested = true;
  }
  s.cv.notify_all();
}

bool MainQueue::is_main_thread() const {
  std::thread::id owner = state().owner.load();
  if (owner != std::thread::id()) return owner == std::this_thread::get_id();
  return is_process_main_thread();
}

namespace {

// The background queue: blocks may run concurrently, as on a global queue. A block that waits for the
// main queue occupies its worker for that long, so a new worker starts whenever none is idle (up to a
// limit); idle workers end after a while.
struct BackgroundPool {
  static constexpr int kMaxWorkers = 64;
  static constexpr auto kIdleLifetime = std::chrono::seconds(10);

  std::mutex mutex;
  std::condition_variable cv;
  std::deque<Block> blocks;
  int workers = 0;
  int idle = 0;

  void submit(Block block) {
    std::unique_lock lock(mutex);
    blocks.push_back(std::move(block));
    bool spawn = blocks.size() > static_cast<std::size_t>(idle) && workers < kMaxWorkers;
    if (spawn) ++workers;
    lock.unlock();
    cv.notify_one();
    if (!spawn) return;
    try {
      std::thread([this] { work(); }).detach();
    } catch (const std::system_error& e) {
      log_line(std::string("cannot start a background thread: ") + e.what());
      lock.lock();
      --workers;
      if (workers > 0) return;  // a running worker will take the block
      // Nobody would ever run it: run it here rather than lose it.
      Block lost = std::move(blocks.back());
      blocks.pop_back();
      lock.unlock();
      run_block(lost);
    }
  }

  void work() {
    name_this_thread("orvia-bg");
    // The platform's background priority: the lowest scheduling priority for this thread.
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)), 19);
    std::unique_lock lock(mutex);
    for (;;) {
      ++idle;
      bool got = cv.wait_for(lock, kIdleLifetime, [&] { return !blocks.empty(); });
      --idle;
      if (!got) {
        --workers;
        return;
      }
      Block block = std::move(blocks.front());
      blocks.pop_front();
      lock.unlock();
      run_block(block);
      block = nullptr;
      lock.lock();
    }
  }
};

BackgroundPool& pool() {
  static BackgroundPool* p = new BackgroundPool;  // never destroyed: workers are detached
  return *p;
}

}  // namespace

void dispatch_background(Block block) { pool().submit(std::move(block)); }

void name_this_thread(const char* name) {
  char cut[16] = {};
  std::strncpy(cut, name, sizeof cut - 1);
  ::pthread_setname_np(::pthread_self(), cut);
}

}  // namespace orvia
