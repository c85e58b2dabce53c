// The generic Core Data store reader: real stores written by Core Data, small stores written here in
// Core Data's layout, and every way a store can refuse to be read. Each test that opens a store checks
// that its folder is byte for byte unchanged afterwards.
#include "legacy/coredata_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "legacy/inflate.h"
#include "legacy_test_util.h"
#include "platform/log.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace orvia {
namespace {

using test::InstaGramStore;
using test::snapshot_tree;
using test::TempDir;
using test::TestDb;

// Runs in a child process spawned by test::LockHolder: takes a lock and keeps it until stdin closes.
TEST(LockHolder, DISABLED_Hold) {
  const char* path = std::getenv("ORVIA_LOCK_DB");
  const char* sql = std::getenv("ORVIA_LOCK_SQL");
  if (!path || !sql) GTEST_SKIP();
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path, &db), SQLITE_OK);
  char* err = nullptr;
  ASSERT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, &err), SQLITE_OK) << (err ? err : "");
  std::printf("ORVIA-LOCK-HELD\n");
  std::fflush(stdout);
  char buf[64];
  while (::read(0, buf, sizeof buf) > 0) {
  }
  sqlite3_close_v2(db);  // rolls back whatever the SQL left open
}

std::int64_t count(const CoreDataStore& store, const std::string& sql) {
  auto q = store.prepare(sql);
  if (!q.ok()) {
    ADD_FAILURE() << q.error().message << "\n" << sql;
    return -1;
  }
  if (sqlite3_step(q.value().get()) != SQLITE_ROW) return -1;
  return sqlite3_column_int64(q.value().get(), 0);
}

std::int64_t rows_of(const CoreDataStore& store, const std::string& entity_name) {
  const StoreEntity* e = store.entity(entity_name);
  if (!e) return -1;
  return count(store, "SELECT COUNT(*) FROM " + quote_identifier(e->table) + " WHERE Z_ENT IN " + e->family_sql);
}

// The members of one owner, as the store yields them.
std::vector<std::int64_t> members(const CoreDataStore& store, const ToManyLayout& layout, std::int64_t owner) {
  std::vector<std::int64_t> out;
  auto q = store.prepare(CoreDataStore::members_sql(layout, {}));
  if (!q.ok()) {
    ADD_FAILURE() << q.error().message;
    return out;
  }
  sqlite3_bind_int64(q.value().get(), 1, owner);
  while (sqlite3_step(q.value().get()) == SQLITE_ROW) out.push_back(sqlite3_column_int64(q.value().get(), 0));
  return out;
}

// Copies fixture files into a fresh folder (fixtures are opened by the reader only through copies,
// except the WAL fixture, whose in-place read is itself under test).
fs::path copy_fixture(const TempDir& dir, const std::string& name) {
  fs::copy_file(test::fixture("coredata/" + name), dir.path() / fs::path(name).filename());
  return dir.path() / fs::path(name).filename();
}

// -- DEFLATE ----------------------------------------------------------------------------------------

std::string model_cache_blob(const fs::path& store) {
  TestDb db(store);
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(db.get(), "SELECT Z_CONTENT FROM Z_MODELCACHE", -1, &stmt, nullptr);
  std::string blob;
  if (sqlite3_step(stmt) == SQLITE_ROW)
    blob.assign(static_cast<const char*>(sqlite3_column_blob(stmt, 0)), static_cast<std::size_t>(sqlite3_column_bytes(stmt, 0)));
  sqlite3_finalize(stmt);
  return blob;
}

TEST(Inflate, DecodesTheModelCachesOfRealStoresAndRejectsDamage) {
  ORVIA_REQUIRE_FIXTURES();
  TempDir dir;
  for (const char* name : {"wire-store2-3.sqlite", "wire-store2-101-0.sqlite", "post-section-v3.sqlite"}) {
    SCOPED_TRACE(name);
    const std::string blob = model_cache_blob(copy_fixture(dir, name));
    ASSERT_GT(blob.size(), 100u);
    auto out = inflate_raw(blob);
    ASSERT_TRUE(out.ok()) << out.error().message;
    EXPECT_EQ(out.value().substr(0, 8), "bplist00");
    EXPECT_GT(out.value().size(), blob.size());

    // Cut short anywhere: an error, never a crash or a hang.
    for (std::size_t cut : {std::size_t{0}, std::size_t{1}, blob.size() / 3, blob.size() / 2, blob.size() - 1}) {
      EXPECT_FALSE(inflate_raw(std::string_view(blob).substr(0, cut)).ok()) << "cut at " << cut;
    }
    // Flipped bits: whatever comes out is bounded; most flips are errors.
    for (std::size_t at = 0; at < blob.size(); at += blob.size() / 40 + 1) {
      std::string damaged = blob;
      damaged[at] = static_cast<char>(damaged[at] ^ 0x5a);
      auto r = inflate_raw(damaged, 4u << 20);
      if (r.ok()) {
        EXPECT_LE(r.value().size(), 4u << 20);
      }
    }
    // More output than allowed is an error, not a truncation.
    EXPECT_FALSE(inflate_raw(blob, out.value().size() - 1).ok());
    EXPECT_TRUE(inflate_raw(blob, out.value().size()).ok());
  }
  // Stored blocks, and a block type that does not exist.
  const std::string stored = std::string("\x01\x03\x00\xfc\xff", 5) + "abc";
  ASSERT_TRUE(inflate_raw(stored).ok());
  EXPECT_EQ(inflate_raw(stored).value(), "abc");
  EXPECT_FALSE(inflate_raw(std::string("\x01\x03\x00\xfc\xfe", 5) + "abc").ok());  // bad complement
  EXPECT_FALSE(inflate_raw(std::string("\x07", 1)).ok());                         // block type 3
}

// -- Real stores ------------------------------------------------------------------------------------

struct EntityFact {
  std::int64_t number;
  const char* name;
  std::int64_t super;
  const char* table;
};
struct RowsFact {
  const char* entity;
  std::int64_t rows;
};
struct UriFact {
  const char* table;
  std::int64_t pk;
  const char* uri;
};
struct RealStoreCase {
  const char* file;
  const char* uuid;
  std::size_t entities;
  bool model;
  std::vector<EntityFact> entity_facts;
  std::vector<RowsFact> rows;
  std::vector<UriFact> uris;
};

TEST(CoreDataStore, ReadsTheLayoutOfRealStores) {
  ORVIA_REQUIRE_FIXTURES();
  const std::vector<RealStoreCase> cases = {
      {"wire-store2-3.sqlite",
       "04FF51BB-9DE2-43FF-9D25-CABA19E15EF7",
       14,
       true,
       {{4, "Message", 0, "ZMESSAGE"}, {6, "ClientMessage", 4, "ZMESSAGE"}, {12, "Session", 0, "ZSESSION"},
        {14, "UserClient", 0, "ZUSERCLIENT"}},
       {{"Message", 5}, {"ClientMessage", 5}, {"TextMessage", 0}, {"User", 3}, {"UserClient", 8}, {"Session", 1},
        {"PersonalInvitation", 0}},
       {{"ZMESSAGE", 3, "x-coredata://04FF51BB-9DE2-43FF-9D25-CABA19E15EF7/ClientMessage/p3"},
        {"ZSESSION", 1, "x-coredata://04FF51BB-9DE2-43FF-9D25-CABA19E15EF7/Session/p1"}}},
      {"wire-store2-101-0.sqlite",
       "E8AFD1EB-9427-4A64-ABDA-AA06F7B1092C",
       24,
       true,
       {{10, "Message", 0, "ZMESSAGE"}, {15, "SystemMessage", 10, "ZMESSAGE"}, {23, "User", 0, "ZUSER"}},
       {{"Message", 24}, {"SystemMessage", 21}, {"ClientMessage", 3}, {"User", 22}, {"Conversation", 21}},
       {{"ZMESSAGE", 4, "x-coredata://E8AFD1EB-9427-4A64-ABDA-AA06F7B1092C/SystemMessage/p4"},
        {"ZSESSION", 1, "x-coredata://E8AFD1EB-9427-4A64-ABDA-AA06F7B1092C/Session/p1"}}},
      {"post-section-v3.sqlite",
       "31029939-92C0-48F2-988A-A93D5B7CFFDB",
       2,
       true,
       {{1, "Post", 0, "ZPOST"}, {2, "Section", 0, "ZSECTION"}},
       {{"Post", 12}, {"Section", 14}},
       {{"ZPOST", 1, "x-coredata://31029939-92C0-48F2-988A-A93D5B7CFFDB/Post/p1"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    TempDir dir;
    const fs::path path = copy_fixture(dir, c.file);
    const auto before = snapshot_tree(dir.path());
    {
      auto opened = CoreDataStore::open(path.string());
      ASSERT_TRUE(opened.ok()) << opened.error().message;
      const CoreDataStore& store = *opened.value();
      EXPECT_FALSE(store.read_from_private_copy());
      EXPECT_EQ(store.uuid(), c.uuid);
      EXPECT_EQ(store.entities().size(), c.entities);
      EXPECT_EQ(store.model() != nullptr, c.model);
      for (const auto& f : c.entity_facts) {
        const StoreEntity* e = store.entity(f.name);
        ASSERT_NE(e, nullptr) << f.name;
        EXPECT_EQ(e->number, f.number);
        EXPECT_EQ(e->super, f.super);
        EXPECT_EQ(e->table, f.table);
        EXPECT_EQ(store.entity(f.number), e);
      }
      for (const auto& r : c.rows) EXPECT_EQ(rows_of(store, r.entity), r.rows) << r.entity;
      for (const auto& u : c.uris) {
        auto q = store.prepare(std::string("SELECT Z_ENT FROM ") + u.table + " WHERE Z_PK = " + std::to_string(u.pk));
        ASSERT_TRUE(q.ok());
        ASSERT_EQ(sqlite3_step(q.value().get()), SQLITE_ROW);
        EXPECT_EQ(store.object_uri(sqlite3_column_int64(q.value().get(), 0), u.pk), u.uri);
      }
    }
    EXPECT_EQ(snapshot_tree(dir.path()), before);
  }
}

TEST(CoreDataStore, ReadsEveryDatatypeOfARealStore) {
  ORVIA_REQUIRE_FIXTURES();
  TempDir dir;
  auto opened = CoreDataStore::open(copy_fixture(dir, "wire-store2-3.sqlite").string());
  ASSERT_TRUE(opened.ok());
  const CoreDataStore& store = *opened.value();
  auto q = store.prepare(
      "SELECT ZSERVERTIMESTAMP, ZNONCE_DATA FROM ZMESSAGE WHERE Z_PK = 3 UNION ALL "
      "SELECT ZACTIVATIONLOCATIONLATITUDE, NULL FROM ZUSERCLIENT WHERE Z_PK = 1");
  ASSERT_TRUE(q.ok()) << q.error().message;
  sqlite3_stmt* s = q.value().get();
  ASSERT_EQ(sqlite3_step(s), SQLITE_ROW);
  Ref<Object> when = CoreDataStore::value(s, 0, AttributeKind::Date);
  ASSERT_TRUE(as_date(when.get()));
  EXPECT_DOUBLE_EQ(as_date(when.get())->time(), 483357108.456);
  Ref<Object> nonce = CoreDataStore::value(s, 1, AttributeKind::Binary);
  ASSERT_TRUE(as_data(nonce.get()));
  EXPECT_EQ(as_data(nonce.get())->bytes().size(), 16u);
  EXPECT_EQ(static_cast<unsigned char>(as_data(nonce.get())->bytes()[0]), 0x8E);
  EXPECT_FALSE(CoreDataStore::value(s, 0, AttributeKind::Binary));  // a date is no data
  ASSERT_EQ(sqlite3_step(s), SQLITE_ROW);
  Ref<Object> latitude = CoreDataStore::value(s, 0, AttributeKind::Real);
  ASSERT_TRUE(as_number(latitude.get()));
  EXPECT_DOUBLE_EQ(as_number(latitude.get())->real_value(), 52.5233);
  EXPECT_FALSE(CoreDataStore::value(s, 1, AttributeKind::String));  // NULL is nil
}

struct RelationshipCase {
  const char* file;
  bool drop_model;  // read the store as an old one, without Z_MODELCACHE
  const char* owner;
  const char* relationship;
  const char* member;
  ToManyLayout::Kind kind;
  const char* where;  // the foreign key column or the join table
  bool ordered;
  std::int64_t owner_pk;
  std::vector<std::int64_t> expected;
};

TEST(CoreDataStore, FindsToManyRelationshipsOfRealStores) {
  ORVIA_REQUIRE_FIXTURES();
  using K = ToManyLayout::Kind;
  const std::vector<RelationshipCase> cases = {
      // Ordered one-to-many: conversation 2 holds messages 1, 2, 4 in Z_FOK_ order.
      {"wire-store2-3.sqlite", false, "Conversation", "messages", "Message", K::ForeignKey, "ZVISIBLEINCONVERSATION",
       true, 2, {1, 2, 4}},
      {"wire-store2-3.sqlite", false, "Conversation", "messages", "Message", K::ForeignKey, "ZVISIBLEINCONVERSATION",
       true, 1, {3, 5}},
      // Reflexive many-to-many.
      {"wire-store2-3.sqlite", false, "UserClient", "ignoredClients", "UserClient", K::JoinTable,
       "Z_14IGNOREDBYCLIENTS", false, 1, {2, 3, 4, 5, 6, 7, 8}},
      {"wire-store2-3.sqlite", true, "UserClient", "ignoredClients", "UserClient", K::JoinTable,
       "Z_14IGNOREDBYCLIENTS", false, 1, {2, 3, 4, 5, 6, 7, 8}},
      // Many-to-many declared on a sub-entity, with a suffixed column; and an ordered one.
      {"wire-store2-101-0.sqlite", false, "SystemMessage", "users", "User", K::JoinTable, "Z_15USERS", false, 1,
       {3, 9, 18}},
      {"wire-store2-101-0.sqlite", true, "SystemMessage", "users", "User", K::JoinTable, "Z_15USERS", false, 1,
       {3, 9, 18}},
      {"wire-store2-101-0.sqlite", false, "Conversation", "lastServerSyncedActiveParticipants", "User", K::JoinTable,
       "Z_5LASTSERVERSYNCEDACTIVEPARTICIPANTS", true, 17, {9, 18, 3}},
      // Unordered one-to-many: members by ascending Z_PK (post 11's sections are 12 and 11 by index).
      {"post-section-v3.sqlite", false, "Post", "sections", "Section", K::ForeignKey, "ZPOST", false, 11, {11, 12}},
      {"post-section-v3.sqlite", true, "Post", "sections", "Section", K::ForeignKey, "ZPOST", false, 12, {13, 14}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + c.owner + "." + c.relationship + (c.drop_model ? " without model" : ""));
    TempDir dir;
    const fs::path path = copy_fixture(dir, c.file);
    if (c.drop_model) {
      TestDb db(path);
      db.exec("DROP TABLE Z_MODELCACHE");
    }
    const auto before = snapshot_tree(dir.path());
    {
      auto opened = CoreDataStore::open(path.string());
      ASSERT_TRUE(opened.ok()) << opened.error().message;
      const CoreDataStore& store = *opened.value();
      EXPECT_EQ(store.model() == nullptr, c.drop_model);
      std::string reason;
      auto layout = store.to_many(c.owner, c.relationship, c.member, {}, &reason);
      ASSERT_TRUE(layout) << reason;
      EXPECT_EQ(layout->kind, c.kind);
      EXPECT_EQ(c.kind == K::ForeignKey ? layout->foreign_key : layout->join_table, c.where);
      EXPECT_EQ(!layout->order_column.empty(), c.ordered) << layout->order_column;
      EXPECT_EQ(members(store, *layout, c.owner_pk), c.expected);
    }
    EXPECT_EQ(snapshot_tree(dir.path()), before);
  }
}

TEST(CoreDataStore, ReadsAWalFixtureInPlaceThroughAPrivateCopy) {
  ORVIA_REQUIRE_FIXTURES();
  const fs::path folder = test::fixture("coredata/wal");
  const fs::path path = folder / "CoreDataMigration_Example_WAL.sqlite";
  ASSERT_GT(fs::file_size(path.string() + "-wal"), 0u);  // so the reader must take the copy path
  const auto before = snapshot_tree(folder);
  {
    auto opened = CoreDataStore::open(path.string());
    ASSERT_TRUE(opened.ok()) << opened.error().message;
    const CoreDataStore& store = *opened.value();
    EXPECT_TRUE(store.read_from_private_copy());
    EXPECT_EQ(store.uuid(), "95E4B0A1-CBFB-4257-B10B-EE64F7558656");
    EXPECT_EQ(rows_of(store, "Post"), 84);
    EXPECT_EQ(rows_of(store, "Color"), 84);
    EXPECT_EQ(store.object_uri(store.entity("Post")->number, 1),
              "x-coredata://95E4B0A1-CBFB-4257-B10B-EE64F7558656/Post/p1");
    auto q = store.prepare("SELECT ZDATE, ZPOSTID FROM ZPOST WHERE Z_PK = 1");
    ASSERT_TRUE(q.ok());
    ASSERT_EQ(sqlite3_step(q.value().get()), SQLITE_ROW);
    EXPECT_DOUBLE_EQ(as_date(CoreDataStore::value(q.value().get(), 0, AttributeKind::Date).get())->time(),
                     526927588.940283);
    EXPECT_EQ(text_of(CoreDataStore::value(q.value().get(), 1, AttributeKind::String).get()),
              "22F82B9B-304B-4A1E-B870-A86C1AA9BA7F");
    EXPECT_EQ(snapshot_tree(folder), before);  // nothing appears next to the store while it is open
  }
  EXPECT_EQ(snapshot_tree(folder), before);
}

// -- Stores that cannot be attached -----------------------------------------------------------------

// A small valid store in rollback-journal mode.
void write_small_store(const fs::path& path) {
  InstaGramStore store(path);
  store.db().exec("BEGIN");
  store.account(1, "1001", "alice");
  for (int i = 1; i <= 40; ++i) store.album(i, "album " + std::to_string(i), 1000.0 + i);
  store.finish();
  store.db().exec("COMMIT");
}

TEST(CoreDataStore, RefusesStoresItCannotRead) {
  struct Case {
    const char* name;
    bool from_store;                             // start from a small valid store
    std::function<void(const fs::path&)> make;  // writes (or spoils) the store file
    int code;
  };
  auto sql = [](const char* statement) { return [statement](const fs::path& p) { TestDb(p).exec(statement); }; };
  const std::vector<Case> cases = {
      {"missing file", false, [](const fs::path&) {}, SQLITE_CANTOPEN},
      {"a folder", false, [](const fs::path& p) { fs::create_directory(p); }, SQLITE_CANTOPEN},
      {"empty file", false, [](const fs::path& p) { test::write_file(p, ""); }, SQLITE_NOTADB},
      {"text file", false, [](const fs::path& p) { test::write_file(p, std::string(8192, 'x')); }, SQLITE_NOTADB},
      {"garbage after a valid magic", false,
       [](const fs::path& p) { test::write_file(p, std::string("SQLite format 3\0", 16) + std::string(4080, '\x7f')); },
       SQLITE_NOTADB},
      {"truncated to two pages", true, [](const fs::path& p) { fs::resize_file(p, 2 * 4096); }, SQLITE_CORRUPT},
      {"truncated inside a page", true, [](const fs::path& p) { fs::resize_file(p, fs::file_size(p) - 1000); },
       SQLITE_CORRUPT},
      {"corrupt schema page", true,
       [](const fs::path& p) {
         std::string bytes = test::read_file(p);
         for (std::size_t i = 100; i < 4096; ++i) bytes[i] = static_cast<char>(0xA5 ^ (i * 7));
         test::write_file(p, bytes);
       },
       SQLITE_CORRUPT},
      {"no Z_PRIMARYKEY", true, sql("DROP TABLE Z_PRIMARYKEY"), SQLITE_CORRUPT},
      {"no Z_METADATA", true, sql("DROP TABLE Z_METADATA"), SQLITE_CORRUPT},
      {"no metadata row", true, sql("DELETE FROM Z_METADATA"), SQLITE_CORRUPT},
      {"plain SQLite database", false, sql("CREATE TABLE notes (id INTEGER PRIMARY KEY, text VARCHAR)"),
       SQLITE_CORRUPT},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const fs::path path = dir / "InstaGramStore.db";
    if (c.from_store) write_small_store(path);
    c.make(path);
    const auto before = snapshot_tree(dir.path());
    CoreDataStore::OpenError error;
    auto opened = CoreDataStore::open(path.string(), &error);
    EXPECT_FALSE(opened.ok());
    EXPECT_EQ(error.sqlite_code, c.code) << error.reason;
    EXPECT_FALSE(error.reason.empty());
    EXPECT_EQ(snapshot_tree(dir.path()), before);
  }
}

TEST(CoreDataStore, RefusesAStoreThatAnotherProcessIsWriting) {
  struct Case {
    const char* name;
    bool wal;
    const char* sql;
  };
  const std::vector<Case> cases = {
      {"exclusive lock", false, "BEGIN EXCLUSIVE"},
      {"pending write transaction", false, "BEGIN IMMEDIATE; INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT) VALUES (9, 1, 1)"},
      {"WAL write transaction", true, "BEGIN IMMEDIATE; INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT) VALUES (9, 1, 1)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const fs::path path = dir / "InstaGramStore.db";
    write_small_store(path);
    if (c.wal) TestDb(path).exec("PRAGMA journal_mode=WAL");
    {
      test::LockHolder holder(path, c.sql);
      ASSERT_TRUE(holder.held());
      const auto before = snapshot_tree(dir.path());
      CoreDataStore::OpenError error;
      EXPECT_FALSE(CoreDataStore::open(path.string(), &error).ok());
      EXPECT_EQ(error.sqlite_code, SQLITE_BUSY);
      EXPECT_EQ(error.reason, "database is locked");
      EXPECT_EQ(snapshot_tree(dir.path()), before);
    }
    // Once the writer is gone the store opens, without the rolled-back row.
    auto opened = CoreDataStore::open(path.string());
    ASSERT_TRUE(opened.ok()) << opened.error().message;
    EXPECT_EQ(rows_of(*opened.value(), "Account"), 1);
  }
}

TEST(CoreDataStore, RollsBackAHotJournalInItsPrivateCopyOnly) {
  TempDir dir;
  const fs::path path = dir / "InstaGramStore.db";
  write_small_store(path);
  TempDir crashed;  // the store and its journal as a writer that died mid-transaction leaves them
  {
    TestDb writer(path);
    writer.exec("PRAGMA cache_size=2; BEGIN;");
    for (int i = 2; i <= 400; ++i) {
      writer.exec("INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT, ZUID, ZNAME) VALUES (" + std::to_string(i) +
                  ", 1, 1, 'u', '" + std::string(300, 'n') + "')");
    }
    writer.exec("UPDATE ZIMAGELIST SET ZTITLE = 'changed'");
    ASSERT_TRUE(fs::exists(path.string() + "-journal"));
    fs::copy_file(path, crashed / "InstaGramStore.db");
    fs::copy_file(path.string() + "-journal", crashed.path() / "InstaGramStore.db-journal");
    writer.exec("ROLLBACK");
  }
  const auto before = snapshot_tree(crashed.path());
  {
    auto opened = CoreDataStore::open((crashed / "InstaGramStore.db").string());
    ASSERT_TRUE(opened.ok()) << opened.error().message;
    EXPECT_TRUE(opened.value()->read_from_private_copy());
    EXPECT_EQ(rows_of(*opened.value(), "Account"), 1);
    EXPECT_EQ(count(*opened.value(), "SELECT COUNT(*) FROM ZIMAGELIST WHERE ZTITLE = 'changed'"), 0);
  }
  EXPECT_EQ(snapshot_tree(crashed.path()), before);
}

// -- Relationship discovery in InstaGram stores -----------------------------------------------------

struct DiscoveryCase {
  const char* name;
  test::InstaGramOptions options;
  ToManyLayout::Kind kind;
  const char* where;
  bool ordered;
};

TEST(CoreDataStore, FindsTheAlbumMembersInEveryLayout) {
  using K = ToManyLayout::Kind;
  using L = test::ImagesLayout;
  const auto opts = [](auto... args) { return test::store_options(args...); };
  const std::vector<DiscoveryCase> cases = {
      {"foreign key", opts(L::ForeignKey), K::ForeignKey, "ZLIST", false},
      {"foreign key, model", opts(L::ForeignKey, false, true), K::ForeignKey, "ZLIST", false},
      {"ordered foreign key", opts(L::Ordered), K::ForeignKey, "ZLIST", true},
      {"ordered foreign key, model", opts(L::Ordered, true, true), K::ForeignKey, "ZLIST", true},
      {"inverse named by the model only", opts(L::ForeignKey, false, true, "owningAlbum"), K::ForeignKey,
       "ZOWNINGALBUM", false},
      {"inverse found by its entity column", opts(L::ForeignKey, true, false, "album", 11), K::ForeignKey, "ZALBUM",
       false},
      {"inverse found by its index and keys", opts(L::ForeignKey, false, false, "album", 11), K::ForeignKey, "ZALBUM",
       false},
      {"join table", opts(L::JoinTable), K::JoinTable, "Z_5IMAGES", false},
      {"join table, model", opts(L::JoinTable, true, true), K::JoinTable, "Z_5IMAGES", false},
      {"join table, other numbers", opts(L::JoinTable, true, false, "albums", 11), K::JoinTable, "Z_11IMAGES", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const fs::path path = dir / "InstaGramStore.db";
    {
      InstaGramStore s(path, c.options);
      s.album(1, "a", 1.0);
      s.album(2, "b", 2.0, c.options.sub_entities);
      // Album 2's media, stored out of key order when ordered; ZUNREADBY points elsewhere.
      s.item(10, 2, "x", false, 3, 7);
      s.item(11, 2, "x", c.options.sub_entities, 1, 7);
      s.item(12, 2, "x", false, 2);
      s.item(13, 1, "x");
      s.item(14, std::nullopt, "x");
      s.friend_({7, std::nullopt, "f", "u"});
      s.finish();
    }
    const auto before = snapshot_tree(dir.path());
    {
      auto opened = CoreDataStore::open(path.string());
      ASSERT_TRUE(opened.ok()) << opened.error().message;
      const CoreDataStore& store = *opened.value();
      std::string reason;
      auto layout = store.to_many("ImageList", "images", "ImageItem",
                                  RelationshipHints{{"list", "lists"}, {"dictionary", "mediaID"}}, &reason);
      ASSERT_TRUE(layout) << reason;
      EXPECT_EQ(layout->kind, c.kind);
      EXPECT_EQ(c.kind == K::ForeignKey ? layout->foreign_key : layout->join_table, c.where);
      EXPECT_EQ(!layout->order_column.empty(), c.ordered);
      EXPECT_EQ(members(store, *layout, 2), c.ordered ? std::vector<std::int64_t>({11, 12, 10})
                                                      : std::vector<std::int64_t>({10, 11, 12}));
      EXPECT_EQ(members(store, *layout, 1), std::vector<std::int64_t>({13}));
      // Counts per album in one grouped query.
      auto q = store.prepare(CoreDataStore::member_counts_sql(*layout) + " ORDER BY owner_key");
      ASSERT_TRUE(q.ok()) << q.error().message;
      std::vector<std::pair<std::int64_t, std::int64_t>> counts;
      while (sqlite3_step(q.value().get()) == SQLITE_ROW)
        counts.emplace_back(sqlite3_column_int64(q.value().get(), 0), sqlite3_column_int64(q.value().get(), 1));
      EXPECT_EQ(counts, (std::vector<std::pair<std::int64_t, std::int64_t>>{{1, 1}, {2, 3}}));
    }
    EXPECT_EQ(snapshot_tree(dir.path()), before);
  }
}

TEST(CoreDataStore, ReportsARelationshipItCannotFind) {
  TempDir dir;
  const fs::path path = dir / "InstaGramStore.db";
  {
    InstaGramStore s(path);
    s.album(1, "a", 1.0);
    s.friend_({99, std::nullopt, "f", "u"});
    s.item(1, 1, "x", false, std::nullopt, 99);
    s.db().exec("DROP INDEX ZIMAGEITEM_ZLIST_INDEX; ALTER TABLE ZIMAGEITEM DROP COLUMN ZLIST");
  }
  auto opened = CoreDataStore::open(path.string());
  ASSERT_TRUE(opened.ok());
  std::string reason;
  EXPECT_FALSE(opened.value()->to_many("ImageList", "images", "ImageItem", {}, &reason));
  EXPECT_NE(reason.find("ImageList.images"), std::string::npos) << reason;
  EXPECT_FALSE(opened.value()->to_many("ImageList", "images", "NoSuchEntity", {}, &reason));
  EXPECT_EQ(reason, "no entity NoSuchEntity");
}

}  // namespace
}  // namespace orvia
