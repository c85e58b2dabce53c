// How much of a store SQLite keeps in memory while it is read.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>

namespace orvia {

// The page cache of a store connection, in KiB: a two-hundredth of the store file, and never less than
// SQLite's default of 2,000 KiB. Album members are read row by row in their album's order, scattered
// over the media table, so each read goes down through the table's interior pages: those must stay in
// the cache, and a larger store has more of them. With the default cache, a store twice as large took
// 2.4 times the page reads (with this one, twice). A larger cache saves page reads but costs more than
// it saves: a fiftieth of the store read a quarter fewer pages and took 2-3% more CPU time at twice the
// heavy installation (measured; the bench notes tell what was ruled out as the cause).
inline std::int64_t store_page_cache_kib(std::uintmax_t store_bytes) {
  return std::max<std::int64_t>(2000, static_cast<std::int64_t>(store_bytes / 1024 / 200));
}

// The statement that sizes a connection's page cache for the store file at `path`; empty when the file
// cannot be sized (the default cache then stays).
inline std::string store_page_cache_pragma(const std::filesystem::path& path) {
  std::error_code error;
  const std::uintmax_t bytes = std::filesystem::file_size(path, error);
  if (error) return {};
  return "PRAGMA cache_size = -" + std::to_string(store_page_cache_kib(bytes));
}

}  // namespace orvia
