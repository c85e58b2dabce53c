// The old client's Core Data store, written in Core Data's own SQLite layout, and the per-account
// statistics databases.
//
// The object model (shared with the store reader):
//   1 Account        (accessToken String, name String, uid String; favourites to-many Friend)
//   2 Friend         (added Date, image Binary, imageURL String, mediaCount Integer 64, name String,
//                     uid String, unreadCount Integer 64; account to-one Account (inverse favourites),
//                     unreadImages to-many ImageItem (inverse friend))
//   3 ImageItem      (dictionary Binary, mediaID String; friend to-one Friend; list to-one ImageList
//                     (inverse images), or lists to-many ImageList in the join layout)
//   4 VideoItem      sub-entity of ImageItem (videoURL String)
//   5 ImageList      (created Date, title String; images to-many ImageItem)
//   6 SmartImageList sub-entity of ImageList (query String)
#include <sqlite3.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "tools/sample_plan.h"

namespace orvia::tools {

namespace {

struct DbClose {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using Db = std::unique_ptr<sqlite3, DbClose>;

class Stmt {
 public:
  Stmt() = default;
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;
  ~Stmt() { sqlite3_finalize(stmt_); }
  sqlite3_stmt** out() { return &stmt_; }
  sqlite3_stmt* get() const { return stmt_; }

  void bind(int i, std::int64_t v) { sqlite3_bind_int64(stmt_, i, v); }
  void bind(int i, double v) { sqlite3_bind_double(stmt_, i, v); }
  void bind(int i, const std::string& v) {
    sqlite3_bind_text(stmt_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
  }
  void bind_blob(int i, const std::string& v) {
    if (v.empty()) {
      sqlite3_bind_null(stmt_, i);
    } else {
      sqlite3_bind_blob(stmt_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    }
  }
  void bind_null(int i) { sqlite3_bind_null(stmt_, i); }
  // Runs the statement once and makes it ready for the next row.
  bool run() {
    int rc = sqlite3_step(stmt_);
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    return rc == SQLITE_DONE;
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

Error sql_error(sqlite3* db, const std::string& what) {
  return Error{what + ": " + (db ? sqlite3_errmsg(db) : "out of memory")};
}

bool exec(sqlite3* db, const std::string& sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool prepare(sqlite3* db, const char* sql, Stmt& stmt) {
  return sqlite3_prepare_v2(db, sql, -1, stmt.out(), nullptr) == SQLITE_OK;
}

Result<Db> open_new(const std::filesystem::path& path) {
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  Db db(raw);
  if (rc != SQLITE_OK) return sql_error(raw, "cannot create " + path.string());
  return db;
}

// The version hash of an entity: fixed bytes per entity name (a property of the model, not the data).
std::string version_hash(std::string_view entity) {
  std::uint64_t h = 1469598103934665603ull;
  for (unsigned char c : entity) h = (h ^ c) * 1099511628211ull;
  Rng rng(h);
  std::string bytes;
  for (int i = 0; i < 4; ++i) {
    std::uint64_t v = rng.next();
    for (int b = 0; b < 8; ++b) bytes.push_back(static_cast<char>(v >> (b * 8)));
  }
  return bytes;
}

Result<std::string> metadata_plist() {
  auto hashes = make<Dictionary>(true);
  for (const char* e : {"Account", "Friend", "ImageItem", "ImageList", "SmartImageList", "VideoItem"})
    hashes->set(e, orvia::data(version_hash(e)));
  // Key order and values as a store of framework version 479 has them; no NSStoreUUID (it lives
  // only in Z_UUID). Stores of that version have no Z_MODELCACHE either.
  auto md = make<Dictionary>(true);
  md->set("NSStoreModelVersionIdentifiers", array({str("")}));
  md->set("NSStoreType", str("SQLite"));
  md->set("_NSAutoVacuumLevel", str("2"));
  md->set("NSStoreModelVersionHashes", hashes);
  md->set("NSPersistenceFrameworkVersion", num(479));
  md->set("NSStoreModelVersionHashesVersion", num(3));
  return write_binary_plist(md.get());
}

std::vector<std::string> schema(ImagesLayout layout) {
  std::vector<std::string> s = {
      "CREATE TABLE ZACCOUNT ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZACCESSTOKEN VARCHAR, "
      "ZNAME VARCHAR, ZUID VARCHAR )",
      "CREATE TABLE ZFRIEND ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZMEDIACOUNT INTEGER, "
      "ZUNREADCOUNT INTEGER, ZACCOUNT INTEGER, ZADDED TIMESTAMP, ZIMAGEURL VARCHAR, ZNAME VARCHAR, ZUID VARCHAR, "
      "ZIMAGE BLOB )",
      "CREATE INDEX ZFRIEND_ZACCOUNT_INDEX ON ZFRIEND (ZACCOUNT)",
  };
  switch (layout) {
    case ImagesLayout::ForeignKey:
      s.push_back(
          "CREATE TABLE ZIMAGEITEM ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZFRIEND INTEGER, "
          "ZLIST INTEGER, Z5_LIST INTEGER, ZMEDIAID VARCHAR, ZVIDEOURL VARCHAR, ZDICTIONARY BLOB )");
      break;
    case ImagesLayout::Ordered:
      s.push_back(
          "CREATE TABLE ZIMAGEITEM ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZFRIEND INTEGER, "
          "ZLIST INTEGER, Z5_LIST INTEGER, Z_FOK_LIST INTEGER, ZMEDIAID VARCHAR, ZVIDEOURL VARCHAR, "
          "ZDICTIONARY BLOB )");
      break;
    case ImagesLayout::JoinTable:
      s.push_back(
          "CREATE TABLE ZIMAGEITEM ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZFRIEND INTEGER, "
          "ZMEDIAID VARCHAR, ZVIDEOURL VARCHAR, ZDICTIONARY BLOB )");
      break;
  }
  s.push_back("CREATE INDEX ZIMAGEITEM_ZFRIEND_INDEX ON ZIMAGEITEM (ZFRIEND)");
  if (layout != ImagesLayout::JoinTable) s.push_back("CREATE INDEX ZIMAGEITEM_ZLIST_INDEX ON ZIMAGEITEM (ZLIST)");
  s.push_back("CREATE INDEX ZIMAGEITEM_Z_ENT_INDEX ON ZIMAGEITEM (Z_ENT)");
  s.push_back(
      "CREATE TABLE ZIMAGELIST ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZCREATED TIMESTAMP, "
      "ZTITLE VARCHAR, ZQUERY VARCHAR )");
  s.push_back("CREATE INDEX ZIMAGELIST_Z_ENT_INDEX ON ZIMAGELIST (Z_ENT)");
  if (layout == ImagesLayout::JoinTable) {
    // ImageList(5).images <-> ImageItem(3).lists: Z_5LISTS holds list keys, Z_3IMAGES item keys.
    s.push_back("CREATE TABLE Z_5IMAGES ( Z_5LISTS INTEGER, Z_3IMAGES INTEGER, PRIMARY KEY (Z_5LISTS, Z_3IMAGES) )");
    s.push_back("CREATE INDEX Z_5IMAGES_Z_3IMAGES_INDEX ON Z_5IMAGES (Z_3IMAGES, Z_5LISTS)");
  }
  s.push_back("CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_NAME VARCHAR, Z_SUPER INTEGER, Z_MAX INTEGER)");
  s.push_back("CREATE TABLE Z_METADATA (Z_VERSION INTEGER PRIMARY KEY, Z_UUID VARCHAR(255), Z_PLIST BLOB)");
  return s;
}

std::string video_url(const Dictionary& record) {
  auto* videos = as_dict(record.get("videos"));
  auto* standard = videos ? as_dict(videos->get("standard_resolution")) : nullptr;
  return standard ? std::string(text_of(standard->get("url"))) : std::string();
}

Result<bool> write_rows(sqlite3* db, const Plan& plan, const SampleOptions& options) {
  Stmt account, friend_, album, item, join;
  if (!prepare(db, "INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT, ZACCESSTOKEN, ZNAME, ZUID) VALUES (?, 1, 1, ?, ?, ?)", account) ||
      !prepare(db,
               "INSERT INTO ZFRIEND (Z_PK, Z_ENT, Z_OPT, ZMEDIACOUNT, ZUNREADCOUNT, ZACCOUNT, ZADDED, ZIMAGEURL, ZNAME, "
               "ZUID, ZIMAGE) VALUES (?, 2, 1, ?, ?, ?, ?, ?, ?, ?, ?)",
               friend_) ||
      !prepare(db, "INSERT INTO ZIMAGELIST (Z_PK, Z_ENT, Z_OPT, ZCREATED, ZTITLE, ZQUERY) VALUES (?, ?, 1, ?, ?, ?)", album))
    return sql_error(db, "cannot prepare the inserts");
  const char* item_sql =
      options.layout == ImagesLayout::ForeignKey
          ? "INSERT INTO ZIMAGEITEM (Z_PK, Z_ENT, Z_OPT, ZFRIEND, ZMEDIAID, ZVIDEOURL, ZDICTIONARY, ZLIST, Z5_LIST) "
            "VALUES (?, ?, 1, ?, ?, ?, ?, ?, ?)"
      : options.layout == ImagesLayout::Ordered
          ? "INSERT INTO ZIMAGEITEM (Z_PK, Z_ENT, Z_OPT, ZFRIEND, ZMEDIAID, ZVIDEOURL, ZDICTIONARY, ZLIST, Z5_LIST, "
            "Z_FOK_LIST) VALUES (?, ?, 1, ?, ?, ?, ?, ?, ?, ?)"
          : "INSERT INTO ZIMAGEITEM (Z_PK, Z_ENT, Z_OPT, ZFRIEND, ZMEDIAID, ZVIDEOURL, ZDICTIONARY) "
            "VALUES (?, ?, 1, ?, ?, ?, ?)";
  if (!prepare(db, item_sql, item)) return sql_error(db, "cannot prepare the media insert");
  if (options.layout == ImagesLayout::JoinTable &&
      !prepare(db, "INSERT INTO Z_5IMAGES (Z_5LISTS, Z_3IMAGES) VALUES (?, ?)", join))
    return sql_error(db, "cannot prepare the join insert");

  for (const AccountPlan& a : plan.accounts) {
    account.bind(1, a.pk);
    account.bind(2, a.token);
    account.bind(3, a.name);
    account.bind(4, a.uid);
    if (!account.run()) return sql_error(db, "cannot insert an account");
  }
  for (const FriendPlan& f : plan.friends) {
    friend_.bind(1, f.pk);
    if (f.has_media_count) friend_.bind(2, f.media_count);
    friend_.bind(3, f.unread);
    friend_.bind(4, plan.accounts[f.account].pk);
    friend_.bind(5, f.added);
    friend_.bind(6, f.image_url);
    friend_.bind(7, f.name);
    friend_.bind(8, f.uid);
    friend_.bind_blob(9, f.image);
    if (!friend_.run()) return sql_error(db, "cannot insert a friend");
  }
  for (const AlbumPlan& al : plan.albums) {
    album.bind(1, al.pk);
    album.bind(2, static_cast<std::int64_t>(al.smart ? kEntSmartImageList : kEntImageList));
    album.bind(3, al.created);
    album.bind(4, al.title);
    if (al.smart) album.bind(5, al.query);
    if (!album.run()) return sql_error(db, "cannot insert an album");
  }

  // Position of every item inside its album, for the ordered layout.
  std::vector<std::int64_t> position(plan.media.size(), 0);
  for (const AlbumPlan& al : plan.albums)
    for (std::size_t i = 0; i < al.members.size(); ++i) position[al.members[i]] = static_cast<std::int64_t>(i);

  const std::uint64_t total = plan.media.size();
  for (std::size_t i = 0; i < plan.media.size(); ++i) {
    const MediaPlan& m = plan.media[i];
    const AlbumPlan& al = plan.albums[m.album];
    Ref<Dictionary> record = media_record(plan, m);
    std::string bytes = archive_root(record.get());
    item.bind(1, m.pk);
    item.bind(2, static_cast<std::int64_t>(m.video ? kEntVideoItem : kEntImageItem));
    if (m.unread_by) item.bind(3, m.unread_by);
    item.bind(4, std::string(text_of(record->get("id"))));
    if (m.video) item.bind(5, video_url(*record));
    item.bind_blob(6, bytes);
    if (options.layout != ImagesLayout::JoinTable) {
      item.bind(7, al.pk);
      item.bind(8, static_cast<std::int64_t>(al.smart ? kEntSmartImageList : kEntImageList));
    }
    // Core Data numbers ordered members sparsely: 2048, 3072, 4096, ...
    if (options.layout == ImagesLayout::Ordered) item.bind(9, (position[i] + 2) * 1024);
    if (!item.run()) return sql_error(db, "cannot insert a media item");
    if (options.layout == ImagesLayout::JoinTable) {
      join.bind(1, al.pk);
      join.bind(2, m.pk);
      if (!join.run()) return sql_error(db, "cannot insert an album member");
    }
    if (options.progress && ((i + 1) % 2000 == 0 || i + 1 == total)) options.progress("media", i + 1, total);
  }

  std::int64_t friend_max = plan.friends.empty() ? 0 : plan.friends.back().pk;
  std::int64_t media_max = plan.media.empty() ? 0 : plan.media.back().pk;
  std::string update = "UPDATE Z_PRIMARYKEY SET Z_MAX = CASE Z_ENT WHEN 1 THEN " + std::to_string(plan.accounts.size()) +
                       " WHEN 2 THEN " + std::to_string(friend_max) + " WHEN 3 THEN " + std::to_string(media_max) +
                       " WHEN 5 THEN " + std::to_string(plan.album_max_pk) + " ELSE 0 END";
  if (!exec(db, update)) return sql_error(db, "cannot update Z_PRIMARYKEY");
  return true;
}

Result<bool> write_schema(sqlite3* db, const Plan& plan, ImagesLayout layout) {
  if (!exec(db, "BEGIN")) return sql_error(db, "cannot begin");
  for (const std::string& sql : schema(layout))
    if (!exec(db, sql)) return sql_error(db, "cannot create the schema");
  if (!exec(db,
            "INSERT INTO Z_PRIMARYKEY (Z_ENT, Z_NAME, Z_SUPER, Z_MAX) VALUES (1, 'Account', 0, 0), "
            "(2, 'Friend', 0, 0), (3, 'ImageItem', 0, 0), (4, 'VideoItem', 3, 0), (5, 'ImageList', 0, 0), "
            "(6, 'SmartImageList', 5, 0)"))
    return sql_error(db, "cannot fill Z_PRIMARYKEY");
  auto md = metadata_plist();
  if (!md) return md.error();
  Stmt meta;
  if (!prepare(db, "INSERT INTO Z_METADATA (Z_VERSION, Z_UUID, Z_PLIST) VALUES (1, ?, ?)", meta))
    return sql_error(db, "cannot prepare Z_METADATA");
  meta.bind(1, plan.store_uuid);
  meta.bind_blob(2, md.value());
  if (!meta.run()) return sql_error(db, "cannot fill Z_METADATA");
  if (!exec(db, "COMMIT")) return sql_error(db, "cannot commit the schema");
  return true;
}

}  // namespace

Result<std::uint64_t> write_store(const Plan& plan, const SampleOptions& options, const std::filesystem::path& path) {
  {
    auto opened = open_new(path);
    if (!opened) return opened.error();
    sqlite3* db = opened.value().get();
    if (!exec(db, "PRAGMA page_size = 4096") || !exec(db, "PRAGMA auto_vacuum = 2") ||
        !exec(db, "PRAGMA cache_size = -65536"))
      return sql_error(db, "cannot set up " + path.string());
    if (options.keep_wal) {
      // As a writer that was stopped before it checkpointed: the main file holds the schema only,
      // the rows stay in the -wal.
      if (!exec(db, "PRAGMA journal_mode = WAL") || !exec(db, "PRAGMA synchronous = OFF"))
        return sql_error(db, "cannot switch to WAL");
      auto s = write_schema(db, plan, options.layout);
      if (!s) return s.error();
      if (!exec(db, "PRAGMA wal_checkpoint(TRUNCATE)") || !exec(db, "PRAGMA wal_autocheckpoint = 0") ||
          sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr) != SQLITE_OK)
        return sql_error(db, "cannot hold back the checkpoint");
    } else {
      // Bulk writing without a journal, then the WAL mode that Core Data sets; closing the last
      // connection leaves no -wal behind.
      if (!exec(db, "PRAGMA journal_mode = OFF") || !exec(db, "PRAGMA synchronous = OFF"))
        return sql_error(db, "cannot set up " + path.string());
      auto s = write_schema(db, plan, options.layout);
      if (!s) return s.error();
    }
    if (!exec(db, "BEGIN")) return sql_error(db, "cannot begin");
    auto rows = write_rows(db, plan, options);
    if (!rows) return rows.error();
    if (!exec(db, "COMMIT")) return sql_error(db, "cannot commit the rows");
    if (!options.keep_wal && !exec(db, "PRAGMA journal_mode = WAL")) return sql_error(db, "cannot switch to WAL");
  }
  std::error_code ec;
  std::uint64_t size = 0;
  if (options.keep_wal) {
    std::filesystem::remove(path.string() + "-shm", ec);
    auto wal = std::filesystem::file_size(path.string() + "-wal", ec);
    if (!ec) size += wal;
  }
  auto main_size = std::filesystem::file_size(path, ec);
  if (!ec) size += main_size;
  return size;  // with the -wal when it is kept
}

Result<bool> write_statistics(const Plan& plan, const AccountPlan& account, const std::filesystem::path& path) {
  auto opened = open_new(path);
  if (!opened) return opened.error();
  sqlite3* db = opened.value().get();
  if (!exec(db, "BEGIN") ||
      !exec(db, "CREATE TABLE statistics (day INTEGER PRIMARY KEY, followers INTEGER, following INTEGER, "
                "media INTEGER, likes INTEGER)"))
    return sql_error(db, "cannot create " + path.string());
  Stmt row;
  if (!prepare(db, "INSERT INTO statistics VALUES (?, ?, ?, ?, ?)", row)) return sql_error(db, "cannot prepare");
  Rng rng(mix_seed(plan.seed, 700 + static_cast<std::uint64_t>(account.pk)));
  std::int64_t followers = rng.between(50, 5000), media = rng.between(10, 900);
  for (int d = 0; d < 30; ++d) {
    followers += rng.between(-3, 12);
    media += rng.chance(0.3) ? 1 : 0;
    row.bind(1, (plan.base_unix - kUnixTo2001) / 86400 + d);
    row.bind(2, followers);
    row.bind(3, rng.between(100, 400));
    row.bind(4, media);
    row.bind(5, rng.between(0, 800));
    if (!row.run()) return sql_error(db, "cannot insert statistics");
  }
  if (!exec(db, "COMMIT")) return sql_error(db, "cannot commit statistics");
  return true;
}

}  // namespace orvia::tools
