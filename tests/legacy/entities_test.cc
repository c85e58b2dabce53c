// Accounts, favourite friends and albums of InstaGram stores in every layout, fetched through the
// store access object in every order the old client offered.
#include "legacy/entities.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

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
  // Writes the store; `fill` adds its rows.
  void write_store(const std::function<void(InstaGramStore&)>& fill, const InstaGramOptions& options = {}) {
    InstaGramStore s(store_path(), options);
    fill(s);
  }
  test::TreeSnapshot snapshot() const { return snapshot_tree(store_path().parent_path()); }
  void set_preferences(const Ref<Dictionary>& prefs) {
    auto bytes = write_binary_plist(prefs.get());
    ASSERT_TRUE(bytes.ok());
    test::write_file(dir_.path() / "Library/Containers" / kBundle / "Data/Library/Preferences" /
                         (std::string(kBundle) + ".plist"),
                     bytes.value());
  }
  Ref<MQUserDefaultsWrapper> defaults() const {
    return MQUserDefaultsWrapper::initWithBundleID(kBundle, dir_.path().string());
  }

 private:
  TempDir dir_;
};

// Attaches a store the way the import does and waits (serving the main queue) until it is ready.
Ref<MQCoreDataWrapper> attach(const fs::path& store, Ref<MQUserDefaultsWrapper> defaults) {
  bool done = false, failed = false;
  auto wrapper = MQCoreDataWrapper::initWithStorePath(store.string(), [&] { done = true; }, std::move(defaults),
                                                      [&] { failed = true; });
  for (int i = 0; i < 400 && !done && !failed; ++i) MainQueue::shared().drain(std::chrono::milliseconds(50));
  EXPECT_TRUE(done) << "the store was not attached";
  return wrapper;
}

template <class T>
std::vector<std::int64_t> keys(const std::vector<Ref<T>>& objects) {
  std::vector<std::int64_t> out;
  for (const auto& o : objects) out.push_back(o->primaryKey());
  return out;
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

TEST(Albums, ComeInEveryOrderOfTheAlbumsPreferenceInEveryLayout) {
  const std::vector<std::int64_t> by_title = {4, 2, 3, 1, 6, 5};
  const std::vector<std::int64_t> by_count = {3, 2, 1, 5, 6, 4};
  const std::vector<std::int64_t> by_created = {5, 6, 2, 3, 4, 1};
  struct OrderCase {
    const char* name;
    Ref<Object> value;  // "WZAlbumsOrderIndex"; nil: absent
    const std::vector<std::int64_t>* expected;
  };
  const std::vector<OrderCase> orders = {
      {"absent", nullptr, &by_title},       {"0", num(0), &by_title},
      {"1", num(1), &by_count},             {"2", num(2), &by_created},
      {"3", num(3), &by_title},             {"-1", num(-1), &by_title},
      {"text 2", str("2"), &by_created},    {"text ' 1st'", str(" 1st"), &by_count},
      {"real 2.7", real(2.7), &by_created}, {"YES", boolean(true), &by_count},
      {"text x", str("x"), &by_title},      {"a list", array({num(2)}), &by_title},
  };
  const std::vector<std::pair<const char*, InstaGramOptions>> layouts = {
      {"foreign key", store_options(ImagesLayout::ForeignKey)},
      {"ordered, sub-entities, model", store_options(ImagesLayout::Ordered, true, true)},
      {"join table", store_options(ImagesLayout::JoinTable)},
      {"join table, sub-entities, model", store_options(ImagesLayout::JoinTable, true, true)},
  };
  for (const auto& [name, options] : layouts) {
    SCOPED_TRACE(name);
    Home home;
    home.write_store(write_albums, options);
    const auto before = home.snapshot();
    for (const auto& c : orders) {
      SCOPED_TRACE(c.name);
      home.set_preferences(c.value ? dict({{"WZAlbumsOrderIndex", c.value}}) : dict({{"Other", num(1)}}));
      auto wrapper = attach(home.store_path(), home.defaults());
      auto albums = wrapper->currentAlbums();
      ASSERT_TRUE(albums);
      EXPECT_EQ(keys(*albums), *c.expected);
    }
    EXPECT_EQ(home.snapshot(), before);
  }
}

TEST(Albums, HaveTheirValuesURIsAndMediaInTheRelationshipsOrder) {
  for (auto layout : {ImagesLayout::ForeignKey, ImagesLayout::Ordered, ImagesLayout::JoinTable}) {
    SCOPED_TRACE(static_cast<int>(layout));
    Home home;
    home.write_store(write_albums, store_options(layout, true));
    const auto before = home.snapshot();
    {
      auto wrapper = attach(home.store_path(), home.defaults());
      auto albums = wrapper->currentAlbums();
      ASSERT_TRUE(albums);
      ASSERT_EQ(albums->size(), 6u);
      const ImageList& untitled = *(*albums)[0];
      EXPECT_FALSE(untitled.title());
      EXPECT_EQ(untitled.objectURI(), std::string("x-coredata://") + kUUID + "/ImageList/p4");
      const ImageList& smart = *(*albums)[2];  // "alpha", a SmartImageList
      EXPECT_EQ(text_of(smart.title().get()), "alpha");
      EXPECT_EQ(smart.objectURI(), std::string("x-coredata://") + kUUID + "/SmartImageList/p3");
      EXPECT_EQ(smart.entityName(), "SmartImageList");
      ASSERT_TRUE(as_date(smart.created().get()));
      EXPECT_DOUBLE_EQ(as_date(smart.created().get())->time(), 200.0);
      EXPECT_EQ(smart.valueForKey("title").get(), smart.title().get());

      // Album 3 holds media 106..110; the second is a VideoItem. Unordered layouts yield ascending
      // keys, the ordered one its Z_FOK_ order (100, 99, ... given to 106, 107, ...).
      std::vector<std::int64_t> seen;
      std::vector<std::string> uris, ids;
      ASSERT_TRUE(smart.enumerateImages([&](const ImageItemRow& row) {
        seen.push_back(row.primary_key);
        uris.push_back(row.objectURI());
        Ref<Dictionary> converted = row.convertedDictionary();
        ids.emplace_back(text_of(converted->get("id")));
        return true;
      }));
      const std::vector<std::int64_t> expected =
          layout == ImagesLayout::Ordered ? std::vector<std::int64_t>{110, 109, 108, 107, 106}
                                          : std::vector<std::int64_t>{106, 107, 108, 109, 110};
      EXPECT_EQ(seen, expected);
      EXPECT_EQ(ids[0], std::to_string(expected[0]) + "_1");
      EXPECT_EQ(uris[layout == ImagesLayout::Ordered ? 3 : 1],
                std::string("x-coredata://") + kUUID + "/VideoItem/p107");
      EXPECT_EQ(uris[0], std::string("x-coredata://") + kUUID + "/ImageItem/p" + std::to_string(expected[0]));

      // A visitor may stop early; the objects API gives the same members.
      int visits = 0;
      EXPECT_TRUE(smart.enumerateImages([&](const ImageItemRow&) { return ++visits < 2; }));
      EXPECT_EQ(visits, 2);
      auto items = smart.images();
      ASSERT_TRUE(items);
      EXPECT_EQ(keys(*items), expected);
      Ref<Dictionary> record = (*items)[0]->archivedDictionary();
      ASSERT_TRUE(record);
      EXPECT_EQ(text_of(record->get("id")), std::to_string(expected[0]) + "_1");
      EXPECT_EQ(text_of((*items)[0]->convertedDictionary()->get("pk")), std::to_string(expected[0]));

      // An album without media.
      std::size_t none = 0;
      EXPECT_TRUE(untitled.enumerateImages([&](const ImageItemRow&) { return ++none > 0; }));
      EXPECT_EQ(none, 0u);
    }
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

TEST(Friends, ComeInEveryOrderOfTheFriendsPreferenceForEachAccount) {
  const std::vector<std::int64_t> by_unread = {2, 3, 1, 6, 4, 5};
  const std::vector<std::int64_t> by_added = {5, 4, 3, 6, 2, 1};
  const std::vector<std::int64_t> by_name = {5, 2, 3, 4, 1, 6};
  struct Case {
    const char* name;
    Ref<Object> value;
    const std::vector<std::int64_t>* expected;
  };
  const std::vector<Case> cases = {
      {"absent", nullptr, &by_unread}, {"0", num(0), &by_unread},   {"1", num(1), &by_added},
      {"2", num(2), &by_name},         {"-3", num(-3), &by_name},   {"text 1", str("1"), &by_added},
      {"NO", boolean(false), &by_unread},
  };
  Home home;
  home.write_store(write_friends);
  const auto before = home.snapshot();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    home.set_preferences(c.value ? dict({{"WZFavoriteFriendsOrderIndex", c.value}}) : dict({}));
    auto wrapper = attach(home.store_path(), home.defaults());
    auto accounts = wrapper->currentAccounts();
    ASSERT_TRUE(accounts);
    ASSERT_EQ(accounts->size(), 2u);
    EXPECT_EQ(keys(wrapper->currentFriendsInAccount((*accounts)[0].get())), *c.expected);
    EXPECT_EQ(keys(wrapper->currentFriendsInAccount((*accounts)[1].get())), std::vector<std::int64_t>({7}));
    // No account: the favourites that belong to none ("Zed" sorts before "eve" byte-wise).
    const std::vector<std::int64_t> orphans =
        c.expected == &by_added ? std::vector<std::int64_t>{8, 9} : std::vector<std::int64_t>{9, 8};
    EXPECT_EQ(keys(wrapper->currentFriendsInAccount(nullptr)), orphans);
  }
  EXPECT_EQ(home.snapshot(), before);
}

TEST(Friends, CarryTheirStoredValues) {
  Home home;
  home.write_store(write_friends);
  auto wrapper = attach(home.store_path(), home.defaults());
  auto accounts = wrapper->currentAccounts();
  ASSERT_TRUE(accounts);
  auto friends = wrapper->currentFriendsInAccount((*accounts)[0].get());
  ASSERT_EQ(friends.size(), 6u);
  const Friend& first = *friends[2];  // pk 1
  ASSERT_EQ(first.primaryKey(), 1);
  EXPECT_EQ(first.objectURI(), std::string("x-coredata://") + kUUID + "/Friend/p1");
  EXPECT_EQ(text_of(first.uid().get()), "u1");
  EXPECT_EQ(text_of(first.name().get()), "bob");
  EXPECT_EQ(text_of(first.imageURL().get()), "http://pic/1");
  ASSERT_TRUE(as_number(first.mediaCount().get()));
  EXPECT_EQ(as_number(first.mediaCount().get())->int_value(), 12);
  ASSERT_TRUE(as_date(first.added().get()));
  EXPECT_DOUBLE_EQ(as_date(first.added().get())->time(), 500.0);
  EXPECT_EQ(first.tmpUnreadCount(), 2);
  EXPECT_FALSE(first.image());
  Ref<Account> owner = first.account();
  ASSERT_TRUE(owner);
  EXPECT_EQ(text_of(owner->userid().get()), "1001");

  const Friend& bare = *friends[5];  // pk 5: nothing but its key and account
  ASSERT_EQ(bare.primaryKey(), 5);
  EXPECT_FALSE(bare.uid());
  EXPECT_FALSE(bare.name());
  EXPECT_FALSE(bare.added());
  EXPECT_FALSE(bare.unreadCount());
  EXPECT_FALSE(bare.mediaCount());
  EXPECT_EQ(bare.tmpUnreadCount(), 0);
  EXPECT_EQ(friends[0]->tmpUnreadCount(), 5);
  friends[0]->setTmpUnreadCount(9);
  EXPECT_EQ(friends[0]->tmpUnreadCount(), 9);
  friends[0]->awakeFromFetch();
  EXPECT_EQ(friends[0]->tmpUnreadCount(), 5);
  EXPECT_FALSE(wrapper->currentFriendsInAccount(nullptr)[0]->account());
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
  auto wrapper = attach(home.store_path(), defaults);
  auto accounts = wrapper->currentAccounts();
  ASSERT_TRUE(accounts);
  ASSERT_EQ(keys(*accounts), std::vector<std::int64_t>({1, 2, 3}));
  const Account& ann = *(*accounts)[0];
  EXPECT_EQ(text_of(ann.userid().get()), "1001");
  EXPECT_EQ(text_of(ann.username().get()), "ann");
  EXPECT_EQ(ann.valueForKey("uid").get(), ann.userid().get());
  EXPECT_EQ(text_of(ann.imageURLWithDefaults(defaults.get()).get()), "http://pic/ann");
  ASSERT_TRUE(as_date(ann.expirationDateWithDefaults(defaults.get()).get()));
  EXPECT_TRUE(as_number((*accounts)[2]->expirationDateWithDefaults(defaults.get()).get()));  // handed on as stored
  EXPECT_FALSE((*accounts)[2]->imageURLWithDefaults(defaults.get()));  // no entry for 1003
  {
    LogCapture log;
    EXPECT_FALSE(ann.accessTokenWithDefaults(defaults.get()));
    EXPECT_TRUE(log.contains("Account storage UserAccountsT is not a dictionary: NSString"));
  }
  const Account& nobody = *(*accounts)[1];
  EXPECT_FALSE(nobody.userid());
  EXPECT_FALSE(nobody.imageURLWithDefaults(defaults.get()));
  const std::string text = nobody.description();
  EXPECT_NE(text.find("<Account: 0x"), std::string::npos) << text;
  EXPECT_NE(text.find(std::string("(entity: Account; id: <x-coredata://") + kUUID + "/Account/p2>"), std::string::npos)
      << text;
  EXPECT_NE(text.find("uid = nil;"), std::string::npos) << text;
  EXPECT_NE(text.find("name = nobody;"), std::string::npos) << text;
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
    const char* name;
    const char* sql;
    bool accounts_ok, albums_ok, friends_ok, relationship_ok, images_ok;
    const char* log;
  };
  const std::vector<Case> cases = {
      {"no album table", "DROP TABLE ZIMAGELIST", true, false, true, false, false,
       "Store fetch of ImageList failed: the store has no table ZIMAGELIST"},
      {"no friend date", "ALTER TABLE ZFRIEND DROP COLUMN ZADDED", true, true, false, true, true,
       "Store fetch of Friend failed: the table ZFRIEND has no column ZADDED"},
      {"no account name", "ALTER TABLE ZACCOUNT DROP COLUMN ZNAME", false, true, true, true, true,
       "Store fetch of Account failed: the table ZACCOUNT has no column ZNAME"},
      {"no Friend entity", "DELETE FROM Z_PRIMARYKEY WHERE Z_NAME = 'Friend'", true, true, false, true, true,
       "Store fetch of Friend failed: the store has no entity Friend"},
      {"no media dictionary", "ALTER TABLE ZIMAGEITEM DROP COLUMN ZDICTIONARY", true, true, true, true, false,
       "Store fetch of ImageItem failed: the table ZIMAGEITEM has no column ZDICTIONARY"},
      {"no album relationship", "DROP INDEX ZIMAGEITEM_ZLIST_INDEX; ALTER TABLE ZIMAGEITEM DROP COLUMN ZLIST", true,
       true, true, false, false, "Store fetch of ImageList failed: no column or join table holds ImageList.images"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
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
      auto wrapper = attach(home.store_path(), home.defaults());
      auto accounts = wrapper->currentAccounts();
      EXPECT_EQ(accounts.has_value(), c.accounts_ok);
      // Order 1 needs the member counts, so a missing relationship fails the album fetch too.
      EXPECT_EQ(wrapper->currentAlbums().has_value(), c.albums_ok && c.relationship_ok);
      EXPECT_EQ(!Friend::favouriteUsersForAccount(nullptr, nullptr, wrapper->managedObjectContext()).empty(),
                c.friends_ok);
      auto by_title = ImageList::albumsInContext(wrapper->managedObjectContext(), 0);
      EXPECT_EQ(by_title.has_value(), c.albums_ok);
      if (by_title) {
        bool any = false;
        EXPECT_EQ((*by_title)[1]->enumerateImages([&](const ImageItemRow&) { return any = true; }), c.images_ok);
      }
      if (c.log) {
        EXPECT_TRUE(log.contains(c.log)) << testing::PrintToString(log.lines());
      }
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
    auto wrapper = attach(home.store_path(), home.defaults());
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
