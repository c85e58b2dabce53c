// A catalogue of hostile legacy installations, each built on the fly from one healthy installation
// with one thing wrong: preference keys holding values of the wrong kind, damaged preference files,
// sidebar archives that loop, nest 100,000 deep or hold foreign records, unreadable media records,
// and stores that are damaged, incomplete, locked, pending in their -wal or kept in a read-only
// folder. Each case states the reply it must get, (YES, results with checked properties) or (NO, nil);
// every run must end within its time limit and leave the installation byte for byte as it was. A
// handful of the cases go through a real private bus as well.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
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

// The i-th converted media record of the album Trip, which the shared tree files in "Holidays".
const Dictionary* trip_media(const Array& results, std::size_t i) {
  const MQImporterNodeFolder* albums = as_folder(result_at(results, 0).albums.get());
  if (!albums || !albums->childList() || albums->childList()->empty()) return nullptr;
  const MQImporterNodeFolder* holidays = as_folder(albums->childList()->at(0).get());
  if (!holidays || !holidays->childList() || holidays->childList()->empty()) return nullptr;
  auto* trip = dynamic_cast<const MQImporterNodeAlbum*>(holidays->childList()->at(0).get());
  const Array* items = trip ? as_array(trip->items.get()) : nullptr;
  return items && i < items->size() ? as_dict(items->at(i).get()) : nullptr;
}

bool is_true(const Object* o) {
  const Number* n = as_number(o);
  return n && n->is_bool() && n->bool_value();
}
std::int64_t int_of(const Object* o) {
  const Number* n = as_number(o);
  return n ? n->int_value() : -1;
}

// A media record that could not be read still becomes a media dictionary: constants only.
void expect_constants_only(const Dictionary& media) {
  EXPECT_TRUE(is_true(media.get("converted_from_orvia4")));
  EXPECT_TRUE(is_true(media.get("can_viewer_save")));
  EXPECT_EQ(int_of(media.get("media_type")), 1);
  EXPECT_EQ(int_of(media.get("original_width")), 640);
  for (const char* missing : {"id", "pk", "code", "taken_at", "device_timestamp", "like_count", "comment_count"})
    EXPECT_EQ(media.get(missing), nullptr) << missing;
  const Dictionary* user = as_dict(media.get("user"));
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(user->size(), 1u);  // is_private alone
  const Dictionary* caption = as_dict(media.get("caption"));
  ASSERT_NE(caption, nullptr);
  EXPECT_EQ(caption->get("user"), media.get("user"));
  EXPECT_EQ(caption->get("text"), nullptr);
  EXPECT_EQ(caption->get("media_id"), nullptr);
  EXPECT_EQ(int_of(caption->get("type")), 1);
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

std::string half(const fs::path& file) {
  const std::string bytes = test::read_file(file);
  return bytes.substr(0, bytes.size() / 2);
}

// Writes the installation, then replaces its preferences file or its store with what `bytes` makes of
// the written file (or with `bytes` as given), or with a folder (holding `inside` unless empty).
using File = fs::path (LegacyHome::*)() const;
constexpr File kPrefs = &LegacyHome::preferences_file, kStore = &LegacyHome::store_file;
std::function<void(Scene&)> rewrite(File file, std::function<std::string(const fs::path&)> bytes) {
  return [file, bytes](Scene& s) {
    s.write();
    const fs::path path = (s.home.*file)();
    test::write_file(path, bytes(path));
  };
}
std::function<void(Scene&)> rewrite(File file, std::string bytes) {
  return rewrite(file, [bytes](const fs::path&) { return bytes; });
}
std::function<void(Scene&)> folder_in_place_of(File file, std::string inside = {}) {
  return [file, inside](Scene& s) {
    s.write();
    const fs::path path = (s.home.*file)();
    fs::remove(path);
    fs::create_directories(inside.empty() ? path : path / inside);
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
  using fs::perms;
  fs::permissions(folder, perms::owner_read | perms::owner_exec | perms::group_read | perms::group_exec |
                              perms::others_read | perms::others_exec);  // 0555
  s.undo.push_back([folder] {
    fs::permissions(folder,
                    perms::owner_all | perms::group_read | perms::group_exec | perms::others_read | perms::others_exec);
  });
}

void hold_lock(Scene& s, const std::string& sql) {
  s.write();
  auto holder = std::make_shared<test::LockHolder>(s.home.store_file(), sql);
  EXPECT_TRUE(holder->held());
  s.keep.push_back(holder);
}

// Trip gets a second media record: `archive` as stored, or the older form of `id` with `changes` made.
std::function<void(Scene&)> add_trip_media(std::optional<std::string> archive) {
  return [archive](Scene& s) { s.home.store().add_image(s.trip, archive); };
}
std::function<void(Scene&)> add_trip_media(std::string id, std::string link,
                                           std::vector<std::pair<std::string, Ref<Object>>> changes) {
  return [id, link, changes](Scene& s) {
    auto media = test::older_media(id, link);
    for (const auto& [key, value] : changes) media->set(key, value);
    s.home.store().add_image(s.trip, test::media_archive(*media));
  };
}

// Trip holding that second media record; `check` looks at its conversion.
Yes second_trip_media(std::function<void(const Dictionary&)> check) {
  return Yes{.albums = "Holidays[album:Trip(2)] album:Attic(0) album:Beach(2) album:Cellar(1)",
             .also = [check](const Array& results) {
               const Dictionary* media = trip_media(results, 1);
               ASSERT_NE(media, nullptr);
               check(*media);
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

  // Installation markers: any value counts, whatever it is.
  auto marker = [](std::string_view key, R value) {
    return [key, value](Scene& s) { s.home.remove("FinishedStartScreen410x").set(key, value); };
  };
  yes("marker FinishedStartScreen400 stored as false", marker("FinishedStartScreen400", boolean(false)));
  yes("marker FinishedStartScreen400x stored as 0", marker("FinishedStartScreen400x", num(0)));
  yes("marker FinishedStartScreen410xxxxxx stored as an empty string", marker("FinishedStartScreen410xxxxxx", str("")));
  yes("marker FinishedStartScreen415x stored as a dictionary", marker("FinishedStartScreen415x", dict()));
  no(
      "no marker, every other key present", [](Scene& s) { s.home.remove("FinishedStartScreen410x"); },
      No::NoInstallation);

  // "OutlineFolderModels" and its entries: anything that is not a readable archive of an item is no
  // stored tree (the user, or the shared album tree, starts from a new one).
  auto models = [](R value) {
    return [value](Scene& s) {
      s.tree = s.shared = nullptr;
      s.home.set("OutlineFolderModels", value);
    };
  };
  const Yes trees_lost{.tags = kTagsUnfiled, .locations = kLocationsUnfiled, .albums = kAlbumsUnfiled};
  yes("OutlineFolderModels is an array", models(array({str("1001")})), trees_lost);
  yes("OutlineFolderModels is a string", models(str("1001")), trees_lost);
  auto user_entry = [](std::function<R(Scene&)> value) {
    return [value](Scene& s) {
      R v = value(s);
      s.tree = nullptr;
      s.home.set_in("OutlineFolderModels", "1001", v);
    };
  };
  const Yes user_tree_lost{.tags = kTagsUnfiled, .locations = kLocationsUnfiled};
  yes("the user's sidebar entry is a string", user_entry([](Scene&) -> R { return str("Root"); }), user_tree_lost);
  yes("the user's sidebar entry is a number", user_entry([](Scene&) -> R { return num(7); }), user_tree_lost);
  yes("the user's sidebar entry is an array",
      user_entry([](Scene& s) -> R { return array({orvia::data(archive_root(s.tree.get()))}); }), user_tree_lost);
  yes("the user's sidebar entry is garbage bytes",
      user_entry([](Scene&) -> R { return orvia::data(garbage(3000, 1)); }), user_tree_lost);
  yes("the user's sidebar entry is a truncated archive", user_entry([](Scene& s) -> R {
        const std::string bytes = archive_root(s.tree.get());
        return orvia::data(bytes.substr(0, bytes.size() / 2));
      }),
      user_tree_lost);
  yes("the user's sidebar entry archives an NSArray of the base folders",
      user_entry([](Scene& s) -> R { return orvia::data(archive_root(s.tree->children.get())); }), user_tree_lost);
  yes("the user's sidebar entry archives an object of an unknown class", user_entry([](Scene&) -> R {
        return orvia::data(archive_root(record({"MQSidebarThing", "NSObject"},
                                               {{"title", str("Root"), false}, {"identifier", str("root"), false}})));
      }),
      user_tree_lost);
  yes("the user's sidebar entry is an XML property list nested 300,000 deep",
      user_entry([](Scene&) -> R { return orvia::data(deep_xml(3 * kDeep)); }), user_tree_lost);
  yes("the shared album entry is garbage bytes",
      [](Scene& s) {
        s.shared = nullptr;
        s.home.set_in("OutlineFolderModels", test::kSharedAlbumsUser, orvia::data(garbage(500, 2)));
      },
      {.albums = kAlbumsUnfiled});

  // The block list does not travel in the reply; a block list of any shape leaves the rest alone.
  yes("kUserBlacklistKey is an array", [](Scene& s) { s.home.set("kUserBlacklistKey", array({str("1234")})); });
  yes("kUserBlacklistKey is a string", [](Scene& s) { s.home.set("kUserBlacklistKey", str("spammer")); });
  yes("kUserBlacklistKey maps ids to numbers and lists", [](Scene& s) {
    s.home.set("kUserBlacklistKey", dict({{"1234", num(5)}, {"99", array({str("x")})}, {"7", dict()}}));
  });

  // Account values: a lookup that finds no dictionary gives nothing; a picture address that is not
  // text is left out (our choice: the client's record holds text there).
  auto accounts = [](R i, R t, R e) {
    return [i, t, e](Scene& s) { s.home.set("UserAccountsI", i).set("UserAccountsT", t).set("UserAccountsE", e); };
  };
  yes("UserAccountsI, T and E are arrays",
      accounts(array({str("https://pics.example/ann.jpg")}), array({str("t")}), array({date(1)})),
      {.account = "1001 ann nil"});
  yes("UserAccountsI, T and E are strings", accounts(str("https://x.example/a.jpg"), str("t"), str("e")),
      {.account = "1001 ann nil"});
  yes("UserAccountsI, T and E hold entries of the wrong kinds",
      accounts(dict({{"1001", num(42)}}), dict({{"1001", array({str("t")})}}), dict({{"1001", str("tomorrow")}})),
      {.account = "1001 ann nil"});
  yes("UserAccountsI holds entries for other accounts only",
      accounts(dict({{"1002", str("https://pics.example/bob.jpg")}, {"", str("empty")}}), dict(), dict()),
      {.account = "1001 ann nil"});

  // Order indexes, read as the old client's integerValue; both keys take the same value.
  auto orders = [](R value) {
    return [value](Scene& s) { s.home.set("WZAlbumsOrderIndex", value).set("WZFavoriteFriendsOrderIndex", value); };
  };
  yes("order indexes are the string \"2\"", orders(str("2")), {.friends = kFriendsByName, .albums = kAlbumsByCreation});
  yes("order indexes are the real 1.9", orders(real(1.9)), {.friends = kFriendsByAdded, .albums = kAlbumsByCount});
  yes("order indexes are the boolean true", orders(boolean(true)),
      {.friends = kFriendsByAdded, .albums = kAlbumsByCount});
  yes("order indexes are dictionaries", orders(dict({{"index", num(2)}})));
  yes("order indexes are negative", orders(num(-1)), {.friends = kFriendsByName});
  yes("order indexes are the largest integer", orders(num(INT64_MAX)), {.friends = kFriendsByName});
  yes("order indexes are a 30-digit string", orders(str("999999999999999999999999999999")),
      {.friends = kFriendsByName});
  yes("order indexes are the real 1e300", orders(real(1e300)), {.friends = kFriendsByName});

  // Per-account favourite lists (those given).
  auto favourites = [](R tags, R locations) {
    return [tags, locations](Scene& s) {
      if (tags) s.home.set_in("FavoriteSidebarTags", "1001", tags);
      if (locations) s.home.set_in("FavoriteSidebarLocations", "1001", locations);
    };
  };
  yes("FavoriteSidebarTags and FavoriteSidebarLocations are arrays",
      [](Scene& s) {
        s.home.set("FavoriteSidebarTags", array({dict({{"tag", str("sunset")}})}));
        s.home.set("FavoriteSidebarLocations", array({location("77", "Oslo", 1, 2)}));
      },
      {.tags = "tag:plain/0", .locations = "loc:Bergen@88"});
  yes("the account's favourite lists are strings", favourites(str("sunset"), str("77")),
      {.tags = "tag:plain/0", .locations = "loc:Bergen@88"});
  // The search for a filed entry stops at the first element that is not a dictionary; the collector
  // skips such elements with a message (our choice: an element without a tag or id).
  yes("the account's favourite lists hold strings and numbers",
      favourites(array({str("sunset"), num(5), dict({{"tag", str("beach")}, {"count", num(2)}})}),
                 array({str("77"), num(5), location("99", "Rome", 1, 2)})),
      {.tags = "tag:beach/2 tag:plain/0", .locations = "loc:Rome@99 loc:Bergen@88"});
  yes("a favourite tag's \"tag\" is a number",
      favourites(array({dict({{"tag", num(5)}, {"count", num(1)}}), dict({{"tag", str("beach")}, {"count", num(2)}}),
                        dict({{"tag", str("sunset")}, {"count", num(4)}})}),
                 nullptr));
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
  const Yes plain_lists_add_nothing{.tags = "tag:sunset/4 tag:beach/2",
                                    .locations = "loc:Oslo harbour@location-77 loc:Rome@99"};
  yes("IGFavouriteTags and IGFavouriteLocations are strings", plain_lists(str("plain"), str("88")),
      plain_lists_add_nothing);
  yes("IGFavouriteTags and IGFavouriteLocations are dictionaries",
      plain_lists(dict({{"plain", num(1)}}), dict({{"id", str("88")}, {"name", str("Bergen")}})),
      plain_lists_add_nothing);
  yes("IGFavouriteTags and IGFavouriteLocations are mixed lists",
      plain_lists(array({str("a"), num(5), dict(), str("b"), orvia::data("xy"), date(3)}),
                  array({dict({{"id", str("88")}, {"name", str("Bergen")}}), str("88"), num(5),
                         dict({{"name", str("Nameless")}})})),
      {.tags = "tag:sunset/4 tag:beach/2 tag:a/0 tag:b/0",
       .locations = "loc:Oslo harbour@location-77 loc:Rome@99 loc:Bergen@88 loc:Nameless@nil"});
  yes("IGFavouriteTags holds a list nested 100,000 deep", [](Scene& s) {
    s.home.set("IGFavouriteTags", array({nested_list(kDeep), str("plain")}));
  });

  // The preferences file itself.
  no("the preferences file is truncated", rewrite(kPrefs, half), No::NoInstallation);
  no("the preferences file is garbage", rewrite(kPrefs, "bplist00" + garbage(4000, 3)), No::NoInstallation);
  yes("the preferences file is XML", [](Scene& s) {
    s.write();
    auto xml = write_xml_plist(read_property_list_file(s.home.preferences_file().string()).value().get());
    ASSERT_TRUE(xml.ok());
    test::write_file(s.home.preferences_file(), xml.value());
  });
  no("the preferences file is XML with a top-level array",
     rewrite(kPrefs, write_xml_plist(array({dict({{"FinishedStartScreen410x", boolean(true)}})}).get()).value()),
     No::NoInstallation);
  // Our choice: an XML file nested deeper than the reader takes is as unreadable as garbage.
  no("the preferences file is XML nested 300,000 deep",
     rewrite(kPrefs, deep_xml(3 * kDeep, "<key>FinishedStartScreen410x</key><true/>")), No::NoInstallation);
  no("the preferences file is empty", rewrite(kPrefs, ""), No::NoInstallation);
  no("a folder stands in place of the preferences file", folder_in_place_of(kPrefs, "inside"), No::NoInstallation);

  // Sidebar trees. Folders are expanded once: a children list that comes back to a folder already
  // exported leaves it out (our choice).
  yes("a sidebar folder lists its own ancestor",
      [](Scene& s) {
        auto loop = test::add_folder(*s.tags, "Loop");
        loop->childList()->push_back(s.tags);
      },
      {.tags = "Loop[] tag:sunset/4 tag:beach/2 tag:plain/0"});
  yes("a sidebar entry is its own parent", [](Scene& s) { s.sunset->parent = s.sunset; });
  yes("a sidebar folder lists itself",
      [](Scene& s) {
        auto self = test::add_folder(*s.tags, "Self");
        self->childList()->push_back(self);
        self->childList()->push_back(s.sunset);
        s.tags->children = mutable_array({self});
      },
      {.tags = "Self[tag:sunset/4] tag:beach/2 tag:plain/0"});
  yes("a sidebar tree 100,000 folders deep",
      [](Scene& s) {
        s.tags->children = mutable_array();
        Ref<OutlineFolderItem> at = s.tags;
        for (int i = 0; i < kDeep; ++i) at = test::add_folder(*at, "level", "deep-" + std::to_string(i));
        test::add_entry(*at, "sunset", test::favtag_id("sunset"));
      },
      {.tags = kAny, .also = [](const Array& results) {
         const MQImporterNodeFolder* tags = as_folder(result_at(results, 0).tags.get());
         ASSERT_TRUE(tags && tags->childList());
         ASSERT_EQ(tags->childList()->size(), 3u);
         EXPECT_EQ(summary(tags->childList()->at(1).get()), "tag:beach/2");
         EXPECT_EQ(summary(tags->childList()->at(2).get()), "tag:plain/0");
         int depth = 0;
         const Object* at = tags->childList()->at(0).get();
         while (const MQImporterNodeFolder* f = as_folder(at)) {
           ++depth;
           if (!f->childList() || f->childList()->size() != 1) break;
           at = f->childList()->at(0).get();
         }
         EXPECT_EQ(depth, kDeep);
         EXPECT_EQ(summary(at), "tag:sunset/4");
       }});
  yes("sidebar identifiers that are numbers",
      [](Scene& s) {
        s.sunset->identifier = num(5);
        test::add_folder(*s.tags, "Numbered")->identifier = num(7);
      },
      {.tags = "Numbered[] tag:beach/2 tag:sunset/4 tag:plain/0"});
  yes("sidebar items without identifiers",
      [](Scene& s) {
        s.sunset->identifier = nullptr;
        test::add_folder(*s.tags, "Nameless")->identifier = nullptr;
      },
      {.tags = "Nameless[] tag:beach/2 tag:sunset/4 tag:plain/0"});
  // Our choice: children whose title is not text come after the titled ones, in stored order.
  yes("sidebar titles that are numbers",
      [](Scene& s) {
        test::add_folder(*s.tags, "b");
        test::add_folder(*s.tags, "three")->title = num(3);
        test::add_folder(*s.tags, "a");
        test::add_folder(*s.tags, "none")->title = nullptr;
      },
      {.tags = "a[] b[] tag:sunset/4 3[] nil[] tag:beach/2 tag:plain/0"});
  yes("sidebar children that are not lists",
      [](Scene& s) {
        s.tags->children = str("sunset");
        s.locations->children = dict({{"0", str("location-77")}});
      },
      {.tags = "tag:beach/2 tag:sunset/4 tag:plain/0", .locations = "loc:Oslo@77 loc:Rome@99 loc:Bergen@88"});
  // A root without a children list holds no base folders: those categories are missing, and only the
  // shared album tree is exported.
  yes("the sidebar root's children are not a list", [](Scene& s) { s.tree->children = str("tags"); },
      {.tags = "-", .locations = "-", .friends = "-"});
  yes("sidebar items of other classes",
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
  yes("a sidebar item whose flags and level are of the wrong kinds",
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

  // Media records that cannot be read still become media dictionaries, of constants only.
  const std::string media_bytes = test::media_archive(*test::older_media("41_1001", "https://photos.example/p/EEE"));
  for (const auto& [name, bytes] : std::vector<std::pair<std::string, std::optional<std::string>>>{
           {"a media record without a dictionary", std::nullopt},
           {"a media record of zero bytes", ""},
           {"a media record of garbage", garbage(700, 4)},
           {"a truncated media record", media_bytes.substr(0, media_bytes.size() / 2)},
           {"a media record archiving a string", archive_root(str("media"))},
           {"a media record archiving an array", archive_root(array({test::older_media("42_1001", "x")}).get())},
           {"a media record archiving NSNull", archive_root(Null::shared().get())},
           {"a media record that is an XML property list nested 300,000 deep", deep_xml(3 * kDeep)}})
    yes(name, add_trip_media(bytes), second_trip_media(expect_constants_only));
  yes("a media record whose caption is NSNull",
      add_trip_media("43_1001", "https://photos.example/p/FFF", {{"caption", Null::shared()}}),
      second_trip_media([](const Dictionary& media) {
        EXPECT_EQ(text_of(media.get("pk")), "43");
        EXPECT_EQ(media.get("taken_at"), nullptr);
        const Dictionary* caption = as_dict(media.get("caption"));
        ASSERT_NE(caption, nullptr);
        EXPECT_EQ(caption->get("text"), nullptr);
        EXPECT_EQ(caption->get("created_at"), nullptr);
        EXPECT_EQ(text_of(caption->get("media_id")), "43");
      }));
  // Our choice: a numeric "id" or "link" is cut by its decimal text.
  yes("a media record whose id is a number", add_trip_media("0", "https://photos.example/p/GGG", {{"id", num(12345)}}),
      second_trip_media([](const Dictionary& media) {
        EXPECT_EQ(int_of(media.get("id")), 12345);
        EXPECT_EQ(text_of(media.get("pk")), "12345");
        EXPECT_EQ(text_of(as_dict(media.get("caption"))->get("media_id")), "12345");
      }));
  yes("a media record whose link is a number", add_trip_media("44_1001", "", {{"link", num(987)}}),
      second_trip_media([](const Dictionary& media) { EXPECT_EQ(text_of(media.get("code")), "987"); }));
  yes("a media record whose nested values are of the wrong kinds",
      add_trip_media("45_1001", "https://photos.example/p/HHH",
                     {{"caption", str("a caption")},
                      {"images", array({str("https://img.example/s.jpg")})},
                      {"user", num(77)},
                      {"likes", str("12")},
                      {"comments", dict({{"count", dict({{"n", num(3)}})}})},
                      {"videos", Null::shared()}}),
      second_trip_media([](const Dictionary& media) {
        EXPECT_EQ(int_of(media.get("media_type")), 2);  // a stored null under "videos" counts
        EXPECT_EQ(media.get("like_count"), nullptr);
        EXPECT_EQ(media.get("taken_at"), nullptr);
        EXPECT_NE(as_dict(media.get("comment_count")), nullptr);  // copied as stored
        EXPECT_EQ(as_dict(media.get("user"))->size(), 1u);
        const Array* candidates = as_array(as_dict(media.get("image_versions2"))->get("candidates"));
        ASSERT_EQ(candidates->size(), 2u);
        EXPECT_EQ(as_dict(candidates->at(0).get())->get("url"), nullptr);
      }));
  yes("a media record whose like count is a list nested 100,000 deep",
      add_trip_media("46_1001", "https://photos.example/p/III", {{"likes", dict({{"count", nested_list(kDeep)}})}}),
      second_trip_media([](const Dictionary& media) {
        int depth = 0;
        const Object* at = media.get("like_count");
        while (const Array* a = as_array(at)) {
          ++depth;
          if (a->size() != 1) break;
          at = a->at(0).get();
        }
        EXPECT_EQ(depth, kDeep);
        EXPECT_EQ(txt(at), "bottom");
      }));

  // The store. Our choice: a store that cannot be attached answers (NO, nil), like a missing one.
  no("the store is truncated to half its size", rewrite(kStore, half), No::StoreRefused);
  no("the store is garbage", rewrite(kStore, garbage(64 * 1024, 5)), No::StoreRefused);
  no("the store has zero bytes", rewrite(kStore, ""), No::StoreRefused);
  no(
      "the store is an SQLite file without tables",
      [](Scene& s) {
        s.write();
        fs::remove(s.home.store_file());
        test::TestDb(s.home.store_file()).exec("PRAGMA user_version = 7");
      },
      No::StoreRefused);
  no("the store has no Z_METADATA table", sql("DROP TABLE Z_METADATA"), No::StoreRefused);
  no("the store has no ZACCOUNT table", sql("DROP TABLE ZACCOUNT"), No::NoAccounts);
  no("the store does not know the entity Account", sql("DELETE FROM Z_PRIMARYKEY WHERE Z_NAME = 'Account'"),
     No::NoAccounts);
  no("the store's ZACCOUNT was rebuilt without ZUID",
     sql("CREATE TABLE ZACCOUNT_NEW ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZNAME VARCHAR );"
         "INSERT INTO ZACCOUNT_NEW SELECT Z_PK, Z_ENT, Z_OPT, ZNAME FROM ZACCOUNT;"
         "DROP TABLE ZACCOUNT; ALTER TABLE ZACCOUNT_NEW RENAME TO ZACCOUNT;"),
     No::NoAccounts);
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
      "the store's folder is a file",
      [](Scene& s) {
        s.write();
        fs::remove_all(s.velmora());
        test::write_file(s.velmora(), "Velmora");
      },
      No::StoreRefused);
  no("a folder stands in place of the store", folder_in_place_of(kStore), No::StoreRefused);
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

TEST(HostileInstallation, EveryCaseGetsItsReplyAndLeavesTheInstallationAsItWas) {
  const std::vector<Case> cases = catalogue();
  ASSERT_GE(cases.size(), 40u);
  std::set<std::string> names;
  for (const Case& c : cases) EXPECT_TRUE(names.insert(c.name).second) << "two cases named " << c.name;
  QuietLog quiet;
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
    EXPECT_EQ(test::snapshot_tree(s->home.path()), before);
    EXPECT_EQ(stamps(s->home.path()), stamped);
  }
}

TEST(HostileInstallation, ThroughAPrivateBusTheReplyIsTheDirectOne) {
  const std::vector<Case> cases = catalogue();
  QuietLog quiet;
  for (const char* name :
       {"the store is locked by a writing process", "the store is garbage",
        "the store's committed rows are only in a -wal left by a crash", "a sidebar folder lists its own ancestor",
        "the preferences file is truncated", "the preferences file is XML nested 300,000 deep"}) {
    SCOPED_TRACE(name);
    auto c = std::find_if(cases.begin(), cases.end(), [&](const Case& k) { return k.name == name; });
    ASSERT_NE(c, cases.end());
    Heap heap;
    HeapScope scope(heap);
    std::unique_ptr<Scene> s = build(*c);
    const test::TreeSnapshot before = test::snapshot_tree(s->home.path());
    std::optional<service::ImportOutcome> direct = import_within(s);
    ASSERT_TRUE(direct) << "no direct reply within " << kRunLimit.count() << " s";
    EXPECT_EQ(direct->success, std::holds_alternative<Yes>(c->reply));

    test::PrivateBusOptions options;
    options.environment["HOME"] = s->home.home();
    test::PrivateBus bus(options);
    client::CallOptions call;
    call.timeout = kRunLimit;
    client::CallOutcome reply = client::find_importable_results(call);
    ASSERT_EQ(reply.status, client::CallStatus::Replied) << reply.error << "\n" << bus.daemon_log();
    EXPECT_EQ(reply.success, direct->success);
    EXPECT_EQ(reply.archive, direct->archive);
    EXPECT_EQ(test::snapshot_tree(s->home.path()), before);
  }
}

}  // namespace
}  // namespace orvia
