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
  std::thread main_thread([&] { q.run(); });
  // Once a block has run there, that thread serves the queue and is the main thread.
  std::promise<std::thread::id> runner;
  q.async([&] { runner.set_value(std::this_thread::get_id()); });
  std::thread::id runner_id = runner.get_future().get();
  EXPECT_EQ(runner_id, main_thread.get_id());

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
  // store attach does when one request waits on the main queue while another starts. The state is
  // shared, not on this stack: the blocks still unlock after the test has seen them finish.
  struct State {
    std::mutex m;
    std::condition_variable cv;
    int arrived = 0;
    int finished = 0;
    std::promise<void> both;
    std::atomic<int> nice_value{-100};
    std::atomic<bool> any_main{false};
  };
  auto state = std::make_shared<State>();
  for (int i = 0; i < 2; ++i) {
    dispatch_background([state] {
      state->any_main = state->any_main || MainQueue::shared().is_main_thread();
      state->nice_value = ::getpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)));
      std::unique_lock lock(state->m);
      ++state->arrived;
      state->cv.notify_all();
      bool ok = state->cv.wait_for(lock, kPatience, [&] { return state->arrived == 2; });
      if (ok && ++state->finished == 2) state->both.set_value();
    });
  }
  ASSERT_EQ(state->both.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_FALSE(state->any_main);
  EXPECT_EQ(state->nice_value, 19);
}

}  // namespace
}  // namespace orvia
