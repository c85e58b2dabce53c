// codec_compare: our codecs timed on real reply bytes, for side-by-side comparison with other
// implementations run on the same bytes.
//
//   codec_compare keyed ARCHIVE [--runs N]
//       our keyed unarchiver (unarchive, with the reply's record classes registered) and archiver
//       (archive_root of the decoded reply). Prints "ours decode|encode <seconds>".
//   codec_compare plist ARCHIVE [--runs N] [--limit SECONDS]
//       the archive's property-list layer: our read_binary_plist / write_binary_plist and libplist's
//       plist_from_bin / plist_to_bin. Prints "ours|libplist read|write <seconds>". libplist's writer
//       takes time quadratic in the number of objects, so it runs in a child process that is stopped
//       after SECONDS (default 120); then "libplist write_stopped <seconds>" stands for its line.
//
// Each figure is the fastest of at least N runs (default 3); short ones are repeated up to 20 times
// within about a second, so that one disturbed run does not decide. Making the inputs and freeing the
// outputs are not timed. "info <key> <value>" lines give sizes and object counts.
#include <plist/plist.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>

#include "outline/outline_folder_item.h"
#include "platform/keyed_archive.h"
#include "platform/object.h"
#include "platform/plist.h"
#include "platform/value.h"
#include "records/records.h"

namespace orvia {
namespace {

double now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

struct PlistFree {
  void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<std::remove_pointer_t<plist_t>, PlistFree>;

bool read_whole(const std::string& path, std::string& bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream s;
  s << in.rdbuf();
  bytes = std::move(s).str();
  return true;
}

// Whether to make another run: at least `min_runs`, then more while they are short.
class Repeat {
 public:
  explicit Repeat(int min_runs) : min_runs_(min_runs), start_(now()) {}
  bool next() {
    if (done_ >= 20 || (done_ >= min_runs_ && now() - start_ > 1.0)) return false;
    ++done_;
    return true;
  }

 private:
  int min_runs_, done_ = 0;
  double start_;
};

class Fastest {
 public:
  void add(double seconds) {
    if (seconds < best_) best_ = seconds;
  }
  double best() const { return best_; }

 private:
  double best_ = 1e300;
};

int keyed(const std::string& bytes, int runs) {
  register_record_classes();
  register_outline_classes();
  Fastest decode, encode;
  std::size_t encoded_size = 0;
  bool same_bytes = false;
  for (Repeat repeat(runs); repeat.next();) {
    Heap heap;
    HeapScope scope(heap);
    double t0 = now();
    auto root = unarchive(bytes);
    double t1 = now();
    if (!root.ok()) {
      std::fprintf(stderr, "codec_compare: the archive does not decode: %s\n", root.error().message.c_str());
      return 1;
    }
    decode.add(t1 - t0);
    t0 = now();
    std::string again = archive_root(root.value().get());
    t1 = now();
    encode.add(t1 - t0);
    encoded_size = again.size();
    same_bytes = again == bytes;
  }
  std::printf("ours decode %.6f\nours encode %.6f\n", decode.best(), encode.best());
  std::printf("info archive_bytes %zu\ninfo encoded_bytes %zu\ninfo same_bytes %s\n", bytes.size(), encoded_size,
              same_bytes ? "yes" : "no");
  return 0;
}

// plist_to_bin of `root` in a child process: the seconds it took and the bytes it wrote, or nothing
// when it ran past `limit` seconds (the child is then stopped) or failed.
std::optional<std::pair<double, std::size_t>> libplist_write(plist_t root, double limit) {
  int fds[2];
  if (pipe(fds) != 0) return std::nullopt;
  const pid_t child = fork();
  if (child < 0) {
    close(fds[0]);
    close(fds[1]);
    return std::nullopt;
  }
  if (child == 0) {
    close(fds[0]);
    char* out = nullptr;
    uint32_t length = 0;
    const double t0 = now();
    plist_to_bin(root, &out, &length);
    const double report[2] = {now() - t0, out ? static_cast<double>(length) : -1.0};
    ssize_t ignored = write(fds[1], report, sizeof report);
    (void)ignored;
    _exit(0);
  }
  close(fds[1]);
  double report[2] = {0, -1};
  pollfd p{fds[0], POLLIN, 0};
  bool got = false;
  if (poll(&p, 1, static_cast<int>(limit * 1000)) == 1) {
    got = read(fds[0], report, sizeof report) == static_cast<ssize_t>(sizeof report);
  } else {
    kill(child, SIGKILL);
  }
  close(fds[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!got || report[1] < 0) return std::nullopt;
  return std::make_pair(report[0], static_cast<std::size_t>(report[1]));
}

int plist(const std::string& bytes, int runs, double limit) {
  Fastest ours_read, ours_write, lib_read, lib_write;
  std::size_t ours_size = 0, lib_size = 0, objects = 0;
  bool lib_write_stopped = false;
  for (Repeat repeat(runs); repeat.next();) {
    {
      Heap heap;
      HeapScope scope(heap);
      double t0 = now();
      auto root = read_binary_plist(bytes);
      double t1 = now();
      if (!root.ok()) {
        std::fprintf(stderr, "codec_compare: not a binary property list: %s\n", root.error().message.c_str());
        return 1;
      }
      ours_read.add(t1 - t0);
      if (const Dictionary* top = as_dict(root.value().get())) {
        if (const Array* all = as_array(top->get("$objects"))) objects = all->size();
      }
      t0 = now();
      auto written = write_binary_plist(root.value().get());
      t1 = now();
      if (!written.ok()) {
        std::fprintf(stderr, "codec_compare: write_binary_plist failed: %s\n", written.error().message.c_str());
        return 1;
      }
      ours_write.add(t1 - t0);
      ours_size = written.value().size();
    }
    {
      plist_t raw = nullptr;
      double t0 = now();
      plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &raw);
      double t1 = now();
      PlistPtr root(raw);
      if (!root) {
        std::fprintf(stderr, "codec_compare: libplist cannot read the bytes\n");
        return 1;
      }
      lib_read.add(t1 - t0);
      if (!lib_write_stopped) {
        auto written = libplist_write(root.get(), limit);
        if (written) {
          lib_write.add(written->first);
          lib_size = written->second;
        } else {
          lib_write_stopped = true;  // one run past the limit is enough to know
        }
      }
    }
  }
  std::printf("ours read %.6f\nours write %.6f\nlibplist read %.6f\n", ours_read.best(), ours_write.best(),
              lib_read.best());
  if (lib_write_stopped) std::printf("libplist write_stopped %.1f\n", limit);
  else std::printf("libplist write %.6f\n", lib_write.best());
  std::printf("info bytes %zu\ninfo objects %zu\ninfo ours_written_bytes %zu\ninfo libplist_written_bytes %zu\n",
              bytes.size(), objects, ours_size, lib_size);
  return 0;
}

}  // namespace
}  // namespace orvia

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: codec_compare keyed|plist ARCHIVE [--runs N] [--limit SECONDS]\n");
    return 2;
  }
  const std::string mode = argv[1], path = argv[2];
  int runs = 3;
  double limit = 120;
  for (int i = 3; i + 1 < argc; i += 2) {
    const std::string arg = argv[i];
    if (arg == "--runs") runs = std::max(1, std::atoi(argv[i + 1]));
    else if (arg == "--limit") limit = std::max(1.0, std::atof(argv[i + 1]));
  }
  std::string bytes;
  if (!orvia::read_whole(path, bytes)) {
    std::fprintf(stderr, "codec_compare: cannot read %s\n", path.c_str());
    return 1;
  }
  if (mode == "keyed") return orvia::keyed(bytes, runs);
  if (mode == "plist") return orvia::plist(bytes, runs, limit);
  std::fprintf(stderr, "usage: codec_compare keyed|plist ARCHIVE [--runs N] [--limit SECONDS]\n");
  return 2;
}
