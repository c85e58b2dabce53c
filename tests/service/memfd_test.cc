// The memory files that carry replies: sealed against every change, read back whole, copied to files.
#include "service/memfd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "support/support.h"

namespace orvia::service {
namespace {

std::string pattern(std::size_t size) {
  std::string s(size, '\0');
  std::uint32_t x = 2463534242u;
  for (auto& c : s) x ^= x << 13, x ^= x >> 17, x ^= x << 5, c = static_cast<char>(x);
  return s;
}

// Made at once and piece by piece: each holds exactly the bytes, unchanged by reading, and refuses every
// change ("size" writes, truncates, seals and maps that failed, of 5).
TEST(SealedMemfd, HoldsExactlyTheBytesAndRefusesEveryChange) {
  for (std::size_t size : {std::size_t{0}, std::size_t{4099}, (std::size_t{3} << 20) + 17}) {
    SCOPED_TRACE(size);
    const std::string bytes = pattern(size);
    MemfdSink sink;
    sink.expect(bytes.size());
    for (std::size_t at = 0; at < bytes.size(); at += 1000003)
      ASSERT_TRUE(sink.put(std::string_view(bytes).substr(at, 1000003)));
    Result<UniqueFd> made[] = {make_sealed_memfd(bytes), sink.seal()};
    EXPECT_FALSE(sink.seal().ok() || sink.put("more")) << "sealed once, the sink has nothing left to give";
    for (Result<UniqueFd>& fd : made) {
      ASSERT_TRUE(fd.ok()) << fd.error().message;
      const int f = fd.value().get();
      auto back = read_whole_fd(f, std::size_t{1} << 30);
      ASSERT_TRUE(back.ok()) << back.error().message;
      EXPECT_TRUE(back.value() == bytes);
      void* map = size ? ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, f, 0) : MAP_FAILED;
      if (map != MAP_FAILED) ::munmap(map, size);
      int refused = ::pwrite(f, "x", 1, 0) == -1 && errno == EPERM;
      refused += (::ftruncate(f, off_t(size + 1)) == -1) + (::ftruncate(f, 0) == (size ? -1 : 0));
      refused += (::fcntl(f, F_ADD_SEALS, 0) == -1) + (map == MAP_FAILED);
      EXPECT_EQ(std::to_string(::fcntl(f, F_GET_SEALS) == reply_seals()) + " " + std::to_string(::fcntl(f, F_GETFD) & FD_CLOEXEC) +
                    " pos " + std::to_string(::lseek(f, 0, SEEK_CUR)) + " refused " + std::to_string(refused),
                "1 1 pos 0 refused 5");
    }
  }
}

TEST(ReadWholeFd, ReadsPipesToTheEndAndRefusesOversizedContents) {
  int p[2];
  ASSERT_EQ(::pipe(p), 0);
  ASSERT_EQ(::write(p[1], "archive", 7), 7);
  ::close(p[1]);
  UniqueFd reader(p[0]);
  EXPECT_EQ(read_whole_fd(reader.get(), 100).value(), "archive");
  auto fd = make_sealed_memfd(pattern(1000));
  ASSERT_TRUE(fd.ok());
  EXPECT_EQ(std::to_string(read_whole_fd(fd.value().get(), 999).ok()) + std::to_string(read_whole_fd(fd.value().get(), 1000).ok()) +
                std::to_string(read_whole_fd(-1, 100).ok()),
            "010");
}

// Empty, small, and larger than one call of the kernel's copy or one direct write takes at once (of an
// odd size, whose last block is padded and cut back); from a memory file and from a regular file, whose
// position stays where it was; over older, longer contents. A destination that cannot be made is an
// error, through the page cache and straight to disk.
TEST(CopyWholeFd, CopiesEveryByteOfSmallAndLargeFilesAndReportsABadDestination) {
  test::TempDir dir;
  const std::string copy = (dir / "copy").string(), again = (dir / "again").string();
  for (std::size_t size : {std::size_t{0}, std::size_t{1} << 20, (std::size_t{64} << 20) + 12345}) {
    SCOPED_TRACE(size);
    const std::string bytes = pattern(size);
    auto memory = make_sealed_memfd(bytes);
    test::write_file(copy, "older, longer contents that must go");
    ASSERT_TRUE(copy_whole_fd_to_file(memory.value().get(), copy).ok());
    EXPECT_TRUE(test::read_file(copy) == bytes);
    UniqueFd file(::open(copy.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(copy_whole_fd_to_file(file.get(), again).ok());
    EXPECT_TRUE(test::read_file(again) == bytes);
    EXPECT_EQ(::lseek(file.get(), 0, SEEK_CUR), 0);
  }
  for (std::size_t size : {std::size_t{100}, std::size_t{2} << 20})
    EXPECT_FALSE(copy_whole_fd_to_file(make_sealed_memfd(pattern(size)).value().get(), (dir / "no/copy").string()).ok());
}

}  // namespace
}  // namespace orvia::service
