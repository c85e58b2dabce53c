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
#include <sstream>
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

const std::string kFriends = "com.brenvik.velmora.folderFavFriendIdentifier";
const std::string kAlbums = "com.brenvik.velmora.folderAlbumsIdentifier";
const std::string kTags = "com.brenvik.velmora.folderTagsIdentifier";
const std::string kLocations = "com.brenvik.velmora.folderLocationsIdentifier";

fs::path library(const fs::path& home) { return home / "Library/Containers/com.brenvik.velmora/Data/Library"; }
fs::path prefs_file(const fs::path& home) { return library(home) / "Preferences/com.brenvik.velmora.plist"; }
fs::path store_file(const fs::path& home) { return library(home) / "Application Support/Velmora/InstaGramStore.db"; }

// Runs the generator; `out` holds what it printed on either stream.
ProgramRun run_tool(std::vector<std::string> args) {
  args.insert(args.begin(), orvia::test::built_program("orvia4-sample-home").string());
  ProgramRun run = orvia::test::run_program(args);
  run.out += run.err;
  return run;
}

std::string generate(const fs::path& home, std::vector<std::string> args) {
  args.insert(args.begin(), home.string());
  args.push_back("--quiet");
  ProgramRun run = run_tool(args);
  EXPECT_EQ(run.status, 0) << run.out;
  return run.out;
}

// A query's result on a store opened read-only, as text: columns joined by '|', rows by '\n'.
// Immutable, the store is read without anything next to it (its -wal is not read).
std::string query(const fs::path& path, const std::string& sql, bool immutable = true) {
  std::string uri = "file:" + std::regex_replace(path.string(), std::regex(" "), "%20") + (immutable ? "?immutable=1" : "?mode=ro");
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open_v2(uri.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr), SQLITE_OK) << uri;
  std::string out;
  char* error = nullptr;
  sqlite3_exec(db, sql.c_str(), [](void* text, int n, char** values, char**) {
    auto& s = *static_cast<std::string*>(text);
    for (int i = 0; i < n; ++i) s += std::string(i ? "|" : s.empty() ? "" : "\n") + (values[i] ? values[i] : "NULL");
    return 0;
  }, &out, &error);
  EXPECT_EQ(error, nullptr) << error << "\n" << sql;
  sqlite3_free(error);
  sqlite3_close_v2(db);
  return out;
}

std::vector<std::string> split(const std::string& text, char separator = '\n') {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) out.push_back(part);
  return out;
}

std::string unhex(const std::string& hex) {
  std::string out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return out;
}

// Property lists through libplist.
using Plist = std::unique_ptr<void, decltype(&plist_free)>;
Plist libplist_read(const std::string& bytes) {
  plist_t p = nullptr;
  plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &p);
  return Plist(p, plist_free);
}

plist_t item(plist_t node, const std::string& key) { return plist_dict_get_item(node, key.c_str()); }

// A dictionary's keys, sorted, joined by ' '.
std::string keys_of(plist_t dict) {
  std::set<std::string> keys;
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(dict, &it);
  for (char* key = nullptr; plist_dict_next_item(dict, it, &key, nullptr), key; free(key)) keys.insert(key);
  free(it);
  std::string out;
  for (const auto& k : keys) out += (out.empty() ? "" : " ") + k;
  return out;
}

std::string string_of(plist_t node) {
  const char* s = node && plist_get_node_type(node) == PLIST_STRING ? plist_get_string_ptr(node, nullptr) : nullptr;
  return s ? s : "<not a string>";
}

const std::vector<std::string> kSmallTypical = {"--profile", "typical", "--scale", "small"};

}  // namespace

TEST(SampleHomeProgram, AnswersUsageErrorsWithExitCodeTwo) {
  TempDir dir;
  const std::string home = (dir / "home").string();
  const std::vector<std::pair<std::vector<std::string>, const char*>> cases = {
      {{"--help"}, "--images-layout"},      {{}, "DIR"},
      {{home, "--profile", "huge"}, "huge"}, {{home, "--images-layout", "tree"}, "tree"},
      {{home, "--scale", "0"}, "--scale"},   {{home, "--bogus"}, "bogus"},
  };
  for (const auto& [args, output_has] : cases) {
    ProgramRun run = run_tool(args);
    EXPECT_EQ(run.status, args == std::vector<std::string>{"--help"} ? 0 : 2) << run.out;
    EXPECT_NE(run.out.find(output_has), std::string::npos) << run.out;
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

namespace {

std::string text_field(const orvia::GenericRecord& r, const char* key) {
  return r.get(key) ? std::string(orvia::text_of(r.get(key))) : "nil";
}
std::int64_t int_field(const orvia::GenericRecord& r, const char* key) { return orvia::as_number(r.get(key))->int_value(); }

struct Tree {
  std::vector<const orvia::GenericRecord*> leaves;
  std::size_t items = 0;
  std::int64_t deepest = 0;
};

// Walks one decoded sidebar tree and checks its shape: class, keys, parent links, levels, types.
Tree walk(const orvia::GenericRecord* root, bool shared) {
  Tree tree;
  EXPECT_EQ(root->get("parent"), nullptr);
  EXPECT_EQ(text_field(*root, "identifier") + " " + text_field(*root, "title") + " " + text_field(*root, "type"),
            shared ? kAlbums + " " + kAlbums + " " + kAlbums : "root Root nil");
  std::set<std::string> identifiers;
  std::vector<const orvia::GenericRecord*> todo{root};
  while (!todo.empty()) {
    const orvia::GenericRecord* item = todo.back();
    todo.pop_back();
    ++tree.items;
    std::string shape;
    for (const auto& f : item->fields()) shape += f.key + " ";
    for (std::string_view c : item->class_chain()) shape += std::string(c) + " ";
    EXPECT_EQ(shape, "title identifier parent children type folder expanded level OutlineFolderItem NSObject ");
    EXPECT_TRUE(identifiers.insert(text_field(*item, "identifier")).second) << "twice: " << text_field(*item, "identifier");
    auto* children = orvia::as_array(item->get("children"));
    if (!children || !children->is_mutable()) {
      ADD_FAILURE() << "no mutable list of children";
      continue;
    }
    tree.deepest = std::max(tree.deepest, int_field(*item, "level"));
    if (!orvia::as_number(item->get("folder"))->bool_value()) {
      EXPECT_TRUE(children->empty());
      tree.leaves.push_back(item);
    }
    for (const auto& child : children->items()) {
      auto* c = orvia::as<orvia::GenericRecord>(child);
      if (!c) {
        ADD_FAILURE() << "a child that is no record";
        continue;
      }
      EXPECT_EQ(c->get("parent"), item) << "the parent link is the folder itself";
      // A base folder is of level 0 and of its own type; anything else is one level below its folder, of its type.
      const bool base = item == root && !shared;
      EXPECT_EQ(int_field(*c, "level"), base ? 0 : int_field(*item, "level") + 1) << text_field(*c, "identifier");
      EXPECT_EQ(text_field(*c, "type"), text_field(base ? *c : *item, base ? "identifier" : "type"));
      todo.push_back(c);
    }
  }
  return tree;
}

}  // namespace

// A typical installation, read as the service reads it: preferences, store, sidebar trees, media records.
TEST(SampleHome, TypicalHomeHoldsEveryPartAsTheOldClientLeftIt) {
  TempDir home;
  const std::string summary = generate(home.path(), kSmallTypical);
  const fs::path store = store_file(home.path());

  Plist prefs = libplist_read(orvia::test::read_file(prefs_file(home.path())));
  ASSERT_TRUE(prefs && plist_get_node_type(prefs.get()) == PLIST_DICT);
  EXPECT_EQ(keys_of(prefs.get()),
            "FavoriteSidebarLocations FavoriteSidebarTags FinishedStartScreen410x IGFavouriteLocations IGFavouriteTags "
            "IGLastSelectedAccount NSWindow Frame MainWindow OutlineFolderModels SUHasLaunchedBefore UserAccountsE "
            "UserAccountsI UserAccountsT WZAlbumsOrderIndex WZFavoriteFriendsOrderIndex kUserBlacklistKey");
  const std::string uids = keys_of(item(prefs.get(), "UserAccountsT"));
  for (const char* key : {"UserAccountsI", "UserAccountsE", "FavoriteSidebarTags", "FavoriteSidebarLocations"})
    EXPECT_EQ(keys_of(item(prefs.get(), key)), uids) << key;
  EXPECT_EQ(plist_get_node_type(item(item(prefs.get(), "UserAccountsE"), uids.substr(0, uids.find(' ')))), PLIST_DATE);
  // The accounts are the ones the preferences know; statistics databases beside the store, but for one.
  EXPECT_EQ(query(store, "SELECT group_concat(ZUID, ' ') FROM (SELECT ZUID FROM ZACCOUNT ORDER BY ZUID)"), uids);
  int stats = 0;
  for (const std::string& uid : split(query(store, "SELECT ZUID FROM ZACCOUNT"))) stats += fs::exists(store.parent_path() / (uid + ".db"));
  EXPECT_EQ(stats, 2);

  // The store: in WAL mode, finished (no -wal or -shm), in Core Data's layout.
  EXPECT_FALSE(fs::exists(store.string() + "-wal") || fs::exists(store.string() + "-shm"));
  EXPECT_EQ(orvia::test::read_file(store).substr(18, 2), std::string("\2\2")) << "WAL mode";
  EXPECT_EQ(query(store, "SELECT * FROM pragma_page_size, pragma_auto_vacuum"), "4096|2");
  EXPECT_EQ(query(store, "SELECT Z_ENT, Z_NAME, Z_SUPER FROM Z_PRIMARYKEY ORDER BY Z_ENT"),
            "1|Account|0\n2|Friend|0\n3|ImageItem|0\n4|VideoItem|3\n5|ImageList|0\n6|SmartImageList|5");
  // Roots count their keys; sub-entities use their root's counter.
  EXPECT_EQ(query(store, "SELECT group_concat(Z_MAX, '|') FROM (SELECT Z_MAX FROM Z_PRIMARYKEY ORDER BY Z_ENT)"),
            query(store, "SELECT (SELECT max(Z_PK) FROM ZACCOUNT), (SELECT max(Z_PK) FROM ZFRIEND), (SELECT max(Z_PK) FROM "
                         "ZIMAGEITEM), 0, (SELECT max(Z_PK) FROM ZIMAGELIST), 0"));
  // Counts; some videos and smart albums; no row of a foreign entity, no friend of a missing account; the indexes.
  EXPECT_EQ(query(store, "SELECT (SELECT count(*) FROM ZACCOUNT), (SELECT count(*) FROM ZIMAGELIST), "
                         "(SELECT count(*) FROM ZIMAGEITEM), (SELECT count(*) FROM ZFRIEND), "
                         "(SELECT count(*) FROM ZIMAGEITEM WHERE Z_ENT = 4) > 0, (SELECT count(*) FROM ZIMAGELIST WHERE Z_ENT = 6) > 0, "
                         "(SELECT count(*) FROM ZIMAGEITEM WHERE Z_ENT NOT IN (3, 4) OR Z_OPT != 1), "
                         "(SELECT count(*) FROM ZFRIEND WHERE ZACCOUNT NOT IN (SELECT Z_PK FROM ZACCOUNT)), "
                         "(SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name IN ('ZFRIEND_ZACCOUNT_INDEX', "
                         "'ZIMAGEITEM_ZLIST_INDEX', 'ZIMAGEITEM_Z_ENT_INDEX', 'ZIMAGELIST_Z_ENT_INDEX', 'ZIMAGEITEM_ZFRIEND_INDEX'))"),
            "3|5|250|45|1|1|0|0|5");
  const std::vector<std::string> meta = split(query(store, "SELECT Z_VERSION, Z_UUID, hex(Z_PLIST) FROM Z_METADATA"));
  ASSERT_EQ(meta.size(), 1u);
  EXPECT_TRUE(std::regex_match(meta[0], std::regex("1\\|[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}\\|.*")))
      << meta[0];
  Plist md = libplist_read(unhex(meta[0].substr(meta[0].rfind('|') + 1)));
  ASSERT_TRUE(md && plist_get_node_type(md.get()) == PLIST_DICT);
  EXPECT_EQ(keys_of(md.get()) + "; " + keys_of(item(md.get(), "NSStoreModelVersionHashes")) + "; " +
                string_of(item(md.get(), "NSStoreType")) + " " + string_of(item(md.get(), "_NSAutoVacuumLevel")),
            "NSPersistenceFrameworkVersion NSStoreModelVersionHashes NSStoreModelVersionHashesVersion "
            "NSStoreModelVersionIdentifiers NSStoreType _NSAutoVacuumLevel; Account Friend ImageItem ImageList "
            "SmartImageList VideoItem; SQLite 2");

  // Sidebar trees: each decodes, and names what the store and the preferences hold.
  const std::string uuid = query(store, "SELECT Z_UUID FROM Z_METADATA"), uri = "x-coredata://" + uuid + "/";
  const std::vector<std::string> albums =
      split(query(store, "SELECT '" + uri + "' || p.Z_NAME || '/p' || l.Z_PK FROM ZIMAGELIST l JOIN Z_PRIMARYKEY p ON p.Z_ENT = l.Z_ENT"));
  EXPECT_NE(query(store, "SELECT count(*) FROM ZIMAGELIST WHERE Z_ENT = 6"), "0");

  plist_t models = item(prefs.get(), "OutlineFolderModels");
  std::size_t total_items = 0;
  for (const std::string& user : split(keys_of(models), ' ')) {
    SCOPED_TRACE(user);
    const bool shared = user == "*--*albums*--*";
    uint64_t size = 0;
    const char* bytes = plist_get_data_ptr(item(models, user), &size);
    orvia::ClassRegistry nothing_registered;
    auto decoded = orvia::unarchive(std::string(bytes ? bytes : "", size), nothing_registered);
    auto* root = decoded.ok() ? orvia::as<orvia::GenericRecord>(decoded.value()) : nullptr;
    ASSERT_TRUE(root) << (decoded.ok() ? "no record" : decoded.error().message);
    Tree tree = walk(root, shared);
    total_items += tree.items;
    if (uids.find(user) == std::string::npos && !shared) continue;  // a removed account's tree

    // Per category: the identifier's prefix and what the account has (friends and albums as object URIs).
    std::map<std::string, std::pair<std::string, std::set<std::string>>> known = {
        {kAlbums, {"ff-", {albums.begin(), albums.end()}}}, {kFriends, {"fa-", {}}}, {kTags, {"favtag-", {}}}, {kLocations, {"location-", {}}}};
    if (!shared) {
      for (const std::string& pk : split(query(store, "SELECT f.Z_PK FROM ZFRIEND f JOIN ZACCOUNT a ON a.Z_PK = f.ZACCOUNT WHERE a.ZUID = '" + user + "'")))
        known[kFriends].second.insert(uri + "Friend/p" + pk);
      for (const auto& [pref, key, category] : {std::tuple{"FavoriteSidebarTags", "tag", kTags}, std::tuple{"FavoriteSidebarLocations", "id", kLocations}}) {
        plist_t list = item(item(prefs.get(), pref), user);
        for (uint32_t i = 0; i < plist_array_get_size(list); ++i) known[category].second.insert(string_of(item(plist_array_get_item(list, i), key)));
      }
    }
    std::map<std::string, int> filed, unknown;
    for (const orvia::GenericRecord* leaf : tree.leaves) {
      const std::string type = text_field(*leaf, "type"), identifier = text_field(*leaf, "identifier");
      ASSERT_TRUE(known.count(type)) << "entry of no category: " << identifier;
      const std::string& prefix = known[type].first;
      ASSERT_EQ(identifier.rfind(prefix, 0), 0u) << identifier;
      const std::string rest = identifier.substr(prefix.size());
      EXPECT_TRUE(type == kTags || type == kLocations || rest.rfind(uri, 0) == 0) << identifier;
      ++(known[type].second.count(rest) ? filed : unknown)[type];
      if (type == kTags) {
        EXPECT_EQ(text_field(*leaf, "title"), rest) << "a tag entry is titled by its tag";
      }
    }
    if (shared) {
      // Most albums are filed, not all; a deleted album is still named.
      EXPECT_GT(filed[kAlbums], 0);
      EXPECT_LT(filed[kAlbums], static_cast<int>(albums.size()));
      EXPECT_TRUE(unknown[kAlbums] == 1 || unknown[kAlbums] == 2) << unknown[kAlbums];
    } else {
      EXPECT_GT(tree.deepest, 1);
      EXPECT_EQ(unknown, (std::map<std::string, int>{{kFriends, 1}})) << "one favourite that the account no longer has";
      for (const std::string& type : {kFriends, kTags, kLocations}) {  // some of each are filed, some stay unfiled
        EXPECT_GT(filed[type], 0) << type;
        EXPECT_LT(filed[type], static_cast<int>(known[type].second.size())) << type;
      }
    }
  }
  EXPECT_NE(summary.find(" " + std::to_string(total_items) + " sidebar entries"), std::string::npos) << summary;

  // Media records: archived dictionaries in the older form; each rarer form at least once, but rare.
  std::map<std::string, int> forms;
  for (const std::string& row : split(query(store, "SELECT Z_ENT, ZMEDIAID, ZVIDEOURL IS NOT NULL, hex(ZDICTIONARY) FROM ZIMAGEITEM"))) {
    const std::vector<std::string> cells = split(row, '|');
    auto decoded = orvia::unarchive(unhex(cells[3]));
    auto* d = decoded.ok() ? orvia::as_dict(decoded.value().get()) : nullptr;
    ASSERT_TRUE(d) << cells[1];
    EXPECT_TRUE(std::regex_match(cells[1], std::regex("[0-9]+_[0-9]+")) && orvia::text_of(d->get("id")) == cells[1]) << cells[1];
    const std::string link(orvia::text_of(d->get("link")));
    EXPECT_EQ(link.rfind("https://photos.example/p/", 0), 0u) << link;
    auto* images = orvia::as_dict(d->get("images"));
    for (const char* size : {"standard_resolution", "low_resolution", "thumbnail"}) {
      auto* image = images ? orvia::as_dict(images->get(size)) : nullptr;
      EXPECT_TRUE(image && !orvia::text_of(image->get("url")).empty() && orvia::as_number(image->get("width"))) << size;
    }
    auto* user = orvia::as_dict(d->get("user"));
    for (const char* key : {"id", "username", "full_name", "profile_picture"}) EXPECT_TRUE(user && orvia::as_string(user->get(key))) << key;
    // A video is of its entity, typed so, with its versions and its URL column.
    const bool video = cells[0] == "4";
    EXPECT_EQ(std::string(orvia::text_of(d->get("type"))) + (d->get("videos") ? " +videos" : "") + (cells[2] == "1" ? " +url" : ""),
              video ? "video +videos +url" : "image");
    auto* caption = orvia::as_dict(d->get("caption"));
    EXPECT_TRUE(!d->get("caption") || orvia::is_null(d->get("caption")) ||
                (caption && orvia::as_dict(caption->get("from")) &&
                 std::regex_match(std::string(orvia::text_of(caption->get("created_time"))), std::regex("[0-9]{10}"))));
    EXPECT_TRUE(d->get("likes") ? orvia::as_number(orvia::as_dict(d->get("likes"))->get("count")) != nullptr : !d->get("comments"));
    EXPECT_TRUE(!d->get("location") || orvia::is_null(d->get("location")) || orvia::as_dict(d->get("location")));
    forms["video"] += video;
    forms["link ending in /"] += link.back() == '/';
    forms["no caption"] += !d->get("caption");
    forms["null caption"] += orvia::is_null(d->get("caption"));
    forms["no likes"] += !d->get("likes");
  }
  for (const auto& [form, count] : forms) EXPECT_GE(count, 1) << form;
  EXPECT_LT(forms["link ending in /"] + forms["no caption"] + forms["null caption"] + forms["no likes"], 125)
      << "the rarer forms stay rare";
}

TEST(SampleHome, PreferencesReadWithPythonPlistlib) {
  if (orvia::test::run_program({"python3", "-c", "import plistlib"}).status != 0) GTEST_SKIP() << "no python3";
  TempDir home;
  generate(home.path(), {"--profile", "demo"});
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
  EXPECT_EQ(python.out, "models True True\nentries 24 24 True\nnonascii True True\norders 0 0 True\nplain True True\n");
}


TEST(SampleHome, SameSeedGivesTheSameBytes) {
  for (std::vector<std::string> args : {std::vector<std::string>{"--profile", "demo"},
                                        std::vector<std::string>{"--profile", "typical", "--scale", "small", "--images-layout", "join"}}) {
    TempDir a, b, c;
    args.insert(args.end(), {"--seed", "7"});
    generate(a.path(), args);
    generate(b.path(), args);
    args.back() = "8";
    generate(c.path(), args);
    const auto first = orvia::test::snapshot_tree(a.path()), other = orvia::test::snapshot_tree(c.path());
    EXPECT_EQ(first, orvia::test::snapshot_tree(b.path()));
    for (const fs::path& file : {prefs_file(a.path()), store_file(a.path())})
      EXPECT_NE(first.at(fs::relative(file, a.path())), other.at(fs::relative(file, a.path()))) << file;
  }
}

TEST(SampleHome, ImageLayoutsHoldTheSameAlbums) {
  std::string fk_members;
  // Layout; ZIMAGEITEM's columns of the relationship; album:media pairs.
  for (const auto& [layout, columns, members_sql] : {
           std::tuple{"fk", "ZLIST Z5_LIST", "SELECT ZLIST || ':' || Z_PK FROM ZIMAGEITEM ORDER BY 1"},
           std::tuple{"ordered", "ZLIST Z5_LIST Z_FOK_LIST", "SELECT ZLIST || ':' || Z_PK FROM ZIMAGEITEM ORDER BY 1"},
           std::tuple{"join", "", "SELECT Z_5LISTS || ':' || Z_3IMAGES FROM Z_5IMAGES ORDER BY 1"}}) {
    SCOPED_TRACE(layout);
    TempDir home;
    generate(home.path(), {"--profile", "typical", "--scale", "small", "--seed", "3", "--images-layout", layout});
    const fs::path store = store_file(home.path());
    const bool join = std::string(layout) == "join";
    EXPECT_EQ(query(store, "SELECT group_concat(name, ' ') FROM pragma_table_info('ZIMAGEITEM') WHERE name IN ('ZLIST', 'Z5_LIST', 'Z_FOK_LIST')"),
              join ? "NULL" : columns);
    EXPECT_EQ(query(store, "SELECT count(*) FROM sqlite_master WHERE name IN ('Z_5IMAGES', 'Z_5IMAGES_Z_3IMAGES_INDEX')"), join ? "2" : "0");
    // Every item is in an album, and the entity column of the to-one names that album's own entity.
    if (!join) {
      EXPECT_EQ(query(store, "SELECT count(*) FROM ZIMAGEITEM i LEFT JOIN ZIMAGELIST l ON l.Z_PK = i.ZLIST "
                             "WHERE l.Z_PK IS NULL OR i.Z5_LIST != l.Z_ENT"), "0");
    }
    // Positions inside every album are 2048, 3072, ... without gaps or repeats.
    if (std::string(layout) == "ordered") {
      EXPECT_EQ(query(store, "SELECT count(*) FROM (SELECT Z_FOK_LIST, row_number() OVER (PARTITION BY ZLIST ORDER BY "
                             "Z_FOK_LIST) AS n FROM ZIMAGEITEM) WHERE Z_FOK_LIST != (n + 1) * 1024"), "0");
    }
    const std::string members = query(store, members_sql);
    EXPECT_EQ(split(members).size(), 250u);
    if (fk_members.empty()) fk_members = members;
    EXPECT_EQ(members, fk_members);
  }
}

TEST(SampleHome, KeepWalLeavesTheRowsInTheWal) {
  TempDir home, copy;
  generate(home.path(), {"--profile", "typical", "--scale", "small", "--keep-wal"});
  const std::string store = store_file(home.path()).string();
  ASSERT_TRUE(fs::exists(store + "-wal"));
  EXPECT_FALSE(fs::exists(store + "-shm"));
  const char* sql = "SELECT (SELECT count(*) FROM ZIMAGEITEM), (SELECT sum(Z_MAX) FROM Z_PRIMARYKEY WHERE Z_ENT = 3), "
                    "(SELECT count(*) FROM Z_PRIMARYKEY WHERE Z_MAX != 0), (SELECT count(*) FROM Z_METADATA)";
  EXPECT_EQ(query(store, sql), "0|0|0|1");  // immutable: the -wal is not read
  fs::copy_file(store, copy / "InstaGramStore.db");
  fs::copy_file(store + "-wal", copy / "InstaGramStore.db-wal");
  EXPECT_EQ(query(copy / "InstaGramStore.db", sql, false), "250|250|4|1");
}
