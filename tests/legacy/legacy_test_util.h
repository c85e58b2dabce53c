// Helpers for the legacy store tests: real SQLite stores in Core Data's layout, written with the
// SQLite C API, and a second process that holds a store's lock.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "platform/value.h"
#include "support/support.h"

extern char** environ;

namespace orvia::test {

// An open SQLite connection for writing test stores.
class TestDb {
 public:
  explicit TestDb(const std::filesystem::path& path) {
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) ADD_FAILURE() << "cannot open " << path;
    sqlite3_exec(db_, "PRAGMA synchronous=OFF", nullptr, nullptr, nullptr);  // test files need no durability
  }
  ~TestDb() { sqlite3_close_v2(db_); }
  TestDb(const TestDb&) = delete;
  TestDb& operator=(const TestDb&) = delete;
  sqlite3* get() const { return db_; }
  bool exec(const std::string& sql) {
    char* err = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
      ADD_FAILURE() << "SQL failed: " << (err ? err : "?") << "\n" << sql;
      sqlite3_free(err);
      return false;
    }
    return true;
  }
  // Inserts one row; `values` are bound in order (nullopt binds NULL; a string starting with "\x01blob:"
  // binds the rest as a blob).
  using Value = std::optional<std::string>;
  void insert(const std::string& table, const std::vector<std::string>& columns, const std::vector<Value>& values) {
    std::string sql = "INSERT INTO " + table + " (";
    std::string marks;
    for (std::size_t i = 0; i < columns.size(); ++i) {
      sql += (i ? ", " : "") + columns[i];
      marks += i ? ", ?" : "?";
    }
    sql += ") VALUES (" + marks + ")";
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << sqlite3_errmsg(db_) << "\n" << sql;
      return;
    }
    for (std::size_t i = 0; i < values.size(); ++i) {
      const int n = static_cast<int>(i + 1);
      if (!values[i]) {
        sqlite3_bind_null(stmt, n);
      } else if (values[i]->rfind("\x01" "blob:", 0) == 0) {
        sqlite3_bind_blob(stmt, n, values[i]->data() + 6, static_cast<int>(values[i]->size() - 6), SQLITE_TRANSIENT);
      } else {
        sqlite3_bind_text(stmt, n, values[i]->data(), static_cast<int>(values[i]->size()), SQLITE_TRANSIENT);
      }
    }
    if (sqlite3_step(stmt) != SQLITE_DONE) ADD_FAILURE() << sqlite3_errmsg(db_) << "\n" << sql;
    sqlite3_finalize(stmt);
  }

 private:
  sqlite3* db_ = nullptr;
};

inline std::string blob(const std::string& bytes) { return "\x01" "blob:" + bytes; }

// A Z_MODELCACHE blob: a keyed archive of an object model, DEFLATE-compressed (stored blocks).
struct ModelRelationship {
  std::string entity, name, destination, inverse;
  bool to_many = false;
  bool ordered = false;
};
inline std::string model_cache(const std::vector<std::pair<std::string, std::vector<std::string>>>& attributes,
                               const std::vector<ModelRelationship>& relationships) {
  using Fields = std::vector<GenericRecord::Field>;
  auto record = [](std::vector<std::string> chain, Fields fields) {
    chain.push_back("NSObject");
    auto r = make<GenericRecord>(std::move(chain));
    r->mutable_fields() = std::move(fields);
    return r;
  };
  Ref<Dictionary> all = make<Dictionary>(true);
  auto add = [&](const std::string& entity, const std::string& name, Ref<GenericRecord> property) {
    Ref<GenericRecord> e(dynamic_cast<GenericRecord*>(all->get(entity)));
    if (!e) {
      e = record({"NSEntityDescription"},
                 {{"NSEntityName", str(entity), false}, {"NSProperties", make<Dictionary>(true), false}});
      all->set(entity, e);
    }
    property->mutable_fields().push_back({"NSPropertyName", str(name), false});
    property->mutable_fields().push_back({"NSEntity", e, false});
    as_dict(e->get("NSProperties"))->set(name, property);
  };
  for (const auto& [entity, names] : attributes)
    for (const auto& a : names)
      add(entity, a,
          record({"NSAttributeDescription", "NSPropertyDescription"}, {{"NSAttributeType", num(700), true}}));
  for (const auto& rel : relationships) {
    Fields fields = {{"_NSDestinationEntityName", str(rel.destination), false},
                     {"_NSInverseRelationshipName", rel.inverse.empty() ? nullptr : str(rel.inverse), false},
                     {"NSMaxCount", num(rel.to_many ? 0 : 1), true}};
    if (rel.ordered) fields.push_back({"NSIsOrdered", boolean(true), true});
    add(rel.entity, rel.name, record({"NSRelationshipDescription", "NSPropertyDescription"}, std::move(fields)));
  }
  const std::string archive = archive_root(record({"NSManagedObjectModel"}, {{"NSEntities", all, false}}).get());
  std::string out;  // stored blocks of at most 65535 bytes
  for (std::size_t at = 0;; at += 65535) {
    const std::size_t n = std::min<std::size_t>(65535, archive.size() - at);
    const bool last = at + n >= archive.size();
    out += {char(last), char(n), char(n >> 8), char(~n), char(~n >> 8)};
    out.append(archive, at, n);
    if (last) return out;
  }
}

struct TestEntity {
  std::int64_t number;
  std::string name;
  std::int64_t super = 0;
};

// The system tables as Core Data writes them, and the entities' rows in Z_PRIMARYKEY.
inline void write_system_tables(TestDb& db, const std::string& uuid, const std::vector<TestEntity>& entities,
                                const std::optional<std::string>& model = std::nullopt) {
  db.exec("CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_NAME VARCHAR, Z_SUPER INTEGER, Z_MAX INTEGER);"
          "CREATE TABLE Z_METADATA (Z_VERSION INTEGER PRIMARY KEY, Z_UUID VARCHAR(255), Z_PLIST BLOB);");
  for (const auto& e : entities) {
    db.insert("Z_PRIMARYKEY", {"Z_ENT", "Z_NAME", "Z_SUPER", "Z_MAX"},
              {std::to_string(e.number), e.name, std::to_string(e.super), "0"});
  }
  auto plist = write_binary_plist(dict({{"NSStoreType", str("SQLite")},
                                        {"NSPersistenceFrameworkVersion", num(866)},
                                        {"NSStoreModelVersionHashesVersion", num(3)},
                                        {"NSStoreModelVersionIdentifiers", array({str("")})},
                                        {"_NSAutoVacuumLevel", str("2")}})
                                       .get());
  db.insert("Z_METADATA", {"Z_VERSION", "Z_UUID", "Z_PLIST"}, {"1", uuid, blob(plist.ok() ? plist.value() : "")});
  if (model) {
    db.exec("CREATE TABLE Z_MODELCACHE (Z_CONTENT BLOB)");
    db.insert("Z_MODELCACHE", {"Z_CONTENT"}, {blob(*model)});
  }
}

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

// A second process (this test program, running LockHolder.DISABLED_Hold) that opens a store, runs SQL
// that takes a lock, and keeps it until this object ends. A process of its own: POSIX locks of the
// same process would be dropped as soon as any descriptor of the file is closed.
class LockHolder {
 public:
  LockHolder(const std::filesystem::path& db, const std::string& sql) {
    int in[2], out[2];
    if (::pipe(in) != 0 || ::pipe(out) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addclose(&actions, in[1]);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    std::vector<std::string> env_strings = {"ORVIA_LOCK_DB=" + db.string(), "ORVIA_LOCK_SQL=" + sql};
    std::vector<char*> env;
    for (char** e = environ; *e; ++e) env.push_back(*e);
    for (auto& s : env_strings) env.push_back(s.data());
    env.push_back(nullptr);
    std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    std::string a1 = "--gtest_also_run_disabled_tests", a2 = "--gtest_filter=LockHolder.DISABLED_Hold";
    char* argv[] = {self.data(), a1.data(), a2.data(), nullptr};
    if (posix_spawn(&pid_, self.c_str(), &actions, nullptr, argv, env.data()) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    to_child_ = in[1];
    from_child_ = out[0];
    // Wait for the marker line (or the child's end).
    std::string seen;
    char buf[4096];
    while (pid_ > 0 && seen.find("ORVIA-LOCK-HELD") == std::string::npos) {
      pollfd p{from_child_, POLLIN, 0};
      if (::poll(&p, 1, 20000) <= 0) break;
      ssize_t n = ::read(from_child_, buf, sizeof buf);
      if (n <= 0) break;
      seen.append(buf, static_cast<std::size_t>(n));
    }
    held_ = seen.find("ORVIA-LOCK-HELD") != std::string::npos;
    if (!held_) ADD_FAILURE() << "lock holder did not take its lock:\n" << seen;
  }
  ~LockHolder() {
    int status;
    if (to_child_ >= 0) ::close(to_child_);
    if (pid_ > 0) ::waitpid(pid_, &status, 0);
    if (from_child_ >= 0) ::close(from_child_);
  }
  bool held() const { return held_; }

 private:
  pid_t pid_ = -1;
  int to_child_ = -1, from_child_ = -1;
  bool held_ = false;
};

// A store of the old client's model "InstaGram" in one of the layouts Core Data may have used for
// ImageList.images, with entity numbers of the test's choosing.
enum class ImagesLayout { ForeignKey, Ordered, JoinTable };

struct InstaGramOptions {
  ImagesLayout layout = ImagesLayout::ForeignKey;
  bool sub_entities = false;  // VideoItem (super ImageItem) and SmartImageList (super ImageList)
  bool model_cache = false;
  std::string inverse;        // inverse of images; default "list" (to-one) or "lists" (join table)
  std::string uuid = "6B1F3A2C-0D4E-4F5A-9B8C-7D6E5F4A3B2C";
  // Entity numbers (stores number their entities in their own ways).
  std::int64_t account = 1, friend_ = 2, item = 3, video = 4, list = 5, smart = 6;
};

// Options for a store in `layout`. With a list entity number other than 5 every entity is numbered unlike
// the alphabetical default, so that nothing can rely on the numbers.
inline InstaGramOptions store_options(ImagesLayout layout, bool sub_entities = false, bool model_cache = false,
                                      std::string inverse = "", std::int64_t list = 5) {
  InstaGramOptions o;
  o.layout = layout;
  o.sub_entities = sub_entities;
  o.model_cache = model_cache;
  o.inverse = std::move(inverse);
  if (list != 5) o.account = 7, o.friend_ = 8, o.item = 2, o.video = 9, o.list = list, o.smart = 3;
  return o;
}

class InstaGramStore {
 public:
  InstaGramStore(const std::filesystem::path& path, InstaGramOptions o = {}) : db_(path), o_(std::move(o)) {
    if (o_.inverse.empty()) o_.inverse = o_.layout == ImagesLayout::JoinTable ? "lists" : "list";
    const std::string inv = "Z" + upper(o_.inverse);
    std::vector<TestEntity> entities = {{o_.account, "Account"}, {o_.friend_, "Friend"}, {o_.item, "ImageItem"},
                                        {o_.list, "ImageList"}};
    if (o_.sub_entities) {
      entities.push_back({o_.video, "VideoItem", o_.item});
      entities.push_back({o_.smart, "SmartImageList", o_.list});
    }
    std::optional<std::string> model;
    if (o_.model_cache) {
      const bool join = o_.layout == ImagesLayout::JoinTable;
      model = model_cache({{"Account", {"uid", "name", "accessToken"}},
                           {"Friend", {"uid", "image", "unreadCount", "added", "imageURL", "mediaCount", "name"}},
                           {"ImageItem", {"dictionary", "mediaID"}},
                           {"ImageList", {"title", "created"}}},
                          {{"ImageList", "images", "ImageItem", o_.inverse, true, o_.layout == ImagesLayout::Ordered},
                           {"ImageItem", o_.inverse, "ImageList", "images", join, false},
                           {"Friend", "account", "Account", "favourites", false, false},
                           {"Account", "favourites", "Friend", "account", true, false},
                           {"Friend", "unreadImages", "ImageItem", "unreadBy", true, false},
                           {"ImageItem", "unreadBy", "Friend", "unreadImages", false, false}});
    }
    write_system_tables(db_, o_.uuid, entities, model);
    db_.exec("CREATE TABLE ZACCOUNT ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZACCESSTOKEN VARCHAR, "
             "ZNAME VARCHAR, ZUID VARCHAR );"
             "CREATE TABLE ZFRIEND ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZMEDIACOUNT INTEGER, "
             "ZUNREADCOUNT INTEGER, ZACCOUNT INTEGER, ZADDED TIMESTAMP, ZIMAGEURL VARCHAR, ZNAME VARCHAR, ZUID VARCHAR, "
             "ZIMAGE BLOB );"
             "CREATE INDEX ZFRIEND_ZACCOUNT_INDEX ON ZFRIEND (ZACCOUNT);");
    db_.exec(std::string("CREATE TABLE ZIMAGELIST ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ") +
             "ZCREATED TIMESTAMP, ZTITLE VARCHAR" + (o_.sub_entities ? ", ZRULE VARCHAR" : "") + " );");
    std::string item = "CREATE TABLE ZIMAGEITEM ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZUNREADBY INTEGER";
    if (o_.layout != ImagesLayout::JoinTable) {
      item += ", " + inv + " INTEGER";
      if (o_.sub_entities) item += ", Z" + std::to_string(o_.list) + "_" + inv.substr(1) + " INTEGER";
      if (o_.layout == ImagesLayout::Ordered) item += ", Z_FOK_" + inv.substr(1) + " INTEGER";
    }
    item += ", ZMEDIAID VARCHAR, ZDICTIONARY BLOB";
    if (o_.sub_entities) item += ", ZDURATION FLOAT";
    db_.exec(item + " );");
    db_.exec("CREATE INDEX ZIMAGEITEM_ZUNREADBY_INDEX ON ZIMAGEITEM (ZUNREADBY);");
    if (o_.layout != ImagesLayout::JoinTable) {
      db_.exec("CREATE INDEX ZIMAGEITEM_" + inv + "_INDEX ON ZIMAGEITEM (" + inv + ");");
    } else {
      const std::string t = join_table(), a = owner_column(), b = member_column();
      db_.exec("CREATE TABLE " + t + " ( " + a + " INTEGER, " + b + " INTEGER, PRIMARY KEY (" + a + ", " + b + ") );" +
               "CREATE INDEX " + t + "_" + b + "_INDEX ON " + t + " (" + b + ", " + a + ");");
    }
  }

  TestDb& db() { return db_; }
  const InstaGramOptions& options() const { return o_; }
  std::string join_table() const { return "Z_" + std::to_string(o_.list) + "IMAGES"; }
  std::string owner_column() const { return "Z_" + std::to_string(o_.list) + upper(o_.inverse); }
  std::string member_column() const { return "Z_" + std::to_string(o_.item) + "IMAGES"; }

  void account(std::int64_t pk, TestDb::Value uid, TestDb::Value name) {
    db_.insert("ZACCOUNT", {"Z_PK", "Z_ENT", "Z_OPT", "ZUID", "ZNAME"},
               {std::to_string(pk), std::to_string(o_.account), "1", uid, name});
  }
  struct FriendRow {
    std::int64_t pk = 0;
    std::optional<std::int64_t> account = std::nullopt;
    TestDb::Value name = std::nullopt, uid = std::nullopt;
    std::optional<std::int64_t> unread = std::nullopt;
    std::optional<double> added = std::nullopt;
    TestDb::Value image_url = std::nullopt;
    std::optional<std::int64_t> media_count = std::nullopt;
  };
  void friend_(const FriendRow& f) {
    db_.insert("ZFRIEND", {"Z_PK", "Z_ENT", "Z_OPT", "ZACCOUNT", "ZNAME", "ZUID", "ZUNREADCOUNT", "ZADDED", "ZIMAGEURL",
                           "ZMEDIACOUNT"},
               {std::to_string(f.pk), std::to_string(o_.friend_), "1", text(f.account), f.name, f.uid, text(f.unread),
                text(f.added), f.image_url, text(f.media_count)});
  }
  void album(std::int64_t pk, TestDb::Value title, std::optional<double> created, bool smart = false) {
    db_.insert("ZIMAGELIST", {"Z_PK", "Z_ENT", "Z_OPT", "ZTITLE", "ZCREATED"},
               {std::to_string(pk), std::to_string(smart ? o_.smart : o_.list), "1", title, text(created)});
    album_entity_[pk] = smart ? o_.smart : o_.list;
  }
  // A media item in album `album` (none: in no album); `order` is its Z_FOK_ value when ordered.
  void item(std::int64_t pk, std::optional<std::int64_t> album, const std::optional<std::string>& dictionary,
            bool video = false, std::optional<std::int64_t> order = std::nullopt,
            std::optional<std::int64_t> unread_by = std::nullopt) {
    std::vector<std::string> cols = {"Z_PK", "Z_ENT", "Z_OPT", "ZDICTIONARY", "ZMEDIAID", "ZUNREADBY"};
    std::vector<TestDb::Value> vals = {std::to_string(pk), std::to_string(video ? o_.video : o_.item), "1",
                                       dictionary ? TestDb::Value(blob(*dictionary)) : std::nullopt,
                                       "media-" + std::to_string(pk),
                                       unread_by ? TestDb::Value(std::to_string(*unread_by)) : std::nullopt};
    const std::string inv = upper(o_.inverse);
    if (o_.layout != ImagesLayout::JoinTable) {
      cols.push_back("Z" + inv);
      vals.push_back(album ? TestDb::Value(std::to_string(*album)) : std::nullopt);
      if (o_.sub_entities) {
        cols.push_back("Z" + std::to_string(o_.list) + "_" + inv);
        vals.push_back(album ? TestDb::Value(std::to_string(album_entity_[*album])) : std::nullopt);
      }
      if (o_.layout == ImagesLayout::Ordered) {
        cols.push_back("Z_FOK_" + inv);
        vals.push_back(order ? TestDb::Value(std::to_string(*order)) : std::nullopt);
      }
    }
    db_.insert("ZIMAGEITEM", cols, vals);
    if (o_.layout == ImagesLayout::JoinTable && album) {
      db_.insert(join_table(), {owner_column(), member_column()}, {std::to_string(*album), std::to_string(pk)});
    }
  }
  // Sets Z_MAX of the roots as Core Data leaves it.
  void finish() {
    for (auto [ent, table] : std::vector<std::pair<std::int64_t, std::string>>{
             {o_.account, "ZACCOUNT"}, {o_.friend_, "ZFRIEND"}, {o_.item, "ZIMAGEITEM"}, {o_.list, "ZIMAGELIST"}}) {
      db_.exec("UPDATE Z_PRIMARYKEY SET Z_MAX = (SELECT COALESCE(MAX(Z_PK), 0) FROM " + table + ") WHERE Z_ENT = " +
               std::to_string(ent));
    }
  }

  static std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
  }

 private:
  // A number as a column's text (nothing for NULL); whole numbers are written without a fraction.
  static TestDb::Value text(std::optional<double> v) {
    if (!v) return std::nullopt;
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.17g", *v);
    return buf;
  }

  TestDb db_;
  InstaGramOptions o_;
  std::map<std::int64_t, std::int64_t> album_entity_;
};

}  // namespace orvia::test
