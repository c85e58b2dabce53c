#include "platform/queue.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace orvia {
namespace {

using namespace std::chrono_literals;

// Generous bound for liveness waits (a stuck queue fails the test instead of hanging it).
constexpr auto kPatience = 30s;

TEST(MainQueue, RunsBlocksInOrderIncludingThoseTheyEnqueue) {
  std::vector<int> seen;
  MainQueue& q = MainQueue::shared();
  q.async([&] {
    seen.push_back(1);
    q.async([&] { seen.push_back(3); });
  });
  q.async([&] { seen.push_back(2); });
  q.drain();
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));
}

TEST(MainQueue, SyncOnTheMainThreadRunsInlineEvenInsideABlock) {
  MainQueue& q = MainQueue::shared();
  ASSERT_TRUE(q.is_main_thread());  // nobody serves the queue: the process's first thread is main
  int depth = 0;
  q.sync([&] {
    ++depth;
    q.sync([&] { ++depth; });
  });
  EXPECT_EQ(depth, 2);
  bool nested = false;
  q.async([&] { q.sync([&] { nested = q.is_main_thread(); }); });
  q.drain();
  EXPECT_TRUE(nested);
}

TEST(MainQueue, SyncFromAnotherThreadWaitsForTheMainThreadAndPassesExceptions) {
  MainQueue& q = MainQueue::shared();
  std::thread::id ran_on;
  bool done_before_return = false;
  std::string caught;
  std::atomic<bool> finished{false};
  std::thread worker([&] {
    bool done = false;
    q.sync([&] {
      ran_on = std::this_thread::get_id();
      done = true;
    });
    done_before_return = done;
    try {
      q.sync([] { throw std::runtime_error("broken block"); });
    } catch (const std::runtime_error& e) {
      caught = e.what();
    }
    finished = true;
  });
  for (auto until = std::chrono::steady_clock::now() + kPatience;
       !finished && std::chrono::steady_clock::now() < until;) {
    q.drain(100ms);
  }
  worker.join();
  EXPECT_EQ(ran_on, std::this_thread::get_id());
  EXPECT_TRUE(done_before_return);
  EXPECT_EQ(caught, "broken block");
}

TEST(MainQueue, RunMakesItsThreadTheMainThreadUntilStopped) {
  MainQueue& q = MainQueue::shared();
  std::promise<std::thread::id> runner;
  std::thread main_thread([&] {
    runner.set_value(std::this_thread::get_id());
    q.run();
  });
  std::thread::id runner_id = runner.get_future().get();

  std::atomic<bool> main_inside{false};
  std::atomic<bool> test_thread_is_main{true};
  std::thread::id block_thread;
  q.sync([&] {
    block_thread = std::this_thread::get_id();
    main_inside = q.is_main_thread();
  });
  test_thread_is_main = q.is_main_thread();
  // A block that throws does not end the run.
  q.async([] { throw std::runtime_error("ignored"); });
  int after = 0;
  q.sync([&] { after = 1; });
  q.stop();
  main_thread.join();

  EXPECT_EQ(block_thread, runner_id);
  EXPECT_TRUE(main_inside);
  EXPECT_FALSE(test_thread_is_main);
  EXPECT_EQ(after, 1);
  EXPECT_TRUE(q.is_main_thread());  // back to the process's first thread once nobody serves
}

TEST(BackgroundQueue, RunsBlocksConcurrentlyAtLowPriorityOffTheMainThread) {
  // Two blocks that each wait for the other can only finish when they run at the same time, as the
  // store attach does when one request waits on the main queue while another starts.
  std::mutex m;
  std::condition_variable cv;
  int arrived = 0;
  std::promise<void> both;
  std::atomic<int> finished{0};
  std::atomic<int> nice_value{-100};
  std::atomic<bool> any_main{false};
  for (int i = 0; i < 2; ++i) {
    dispatch_background([&] {
      any_main = any_main || MainQueue::shared().is_main_thread();
      errno = 0;
      nice_value = ::getpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)));
      std::unique_lock lock(m);
      ++arrived;
      cv.notify_all();
      bool ok = cv.wait_for(lock, kPatience, [&] { return arrived == 2; });
      if (ok && ++finished == 2) both.set_value();
    });
  }
  ASSERT_EQ(both.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_FALSE(any_main);
  EXPECT_EQ(nice_value, 19);
}

TEST(BackgroundQueue, BlockCanWaitForTheMainQueueWhileMainDrains) {
  // The store-attach pattern: background work hands a continuation to the main queue and waits.
  MainQueue& q = MainQueue::shared();
  std::promise<std::thread::id> continuation;
  std::atomic<bool> background_returned{false};
  dispatch_background([&] {
    q.sync([&] { continuation.set_value(std::this_thread::get_id()); });
    background_returned = true;
  });
  q.drain(kPatience);
  auto f = continuation.get_future();
  ASSERT_EQ(f.wait_for(0s), std::future_status::ready);
  EXPECT_EQ(f.get(), std::this_thread::get_id());
  for (int i = 0; i < 3000 && !background_returned; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(background_returned);
}

}  // namespace
}  // namespace orvia
