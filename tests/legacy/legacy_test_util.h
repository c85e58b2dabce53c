// Stores of the old client's model "InstaGram" in Core Data's SQLite layout, written here because each
// test needs a layout, entity numbers, model cache or damage of its own (tests/support's LegacyStore
// has one fixed layout and needs the outline library); and a second process that holds a store's lock.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "platform/value.h"
#include "support/support.h"

namespace orvia::test {

using V = std::optional<std::string>;
inline std::string blob(const std::string& bytes) { return "\x01" "blob:" + bytes; }  // a value stored as a blob
inline std::string blob_lit(std::string_view bytes) {
  std::string h = "X'";
  for (unsigned char c : bytes) h += "0123456789ABCDEF"[c >> 4], h += "0123456789ABCDEF"[c & 15];
  return h + "'";
}
inline std::string lit(const V& v) {  // a literal: text, blob() as a blob, nothing as NULL
  if (!v) return "NULL";
  if (v->rfind("\x01" "blob:", 0) == 0) return blob_lit(std::string_view(*v).substr(6));
  std::string q = "'";
  for (char c : *v) q += c == '\'' ? "''" : std::string(1, c);
  return q + "'";
}

// A connection for writing test files (no durability needed); the service tests use it too.
class TestDb {
 public:
  explicit TestDb(const std::filesystem::path& path) {
    sqlite3_open(path.c_str(), &db_);
    exec("PRAGMA synchronous=OFF");
  }
  ~TestDb() { sqlite3_close_v2(db_); }
  TestDb(const TestDb&) = delete;
  TestDb& operator=(const TestDb&) = delete;
  void insert(const std::string& table, const std::vector<std::string>& columns, const std::vector<V>& values) {
    std::string c, v;
    for (std::size_t i = 0; i < columns.size(); ++i) c += (i ? ", " : "") + columns[i], v += (i ? ", " : "") + lit(values[i]);
    exec("INSERT INTO " + table + " (" + c + ") VALUES (" + v + ")");
  }
  void exec(const std::string& sql) {
    char* err = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) ADD_FAILURE() << (err ? err : "?") << "\n" << sql;
    sqlite3_free(err);
  }
  // The first column of the first row, as its bytes.
  std::string scalar(const std::string& sql) {
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db_, sql.c_str(), -1, &s, nullptr);
    std::string out;
    if (sqlite3_step(s) == SQLITE_ROW)
      out.assign(static_cast<const char*>(sqlite3_column_blob(s, 0)), static_cast<std::size_t>(sqlite3_column_bytes(s, 0)));
    sqlite3_finalize(s);
    return out;
  }

 private:
  sqlite3* db_ = nullptr;
};

// A Z_MODELCACHE blob: the keyed archive of an object model in DEFLATE stored blocks. Relationships
// are {entity, name, destination, inverse, "to-many", "ordered"} ("" for no).
inline std::string model_cache(const std::vector<std::pair<std::string, std::vector<std::string>>>& attributes,
                               const std::vector<std::vector<std::string>>& relationships) {
  auto record = [](std::vector<std::string> chain, std::vector<GenericRecord::Field> fields) {
    chain.push_back("NSObject");
    auto r = make<GenericRecord>(std::move(chain));
    r->mutable_fields() = std::move(fields);
    return r;
  };
  Ref<Dictionary> all = make<Dictionary>(true);
  auto add = [&](const std::string& entity, const std::string& name, Ref<GenericRecord> property) {
    Ref<GenericRecord> e(dynamic_cast<GenericRecord*>(all->get(entity)));
    if (!e) all->set(entity, e = record({"NSEntityDescription"}, {{"NSEntityName", str(entity), false},
                                                                  {"NSProperties", make<Dictionary>(true), false}}));
    property->mutable_fields().push_back({"NSPropertyName", str(name), false});
    property->mutable_fields().push_back({"NSEntity", e, false});
    as_dict(e->get("NSProperties"))->set(name, property);
  };
  for (const auto& [entity, names] : attributes)
    for (const auto& a : names)
      add(entity, a, record({"NSAttributeDescription", "NSPropertyDescription"}, {{"NSAttributeType", num(700), true}}));
  for (const auto& r : relationships) {
    std::vector<GenericRecord::Field> f = {{"_NSDestinationEntityName", str(r[2]), false},
                                           {"_NSInverseRelationshipName", str(r[3]), false},
                                           {"NSMaxCount", num(r[4].empty() ? 1 : 0), true}};
    if (!r[5].empty()) f.push_back({"NSIsOrdered", boolean(true), true});
    add(r[0], r[1], record({"NSRelationshipDescription", "NSPropertyDescription"}, std::move(f)));
  }
  const std::string archive = archive_root(record({"NSManagedObjectModel"}, {{"NSEntities", all, false}}).get());
  std::string out;
  for (std::size_t at = 0;; at += 65535) {
    const std::size_t n = std::min<std::size_t>(65535, archive.size() - at);
    out += {char(at + n >= archive.size()), char(n), char(n >> 8), char(~n), char(~n >> 8)};
    out.append(archive, at, n);
    if (at + n >= archive.size()) return out;
  }
}

enum class ImagesLayout { ForeignKey, Ordered, JoinTable };
struct InstaGramOptions {
  ImagesLayout layout = ImagesLayout::ForeignKey;
  bool sub_entities = false;  // VideoItem (super ImageItem) and SmartImageList (super ImageList)
  bool model_cache = false;
  std::string inverse = "";   // of ImageList.images: "list", or "lists" with the join table, by default
  std::int64_t list = 5;      // ImageList's number; any other renumbers every entity unlike the default
};

// The store, written (in one transaction, rollback-journal mode) when this object ends.
class InstaGramStore {
 public:
  static constexpr const char* kUUID = "6B1F3A2C-0D4E-4F5A-9B8C-7D6E5F4A3B2C";
  InstaGramStore(std::filesystem::path path, InstaGramOptions o = {}) : path_(std::move(path)), o_(std::move(o)) {
    const bool join = o_.layout == ImagesLayout::JoinTable, ordered = o_.layout == ImagesLayout::Ordered;
    if (o_.inverse.empty()) o_.inverse = join ? "lists" : "list";
    if (o_.list != 5) account_ = 7, friend_ent_ = 8, item_ = 2, video_ = 9, smart_ = 3;
    inv_ = upper(o_.inverse);
    add("CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_NAME VARCHAR, Z_SUPER INTEGER, Z_MAX INTEGER)");
    add("CREATE TABLE Z_METADATA (Z_VERSION INTEGER PRIMARY KEY, Z_UUID VARCHAR(255), Z_PLIST BLOB)");
    std::vector<std::tuple<std::int64_t, std::string, std::int64_t>> entities = {
        {account_, "Account", 0}, {friend_ent_, "Friend", 0}, {item_, "ImageItem", 0}, {o_.list, "ImageList", 0}};
    if (o_.sub_entities) entities.insert(entities.end(), {{video_, "VideoItem", item_}, {smart_, "SmartImageList", o_.list}});
    for (const auto& [n, name, super] : entities)
      add("INSERT INTO Z_PRIMARYKEY VALUES (" + std::to_string(n) + ", '" + name + "', " + std::to_string(super) + ", 0)");
    auto plist = write_binary_plist(dict({{"NSStoreType", str("SQLite")}, {"NSPersistenceFrameworkVersion", num(866)},
                                          {"NSStoreModelVersionIdentifiers", array({str("")})}}).get());
    add("INSERT INTO Z_METADATA VALUES (1, '" + std::string(kUUID) + "', " + blob_lit(plist.value()) + ")");
    if (o_.model_cache) {
      const std::string many = join ? "yes" : "";
      const std::string cache = model_cache(
          {{"Account", {"uid", "name", "accessToken"}},
           {"Friend", {"uid", "image", "unreadCount", "added", "imageURL", "mediaCount", "name"}},
           {"ImageItem", {"dictionary", "mediaID"}}, {"ImageList", {"title", "created"}}},
          {{"ImageList", "images", "ImageItem", o_.inverse, "yes", ordered ? "yes" : ""},
           {"ImageItem", o_.inverse, "ImageList", "images", many, ""},
           {"Friend", "account", "Account", "favourites", "", ""},
           {"Account", "favourites", "Friend", "account", "yes", ""},
           {"Friend", "unreadImages", "ImageItem", "unreadBy", "yes", ""},
           {"ImageItem", "unreadBy", "Friend", "unreadImages", "", ""}});
      add("CREATE TABLE Z_MODELCACHE (Z_CONTENT BLOB); INSERT INTO Z_MODELCACHE VALUES (" + blob_lit(cache) + ")");
    }
    add("CREATE TABLE ZACCOUNT (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZACCESSTOKEN VARCHAR, "
        "ZNAME VARCHAR, ZUID VARCHAR)");
    add("CREATE TABLE ZFRIEND (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZMEDIACOUNT INTEGER, "
        "ZUNREADCOUNT INTEGER, ZACCOUNT INTEGER, ZADDED TIMESTAMP, ZIMAGEURL VARCHAR, ZNAME VARCHAR, ZUID VARCHAR, "
        "ZIMAGE BLOB); CREATE INDEX ZFRIEND_ZACCOUNT_INDEX ON ZFRIEND (ZACCOUNT)");
    add("CREATE TABLE ZIMAGELIST (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZCREATED TIMESTAMP, "
        "ZTITLE VARCHAR)");
    std::string item = "CREATE TABLE ZIMAGEITEM (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZUNREADBY INTEGER";
    if (!join) item += ", Z" + inv_ + " INTEGER" + (o_.sub_entities ? ", Z" + std::to_string(o_.list) + "_" + inv_ + " INTEGER" : "") +
                       (ordered ? ", Z_FOK_" + inv_ + " INTEGER" : "");
    add(item + ", ZMEDIAID VARCHAR, ZDICTIONARY BLOB); CREATE INDEX ZIMAGEITEM_ZUNREADBY_INDEX ON ZIMAGEITEM (ZUNREADBY)");
    if (!join) add("CREATE INDEX ZIMAGEITEM_Z" + inv_ + "_INDEX ON ZIMAGEITEM (Z" + inv_ + ")");
    if (join) add("CREATE TABLE " + join_table() + " (Z_" + std::to_string(o_.list) + inv_ + " INTEGER, Z_" +
                  std::to_string(item_) + "IMAGES INTEGER)");
  }
  ~InstaGramStore() { TestDb(path_).exec("BEGIN;" + sql_ + "COMMIT"); }

  std::string join_table() const { return "Z_" + std::to_string(o_.list) + "IMAGES"; }
  void add(const std::string& sql) { sql_ += sql + ";\n"; }
  void account(int pk, V uid, V name) {
    add("INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT, ZUID, ZNAME) VALUES (" + std::to_string(pk) + ", " +
        std::to_string(account_) + ", 1, " + lit(uid) + ", " + lit(name) + ")");
  }
  void friend_(int pk, V account, V name, V uid, V unread = {}, V added = {}, V image_url = {}, V media_count = {}) {
    add("INSERT INTO ZFRIEND (Z_PK, Z_ENT, Z_OPT, ZACCOUNT, ZNAME, ZUID, ZUNREADCOUNT, ZADDED, ZIMAGEURL, ZMEDIACOUNT) "
        "VALUES (" + std::to_string(pk) + ", " + std::to_string(friend_ent_) + ", 1, " + lit(account) + ", " + lit(name) +
        ", " + lit(uid) + ", " + lit(unread) + ", " + lit(added) + ", " + lit(image_url) + ", " + lit(media_count) + ")");
  }
  void album(int pk, V title, V created, bool smart = false) {
    add("INSERT INTO ZIMAGELIST VALUES (" + std::to_string(pk) + ", " + std::to_string(smart ? smart_ : o_.list) +
        ", 1, " + lit(created) + ", " + lit(title) + ")");
    smart_albums_.resize(std::max<std::size_t>(smart_albums_.size(), pk + 1));
    smart_albums_[pk] = smart;
  }
  // A media item in `album` (none: in no album) holding `dictionary`; `order` is its Z_FOK_ value.
  void item(int pk, std::optional<int> album, const std::string& dictionary, bool video = false, V order = {},
            V unread_by = {}) {
    const V a = album ? V(std::to_string(*album)) : std::nullopt;
    std::string cols = "Z_PK, Z_ENT, Z_OPT, ZDICTIONARY, ZMEDIAID, ZUNREADBY", vals = std::to_string(pk) + ", " +
        std::to_string(video ? video_ : item_) + ", 1, " + blob_lit(dictionary) + ", 'media-" + std::to_string(pk) + "', " + lit(unread_by);
    if (o_.layout != ImagesLayout::JoinTable) {
      cols += ", Z" + inv_, vals += ", " + lit(a);
      if (o_.sub_entities)
        cols += ", Z" + std::to_string(o_.list) + "_" + inv_,
            vals += ", " + (album ? std::to_string(smart_albums_[*album] ? smart_ : o_.list) : "NULL");
      if (o_.layout == ImagesLayout::Ordered) cols += ", Z_FOK_" + inv_, vals += ", " + lit(order);
    } else if (album) {
      add("INSERT INTO " + join_table() + " VALUES (" + *a + ", " + std::to_string(pk) + ")");
    }
    add("INSERT INTO ZIMAGEITEM (" + cols + ") VALUES (" + vals + ")");
  }

 private:
  static std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
  }
  std::filesystem::path path_;
  InstaGramOptions o_;
  std::string inv_, sql_;
  std::int64_t account_ = 1, friend_ent_ = 2, item_ = 3, video_ = 4, smart_ = 6;
  std::vector<bool> smart_albums_;
};

// Points $HOME at a folder for the scope (an attach reads it when it runs).
class HomeOverride {
 public:
  explicit HomeOverride(const std::filesystem::path& home) {
    if (const char* h = std::getenv("HOME")) saved_ = h;
    ::setenv("HOME", home.c_str(), 1);
  }
  ~HomeOverride() { saved_ ? ::setenv("HOME", saved_->c_str(), 1) : ::unsetenv("HOME"); }

 private:
  std::optional<std::string> saved_;
};

// Another process (Python's sqlite3) that runs SQL taking a lock on a store and keeps it until this
// object ends: POSIX locks of this process would be dropped when any descriptor of the file closes.
class LockHolder {
 public:
  LockHolder(const std::filesystem::path& db, const std::string& sql) : marker_(dir_ / "held") {
    const std::string cmd = "python3 -c \"import sqlite3,sys; c=sqlite3.connect(sys.argv[1], isolation_level=None); "
                            "c.executescript(sys.argv[2]); open(sys.argv[3], 'w').close(); sys.stdin.read()\" '" +
                            db.string() + "' '" + sql + "' '" + marker_.string() + "'";
    child_ = ::popen(cmd.c_str(), "w");
    for (int i = 0; i < 600 && child_ && !held(); ++i) ::usleep(50000);
  }
  ~LockHolder() {
    if (child_) ::pclose(child_);
  }
  bool held() const { return std::filesystem::exists(marker_); }

 private:
  TempDir dir_;
  std::filesystem::path marker_;
  FILE* child_ = nullptr;
};

}  // namespace orvia::test
