// import_floor: the least work an import of a home folder can do, as a yardstick for the real one.
// Straight through the SQLite C API (read-only, immutable=1), it reads every row the import needs —
// the store's metadata and entities, the accounts, the favourites, the albums in title order and each
// album's media records (the stored keyed archives, every cache line of them read) in the relationship's
// order — plus the preferences file, and then writes a reply's bytes (an archive made earlier) to a new
// file, through the same file writer as the import.
// No decoding, no conversion, no objects.
//
//   import_floor --home DIR --archive FILE --out FILE
//
// Prints "floor <part> <wall seconds>" lines for read-store, read-preferences, write-archive and
// total, and for write-archive-page-cache (the same write through the page cache, not in the total),
// then "info <key> <value>" lines.
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "legacy/store_cache.h"
#include "platform/file_writer.h"

namespace {

struct DbCloser {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StmtFinalizer {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Db = std::unique_ptr<sqlite3, DbCloser>;
using Stmt = std::unique_ptr<sqlite3_stmt, StmtFinalizer>;

double now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

struct Totals {
  std::uint64_t rows = 0, bytes = 0, checksum = 0;
};

Stmt prepare(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "import_floor: %s: %s\n", sql.c_str(), sqlite3_errmsg(db));
    return nullptr;
  }
  return Stmt(raw);
}

// Steps through every row, touching every column's bytes.
bool drain(sqlite3_stmt* stmt, Totals& totals) {
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    ++totals.rows;
    const int n = sqlite3_column_count(stmt);
    for (int c = 0; c < n; ++c) {
      switch (sqlite3_column_type(stmt, c)) {
        case SQLITE_INTEGER: totals.checksum += static_cast<std::uint64_t>(sqlite3_column_int64(stmt, c)); break;
        case SQLITE_FLOAT: totals.checksum += static_cast<std::uint64_t>(sqlite3_column_double(stmt, c)); break;
        case SQLITE_TEXT:
        case SQLITE_BLOB: {
          const auto* p = static_cast<const unsigned char*>(sqlite3_column_blob(stmt, c));
          const int len = sqlite3_column_bytes(stmt, c);
          totals.bytes += static_cast<std::uint64_t>(len);
          std::uint64_t h = 0;
          for (int i = 0; i < len; i += 64) h += p[i];  // one byte per cache line: the bytes are read
          totals.checksum += h;
          break;
        }
        default: break;
      }
    }
  }
  return rc == SQLITE_DONE;
}

bool has_column(sqlite3* db, const std::string& table, const std::string& column) {
  Stmt s = prepare(db, "SELECT name FROM pragma_table_info('" + table + "')");
  if (!s) return false;
  while (sqlite3_step(s.get()) == SQLITE_ROW) {
    const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), 0));
    if (name && column == name) return true;
  }
  return false;
}

bool read_store(const std::string& path, Totals& totals, std::uint64_t& albums, std::uint64_t& media) {
  sqlite3* raw = nullptr;
  const std::string uri = "file:" + path + "?mode=ro&immutable=1";
  int rc = sqlite3_open_v2(uri.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
  Db db(raw);
  // The same page cache and connection as the import's: the floor reads the rows as the import does.
  if (const std::string cache = orvia::store_page_cache_pragma(path); !cache.empty())
    sqlite3_exec(raw, cache.c_str(), nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) {
    std::fprintf(stderr, "import_floor: cannot open %s: %s\n", path.c_str(), raw ? sqlite3_errmsg(raw) : "no memory");
    return false;
  }
  // The store's description, then the rows the import reads (friends without their pictures, which it
  // never reads).
  for (const char* sql : {
           "SELECT Z_ENT, Z_NAME, Z_SUPER FROM Z_PRIMARYKEY",
           "SELECT Z_UUID, Z_PLIST FROM Z_METADATA",
           "SELECT Z_PK, Z_ENT, ZUID, ZNAME FROM ZACCOUNT ORDER BY Z_PK",
           "SELECT Z_PK, Z_ENT, ZUID, ZNAME, ZIMAGEURL, ZADDED, ZUNREADCOUNT, ZMEDIACOUNT, ZACCOUNT FROM ZFRIEND",
       }) {
    Stmt s = prepare(db.get(), sql);
    if (!s || !drain(s.get(), totals)) return false;
  }
  // The albums in title order, and each album's members in the relationship's order.
  std::string members;
  if (has_column(db.get(), "ZIMAGEITEM", "ZLIST")) {
    const bool ordered = has_column(db.get(), "ZIMAGEITEM", "Z_FOK_LIST");
    members = std::string("SELECT Z_PK, Z_ENT, ZDICTIONARY FROM ZIMAGEITEM WHERE ZLIST = ?1 ORDER BY ") +
              (ordered ? "Z_FOK_LIST, Z_PK" : "Z_PK");
  } else {
    members =
        "SELECT m.Z_PK, m.Z_ENT, m.ZDICTIONARY FROM Z_5IMAGES j JOIN ZIMAGEITEM m ON m.Z_PK = j.Z_3IMAGES "
        "WHERE j.Z_5LISTS = ?1 ORDER BY m.Z_PK";
  }
  Stmt list = prepare(db.get(), "SELECT Z_PK, Z_ENT, ZTITLE, ZCREATED FROM ZIMAGELIST ORDER BY ZTITLE");
  Stmt items = prepare(db.get(), members);
  if (!list || !items) return false;
  std::vector<std::int64_t> keys;
  while ((rc = sqlite3_step(list.get())) == SQLITE_ROW) {
    keys.push_back(sqlite3_column_int64(list.get(), 0));
    ++totals.rows;
    const auto* title = sqlite3_column_text(list.get(), 2);
    totals.bytes += static_cast<std::uint64_t>(sqlite3_column_bytes(list.get(), 2));
    if (title) totals.checksum += title[0];
  }
  if (rc != SQLITE_DONE) return false;
  albums = keys.size();
  const std::uint64_t before = totals.rows;
  for (std::int64_t key : keys) {
    sqlite3_reset(items.get());
    sqlite3_bind_int64(items.get(), 1, key);
    if (!drain(items.get(), totals)) return false;
  }
  media = totals.rows - before;
  return true;
}

bool read_whole(const std::string& path, std::string& bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream s;
  s << in.rdbuf();
  bytes = std::move(s).str();
  return static_cast<bool>(in) || in.eof();
}

}  // namespace

int main(int argc, char** argv) {
  std::string home, archive_path, out_path;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string arg = argv[i];
    if (arg == "--home") home = argv[i + 1];
    else if (arg == "--archive") archive_path = argv[i + 1];
    else if (arg == "--out") out_path = argv[i + 1];
  }
  if (home.empty() || archive_path.empty() || out_path.empty()) {
    std::fprintf(stderr, "usage: import_floor --home DIR --archive FILE --out FILE\n");
    return 2;
  }
  const std::string container = home + "/Library/Containers/com.brenvik.velmora/Data/Library";
  const std::string store = container + "/Application Support/Velmora/InstaGramStore.db";
  const std::string prefs = container + "/Preferences/com.brenvik.velmora.plist";

  std::string archive;  // read before the clock starts: the floor writes bytes it already holds
  if (!read_whole(archive_path, archive)) {
    std::fprintf(stderr, "import_floor: cannot read %s\n", archive_path.c_str());
    return 1;
  }

  const double t0 = now();
  Totals totals;
  std::uint64_t albums = 0, media = 0;
  if (!read_store(store, totals, albums, media)) return 1;
  const double t1 = now();
  std::string preferences;
  if (!read_whole(prefs, preferences)) {
    std::fprintf(stderr, "import_floor: cannot read %s\n", prefs.c_str());
    return 1;
  }
  for (std::size_t i = 0; i < preferences.size(); i += 64) totals.checksum += static_cast<unsigned char>(preferences[i]);
  const double t2 = now();
  {
    // Through the writer the import's archive file goes through (straight to the disk where it can).
    orvia::FileWriter out;
    if (!out.open(out_path).ok() || !out.write(archive) || !out.close().ok()) {
      std::fprintf(stderr, "import_floor: cannot write %s: %s\n", out_path.c_str(), out.error().c_str());
      return 1;
    }
  }
  const double t3 = now();
  // For comparison, outside the total: the same bytes written through the page cache, as before the
  // import wrote its archive straight to the disk (a second file, removed afterwards).
  const std::string cached_path = out_path + ".page-cache";
  const double t4 = now();
  {
    std::FILE* f = std::fopen(cached_path.c_str(), "wb");
    if (!f || std::fwrite(archive.data(), 1, archive.size(), f) != archive.size() || std::fclose(f) != 0) {
      std::fprintf(stderr, "import_floor: cannot write %s\n", cached_path.c_str());
      return 1;
    }
  }
  const double t5 = now();
  ::unlink(cached_path.c_str());

  std::printf("floor read-store %.6f\nfloor read-preferences %.6f\nfloor write-archive %.6f\nfloor total %.6f\n",
              t1 - t0, t2 - t1, t3 - t2, t3 - t0);
  std::printf("floor write-archive-page-cache %.6f\n", t5 - t4);
  std::printf("info rows %llu\ninfo albums %llu\ninfo media %llu\ninfo bytes_read %llu\ninfo checksum %llu\n",
              static_cast<unsigned long long>(totals.rows), static_cast<unsigned long long>(albums),
              static_cast<unsigned long long>(media), static_cast<unsigned long long>(totals.bytes + preferences.size()),
              static_cast<unsigned long long>(totals.checksum));
  return 0;
}
