#include "service/memfd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/support.h"

namespace orvia::service {
namespace {

std::string pattern(std::size_t size) {
  std::string s(size, '\0');
  std::uint32_t x = 2463534242u;
  for (auto& c : s) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    c = static_cast<char>(x);
  }
  return s;
}

TEST(SealedMemfd, HoldsExactlyTheBytesAndRefusesEveryChangeMadeAtOnceOrPieceByPiece) {
  for (std::size_t size : {std::size_t{0}, std::size_t{4099}, (std::size_t{3} << 20) + 17}) {
    SCOPED_TRACE(size);
    const std::string bytes = pattern(size);
    MemfdSink sink;
    sink.expect(bytes.size());
    for (std::size_t at = 0; at < bytes.size(); at += 1000003)
      ASSERT_TRUE(sink.put(std::string_view(bytes).substr(at, 1000003)));
    Result<UniqueFd> made[] = {make_sealed_memfd(bytes), sink.seal()};
    // Sealed once: the sink has nothing left to give.
    EXPECT_FALSE(sink.seal().ok());
    EXPECT_FALSE(sink.put("more"));
    for (Result<UniqueFd>& fd : made) {
      ASSERT_TRUE(fd.ok()) << fd.error().message;
      int f = fd.value().get();
      EXPECT_EQ(::fcntl(f, F_GET_SEALS), reply_seals());  // each seal is tried below
      EXPECT_NE(::fcntl(f, F_GETFD) & FD_CLOEXEC, 0);

      auto back = read_whole_fd(f, std::size_t{1} << 30);
      ASSERT_TRUE(back.ok()) << back.error().message;
      EXPECT_TRUE(back.value() == bytes);
      EXPECT_EQ(::lseek(f, 0, SEEK_CUR), 0) << "reading must not move the file position";

      errno = 0;
      EXPECT_EQ(::pwrite(f, "x", 1, 0), -1);
      EXPECT_EQ(errno, EPERM);
      EXPECT_EQ(::ftruncate(f, static_cast<off_t>(size + 1)), -1);
      EXPECT_EQ(::ftruncate(f, 0), size == 0 ? 0 : -1);  // shrinking an empty file to 0 changes nothing
      EXPECT_EQ(::fcntl(f, F_ADD_SEALS, 0), -1);
      if (size > 0) {
        void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, f, 0);
        EXPECT_EQ(p, MAP_FAILED);
        if (p != MAP_FAILED) ::munmap(p, size);
      }
    }
  }
}

TEST(ReadWholeFd, ReadsPipesToTheEndAndRefusesOversizedContents) {
  int p[2];
  ASSERT_EQ(::pipe(p), 0);
  ASSERT_EQ(::write(p[1], "archive", 7), 7);
  ::close(p[1]);
  UniqueFd reader(p[0]);
  auto got = read_whole_fd(reader.get(), 100);
  ASSERT_TRUE(got.ok());
  EXPECT_EQ(got.value(), "archive");

  auto fd = make_sealed_memfd(pattern(1000));
  ASSERT_TRUE(fd.ok());
  EXPECT_FALSE(read_whole_fd(fd.value().get(), 999).ok());
  EXPECT_TRUE(read_whole_fd(fd.value().get(), 1000).ok());

  EXPECT_FALSE(read_whole_fd(-1, 100).ok());
}

TEST(CopyWholeFd, CopiesEveryByteOfSmallAndLargeFilesAndReportsABadDestination) {
  test::TempDir dir;
  // Empty, small, and larger than one call of the kernel's copy or one direct write takes at once (and of
  // an odd size, whose last block is padded and cut back).
  for (std::size_t size : {std::size_t{0}, std::size_t{1} << 20, (std::size_t{64} << 20) + 12345}) {
    SCOPED_TRACE(size);
    const std::string bytes = pattern(size);
    auto memory = make_sealed_memfd(bytes);
    ASSERT_TRUE(memory.ok());
    const std::string copy = (dir / "copy").string();
    test::write_file(copy, "older, longer contents that must go");
    auto copied = copy_whole_fd_to_file(memory.value().get(), copy);
    ASSERT_TRUE(copied.ok()) << copied.error().message;
    EXPECT_TRUE(test::read_file(copy) == bytes);
    // From a regular file too, whose position stays where it was.
    UniqueFd file(::open(copy.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(file);
    const std::string again = (dir / "again").string();
    ASSERT_TRUE(copy_whole_fd_to_file(file.get(), again).ok());
    EXPECT_TRUE(test::read_file(again) == bytes);
    EXPECT_EQ(::lseek(file.get(), 0, SEEK_CUR), 0);
  }
  for (std::size_t size : {std::size_t{100}, std::size_t{2} << 20}) {  // through the page cache, and straight to disk
    auto memory = make_sealed_memfd(pattern(size));
    ASSERT_TRUE(memory.ok());
    EXPECT_FALSE(copy_whole_fd_to_file(memory.value().get(), (dir / "missing" / "copy").string()).ok());
  }
}

}  // namespace
}  // namespace orvia::service
