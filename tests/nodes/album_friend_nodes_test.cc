// Album and favourite friend nodes: records of the legacy store, matched to sidebar entries by their
// object URIs ("ff-<URI>", "fa-<URI>"), and the unfiled ones collected in the store's order.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "nodes_fixture.h"

namespace orvia::test {
namespace {

using Store = LegacyStore;

class AlbumFriendNodes : public NodesTest {
 protected:
  void SetUp() override {
    NodesTest::SetUp();
    Store& s = home.store();
    ann = s.add_account("1001", "ann");
    bob = s.add_account("2002", "bob");
    beach = s.add_album("Beach", 10);
    empty = s.add_album("Empty", 20);
    city = s.add_album("City", 30);
    s.add_image(beach, media_archive(*older_media("111_1", "https://ig.example/p/AAA")));
    s.add_image(beach, media_archive(*older_media("222_1", "https://ig.example/p/BBB/", "x", "ann", true)));
    s.add_image(city, media_archive(*older_media("333", "https://ig.example/p/CCC")));
    // Ann's favourites in the default order (most unseen first): carol, dave; bob's: erin; none: frank.
    carol = s.add_friend({.uid = "31", .name = "carol", .image_url = "https://img.example/carol.jpg", .added = 1000.5,
                          .unread_count = 9, .media_count = 42, .account = ann});
    dave = s.add_friend({.name = "dave", .unread_count = 1, .account = ann});
    erin = s.add_friend({.uid = "33", .name = "erin", .account = bob});
    frank = s.add_friend({.uid = "34", .name = "frank"});
  }

  std::string album_uri(std::int64_t pk) { return home.store().uri(Store::kImageList, pk); }
  std::string friend_uri(std::int64_t pk) { return home.store().uri(Store::kFriend, pk); }
  Ref<OutlineFolderItem> entry(std::string_view base, std::string_view title, std::string_view identifier) {
    auto root = sidebar_root();
    return add_entry(*add_base_folder(*root, base), title, identifier);
  }

  std::int64_t ann, bob, beach, empty, city, carol, dave, erin, frank;
};

// An album node's media as the archived reply holds them: "id/code/media_type/converted" each.
std::string media_text(const MQImporterNode* album) {
  Ref<Object> copy = copy_through_archive(dynamic_cast<const MQImporterNodeAlbum&>(*album).items.get());
  std::string out;
  for (const Ref<Object>& m : as_array(copy.get())->items()) {
    const Dictionary* d = as_dict(m.get());
    const Number* converted = as_number(d->get("converted_from_orvia4"));
    out += fmt::format("{}{}/{}/{}/{}", out.empty() ? "" : " ", text_of(d->get("id")), text_of(d->get("code")),
                       as_number(d->get("media_type"))->int_value(),
                       converted && converted->is_bool() ? converted->bool_value() : -1);
  }
  return out;
}

TEST_F(AlbumFriendNodes, FiledAlbumCarriesTheStoreTitleAndConvertedMedia) {
  auto ctx = context(account(ann));
  LogCapture log;
  auto node = albumNodeFromItem(*entry(kFolderAlbumsIdentifier, "My beach", album_id(album_uri(beach))), *ctx);
  EXPECT_EQ(node_text(node), "album:Beach");  // the store's title, not the sidebar's
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(text_of(node->identifier.get()), album_id(album_uri(beach)));
  // The media are converted as the reply is archived, one dictionary per image in the relationship's
  // order (the second a video).
  EXPECT_EQ(media_text(node.get()), "111_1/AAA/1/1 222_1//2/1");
  auto none = albumNodeFromItem(*entry(kFolderAlbumsIdentifier, "Nothing", album_id(album_uri(empty))), *ctx);
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(media_text(none.get()), "");
  EXPECT_TRUE(log.lines().empty());
  EXPECT_FALSE(ctx->messages);
}

TEST_F(AlbumFriendNodes, AlbumsOfOneReplyReadAheadInTheirOrderAndInAnyOther) {
  // The lists of one context are read ahead in the order they were made, across the ends of albums; two
  // threads share the conversion. The archiver may meet the lists in another order, skip some or meet
  // them in a second archive: the members keep their order, and unreadable ones are logged in order.
  Store& s = home.store();
  const std::vector<int> sizes = {300, 0, 5, 280, 1, 40};  // larger than the read-ahead window, empty, small
  std::vector<std::int64_t> albums;
  std::vector<std::vector<std::string>> ids(sizes.size());        // the expected "id" of every member
  std::vector<std::vector<std::string>> unreadable(sizes.size());  // URIs of the records logged as unreadable
  for (std::size_t a = 0; a < sizes.size(); ++a) {
    albums.push_back(s.add_album("Album " + std::to_string(a), static_cast<int>(50 + a)));
    for (int i = 0; i < sizes[a]; ++i) {
      const std::string id = fmt::format("{}.{}", a, i);
      const bool damaged = i % 11 == 4, missing = i % 13 == 6;  // bytes that are no archive; no stored record
      std::optional<std::string> bytes;
      if (damaged) bytes = "damaged " + id;
      else if (!missing) bytes = media_archive(*older_media(id, "https://ig.example/p/" + id));
      const std::int64_t key = s.add_image(albums[a], bytes);
      ids[a].push_back(damaged || missing ? "" : id);
      if (damaged || missing) unreadable[a].push_back(s.uri(Store::kImageItem, key));
    }
  }
  // List i is of album made[i].first: each album's own, a second list of album 3, then lists of albums 5
  // and 0 made through another context (another plan).
  auto ctx = context(account(ann)), other = context(account(ann));
  const std::vector<std::pair<std::size_t, MQImporterContext*>> made = {
      {0, ctx.get()}, {1, ctx.get()}, {2, ctx.get()},   {3, ctx.get()},  {4, ctx.get()},
      {5, ctx.get()}, {3, ctx.get()}, {5, other.get()}, {0, other.get()}};
  std::vector<Ref<Object>> lists;
  for (auto [a, c] : made) {
    auto node = albumNodeFromItem(*entry(kFolderAlbumsIdentifier, "A", album_id(album_uri(albums[a]))), *c);
    ASSERT_NE(node, nullptr);
    lists.push_back(static_cast<MQImporterNodeAlbum*>(node.get())->items);
  }

  const std::vector<std::vector<std::size_t>> orders = {
      {0, 1, 2, 3, 4, 5, 6},  // as made
      {5, 4, 3, 2, 1, 0},     // backwards
      {3, 0, 6, 5},           // skipping some, one album twice
      {2, 4},                 // small ones only, leaving the rest unread
      {6, 3, 1, 1, 0},        // the same list twice in one archive: written once
      {7, 0, 8, 5, 6},        // two plans taking turns
  };
  for (const auto& order : orders) {
    for (int run = 0; run < 2; ++run) {  // each archive twice
      SCOPED_TRACE(::testing::PrintToString(order) + " run " + std::to_string(run));
      std::vector<Ref<Object>> picked;
      for (std::size_t i : order) picked.push_back(lists[i]);
      LogCapture log;
      Ref<Object> copy = copy_through_archive(make<Array>(picked, false).get());
      const Array* top = as_array(copy.get());
      ASSERT_NE(top, nullptr);
      ASSERT_EQ(top->size(), order.size());
      std::vector<std::string> expected_lines;
      std::vector<std::size_t> seen;
      for (std::size_t k = 0; k < order.size(); ++k) {
        const std::size_t a = made[order[k]].first;
        const Array* media = as_array(top->at(k).get());
        ASSERT_NE(media, nullptr);
        std::vector<std::string> got;
        for (const Ref<Object>& m : media->items())
          got.emplace_back(text_of(as_dict(m.get()) ? as_dict(m.get())->get("id") : nullptr));
        EXPECT_EQ(got, ids[a]) << "album " << a;
        if (std::find(seen.begin(), seen.end(), order[k]) == seen.end()) {
          seen.push_back(order[k]);
          for (const std::string& uri : unreadable[a]) expected_lines.push_back(uri);
        }
      }
      std::vector<std::string> lines = lines_starting(log, "Unreadable media record ");
      ASSERT_EQ(lines.size(), expected_lines.size());
      for (std::size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(lines[i].rfind("Unreadable media record " + expected_lines[i] + ": ", 0), 0u) << lines[i];
    }
  }
}

TEST_F(AlbumFriendNodes, AlbumEntriesThatMatchNoAlbum) {
  struct Row {
    const char* why;
    std::optional<std::string> identifier;  // none: an entry without identifier or title
  };
  const std::vector<Row> rows = {
      {"deleted album", album_id(album_uri(99))},
      {"a favourite friend's prefix", friend_id(album_uri(beach))},
      {"another store's UUID", "ff-x-coredata://00000000-0000-0000-0000-000000000000/ImageList/p1"},
      {"letter case", album_id(album_uri(beach)).replace(0, 2, "FF")},
      {"no identifier and no title", std::nullopt},
  };
  auto ctx = context(account(ann));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    LogCapture log;
    ctx->messages = nullptr;
    auto item = entry(kFolderAlbumsIdentifier, "Gone", row.identifier.value_or(""));
    if (!row.identifier) item->identifier = item->title = nullptr;
    EXPECT_EQ(albumNodeFromItem(*item, *ctx), nullptr);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"no album for identifier " + row.identifier.value_or("(null)") + " found"});
    EXPECT_EQ(messages_of(*ctx),
              std::vector<std::string>{"Unknown album: '" + std::string(row.identifier ? "Gone" : "(null)") + "'"});
  }
}

TEST_F(AlbumFriendNodes, UnfiledAlbumsKeepTheStoreOrderAndSkipEveryFiledOne) {
  auto ctx = context(account(ann));
  // Nothing filed anywhere: every album, by title, with its media.
  auto all = nonFoldarizedAlbumswithContext(*ctx, *model("1001"));
  EXPECT_EQ(list_text(all.get()), "album:Beach album:City album:Empty");
  EXPECT_EQ(media_text(nodes_of(all.get())[1]), "333/CCC/1/1");

  // Beach is filed in the shared albums folder (every user's); City's entry stands in the tags folder
  // of ann's own tree, which files it for ann only.
  auto shared_root = sidebar_root();
  auto albums = add_base_folder(*shared_root, kFolderAlbumsIdentifier);
  add_entry(*add_folder(*albums, "Trips"), "beach", album_id(album_uri(beach)));
  home.set_sidebar(kSharedAlbumsUser, albums);
  auto root = sidebar_root();
  add_entry(*add_base_folder(*root, kFolderTagsIdentifier), "city", album_id(album_uri(city)));
  home.set_sidebar("1001", root);
  attach();
  for (auto [user, expected] : {std::pair{"1001", "album:Empty"}, std::pair{"2002", "album:City album:Empty"}}) {
    SCOPED_TRACE(user);
    auto list = nonFoldarizedAlbumswithContext(*ctx, *model(user));
    ASSERT_NE(list, nullptr);
    EXPECT_FALSE(list->is_mutable());
    EXPECT_EQ(list_text(list.get()), expected);
    EXPECT_EQ(text_of(nodes_of(list.get()).back()->identifier.get()), album_id(album_uri(empty)));
  }
  EXPECT_FALSE(ctx->messages);
}

TEST_F(AlbumFriendNodes, FiledFriendCopiesTheRecord) {
  auto ctx = context(account(ann));
  LogCapture log;
  auto node = friendNodeFromItem(*entry(kFolderFavFriendIdentifier, "Carol C.", friend_id(friend_uri(carol))), *ctx);
  // The record's name, not the sidebar title.
  EXPECT_EQ(node_text(node), "friend:carol/31/42/1000.5/https://img.example/carol.jpg");
  EXPECT_EQ(text_of(node->identifier.get()), friend_id(friend_uri(carol)));
  EXPECT_TRUE(as_date(dynamic_cast<MQImporterNodeFriend&>(*node).added.get()));
  // A record with only a name: no media count (0) and no other field.
  EXPECT_EQ(node_text(friendNodeFromItem(*entry(kFolderFavFriendIdentifier, "d", friend_id(friend_uri(dave))), *ctx)),
            "friend:dave//0//");
  EXPECT_TRUE(log.lines().empty());
  EXPECT_FALSE(ctx->messages);
}

TEST_F(AlbumFriendNodes, FriendEntriesOutsideTheContextsAccount) {
  struct Row {
    const char* why;
    bool with_account;  // ann's context, or the shared album context without account
    std::string identifier;
    bool found;
  };
  const std::vector<Row> rows = {
      {"another account's favourite", true, friend_id(friend_uri(erin)), false},
      {"a favourite of no account", true, friend_id(friend_uri(frank)), false},
      {"an album's prefix", true, album_id(friend_uri(carol)), false},
      {"a removed favourite", true, friend_id(friend_uri(77)), false},
      {"no account: ann's favourite", false, friend_id(friend_uri(carol)), false},
      {"no account: a favourite of no account", false, friend_id(friend_uri(frank)), true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    auto ctx = context(row.with_account ? account(ann) : nullptr);
    LogCapture log;
    auto node = friendNodeFromItem(*entry(kFolderFavFriendIdentifier, "Pal", row.identifier), *ctx);
    EXPECT_EQ(node != nullptr, row.found);
    if (row.found) {
      EXPECT_TRUE(log.lines().empty());
      EXPECT_FALSE(ctx->messages);
    } else {
      EXPECT_EQ(log.lines(), std::vector<std::string>{"no friend for identifier " + row.identifier + " found"});
      EXPECT_EQ(messages_of(*ctx), std::vector<std::string>{"Unknown favorite friend: 'Pal'"});
    }
  }
}

TEST_F(AlbumFriendNodes, UnfiledFriendsAreTheContextAccountsOnly) {
  auto root = sidebar_root();
  add_entry(*add_base_folder(*root, kFolderFavFriendIdentifier), "carol", friend_id(friend_uri(carol)));
  home.set_sidebar("1001", root);
  struct Row {
    const char* why;
    std::int64_t account;  // 0: no account
    const char* user;
    const char* names;
  };
  const std::vector<Row> rows = {
      {"ann, carol filed", ann, "1001", "friend:dave//0//"},
      {"ann, nothing filed", ann, "2002", "friend:carol/31/42/1000.5/https://img.example/carol.jpg friend:dave//0//"},
      {"bob", bob, "2002", "friend:erin/33/0//"},
      {"no account", 0, "*--*albums*--*", "friend:frank/34/0//"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    auto ctx = context(row.account ? account(row.account) : nullptr);
    auto list = nonFoldarizedFriendswithContext(*ctx, *model(row.user));
    ASSERT_NE(list, nullptr);
    EXPECT_FALSE(list->is_mutable());
    EXPECT_EQ(list_text(list.get()), row.names);
    EXPECT_FALSE(ctx->messages);
  }
}

}  // namespace
}  // namespace orvia::test
