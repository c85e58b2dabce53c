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

TEST(MainQueue, RunsBlocksInOrderAndSyncOnTheMainThreadRunsInline) {
  MainQueue& q = MainQueue::shared();
  ASSERT_TRUE(q.is_main_thread());  // nobody serves the queue: the process's first thread is main
  std::vector<int> seen;
  q.sync([&] { q.sync([&] { seen.push_back(0); }); });
  q.async([&] {
    seen.push_back(1);
    q.async([&] { seen.push_back(4); });
    q.sync([&] { seen.push_back(q.is_main_thread() ? 2 : -2); });
  });
  q.async([&] { seen.push_back(3); });
  q.drain();
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(MainQueue, RunMakesItsThreadTheMainThreadUntilStoppedAndSyncWaitsForIt) {
  MainQueue& q = MainQueue::shared();
  std::thread main_thread([&] { q.run(); });
  const std::thread::id main_id = main_thread.get_id();
  std::promise<void> serving;  // once a block has run there, that thread serves the queue
  q.async([&] { serving.set_value(); });
  serving.get_future().wait();
  std::thread::id block_thread;
  bool main_inside = false;
  q.sync([&] { block_thread = std::this_thread::get_id(), main_inside = q.is_main_thread(); });
  const bool test_thread_is_main = q.is_main_thread();
  q.async([] { throw std::runtime_error("ignored"); });  // does not end the run
  std::string caught;  // a block run for another thread's sync passes its exception to that thread
  try {
    q.sync([] { throw std::runtime_error("broken block"); });
  } catch (const std::runtime_error& e) {
    caught = e.what();
  }
  int after = 0;
  q.sync([&] { after = 1; });
  q.stop();
  main_thread.join();
  EXPECT_EQ(block_thread, main_id);
  EXPECT_TRUE(main_inside);
  EXPECT_FALSE(test_thread_is_main);
  EXPECT_EQ(after, 1);
  EXPECT_EQ(caught, "broken block");
  EXPECT_TRUE(q.is_main_thread());  // back to the process's first thread once nobody serves
}

TEST(BackgroundQueue, RunsBlocksConcurrentlyAtLowPriorityOffTheMainThread) {
  // Two blocks that each wait for the other can only finish when they run at the same time, as the
  // store attach does when one request waits on the main queue while another starts. The state is
  // shared, not on this stack: the blocks still unlock after the test has seen them finish.
  struct State {
    std::mutex m;
    std::condition_variable cv;
    int arrived = 0, finished = 0;
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
      if (state->cv.wait_for(lock, kPatience, [&] { return state->arrived == 2; }) && ++state->finished == 2)
        state->both.set_value();
    });
  }
  ASSERT_EQ(state->both.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_FALSE(state->any_main);
  EXPECT_EQ(state->nice_value, 19);
}

}  // namespace
}  // namespace orvia
