#include "platform/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/value.h"
#include "support/support.h"

namespace orvia {
namespace {

using Lines = std::vector<std::string>;

// Sends this process's stderr to a file until read.
class StderrToFile {
 public:
  explicit StderrToFile(std::filesystem::path path) : path_(std::move(path)) {
    const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
  }
  ~StderrToFile() { read(); }
  std::string read() {
    if (saved_ >= 0) ::dup2(saved_, STDERR_FILENO), ::close(saved_), saved_ = -1;
    return test::read_file(path_);
  }

 private:
  int saved_ = (fflush(stderr), ::dup(STDERR_FILENO));
  std::filesystem::path path_;
};

TEST(Log, CapturesGetExactLinesAndNestAndTheStderrCopyCanBeSilenced) {
  test::TempDir dir;
  StderrToFile redirect(dir / "stderr.txt");
  LogCapture outer;
  NSLog("Unknown item %@", str("com.brenvik.velmora.folderTagsIdentifier"));
  set_log_to_stderr(false);
  {
    LogCapture inner;
    NSLog("invalid imported node for %@ in %@", str("a b"), "tags");
    log_line("two\nlines");
    EXPECT_EQ(inner.lines(), (Lines{"invalid imported node for a b in tags", "two\nlines"}));
    inner.clear();
    EXPECT_TRUE(inner.lines().empty());
  }
  set_log_to_stderr(true);
  NSLog("%li", 3);
  log_line("multi\nline");
  EXPECT_EQ(redirect.read(), "Unknown item com.brenvik.velmora.folderTagsIdentifier\n3\nmulti\nline\n");
  EXPECT_EQ(outer.lines(), (Lines{"Unknown item com.brenvik.velmora.folderTagsIdentifier",
                                  "invalid imported node for a b in tags", "two\nlines", "3", "multi\nline"}));
  EXPECT_TRUE(outer.contains("two\nlines"));
  EXPECT_FALSE(outer.contains("two"));
}

TEST(Log, LinesFromManyThreadsStayWholeOnStderrAndInCaptures) {
  test::TempDir dir;
  constexpr int kThreads = 8, kLines = 400;
  const auto text = [](int t, int i) { return std::string(i == kLines ? 300000 : i * 13 % 5000, 'a' + t); };
  LogCapture capture;
  StderrToFile redirect(dir / "stderr.txt");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &text] {
      // Lines of different lengths, some longer than a pipe's atomic write size, and on one thread
      // one far longer than the system log takes (stderr and captures still get it whole).
      for (int i = 0; i <= (t == 0 ? kLines : kLines - 1); ++i) NSLog("thread %d line %d %@", t, i, text(t, i));
    });
  }
  for (auto& th : threads) th.join();
  const std::string out = redirect.read();

  std::map<std::string, int> expected, captured, written;
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i <= (t == 0 ? kLines : kLines - 1); ++i) expected[format("thread %d line %d %@", {t, i, text(t, i)})]++;
  for (const auto& line : capture.lines()) captured[line]++;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) written[line]++;
  EXPECT_EQ(captured, expected);
  EXPECT_EQ(written, expected);
  EXPECT_EQ(out.back(), '\n');
}

TEST(Log, HeldLinesWaitForTheThreadThatWritesThem) {
  LogCapture capture;
  Lines held, inner_held;
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
  EXPECT_EQ(held, (Lines{"loaded a", "two\nlines"}));
  EXPECT_EQ(inner_held, (Lines{"inner"}));
  EXPECT_EQ(capture.lines(), (Lines{"meanwhile"}));
  write_held(held);
  EXPECT_TRUE(held.empty());
  EXPECT_EQ(capture.lines(), (Lines{"meanwhile", "loaded a", "two\nlines"}));
}

}  // namespace
}  // namespace orvia
