#include "support/support.h"

#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace fs = std::filesystem;

namespace orvia::test {

fs::path fixture(const std::string& relative) { return fs::path(ORVIA_FIXTURES_DIR) / relative; }

bool fixtures_available() { return fs::is_directory(ORVIA_FIXTURES_DIR); }

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void write_file(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

TempDir::TempDir() {
  std::string templ = (fs::temp_directory_path() / "orvia-test-XXXXXX").string();
  if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
  path_ = templ;
}

TempDir::~TempDir() {
  std::error_code ec;
  // Folders a test made read-only must become writable again to be removed.
  for (auto it = fs::recursive_directory_iterator(path_, ec); !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec)) fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
  fs::remove_all(path_, ec);
}

TreeSnapshot snapshot_tree(const fs::path& root) {
  TreeSnapshot snap;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root, fs::directory_options::none, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    std::string rel = fs::relative(it->path(), root).string();
    auto st = it->symlink_status();
    if (fs::is_directory(st)) {
      snap[rel] = "dir";
    } else if (fs::is_regular_file(st)) {
      const std::string bytes = read_file(it->path());  // a hash and the size: enough to tell a changed byte
      snap[rel] = std::to_string(std::hash<std::string>{}(bytes)) + ":" + std::to_string(bytes.size());
    } else {
      snap[rel] = "other";
    }
  }
  return snap;
}

fs::path built_program(const std::string& name) {
  for (const char* sub : {"src/tools", "src/service", "src/client", "bench", "tests"}) {
    fs::path p = fs::path(ORVIA_BINARY_DIR) / sub / name;
    if (fs::exists(p)) return p;
  }
  return fs::path(ORVIA_BINARY_DIR) / name;
}

}  // namespace orvia::test
