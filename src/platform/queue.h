// Serial queues in the manner of the platform's dispatch queues: the main queue runs its blocks one
// after another on the thread that calls run(); the background queue runs blocks on low-priority
// worker threads.
#pragma once

#include <chrono>
#include <functional>

namespace orvia {

using Block = std::function<void()>;

class MainQueue {
 public:
  static MainQueue& shared();
  // Enqueue a block; returns at once.
  void async(Block block);
  // Enqueue a block and wait until it has run. Called on the main thread itself, it runs the block
  // inline (no deadlock).
  void sync(Block block);
  // Serve the queue on the calling thread until stop(); that thread becomes the main thread.
  void run();
  // Run queued blocks until the queue is empty or the deadline passes (tests without a main loop).
  void drain(std::chrono::milliseconds max_wait = std::chrono::milliseconds(0));
  void stop();
  bool is_main_thread() const;
};

// Runs a block on the global background-priority queue (a worker thread of the lowest priority).
void dispatch_background(Block block);

// Names the calling thread as tools show it (ps, top, perf, gdb); at most 15 characters are kept.
void name_this_thread(const char* name);

}  // namespace orvia
