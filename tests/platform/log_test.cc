#include "platform/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "platform/value.h"
#include "support/support.h"

namespace orvia {
namespace {

// Sends this process's stderr to a file while it exists.
class StderrToFile {
 public:
  explicit StderrToFile(const std::filesystem::path& path) : path_(path) {
    fflush(stderr);
    saved_ = ::dup(STDERR_FILENO);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
  }
  ~StderrToFile() { restore(); }
  std::string restore_and_read() {
    restore();
    return test::read_file(path_);
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
    saved_ = -1;
  }
  std::filesystem::path path_;
  int saved_ = -1;
};

TEST(Log, CapturesExactLinesAndNests) {
  set_log_to_stderr(false);
  LogCapture outer;
  NSLog("Unknown item %@", str("com.brenvik.velmora.folderTagsIdentifier"));
  {
    LogCapture inner;
    NSLog("invalid imported node for %@ in %@", str("a b"), "tags");
    log_line("two\nlines");
    EXPECT_EQ(inner.lines(), (std::vector<std::string>{"invalid imported node for a b in tags", "two\nlines"}));
    inner.clear();
    EXPECT_TRUE(inner.lines().empty());
  }
  NSLog("%li", 3);
  set_log_to_stderr(true);
  EXPECT_EQ(outer.lines(), (std::vector<std::string>{"Unknown item com.brenvik.velmora.folderTagsIdentifier",
                                                     "invalid imported node for a b in tags", "two\nlines", "3"}));
  EXPECT_TRUE(outer.contains("two\nlines"));
  EXPECT_FALSE(outer.contains("two"));
}

TEST(Log, LinesFromManyThreadsStayWholeOnStderrAndInCaptures) {
  test::TempDir dir;
  const int kThreads = 8;
  const int kLines = 400;
  std::string out;
  LogCapture capture;
  {
    StderrToFile redirect(dir / "stderr.txt");
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([t, long_line = kLines] {
        // Lines of different lengths, some longer than a pipe's atomic write size.
        for (int i = 0; i < kLines; ++i) NSLog("thread %d line %d %@", t, i, std::string(i * 13 % 5000, 'a' + t));
        // And one far longer than the system log takes (stderr and captures still get it whole).
        if (t == 0) NSLog("thread %d line %d %@", t, long_line, std::string(300000, 'z'));
      });
    }
    for (auto& th : threads) th.join();
    out = redirect.restore_and_read();
  }

  std::map<std::string, int> expected;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kLines; ++i) {
      expected[format("thread %d line %d %@", {t, i, std::string(i * 13 % 5000, 'a' + t)})]++;
    }
  }
  expected[format("thread %d line %d %@", {0, kLines, std::string(300000, 'z')})]++;
  std::map<std::string, int> captured;
  for (const auto& line : capture.lines()) captured[line]++;
  EXPECT_EQ(captured, expected);

  std::map<std::string, int> written;
  std::size_t start = 0;
  while (start < out.size()) {
    std::size_t end = out.find('\n', start);
    ASSERT_NE(end, std::string::npos);
    written[out.substr(start, end - start)]++;
    start = end + 1;
  }
  EXPECT_EQ(written, expected);
}

TEST(Log, HeldLinesWaitForTheThreadThatWritesThem) {
  LogCapture capture;
  std::vector<std::string> held, inner_held;
  std::thread helper([&] {
    LogHold hold(held);
    NSLog("loaded %@", "a");
    {
      LogHold inner(inner_held);
      log_line("inner");
    }
    log_line("two\nlines");
  });
  helper.join();
  log_line("meanwhile");  // this thread holds nothing
  EXPECT_EQ(held, (std::vector<std::string>{"loaded a", "two\nlines"}));
  EXPECT_EQ(inner_held, (std::vector<std::string>{"inner"}));
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"meanwhile"}));
  write_held(held);
  EXPECT_TRUE(held.empty());
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"meanwhile", "loaded a", "two\nlines"}));
}

TEST(Log, StderrCopyCanBeSilenced) {
  test::TempDir dir;
  StderrToFile redirect(dir / "stderr.txt");
  LogCapture capture;
  log_line("shown");
  set_log_to_stderr(false);
  log_line("hidden");
  set_log_to_stderr(true);
  log_line("multi\nline");
  EXPECT_EQ(redirect.restore_and_read(), "shown\nmulti\nline\n");
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"shown", "hidden", "multi\nline"}));
}

}  // namespace
}  // namespace orvia
