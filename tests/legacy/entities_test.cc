// Accounts, favourite friends and albums of InstaGram stores in every layout, fetched through the
// store access object in every order the old client offered.
#include "legacy/entities.h"

#include <gtest/gtest.h>

#include <chrono>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <regex>

#include "legacy/core_data_wrapper.h"
#include "legacy/user_defaults_wrapper.h"
#include "legacy_test_util.h"
#include "platform/keyed_archive.h"
#include "platform/log.h"
#include "platform/plist.h"
#include "platform/queue.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace orvia {
namespace {

using test::ImagesLayout;
using test::InstaGramOptions;
using test::InstaGramStore;
using test::snapshot_tree;
using test::store_options;
using test::TempDir;

constexpr const char* kBundle = "com.brenvik.velmora";
constexpr const char* kUUID = "6B1F3A2C-0D4E-4F5A-9B8C-7D6E5F4A3B2C";

// A home folder with the old client's preferences (binary property list) and, when written, its store.
class Home {
 public:
  Home() { fs::create_directories(store_path().parent_path()); }
  fs::path store_path() const { return MQCoreDataWrapper::storePathForHome(dir_.path().string()); }
  void write_store(const std::function<void(InstaGramStore&)>& fill, const InstaGramOptions& options = {}) {
    InstaGramStore s(store_path(), options);
    fill(s);
  }
  test::TreeSnapshot snapshot() const { return snapshot_tree(store_path().parent_path()); }
  void set_preferences(const Ref<Dictionary>& prefs) {
    auto bytes = write_binary_plist(prefs.get());
    ASSERT_TRUE(bytes.ok());
    const std::string bundle = kBundle;
    test::write_file(dir_.path() / "Library/Containers" / bundle / "Data/Library/Preferences" / (bundle + ".plist"),
                     bytes.value());
  }
  Ref<MQUserDefaultsWrapper> defaults() const {
    return MQUserDefaultsWrapper::initWithBundleID(kBundle, dir_.path().string());
  }
  // Attaches the store the way the import does and waits (serving the main queue) until it is ready.
  Ref<MQCoreDataWrapper> attach(Ref<MQUserDefaultsWrapper> defaults = nullptr) const {
    bool done = false, failed = false;
    auto wrapper = MQCoreDataWrapper::initWithStorePath(
        store_path().string(), [&] { done = true; }, defaults ? defaults : this->defaults(), [&] { failed = true; });
    for (int i = 0; i < 400 && !done && !failed; ++i) MainQueue::shared().drain(std::chrono::milliseconds(50));
    EXPECT_TRUE(done) << "the store was not attached";
    return wrapper;
  }

 private:
  TempDir dir_;
};

template <class T>
std::vector<std::int64_t> keys(const std::vector<Ref<T>>& objects) {
  std::vector<std::int64_t> out;
  for (const auto& o : objects) out.push_back(o->primaryKey());
  return out;
}

// A stored value as text that tells the kinds apart: "text", 7, @500 (a date), nil.
std::string v(const Ref<Object>& o) {
  if (as_string(o.get())) return '"' + std::string(text_of(o.get())) + '"';
  if (const Date* d = as_date(o.get())) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "@%g", d->time());
    return buf;
  }
  if (const Number* n = as_number(o.get())) return n->is_real() ? "?" : std::to_string(n->int_value());
  return o ? std::string(o->class_name()) : "nil";
}

// An object URI with the test store's UUID left out.
std::string uri(const std::string& u) {
  const std::string prefix = std::string("x-coredata://") + kUUID + "/";
  return u.rfind(prefix, 0) == 0 ? "~/" + u.substr(prefix.size()) : u;
}

std::string archived_media(std::string_view id) { return archive_root(dict({{"id", str(id)}}).get()); }

// Albums with ties of every kind: equal titles, equal counts, a missing title and a missing date.
void write_albums(InstaGramStore& s) {
  const bool subs = s.options().sub_entities;
  s.album(1, "beta", 300.0);
  s.album(2, "Alpha", 100.0);
  s.album(3, "alpha", 200.0, subs);
  s.album(4, std::nullopt, 250.0);
  s.album(5, "gamma", std::nullopt);
  s.album(6, "beta", 50.0);
  const std::vector<std::pair<std::int64_t, int>> members = {{1, 3}, {2, 3}, {3, 5}, {5, 3}, {6, 1}};
  std::int64_t pk = 100;
  for (auto [album, n] : members) {
    for (int i = 0; i < n; ++i, ++pk) {
      // Media keys run against the stored order (Z_FOK_) so that an ordered layout shows.
      // Some are also unseen media of favourite 9: a to-one column that is not the album's.
      s.item(pk, album, archived_media(std::to_string(pk) + "_1"), subs && i == 1, 100 - i,
             i == 0 ? std::optional<std::int64_t>(9) : std::nullopt);
    }
  }
  s.item(pk, std::nullopt, archived_media("loose"));  // in no album
  s.finish();
}

// An album's media as "URI=converted id" items, in the order the album yields them.
std::string media_of(const ImageList& album) {
  std::string out;
  EXPECT_TRUE(album.enumerateImages([&](const ImageItemRow& row) {
    out += std::string(out.empty() ? "" : " ") + uri(row.objectURI()) + "=" +
           std::string(text_of(row.convertedDictionary()->get("id")));
    return true;
  }));
  return out;
}

TEST(Albums, ComeInEveryOrderWithTheirValuesAndMediaInEveryLayout) {
  const std::vector<std::int64_t> by_title = {4, 2, 3, 1, 6, 5}, by_count = {3, 2, 1, 5, 6, 4},
                                  by_created = {5, 6, 2, 3, 4, 1};
  // "WZAlbumsOrderIndex" (nil: absent), read as the old client's integerValue.
  const std::vector<std::pair<Ref<Object>, const std::vector<std::int64_t>*>> orders = {
      {nullptr, &by_title},      {num(0), &by_title},      {num(1), &by_count},    {num(2), &by_created},
      {num(3), &by_title},       {num(-1), &by_title},     {str(" 1st"), &by_count}, {str("x"), &by_title},
      {boolean(true), &by_count}, {array({num(2)}), &by_title},
  };
  const std::vector<std::pair<const char*, InstaGramOptions>> layouts = {
      {"foreign key, sub-entities", store_options(ImagesLayout::ForeignKey, true)},
      {"ordered, sub-entities, model", store_options(ImagesLayout::Ordered, true, true)},
      {"join table", store_options(ImagesLayout::JoinTable)},
      {"join table, sub-entities, model", store_options(ImagesLayout::JoinTable, true, true)},
  };
  for (const auto& [name, options] : layouts) {
    SCOPED_TRACE(name);
    Home home;
    home.write_store(write_albums, options);
    const auto before = home.snapshot();
    for (const auto& [value, expected] : orders) {
      home.set_preferences(value ? dict({{"WZAlbumsOrderIndex", value}}) : dict({{"Other", num(1)}}));
      auto albums = home.attach()->currentAlbums();
      ASSERT_TRUE(albums);
      EXPECT_EQ(keys(*albums), *expected) << v(value);
    }
    auto albums = home.attach()->currentAlbums();
    ASSERT_TRUE(albums);
    const ImageList& untitled = *(*albums)[0];
    const ImageList& alpha = *(*albums)[2];  // a SmartImageList when there are sub-entities
    const std::string list = options.sub_entities ? "SmartImageList" : "ImageList";
    EXPECT_EQ(uri(untitled.objectURI()) + " " + v(untitled.title()) + " " + v(untitled.created()),
              "~/ImageList/p4 nil @250");
    EXPECT_EQ(alpha.entityName() + " " + uri(alpha.objectURI()) + " " + v(alpha.title()) + " " + v(alpha.created()),
              list + " ~/" + list + "/p3 \"alpha\" @200");
    EXPECT_EQ(alpha.valueForKey("title").get(), alpha.title().get());

    // Album 3 holds media 106..110; the second is a VideoItem when there are sub-entities. Unordered
    // layouts yield ascending keys, the ordered one its Z_FOK_ order (100, 99, ... given to 106, 107, ...).
    std::vector<std::int64_t> members = {106, 107, 108, 109, 110};
    if (options.layout == ImagesLayout::Ordered) std::reverse(members.begin(), members.end());
    std::string expected_media;
    for (std::int64_t pk : members) {
      expected_media += std::string(expected_media.empty() ? "" : " ") +
                        (pk == 107 && options.sub_entities ? "~/VideoItem/p" : "~/ImageItem/p") + std::to_string(pk) +
                        "=" + std::to_string(pk) + "_1";
    }
    EXPECT_EQ(media_of(alpha), expected_media);
    EXPECT_EQ(media_of(untitled), "");

    // A visitor may stop early; the objects API gives the same members.
    int visits = 0;
    EXPECT_TRUE(alpha.enumerateImages([&](const ImageItemRow&) { return ++visits < 2; }));
    EXPECT_EQ(visits, 2);
    auto items = alpha.images();
    ASSERT_TRUE(items);
    EXPECT_EQ(keys(*items), members);
    Ref<Dictionary> record = (*items)[0]->archivedDictionary();
    ASSERT_TRUE(record);
    EXPECT_EQ(v(record->get("id")) + " " + v((*items)[0]->convertedDictionary()->get("pk")),
              "\"" + std::to_string(members[0]) + "_1\" \"" + std::to_string(members[0]) + "\"");
    albums.reset();
    EXPECT_EQ(home.snapshot(), before);
  }
}

// Favourites with equal counts, equal names, equal dates and missing values.
void write_friends(InstaGramStore& s) {
  s.account(1, "1001", "ann");
  s.account(2, "1002", "bob");
  s.friend_({1, 1, "bob", "u1", 2, 500.0, "http://pic/1", 12});
  s.friend_({2, 1, "Ann", "u2", 5, 400.0});
  s.friend_({3, 1, "ann", "u3", 2, 100.0});
  s.friend_({4, 1, "bob", "u4", 0, 50.0});
  s.friend_({5, 1, std::nullopt, std::nullopt, std::nullopt, std::nullopt});
  s.friend_({6, 1, "carl", "u6", 2, 100.0});
  s.friend_({7, 2, "dave", "u7", 1, 10.0});
  s.friend_({8, std::nullopt, "eve", "u8", std::nullopt, 1.0});
  s.friend_({9, std::nullopt, "Zed", "u9", std::nullopt, 2.0});
  s.finish();
}

std::string values_of(const Friend& f) {
  Ref<Account> owner = f.account();
  return uri(f.objectURI()) + " " + v(f.uid()) + " " + v(f.name()) + " " + v(f.imageURL()) + " " + v(f.mediaCount()) +
         " " + v(f.added()) + " " + v(f.unreadCount()) + " tmp " + std::to_string(f.tmpUnreadCount()) + " image " +
         v(f.image()) + " of " + (owner ? v(owner->userid()) : "none");
}

TEST(Friends, ComeInEveryOrderOfTheFriendsPreferenceForEachAccountWithTheirValues) {
  const std::vector<std::int64_t> by_unread = {2, 3, 1, 6, 4, 5}, by_added = {5, 4, 3, 6, 2, 1},
                                  by_name = {5, 2, 3, 4, 1, 6};
  const std::vector<std::pair<Ref<Object>, const std::vector<std::int64_t>*>> cases = {
      {nullptr, &by_unread},      {num(0), &by_unread},  {num(1), &by_added},          {num(2), &by_name},
      {num(-3), &by_name},        {str("1"), &by_added}, {boolean(false), &by_unread},
  };
  Home home;
  home.write_store(write_friends);
  const auto before = home.snapshot();
  for (const auto& [value, expected] : cases) {
    SCOPED_TRACE(v(value));
    home.set_preferences(value ? dict({{"WZFavoriteFriendsOrderIndex", value}}) : dict({}));
    auto wrapper = home.attach();
    auto accounts = wrapper->currentAccounts();
    ASSERT_TRUE(accounts);
    ASSERT_EQ(accounts->size(), 2u);
    auto friends = wrapper->currentFriendsInAccount((*accounts)[0].get());
    EXPECT_EQ(keys(friends), *expected);
    EXPECT_EQ(keys(wrapper->currentFriendsInAccount((*accounts)[1].get())), std::vector<std::int64_t>({7}));
    // No account: the favourites that belong to none ("Zed" sorts before "eve" byte-wise).
    auto orphans = wrapper->currentFriendsInAccount(nullptr);
    EXPECT_EQ(keys(orphans), (expected == &by_added ? std::vector<std::int64_t>{8, 9} : std::vector<std::int64_t>{9, 8}));
    if (value) continue;
    ASSERT_EQ(friends.size(), 6u);
    EXPECT_EQ(values_of(*friends[2]), "~/Friend/p1 \"u1\" \"bob\" \"http://pic/1\" 12 @500 2 tmp 2 image nil of \"1001\"");
    EXPECT_EQ(values_of(*friends[5]), "~/Friend/p5 nil nil nil nil nil nil tmp 0 image nil of \"1001\"");
    EXPECT_EQ(values_of(*orphans[0]), "~/Friend/p9 \"u9\" \"Zed\" nil nil @2 nil tmp 0 image nil of none");
    friends[0]->setTmpUnreadCount(9);
    friends[0]->awakeFromFetch();
    EXPECT_EQ(friends[0]->tmpUnreadCount(), 5);
  }
  EXPECT_EQ(home.snapshot(), before);
}

TEST(Accounts, ComeInKeyOrderWithTheirPreferenceEntries) {
  Home home;
  home.write_store([](InstaGramStore& s) {
    s.account(3, "1003", "carl");
    s.account(1, "1001", "ann");
    s.account(2, std::nullopt, "nobody");
    s.finish();
  });
  home.set_preferences(dict({{"UserAccountsI", dict({{"1001", str("http://pic/ann")}})},
                             {"UserAccountsT", str("not a dictionary")},
                             {"UserAccountsE", dict({{"1001", date(123.5)}, {"1003", num(7)}})}}));
  Ref<MQUserDefaultsWrapper> defaults = home.defaults();
  auto accounts = home.attach(defaults)->currentAccounts();
  ASSERT_TRUE(accounts);
  std::vector<std::string> seen;
  LogCapture log;
  for (const auto& a : *accounts) {
    seen.push_back(uri(a->objectURI()) + " " + v(a->userid()) + " " + v(a->username()) + " " +
                   v(a->imageURLWithDefaults(defaults.get())) + " " + v(a->expirationDateWithDefaults(defaults.get())) +
                   " " + v(a->accessTokenWithDefaults(defaults.get())));
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"~/Account/p1 \"1001\" \"ann\" \"http://pic/ann\" @123.5 nil",
                                            "~/Account/p2 nil \"nobody\" nil nil nil",
                                            "~/Account/p3 \"1003\" \"carl\" nil 7 nil"}));  // handed on as stored
  EXPECT_TRUE(log.contains("Account storage UserAccountsT is not a dictionary: NSString"));
  const Account& ann = *(*accounts)[0];
  EXPECT_EQ(ann.valueForKey("uid").get(), ann.userid().get());
  EXPECT_EQ(std::regex_replace((*accounts)[1]->description(), std::regex("0x[0-9a-f]+"), "0x?"),
            std::string("<Account: 0x?> (entity: Account; id: <x-coredata://") + kUUID +
                "/Account/p2>; data: {\n    name = nobody;\n    uid = nil;\n})");
}

TEST(LegacyIntegerValue, ReadsNumbersAndLeadingDigitsOfTexts) {
  const std::vector<std::pair<Ref<Object>, std::int64_t>> cases = {
      {nullptr, 0},           {num(7), 7},           {num(-2), -2},          {real(2.9), 2},
      {real(-2.9), -2},       {boolean(true), 1},    {boolean(false), 0},    {str("12"), 12},
      {str("  -4x"), -4},     {str("+3"), 3},        {str("x3"), 0},         {str(""), 0},
      {str("99999999999999999999"), INT64_MAX},      {str("-99999999999999999999"), INT64_MIN},
      {array({num(1)}), 0},   {date(5.0), 0},        {Ref<Object>(Null::shared()), 0},
  };
  for (const auto& [value, expected] : cases) EXPECT_EQ(legacy_integer_value(value.get()), expected);
}

// -- Stores that lack what a fetch needs --------------------------------------------------------------

TEST(Fetches, GiveNothingWithALogLineWhenTheStoreLacksATableOrColumn) {
  struct Case {
    const char* sql;
    const char* works;  // the fetches that still give something
    const char* log;
  };
  const std::vector<Case> cases = {
      {"DROP TABLE ZIMAGELIST", "accounts friends", "Store fetch of ImageList failed: the store has no table ZIMAGELIST"},
      {"ALTER TABLE ZFRIEND DROP COLUMN ZADDED", "accounts albums titles images",
       "Store fetch of Friend failed: the table ZFRIEND has no column ZADDED"},
      {"ALTER TABLE ZACCOUNT DROP COLUMN ZNAME", "albums friends titles images",
       "Store fetch of Account failed: the table ZACCOUNT has no column ZNAME"},
      {"DELETE FROM Z_PRIMARYKEY WHERE Z_NAME = 'Friend'", "accounts albums titles images",
       "Store fetch of Friend failed: the store has no entity Friend"},
      {"ALTER TABLE ZIMAGEITEM DROP COLUMN ZDICTIONARY", "accounts albums friends titles",
       "Store fetch of ImageItem failed: the table ZIMAGEITEM has no column ZDICTIONARY"},
      // Order 1 needs the member counts, so a missing relationship fails the album fetch too.
      {"DROP INDEX ZIMAGEITEM_ZLIST_INDEX; ALTER TABLE ZIMAGEITEM DROP COLUMN ZLIST", "accounts friends titles",
       "Store fetch of ImageList failed: no column or join table holds ImageList.images"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sql);
    Home home;
    home.write_store([&](InstaGramStore& s) {
      write_albums(s);
      write_friends(s);
      s.db().exec(c.sql);
    });
    home.set_preferences(dict({{"WZAlbumsOrderIndex", num(1)}}));
    const auto before = home.snapshot();
    {
      LogCapture log;
      auto wrapper = home.attach();
      const StoreContext& context = wrapper->managedObjectContext();
      auto by_title = ImageList::albumsInContext(context, 0);
      std::string works;
      for (auto [name, ok] : std::initializer_list<std::pair<const char*, bool>>{
               {"accounts", wrapper->currentAccounts().has_value()},
               {"albums", wrapper->currentAlbums().has_value()},
               {"friends", !Friend::favouriteUsersForAccount(nullptr, nullptr, context).empty()},
               {"titles", by_title.has_value()},
               {"images", by_title && (*by_title)[1]->enumerateImages([](const ImageItemRow&) { return true; })}}) {
        if (ok) works += std::string(works.empty() ? "" : " ") + name;
      }
      EXPECT_EQ(works, c.works);
      EXPECT_TRUE(log.contains(c.log)) << testing::PrintToString(log.lines());
    }
    EXPECT_EQ(home.snapshot(), before);
  }
}

TEST(Fetches, SurviveACorruptTablePage) {
  Home home;
  home.write_store([](InstaGramStore& s) {
    write_friends(s);
    s.album(1, "big", 1.0);
    for (int i = 0; i < 300; ++i) s.item(1000 + i, 1, std::string(600, 'm'));
    s.finish();
  });
  // Overwrite the media table's root page with garbage; the schema stays readable.
  std::int64_t root = 0;
  {
    test::TestDb db(home.store_path());
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db.get(), "SELECT rootpage FROM sqlite_master WHERE name = 'ZIMAGEITEM'", -1, &stmt, nullptr);
    ASSERT_EQ(sqlite3_step(stmt), SQLITE_ROW);
    root = sqlite3_column_int64(stmt, 0);
    sqlite3_finalize(stmt);
  }
  std::string bytes = test::read_file(home.store_path());
  for (std::size_t i = 0; i < 4096; ++i) bytes[(root - 1) * 4096 + i] = static_cast<char>(0x5C ^ (i * 13));
  test::write_file(home.store_path(), bytes);
  const auto before = home.snapshot();
  {
    LogCapture log;
    auto wrapper = home.attach();
    ASSERT_TRUE(wrapper->currentAccounts());
    EXPECT_EQ(wrapper->currentFriendsInAccount(nullptr).size(), 2u);
    auto albums = wrapper->currentAlbums();
    ASSERT_TRUE(albums);
    ASSERT_EQ(albums->size(), 1u);
    EXPECT_FALSE((*albums)[0]->enumerateImages([](const ImageItemRow&) { return true; }));
    bool logged = false;
    for (const auto& line : log.lines()) logged |= line.rfind("Store fetch of ImageList.images failed: ", 0) == 0;
    EXPECT_TRUE(logged) << testing::PrintToString(log.lines());
  }
  EXPECT_EQ(home.snapshot(), before);
}

}  // namespace
}  // namespace orvia
