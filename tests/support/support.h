// Shared helpers for the tests: fixtures written on macOS, temporary folders, file snapshots.
#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace orvia::test {

// A file under the shared fixtures folder (files written on macOS); empty when that folder is absent.
std::filesystem::path fixture(const std::string& relative);
bool fixtures_available();
#define ORVIA_REQUIRE_FIXTURES()                                              \
  do {                                                                        \
    if (!::orvia::test::fixtures_available()) GTEST_SKIP() << "no fixtures"; \
  } while (0)

std::string read_file(const std::filesystem::path& path);
void write_file(const std::filesystem::path& path, const std::string& bytes);

// A fresh folder under the system's temporary folder, removed with everything in it at scope end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& rel) const { return path_ / rel; }

 private:
  std::filesystem::path path_;
};

// Every entry below a folder (files with a content hash and size, folders, links) by relative path.
using TreeSnapshot = std::map<std::string, std::string>;
TreeSnapshot snapshot_tree(const std::filesystem::path& root);

// Path of a program built in this build tree (for tests that run the tools).
std::filesystem::path built_program(const std::string& name);

}  // namespace orvia::test
