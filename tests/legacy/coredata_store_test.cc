// The generic Core Data store reader: real stores written by Core Data, small stores written here in
// Core Data's layout, and every way a store can refuse to be read. Each test that opens a store checks
// that its folder is byte for byte unchanged afterwards.
#include "legacy/coredata_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "legacy/inflate.h"
#include "legacy_test_util.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace orvia {
namespace {

using test::InstaGramStore;
using test::snapshot_tree;
using test::TempDir;

// A query's rows as one text: columns joined by ",", rows by " ".
std::string rows(const CoreDataStore& store, const std::string& sql, std::optional<std::int64_t> bind = {},
                 int columns = 99) {
  auto q = store.prepare(sql);
  if (!q.ok()) return "error: " + q.error().message;
  if (bind) sqlite3_bind_int64(q.value().get(), 1, *bind);
  std::string out;
  while (sqlite3_step(q.value().get()) == SQLITE_ROW) {
    for (int i = 0; i < std::min(columns, sqlite3_column_count(q.value().get())); ++i)
      out += (i ? "," : out.empty() ? "" : " ") + std::string(reinterpret_cast<const char*>(sqlite3_column_text(q.value().get(), i)));
  }
  return out;
}

std::string rows_of(const CoreDataStore& store, const std::string& entity) {
  const StoreEntity* e = store.entity(entity);
  return e ? rows(store, "SELECT COUNT(*) FROM " + quote_identifier(e->table) + " WHERE Z_ENT IN " + e->family_sql) : "-";
}

// Fixtures are opened through copies, except the WAL fixture, whose in-place read is itself under test.
fs::path copy_fixture(const TempDir& dir, const std::string& name) {
  const fs::path to = dir.path() / fs::path(name).filename();
  fs::copy_file(test::fixture("coredata/" + name), to);
  return to;
}

TEST(Inflate, DecodesTheModelCachesOfRealStoresAndRejectsDamage) {
  ORVIA_REQUIRE_FIXTURES();
  TempDir dir;
  for (const char* name : {"wire-store2-3.sqlite", "wire-store2-101-0.sqlite", "post-section-v3.sqlite"}) {
    SCOPED_TRACE(name);
    const std::string blob = test::TestDb(copy_fixture(dir, name)).scalar("SELECT Z_CONTENT FROM Z_MODELCACHE");
    auto out = inflate_raw(blob);
    ASSERT_TRUE(out.ok()) << out.error().message;
    EXPECT_EQ(out.value().substr(0, 8), "bplist00");
    // Cut short anywhere: an error, never a crash or a hang; flipped bits give bounded output.
    for (std::size_t cut : {std::size_t{0}, std::size_t{1}, blob.size() / 3, blob.size() / 2, blob.size() - 1})
      EXPECT_FALSE(inflate_raw(std::string_view(blob).substr(0, cut)).ok()) << "cut at " << cut;
    for (std::size_t at = 0; at < blob.size(); at += blob.size() / 40 + 1) {
      std::string damaged = blob;
      damaged[at] = static_cast<char>(damaged[at] ^ 0x5a);
      auto r = inflate_raw(damaged, 4u << 20);
      EXPECT_LE(r.ok() ? r.value().size() : 0, 4u << 20);
    }
    // More output than allowed is an error, not a truncation.
    EXPECT_FALSE(inflate_raw(blob, out.value().size() - 1).ok());
    EXPECT_TRUE(inflate_raw(blob, out.value().size()).ok());
  }
  // Stored blocks, a bad length complement and a block type that does not exist.
  auto stored = inflate_raw(std::string("\x01\x03\x00\xfc\xff", 5) + "abc");
  EXPECT_EQ(stored.ok() ? stored.value() : stored.error().message, "abc");
  EXPECT_FALSE(inflate_raw(std::string("\x01\x03\x00\xfc\xfe", 5) + "abc").ok());
  EXPECT_FALSE(inflate_raw(std::string("\x07", 1)).ok());
}

// Entities as "Name:number<super@TABLE=rows" ("!" when the lookup by number finds another entity).
std::string entities_of(const CoreDataStore& store, const std::vector<std::string>& names) {
  std::string out;
  for (const auto& name : names) {
    const StoreEntity* e = store.entity(name);
    out += (out.empty() ? "" : " ") + name + (e ? "" : ":missing");
    if (e)
      out += ":" + std::to_string(e->number) + "<" + std::to_string(e->super) + "@" + e->table + "=" +
             rows_of(store, name) + (store.entity(e->number) == e ? "" : "!");
  }
  return out;
}

// A stored value as text that tells the kinds apart.
std::string value_text(const Ref<Object>& o) {
  char buf[64] = "nil";
  if (const Date* d = as_date(o.get())) std::snprintf(buf, sizeof buf, "date %.6f", d->time());
  if (const Number* n = as_number(o.get())) std::snprintf(buf, sizeof buf, "real %.6f", n->real_value());
  if (const Data* d = as_data(o.get()))
    std::snprintf(buf, sizeof buf, "data %zu %02x", d->bytes().size(), static_cast<unsigned char>(d->bytes()[0]));
  return as_string(o.get()) ? '"' + std::string(text_of(o.get())) + '"' : std::string(buf);
}

TEST(CoreDataStore, ReadsTheLayoutAndValuesOfRealStores) {
  ORVIA_REQUIRE_FIXTURES();
  struct Case {
    const char* file;  // "wal/...": read in place, through a private copy
    std::size_t entities;
    std::vector<std::string> names;
    const char* expected;
    std::int64_t pk;  // a row of the first entity's table, and its URI
    const char* uri;
    std::vector<std::tuple<const char*, AttributeKind, const char*>> values;  // one value's query, kind, text
  };
  const auto D = AttributeKind::Date, B = AttributeKind::Binary, R = AttributeKind::Real, S = AttributeKind::String;
  const std::vector<Case> cases = {
      {"wire-store2-3.sqlite", 14,
       {"Message", "ClientMessage", "TextMessage", "User", "UserClient", "Session", "PersonalInvitation"},
       "Message:4<0@ZMESSAGE=5 ClientMessage:6<4@ZMESSAGE=5 TextMessage:10<4@ZMESSAGE=0 User:13<0@ZUSER=3 "
       "UserClient:14<0@ZUSERCLIENT=8 Session:12<0@ZSESSION=1 PersonalInvitation:11<0@ZPERSONALINVITATION=0",
       3, "x-coredata://04FF51BB-9DE2-43FF-9D25-CABA19E15EF7/ClientMessage/p3",
       {{"SELECT ZSERVERTIMESTAMP FROM ZMESSAGE WHERE Z_PK = 3", D, "date 483357108.456000"},
        {"SELECT ZSERVERTIMESTAMP FROM ZMESSAGE WHERE Z_PK = 3", B, "nil"},  // a date is no data
        {"SELECT ZNONCE_DATA FROM ZMESSAGE WHERE Z_PK = 3", B, "data 16 8e"},
        {"SELECT ZACTIVATIONLOCATIONLATITUDE FROM ZUSERCLIENT WHERE Z_PK = 1", R, "real 52.523300"},
        {"SELECT NULL", S, "nil"}}},
      {"wire-store2-101-0.sqlite", 24, {"Message", "SystemMessage", "ClientMessage", "User", "Conversation"},
       "Message:10<0@ZMESSAGE=24 SystemMessage:15<10@ZMESSAGE=21 ClientMessage:12<10@ZMESSAGE=3 User:23<0@ZUSER=22 "
       "Conversation:5<0@ZCONVERSATION=21",
       4, "x-coredata://E8AFD1EB-9427-4A64-ABDA-AA06F7B1092C/SystemMessage/p4", {}},
      {"post-section-v3.sqlite", 2, {"Post", "Section"}, "Post:1<0@ZPOST=12 Section:2<0@ZSECTION=14",
       1, "x-coredata://31029939-92C0-48F2-988A-A93D5B7CFFDB/Post/p1", {}},
      {"wal/CoreDataMigration_Example_WAL.sqlite", 2, {"Post", "Color"}, "Post:2<0@ZPOST=84 Color:1<0@ZCOLOR=84",
       1, "x-coredata://95E4B0A1-CBFB-4257-B10B-EE64F7558656/Post/p1",
       {{"SELECT ZDATE FROM ZPOST WHERE Z_PK = 1", D, "date 526927588.940283"},
        {"SELECT ZPOSTID FROM ZPOST WHERE Z_PK = 1", S, "\"22F82B9B-304B-4A1E-B870-A86C1AA9BA7F\""}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    TempDir dir;
    const bool wal = std::string_view(c.file).starts_with("wal/");
    const fs::path path = wal ? test::fixture(std::string("coredata/") + c.file) : copy_fixture(dir, c.file);
    ASSERT_TRUE(!wal || fs::file_size(path.string() + "-wal") > 0);  // so the reader must take the copy path
    const auto before = snapshot_tree(path.parent_path());
    {
      auto opened = CoreDataStore::open(path.string());
      ASSERT_TRUE(opened.ok()) << opened.error().message;
      const CoreDataStore& store = *opened.value();
      EXPECT_EQ(store.read_from_private_copy(), wal);
      EXPECT_EQ(store.entities().size(), c.entities);
      EXPECT_EQ(entities_of(store, c.names), c.expected);
      EXPECT_EQ(store.object_uri(std::stoll(rows(store, "SELECT Z_ENT FROM " + store.entity(c.names[0])->table +
                                                            " WHERE Z_PK = " + std::to_string(c.pk))), c.pk), c.uri);
      for (const auto& [sql, kind, expected] : c.values) {
        auto q = store.prepare(sql);
        ASSERT_TRUE(q.ok() && sqlite3_step(q.value().get()) == SQLITE_ROW) << sql;
        EXPECT_EQ(value_text(CoreDataStore::value(q.value().get(), 0, kind)), expected) << sql;
      }
      EXPECT_EQ(snapshot_tree(path.parent_path()), before);  // nothing appears next to the store while it is open
    }
    EXPECT_EQ(snapshot_tree(path.parent_path()), before);
  }
}

// A to-many relationship as "key COLUMN" or "join TABLE", " ordered" when it is, then each owner's
// members in the order the store yields them ("2:1,2,4"); "none: <reason>" when it is not found.
std::string to_many_of(const CoreDataStore& store, const char* owner, const char* relationship, const char* member,
                       const RelationshipHints& hints, const std::vector<std::int64_t>& owners) {
  std::string reason;
  auto layout = store.to_many(owner, relationship, member, hints, &reason);
  if (!layout) return "none: " + reason;
  std::string out = layout->kind == ToManyLayout::Kind::ForeignKey ? "key " + layout->foreign_key : "join " + layout->join_table;
  if (!layout->order_column.empty()) out += " ordered";
  for (std::int64_t o : owners) {
    std::string members = rows(store, CoreDataStore::members_sql(*layout, {}), o, 1);
    std::replace(members.begin(), members.end(), ' ', ',');
    out += " " + std::to_string(o) + ":" + members;
  }
  return out;
}

TEST(CoreDataStore, FindsToManyRelationshipsOfRealStoresWithAndWithoutTheirModel) {
  ORVIA_REQUIRE_FIXTURES();
  struct Case {
    const char *file, *owner, *relationship, *member;
    std::vector<std::int64_t> owners;
    const char* expected;
    bool needs_model = false;  // the hints the reader gets here do not tell the inverse among others
  };
  const std::vector<Case> cases = {
      // Ordered one-to-many: members in Z_FOK_ order.
      {"wire-store2-3.sqlite", "Conversation", "messages", "Message", {2, 1}, "key ZVISIBLEINCONVERSATION ordered 2:1,2,4 1:3,5", true},
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
      if (drop_model) test::TestDb(path).exec("DROP TABLE Z_MODELCACHE");
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

// -- Stores that cannot be attached -----------------------------------------------------------------

void write_small_store(const fs::path& path) {  // rollback-journal mode
  InstaGramStore store(path);
  store.account(1, "1001", "alice");
  for (int i = 1; i <= 40; ++i) store.album(i, "album " + std::to_string(i), std::to_string(1000 + i));
}

TEST(CoreDataStore, RefusesStoresItCannotRead) {
  auto sql = [](const char* statement) { return [statement](const fs::path& p) { test::TestDb(p).exec(statement); }; };
  const std::vector<std::tuple<bool, std::function<void(const fs::path&)>, int, const char*>> cases = {
      // {start from a small valid store, what spoils it, code, reason}
      {false, [](const fs::path&) {}, SQLITE_CANTOPEN, "unable to open the store file"},
      {false, [](const fs::path& p) { fs::create_directory(p); }, SQLITE_CANTOPEN, "the store is not a regular file"},
      {false, [](const fs::path& p) { test::write_file(p, ""); }, SQLITE_NOTADB, "file is not a database"},
      {false, [](const fs::path& p) { test::write_file(p, std::string("SQLite format 3\0", 16) + std::string(4080, '\x7f')); },
       SQLITE_NOTADB, "invalid page size in the database header"},
      {true, [](const fs::path& p) { fs::resize_file(p, 2 * 4096); }, SQLITE_CORRUPT,
       "the store file is shorter than its header says (truncated)"},
      {true, [](const fs::path& p) { fs::resize_file(p, fs::file_size(p) - 1000); }, SQLITE_CORRUPT,
       "the store file ends inside a page (truncated)"},
      {true, [](const fs::path& p) {  // the schema page overwritten
         std::string bytes = test::read_file(p);
         for (std::size_t i = 100; i < 4096; ++i) bytes[i] = static_cast<char>(0xA5 ^ (i * 7));
         test::write_file(p, bytes);
       }, SQLITE_CORRUPT, "cannot read the schema: database disk image is malformed"},
      {true, sql("DROP TABLE Z_METADATA"), SQLITE_CORRUPT, "the store has no Z_METADATA table"},
      {true, sql("DELETE FROM Z_METADATA"), SQLITE_CORRUPT, "the store's metadata has no UUID"},
      {false, sql("CREATE TABLE notes (id INTEGER PRIMARY KEY)"), SQLITE_CORRUPT, "the store has no Z_PRIMARYKEY table"},
  };
  for (const auto& [from_store, make, code, reason] : cases) {
    SCOPED_TRACE(reason);
    TempDir dir;
    const fs::path path = dir / "InstaGramStore.db";
    if (from_store) write_small_store(path);
    make(path);
    const auto before = snapshot_tree(dir.path());
    CoreDataStore::OpenError error;
    EXPECT_FALSE(CoreDataStore::open(path.string(), &error).ok());
    EXPECT_EQ(std::to_string(error.sqlite_code) + " " + error.reason, std::to_string(code) + " " + reason);
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
    if (wal) test::TestDb(path).exec("PRAGMA journal_mode=WAL");
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
    EXPECT_EQ(rows_of(*opened.value(), "Account"), "1");
  }
}

TEST(CoreDataStore, RollsBackAHotJournalInItsPrivateCopyOnly) {
  TempDir dir, crashed;  // the store and its journal as a writer that died mid-transaction leaves them
  const fs::path path = dir / "InstaGramStore.db";
  write_small_store(path);
  {
    test::TestDb writer(path);
    writer.exec("PRAGMA cache_size=2; BEGIN;");
    for (int i = 2; i <= 400; ++i)
      writer.exec("INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT, ZNAME) VALUES (" + std::to_string(i) + ", 1, 1, '" +
                  std::string(300, 'n') + "')");
    writer.exec("UPDATE ZIMAGELIST SET ZTITLE = 'changed'");
    ASSERT_TRUE(fs::exists(path.string() + "-journal"));
    fs::copy_file(path, crashed / "InstaGramStore.db");
    fs::copy_file(path.string() + "-journal", crashed / "InstaGramStore.db-journal");
    writer.exec("ROLLBACK");
  }
  const auto before = snapshot_tree(crashed.path());
  {
    auto opened = CoreDataStore::open((crashed / "InstaGramStore.db").string());
    ASSERT_TRUE(opened.ok()) << opened.error().message;
    EXPECT_TRUE(opened.value()->read_from_private_copy());
    EXPECT_EQ(rows_of(*opened.value(), "Account") + " " +
                  rows(*opened.value(), "SELECT COUNT(*) FROM ZIMAGELIST WHERE ZTITLE = 'changed'"), "1 0");
  }
  EXPECT_EQ(snapshot_tree(crashed.path()), before);
}

// -- Relationship discovery in InstaGram stores -----------------------------------------------------

TEST(CoreDataStore, FindsTheAlbumMembersInEveryLayout) {
  using L = test::ImagesLayout;
  const std::vector<std::tuple<const char*, test::InstaGramOptions, const char*>> cases = {
      // {what, {layout, sub-entities, model cache, inverse, ImageList's number}, layout found}
      {"foreign key", {L::ForeignKey}, "key ZLIST"},
      {"foreign key, model", {L::ForeignKey, false, true}, "key ZLIST"},
      {"ordered foreign key", {L::Ordered}, "key ZLIST ordered"},
      {"ordered foreign key, model", {L::Ordered, true, true}, "key ZLIST ordered"},
      {"inverse named by the model only", {L::ForeignKey, false, true, "owningAlbum"}, "key ZOWNINGALBUM"},
      {"inverse found by its entity column", {L::ForeignKey, true, false, "album", 11}, "key ZALBUM"},
      {"inverse found by its index and keys", {L::ForeignKey, false, false, "album", 11}, "key ZALBUM"},
      {"join table", {L::JoinTable}, "join Z_5IMAGES"},
      {"join table, model", {L::JoinTable, true, true}, "join Z_5IMAGES"},
      {"join table, other numbers", {L::JoinTable, true, false, "albums", 11}, "join Z_11IMAGES"},
  };
  for (const auto& [name, options, layout] : cases) {
    SCOPED_TRACE(name);
    TempDir dir;
    const fs::path path = dir / "InstaGramStore.db";
    {
      InstaGramStore s(path, options);
      s.album(1, "a", "1");
      s.album(2, "b", "2", options.sub_entities);
      // Album 2's media, stored out of key order when ordered; ZUNREADBY points elsewhere.
      s.item(10, 2, "x", false, "3", "7");
      s.item(11, 2, "x", options.sub_entities, "1", "7");
      s.item(12, 2, "x", false, "2");
      s.item(13, 1, "x");
      s.item(14, std::nullopt, "x");
      s.friend_(7, {}, "f", "u");
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
      EXPECT_EQ(rows(store, CoreDataStore::member_counts_sql(*store.to_many("ImageList", "images", "ImageItem", hints)) +
                                " ORDER BY owner_key"), "1,1 2,3");
    }
    EXPECT_EQ(snapshot_tree(dir.path()), before);
  }
}

}  // namespace
}  // namespace orvia
