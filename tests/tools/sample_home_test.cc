// The sample legacy-installation generator, checked from the outside: the program is run, and what it
// wrote is read with SQLite, libplist, Python's plistlib and our own unarchiver.
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sqlite3.h>

#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <tuple>
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

const std::string kFriends = "com.brenvik.velmora.folderFavFriendIdentifier";
const std::string kAlbums = "com.brenvik.velmora.folderAlbumsIdentifier";
const std::string kTags = "com.brenvik.velmora.folderTagsIdentifier";
const std::string kLocations = "com.brenvik.velmora.folderLocationsIdentifier";
const std::string kSharedUser = "*--*albums*--*";

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

// A store opened read-only; immutable, it is read without touching anything next to it (no -wal is expected).
class Store {
 public:
  explicit Store(const fs::path& path, bool immutable = true) {
    std::string uri = "file:" + std::regex_replace(path.string(), std::regex(" "), "%20");
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
      out.emplace_back();
      for (int i = 0; i < sqlite3_column_count(raw); ++i) {
        const auto* p = static_cast<const char*>(sqlite3_column_blob(raw, i));
        const bool null = sqlite3_column_type(raw, i) == SQLITE_NULL;
        out.back().emplace_back(null ? "NULL" : p ? std::string(p, sqlite3_column_bytes(raw, i)) : "");
      }
    }
    return out;
  }
  // The whole result as one text: columns joined by '|', rows by '\n'.
  std::string text(const std::string& sql) const {
    std::string out;
    for (const auto& row : rows(sql)) {
      for (const auto& cell : row) out += cell + "|";
      out.back() = '\n';
    }
    if (!out.empty()) out.pop_back();
    return out;
  }
  long long count(const std::string& sql) const { return std::stoll(text(sql)); }

 private:
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> db_{nullptr, sqlite3_close_v2};
};

// A property list read by libplist.
using Plist = std::unique_ptr<void, decltype(&plist_free)>;
Plist libplist_read(const std::string& bytes) {
  plist_t p = nullptr;
  plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &p);
  return Plist(p, plist_free);
}

std::vector<std::string> dict_keys(plist_t dict) {
  std::vector<std::string> keys;
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(dict, &it);
  for (char* key = nullptr; plist_dict_next_item(dict, it, &key, nullptr), key; free(key)) keys.emplace_back(key);
  free(it);
  return keys;
}

plist_t item(plist_t node, const std::string& key) { return plist_dict_get_item(node, key.c_str()); }

std::string string_of(plist_t node) {
  const char* s = node && plist_get_node_type(node) == PLIST_STRING ? plist_get_string_ptr(node, nullptr) : nullptr;
  return s ? s : "<not a string>";
}

std::string data_of(plist_t node) {
  uint64_t len = 0;
  const char* d = node && plist_get_node_type(node) == PLIST_DATA ? plist_get_data_ptr(node, &len) : nullptr;
  return d ? std::string(d, len) : std::string();
}

const std::vector<std::string> kDemo = {"--profile", "demo"};
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

TEST(SampleHome, WritesEveryPreferenceKeyAndACoreDataStore) {
  TempDir home;
  generate(home.path(), kSmallTypical);

  // Preferences, through libplist.
  Plist prefs = libplist_read(orvia::test::read_file(prefs_file(home.path())));
  ASSERT_TRUE(prefs && plist_get_node_type(prefs.get()) == PLIST_DICT);
  for (const char* key : {"FinishedStartScreen410x", "OutlineFolderModels", "kUserBlacklistKey", "UserAccountsT",
                          "UserAccountsI", "UserAccountsE", "WZAlbumsOrderIndex", "WZFavoriteFriendsOrderIndex",
                          "FavoriteSidebarTags", "FavoriteSidebarLocations", "IGFavouriteTags", "IGFavouriteLocations"})
    EXPECT_TRUE(item(prefs.get(), key)) << key;
  std::vector<std::string> uids = dict_keys(item(prefs.get(), "UserAccountsT"));
  ASSERT_FALSE(uids.empty());
  for (const char* key : {"UserAccountsI", "UserAccountsE", "FavoriteSidebarTags", "FavoriteSidebarLocations"})
    for (const auto& uid : uids) EXPECT_TRUE(item(item(prefs.get(), key), uid)) << key << " " << uid;
  EXPECT_EQ(plist_get_node_type(item(item(prefs.get(), "UserAccountsE"), uids[0])), PLIST_DATE);

  // The store, read-only.
  EXPECT_FALSE(fs::exists(store_file(home.path()).string() + "-wal") || fs::exists(store_file(home.path()).string() + "-shm"));
  EXPECT_EQ(orvia::test::read_file(store_file(home.path())).substr(18, 2), std::string("\2\2")) << "WAL mode";
  Store db(store_file(home.path()));
  EXPECT_EQ(db.text("SELECT * FROM pragma_page_size, pragma_auto_vacuum"), "4096|2");
  EXPECT_EQ(db.text("SELECT Z_ENT, Z_NAME, Z_SUPER FROM Z_PRIMARYKEY ORDER BY Z_ENT"),
            "1|Account|0\n2|Friend|0\n3|ImageItem|0\n4|VideoItem|3\n5|ImageList|0\n6|SmartImageList|5");
  // Roots count their keys; sub-entities use their root's counter.
  EXPECT_EQ(db.text("SELECT group_concat(Z_MAX, '|') FROM (SELECT Z_MAX FROM Z_PRIMARYKEY ORDER BY Z_ENT)"),
            db.text("SELECT (SELECT max(Z_PK) FROM ZACCOUNT), (SELECT max(Z_PK) FROM ZFRIEND), (SELECT max(Z_PK) FROM "
                    "ZIMAGEITEM), 0, (SELECT max(Z_PK) FROM ZIMAGELIST), 0"));
  EXPECT_EQ(db.text("SELECT (SELECT count(*) FROM ZACCOUNT), (SELECT count(*) FROM ZIMAGELIST), "
                    "(SELECT count(*) FROM ZIMAGEITEM), (SELECT count(*) FROM ZFRIEND)"),
            "3|5|250|45");
  // Some videos and smart albums; no row of a foreign entity, no friend of a missing account; the indexes.
  EXPECT_EQ(db.text("SELECT (SELECT count(*) FROM ZIMAGEITEM WHERE Z_ENT = 4) > 0, "
                    "(SELECT count(*) FROM ZIMAGELIST WHERE Z_ENT = 6) > 0, "
                    "(SELECT count(*) FROM ZIMAGEITEM WHERE Z_ENT NOT IN (3, 4) OR Z_OPT != 1), "
                    "(SELECT count(*) FROM ZFRIEND WHERE ZACCOUNT NOT IN (SELECT Z_PK FROM ZACCOUNT)), "
                    "(SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name IN ('ZFRIEND_ZACCOUNT_INDEX', "
                    "'ZIMAGEITEM_ZLIST_INDEX', 'ZIMAGEITEM_Z_ENT_INDEX', 'ZIMAGELIST_Z_ENT_INDEX', 'ZIMAGEITEM_ZFRIEND_INDEX'))"),
            "1|1|0|0|5");
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
  EXPECT_EQ(string_of(item(md.get(), "NSStoreType")) + " " + string_of(item(md.get(), "_NSAutoVacuumLevel")), "SQLite 2");
  EXPECT_FALSE(item(md.get(), "NSStoreUUID"));
  EXPECT_EQ(plist_dict_get_size(item(md.get(), "NSStoreModelVersionHashes")), 6u);

  // Statistics databases beside the store.
  long long stats = 0;
  for (const auto& uid : uids) stats += fs::exists(velmora(home.path()) / (uid + ".db"));
  EXPECT_EQ(stats, 2);
}

TEST(SampleHome, PreferencesReadWithPythonPlistlib) {
  if (orvia::test::run_program({"python3", "-c", "import plistlib"}).status != 0) GTEST_SKIP() << "no python3";
  TempDir home;
  generate(home.path(), kDemo);
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

namespace {

struct Leaf {
  std::string title, identifier, type;
};

struct TreeFacts {
  std::vector<Leaf> leaves;
  std::size_t items = 0;
  std::int64_t deepest = 0;
};

// A field's text; "nil" when the field holds nothing.
std::string text_field(const orvia::GenericRecord& r, const char* key) {
  return r.get(key) ? std::string(orvia::text_of(r.get(key))) : "nil";
}

// Decodes one stored sidebar tree and checks its shape: class, keys, parent links, levels, types.
TreeFacts check_tree(const std::string& bytes, bool shared) {
  TreeFacts facts;
  orvia::ClassRegistry nothing_registered;
  auto decoded = orvia::unarchive(bytes, nothing_registered);
  auto* root = decoded.ok() ? orvia::as<orvia::GenericRecord>(decoded.value()) : nullptr;
  EXPECT_TRUE(root) << (decoded.ok() ? "no record" : decoded.error().message);
  if (!root) return facts;
  EXPECT_EQ(root->get("parent"), nullptr);
  EXPECT_EQ(text_field(*root, "identifier") + " " + text_field(*root, "title") + " " + text_field(*root, "type"),
            shared ? kAlbums + " " + kAlbums + " " + kAlbums : "root Root nil");
  std::set<std::string> identifiers;
  std::vector<const orvia::GenericRecord*> stack{root};
  while (!stack.empty()) {
    const orvia::GenericRecord* item = stack.back();
    stack.pop_back();
    ++facts.items;
    std::string shape;
    for (const auto& f : item->fields()) shape += f.key + " ";
    for (std::string_view c : item->class_chain()) shape += std::string(c) + " ";
    EXPECT_EQ(shape, "title identifier parent children type folder expanded level OutlineFolderItem NSObject ");
    const std::string identifier = text_field(*item, "identifier");
    EXPECT_TRUE(identifiers.insert(identifier).second) << "identifier twice: " << identifier;
    auto* children = orvia::as_array(item->get("children"));
    EXPECT_TRUE(children && children->is_mutable());
    if (!children) continue;
    const std::int64_t level = orvia::as_number(item->get("level"))->int_value();
    facts.deepest = std::max(facts.deepest, level);
    if (!orvia::as_number(item->get("folder"))->bool_value()) {
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
  const std::string summary = generate(home.path(), kSmallTypical);
  Plist prefs = libplist_read(orvia::test::read_file(prefs_file(home.path())));
  ASSERT_TRUE(prefs);
  Store db(store_file(home.path()));
  const std::string uuid = db.text("SELECT Z_UUID FROM Z_METADATA");
  std::set<std::string> album_uris;
  for (const auto& r : db.rows("SELECT l.Z_PK, p.Z_NAME FROM ZIMAGELIST l JOIN Z_PRIMARYKEY p ON p.Z_ENT = l.Z_ENT"))
    album_uris.insert("x-coredata://" + uuid + "/" + r[1] + "/p" + r[0]);
  EXPECT_TRUE(std::any_of(album_uris.begin(), album_uris.end(), [](const std::string& u) { return u.find("/SmartImageList/p") != std::string::npos; }));

  plist_t models = item(prefs.get(), "OutlineFolderModels");
  std::vector<std::string> uids = dict_keys(item(prefs.get(), "UserAccountsT"));
  std::size_t total_items = 0;
  for (const std::string& user : dict_keys(models)) {
    SCOPED_TRACE(user);
    const bool shared = user == kSharedUser;
    TreeFacts tree = check_tree(data_of(item(models, user)), shared);
    total_items += tree.items;
    if (std::find(uids.begin(), uids.end(), user) == uids.end() && !shared) continue;  // a removed account's tree

    // Per category: the identifier's prefix, the form of what follows, and what the account has.
    struct Category {
      std::string prefix, form;
      std::set<std::string> known;
    };
    std::map<std::string, Category> categories = {{kAlbums, {"ff-", "x-coredata://" + uuid + "/", album_uris}},
                                                  {kFriends, {"fa-", "x-coredata://" + uuid + "/Friend/p", {}}},
                                                  {kTags, {"favtag-", "", {}}},
                                                  {kLocations, {"location-", "", {}}}};
    if (!shared) {
      const std::string pk = db.text("SELECT Z_PK FROM ZACCOUNT WHERE ZUID = '" + user + "'");
      for (const auto& r : db.rows("SELECT Z_PK FROM ZFRIEND WHERE ZACCOUNT = " + pk))
        categories[kFriends].known.insert("x-coredata://" + uuid + "/Friend/p" + r[0]);
      const std::tuple<const char*, const char*, std::string> lists[] = {{"FavoriteSidebarTags", "tag", kTags},
                                                                         {"FavoriteSidebarLocations", "id", kLocations}};
      for (const auto& [pref, key, category] : lists) {
        plist_t list = item(item(prefs.get(), pref), user);
        for (uint32_t i = 0; i < plist_array_get_size(list); ++i)
          categories[category].known.insert(string_of(item(plist_array_get_item(list, i), key)));
      }
    }
    std::map<std::string, int> filed, unknown;
    for (const Leaf& leaf : tree.leaves) {
      auto c = categories.find(leaf.type);
      if (c == categories.end()) {
        ADD_FAILURE() << "entry of no category: " << leaf.identifier;
        continue;
      }
      EXPECT_EQ(leaf.identifier.rfind(c->second.prefix + c->second.form, 0), 0u) << leaf.identifier;
      const std::string rest = leaf.identifier.substr(c->second.prefix.size());
      ++(c->second.known.count(rest) ? filed : unknown)[leaf.type];
      EXPECT_EQ(leaf.type == kTags ? leaf.title : rest, rest) << "a tag entry is titled by its tag";
    }
    if (shared) {
      // Most albums are filed, not all; a deleted album is still named.
      EXPECT_GT(filed[kAlbums], 0);
      EXPECT_LT(filed[kAlbums], static_cast<int>(album_uris.size()));
      EXPECT_TRUE(unknown[kAlbums] == 1 || unknown[kAlbums] == 2) << unknown[kAlbums];
    } else {
      EXPECT_GT(tree.deepest, 1);
      EXPECT_EQ(unknown, (std::map<std::string, int>{{kFriends, 1}})) << "one favourite that the account no longer has";
      // Some of each are filed, and some stay unfiled.
      for (const std::string& type : {kFriends, kTags, kLocations}) {
        EXPECT_GT(filed[type], 0) << type;
        EXPECT_LT(filed[type], static_cast<int>(categories[type].known.size())) << type;
      }
    }
  }
  std::smatch m;
  ASSERT_TRUE(std::regex_search(summary, m, std::regex("([0-9]+) sidebar entries"))) << summary;
  EXPECT_EQ(std::to_string(total_items), m[1].str()) << summary;
}

TEST(SampleHome, MediaRecordsAreArchivedDictionariesInTheOlderForm) {
  TempDir home;
  generate(home.path(), kSmallTypical);
  std::map<std::string, int> forms;  // how many records take each of the rarer forms
  for (const auto& row : Store(store_file(home.path())).rows("SELECT Z_PK, Z_ENT, ZMEDIAID, ZVIDEOURL, ZDICTIONARY FROM ZIMAGEITEM")) {
    SCOPED_TRACE(row[0]);
    auto decoded = orvia::unarchive(row[4]);
    ASSERT_TRUE(decoded.ok()) << decoded.error().message;
    auto* d = orvia::as_dict(decoded.value().get());
    ASSERT_TRUE(d);
    EXPECT_EQ(orvia::text_of(d->get("id")), row[2]);
    EXPECT_TRUE(std::regex_match(row[2], std::regex("[0-9]+_[0-9]+"))) << row[2];
    const std::string link(orvia::text_of(d->get("link")));
    EXPECT_EQ(link.rfind("https://photos.example/p/", 0), 0u) << link;
    forms["link ending in /"] += link.back() == '/';
    auto* images = orvia::as_dict(d->get("images"));
    for (const char* size : {"standard_resolution", "low_resolution", "thumbnail"}) {
      auto* image = images ? orvia::as_dict(images->get(size)) : nullptr;
      EXPECT_TRUE(image && !orvia::text_of(image->get("url")).empty() && orvia::as_number(image->get("width"))) << size;
    }
    auto* user = orvia::as_dict(d->get("user"));
    for (const char* key : {"id", "username", "full_name", "profile_picture"})
      EXPECT_TRUE(user && orvia::as_string(user->get(key))) << key;
    // A video is of its entity, typed so, with its versions and its URL column.
    const bool video = row[1] == "4";
    forms["video"] += video;
    EXPECT_EQ(std::string(orvia::text_of(d->get("type"))) + (d->get("videos") ? " +videos" : "") + (row[3] != "NULL" ? " +url" : ""),
              video ? "video +videos +url" : "image");
    if (!d->get("caption")) {
      ++forms["no caption"];
    } else if (orvia::is_null(d->get("caption"))) {
      ++forms["null caption"];
    } else {
      auto* caption = orvia::as_dict(d->get("caption"));
      ASSERT_TRUE(caption);
      EXPECT_TRUE(std::regex_match(std::string(orvia::text_of(caption->get("created_time"))), std::regex("[0-9]{10}")));
      EXPECT_TRUE(orvia::as_dict(caption->get("from")));
    }
    if (!d->get("likes")) ++forms["no likes"];
    EXPECT_TRUE(d->get("likes") ? orvia::as_number(orvia::as_dict(d->get("likes"))->get("count")) != nullptr
                                : d->get("comments") == nullptr);
    auto* location = d->get("location");
    EXPECT_TRUE(!location || orvia::is_null(location) || orvia::as_dict(location));
  }
  for (const auto& [form, count] : forms) EXPECT_GE(count, 1) << form;
  EXPECT_EQ(forms.size(), 5u);
  EXPECT_LT(forms["link ending in /"] + forms["no caption"] + forms["null caption"] + forms["no likes"], 125)
      << "the rarer forms stay rare";
}

TEST(SampleHome, SameSeedGivesTheSameBytes) {
  for (std::vector<std::string> args : {kDemo, std::vector<std::string>{"--profile", "typical", "--scale", "small", "--images-layout", "join"}}) {
    TempDir a, b, c;
    args.insert(args.end(), {"--seed", "7"});
    generate(a.path(), args);
    generate(b.path(), args);
    args.back() = "8";
    generate(c.path(), args);
    auto first = orvia::test::snapshot_tree(a.path()), other = orvia::test::snapshot_tree(c.path());
    EXPECT_EQ(first, orvia::test::snapshot_tree(b.path()));
    for (const fs::path& file : {prefs_file(a.path()), store_file(a.path())}) {
      const std::string relative = fs::relative(file, a.path()).string();
      ASSERT_TRUE(first.count(relative)) << relative;
      EXPECT_NE(first[relative], other[relative]) << relative;
    }
  }
}

TEST(SampleHome, ImageLayoutsHoldTheSameAlbums) {
  struct Layout {
    const char* name;
    const char* columns;  // ZIMAGEITEM's columns of the relationship
    const char* members;  // album:media pairs
  };
  const Layout layouts[] = {
      {"fk", "ZLIST Z5_LIST", "SELECT ZLIST || ':' || Z_PK FROM ZIMAGEITEM ORDER BY 1"},
      {"ordered", "ZLIST Z5_LIST Z_FOK_LIST", "SELECT ZLIST || ':' || Z_PK FROM ZIMAGEITEM ORDER BY 1"},
      {"join", "NULL", "SELECT Z_5LISTS || ':' || Z_3IMAGES FROM Z_5IMAGES ORDER BY 1"},
  };
  std::string fk_members;
  for (const Layout& layout : layouts) {
    SCOPED_TRACE(layout.name);
    TempDir home;
    generate(home.path(), {"--profile", "typical", "--scale", "small", "--seed", "3", "--images-layout", layout.name});
    Store db(store_file(home.path()));
    const bool join = std::string(layout.name) == "join";
    EXPECT_EQ(db.text("SELECT group_concat(name, ' ') FROM pragma_table_info('ZIMAGEITEM') "
                      "WHERE name IN ('ZLIST', 'Z5_LIST', 'Z_FOK_LIST')"),
              layout.columns);
    EXPECT_EQ(db.count("SELECT count(*) FROM sqlite_master WHERE name IN ('Z_5IMAGES', 'Z_5IMAGES_Z_3IMAGES_INDEX')"), join ? 2 : 0);
    if (!join) {
      // Every item is in an album, and the entity column of the to-one names that album's own entity.
      EXPECT_EQ(db.count("SELECT count(*) FROM ZIMAGEITEM i LEFT JOIN ZIMAGELIST l ON l.Z_PK = i.ZLIST "
                         "WHERE l.Z_PK IS NULL OR i.Z5_LIST != l.Z_ENT"),
                0);
    }
    // Positions inside every album are 2048, 3072, ... without gaps or repeats.
    if (std::string(layout.name) == "ordered") {
      EXPECT_EQ(db.count("SELECT count(*) FROM (SELECT Z_FOK_LIST, row_number() OVER (PARTITION BY ZLIST ORDER BY "
                         "Z_FOK_LIST) AS n FROM ZIMAGEITEM) WHERE Z_FOK_LIST != (n + 1) * 1024"),
                0);
    }
    const std::string members = db.text(layout.members);
    EXPECT_EQ(std::count(members.begin(), members.end(), '\n') + 1, 250);
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
  EXPECT_EQ(Store(store).text(sql), "0|0|0|1");  // immutable: the -wal is not read
  fs::copy_file(store, copy / "InstaGramStore.db");
  fs::copy_file(store + "-wal", copy / "InstaGramStore.db-wal");
  EXPECT_EQ(Store(copy / "InstaGramStore.db", false).text(sql), "250|250|4|1");
}
