// The parts that meet the system: the file writer, the queues and the home folder.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/file_writer.h"
#include "platform/home.h"
#include "platform/queue.h"
#include "support/support.h"

namespace orvia {
namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20;

// Every way pieces can meet the staging buffer: none, small ones, ones spanning several stagings, page aligned ones
// that go out from the caller's memory (whole, or after staged bytes), and a file end in the middle of a block, which
// a direct write pads and cuts back. Then a memory file system (older kernels refuse it direct I/O: the bytes then go
// through the page cache), a pipe (as /dev/stdout may be), which gets the bytes as they are, and a missing folder.
TEST(FileWriter, WritesExactlyTheBytesHandedOverWhereverTheyGo) {
  const std::string pipe_path = "/proc/self/fd/", shm = "/dev/shm/orvia-file-writer-test-" + std::to_string(::getpid());
  const struct {
    std::vector<std::size_t> pieces;  // sizes, handed over in this order
    bool page_aligned;                // whether each piece starts on a page of its own (else one byte in)
    bool direct;
    std::string path;  // empty: a file in a temporary folder
  } cases[] = {
      {{}, false, true, ""},
      {{100}, false, true, ""},
      {{5 * kMiB + 3, 7 * kMiB, 1, 4 * kMiB + 12345}, false, true, ""},  // unaligned, over three stagings
      {{3 * kMiB, 4096 * 5, 10 * kMiB + 17}, true, true, ""},
      {{10, 2 * kMiB, 4095, 9 * kMiB}, true, true, ""},  // aligned after staged bytes
      {{4096, 8 * kMiB}, true, true, ""},                // whole blocks
      {{5 * kMiB + 3, 1, 4 * kMiB + 12345}, false, false, ""},
      {{3 * kMiB + 5}, false, true, shm},
      {{3 * kMiB + 5}, false, true, pipe_path},
  };
  test::TempDir dir;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.pieces.size() << " pieces to " << c.path);
    std::string path = c.path.empty() ? (dir / "out").string() : c.path, expected, received;
    if (c.path.empty()) test::write_file(path, std::string(20 * kMiB, 'x'));  // longer than any case: emptied first
    if (c.path == shm && !std::filesystem::is_directory("/dev/shm")) continue;
    int fds[2] = {-1, -1};
    std::thread reader;
    if (c.path == pipe_path) {
      ASSERT_EQ(::pipe(fds), 0);
      path += std::to_string(fds[1]);
      reader = std::thread([&] {
        char buf[65536];
        for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) > 0;) received.append(buf, static_cast<std::size_t>(n));
      });
    }
    FileWriter out;
    ASSERT_TRUE(out.open(path, c.direct).ok()) << out.error();
    if (fds[1] >= 0) ::close(fds[1]);
    for (std::size_t size : c.pieces) {
      std::string bytes(size, '\0');  // differ from block to block, so a block written twice or at the wrong offset shows
      for (std::size_t i = 0, at = expected.size(); i < size; ++i, ++at) bytes[i] = static_cast<char>((at * 131 + at / 4096) & 0xff);
      std::unique_ptr<char, decltype(&std::free)> block(
          static_cast<char*>(std::aligned_alloc(FileWriter::kAlign, (size / FileWriter::kAlign + 2) * FileWriter::kAlign)), &std::free);
      char* at = std::copy(bytes.begin(), bytes.end(), block.get() + (c.page_aligned ? 0 : 1)) - size;
      ASSERT_TRUE(out.write(std::string_view(at, size))) << out.error();
      expected += bytes;
    }
    auto closed = out.close();
    ASSERT_TRUE(closed.ok()) << closed.error().message;
    if (reader.joinable()) reader.join(), ::close(fds[0]);
    EXPECT_TRUE((c.path == pipe_path ? received : test::read_file(path)) == expected);
    if (c.path == shm) std::filesystem::remove(shm);
  }
  FileWriter missing;
  EXPECT_FALSE(missing.open((dir / "no" / "such" / "folder").string()).ok());
  EXPECT_FALSE(missing.write("bytes"));
  EXPECT_FALSE(missing.close().ok());
}

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
  const std::thread::id main_id = main_thread.get_id();
  main_thread.join();
  EXPECT_EQ(block_thread, main_id);
  EXPECT_TRUE(main_inside && !test_thread_is_main);
  EXPECT_EQ(after, 1);
  EXPECT_EQ(caught, "broken block");
  EXPECT_TRUE(q.is_main_thread());  // back to the process's first thread once nobody serves
}

TEST(BackgroundQueue, RunsBlocksConcurrentlyAtLowPriorityOffTheMainThread) {
  // Two blocks that each wait for the other can only finish when they run at the same time, as the store attach
  // does when one request waits on the main queue while another starts. The state is shared, not on this stack:
  // the blocks still unlock after the test has seen them finish.
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
      if (state->cv.wait_for(lock, std::chrono::seconds(30), [&] { return state->arrived == 2; }) && ++state->finished == 2) state->both.set_value();
    });
  }
  ASSERT_EQ(state->both.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);  // a stuck queue fails, not hangs
  EXPECT_FALSE(state->any_main);
  EXPECT_EQ(state->nice_value, 19);
}

TEST(HomeDirectory, PrefersHomeThenThePasswordDatabase) {
  const char* old = std::getenv("HOME");
  const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
  std::vector<std::string> found;
  for (const char* value : {"/srv/users/anna", static_cast<const char*>(nullptr), ""}) {
    value ? ::setenv("HOME", value, 1) : ::unsetenv("HOME");
    found.push_back(home_directory());
  }
  saved ? ::setenv("HOME", saved->c_str(), 1) : ::unsetenv("HOME");
  const passwd* entry = ::getpwuid(::geteuid());
  const std::string from_passwd = entry && entry->pw_dir && *entry->pw_dir ? entry->pw_dir : "/";
  EXPECT_EQ(found, (std::vector<std::string>{"/srv/users/anna", from_passwd, from_passwd}));
}

}  // namespace
}  // namespace orvia
