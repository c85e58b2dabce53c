// A catalogue of hostile legacy installations, each built from one healthy installation with one thing
// wrong: preference keys holding values of the wrong kind, sidebar archives that loop, nest 100,000 deep
// or hold foreign records, unreadable media records, and stores that are damaged, incomplete, locked,
// pending in their -wal or kept in a read-only folder. Each case states its reply, (YES, results) or
// (NO, nil); every run must end within its time limit and leave the installation byte for byte as it
// was. Some cases go through a real private bus as well. Damage that only a lower layer tells apart
// (preference files and stores that cannot be read or are locked, order index values) is catalogued
// by the legacy and node tests.
#include <gtest/gtest.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <future>
#include <random>
#include <set>
#include <thread>
#include <variant>

#include "client/import_client.h"
#include "legacy/legacy_test_util.h"
#include "legacy/media_conversion.h"
#include "platform/description.h"
#include "platform/keyed_archive.h"
#include "platform/log.h"
#include "records/records.h"
#include "service/import_request.h"
#include "support/gnustep_peer.h"
#include "support/legacy_home.h"
#include "support/private_bus.h"

namespace fs = std::filesystem;

namespace orvia {
namespace {

using test::LegacyHome;
using test::LegacyStore;
using R = Ref<Object>;

constexpr auto kRunLimit = std::chrono::seconds(60);  // a hung import cannot be stopped: given up after this
constexpr int kDeep = 100000;

// ---- the healthy installation ---------------------------------------------------------------------------

// Accounts 1001 (ann) and one without a user id; a sidebar that files a tag and a location; four albums
// (Trip filed in the shared album tree); three favourite friends; favourite lists of both layouts,
// account values, a block list and a statistics database. Each case spoils one thing before (or after,
// calling write() first) it is written.
struct Scene {
  LegacyHome home;
  test::TempDir scratch;  // outside the installation
  std::int64_t trip = 0;
  Ref<OutlineFolderItem> tree, tags, locations, sunset;  // the user's sidebar
  Ref<OutlineFolderItem> shared;                         // the shared album tree (its albums folder)
  std::vector<std::function<void()>> undo;               // restores modes before the folder goes
  std::vector<std::shared_ptr<void>> keep;               // lasts through the run: a lock, an open writer
  bool written = false;
  ~Scene() {
    for (auto& u : undo) u();
  }
  void write() {
    if (written) return;
    written = true;
    if (tree) home.set_sidebar("1001", tree);
    if (shared) home.set_sidebar(test::kSharedAlbumsUser, shared);
    home.write();
  }
};

Ref<Dictionary> location(std::string_view id, std::string_view name, double lat, double lon) {
  return dict({{"id", str(id)}, {"name", str(name)}, {"latitude", real(lat)}, {"longitude", real(lon)}});
}
std::string media(std::string_view id, std::string_view code) {
  return test::media_archive(*test::older_media(id, "https://photos.example/p/" + std::string(code)));
}

void healthy(Scene& s) {
  LegacyStore& store = s.home.store();
  const auto ann = store.add_account("1001", "ann");
  store.add_account(std::nullopt, "nobody");  // left out of the reply
  s.trip = store.add_album("Trip", 400);
  store.add_image(s.trip, media("11_1001", "AAA"));
  store.add_album("Attic", 300);
  const auto beach = store.add_album("Beach", 100);
  store.add_image(beach, media("21_1001", "BBB"));
  store.add_image(beach, media("22_1001", "CCC"));
  store.add_image(store.add_album("Cellar", 50), media("31_1001", "DDD"));
  store.add_friend({.uid = "501", .name = "dora", .added = 300, .unread_count = 5, .media_count = 7, .account = ann});
  store.add_friend({.uid = "502", .name = "carla", .added = 100, .unread_count = 1, .account = ann});
  store.add_friend({.uid = "503", .name = "bert", .added = 200, .unread_count = 3, .account = ann});

  const std::string trip_id = test::album_id(store.uri(LegacyStore::kImageList, s.trip));
  s.tree = test::sidebar_root();
  test::add_base_folder(*s.tree, kFolderFavFriendIdentifier);
  test::add_entry(*test::add_base_folder(*s.tree, kFolderAlbumsIdentifier), "Trip", trip_id);  // the shared tree wins
  s.tags = test::add_base_folder(*s.tree, kFolderTagsIdentifier);
  s.sunset = test::add_entry(*s.tags, "sunset", test::favtag_id("sunset"));
  s.locations = test::add_base_folder(*s.tree, kFolderLocationsIdentifier);
  test::add_entry(*s.locations, "Oslo harbour", test::location_id("77"));
  auto shared_root = test::sidebar_root();
  s.shared = test::add_base_folder(*shared_root, kFolderAlbumsIdentifier);
  test::add_entry(*test::add_folder(*s.shared, "Holidays"), "Trip", trip_id);

  s.home.set_in("FavoriteSidebarTags", "1001",
                array({dict({{"tag", str("beach")}, {"count", num(2)}}), dict({{"tag", str("sunset")}, {"count", num(4)}})}));
  s.home.set_in("FavoriteSidebarLocations", "1001",
                array({location("77", "Oslo", 59.9, 10.7), location("99", "Rome", 41.9, 12.5)}));
  s.home.set("IGFavouriteTags", array({str("plain")}));
  s.home.set("IGFavouriteLocations", array({dict({{"id", str("88")}, {"name", str("Bergen")}})}));
  s.home.set_in("UserAccountsI", "1001", str("https://pics.example/ann.jpg"));
  s.home.set_in("UserAccountsT", "1001", str("token-1001"));
  s.home.set_in("UserAccountsE", "1001", date(500000000));
  s.home.set_in("kUserBlacklistKey", "1234", str("spammer"));
  s.home.set("WZAlbumsOrderIndex", num(0)).set("WZFavoriteFriendsOrderIndex", num(0));
  s.home.add_statistics("1001");
}

// ---- what the reply must be -------------------------------------------------------------------------------

// The healthy installation's categories (each root folder's children in order) and account ("stats":
// its statistics node points at the account's database).
const std::string kTags = "tag:sunset/4 tag:beach/2 tag:plain/0";
const std::string kLocations = "loc:Oslo harbour@location-77 loc:Rome@99 loc:Bergen@88";
const std::string kFriends = "friend:dora friend:bert friend:carla";  // most unseen media first
const std::string kAlbums = "Holidays[album:Trip(1)] album:Attic(0) album:Beach(2) album:Cellar(1)";  // by title
const std::string kAccount = "1001 ann https://pics.example/ann.jpg stats";
// The user's own tree unreadable: a new tree, so every favourite comes unfiled, in stored order; the
// shared album tree unreadable: every album comes unfiled.
const std::string kTagsUnfiled = "tag:beach/2 tag:sunset/4 tag:plain/0";
const std::string kLocationsUnfiled = "loc:Oslo@77 loc:Rome@99 loc:Bergen@88";
const std::string kAlbumsUnfiled = "album:Attic(0) album:Beach(2) album:Cellar(1) album:Trip(1)";
const std::string kAny = "*";  // not compared


// (YES, results): the first result's categories and account, the number of results, anything further a
// case looks at, and for the pinned case the digest of the archive's bytes.
struct Yes {
  std::string tags = kTags, locations = kLocations, friends = kFriends, albums = kAlbums, account = kAccount;
  std::size_t results = 1;
  std::function<void(const Array& results, const Scene& s)> also = nullptr;
  std::string digest = {};
};
// (NO, nil), with the reason that can be told from outside.
enum class No {
  NoInstallation,  // the preferences show no installation: the store is never opened
  StoreRefused,    // "Failed to initalize persistent store" logged
  NoAccounts,      // the store is attached but yields no account
};
struct Case {
  std::string name;
  std::function<void(Scene&)> make;
  std::variant<Yes, No> reply;
};

std::string txt(const Object* o) { return !o ? "nil" : as_string(o) ? as_string(o)->str() : description(o); }
const MQImporterNodeFolder* as_folder(const Object* o) { return dynamic_cast<const MQImporterNodeFolder*>(o); }

std::string summary(const Object* node, int depth = 0);
std::string children_of(const MQImporterNodeFolder& folder, int depth) {
  if (!folder.childList()) return "nil";
  std::string out;
  for (const Ref<Object>& child : folder.childList()->items()) out += (out.empty() ? "" : " ") + summary(child.get(), depth);
  return out;
}

// A node as one short text: folders with their children in brackets (cut off deep down).
std::string summary(const Object* node, int depth) {
  if (depth > 32) return "...";
  if (auto* f = as_folder(node)) return txt(f->title.get()) + "[" + children_of(*f, depth + 1) + "]";
  if (auto* t = dynamic_cast<const MQImporterNodeTag*>(node))
    return "tag:" + txt(t->tagName.get()) + "/" + std::to_string(t->tagCount);
  if (auto* l = dynamic_cast<const MQImporterNodeLocation*>(node))
    return "loc:" + txt(l->name.get()) + "@" + txt(l->identifier.get());
  if (auto* f = dynamic_cast<const MQImporterNodeFriend*>(node)) return "friend:" + txt(f->username.get());
  if (auto* a = dynamic_cast<const MQImporterNodeAlbum*>(node)) {
    const Array* items = as_array(a->items.get());
    return "album:" + txt(a->albumName.get()) + "(" + (items ? std::to_string(items->size()) : "nil") + ")";
  }
  return as_string(node) || !node ? txt(node) : std::string(node->class_name());
}

// A category of a result: its root folder's children; "-" when the result has no such category.
std::string category(const Object* root) {
  if (!root) return "-";
  auto* folder = as_folder(root);
  if (!folder) return "not a folder: " + std::string(root->class_name());
  return (folder->isRoot ? "" : "not a root: ") + children_of(*folder, 0);
}

const MQImporterNodeResult& result_at(const Array& results, std::size_t i) {
  return *dynamic_cast<const MQImporterNodeResult*>(results.at(i).get());
}

std::string account_of(const MQImporterNodeResult& r, const Scene& s) {
  auto* a = dynamic_cast<const MQImporterAccount*>(r.account.get());
  auto* statistics = dynamic_cast<const MQImporterNodeStatistics*>(r.statistics.get());
  if (!a) return "-";
  const std::string uid = txt(a->userid.get()), path = statistics ? txt(statistics->path.get()) : "";
  return uid + " " + txt(a->username.get()) + " " + txt(a->imageURLString.get()) +
         (!statistics ? " -" : path == s.home.statistics_file(uid).string() ? " stats" : " stats at " + path);
}

// ---- building hostile values ------------------------------------------------------------------------------

Ref<GenericRecord> record(std::vector<std::string> chain, std::vector<GenericRecord::Field> fields) {
  auto r = make<GenericRecord>(std::move(chain));
  r->mutable_fields() = std::move(fields);
  return r;
}

// A list nested `depth` deep around a string.
R nested_list(int depth) {
  R v = str("bottom");
  for (int i = 0; i < depth; ++i) v = array({v});
  return v;
}

// An XML property list whose top dictionary holds `entries` and, under "deep", arrays nested `depth` deep.
std::string deep_xml(int depth, const std::string& entries = {}) {
  std::string open, close;
  for (int i = 0; i < depth; ++i) open += "<array>", close += "</array>";
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>" + entries + "<key>deep</key>" +
         open + close + "</dict>\n</plist>\n";
}

std::string garbage(std::size_t size, unsigned seed) {
  std::mt19937 gen(seed);
  std::string out(size, '\0');
  for (char& c : out) c = static_cast<char>(gen() & 0xff);
  return out;
}

std::function<void(Scene&)> sql(std::string statements) {
  return [statements](Scene& s) { s.home.store().exec(statements); };
}

// Rows committed by a writer that never checkpoints: a second account and an album with one item.
void commit_into_wal(test::TestDb& writer) {
  writer.exec("PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;");
  writer.exec("INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT, ZNAME, ZUID) VALUES (50, 1, 1, 'bob', '1002')");
  writer.exec("INSERT INTO ZIMAGELIST (Z_PK, Z_ENT, Z_OPT, ZCREATED, ZTITLE) VALUES (50, 4, 1, 600, 'Zeta')");
  writer.insert("ZIMAGEITEM", {"Z_PK", "Z_ENT", "Z_OPT", "ZLIST", "ZDICTIONARY"},
                {"50", "3", "1", "50", test::blob(media("51_1002", "Z"))});
}

// The -wal that a writer which crashed before any checkpoint leaves beside the store (no -shm).
void leave_crashed_wal(Scene& s) {
  s.write();
  const fs::path store = s.home.store_file(), copy = s.scratch.path() / "InstaGramStore.db";
  fs::copy_file(store, copy);
  test::TestDb writer(copy);
  commit_into_wal(writer);
  ASSERT_GT(fs::file_size(copy.string() + "-wal"), 0u);
  fs::copy_file(copy.string() + "-wal", store.string() + "-wal");
}

// Every run over the rows of commit_into_wal: bob, with the plain favourites only, shares the album tree.
Yes wal_reply() {
  return {.albums = kAlbums + " album:Zeta(1)", .results = 2, .also = [](const Array& results, const Scene& s) {
            const MQImporterNodeResult& bob = result_at(results, 1);
            EXPECT_EQ(account_of(bob, s) + " | " + category(bob.tags.get()) + " | " + category(bob.friends.get()),
                      "1002 bob nil - | tag:plain/0 | ");
            EXPECT_EQ(bob.albums.get(), result_at(results, 0).albums.get());
          }};
}

void make_read_only(Scene& s) {
  const fs::path folder = s.home.store_file().parent_path();
  fs::permissions(folder, fs::perms(0555));
  s.undo.push_back([folder] { fs::permissions(folder, fs::perms(0755)); });
}

void hold_lock(Scene& s, const std::string& sql) {
  s.write();
  auto holder = std::make_shared<test::LockHolder>(s.home.store_file(), sql);
  EXPECT_TRUE(holder->held());
  s.keep.push_back(holder);
}

// Trip gets a second media record, `archive` as stored; converted, it must be `expected`, with that "id",
// "pk" and "code".
std::function<void(Scene&)> add_trip_media(std::optional<std::string> archive) {
  return [archive](Scene& s) { s.home.store().add_image(s.trip, archive); };
}
Yes second_trip_media(Ref<Dictionary> expected, std::string id_pk_code) {
  return {.albums = "Holidays[album:Trip(2)] album:Attic(0) album:Beach(2) album:Cellar(1)",
          .also = [expected, id_pk_code](const Array& results, const Scene&) {
            auto holidays = as_folder(as_folder(result_at(results, 0).albums.get())->childList()->at(0).get());
            auto* trip = dynamic_cast<const MQImporterNodeAlbum*>(holidays->childList()->at(0).get());
            const Dictionary* m = as_dict(as_array(trip->items.get())->at(1).get());
            ASSERT_NE(m, nullptr);
            EXPECT_TRUE(deep_equal(m, expected.get())) << description(m);
            EXPECT_EQ(txt(m->get("id")) + " " + txt(m->get("pk")) + " " + txt(m->get("code")), id_pk_code);
          }};
}

// ---- the catalogue ------------------------------------------------------------------------------------------

std::vector<Case> catalogue() {
  std::vector<Case> c;
  auto yes = [&c](std::string name, std::function<void(Scene&)> make, Yes reply = {}) {
    c.push_back({std::move(name), std::move(make), std::move(reply)});
  };
  auto no = [&c](std::string name, std::function<void(Scene&)> make, No why) {
    c.push_back({std::move(name), std::move(make), why});
  };

  // Its archive is pinned: optimisations must not change the reply. A change of the wire format on purpose
  // updates the digest, with the reason in the commit.
  yes("a healthy installation", [](Scene&) {}, {.digest = "f840d2b2ef3c1dea"});
  no("no marker, every other key present", [](Scene& s) { s.home.remove("FinishedStartScreen410x"); },
     No::NoInstallation);
  // Our choice: a preferences file nested deeper than the reader takes is as unreadable as garbage.
  no("the preferences file is XML nested 300,000 deep", [](Scene& s) {
    s.write();
    test::write_file(s.home.preferences_file(), deep_xml(3 * kDeep, "<key>FinishedStartScreen410x</key><true/>"));
  }, No::NoInstallation);

  // "OutlineFolderModels" and its entries: anything that is not a readable archive of an item is no
  // stored tree (the user, or the shared album tree, starts from a new one).
  yes("OutlineFolderModels is an array", [](Scene& s) {
    s.tree = s.shared = nullptr;
    s.home.set("OutlineFolderModels", array({str("1001")}));
  }, {.tags = kTagsUnfiled, .locations = kLocationsUnfiled, .albums = kAlbumsUnfiled});
  for (const auto& [what, value] : std::vector<std::pair<std::string, std::string>>{
           {"garbage bytes", garbage(3000, 1)},
           {"an object of an unknown class",
            archive_root(record({"MQSidebarThing", "NSObject"}, {{"title", str("Root"), false}}))},
           {"an XML property list nested 300,000 deep", deep_xml(3 * kDeep)}})
    yes("the user's sidebar entry is " + what, [value](Scene& s) {
      s.tree = nullptr;
      s.home.set_in("OutlineFolderModels", "1001", orvia::data(value));
    }, {.tags = kTagsUnfiled, .locations = kLocationsUnfiled});
  yes("the shared album entry is garbage bytes", [](Scene& s) {
    s.shared = nullptr;
    s.home.set_in("OutlineFolderModels", test::kSharedAlbumsUser, orvia::data(garbage(500, 2)));
  }, {.albums = kAlbumsUnfiled});

  // The block list does not travel in the reply; a block list of any shape leaves the rest alone.
  yes("kUserBlacklistKey maps ids to numbers and lists", [](Scene& s) {
    s.home.set("kUserBlacklistKey", dict({{"1234", num(5)}, {"99", array({str("x")})}, {"7", dict()}}));
  });
  // A lookup that finds no dictionary gives nothing; our choice: a picture address that is not text is
  // left out (the client's record holds text there).
  yes("UserAccountsI, T and E hold entries of the wrong kinds", [](Scene& s) {
    s.home.set("UserAccountsI", dict({{"1001", num(42)}}))
        .set("UserAccountsT", dict({{"1001", array({str("t")})}}))
        .set("UserAccountsE", dict({{"1001", str("tomorrow")}}));
  }, {.account = "1001 ann nil stats"});
  // Order indexes read as the old client's integerValue, which takes a real beyond range as the largest.
  yes("order indexes are the real 1e300", [](Scene& s) {
    s.home.set("WZAlbumsOrderIndex", real(1e300)).set("WZFavoriteFriendsOrderIndex", real(1e300));
  }, {.friends = "friend:bert friend:carla friend:dora"});

  // Per-account favourite lists. The search for a filed entry stops at the first element that is not a
  // dictionary; the collector skips such elements (our choice: an element without a tag or id). Our
  // choice: an id stored as a number matches its sidebar entry by its decimal text.
  auto favourites = [](R tags, R locations) {
    return [tags, locations](Scene& s) {
      if (tags) s.home.set_in("FavoriteSidebarTags", "1001", tags);
      if (locations) s.home.set_in("FavoriteSidebarLocations", "1001", locations);
    };
  };
  auto tag = [](R name, R count) { return dict({{"tag", name}, {"count", count}}); };
  yes("the account's favourite lists hold strings and numbers",
      favourites(array({str("sunset"), num(5), tag(str("beach"), num(2))}),
                 array({str("77"), num(5), location("99", "Rome", 1, 2)})),
      {.tags = "tag:beach/2 tag:plain/0", .locations = "loc:Rome@99 loc:Bergen@88"});
  yes("favourite tag counts are a string and a dictionary",
      favourites(array({tag(str("beach"), str("7 apples")), tag(str("sunset"), dict({{"n", num(4)}}))}), nullptr),
      {.tags = "tag:sunset/0 tag:beach/7 tag:plain/0"});
  yes("a favourite location's \"id\" is a number",
      favourites(nullptr, array({dict({{"id", num(77)}, {"name", str("Oslo")}}), location("99", "Rome", 1, 2)})));
  yes("favourite locations without an id and with a numeric name",
      favourites(nullptr, array({dict({{"name", str("No id")}}), dict({{"id", str("99")}, {"name", num(5)}})})),
      {.locations = "loc:5@99 loc:Bergen@88"});
  // Plain favourite lists: our choice, a value that is not a list adds nothing.
  yes("IGFavouriteTags and IGFavouriteLocations are strings",
      [](Scene& s) { s.home.set("IGFavouriteTags", str("plain")).set("IGFavouriteLocations", str("88")); },
      {.tags = "tag:sunset/4 tag:beach/2", .locations = "loc:Oslo harbour@location-77 loc:Rome@99"});
  yes("IGFavouriteTags holds a list nested 100,000 deep",
      [](Scene& s) { s.home.set("IGFavouriteTags", array({nested_list(kDeep), str("plain")})); });

  // Sidebar trees. Folders are expanded once: a children list that comes back to a folder already
  // exported leaves it out (our choice). Children whose title is not text come after the titled ones.
  yes("a sidebar folder lists its own ancestor", [](Scene& s) { test::add_folder(*s.tags, "Loop")->childList()->push_back(s.tags); },
      {.tags = "Loop[] tag:sunset/4 tag:beach/2 tag:plain/0"});
  yes("a sidebar entry is its own parent", [](Scene& s) { s.sunset->parent = s.sunset; });
  yes("a sidebar tree 100,000 folders deep", [](Scene& s) {
    s.tags->children = mutable_array();
    Ref<OutlineFolderItem> at = s.tags;
    for (int i = 0; i < kDeep; ++i) at = test::add_folder(*at, "level", "deep-" + std::to_string(i));
    test::add_entry(*at, "sunset", test::favtag_id("sunset"));
  }, {.tags = kAny, .also = [](const Array& results, const Scene&) {
    const Array* tags = as_folder(result_at(results, 0).tags.get())->childList();
    ASSERT_EQ(tags->size(), 3u);
    int depth = 0;
    const Object* at = tags->at(0).get();
    for (const MQImporterNodeFolder* f; (f = as_folder(at)) && f->childList() && f->childList()->size() == 1;
         at = f->childList()->at(0).get())
      ++depth;
    EXPECT_EQ(std::to_string(depth) + " levels to " + summary(at) + ", then " + summary(tags->at(1).get()) + " " +
                  summary(tags->at(2).get()),
              "100000 levels to tag:sunset/4, then tag:beach/2 tag:plain/0");
  }});
  yes("sidebar identifiers that are numbers or missing", [](Scene& s) {
    s.sunset->identifier = num(5);
    test::add_folder(*s.tags, "Numbered")->identifier = num(7);
    test::add_folder(*s.tags, "Nameless")->identifier = nullptr;
  }, {.tags = "Nameless[] Numbered[] tag:beach/2 tag:sunset/4 tag:plain/0"});
  yes("sidebar titles that are numbers", [](Scene& s) {
    test::add_folder(*s.tags, "b");
    test::add_folder(*s.tags, "three")->title = num(3);
    test::add_folder(*s.tags, "a");
    test::add_folder(*s.tags, "none")->title = nullptr;
  }, {.tags = "a[] b[] tag:sunset/4 3[] nil[] tag:beach/2 tag:plain/0"});
  yes("sidebar children that are not lists", [](Scene& s) {
    s.tags->children = str("sunset");
    s.locations->children = dict({{"0", str("location-77")}});
  }, {.tags = kTagsUnfiled, .locations = kLocationsUnfiled});
  // A root without a children list holds no base folders: only the shared album tree is exported.
  yes("the sidebar root's children are not a list", [](Scene& s) { s.tree->children = str("tags"); },
      {.tags = "-", .locations = "-", .friends = "-"});
  yes("sidebar items of other classes", [](Scene& s) {
    auto base = record({"MQFolder", "NSObject"}, {{"title", str("friends"), false},
        {"identifier", str(kFolderFavFriendIdentifier), false}, {"children", mutable_array(), false},
        {"folder", boolean(true), true}});
    auto entry = record({"SidebarEntry", "NSObject"}, {{"title", str("sunset"), false},
        {"identifier", str("favtag-sunset"), false}, {"type", str(kFolderTagsIdentifier), false}});
    s.tags->children = mutable_array({entry, str("favtag-sunset"), num(12), Null::shared()});
    s.tree->children = mutable_array({base, s.tags, s.locations});
  }, {.tags = kTagsUnfiled, .friends = "-"});
  // An item whose flags are of the wrong kind is no folder: it is exported as an entry, which finds no
  // tag, while the entry inside it still counts as filed.
  yes("a sidebar item whose flags and level are of the wrong kinds", [](Scene& s) {
    s.tags->children = mutable_array({record({"OutlineFolderItem", "NSObject"},
        {{"title", str("Odd"), false}, {"identifier", str("folder-odd"), false},
         {"children", mutable_array({s.sunset}), false}, {"type", str(kFolderTagsIdentifier), false},
         {"folder", str("YES"), false}, {"expanded", dict(), false}, {"level", str("deep"), false}})});
  }, {.tags = "tag:beach/2 tag:plain/0"});

  // Media records that cannot be read still become media dictionaries, of constants only (those of a
  // record without any); readable ones of the wrong shapes convert as the decoded record does. Our
  // choice: a numeric "id" or "link" is cut by its decimal text.
  const std::string media_bytes = media("41_1001", "EEE");
  const Ref<Dictionary> constants_only = convertedDictionaryFromArchive(nullptr, "none");
  for (const auto& [name, bytes] : std::vector<std::pair<std::string, std::optional<std::string>>>{
           {"without a dictionary", std::nullopt},
           {"of garbage", garbage(700, 4)},
           {"that is truncated", media_bytes.substr(0, media_bytes.size() / 2)},
           {"archiving an array", archive_root(array({test::older_media("42_1001", "x")}).get())},
           {"that is an XML property list nested 300,000 deep", deep_xml(3 * kDeep)}})
    yes("a media record " + name, add_trip_media(bytes), second_trip_media(constants_only, "nil nil nil"));
  for (const auto& [name, changes, id_pk_code] : std::vector<std::tuple<std::string, Ref<Dictionary>, std::string>>{
           {"whose id is a number", dict({{"id", num(12345)}}), "12345 12345 HHH"},
           {"whose link is a number", dict({{"link", num(987)}}), "45_1001 45 987"},
           {"whose nested values are of the wrong kinds",
            dict({{"caption", str("a caption")}, {"images", array({str("https://img.example/s.jpg")})}, {"user", num(77)},
                  {"likes", str("12")}, {"comments", dict({{"count", dict({{"n", num(3)}})}})}, {"videos", Null::shared()}}),
            "45_1001 45 HHH"},
           {"whose like count is a list nested 100,000 deep", dict({{"likes", dict({{"count", nested_list(kDeep)}})}}),
            "45_1001 45 HHH"}}) {
    auto record = test::older_media("45_1001", "https://photos.example/p/HHH");
    for (const auto& [key, value] : changes->entries()) record->set(text_of(key.get()), value);
    yes("a media record " + name, add_trip_media(test::media_archive(*record)),
        second_trip_media(convertedDictionary(record.get()), id_pk_code));
  }

  // The store. Our choice: a store that cannot be attached answers (NO, nil), like a missing one; accounts
  // without a user id are left out, which may leave an empty success.
  no("there is no store", [](Scene& s) { s.write(); fs::remove(s.home.store_file()); }, No::StoreRefused);
  no("the store is garbage", [](Scene& s) { s.write(); test::write_file(s.home.store_file(), garbage(65536, 5)); },
     No::StoreRefused);
  no("the store is locked by a writing process", [](Scene& s) {
    hold_lock(s, "BEGIN IMMEDIATE; INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT, ZUID) VALUES (9, 1, 1, '9')");
  }, No::StoreRefused);
  no("the store has no ZACCOUNT table", sql("DROP TABLE ZACCOUNT"), No::NoAccounts);
  no("the store holds no account", sql("DELETE FROM ZACCOUNT"), No::NoAccounts);
  yes("the store's accounts have no user ids", sql("UPDATE ZACCOUNT SET ZUID = NULL"), {.results = 0});
  yes("the store has no ZFRIEND table", sql("DROP TABLE ZFRIEND"), {.friends = ""});
  yes("the store has no ZIMAGEITEM table", sql("DROP TABLE ZIMAGEITEM"),
      {.albums = "Holidays[album:Trip(0)] album:Attic(0) album:Beach(0) album:Cellar(0)"});
  yes("the store's ZIMAGELIST has no ZTITLE column", sql("ALTER TABLE ZIMAGELIST DROP COLUMN ZTITLE"),
      {.albums = "Holidays[]"});
  yes("the store keeps an account's uid as a blob", sql("UPDATE ZACCOUNT SET ZUID = X'31303031' WHERE ZUID = '1001'"));
  yes("the store's committed rows are only in a -wal left by a crash", leave_crashed_wal, wal_reply());
  yes("the store's committed rows are only in the -wal of an open writer", [](Scene& s) {
    s.write();
    auto writer = std::make_shared<test::TestDb>(s.home.store_file());
    commit_into_wal(*writer);
    s.keep.push_back(writer);
  }, wal_reply());
  yes("the store lies in a read-only folder", [](Scene& s) { s.write(); make_read_only(s); });
  yes("the store lies in a read-only folder with a pending -wal", [](Scene& s) {
    leave_crashed_wal(s);
    make_read_only(s);
  }, wal_reply());
  return c;
}

// ---- running a case -------------------------------------------------------------------------------------------

// The direct import on a thread of its own (which serves the main queue while it runs); nothing when it
// has not answered within the limit: the run goes on in the background, so its installation is let go.
std::optional<service::ImportOutcome> import_within(std::unique_ptr<Scene>& s) {
  auto task = std::make_shared<std::packaged_task<service::ImportOutcome()>>(
      [home = s->home.home()] { return service::run_direct_import(home); });
  std::future<service::ImportOutcome> done = task->get_future();
  std::thread([task] { (*task)(); }).detach();
  if (done.wait_for(kRunLimit) == std::future_status::ready) return done.get();
  (void)s.release();
  return std::nullopt;
}

// FNV-1a of the bytes, in hex.
std::string digest(const std::string& bytes) {
  std::uint64_t h = 1469598103934665603ull;
  for (unsigned char c : bytes) h = (h ^ c) * 1099511628211ull;
  char out[17];
  std::snprintf(out, sizeof out, "%016llx", static_cast<unsigned long long>(h));
  return out;
}

void expect_reply(const Case& c, Scene& s, const service::ImportOutcome& outcome, const LogCapture& log) {
  bool refused = false;
  for (const std::string& line : log.lines()) refused |= line.rfind("Failed to initalize persistent store: ", 0) == 0;
  if (const No* why = std::get_if<No>(&c.reply)) {
    EXPECT_FALSE(outcome.success || outcome.archive);
    EXPECT_EQ(refused, *why == No::StoreRefused);
    EXPECT_EQ(s.home.defaults()->hasExistingOrviaInstall(), *why != No::NoInstallation);
    return;
  }
  const Yes& yes = std::get<Yes>(c.reply);
  ASSERT_TRUE(outcome.success && outcome.archive);
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
  auto text = [](const std::string& expected, const Object* field) { return expected == kAny ? kAny : category(field); };
  EXPECT_EQ(text(yes.tags, first.tags.get()) + " | " + text(yes.locations, first.locations.get()) + " | " +
                text(yes.friends, first.friends.get()) + " | " + text(yes.albums, first.albums.get()) + " | " +
                account_of(first, s),
            yes.tags + " | " + yes.locations + " | " + yes.friends + " | " + yes.albums + " | " + yes.account);
  if (yes.also) yes.also(*results, s);
  if (yes.digest.empty()) return;
  // The client reads the archive with its own classes: GNUstep gives the same records.
  if (test::gnustep_available()) {
    auto theirs = test::decode_with_gnustep(*outcome.archive);
    ASSERT_TRUE(theirs.ok()) << theirs.error().message;
    EXPECT_EQ(test::json_text(theirs.value()), test::json_text(test::dump_like_gnustep(results)));
  }
  // The statistics path holds the temporary home's name: masked with as many bytes.
  std::string bytes = *outcome.archive;
  const std::string path = s.home.home();
  for (std::size_t at = bytes.find(path); at != std::string::npos; at = bytes.find(path, at))
    bytes.replace(at, path.size(), std::string(path.size(), 'H'));
  EXPECT_EQ(digest(bytes), yes.digest) << "archive of " << bytes.size() << " bytes";
}

// Modes and modification times of everything below `root`: a run that rewrote a file with the same
// bytes, or changed a mode, shows here although the content snapshot stays the same.
std::map<std::string, std::string> stamps(const fs::path& root) {
  std::map<std::string, std::string> out;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    struct stat st {};
    if (::lstat(entry.path().c_str(), &st) == 0)
      out[entry.path().string()] = fmt::format("{} {}.{}", st.st_mode, st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  }
  return out;
}

// These cases go through the service started by a private bus as well: its reply must be the direct one.
const std::set<std::string> kThroughBus = {
    "the store is locked by a writing process", "the store is garbage", "there is no store",
    "the store's committed rows are only in a -wal left by a crash", "a sidebar folder lists its own ancestor",
    "the store's accounts have no user ids", "no marker, every other key present",
    "the preferences file is XML nested 300,000 deep"};

TEST(HostileInstallation, EveryCaseGetsItsReplyDirectlyOrThroughTheBusAndLeavesTheInstallationAsItWas) {
  set_log_to_stderr(false);  // the lines go to the captures only (some are megabytes long)
  const std::vector<Case> cases = catalogue();
  std::set<std::string> names;
  for (const Case& c : cases) EXPECT_TRUE(names.insert(c.name).second) << "two cases named " << c.name;
  for (const std::string& name : kThroughBus) EXPECT_EQ(names.count(name), 1u) << name;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Heap heap;
    HeapScope scope(heap);
    auto s = std::make_unique<Scene>();
    healthy(*s);
    c.make(*s);
    s->write();
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
  set_log_to_stderr(true);
}

}  // namespace
}  // namespace orvia
