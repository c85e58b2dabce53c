// A catalogue of hostile legacy installations, each built on the fly from one healthy installation
// with one thing wrong: preference keys holding values of the wrong kind, damaged preference files,
// sidebar archives that loop, nest 100,000 deep or hold foreign records, unreadable media records,
// and stores that are damaged, incomplete, locked, pending in their -wal or kept in a read-only
// folder. Each case states the reply it must get, (YES, results with checked properties) or (NO, nil);
// every run must end within its time limit and leave the installation byte for byte as it was. A
// handful of the cases go through a real private bus as well.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "client/import_client.h"
#include "legacy/legacy_test_util.h"
#include "legacy/media_conversion.h"
#include "platform/description.h"
#include "platform/keyed_archive.h"
#include "platform/log.h"
#include "platform/plist.h"
#include "records/records.h"
#include "service/import_request.h"
#include "support/legacy_home.h"
#include "support/private_bus.h"

namespace fs = std::filesystem;

namespace orvia {
namespace {

using test::LegacyHome;
using test::LegacyStore;

// A hung import cannot be stopped: the catalogue gives up on it after this long.
constexpr auto kRunLimit = std::chrono::seconds(60);
constexpr int kDeep = 100000;

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
  sqlite3_close_v2(db);
}

// ---- the healthy installation ---------------------------------------------------------------------------

// One account (1001, ann) with a sidebar that files a tag and a location, four albums (Trip filed in
// the shared album tree), three favourite friends, favourite lists of both layouts, account values,
// a block list and a statistics database. Each case spoils one thing before (or after) it is written.
struct Scene {
  LegacyHome home;
  test::TempDir scratch;  // outside the installation
  std::int64_t ann = 0, trip = 0;
  Ref<OutlineFolderItem> tree, tags, locations, sunset;  // the user's sidebar
  Ref<OutlineFolderItem> shared;                         // the shared album tree (its albums folder)
  bool written = false;
  // What must last through the run (a process holding a lock, an open writer), and what restores the
  // folder afterwards (modes); both go before the installation's folder is removed.
  std::vector<std::function<void()>> undo;
  std::vector<std::shared_ptr<void>> keep;

  ~Scene() {
    for (auto& u : undo) u();
  }
  // Writes the preferences (the sidebar trees archived into them unless a case took them out) and
  // finishes the store. Cases that damage the written files call it first.
  void write() {
    if (written) return;
    written = true;
    if (tree) home.set_sidebar("1001", tree);
    if (shared) home.set_sidebar(test::kSharedAlbumsUser, shared);
    home.write();
  }
  fs::path velmora() const { return home.store_file().parent_path(); }
};

Ref<Dictionary> location(std::string_view id, std::string_view name, double lat, double lon) {
  return dict({{"id", str(id)}, {"name", str(name)}, {"latitude", real(lat)}, {"longitude", real(lon)}});
}

void healthy(Scene& s) {
  LegacyStore& store = s.home.store();
  s.ann = store.add_account("1001", "ann");
  s.trip = store.add_album("Trip", 400);
  store.add_image(s.trip, test::media_archive(*test::older_media("11_1001", "https://photos.example/p/AAA")));
  store.add_album("Attic", 300);
  const auto beach = store.add_album("Beach", 100);
  store.add_image(beach, test::media_archive(*test::older_media("21_1001", "https://photos.example/p/BBB")));
  store.add_image(beach, test::media_archive(*test::older_media("22_1001", "https://photos.example/p/CCC")));
  const auto cellar = store.add_album("Cellar", 50);
  store.add_image(cellar, test::media_archive(*test::older_media("31_1001", "https://photos.example/p/DDD")));
  store.add_friend({.uid = "501", .name = "dora", .added = 300, .unread_count = 5, .media_count = 7, .account = s.ann});
  store.add_friend({.uid = "502", .name = "carla", .added = 100, .unread_count = 1, .account = s.ann});
  store.add_friend({.uid = "503", .name = "bert", .added = 200, .unread_count = 3, .account = s.ann});

  s.tree = test::sidebar_root();
  test::add_base_folder(*s.tree, kFolderFavFriendIdentifier);
  auto own_albums = test::add_base_folder(*s.tree, kFolderAlbumsIdentifier);  // gives way to the shared one
  test::add_entry(*own_albums, "Trip", test::album_id(store.uri(LegacyStore::kImageList, s.trip)));
  s.tags = test::add_base_folder(*s.tree, kFolderTagsIdentifier);
  s.sunset = test::add_entry(*s.tags, "sunset", test::favtag_id("sunset"));
  s.locations = test::add_base_folder(*s.tree, kFolderLocationsIdentifier);
  test::add_entry(*s.locations, "Oslo harbour", test::location_id("77"));

  auto shared_root = test::sidebar_root();
  s.shared = test::add_base_folder(*shared_root, kFolderAlbumsIdentifier);
  auto holidays = test::add_folder(*s.shared, "Holidays");
  test::add_entry(*holidays, "Trip", test::album_id(store.uri(LegacyStore::kImageList, s.trip)));

  s.home.set_in(
      "FavoriteSidebarTags", "1001",
      array({dict({{"tag", str("beach")}, {"count", num(2)}}), dict({{"tag", str("sunset")}, {"count", num(4)}})}));
  s.home.set_in("FavoriteSidebarLocations", "1001",
                array({location("77", "Oslo", 59.9, 10.7), location("99", "Rome", 41.9, 12.5)}));
  s.home.set("IGFavouriteTags", array({str("plain")}));
  s.home.set("IGFavouriteLocations", array({dict({{"id", str("88")}, {"name", str("Bergen")}})}));
  s.home.set_in("UserAccountsI", "1001", str("https://pics.example/ann.jpg"));
  s.home.set_in("UserAccountsT", "1001", str("token-1001"));
  s.home.set_in("UserAccountsE", "1001", date(500000000));
  s.home.set_in("kUserBlacklistKey", "1234", str("spammer"));
  s.home.set("WZAlbumsOrderIndex", num(0));
  s.home.set("WZFavoriteFriendsOrderIndex", num(0));
  s.home.add_statistics("1001");
}

// ---- what the reply must be -------------------------------------------------------------------------------

// The healthy installation's categories, as summary() writes them: the root's children in order.
const std::string kTags = "tag:sunset/4 tag:beach/2 tag:plain/0";
const std::string kLocations = "loc:Oslo harbour@location-77 loc:Rome@99 loc:Bergen@88";
const std::string kFriends = "friend:dora friend:bert friend:carla";  // most unseen media first
const std::string kAlbums = "Holidays[album:Trip(1)] album:Attic(0) album:Beach(2) album:Cellar(1)";  // by title
const std::string kAccount = "1001 ann https://pics.example/ann.jpg";
// The user's own tree unreadable: a new tree, so every favourite comes unfiled, in stored order.
const std::string kTagsUnfiled = "tag:beach/2 tag:sunset/4 tag:plain/0";
const std::string kLocationsUnfiled = "loc:Oslo@77 loc:Rome@99 loc:Bergen@88";
// The shared album tree unreadable: a new, empty albums folder, so every album comes unfiled.
const std::string kAlbumsUnfiled = "album:Attic(0) album:Beach(2) album:Cellar(1) album:Trip(1)";
// Other orders of the unfiled albums and of the favourite friends.
const std::string kAlbumsByCreation = "Holidays[album:Trip(1)] album:Cellar(1) album:Beach(2) album:Attic(0)";
const std::string kAlbumsByCount = "Holidays[album:Trip(1)] album:Beach(2) album:Cellar(1) album:Attic(0)";
const std::string kFriendsByAdded = "friend:carla friend:bert friend:dora";
const std::string kFriendsByName = "friend:bert friend:carla friend:dora";
const std::string kAny = "*";  // not compared

// A case's reply (YES, results): the first result's categories and account, the number of results,
// and anything further a case looks at.
struct Yes {
  std::string tags = kTags, locations = kLocations, friends = kFriends, albums = kAlbums, account = kAccount;
  std::size_t results = 1;
  std::function<void(const Array& results)> also = nullptr;
};
// A case's reply (NO, nil), with the reason that can be told from outside.
enum class No {
  NoInstallation,  // the preferences show no installation: the store is never opened
  StoreRefused,    // the store cannot be attached ("Failed to initalize persistent store" logged)
  NoAccounts,      // the store is attached but yields no account
};

struct Case {
  std::string name;
  std::function<void(Scene&)> make;
  std::variant<Yes, No> reply;
};

std::string txt(const Object* o) {
  if (!o) return "nil";
  if (const String* s = as_string(o)) return s->str();
  return description(o);
}

std::string summary(const Object* node, int depth = 0);

std::string children_of(const MQImporterNodeFolder& folder, int depth) {
  const Array* list = folder.childList();
  if (!list) return "nil";
  std::string out;
  for (const Ref<Object>& child : list->items()) {
    if (!out.empty()) out += " ";
    out += summary(child.get(), depth);
  }
  return out;
}

// A node as one short text: folders with their children in brackets (cut off deep down).
std::string summary(const Object* node, int depth) {
  if (depth > 32) return "...";
  if (auto* f = dynamic_cast<const MQImporterNodeFolder*>(node))
    return txt(f->title.get()) + "[" + children_of(*f, depth + 1) + "]";
  if (auto* t = dynamic_cast<const MQImporterNodeTag*>(node))
    return "tag:" + txt(t->tagName.get()) + "/" + std::to_string(t->tagCount);
  if (auto* l = dynamic_cast<const MQImporterNodeLocation*>(node))
    return "loc:" + txt(l->name.get()) + "@" + txt(l->identifier.get());
  if (auto* f = dynamic_cast<const MQImporterNodeFriend*>(node)) return "friend:" + txt(f->username.get());
  if (as_string(node)) return txt(node);
  if (auto* a = dynamic_cast<const MQImporterNodeAlbum*>(node)) {
    const Array* items = as_array(a->items.get());
    return "album:" + txt(a->albumName.get()) + "(" + (items ? std::to_string(items->size()) : "nil") + ")";
  }
  return node ? std::string(node->class_name()) : "nil";
}

// A category of a result: its root folder's children; "-" when the result has no such category.
std::string category(const Object* root) {
  if (!root) return "-";
  auto* folder = dynamic_cast<const MQImporterNodeFolder*>(root);
  if (!folder) return "not a folder: " + std::string(root->class_name());
  EXPECT_TRUE(folder->isRoot);
  return children_of(*folder, 0);
}

const MQImporterNodeResult& result_at(const Array& results, std::size_t i) {
  return *dynamic_cast<const MQImporterNodeResult*>(results.at(i).get());
}

std::string account_of(const MQImporterNodeResult& r) {
  auto* a = dynamic_cast<const MQImporterAccount*>(r.account.get());
  if (!a) return "-";
  return txt(a->userid.get()) + " " + txt(a->username.get()) + " " + txt(a->imageURLString.get());
}

const MQImporterNodeFolder* as_folder(const Object* o) { return dynamic_cast<const MQImporterNodeFolder*>(o); }

// The second converted media record of the album Trip, which the shared tree files in "Holidays".
const Dictionary* trip_media(const Array& results) {
  auto first = [](const Object* o) -> const Object* {
    const MQImporterNodeFolder* f = as_folder(o);
    return f && f->childList() && !f->childList()->empty() ? f->childList()->at(0).get() : nullptr;
  };
  auto* trip = dynamic_cast<const MQImporterNodeAlbum*>(first(first(result_at(results, 0).albums.get())));
  const Array* items = trip ? as_array(trip->items.get()) : nullptr;
  return items && items->size() > 1 ? as_dict(items->at(1).get()) : nullptr;
}

// ---- building hostile values ------------------------------------------------------------------------------

Ref<GenericRecord> record(std::vector<std::string> chain, std::vector<GenericRecord::Field> fields) {
  auto r = make<GenericRecord>(std::move(chain));
  r->mutable_fields() = std::move(fields);
  return r;
}

// A list nested `depth` deep around a string.
Ref<Object> nested_list(int depth) {
  Ref<Object> v = str("bottom");
  for (int i = 0; i < depth; ++i) v = array({v});
  return v;
}

// An XML property list whose top dictionary holds `entries` (XML text of dictionary entries) and,
// under "deep", arrays nested `depth` deep.
std::string deep_xml(int depth, const std::string& entries = {}) {
  std::string x =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>" + entries + "<key>deep</key>";
  x.reserve(x.size() + 16 * static_cast<std::size_t>(depth));
  for (int i = 0; i < depth; ++i) x += "<array>";
  for (int i = 0; i < depth; ++i) x += "</array>";
  return x + "</dict>\n</plist>\n";
}

std::string garbage(std::size_t size, unsigned seed) {
  std::mt19937 gen(seed);
  std::string out(size, '\0');
  for (char& c : out) c = static_cast<char>(gen() & 0xff);
  return out;
}

// Writes the installation, then replaces its preferences file or its store with `bytes`.
using File = fs::path (LegacyHome::*)() const;
constexpr File kPrefs = &LegacyHome::preferences_file, kStore = &LegacyHome::store_file;
std::function<void(Scene&)> rewrite(File file, std::string bytes) {
  return [file, bytes](Scene& s) {
    s.write();
    test::write_file((s.home.*file)(), bytes);
  };
}

// Runs SQL on the store before it is finished.
std::function<void(Scene&)> sql(std::string statements) {
  return [statements](Scene& s) { s.home.store().exec(statements); };
}

// Rows committed by a writer that never checkpoints: a second account and an album with one item.
void commit_into_wal(test::TestDb& writer) {
  writer.exec("PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;");
  writer.exec("INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT, ZNAME, ZUID) VALUES (50, 1, 1, 'bob', '1002')");
  writer.exec("INSERT INTO ZIMAGELIST (Z_PK, Z_ENT, Z_OPT, ZCREATED, ZTITLE) VALUES (50, 4, 1, 600, 'Zeta')");
  writer.insert(
      "ZIMAGEITEM", {"Z_PK", "Z_ENT", "Z_OPT", "ZLIST", "ZDICTIONARY"},
      {"50", "3", "1", "50", test::blob(test::media_archive(*test::older_media("51_1002", "https://p.example/p/Z")))});
}

// The -wal that a writer which crashed before any checkpoint leaves beside the store (no -shm).
void leave_crashed_wal(Scene& s) {
  s.write();
  const fs::path store = s.home.store_file();
  const fs::path copy = s.scratch.path() / "InstaGramStore.db";
  fs::copy_file(store, copy);
  test::TestDb writer(copy);
  commit_into_wal(writer);
  ASSERT_GT(fs::file_size(copy.string() + "-wal"), 0u);
  fs::copy_file(copy.string() + "-wal", store.string() + "-wal");
}

// What every run over an installation with the rows of commit_into_wal must give.
Yes wal_reply() {
  return Yes{.albums = kAlbums + " album:Zeta(1)", .results = 2, .also = [](const Array& results) {
               const MQImporterNodeResult& bob = result_at(results, 1);
               EXPECT_EQ(account_of(bob), "1002 bob nil");
               EXPECT_EQ(category(bob.tags.get()), "tag:plain/0");
               EXPECT_EQ(category(bob.friends.get()), "");
               EXPECT_EQ(bob.albums.get(), result_at(results, 0).albums.get());
             }};
}

void make_read_only(Scene& s) {
  const fs::path folder = s.velmora();
  fs::permissions(folder, fs::perms(0555));
  s.undo.push_back([folder] { fs::permissions(folder, fs::perms(0755)); });
}

void hold_lock(Scene& s, const std::string& sql) {
  s.write();
  auto holder = std::make_shared<test::LockHolder>(s.home.store_file(), sql);
  EXPECT_TRUE(holder->held());
  s.keep.push_back(holder);
}

// Trip gets a second media record, `archive` as stored.
std::function<void(Scene&)> add_trip_media(std::optional<std::string> archive) {
  return [archive](Scene& s) { s.home.store().add_image(s.trip, archive); };
}

// Trip holding that second media record, converted to `expected`, with that "id", "pk" and "code".
Yes second_trip_media(Ref<Dictionary> expected, std::string id_pk_code) {
  return Yes{.albums = "Holidays[album:Trip(2)] album:Attic(0) album:Beach(2) album:Cellar(1)",
             .also = [expected, id_pk_code](const Array& results) {
               const Dictionary* media = trip_media(results);
               ASSERT_NE(media, nullptr);
               EXPECT_TRUE(deep_equal(media, expected.get())) << description(media);
               EXPECT_EQ(txt(media->get("id")) + " " + txt(media->get("pk")) + " " + txt(media->get("code")), id_pk_code);
             }};
}

// ---- the catalogue ------------------------------------------------------------------------------------------

std::vector<Case> catalogue() {
  using R = Ref<Object>;
  std::vector<Case> c;
  auto yes = [&c](std::string name, std::function<void(Scene&)> make, Yes reply = {}) {
    c.push_back({std::move(name), std::move(make), std::move(reply)});
  };
  auto no = [&c](std::string name, std::function<void(Scene&)> make, No why) {
    c.push_back({std::move(name), std::move(make), why});
  };

  yes("a healthy installation", [](Scene&) {});

  // Installation markers (whose values and names the preferences reader's tests go through).
  no(
      "no marker, every other key present", [](Scene& s) { s.home.remove("FinishedStartScreen410x"); },
      No::NoInstallation);

  // "OutlineFolderModels" and its entries: anything that is not a readable archive of an item is no
  // stored tree (the user, or the shared album tree, starts from a new one).
  yes(
      "OutlineFolderModels is an array",
      [](Scene& s) {
        s.tree = s.shared = nullptr;
        s.home.set("OutlineFolderModels", array({str("1001")}));
      },
      {.tags = kTagsUnfiled, .locations = kLocationsUnfiled, .albums = kAlbumsUnfiled});
  const std::vector<std::pair<std::string, std::function<R(Scene&)>>> user_entries = {
      {"garbage bytes", [](Scene&) -> R { return orvia::data(garbage(3000, 1)); }},
      {"archives an object of an unknown class",
       [](Scene&) -> R {
         return orvia::data(archive_root(record({"MQSidebarThing", "NSObject"},
                                                {{"title", str("Root"), false}, {"identifier", str("root"), false}})));
       }},
      {"an XML property list nested 300,000 deep", [](Scene&) -> R { return orvia::data(deep_xml(3 * kDeep)); }},
  };
  for (const auto& [what, value] : user_entries)
    yes("the user's sidebar entry is " + what,
        [value](Scene& s) {
          R v = value(s);
          s.tree = nullptr;
          s.home.set_in("OutlineFolderModels", "1001", v);
        },
        {.tags = kTagsUnfiled, .locations = kLocationsUnfiled});
  yes(
      "the shared album entry is garbage bytes",
      [](Scene& s) {
        s.shared = nullptr;
        s.home.set_in("OutlineFolderModels", test::kSharedAlbumsUser, orvia::data(garbage(500, 2)));
      },
      {.albums = kAlbumsUnfiled});

  // The block list does not travel in the reply; a block list of any shape leaves the rest alone.
  yes("kUserBlacklistKey maps ids to numbers and lists", [](Scene& s) {
    s.home.set("kUserBlacklistKey", dict({{"1234", num(5)}, {"99", array({str("x")})}, {"7", dict()}}));
  });

  // Account values: a lookup that finds no dictionary gives nothing; a picture address that is not
  // text is left out (our choice: the client's record holds text there).
  yes(
      "UserAccountsI, T and E hold entries of the wrong kinds",
      [](Scene& s) {
        s.home.set("UserAccountsI", dict({{"1001", num(42)}}))
            .set("UserAccountsT", dict({{"1001", array({str("t")})}}))
            .set("UserAccountsE", dict({{"1001", str("tomorrow")}}));
      },
      {.account = "1001 ann nil"});

  // Order indexes, read as the old client's integerValue; both keys take the same value.
  struct Order {
    std::string what;
    R value;
    std::string friends, albums;
  };
  for (const Order& o : std::vector<Order>{{"the string \"2\"", str("2"), kFriendsByName, kAlbumsByCreation},
                                           {"the real 1.9", real(1.9), kFriendsByAdded, kAlbumsByCount},
                                           {"the real 1e300", real(1e300), kFriendsByName, kAlbums}})
    yes(
        "order indexes are " + o.what,
        [v = o.value](Scene& s) { s.home.set("WZAlbumsOrderIndex", v).set("WZFavoriteFriendsOrderIndex", v); },
        {.friends = o.friends, .albums = o.albums});

  // Per-account favourite lists (those given).
  auto favourites = [](R tags, R locations) {
    return [tags, locations](Scene& s) {
      if (tags) s.home.set_in("FavoriteSidebarTags", "1001", tags);
      if (locations) s.home.set_in("FavoriteSidebarLocations", "1001", locations);
    };
  };
  // The search for a filed entry stops at the first element that is not a dictionary; the collector
  // skips such elements with a message (our choice: an element without a tag or id).
  yes("the account's favourite lists hold strings and numbers",
      favourites(array({str("sunset"), num(5), dict({{"tag", str("beach")}, {"count", num(2)}})}),
                 array({str("77"), num(5), location("99", "Rome", 1, 2)})),
      {.tags = "tag:beach/2 tag:plain/0", .locations = "loc:Rome@99 loc:Bergen@88"});
  yes("favourite tag counts are a string and a dictionary",
      favourites(array({dict({{"tag", str("beach")}, {"count", str("7 apples")}}),
                        dict({{"tag", str("sunset")}, {"count", dict({{"n", num(4)}})}})}),
                 nullptr),
      {.tags = "tag:sunset/0 tag:beach/7 tag:plain/0"});
  // Our choice: an id stored as a number matches its sidebar entry by its decimal text.
  yes("a favourite location's \"id\" is a number",
      favourites(nullptr, array({dict({{"id", num(77)}, {"name", str("Oslo")}}), location("99", "Rome", 1, 2)})));
  yes("favourite locations without an id and with a numeric name",
      favourites(nullptr, array({dict({{"name", str("No id")}}), dict({{"id", str("99")}, {"name", num(5)}})})),
      {.locations = "loc:5@99 loc:Bergen@88"});

  // Plain favourite lists: our choice, a value that is not a list adds nothing.
  auto plain_lists = [](R tags, R locations) {
    return [tags, locations](Scene& s) { s.home.set("IGFavouriteTags", tags).set("IGFavouriteLocations", locations); };
  };
  yes("IGFavouriteTags and IGFavouriteLocations are strings", plain_lists(str("plain"), str("88")),
      {.tags = "tag:sunset/4 tag:beach/2", .locations = "loc:Oslo harbour@location-77 loc:Rome@99"});
  yes("IGFavouriteTags holds a list nested 100,000 deep", [](Scene& s) {
    s.home.set("IGFavouriteTags", array({nested_list(kDeep), str("plain")}));
  });

  // The preferences file itself.
  no("the preferences file is garbage", rewrite(kPrefs, "bplist00" + garbage(4000, 3)), No::NoInstallation);
  yes("the preferences file is XML", [](Scene& s) {
    s.write();
    auto xml = write_xml_plist(read_property_list_file(s.home.preferences_file().string()).value().get());
    ASSERT_TRUE(xml.ok());
    test::write_file(s.home.preferences_file(), xml.value());
  });
  // Our choice: an XML file nested deeper than the reader takes is as unreadable as garbage.
  no("the preferences file is XML nested 300,000 deep",
     rewrite(kPrefs, deep_xml(3 * kDeep, "<key>FinishedStartScreen410x</key><true/>")), No::NoInstallation);

  // Sidebar trees. Folders are expanded once: a children list that comes back to a folder already
  // exported leaves it out (our choice).
  yes(
      "a sidebar folder lists its own ancestor",
      [](Scene& s) {
        auto loop = test::add_folder(*s.tags, "Loop");
        loop->childList()->push_back(s.tags);
      },
      {.tags = "Loop[] tag:sunset/4 tag:beach/2 tag:plain/0"});
  yes("a sidebar entry is its own parent", [](Scene& s) { s.sunset->parent = s.sunset; });
  yes(
      "a sidebar tree 100,000 folders deep",
      [](Scene& s) {
        s.tags->children = mutable_array();
        Ref<OutlineFolderItem> at = s.tags;
        for (int i = 0; i < kDeep; ++i) at = test::add_folder(*at, "level", "deep-" + std::to_string(i));
        test::add_entry(*at, "sunset", test::favtag_id("sunset"));
      },
      {.tags = kAny, .also = [](const Array& results) {
         const Array* tags = as_folder(result_at(results, 0).tags.get())->childList();
         ASSERT_EQ(tags->size(), 3u);
         EXPECT_EQ(summary(tags->at(1).get()) + " " + summary(tags->at(2).get()), "tag:beach/2 tag:plain/0");
         int depth = 0;
         const Object* at = tags->at(0).get();
         for (const MQImporterNodeFolder* f; (f = as_folder(at)) && f->childList() && f->childList()->size() == 1;
              at = f->childList()->at(0).get())
           ++depth;
         EXPECT_EQ(std::to_string(depth) + " levels to " + summary(at), "100000 levels to tag:sunset/4");
       }});
  yes(
      "sidebar identifiers that are numbers or missing",
      [](Scene& s) {
        s.sunset->identifier = num(5);
        test::add_folder(*s.tags, "Numbered")->identifier = num(7);
        test::add_folder(*s.tags, "Nameless")->identifier = nullptr;
      },
      {.tags = "Nameless[] Numbered[] tag:beach/2 tag:sunset/4 tag:plain/0"});
  // Our choice: children whose title is not text come after the titled ones, in stored order.
  yes(
      "sidebar titles that are numbers",
      [](Scene& s) {
        test::add_folder(*s.tags, "b");
        test::add_folder(*s.tags, "three")->title = num(3);
        test::add_folder(*s.tags, "a");
        test::add_folder(*s.tags, "none")->title = nullptr;
      },
      {.tags = "a[] b[] tag:sunset/4 3[] nil[] tag:beach/2 tag:plain/0"});
  yes(
      "sidebar children that are not lists",
      [](Scene& s) {
        s.tags->children = str("sunset");
        s.locations->children = dict({{"0", str("location-77")}});
      },
      {.tags = "tag:beach/2 tag:sunset/4 tag:plain/0", .locations = "loc:Oslo@77 loc:Rome@99 loc:Bergen@88"});
  // A root without a children list holds no base folders: those categories are missing, and only the
  // shared album tree is exported.
  yes("the sidebar root's children are not a list", [](Scene& s) { s.tree->children = str("tags"); },
      {.tags = "-", .locations = "-", .friends = "-"});
  yes(
      "sidebar items of other classes",
      [](Scene& s) {
        auto foreign_base = record({"MQFolder", "NSObject"}, {{"title", str("friends"), false},
                                                              {"identifier", str(kFolderFavFriendIdentifier), false},
                                                              {"children", mutable_array(), false},
                                                              {"folder", boolean(true), true}});
        auto foreign_entry = record({"SidebarEntry", "NSObject"}, {{"title", str("sunset"), false},
                                                                   {"identifier", str("favtag-sunset"), false},
                                                                   {"type", str(kFolderTagsIdentifier), false}});
        s.tags->children = mutable_array({foreign_entry, str("favtag-sunset"), num(12), Null::shared()});
        s.tree->children = mutable_array({foreign_base, s.tags, s.locations});
      },
      {.tags = "tag:beach/2 tag:sunset/4 tag:plain/0", .friends = "-"});
  // An item whose flags are of the wrong kind is no folder: it is exported as an entry, which finds
  // no tag, while the entry inside it still counts as filed.
  yes(
      "a sidebar item whose flags and level are of the wrong kinds",
      [](Scene& s) {
        auto odd = record({"OutlineFolderItem", "NSObject"}, {{"title", str("Odd"), false},
                                                              {"identifier", str("folder-odd"), false},
                                                              {"children", mutable_array({s.sunset}), false},
                                                              {"type", str(kFolderTagsIdentifier), false},
                                                              {"folder", str("YES"), false},
                                                              {"expanded", dict(), false},
                                                              {"level", str("deep"), false}});
        s.tags->children = mutable_array({odd});
      },
      {.tags = "tag:beach/2 tag:plain/0"});

  // Media records that cannot be read still become media dictionaries, of constants only (those of a
  // record without any); readable ones of the wrong shapes convert as the decoded record does. Our
  // choice: a numeric "id" or "link" is cut by its decimal text.
  const std::string media_bytes = test::media_archive(*test::older_media("41_1001", "https://photos.example/p/EEE"));
  const Ref<Dictionary> constants_only = convertedDictionaryFromArchive(nullptr, "none");
  for (const auto& [name, bytes] : std::vector<std::pair<std::string, std::optional<std::string>>>{
           {"without a dictionary", std::nullopt},
           {"of garbage", garbage(700, 4)},
           {"that is truncated", media_bytes.substr(0, media_bytes.size() / 2)},
           {"archiving an array", archive_root(array({test::older_media("42_1001", "x")}).get())},
           {"that is an XML property list nested 300,000 deep", deep_xml(3 * kDeep)}})
    yes("a media record " + name, add_trip_media(bytes), second_trip_media(constants_only, "nil nil nil"));
  struct Media {
    std::string name;
    std::vector<std::pair<std::string, R>> changes;
    std::string id_pk_code;
  };
  for (const Media& m : std::vector<Media>{
           {"whose id is a number", {{"id", num(12345)}}, "12345 12345 HHH"},
           {"whose link is a number", {{"link", num(987)}}, "45_1001 45 987"},
           {"whose nested values are of the wrong kinds",
            {{"caption", str("a caption")},
             {"images", array({str("https://img.example/s.jpg")})},
             {"user", num(77)},
             {"likes", str("12")},
             {"comments", dict({{"count", dict({{"n", num(3)}})}})},
             {"videos", Null::shared()}},
            "45_1001 45 HHH"},
           {"whose like count is a list nested 100,000 deep",
            {{"likes", dict({{"count", nested_list(kDeep)}})}},
            "45_1001 45 HHH"}}) {
    auto media = test::older_media("45_1001", "https://photos.example/p/HHH");
    for (const auto& [key, value] : m.changes) media->set(key, value);
    yes("a media record " + m.name, add_trip_media(test::media_archive(*media)),
        second_trip_media(convertedDictionary(media.get()), m.id_pk_code));
  }

  // The store. Our choice: a store that cannot be attached answers (NO, nil), like a missing one.
  no("there is no store", [](Scene& s) { s.write(); fs::remove(s.home.store_file()); }, No::StoreRefused);
  no("the store is garbage", rewrite(kStore, garbage(64 * 1024, 5)), No::StoreRefused);
  no("the store has zero bytes", rewrite(kStore, ""), No::StoreRefused);
  no("the store has no ZACCOUNT table", sql("DROP TABLE ZACCOUNT"), No::NoAccounts);
  no("the store holds no account", sql("DELETE FROM ZACCOUNT"), No::NoAccounts);
  // Accounts without a user id are left out, which may leave an empty success.
  yes("the store's accounts have no user ids", sql("UPDATE ZACCOUNT SET ZUID = NULL"), {.results = 0});
  yes("the store has no ZFRIEND table", sql("DROP TABLE ZFRIEND"), {.friends = ""});
  yes("the store has no ZIMAGEITEM table", sql("DROP TABLE ZIMAGEITEM"),
      {.albums = "Holidays[album:Trip(0)] album:Attic(0) album:Beach(0) album:Cellar(0)"});
  yes("the store's ZIMAGELIST has no ZTITLE column", sql("ALTER TABLE ZIMAGELIST DROP COLUMN ZTITLE"),
      {.albums = "Holidays[]"});
  yes("the store keeps an account's uid as a blob", sql("UPDATE ZACCOUNT SET ZUID = X'31303031'"));
  no(
      "the store is locked by a writing process",
      [](Scene& s) {
        hold_lock(s, "BEGIN IMMEDIATE; INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT, ZUID) VALUES (9, 1, 1, '9')");
      },
      No::StoreRefused);
  no(
      "the store is locked exclusively in rollback-journal mode",
      [](Scene& s) {
        s.home.store().exec("PRAGMA journal_mode = DELETE");
        hold_lock(s, "BEGIN EXCLUSIVE");
      },
      No::StoreRefused);
  yes("the store's committed rows are only in a -wal left by a crash", leave_crashed_wal, wal_reply());
  yes(
      "the store's committed rows are only in the -wal of an open writer",
      [](Scene& s) {
        s.write();
        auto writer = std::make_shared<test::TestDb>(s.home.store_file());
        commit_into_wal(*writer);
        s.keep.push_back(writer);
      },
      wal_reply());
  yes("the store lies in a read-only folder", [](Scene& s) {
    s.write();
    make_read_only(s);
  });
  yes(
      "the store lies in a read-only folder with a pending -wal",
      [](Scene& s) {
        leave_crashed_wal(s);
        make_read_only(s);
      },
      wal_reply());
  no(
      "a folder stands in place of the store",
      [](Scene& s) {
        s.write();
        fs::remove(s.home.store_file());
        fs::create_directories(s.home.store_file());
      },
      No::StoreRefused);
  return c;
}

// ---- running a case -------------------------------------------------------------------------------------------

// Builds a case's installation: the healthy one, spoilt as the case says, written.
std::unique_ptr<Scene> build(const Case& c) {
  auto s = std::make_unique<Scene>();
  healthy(*s);
  c.make(*s);
  s->write();
  return s;
}

// The direct import on a thread of its own (which serves the main queue while it runs); nothing
// when it has not answered within the limit, and then the run goes on in the background: its
// installation must outlive it, so it is let go.
std::optional<service::ImportOutcome> import_within(std::unique_ptr<Scene>& s) {
  auto task = std::make_shared<std::packaged_task<service::ImportOutcome()>>(
      [home = s->home.home()] { return service::run_direct_import(home); });
  std::future<service::ImportOutcome> done = task->get_future();
  std::thread([task] { (*task)(); }).detach();
  if (done.wait_for(kRunLimit) == std::future_status::ready) return done.get();
  (void)s.release();
  return std::nullopt;
}

void expect_reply(const Case& c, Scene& s, const service::ImportOutcome& outcome, const LogCapture& log) {
  bool refused = false;
  for (const std::string& line : log.lines())
    refused = refused || line.rfind("Failed to initalize persistent store: ", 0) == 0;
  if (const No* why = std::get_if<No>(&c.reply)) {
    EXPECT_FALSE(outcome.success);
    EXPECT_FALSE(outcome.archive.has_value());
    EXPECT_EQ(refused, *why == No::StoreRefused);
    EXPECT_EQ(s.home.defaults()->hasExistingOrviaInstall(), *why != No::NoInstallation);
    return;
  }
  const Yes& yes = std::get<Yes>(c.reply);
  ASSERT_TRUE(outcome.success);
  ASSERT_TRUE(outcome.archive.has_value());
  EXPECT_FALSE(refused);
  register_record_classes();
  auto root = unarchive(*outcome.archive);
  ASSERT_TRUE(root.ok()) << root.error().message;
  const Array* results = as_array(root.value().get());
  ASSERT_NE(results, nullptr);
  ASSERT_EQ(results->size(), yes.results);
  for (const Ref<Object>& r : results->items()) ASSERT_NE(dynamic_cast<const MQImporterNodeResult*>(r.get()), nullptr);
  if (results->empty()) return;
  const MQImporterNodeResult& first = result_at(*results, 0);
  auto compare = [](const std::string& expected, const Object* field, const char* what) {
    if (expected != kAny) {
      EXPECT_EQ(category(field), expected) << what;
    }
  };
  compare(yes.tags, first.tags.get(), "tags");
  compare(yes.locations, first.locations.get(), "locations");
  compare(yes.friends, first.friends.get(), "friends");
  compare(yes.albums, first.albums.get(), "albums");
  EXPECT_EQ(account_of(first), yes.account);
  auto* statistics = dynamic_cast<const MQImporterNodeStatistics*>(first.statistics.get());
  ASSERT_NE(statistics, nullptr);
  EXPECT_EQ(txt(statistics->path.get()), s.home.statistics_file("1001").string());
  if (yes.also) yes.also(*results);
}

// Modification times and modes of everything below `root`: a run that rewrote a file with the same
// bytes, or changed a mode, shows here although the content snapshot stays the same.
std::map<std::string, std::string> stamps(const fs::path& root) {
  std::map<std::string, std::string> out;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    struct stat st {};
    if (::lstat(it->path().c_str(), &st) != 0) continue;
    out[fs::relative(it->path(), root).string()] =
        std::to_string(st.st_mode) + " " + std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
  }
  return out;
}

// Log lines go to the captures only while the catalogue runs (some are megabytes long).
class QuietLog {
 public:
  QuietLog() { set_log_to_stderr(false); }
  ~QuietLog() { set_log_to_stderr(true); }
};

// A handful of the cases go through the service started by a private bus as well: its reply must be
// the direct one.
const std::set<std::string> kThroughBus = {
    "the store is locked by a writing process", "the store is garbage", "there is no store",
    "the store's committed rows are only in a -wal left by a crash", "a sidebar folder lists its own ancestor",
    "the store's accounts have no user ids", "no marker, every other key present",
    "the preferences file is XML nested 300,000 deep"};

TEST(HostileInstallation, EveryCaseGetsItsReplyDirectlyOrThroughTheBusAndLeavesTheInstallationAsItWas) {
  QuietLog quiet;
  const std::vector<Case> cases = catalogue();
  std::set<std::string> names;
  for (const Case& c : cases) EXPECT_TRUE(names.insert(c.name).second) << "two cases named " << c.name;
  for (const std::string& name : kThroughBus) EXPECT_EQ(names.count(name), 1u) << name;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Heap heap;
    HeapScope scope(heap);
    std::unique_ptr<Scene> s = build(c);
    const test::TreeSnapshot before = test::snapshot_tree(s->home.path());
    const auto stamped = stamps(s->home.path());
    LogCapture log;
    std::optional<service::ImportOutcome> outcome = import_within(s);
    ASSERT_TRUE(outcome) << "no reply within " << kRunLimit.count() << " s";
    expect_reply(c, *s, *outcome, log);
    if (kThroughBus.count(c.name)) {
      test::PrivateBusOptions options;
      options.environment["HOME"] = s->home.home();
      test::PrivateBus bus(options);
      client::CallOptions call;
      call.timeout = kRunLimit;
      client::CallOutcome reply = client::find_importable_results(call);
      ASSERT_EQ(reply.status, client::CallStatus::Replied) << reply.error << "\n" << bus.daemon_log();
      EXPECT_EQ(reply.success, outcome->success);
      EXPECT_EQ(reply.archive, outcome->archive);
    }
    EXPECT_EQ(test::snapshot_tree(s->home.path()), before);
    EXPECT_EQ(stamps(s->home.path()), stamped);
  }
}

}  // namespace
}  // namespace orvia
