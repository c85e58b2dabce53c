// Accounts, favourite friends and albums of InstaGram stores, fetched through the store access object
// in every order the old client offered.
#include "legacy/entities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <regex>

#include "legacy/core_data_wrapper.h"
#include "legacy/user_defaults_wrapper.h"
#include "legacy_test_util.h"
#include "platform/log.h"
#include "platform/queue.h"

namespace fs = std::filesystem;

namespace orvia {
namespace {

using test::ImagesLayout;
using test::InstaGramStore;

// A home folder with the old client's preferences (binary property list) and, when written, its store.
class Home {
 public:
  Home() { fs::create_directories(store_path().parent_path()); }
  fs::path store_path() const { return MQCoreDataWrapper::storePathForHome(dir_.path().string()); }
  void write_store(const std::function<void(InstaGramStore&)>& fill, const test::InstaGramOptions& options = {}) {
    InstaGramStore s(store_path(), options);
    fill(s);
  }
  test::TreeSnapshot snapshot() const { return test::snapshot_tree(store_path().parent_path()); }
  void set_preferences(const Ref<Dictionary>& prefs) {
    test::write_file(dir_ / "Library/Containers/com.brenvik.velmora/Data/Library/Preferences/com.brenvik.velmora.plist",
                     write_binary_plist(prefs.get()).value());
  }
  Ref<MQUserDefaultsWrapper> defaults() const {
    return MQUserDefaultsWrapper::initWithBundleID("com.brenvik.velmora", dir_.path().string());
  }
  // Attaches the store the way the import does and waits (serving the main queue) until it is ready.
  Ref<MQCoreDataWrapper> attach(Ref<MQUserDefaultsWrapper> defaults = nullptr) const {
    bool done = false;
    auto wrapper = MQCoreDataWrapper::initWithStorePath(store_path().string(), [&] { done = true; },
                                                        defaults ? defaults : this->defaults(), [&] { done = true; });
    for (int i = 0; i < 400 && !done; ++i) MainQueue::shared().drain(std::chrono::milliseconds(50));
    EXPECT_TRUE(wrapper->managedObjectContext()) << "the store was not attached";
    return wrapper;
  }

 private:
  test::TempDir dir_;
};

template <class T>
std::string keys(const std::vector<Ref<T>>& objects) {
  std::string out;
  for (const auto& o : objects) out += (out.empty() ? "" : " ") + std::to_string(o->primaryKey());
  return out;
}

// A stored value as text that tells the kinds apart: "text", 7, @500 (a date), nil.
std::string v(const Ref<Object>& o) {
  char buf[40];
  if (!o) return "nil";
  if (as_string(o.get())) return '"' + std::string(text_of(o.get())) + '"';
  if (const Number* n = as_number(o.get())) return std::to_string(n->int_value());
  if (const Date* d = as_date(o.get())) return std::snprintf(buf, sizeof buf, "@%g", d->time()), buf;
  return std::string(o->class_name());
}

// An object URI with the test store's UUID left out.
std::string uri(const std::string& u) {
  const std::string prefix = std::string("x-coredata://") + InstaGramStore::kUUID + "/";
  return u.rfind(prefix, 0) == 0 ? "~/" + u.substr(prefix.size()) : u;
}

std::string archived_media(const std::string& id) { return archive_root(dict({{"id", str(id)}}).get()); }

// Albums with ties of every kind: equal titles, equal counts, a missing title and a missing date; titles
// sort by their bytes, so "Gamma" comes before "alpha".
void write_albums(InstaGramStore& s, bool subs = false) {
  s.album(1, "beta", "300");
  s.album(2, "Alpha", "100");
  s.album(3, "alpha", "200", subs);
  s.album(4, std::nullopt, "250");
  s.album(5, "Gamma", std::nullopt);
  s.album(6, "beta", "50");
  int pk = 100;
  for (auto [album, n] : std::vector<std::pair<int, int>>{{1, 3}, {2, 3}, {3, 5}, {5, 3}, {6, 1}}) {
    // Media keys run against the stored order (Z_FOK_) so that an ordered layout shows. Some are also
    // unseen media of favourite 9: a to-one column that is not the album's.
    for (int i = 0; i < n; ++i, ++pk)
      s.item(pk, album, archived_media(std::to_string(pk) + "_1"), subs && i == 1, std::to_string(100 - i),
             i == 0 ? test::V("9") : std::nullopt);
  }
  s.item(pk, std::nullopt, archived_media("loose"));  // in no album
}

// An album's media as "URI=converted id" items, in the order the album yields them.
std::string media_of(const ImageList& album) {
  std::string out;
  EXPECT_TRUE(album.enumerateImages([&](const ImageItemRow& row) {
    out += (out.empty() ? "" : " ") + uri(row.objectURI()) + "=" + std::string(text_of(row.convertedDictionary()->get("id")));
    return true;
  }));
  return out;
}

TEST(Albums, ComeInEveryOrderOfTheAlbumsPreferenceWithTheirValuesAndMedia) {
  // "WZAlbumsOrderIndex" (nil: absent), read as the old client's integerValue.
  const std::vector<std::pair<Ref<Object>, const char*>> orders = {
      {num(1), "3 2 5 1 6 4"}, {num(2), "5 6 2 3 4 1"}, {num(3), "4 2 5 3 1 6"}, {str(" 1st"), "3 2 5 1 6 4"},
      {nullptr, "4 2 5 3 1 6"},  // last: the checks below use this order
  };
  for (const bool ordered : {false, true}) {  // the ordered one with sub-entities and a model
    SCOPED_TRACE(ordered ? "ordered" : "foreign key");
    Home home;
    home.write_store([&](InstaGramStore& s) { write_albums(s, ordered); }, {ordered ? ImagesLayout::Ordered : ImagesLayout::ForeignKey, ordered, ordered});
    const auto before = home.snapshot();
    for (const auto& [value, expected] : orders) {
      home.set_preferences(value ? dict({{"WZAlbumsOrderIndex", value}}) : dict({{"Other", num(1)}}));
      auto albums = home.attach()->currentAlbums();
      ASSERT_TRUE(albums);
      EXPECT_EQ(keys(*albums), expected) << v(value);
    }
    auto albums = home.attach()->currentAlbums();
    ASSERT_TRUE(albums);
    const ImageList& untitled = *(*albums)[0];
    const ImageList& alpha = *(*albums)[3];  // a SmartImageList when there are sub-entities
    const std::string list = ordered ? "SmartImageList" : "ImageList";
    EXPECT_EQ(uri(untitled.objectURI()) + " " + v(untitled.title()) + " " + v(untitled.created()) + ", " +
                  alpha.entityName() + " " + uri(alpha.objectURI()) + " " + v(alpha.title()) + " " + v(alpha.created()),
              "~/ImageList/p4 nil @250, " + list + " ~/" + list + "/p3 \"alpha\" @200");
    EXPECT_EQ(alpha.valueForKey("title").get(), alpha.title().get());
    // Album 3 holds media 106..110, the second a VideoItem when there are sub-entities; the ordered
    // layout yields its Z_FOK_ order (100, 99, ... given to 106, 107, ...).
    EXPECT_EQ(media_of(alpha), ordered ? "~/ImageItem/p110=110_1 ~/ImageItem/p109=109_1 ~/ImageItem/p108=108_1 "
                                         "~/VideoItem/p107=107_1 ~/ImageItem/p106=106_1"
                                       : "~/ImageItem/p106=106_1 ~/ImageItem/p107=107_1 ~/ImageItem/p108=108_1 "
                                         "~/ImageItem/p109=109_1 ~/ImageItem/p110=110_1");
    EXPECT_EQ(media_of(untitled), "");
    // A visitor may stop early; the objects API gives the same members.
    int visits = 0;
    EXPECT_TRUE(alpha.enumerateImages([&](const ImageItemRow&) { return ++visits < 2; }));
    EXPECT_EQ(visits, 2);
    auto items = alpha.images();
    ASSERT_TRUE(items);
    EXPECT_EQ(keys(*items), ordered ? "110 109 108 107 106" : "106 107 108 109 110");
    EXPECT_EQ(v((*items)[0]->archivedDictionary()->get("id")) + " " + v((*items)[0]->convertedDictionary()->get("pk")),
              ordered ? "\"110_1\" \"110\"" : "\"106_1\" \"106\"");
    albums.reset();
    EXPECT_EQ(home.snapshot(), before);
  }
}

// Favourites with equal counts, equal names, equal dates and missing values.
void write_friends(InstaGramStore& s) {
  s.account(1, "1001", "ann");
  s.account(2, "1002", "bob");
  s.friend_(1, "1", "bob", "u1", "2", "500", "http://pic/1", "12");
  s.friend_(2, "1", "Ann", "u2", "5", "400");
  s.friend_(3, "1", "ann", "u3", "2", "100");
  s.friend_(4, "1", "bob", "u4", "0", "50");
  s.friend_(5, "1", {}, {});
  s.friend_(6, "1", "carl", "u6", "2", "100");
  s.friend_(7, "2", "dave", "u7", "1", "10");
  s.friend_(8, {}, "eve", "u8", {}, "1");
  s.friend_(9, {}, "Zed", "u9", {}, "2");
}

std::string values_of(const Friend& f) {
  Ref<Account> owner = f.account();
  return uri(f.objectURI()) + " " + v(f.uid()) + " " + v(f.name()) + " " + v(f.imageURL()) + " " + v(f.mediaCount()) +
         " " + v(f.added()) + " " + v(f.unreadCount()) + " tmp " + std::to_string(f.tmpUnreadCount()) + " image " +
         v(f.image()) + " of " + (owner ? v(owner->userid()) : "none");
}

TEST(Friends, ComeInEveryOrderOfTheFriendsPreferenceForEachAccountWithTheirValues) {
  // "WZFavoriteFriendsOrderIndex": the first account's favourites, the second's, those of no account
  // ("Zed" sorts before "eve" byte-wise).
  const std::vector<std::pair<Ref<Object>, const char*>> cases = {
      {nullptr, "2 3 1 6 4 5, 7, 9 8"}, {num(1), "5 4 3 6 2 1, 7, 8 9"}, {num(2), "5 2 3 4 1 6, 7, 9 8"},
      {num(-3), "5 2 3 4 1 6, 7, 9 8"}, {str("1"), "5 4 3 6 2 1, 7, 8 9"},
  };
  Home home;
  home.write_store(write_friends);
  const auto before = home.snapshot();
  for (const auto& [value, expected] : cases) {
    SCOPED_TRACE(v(value));
    home.set_preferences(value ? dict({{"WZFavoriteFriendsOrderIndex", value}}) : dict({}));
    auto wrapper = home.attach();
    auto accounts = wrapper->currentAccounts();
    ASSERT_TRUE(accounts && accounts->size() == 2u);
    auto friends = wrapper->currentFriendsInAccount((*accounts)[0].get());
    auto orphans = wrapper->currentFriendsInAccount(nullptr);
    EXPECT_EQ(keys(friends) + ", " + keys(wrapper->currentFriendsInAccount((*accounts)[1].get())) + ", " + keys(orphans), expected);
    if (value) continue;
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
  });
  home.set_preferences(dict({{"UserAccountsI", dict({{"1001", str("http://pic/ann")}})},
                             {"UserAccountsT", str("not a dictionary")},
                             {"UserAccountsE", dict({{"1001", date(123.5)}, {"1003", num(7)}})}}));
  Ref<MQUserDefaultsWrapper> defaults = home.defaults();
  auto accounts = home.attach(defaults)->currentAccounts();
  ASSERT_TRUE(accounts);
  std::vector<std::string> seen;
  LogCapture log;
  for (const auto& a : *accounts)
    seen.push_back(uri(a->objectURI()) + " " + v(a->userid()) + " " + v(a->username()) + " " +
                   v(a->imageURLWithDefaults(defaults.get())) + " " + v(a->expirationDateWithDefaults(defaults.get())) +
                   " " + v(a->accessTokenWithDefaults(defaults.get())));
  EXPECT_EQ(seen, (std::vector<std::string>{"~/Account/p1 \"1001\" \"ann\" \"http://pic/ann\" @123.5 nil",
                                            "~/Account/p2 nil \"nobody\" nil nil nil",
                                            "~/Account/p3 \"1003\" \"carl\" nil 7 nil"}));  // handed on as stored
  EXPECT_TRUE(log.contains("Account storage UserAccountsT is not a dictionary: NSString"));
  EXPECT_EQ((*accounts)[0]->valueForKey("uid").get(), (*accounts)[0]->userid().get());
  EXPECT_EQ(std::regex_replace((*accounts)[1]->description(), std::regex("0x[0-9a-f]+"), "0x?"),
            std::string("<Account: 0x?> (entity: Account; id: <x-coredata://") + InstaGramStore::kUUID +
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

TEST(Fetches, GiveNothingWithALogLineWhenTheStoreLacksATableOrColumn) {
  const std::vector<std::tuple<const char*, const char*, const char*>> cases = {
      // {damage, the fetches that still give something, log line}; order 1 needs the member counts
      {"DROP TABLE ZIMAGELIST", "accounts friends", "Store fetch of ImageList failed: the store has no table ZIMAGELIST"},
      {"ALTER TABLE ZFRIEND DROP COLUMN ZADDED", "accounts albums titles images",
       "Store fetch of Friend failed: the table ZFRIEND has no column ZADDED"},
      {"ALTER TABLE ZACCOUNT DROP COLUMN ZNAME", "albums friends titles images",
       "Store fetch of Account failed: the table ZACCOUNT has no column ZNAME"},
      {"DELETE FROM Z_PRIMARYKEY WHERE Z_NAME = 'Friend'", "accounts albums titles images",
       "Store fetch of Friend failed: the store has no entity Friend"},
      {"DELETE FROM Z_PRIMARYKEY WHERE Z_NAME = 'ImageItem'", "accounts friends titles",
       "Store fetch of ImageList failed: no entity ImageItem"},
      {"ALTER TABLE ZIMAGEITEM DROP COLUMN ZDICTIONARY", "accounts albums friends titles",
       "Store fetch of ImageItem failed: the table ZIMAGEITEM has no column ZDICTIONARY"},
      {"DROP INDEX ZIMAGEITEM_ZLIST_INDEX; ALTER TABLE ZIMAGEITEM DROP COLUMN ZLIST", "accounts friends titles",
       "Store fetch of ImageList failed: no column or join table holds ImageList.images"},
  };
  for (const auto& [damage, expected, line] : cases) {
    SCOPED_TRACE(damage);
    Home home;
    home.write_store([&](InstaGramStore& s) {
      write_albums(s);
      write_friends(s);
      s.add(damage);
    });
    home.set_preferences(dict({{"WZAlbumsOrderIndex", num(1)}}));
    const auto before = home.snapshot();
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
             {"images", by_title && (*by_title)[1]->enumerateImages([](const ImageItemRow&) { return true; })}})
      if (ok) works += std::string(works.empty() ? "" : " ") + name;
    EXPECT_EQ(works, expected);
    EXPECT_TRUE(log.contains(line)) << testing::PrintToString(log.lines());
    EXPECT_EQ(home.snapshot(), before);
  }
}

TEST(Fetches, SurviveACorruptTablePage) {
  Home home;
  home.write_store([](InstaGramStore& s) {
    write_friends(s);
    s.album(1, "big", "1");
    for (int i = 0; i < 300; ++i) s.item(1000 + i, 1, std::string(600, 'm'));
  });
  // Overwrite the media table's root page with garbage; the schema stays readable.
  const std::int64_t root = std::stoll(test::TestDb(home.store_path()).scalar("SELECT rootpage FROM sqlite_master WHERE name = 'ZIMAGEITEM'"));
  std::string bytes = test::read_file(home.store_path());
  for (std::size_t i = 0; i < 4096; ++i) bytes[(root - 1) * 4096 + i] = static_cast<char>(0x5C ^ (i * 13));
  test::write_file(home.store_path(), bytes);
  const auto before = home.snapshot();
  LogCapture log;
  auto wrapper = home.attach();
  ASSERT_TRUE(wrapper->currentAccounts());
  EXPECT_EQ(wrapper->currentFriendsInAccount(nullptr).size(), 2u);
  auto albums = wrapper->currentAlbums();
  ASSERT_TRUE(albums && albums->size() == 1u);
  EXPECT_FALSE((*albums)[0]->enumerateImages([](const ImageItemRow&) { return true; }));
  const auto lines = log.lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& l) {
    return l.rfind("Store fetch of ImageList.images failed: ", 0) == 0;
  })) << testing::PrintToString(lines);
  EXPECT_EQ(home.snapshot(), before);
}

}  // namespace
}  // namespace orvia
