// A main for the fuzz targets without libFuzzer: runs the target once over each file named on the
// command line, and over every file below each folder named there (in name order). Exits non-zero
// when a path cannot be read; a finding aborts the program as it would under the fuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

bool read_file(const std::filesystem::path& path, std::string& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  int status = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    fs::path arg(argv[i]);
    if (fs::is_directory(arg, ec)) {
      std::vector<fs::path> found;
      for (fs::recursive_directory_iterator it(arg, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->is_regular_file(ec)) found.push_back(it->path());
      }
      if (ec) {
        std::fprintf(stderr, "cannot list %s: %s\n", argv[i], ec.message().c_str());
        status = 1;
      }
      std::sort(found.begin(), found.end());
      files.insert(files.end(), found.begin(), found.end());
    } else if (fs::is_regular_file(arg, ec)) {
      files.push_back(arg);
    } else {
      std::fprintf(stderr, "no such file or folder: %s\n", argv[i]);
      status = 1;
    }
  }
  std::string bytes;
  for (const fs::path& file : files) {
    if (!read_file(file, bytes)) {
      std::fprintf(stderr, "cannot read %s\n", file.c_str());
      status = 1;
      continue;
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("%s: %zu inputs\n", argc > 0 ? argv[0] : "replay", files.size());
  return status;
}
