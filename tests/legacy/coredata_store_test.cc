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

// Entities as "Name:number<super@TABLE=rows" (rows of the entity and its sub-entities; "!" when the
// lookup by number finds another entity).
std::string entities_of(const CoreDataStore& store, const std::vector<std::string>& names) {
  std::string out;
  for (const auto& name : names) {
    const StoreEntity* e = store.entity(name);
    out += (out.empty() ? "" : " ") + name;
    if (!e) {
      out += ":missing";
      continue;
    }
    out += ":" + std::to_string(e->number) + "<" + std::to_string(e->super) + "@" + e->table + "=" +
           std::to_string(rows_of(store, name)) + (store.entity(e->number) == e ? "" : "!");
  }
  return out;
}

// The URI of the row `pk` of `table`, by the entity its Z_ENT names.
std::string uri_of(const CoreDataStore& store, const std::string& table, std::int64_t pk) {
  auto q = store.prepare("SELECT Z_ENT FROM " + table + " WHERE Z_PK = " + std::to_string(pk));
  if (!q.ok() || sqlite3_step(q.value().get()) != SQLITE_ROW) return "no row";
  return store.object_uri(sqlite3_column_int64(q.value().get(), 0), pk);
}

TEST(CoreDataStore, ReadsTheLayoutOfRealStores) {
  ORVIA_REQUIRE_FIXTURES();
  struct Case {
    const char* file;
    std::size_t entities;
    std::vector<std::string> names;
    const char* expected;
    std::int64_t pk;  // a row of the first entity's table, and its URI
    const char* uri;
  };
  const std::vector<Case> cases = {
      {"wire-store2-3.sqlite", 14,
       {"Message", "ClientMessage", "TextMessage", "User", "UserClient", "Session", "PersonalInvitation"},
       "Message:4<0@ZMESSAGE=5 ClientMessage:6<4@ZMESSAGE=5 TextMessage:10<4@ZMESSAGE=0 User:13<0@ZUSER=3 "
       "UserClient:14<0@ZUSERCLIENT=8 Session:12<0@ZSESSION=1 PersonalInvitation:11<0@ZPERSONALINVITATION=0",
       3, "x-coredata://04FF51BB-9DE2-43FF-9D25-CABA19E15EF7/ClientMessage/p3"},
      {"wire-store2-101-0.sqlite", 24, {"Message", "SystemMessage", "ClientMessage", "User", "Conversation"},
       "Message:10<0@ZMESSAGE=24 SystemMessage:15<10@ZMESSAGE=21 ClientMessage:12<10@ZMESSAGE=3 User:23<0@ZUSER=22 "
       "Conversation:5<0@ZCONVERSATION=21",
       4, "x-coredata://E8AFD1EB-9427-4A64-ABDA-AA06F7B1092C/SystemMessage/p4"},
      {"post-section-v3.sqlite", 2, {"Post", "Section"}, "Post:1<0@ZPOST=12 Section:2<0@ZSECTION=14",
       1, "x-coredata://31029939-92C0-48F2-988A-A93D5B7CFFDB/Post/p1"},
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
      EXPECT_TRUE(store.model());
      EXPECT_EQ(store.entities().size(), c.entities);
      EXPECT_EQ(entities_of(store, c.names), c.expected);
      EXPECT_EQ(uri_of(store, store.entity(c.names[0])->table, c.pk), c.uri);
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

// A to-many relationship as "key COLUMN" or "join TABLE", " ordered" when it is, then each owner's
// members in the order the store yields them ("2:1,2,4"); "none: <reason>" when it is not found.
std::string to_many_of(const CoreDataStore& store, const char* owner, const char* relationship, const char* member,
                       const RelationshipHints& hints, const std::vector<std::int64_t>& owners) {
  std::string reason;
  auto layout = store.to_many(owner, relationship, member, hints, &reason);
  if (!layout) return "none: " + reason;
  std::string out = layout->kind == ToManyLayout::Kind::ForeignKey ? "key " + layout->foreign_key
                                                                   : "join " + layout->join_table;
  if (!layout->order_column.empty()) out += " ordered";
  for (std::int64_t o : owners) {
    out += " " + std::to_string(o) + ":";
    for (std::int64_t m : members(store, *layout, o)) out += std::string(out.back() == ':' ? "" : ",") + std::to_string(m);
  }
  return out;
}

TEST(CoreDataStore, FindsToManyRelationshipsOfRealStoresWithAndWithoutTheirModel) {
  ORVIA_REQUIRE_FIXTURES();
  struct Case {
    const char* file;
    const char *owner, *relationship, *member;
    std::vector<std::int64_t> owners;
    const char* expected;
    bool needs_model = false;  // the hints the reader gets here do not tell the inverse among others
  };
  const std::vector<Case> cases = {
      // Ordered one-to-many: members in Z_FOK_ order.
      {"wire-store2-3.sqlite", "Conversation", "messages", "Message", {2, 1}, "key ZVISIBLEINCONVERSATION ordered 2:1,2,4 1:3,5",
       true},
      // Reflexive many-to-many.
      {"wire-store2-3.sqlite", "UserClient", "ignoredClients", "UserClient", {1}, "join Z_14IGNOREDBYCLIENTS 1:2,3,4,5,6,7,8"},
      // Many-to-many declared on a sub-entity, with a suffixed column; and an ordered one.
      {"wire-store2-101-0.sqlite", "SystemMessage", "users", "User", {1}, "join Z_15USERS 1:3,9,18"},
      {"wire-store2-101-0.sqlite", "Conversation", "lastServerSyncedActiveParticipants", "User", {17},
       "join Z_5LASTSERVERSYNCEDACTIVEPARTICIPANTS ordered 17:9,18,3"},
      // Unordered one-to-many: members by ascending Z_PK (post 11's sections are 12 and 11 by index).
      {"post-section-v3.sqlite", "Post", "sections", "Section", {11, 12}, "key ZPOST 11:11,12 12:13,14"},
  };
  for (const auto& c : cases) {
    for (const bool drop_model : {false, !c.needs_model}) {  // without Z_MODELCACHE: read as an old store
      SCOPED_TRACE(std::string(c.file) + " " + c.owner + "." + c.relationship + (drop_model ? " without model" : ""));
      TempDir dir;
      const fs::path path = copy_fixture(dir, c.file);
      if (drop_model) TestDb(path).exec("DROP TABLE Z_MODELCACHE");
      const auto before = snapshot_tree(dir.path());
      {
        auto opened = CoreDataStore::open(path.string());
        ASSERT_TRUE(opened.ok()) << opened.error().message;
        EXPECT_EQ(opened.value()->model() == nullptr, drop_model);
        EXPECT_EQ(to_many_of(*opened.value(), c.owner, c.relationship, c.member, {}, c.owners), c.expected);
      }
      EXPECT_EQ(snapshot_tree(dir.path()), before);
    }
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
    EXPECT_EQ(entities_of(store, {"Post", "Color"}), "Post:2<0@ZPOST=84 Color:1<0@ZCOLOR=84");
    EXPECT_EQ(uri_of(store, "ZPOST", 1), "x-coredata://95E4B0A1-CBFB-4257-B10B-EE64F7558656/Post/p1");
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
    bool from_store;                             // start from a small valid store
    std::function<void(const fs::path&)> make;  // writes (or spoils) the store file
    int code;
    const char* reason;
  };
  auto sql = [](const char* statement) { return [statement](const fs::path& p) { TestDb(p).exec(statement); }; };
  const std::vector<Case> cases = {
      {false, [](const fs::path&) {}, SQLITE_CANTOPEN, "unable to open the store file"},
      {false, [](const fs::path& p) { fs::create_directory(p); }, SQLITE_CANTOPEN, "the store is not a regular file"},
      {false, [](const fs::path& p) { test::write_file(p, ""); }, SQLITE_NOTADB, "file is not a database"},
      {false,
       [](const fs::path& p) { test::write_file(p, std::string("SQLite format 3\0", 16) + std::string(4080, '\x7f')); },
       SQLITE_NOTADB, "invalid page size in the database header"},
      {true, [](const fs::path& p) { fs::resize_file(p, 2 * 4096); }, SQLITE_CORRUPT,
       "the store file is shorter than its header says (truncated)"},
      {true, [](const fs::path& p) { fs::resize_file(p, fs::file_size(p) - 1000); }, SQLITE_CORRUPT,
       "the store file ends inside a page (truncated)"},
      {true,
       [](const fs::path& p) {  // the schema page overwritten
         std::string bytes = test::read_file(p);
         for (std::size_t i = 100; i < 4096; ++i) bytes[i] = static_cast<char>(0xA5 ^ (i * 7));
         test::write_file(p, bytes);
       },
       SQLITE_CORRUPT, "cannot read the schema: database disk image is malformed"},
      {true, sql("DROP TABLE Z_METADATA"), SQLITE_CORRUPT, "the store has no Z_METADATA table"},
      {true, sql("DELETE FROM Z_METADATA"), SQLITE_CORRUPT, "the store's metadata has no UUID"},
      {false, sql("CREATE TABLE notes (id INTEGER PRIMARY KEY, text VARCHAR)"), SQLITE_CORRUPT,
       "the store has no Z_PRIMARYKEY table"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    TempDir dir;
    const fs::path path = dir / "InstaGramStore.db";
    if (c.from_store) write_small_store(path);
    c.make(path);
    const auto before = snapshot_tree(dir.path());
    CoreDataStore::OpenError error;
    EXPECT_FALSE(CoreDataStore::open(path.string(), &error).ok());
    EXPECT_EQ(std::to_string(error.sqlite_code) + " " + error.reason, std::to_string(c.code) + " " + c.reason);
    EXPECT_EQ(snapshot_tree(dir.path()), before);
  }
}

TEST(CoreDataStore, RefusesAStoreThatAnotherProcessIsWriting) {
  const char* insert = "BEGIN IMMEDIATE; INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT) VALUES (9, 1, 1)";
  for (const auto& [wal, sql] : {std::pair{false, "BEGIN EXCLUSIVE"}, std::pair{false, insert}, std::pair{true, insert}}) {
    SCOPED_TRACE(std::string(sql) + (wal ? " (WAL)" : ""));
    TempDir dir;
    const fs::path path = dir / "InstaGramStore.db";
    write_small_store(path);
    if (wal) TestDb(path).exec("PRAGMA journal_mode=WAL");
    {
      test::LockHolder holder(path, sql);
      ASSERT_TRUE(holder.held());
      const auto before = snapshot_tree(dir.path());
      CoreDataStore::OpenError error;
      EXPECT_FALSE(CoreDataStore::open(path.string(), &error).ok());
      EXPECT_EQ(std::to_string(error.sqlite_code) + " " + error.reason, std::to_string(SQLITE_BUSY) + " database is locked");
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

TEST(CoreDataStore, FindsTheAlbumMembersInEveryLayout) {
  using L = test::ImagesLayout;
  const auto opts = [](auto... args) { return test::store_options(args...); };
  const std::vector<std::tuple<const char*, test::InstaGramOptions, const char*>> cases = {
      {"foreign key", opts(L::ForeignKey), "key ZLIST"},
      {"foreign key, model", opts(L::ForeignKey, false, true), "key ZLIST"},
      {"ordered foreign key", opts(L::Ordered), "key ZLIST ordered"},
      {"ordered foreign key, model", opts(L::Ordered, true, true), "key ZLIST ordered"},
      {"inverse named by the model only", opts(L::ForeignKey, false, true, "owningAlbum"), "key ZOWNINGALBUM"},
      {"inverse found by its entity column", opts(L::ForeignKey, true, false, "album", 11), "key ZALBUM"},
      {"inverse found by its index and keys", opts(L::ForeignKey, false, false, "album", 11), "key ZALBUM"},
      {"join table", opts(L::JoinTable), "join Z_5IMAGES"},
      {"join table, model", opts(L::JoinTable, true, true), "join Z_5IMAGES"},
      {"join table, other numbers", opts(L::JoinTable, true, false, "albums", 11), "join Z_11IMAGES"},
  };
  for (const auto& [name, options, layout] : cases) {
    SCOPED_TRACE(name);
    TempDir dir;
    const fs::path path = dir / "InstaGramStore.db";
    {
      InstaGramStore s(path, options);
      s.album(1, "a", 1.0);
      s.album(2, "b", 2.0, options.sub_entities);
      // Album 2's media, stored out of key order when ordered; ZUNREADBY points elsewhere.
      s.item(10, 2, "x", false, 3, 7);
      s.item(11, 2, "x", options.sub_entities, 1, 7);
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
      const RelationshipHints hints{{"list", "lists"}, {"dictionary", "mediaID"}};
      const bool ordered = std::string_view(layout).ends_with("ordered");
      EXPECT_EQ(to_many_of(store, "ImageList", "images", "ImageItem", hints, {2, 1}),
                std::string(layout) + (ordered ? " 2:11,12,10 1:13" : " 2:10,11,12 1:13"));
      // Counts per album in one grouped query.
      auto q = store.prepare(CoreDataStore::member_counts_sql(*store.to_many("ImageList", "images", "ImageItem", hints)) +
                             " ORDER BY owner_key");
      ASSERT_TRUE(q.ok()) << q.error().message;
      std::string counts;
      while (sqlite3_step(q.value().get()) == SQLITE_ROW)
        counts += std::to_string(sqlite3_column_int64(q.value().get(), 0)) + ":" +
                  std::to_string(sqlite3_column_int64(q.value().get(), 1)) + " ";
      EXPECT_EQ(counts, "1:1 2:3 ");
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
  EXPECT_EQ(to_many_of(*opened.value(), "ImageList", "images", "ImageItem", {}, {1}),
            "none: no column or join table holds ImageList.images");
  EXPECT_EQ(to_many_of(*opened.value(), "ImageList", "images", "NoSuchEntity", {}, {1}), "none: no entity NoSuchEntity");
}

}  // namespace
}  // namespace orvia
