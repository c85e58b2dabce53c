#include "platform/file_writer.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/support.h"

namespace orvia {
namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20;

// Bytes that differ from block to block, so a block written twice or at the wrong offset shows.
std::string pattern(std::size_t size) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 131 + i / 4096) & 0xff);
  return s;
}

// Every way pieces can meet the staging buffer: none, small ones, ones spanning several stagings, page
// aligned ones that go out from the caller's memory (whole, or after staged bytes), and a file end in
// the middle of a block, which a direct write pads and cuts back.
TEST(FileWriter, WritesExactlyTheBytesHandedOverWhateverTheirSizesAndAlignment) {
  const struct {
    const char* name;
    std::vector<std::size_t> pieces;  // sizes, handed over in this order
    bool page_aligned;                // whether each piece starts on a page of its own (else one byte in)
    bool direct;
  } cases[] = {
      {"nothing", {}, false, true},
      {"one small piece", {100}, false, true},
      {"unaligned pieces over three stagings", {5 * kMiB + 3, 7 * kMiB, 1, 4 * kMiB + 12345}, false, true},
      {"aligned pieces from the caller's pages", {3 * kMiB, 4096 * 5, 10 * kMiB + 17}, true, true},
      {"aligned piece after staged bytes", {10, 2 * kMiB, 4095, 9 * kMiB}, true, true},
      {"a whole number of blocks", {4096, 8 * kMiB}, true, true},
      {"through the page cache", {5 * kMiB + 3, 1, 4 * kMiB + 12345}, false, false},
  };
  test::TempDir dir;
  const std::string path = (dir / "out").string();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::write_file(path, std::string(20 * kMiB, 'x'));  // longer than any case: emptied first
    std::string expected;
    FileWriter out;
    ASSERT_TRUE(out.open(path, c.direct).ok()) << out.error();
    for (std::size_t size : c.pieces) {
      const std::string bytes = pattern(expected.size() + size).substr(expected.size());
      std::unique_ptr<char, decltype(&std::free)> block(
          static_cast<char*>(std::aligned_alloc(FileWriter::kAlign, (size / FileWriter::kAlign + 2) * FileWriter::kAlign)),
          &std::free);
      char* at = std::copy(bytes.begin(), bytes.end(), block.get() + (c.page_aligned ? 0 : 1)) - size;
      ASSERT_TRUE(out.write(std::string_view(at, size))) << out.error();
      expected += bytes;
    }
    auto closed = out.close();
    ASSERT_TRUE(closed.ok()) << closed.error().message;
    EXPECT_TRUE(test::read_file(path) == expected);
  }
}

TEST(FileWriter, WritesToAMemoryFileSystemAndAPipeAndReportsFailures) {
  const std::string bytes = pattern(3 * kMiB + 5);
  // Older kernels refuse direct I/O on a memory file system: the same bytes then go through the page cache.
  const std::string shm = "/dev/shm/orvia-file-writer-test-" + std::to_string(::getpid());
  if (std::filesystem::is_directory("/dev/shm")) {
    FileWriter out;
    ASSERT_TRUE(out.open(shm).ok()) << out.error();
    EXPECT_TRUE(out.write(bytes) && out.close().ok());
    EXPECT_TRUE(test::read_file(shm) == bytes);
    std::filesystem::remove(shm);
  }
  // A pipe (as /dev/stdout may be) gets the bytes as they are, without padding.
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::string received;
  std::thread reader([&] {
    char buf[65536];
    for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) > 0;) received.append(buf, static_cast<std::size_t>(n));
  });
  {
    FileWriter out;
    EXPECT_TRUE(out.open("/proc/self/fd/" + std::to_string(fds[1])).ok()) << out.error();
    ::close(fds[1]);
    EXPECT_TRUE(out.write(bytes) && out.close().ok());
  }
  reader.join();
  ::close(fds[0]);
  EXPECT_TRUE(received == bytes);

  test::TempDir dir;
  FileWriter missing;
  EXPECT_FALSE(missing.open((dir / "no" / "such" / "folder").string()).ok());
  EXPECT_FALSE(missing.write("bytes"));
  EXPECT_FALSE(missing.close().ok());
}

}  // namespace
}  // namespace orvia
