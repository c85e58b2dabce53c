// The sample legacy-installation generator, checked from the outside: the program is run, and what it
// wrote is read with SQLite, libplist, Python's plistlib and our own unarchiver.
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sqlite3.h>

#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/value.h"
#include "support/private_bus.h"
#include "support/support.h"

namespace fs = std::filesystem;
using orvia::test::ProgramRun;
using orvia::test::TempDir;

namespace {

const char* kFriends = "com.brenvik.velmora.folderFavFriendIdentifier";
const char* kAlbums = "com.brenvik.velmora.folderAlbumsIdentifier";
const char* kTags = "com.brenvik.velmora.folderTagsIdentifier";
const char* kLocations = "com.brenvik.velmora.folderLocationsIdentifier";

fs::path library(const fs::path& home) { return home / "Library/Containers/com.brenvik.velmora/Data/Library"; }
fs::path prefs_file(const fs::path& home) { return library(home) / "Preferences/com.brenvik.velmora.plist"; }
fs::path velmora(const fs::path& home) { return library(home) / "Application Support/Velmora"; }
fs::path store_file(const fs::path& home) { return velmora(home) / "InstaGramStore.db"; }

// Runs the generator; `out` holds what it printed on either stream.
ProgramRun run_tool(std::vector<std::string> args) {
  args.insert(args.begin(), orvia::test::built_program("orvia4-sample-home").string());
  ProgramRun run = orvia::test::run_program(args);
  run.out += run.err;
  return run;
}

// Runs the generator into `home`; gives its summary line.
std::string generate(const fs::path& home, std::vector<std::string> args) {
  args.insert(args.begin(), home.string());
  args.push_back("--quiet");
  ProgramRun run = run_tool(args);
  EXPECT_EQ(run.status, 0) << run.out;
  return run.out;
}

// A count of the summary line, such as "118 sidebar entries".
long long summary_count(const std::string& summary, const std::string& what) {
  std::smatch m;
  if (!std::regex_search(summary, m, std::regex("([0-9]+) " + what))) return -1;
  return std::stoll(m[1]);
}

// A store opened read-only; immutable, it is read without touching anything next to it (no -wal is expected).
class Store {
 public:
  explicit Store(const fs::path& path, bool immutable = true) {
    std::string uri = "file:";
    for (char c : path.string()) uri += c == ' ' ? std::string("%20") : std::string(1, c);
    uri += immutable ? "?immutable=1" : "?mode=ro";
    sqlite3* raw = nullptr;
    EXPECT_EQ(sqlite3_open_v2(uri.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr), SQLITE_OK) << uri;
    db_.reset(raw);
  }
  // Every row, each column as text ("NULL" for a null value).
  std::vector<std::vector<std::string>> rows(const std::string& sql) const {
    std::vector<std::vector<std::string>> out;
    sqlite3_stmt* raw = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &raw, nullptr), SQLITE_OK) << sql << ": " << sqlite3_errmsg(db_.get());
    std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> stmt(raw, sqlite3_finalize);
    while (raw && sqlite3_step(raw) == SQLITE_ROW) {
      std::vector<std::string> row;
      for (int i = 0; i < sqlite3_column_count(raw); ++i) {
        if (sqlite3_column_type(raw, i) == SQLITE_NULL) {
          row.push_back("NULL");
          continue;
        }
        const auto* p = static_cast<const char*>(sqlite3_column_blob(raw, i));
        row.emplace_back(p ? p : "", p ? static_cast<std::size_t>(sqlite3_column_bytes(raw, i)) : 0);
      }
      out.push_back(std::move(row));
    }
    return out;
  }
  std::string text(const std::string& sql) const {
    auto r = rows(sql);
    return r.empty() || r[0].empty() ? std::string("<none>") : r[0][0];
  }
  long long count(const std::string& sql) const { return std::stoll(text(sql)); }

 private:
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> db_{nullptr, sqlite3_close_v2};
};

// A property list read by libplist.
struct PlistFree {
  void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using Plist = std::unique_ptr<void, PlistFree>;

Plist libplist_read(const std::string& bytes) {
  plist_t p = nullptr;
  plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &p);
  return Plist(p);
}

std::vector<std::string> dict_keys(plist_t dict) {
  std::vector<std::string> keys;
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(dict, &it);
  for (;;) {
    char* key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(dict, it, &key, &value);
    if (!key) break;
    keys.emplace_back(key);
    free(key);
  }
  free(it);
  return keys;
}

std::string string_of(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_STRING) return "<not a string>";
  char* s = nullptr;
  plist_get_string_val(node, &s);
  std::string out(s ? s : "");
  free(s);
  return out;
}

std::string data_of(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_DATA) return {};
  char* d = nullptr;
  uint64_t len = 0;
  plist_get_data_val(node, &d, &len);
  std::string out(d, static_cast<std::size_t>(len));
  free(d);
  return out;
}

const std::vector<std::string> kPreferenceKeys = {
    "FinishedStartScreen410x", "OutlineFolderModels", "kUserBlacklistKey", "UserAccountsT", "UserAccountsI",
    "UserAccountsE", "WZAlbumsOrderIndex", "WZFavoriteFriendsOrderIndex", "FavoriteSidebarTags",
    "FavoriteSidebarLocations", "IGFavouriteTags", "IGFavouriteLocations"};

struct Expected {
  const char* name;
  std::vector<std::string> args;
  long long accounts, albums, media, friends, statistics;
};

const Expected kDemo{"demo", {"--profile", "demo"}, 2, 10, 50, 24, 2};
const Expected kSmallTypical{"small typical", {"--profile", "typical", "--scale", "small"}, 3, 5, 250, 45, 2};

}  // namespace

TEST(SampleHomeProgram, AnswersUsageErrorsWithExitCodeTwo) {
  TempDir dir;
  struct Case {
    std::vector<std::string> args;
    int code;
    const char* output_has;
  };
  const std::string home = (dir / "home").string();
  const Case cases[] = {
      {{"--help"}, 0, "--images-layout"},
      {{}, 2, "DIR"},
      {{home, "--profile", "huge"}, 2, "huge"},
      {{home, "--images-layout", "tree"}, 2, "tree"},
      {{home, "--scale", "0"}, 2, "--scale"},
      {{home, "--scale", "lots"}, 2, "--scale"},
      {{home, "--seed", "-x"}, 2, ""},
      {{home, "--bogus"}, 2, "bogus"},
      {{home, "extra", "args"}, 2, ""},
  };
  for (const Case& c : cases) {
    ProgramRun run = run_tool(c.args);
    EXPECT_EQ(run.status, c.code) << run.out;
    EXPECT_NE(run.out.find(c.output_has), std::string::npos) << run.out;
  }
  EXPECT_FALSE(fs::exists(dir / "home")) << "a usage error wrote files";

  // A second run into the same home refuses, unless told to replace the earlier files.
  generate(dir / "home", {});
  auto before = orvia::test::snapshot_tree(dir / "home");
  ProgramRun refused = run_tool({home, "--seed", "2", "--quiet"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.out.find("--force"), std::string::npos) << refused.out;
  EXPECT_EQ(orvia::test::snapshot_tree(dir / "home"), before);
  const std::string replaced = generate(dir / "home", {"--seed", "2", "--force"});
  EXPECT_NE(orvia::test::snapshot_tree(dir / "home"), before);
  EXPECT_NE(replaced.find("2 accounts, 10 albums, 50 media"), std::string::npos) << replaced;
}

TEST(SampleHome, WritesEveryPreferenceKeyAndACoreDataStore) {
  for (const Expected& e : {kDemo, kSmallTypical}) {
    SCOPED_TRACE(e.name);
    TempDir home;
    generate(home.path(), e.args);

    // Preferences, through libplist.
    Plist prefs = libplist_read(orvia::test::read_file(prefs_file(home.path())));
    ASSERT_TRUE(prefs && plist_get_node_type(prefs.get()) == PLIST_DICT);
    for (const auto& key : kPreferenceKeys) EXPECT_TRUE(plist_dict_get_item(prefs.get(), key.c_str())) << key;
    plist_t tokens = plist_dict_get_item(prefs.get(), "UserAccountsT");
    std::vector<std::string> uids = dict_keys(tokens);
    ASSERT_EQ(static_cast<long long>(uids.size()), e.accounts);
    for (const char* key : {"UserAccountsI", "UserAccountsE", "FavoriteSidebarTags", "FavoriteSidebarLocations"}) {
      plist_t d = plist_dict_get_item(prefs.get(), key);
      for (const auto& uid : uids) EXPECT_TRUE(plist_dict_get_item(d, uid.c_str())) << key << " " << uid;
    }
    EXPECT_EQ(plist_get_node_type(plist_dict_get_item(plist_dict_get_item(prefs.get(), "UserAccountsE"), uids[0].c_str())),
              PLIST_DATE);
    plist_t models = plist_dict_get_item(prefs.get(), "OutlineFolderModels");
    for (const auto& uid : uids) EXPECT_EQ(data_of(plist_dict_get_item(models, uid.c_str())).substr(0, 8), "bplist00");
    EXPECT_EQ(data_of(plist_dict_get_item(models, "*--*albums*--*")).substr(0, 8), "bplist00");

    // The store, read-only.
    EXPECT_FALSE(fs::exists(store_file(home.path()).string() + "-wal"));
    EXPECT_FALSE(fs::exists(store_file(home.path()).string() + "-shm"));
    std::string header = orvia::test::read_file(store_file(home.path())).substr(0, 100);
    EXPECT_EQ(header[18], 2) << "WAL mode";
    EXPECT_EQ(header[19], 2);
    Store db(store_file(home.path()));
    EXPECT_EQ(db.count("PRAGMA page_size"), 4096);
    EXPECT_EQ(db.count("PRAGMA auto_vacuum"), 2);
    EXPECT_EQ(db.rows("SELECT Z_ENT, Z_NAME, Z_SUPER FROM Z_PRIMARYKEY ORDER BY Z_ENT"),
              (std::vector<std::vector<std::string>>{{"1", "Account", "0"},
                                                     {"2", "Friend", "0"},
                                                     {"3", "ImageItem", "0"},
                                                     {"4", "VideoItem", "3"},
                                                     {"5", "ImageList", "0"},
                                                     {"6", "SmartImageList", "5"}}));
    // Roots count their keys; sub-entities use their root's counter.
    for (const auto& [ent, table] : std::map<int, std::string>{{1, "ZACCOUNT"}, {2, "ZFRIEND"}, {3, "ZIMAGEITEM"}, {5, "ZIMAGELIST"}})
      EXPECT_EQ(db.count("SELECT Z_MAX FROM Z_PRIMARYKEY WHERE Z_ENT = " + std::to_string(ent)),
                db.count("SELECT max(Z_PK) FROM " + table));
    EXPECT_EQ(db.count("SELECT count(*) FROM Z_PRIMARYKEY WHERE Z_SUPER != 0 AND Z_MAX != 0"), 0);
    EXPECT_EQ(db.count("SELECT count(*) FROM ZACCOUNT"), e.accounts);
    EXPECT_EQ(db.count("SELECT count(*) FROM ZIMAGELIST"), e.albums);
    EXPECT_EQ(db.count("SELECT count(*) FROM ZIMAGEITEM"), e.media);
    EXPECT_EQ(db.count("SELECT count(*) FROM ZFRIEND"), e.friends);
    EXPECT_GT(db.count("SELECT count(*) FROM ZIMAGEITEM WHERE Z_ENT = 4"), 0) << "some VideoItem rows";
    EXPECT_GT(db.count("SELECT count(*) FROM ZIMAGELIST WHERE Z_ENT = 6"), 0) << "some SmartImageList rows";
    EXPECT_EQ(db.count("SELECT count(*) FROM ZIMAGEITEM WHERE Z_ENT NOT IN (3, 4) OR Z_OPT != 1"), 0);
    EXPECT_EQ(db.count("SELECT count(*) FROM ZFRIEND WHERE ZACCOUNT NOT IN (SELECT Z_PK FROM ZACCOUNT)"), 0);
    for (const char* index : {"ZFRIEND_ZACCOUNT_INDEX", "ZIMAGEITEM_ZLIST_INDEX", "ZIMAGEITEM_Z_ENT_INDEX",
                              "ZIMAGELIST_Z_ENT_INDEX", "ZIMAGEITEM_ZFRIEND_INDEX"})
      EXPECT_EQ(db.count(std::string("SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name = '") + index + "'"), 1)
          << index;
    // Accounts are the ones the preferences know.
    std::set<std::string> store_uids;
    for (const auto& r : db.rows("SELECT ZUID FROM ZACCOUNT")) store_uids.insert(r[0]);
    EXPECT_EQ(store_uids, std::set<std::string>(uids.begin(), uids.end()));

    auto meta = db.rows("SELECT Z_VERSION, Z_UUID, Z_PLIST FROM Z_METADATA");
    ASSERT_EQ(meta.size(), 1u);
    EXPECT_EQ(meta[0][0], "1");
    EXPECT_TRUE(std::regex_match(meta[0][1], std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
        << meta[0][1];
    Plist md = libplist_read(meta[0][2]);
    ASSERT_TRUE(md && plist_get_node_type(md.get()) == PLIST_DICT);
    EXPECT_EQ(string_of(plist_dict_get_item(md.get(), "NSStoreType")), "SQLite");
    EXPECT_EQ(string_of(plist_dict_get_item(md.get(), "_NSAutoVacuumLevel")), "2");
    EXPECT_FALSE(plist_dict_get_item(md.get(), "NSStoreUUID"));
    EXPECT_EQ(plist_dict_get_size(plist_dict_get_item(md.get(), "NSStoreModelVersionHashes")), 6u);

    // Statistics databases beside the store.
    long long stats = 0;
    for (const auto& uid : uids) stats += fs::exists(velmora(home.path()) / (uid + ".db"));
    EXPECT_EQ(stats, e.statistics);
  }
}

TEST(SampleHome, PreferencesReadWithPythonPlistlib) {
  if (orvia::test::run_program({"python3", "-c", "import plistlib"}).status != 0) GTEST_SKIP() << "no python3";
  TempDir home;
  generate(home.path(), kDemo.args);
  const char* script =
      "import plistlib, sys\n"
      "d = plistlib.load(open(sys.argv[1], 'rb'))\n"
      "uids = sorted(d['UserAccountsT'])\n"
      "print('models', all(isinstance(v, bytes) and v.startswith(b'bplist00') for v in d['OutlineFolderModels'].values()),"
      " sorted(d['OutlineFolderModels']) == sorted(uids + ['*--*albums*--*']))\n"
      "tags = [t['tag'] for u in uids for t in d['FavoriteSidebarTags'][u]]\n"
      "locs = [l for u in uids for l in d['FavoriteSidebarLocations'][u]]\n"
      "print('entries', len(tags), len(locs), all(set(l) == {'id', 'latitude', 'longitude', 'name'} for l in locs))\n"
      "print('nonascii', any(ord(c) > 127 for t in tags for c in t), any(ord(c) > 127 for l in locs for c in l['name']))\n"
      "print('orders', d['WZAlbumsOrderIndex'], d['WZFavoriteFriendsOrderIndex'], d['FinishedStartScreen410x'])\n"
      "print('plain', all(isinstance(t, str) for t in d['IGFavouriteTags']), all(isinstance(l, dict) for l in d['IGFavouriteLocations']))\n";
  const ProgramRun python = orvia::test::run_program({"python3", "-c", script, prefs_file(home.path()).string()});
  ASSERT_EQ(python.status, 0) << python.err;
  const std::string& out = python.out;
  EXPECT_NE(out.find("models True True"), std::string::npos) << out;
  EXPECT_NE(out.find("entries 24 24 True"), std::string::npos) << out;
  EXPECT_NE(out.find("nonascii True True"), std::string::npos) << out;
  EXPECT_NE(out.find("orders 0 0 True"), std::string::npos) << out;
  EXPECT_NE(out.find("plain True True"), std::string::npos) << out;
}

namespace {

struct Leaf {
  std::string title, identifier, type;
};

struct TreeFacts {
  std::vector<Leaf> leaves;
  std::size_t items = 0;
  std::int64_t deepest = 0;
};

std::string text_field(const orvia::GenericRecord& r, const char* key) {
  return std::string(orvia::text_of(r.get(key)));
}

// Decodes one stored sidebar tree and checks its shape: class, keys, parent links, levels, types.
TreeFacts check_tree(const std::string& bytes, bool shared) {
  TreeFacts facts;
  orvia::ClassRegistry nothing_registered;
  auto decoded = orvia::unarchive(bytes, nothing_registered);
  EXPECT_TRUE(decoded.ok()) << (decoded.ok() ? "" : decoded.error().message);
  if (!decoded.ok()) return facts;
  auto* root = orvia::as<orvia::GenericRecord>(decoded.value());
  EXPECT_TRUE(root);
  if (!root) return facts;
  EXPECT_EQ(root->get("parent"), nullptr);
  if (shared) {
    EXPECT_EQ(text_field(*root, "identifier"), kAlbums);
    EXPECT_EQ(text_field(*root, "type"), kAlbums);
  } else {
    EXPECT_EQ(text_field(*root, "identifier"), "root");
    EXPECT_EQ(text_field(*root, "title"), "Root");
    EXPECT_EQ(root->get("type"), nullptr);
  }
  const std::vector<std::string> keys = {"title", "identifier", "parent", "children", "type", "folder", "expanded", "level"};
  std::set<std::string> identifiers;
  std::vector<const orvia::GenericRecord*> stack{root};
  while (!stack.empty()) {
    const orvia::GenericRecord* item = stack.back();
    stack.pop_back();
    ++facts.items;
    std::vector<std::string> seen;
    for (const auto& f : item->fields()) seen.push_back(f.key);
    EXPECT_EQ(seen, keys);
    EXPECT_EQ(std::vector<std::string_view>(item->class_chain().begin(), item->class_chain().end()),
              (std::vector<std::string_view>{"OutlineFolderItem", "NSObject"}));
    const std::string identifier = text_field(*item, "identifier");
    EXPECT_TRUE(identifiers.insert(identifier).second) << "identifier twice: " << identifier;
    auto* children = orvia::as_array(item->get("children"));
    EXPECT_TRUE(children && children->is_mutable());
    const bool folder = orvia::as_number(item->get("folder"))->bool_value();
    const std::int64_t level = orvia::as_number(item->get("level"))->int_value();
    facts.deepest = std::max(facts.deepest, level);
    if (!folder) {
      EXPECT_TRUE(children->empty());
      facts.leaves.push_back({text_field(*item, "title"), identifier, text_field(*item, "type")});
    }
    for (const auto& child : children->items()) {
      auto* c = orvia::as<orvia::GenericRecord>(child);
      EXPECT_TRUE(c);
      if (!c) continue;
      EXPECT_EQ(c->get("parent"), item) << "the parent link is the folder itself";
      // A base folder is of level 0 and of its own type; anything else is one level below its folder, of its type.
      const bool base = item == root && !shared;
      EXPECT_EQ(orvia::as_number(c->get("level"))->int_value(), base ? 0 : level + 1) << text_field(*c, "identifier");
      EXPECT_EQ(text_field(*c, "type"), text_field(base ? *c : *item, base ? "identifier" : "type"));
      stack.push_back(c);
    }
  }
  return facts;
}

}  // namespace

TEST(SampleHome, SidebarTreesDecodeAndNameWhatTheStoreAndPreferencesHold) {
  TempDir home;
  const std::string summary = generate(home.path(), kSmallTypical.args);
  Plist prefs = libplist_read(orvia::test::read_file(prefs_file(home.path())));
  ASSERT_TRUE(prefs);
  Store db(store_file(home.path()));
  const std::string uuid = db.text("SELECT Z_UUID FROM Z_METADATA");
  std::map<std::string, std::string> entity_of;  // Z_ENT -> name
  for (const auto& r : db.rows("SELECT Z_ENT, Z_NAME FROM Z_PRIMARYKEY")) entity_of[r[0]] = r[1];
  std::set<std::string> album_uris;
  for (const auto& r : db.rows("SELECT Z_PK, Z_ENT FROM ZIMAGELIST"))
    album_uris.insert("x-coredata://" + uuid + "/" + entity_of[r[1]] + "/p" + r[0]);
  EXPECT_TRUE(std::any_of(album_uris.begin(), album_uris.end(), [](const std::string& u) { return u.find("/SmartImageList/p") != std::string::npos; }));

  plist_t models = plist_dict_get_item(prefs.get(), "OutlineFolderModels");
  std::vector<std::string> uids = dict_keys(plist_dict_get_item(prefs.get(), "UserAccountsT"));
  std::size_t total_items = 0;
  for (const std::string& user : dict_keys(models)) {
    SCOPED_TRACE(user);
    const bool shared = user == "*--*albums*--*";
    TreeFacts tree = check_tree(data_of(plist_dict_get_item(models, user.c_str())), shared);
    total_items += tree.items;
    if (std::find(uids.begin(), uids.end(), user) == uids.end() && !shared) continue;  // a removed account's tree

    std::set<std::string> own_friends, tags, locations;
    if (!shared) {
      std::string pk = db.text("SELECT Z_PK FROM ZACCOUNT WHERE ZUID = '" + user + "'");
      for (const auto& r : db.rows("SELECT Z_PK FROM ZFRIEND WHERE ZACCOUNT = " + pk))
        own_friends.insert("x-coredata://" + uuid + "/Friend/p" + r[0]);
      plist_t list = plist_dict_get_item(plist_dict_get_item(prefs.get(), "FavoriteSidebarTags"), user.c_str());
      for (uint32_t i = 0; i < plist_array_get_size(list); ++i)
        tags.insert(string_of(plist_dict_get_item(plist_array_get_item(list, i), "tag")));
      list = plist_dict_get_item(plist_dict_get_item(prefs.get(), "FavoriteSidebarLocations"), user.c_str());
      for (uint32_t i = 0; i < plist_array_get_size(list); ++i)
        locations.insert(string_of(plist_dict_get_item(plist_array_get_item(list, i), "id")));
    }
    std::map<std::string, int> filed, unknown;
    for (const Leaf& leaf : tree.leaves) {
      const std::string& id = leaf.identifier;
      bool known = false;
      if (leaf.type == kAlbums) {
        ASSERT_EQ(id.rfind("ff-x-coredata://" + uuid + "/", 0), 0u) << id;
        known = album_uris.count(id.substr(3)) != 0;
      } else if (leaf.type == kFriends) {
        ASSERT_EQ(id.rfind("fa-x-coredata://" + uuid + "/Friend/p", 0), 0u) << id;
        known = own_friends.count(id.substr(3)) != 0;
      } else if (leaf.type == kTags) {
        ASSERT_EQ(id.rfind("favtag-", 0), 0u) << id;
        known = tags.count(id.substr(7)) != 0;
        EXPECT_EQ(leaf.title, id.substr(7));
      } else if (leaf.type == kLocations) {
        ASSERT_EQ(id.rfind("location-", 0), 0u) << id;
        known = locations.count(id.substr(9)) != 0;
      } else {
        ADD_FAILURE() << "entry of no category: " << id;
      }
      ++(known ? filed : unknown)[leaf.type];
    }
    if (shared) {
      // Most albums are filed, not all; a deleted album is still named.
      EXPECT_GT(filed[kAlbums], 0);
      EXPECT_LT(filed[kAlbums], static_cast<int>(album_uris.size()));
      EXPECT_GE(unknown[kAlbums], 1);
      EXPECT_LE(unknown[kAlbums], 2);
    } else {
      EXPECT_GT(tree.deepest, 1);
      EXPECT_EQ(unknown[kFriends], 1) << "one favourite that the account no longer has";
      EXPECT_EQ(unknown[kTags], 0);
      EXPECT_EQ(unknown[kLocations], 0);
      EXPECT_EQ(unknown[kAlbums], 0);
      EXPECT_GT(filed[kFriends], 0);
      EXPECT_LT(filed[kFriends], static_cast<int>(own_friends.size())) << "some friends stay unfiled";
      EXPECT_GT(filed[kTags], 0);
      EXPECT_LT(filed[kTags], static_cast<int>(tags.size()));
      EXPECT_GT(filed[kLocations], 0);
      EXPECT_LT(filed[kLocations], static_cast<int>(locations.size()));
    }
  }
  EXPECT_EQ(static_cast<long long>(total_items), summary_count(summary, "sidebar entries")) << summary;
}

TEST(SampleHome, MediaRecordsAreArchivedDictionariesInTheOlderForm) {
  TempDir home;
  generate(home.path(), kSmallTypical.args);
  Store db(store_file(home.path()));
  int without_caption = 0, null_caption = 0, without_likes = 0, slash_links = 0, videos = 0;
  const std::regex id_form("[0-9]+_[0-9]+");
  for (const auto& row : db.rows("SELECT Z_PK, Z_ENT, ZMEDIAID, ZVIDEOURL, ZDICTIONARY FROM ZIMAGEITEM")) {
    SCOPED_TRACE(row[0]);
    auto decoded = orvia::unarchive(row[4]);
    ASSERT_TRUE(decoded.ok()) << decoded.error().message;
    auto* d = orvia::as_dict(decoded.value().get());
    ASSERT_TRUE(d);
    EXPECT_EQ(orvia::text_of(d->get("id")), row[2]);
    EXPECT_TRUE(std::regex_match(row[2], id_form)) << row[2];
    std::string link(orvia::text_of(d->get("link")));
    EXPECT_EQ(link.rfind("https://photos.example/p/", 0), 0u) << link;
    slash_links += link.back() == '/';
    auto* images = orvia::as_dict(d->get("images"));
    ASSERT_TRUE(images);
    for (const char* size : {"standard_resolution", "low_resolution", "thumbnail"}) {
      auto* image = orvia::as_dict(images->get(size));
      ASSERT_TRUE(image) << size;
      EXPECT_FALSE(orvia::text_of(image->get("url")).empty());
      EXPECT_TRUE(orvia::as_number(image->get("width")));
    }
    auto* user = orvia::as_dict(d->get("user"));
    ASSERT_TRUE(user);
    for (const char* key : {"id", "username", "full_name", "profile_picture"}) EXPECT_TRUE(orvia::as_string(user->get(key))) << key;
    const bool video = row[1] == "4";
    videos += video;
    EXPECT_EQ(d->get("videos") != nullptr, video);
    EXPECT_EQ(orvia::text_of(d->get("type")), video ? "video" : "image");
    EXPECT_EQ(row[3] != "NULL", video);
    if (!d->get("caption")) {
      ++without_caption;
    } else if (orvia::is_null(d->get("caption"))) {
      ++null_caption;
    } else {
      auto* caption = orvia::as_dict(d->get("caption"));
      ASSERT_TRUE(caption);
      EXPECT_TRUE(std::regex_match(std::string(orvia::text_of(caption->get("created_time"))), std::regex("[0-9]{10}")));
      EXPECT_TRUE(orvia::as_dict(caption->get("from")));
    }
    if (!d->get("likes")) {
      ++without_likes;
      EXPECT_FALSE(d->get("comments"));
    } else {
      EXPECT_TRUE(orvia::as_number(orvia::as_dict(d->get("likes"))->get("count")));
    }
    auto* location = d->get("location");
    EXPECT_TRUE(!location || orvia::is_null(location) || orvia::as_dict(location));
  }
  EXPECT_GE(without_caption, 1);
  EXPECT_GE(null_caption, 1);
  EXPECT_GE(without_likes, 1);
  EXPECT_GE(slash_links, 1);
  EXPECT_GE(videos, 1);
  EXPECT_LT(slash_links + without_caption + null_caption + without_likes, 125) << "the rarer forms stay rare";
}

TEST(SampleHome, SameSeedGivesTheSameBytes) {
  for (const std::vector<std::string>& args :
       {kDemo.args, std::vector<std::string>{"--profile", "typical", "--scale", "small", "--images-layout", "join"}}) {
    TempDir a, b, c;
    std::vector<std::string> seeded = args;
    seeded.insert(seeded.end(), {"--seed", "7"});
    generate(a.path(), seeded);
    generate(b.path(), seeded);
    seeded.back() = "8";
    generate(c.path(), seeded);
    auto first = orvia::test::snapshot_tree(a.path()), other = orvia::test::snapshot_tree(c.path());
    EXPECT_EQ(first, orvia::test::snapshot_tree(b.path()));
    const std::string prefs = fs::relative(prefs_file(a.path()), a.path()).string();
    const std::string store = fs::relative(store_file(a.path()), a.path()).string();
    ASSERT_TRUE(first.count(prefs) && first.count(store));
    EXPECT_NE(first[prefs], other[prefs]);
    EXPECT_NE(first[store], other[store]);
  }
}

namespace {

// Album -> its media keys in the album's order, as each layout stores the relationship.
std::map<std::string, std::vector<std::string>> album_members(const Store& db, const std::string& layout) {
  std::map<std::string, std::vector<std::string>> members;
  std::string sql = layout == "join"      ? "SELECT Z_5LISTS, Z_3IMAGES FROM Z_5IMAGES ORDER BY Z_5LISTS, Z_3IMAGES"
                    : layout == "ordered" ? "SELECT ZLIST, Z_PK FROM ZIMAGEITEM ORDER BY ZLIST, Z_FOK_LIST"
                                          : "SELECT ZLIST, Z_PK FROM ZIMAGEITEM ORDER BY ZLIST, Z_PK";
  for (const auto& r : db.rows(sql)) members[r[0]].push_back(r[1]);
  return members;
}

std::map<std::string, std::set<std::string>> as_sets(const std::map<std::string, std::vector<std::string>>& m) {
  std::map<std::string, std::set<std::string>> out;
  for (const auto& [k, v] : m) out[k] = std::set<std::string>(v.begin(), v.end());
  return out;
}

}  // namespace

TEST(SampleHome, ImageLayoutsHoldTheSameAlbums) {
  std::map<std::string, std::map<std::string, std::set<std::string>>> by_layout;
  for (const std::string layout : {"fk", "ordered", "join"}) {
    SCOPED_TRACE(layout);
    TempDir home;
    generate(home.path(), {"--profile", "typical", "--scale", "small", "--seed", "3", "--images-layout", layout});
    Store db(store_file(home.path()));
    std::set<std::string> names;
    for (const auto& c : db.rows("SELECT name FROM pragma_table_info('ZIMAGEITEM')")) names.insert(c[0]);
    EXPECT_EQ(names.count("ZLIST"), layout == "join" ? 0u : 1u);
    EXPECT_EQ(names.count("Z5_LIST"), layout == "join" ? 0u : 1u);
    EXPECT_EQ(names.count("Z_FOK_LIST"), layout == "ordered" ? 1u : 0u);
    EXPECT_EQ(db.count("SELECT count(*) FROM sqlite_master WHERE name IN ('Z_5IMAGES', 'Z_5IMAGES_Z_3IMAGES_INDEX')"),
              layout == "join" ? 2 : 0);
    if (layout != "join") {
      // The entity column of the to-one names each album's own entity.
      EXPECT_EQ(db.count("SELECT count(*) FROM ZIMAGEITEM i JOIN ZIMAGELIST l ON l.Z_PK = i.ZLIST WHERE i.Z5_LIST != l.Z_ENT"), 0);
      EXPECT_EQ(db.count("SELECT count(*) FROM ZIMAGEITEM WHERE ZLIST IS NULL"), 0);
    }
    auto members = album_members(db, layout);
    if (layout == "ordered") {
      // Positions inside every album are 2048, 3072, ... without gaps or repeats.
      for (const auto& [album, items] : members) {
        auto foks = db.rows("SELECT Z_FOK_LIST FROM ZIMAGEITEM WHERE ZLIST = " + album + " ORDER BY Z_FOK_LIST");
        for (std::size_t i = 0; i < foks.size(); ++i) EXPECT_EQ(foks[i][0], std::to_string((i + 2) * 1024));
      }
    }
    long long listed = 0;
    for (const auto& [album, items] : members) listed += static_cast<long long>(items.size());
    EXPECT_EQ(listed, db.count("SELECT count(*) FROM ZIMAGEITEM"));
    EXPECT_EQ(listed, 250);
    EXPECT_LE(members.size(), 5u);
    by_layout[layout] = as_sets(members);
  }
  EXPECT_EQ(by_layout["fk"], by_layout["ordered"]);
  EXPECT_EQ(by_layout["fk"], by_layout["join"]);
}

TEST(SampleHome, KeepWalLeavesTheRowsInTheWal) {
  TempDir home;
  generate(home.path(), {"--profile", "typical", "--scale", "small", "--keep-wal"});
  const fs::path store = store_file(home.path());
  ASSERT_TRUE(fs::exists(store.string() + "-wal"));
  EXPECT_FALSE(fs::exists(store.string() + "-shm"));
  {
    Store main_only(store);  // immutable: the -wal is not read
    EXPECT_EQ(main_only.count("SELECT count(*) FROM ZIMAGEITEM"), 0);
    EXPECT_EQ(main_only.count("SELECT count(*) FROM Z_PRIMARYKEY WHERE Z_MAX != 0"), 0);
    EXPECT_EQ(main_only.count("SELECT count(*) FROM Z_METADATA"), 1);
  }
  TempDir copy;
  fs::copy_file(store, copy / "InstaGramStore.db");
  fs::copy_file(store.string() + "-wal", copy / "InstaGramStore.db-wal");
  Store with_wal(copy / "InstaGramStore.db", false);
  EXPECT_EQ(with_wal.count("SELECT count(*) FROM ZIMAGEITEM"), 250);
  EXPECT_EQ(with_wal.count("SELECT Z_MAX FROM Z_PRIMARYKEY WHERE Z_ENT = 3"), 250);
}
