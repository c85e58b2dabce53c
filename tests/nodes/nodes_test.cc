// Node builders over a legacy installation: sidebar entries matched to the favourite lists of the
// preferences and to the records of the store, the unfiled favourites collected, album media read
// ahead while the reply is archived, and the export of a whole sidebar model into the category trees
// of one import result.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "nodes/folder_export.h"
#include "nodes/importer_context.h"
#include "nodes/node_builders.h"
#include "outline/outline_folder_model.h"
#include "platform/log.h"
#include "records/records.h"
#include "support/legacy_home.h"

namespace orvia::test {
namespace {

const std::string kTags(kFolderTagsIdentifier), kAlbums(kFolderAlbumsIdentifier), kFriends(kFolderFavFriendIdentifier),
    kPlaces(kFolderLocationsIdentifier);

std::string text(const MQImporterNode* n);
// The nodes of a list as text, separated by spaces.
std::string list_text(const Object* list) {
  std::string out;
  if (const Array* a = as_array(list)) {
    for (const auto& o : a->items()) out += (out.empty() ? "" : " ") + text(dynamic_cast<MQImporterNode*>(o.get()));
  }
  return out;
}
// A node as one text with all its fields (absent ones empty), "-" for none: "tag:sunset/5@favtag-sunset",
// "loc:My spot(1.5,-2.25)@location-123", "album:Beach@ff-ImageList/p1", "friend:carol/31/42/d1000.5/<image>@fa-..."
// and a folder "Title#<contents code>[children]" ("(no list)" without one), "@identifier" when it has one;
// then " (type N)" when the type does not match the class, "!" for a root, " ignored". Base folders show by
// their short names, object URIs without scheme and store.
std::string text(const MQImporterNode* n) {
  if (!n) return "-";
  auto num = [](const Ref<Object>& o) {
    if (const Date* d = as_date(o.get())) return fmt::format("d{}", d->time());
    return o ? (as_number(o.get()) ? fmt::format("{}", as_number(o.get())->real_value()) : "?") : std::string();
  };
  auto txt = [](const Ref<Object>& o) { return std::string(text_of(o.get())); };
  std::string s, id = n->identifier ? "@" + txt(n->identifier) : "";
  std::uint64_t type = MQImporterNodeTypeFolder;
  if (auto* t = dynamic_cast<const MQImporterNodeTag*>(n)) {
    s = "tag:" + txt(t->tagName) + "/" + std::to_string(t->tagCount) + id, type = MQImporterNodeTypeTag;
  } else if (auto* l = dynamic_cast<const MQImporterNodeLocation*>(n)) {
    s = "loc:" + txt(l->name) + "(" + num(l->latitude) + "," + num(l->longitude) + ")" + id, type = MQImporterNodeTypeLocation;
  } else if (auto* a = dynamic_cast<const MQImporterNodeAlbum*>(n)) {
    s = "album:" + txt(a->albumName) + id, type = MQImporterNodeTypeAlbum;
  } else if (auto* f = dynamic_cast<const MQImporterNodeFriend*>(n)) {
    s = "friend:" + txt(f->username) + "/" + txt(f->uid) + "/" + std::to_string(f->mediaCount) + "/" + num(f->added) +
        "/" + txt(f->imageURLString) + id;
    type = MQImporterNodeTypeFriend;
  } else if (auto* f = dynamic_cast<const MQImporterNodeFolder*>(n)) {
    s = txt(f->title) + id + "#" + std::to_string(f->contentsType) +
        (f->childList() ? "[" + list_text(f->children.get()) + "]" : "(no list)");
  } else {
    s = n->class_name();
  }
  if (n->type != type) s += " (type " + std::to_string(n->type) + ")";
  static const std::regex base("com\\.brenvik\\.velmora\\.folder(\\w+?)Identifier"), uri("x-coredata://[0-9A-F-]+/");
  s = std::regex_replace(std::regex_replace(s, base, "$1"), uri, "");
  return s + (n->isRoot ? "!" : "") + (n->ignoreInExport ? " ignored" : "");
}
std::string text(const Ref<Object>& n) {
  return as_array(n.get()) ? list_text(n.get()) : text(dynamic_cast<MQImporterNode*>(n.get()));
}

// What a call left behind: its log lines in brackets, then the context's messages in angle brackets.
std::string said(const LogCapture& log, const MQImporterContext& ctx) {
  std::string s;
  for (const std::string& line : log.lines()) s += "[" + line + "]";
  if (ctx.messages) {
    for (const auto& m : ctx.messages->items()) s += "<" + std::string(text_of(m.get())) + ">";
  }
  return s;
}

// The text of what a call gave, then what it left behind.
template <class Call>
std::string outcome(const MQImporterContext& ctx, Call call) {
  LogCapture log;
  const std::string got = text(Ref<Object>(call()));
  return got + said(log, ctx);
}

// Entries of the favourite lists: a tag with its count, a place with its id and position.
Ref<Dictionary> tag(std::string_view name, Ref<Object> count = nullptr) {
  return count ? dict({{"tag", str(name)}, {"count", count}}) : dict({{"tag", str(name)}});
}
Ref<Dictionary> place(Ref<Object> id, std::string_view name, Ref<Object> lat = nullptr, Ref<Object> lon = nullptr) {
  auto d = mutable_dict();
  if (id) d->set("id", id);
  d->set("name", str(name));
  if (lat) d->set("latitude", lat);
  if (lon) d->set("longitude", lon);
  return d;
}

// A legacy installation: accounts ann, bob and one without user id; albums Beach (two media, the second
// a video), Empty and City (one); ann's favourites in the default order (most unseen first) carol and
// dave, bob's erin, and frank of no account; ann's favourite tags sunset (5), zeta and alpha, and her
// favourite places 1, 2, 3, 7 and 8.
class Nodes : public ::testing::Test {
 protected:
  void SetUp() override {
    register_record_classes();
    register_outline_classes();
    LegacyStore& s = home.store();
    ann = s.add_account("1001", "ann"), bob = s.add_account("2002", "bob"), nouid = s.add_account(std::nullopt, "nouid");
    beach = s.add_album("Beach", 10), empty = s.add_album("Empty", 20), city = s.add_album("City", 30);
    s.add_image(beach, media_archive(*older_media("111_1", "https://ig.example/p/AAA")));
    s.add_image(beach, media_archive(*older_media("222_1", "https://ig.example/p/BBB/", "x", "ann", true)));
    s.add_image(city, media_archive(*older_media("333", "https://ig.example/p/CCC")));
    carol = s.add_friend({.uid = "31", .name = "carol", .image_url = "https://img.example/carol.jpg", .added = 1000.5,
                          .unread_count = 9, .media_count = 42, .account = ann});
    dave = s.add_friend({.name = "dave", .unread_count = 1, .account = ann});
    erin = s.add_friend({.uid = "33", .name = "erin", .account = bob});
    frank = s.add_friend({.uid = "34", .name = "frank"});
    home.set_in("FavoriteSidebarTags", "1001", array({tag("sunset", num(5)), tag("zeta"), tag("alpha")}));
    home.set_in("FavoriteSidebarLocations", "1001", array({place(str("1"), "One"), place(str("2"), "Two"),
                                                           place(str("3"), "Three"), place(str("7"), "zulu"),
                                                           place(str("8"), "alpha")}));
  }
  // Writes the installation and attaches its store (once; later calls rewrite the preferences only).
  void attach() {
    if (store) return home.write_preferences();
    auto attached = home.attach();
    ASSERT_TRUE(attached.ok()) << attached.error().message;
    store = attached.value();
  }
  Ref<MQImporterContext> context(std::int64_t pk) {  // 0: the shared albums' context, without account
    attach();
    Ref<Account> account;
    auto accounts = store->currentAccounts();
    for (const auto& a : *accounts)
      if (a->primaryKey() == pk) account = a;
    return MQImporterContext::contextWithDefaults(home.defaults(), account, store);
  }
  Ref<OutlineFolderModel> model(std::string_view user) {
    attach();
    return OutlineFolderModel::initWithExistingUser(user, false, home.defaults());
  }
  std::string album(std::int64_t pk) { return album_id(home.store().uri(LegacyStore::kImageList, pk)); }
  std::string pal(std::int64_t pk) { return friend_id(home.store().uri(LegacyStore::kFriend, pk)); }
  // A leaf entry of a base folder, standing in a tree of its own.
  static Ref<OutlineFolderItem> entry(std::string_view base, std::string_view title, Ref<Object> identifier) {
    auto item = add_entry(*add_base_folder(*sidebar_root(), base), title, "");
    item->identifier = std::move(identifier);
    return item;
  }

  LegacyHome home;
  Ref<MQCoreDataWrapper> store;
  std::int64_t ann, bob, nouid, beach, empty, city, carol, dave, erin, frank;
};

// ---- the favourite lists of the preferences, tags and locations

TEST_F(Nodes, PerAccountEntrySearch) {
  auto e = [](std::string_view name, int n) { return dict({{"tag", str(name)}, {"n", num(n)}}); };
  auto per_ann = [](Ref<Array> list) { return dict({{"1001", list}}); };
  const std::tuple<const char*, Ref<Object>, std::int64_t, std::string> rows[] = {  // "@": the account's text
      {"base absent", nullptr, ann, "-[wrong base for @]"},
      {"base a list", array({str("x")}), ann, "-[wrogn kind of class: (\n    x\n)]"},
      {"no entry for the account", dict({{"2002", array({e("sunset", 0)})}}), ann, "-[wrong entry for @]"},
      {"account's value a dictionary", dict({{"1001", dict({{"tag", str("sunset")}})}}), ann,
       "-[wrogn kind of class: {\n    tag = sunset;\n}]"},
      {"shared album context without account", per_ann(array({e("sunset", 0)})), 0, "-[wrong entry for (null)]"},
      {"account without user id", per_ann(array({e("sunset", 0)})), nouid, "-[wrong entry for @]"},
      {"no match (case counts)", per_ann(array({e("Sunset", 0), dict({{"n", num(1)}})})), ann,
       "-[could not find anything for tag with sunset]"},
      {"string before the match", per_ann(array({str("junk"), e("sunset", 1)})), ann, "-[item is no dictionary: junk]"},
      {"match before a string", per_ann(array({e("sunset", 0), str("junk")})), ann, "n=0"},
      {"two matches: the first wins", per_ann(array({e("beach", 0), e("sunset", 1), e("sunset", 2)})), ann, "n=1"},
  };
  for (const auto& [why, base, who, expected] : rows) {
    if (base) home.set("FavoriteSidebarTags", base);
    else home.remove("FavoriteSidebarTags");
    auto ctx = context(who);
    LogCapture log;
    Ref<Dictionary> found = defaultsEntryWithBase(kFavoriteSidebarTags, "tag", str("sunset").get(), *ctx);
    std::string want = expected;
    if (auto at = want.find('@'); at != std::string::npos) want.replace(at, 1, ctx->account->description());
    // The entries never speak to the user.
    EXPECT_EQ((found ? "n=" + std::to_string(as_number(found->get("n"))->int_value()) : "-") + said(log, *ctx), want) << why;
  }
}

TEST_F(Nodes, FiledTagsAndLocations) {
  home.set_in("FavoriteSidebarTags", "1001",
              array({tag("sunset", num(5)), tag("beach", str("12abc")), tag("Night", num(3)), tag("\xC3\xA4rger", num(2)),
                     tag("dawn")}));
  home.set_in("FavoriteSidebarLocations", "1001",
              array({place(str("123"), "Spot", real(1.5), real(-2.25)), place(str("abc"), "Lower")}));
  const std::tuple<const char*, std::string_view, Ref<Object>, std::string> rows[] = {
      {"prefix", kTags, str("favtag-sunset"), "tag:sunset/5@favtag-sunset"},
      {"prefix twice", kTags, str("favtag-favtag-sunset"), "tag:sunset/5@favtag-favtag-sunset"},
      {"prefix inside", kTags, str("sunfavtag-set"), "tag:sunset/5@sunfavtag-set"},
      {"lower-cased before the search", kTags, str("favtag-SunSet"), "tag:sunset/5@favtag-SunSet"},
      {"non-ASCII lower-casing", kTags, str("favtag-\xC3\x84RGER"), "tag:\xC3\xA4rger/2@favtag-\xC3\x84RGER"},
      {"count read from a string", kTags, str("favtag-beach"), "tag:beach/12@favtag-beach"},
      {"count missing", kTags, str("favtag-dawn"), "tag:dawn/0@favtag-dawn"},
      {"stored with a capital", kTags, str("favtag-night"), "-[could not find anything for tag with night]"},
      {"nothing after the prefix", kTags, str("favtag-"), "-[could not find anything for tag with ]"},
      {"no identifier", kTags, nullptr, "-[could not find anything for tag with (null)]"},
      // A location is named after its sidebar entry.
      {"prefix", kPlaces, str("location-123"), "loc:My spot(1.5,-2.25)@location-123"},
      {"same id", kPlaces, str("location-abc"), "loc:My spot(,)@location-abc"},
      {"id differing in case", kPlaces, str("location-ABC"), "-[could not find anything for id with ABC]"},
      {"unknown id", kPlaces, str("location-999"), "-[could not find anything for id with 999]"},
  };
  auto ctx = context(ann);
  for (const auto& [why, base, identifier, expected] : rows) {
    LogCapture log;
    auto item = entry(base, "My spot", identifier);
    auto node = base == kTags ? tagNodeFromItem(*item, *ctx) : locationNodeFromItem(*item, *ctx);
    EXPECT_EQ(text(node.get()) + said(log, *ctx), expected) << why;
  }
}

TEST_F(Nodes, UnfiledTagsAndLocations) {
  home.set_in("FavoriteSidebarTags", "1001",
              array({tag("Sunset", num(3)), tag("beach"), dict({{"count", num(4)}}), tag("filed", num(1))}));
  home.set("IGFavouriteTags", array({str("sunset"), num(42), str("night"), str("filed")}));
  home.set_in("FavoriteSidebarLocations", "1001",
              array({place(str("1"), "One", real(10.5), real(20.5)), place(nullptr, "NoId"), place(str("2"), "Two"),
                     place(str("one"), "Lower")}));
  home.set("IGFavouriteLocations",
           array({place(str("1"), "One", real(10.5), real(20.5)), place(nullptr, "NoIdPlain", real(3)), str("Paris")}));
  // The plain lists are never checked against the sidebar.
  const std::string plain = "tag:sunset/0@sunset tag:night/0@night tag:filed/0@filed";
  const std::tuple<const char*, std::int64_t, std::vector<std::string>, std::string> rows[] = {
      {"one filed", ann, {favtag_id("filed")}, "tag:Sunset/3@Sunset tag:beach/0@beach " + plain},
      {"filed under the lower-cased name", ann, {favtag_id("filed"), "favtag-sunset"}, "tag:beach/0@beach " + plain},
      {"filed under the stored case", ann, {"favtag-Sunset", favtag_id("filed")},
       "tag:Sunset/3@Sunset tag:beach/0@beach " + plain},
      {"no account", 0, {}, plain},
  };
  for (const auto& [why, who, filed, expected] : rows) {
    auto root = sidebar_root();
    auto tags = add_base_folder(*root, kTags);
    for (const auto& id : filed) add_entry(*tags, id, id);
    // Filed locations: the second differs from "one" in case only.
    auto places = add_folder(*add_base_folder(*root, kPlaces), "Places");
    for (const auto& id : {location_id("2"), location_id("ONE")}) add_entry(*places, id, id);
    home.set_sidebar("1001", root);
    auto ctx = context(who);
    std::string got = outcome(*ctx, [&] { return nonFoldarizedTagswithContext(*ctx, *model("1001")); });
    EXPECT_EQ(got, expected + (who ? "[invalid class for favorite tag: 42]<Invalid favorite tag '{\n    count = 4;\n}'>"
                                   : "[wrong entry for (null)][invalid class for favorite tag: 42]") +
                       "<Invalid favorite tag '42'>") << why;
    if (why != std::string("one filed") && why != std::string("no account")) continue;
    ctx = context(who);
    got = outcome(*ctx, [&] { return nonFoldarizedLocationswithContext(*ctx, *model("1001")); });
    EXPECT_EQ(got, who ? "loc:One(10.5,20.5)@1 loc:Lower(,)@one loc:One(10.5,20.5)@1 loc:NoIdPlain(3,)"
                         "[invalid class for favorite location: Paris]<Invalid favorite location '{\n    name = NoId;\n}'>"
                         "<Invalid favorite location 'Paris'>"
                       : "loc:One(10.5,20.5)@1 loc:NoIdPlain(3,)[wrong entry for (null)][invalid class for favorite "
                         "location: Paris]<Invalid favorite location 'Paris'>");
  }
  // Neither tag key: nothing, one log line, no message.
  home.remove("FavoriteSidebarTags").remove("IGFavouriteTags");
  auto ctx = context(ann);
  EXPECT_EQ(outcome(*ctx, [&] { return nonFoldarizedTagswithContext(*ctx, *model("1001")); }),
            "[wrong base for " + ctx->account->description() + "]");
}

// ---- albums and favourite friends: store records matched by their object URIs ("ff-<URI>", "fa-<URI>")

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

TEST_F(Nodes, AlbumsCarryTheStoreTitleAndConvertedMediaFiledOrNot) {
  auto ctx = context(ann);
  LogCapture log;
  auto node = albumNodeFromItem(*entry(kAlbums, "My beach", str(album(beach))), *ctx);
  EXPECT_EQ(text(node.get()), "album:Beach@ff-ImageList/p1");  // the store's title, not the sidebar's
  // The media are converted as the reply is archived, in the relationship's order (the second a video).
  EXPECT_EQ(media_text(node.get()), "111_1/AAA/1/1 222_1//2/1");
  EXPECT_EQ(media_text(albumNodeFromItem(*entry(kAlbums, "Nothing", str(album(empty))), *ctx).get()), "");
  EXPECT_EQ(said(log, *ctx), "");
  // Entries that match no album.
  const std::pair<const char*, Ref<Object>> rows[] = {
      {"deleted album", str(album(99))},
      {"a favourite friend's prefix", str(pal(beach))},
      {"another store's UUID", str("ff-x-coredata://00000000-0000-0000-0000-000000000000/ImageList/p1")},
      {"letter case", str("FF" + album(beach).substr(2))},
      {"no identifier and no title", nullptr},
  };
  for (const auto& [why, id] : rows) {
    ctx->messages = nullptr;
    auto item = entry(kAlbums, "Gone", id);
    if (!id) item->title = nullptr;
    EXPECT_EQ(outcome(*ctx, [&] { return albumNodeFromItem(*item, *ctx); }),
              "-[no album for identifier " + std::string(id ? text_of(id.get()) : "(null)") + " found]<Unknown album: '" +
                  (id ? "Gone" : "(null)") + "'>") << why;
  }
  ctx->messages = nullptr;
  // Unfiled albums keep the store order and skip every filed one.
  auto all = nonFoldarizedAlbumswithContext(*ctx, *model("1001"));
  EXPECT_EQ(list_text(all.get()), "album:Beach@ff-ImageList/p1 album:City@ff-ImageList/p3 album:Empty@ff-ImageList/p2");
  EXPECT_EQ(media_text(static_cast<MQImporterNode*>(all->at(1).get())), "333/CCC/1/1");
  // Beach is filed in the shared albums folder (every user's); City's entry stands in the tags folder
  // of ann's own tree, which files it for ann only.
  auto albums = add_base_folder(*sidebar_root(), kAlbums);
  add_entry(*add_folder(*albums, "Trips"), "beach", album(beach));
  home.set_sidebar(kSharedAlbumsUser, albums);
  auto root = sidebar_root();
  add_entry(*add_base_folder(*root, kTags), "city", album(city));
  home.set_sidebar("1001", root);
  attach();
  for (auto [user, expected] : {std::pair{"1001", "album:Empty@ff-ImageList/p2"},
                                std::pair{"2002", "album:City@ff-ImageList/p3 album:Empty@ff-ImageList/p2"}}) {
    auto list = nonFoldarizedAlbumswithContext(*ctx, *model(user));
    EXPECT_FALSE(list->is_mutable());
    EXPECT_EQ(list_text(list.get()), expected);
  }
  EXPECT_FALSE(ctx->messages);
}

TEST_F(Nodes, AlbumsOfOneReplyReadAheadInTheirOrderAndInAnyOther) {
  // The lists of one context are read ahead in the order they were made, across the ends of albums; two
  // threads share the conversion. The archiver may meet the lists in another order, skip some or meet
  // them in a second archive: the members keep their order, and unreadable ones are logged in order.
  LegacyStore& s = home.store();
  const std::vector<int> sizes = {300, 0, 5, 280, 1, 40};  // larger than the read-ahead window, empty, small
  std::vector<std::int64_t> albums;
  std::vector<std::string> ids(sizes.size()), unreadable(sizes.size());  // each album's expected text and log
  for (std::size_t a = 0; a < sizes.size(); ++a) {
    albums.push_back(s.add_album("Album " + std::to_string(a), static_cast<int>(50 + a)));
    for (int i = 0; i < sizes[a]; ++i) {
      const std::string id = fmt::format("{}.{}", a, i);
      const bool damaged = i % 11 == 4, missing = i % 13 == 6;  // bytes that are no archive; no stored record
      std::optional<std::string> bytes;
      if (damaged) bytes = "damaged " + id;
      else if (!missing) bytes = media_archive(*older_media(id, "https://ig.example/p/" + id));
      const std::int64_t key = s.add_image(albums[a], bytes);
      ids[a] += (damaged || missing ? "" : id) + " ";
      if (damaged || missing) unreadable[a] += "[Unreadable media record " + s.uri(LegacyStore::kImageItem, key) + "]";
    }
  }
  // List i is of album made[i].first: each album's own, a second list of album 3, then lists of albums 5
  // and 0 made through another context (another plan).
  auto ctx = context(ann), other = context(ann);
  const std::vector<std::pair<std::size_t, MQImporterContext*>> made = {
      {0, ctx.get()}, {1, ctx.get()}, {2, ctx.get()}, {3, ctx.get()}, {4, ctx.get()},
      {5, ctx.get()}, {3, ctx.get()}, {5, other.get()}, {0, other.get()}};
  std::vector<Ref<Object>> lists;
  for (auto [a, c] : made) {
    auto node = albumNodeFromItem(*entry(kAlbums, "A", str(album_id(s.uri(LegacyStore::kImageList, albums[a])))), *c);
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
      std::vector<Ref<Object>> picked;
      std::string expected, expected_log, got, got_log;
      for (std::size_t k = 0; k < order.size(); ++k) {
        picked.push_back(lists[order[k]]);
        expected += ids[made[order[k]].first] + "| ";
        if (std::find(order.begin(), order.begin() + k, order[k]) == order.begin() + k)
          expected_log += unreadable[made[order[k]].first];
      }
      LogCapture log;
      Ref<Object> copy = copy_through_archive(make<Array>(picked, false).get());
      for (const Ref<Object>& list : as_array(copy.get())->items()) {
        for (const Ref<Object>& m : as_array(list.get())->items())
          got += std::string(text_of(as_dict(m.get()) ? as_dict(m.get())->get("id") : nullptr)) + " ";
        got += "| ";
      }
      for (const std::string& line : log.lines()) got_log += "[" + line.substr(0, line.find(": ")) + "]";
      EXPECT_EQ(got, expected) << ::testing::PrintToString(order) << " run " << run;
      EXPECT_EQ(got_log, expected_log) << ::testing::PrintToString(order) << " run " << run;
    }
  }
}

TEST_F(Nodes, FavouriteFriendsOfTheContextsAccount) {
  // Filed: the record's fields (its name, not the sidebar title); not found outside the context's account.
  const std::tuple<const char*, std::int64_t, std::string, std::string> rows[] = {
      {"ann's favourite", ann, pal(carol), "friend:carol/31/42/d1000.5/https://img.example/carol.jpg@fa-Friend/p1"},
      {"a record with only a name", ann, pal(dave), "friend:dave//0//@fa-Friend/p2"},
      {"another account's favourite", ann, pal(erin), "-"},
      {"a favourite of no account", ann, pal(frank), "-"},
      {"an album's prefix", ann, album(carol), "-"},
      {"a removed favourite", ann, pal(77), "-"},
      {"no account: ann's favourite", 0, pal(carol), "-"},
      {"no account: a favourite of no account", 0, pal(frank), "friend:frank/34/0//@fa-Friend/p4"},
  };
  for (const auto& [why, who, id, expected] : rows) {
    auto ctx = context(who);
    EXPECT_EQ(outcome(*ctx, [&] { return friendNodeFromItem(*entry(kFriends, "Pal", str(id)), *ctx); }),
              expected + (expected != "-" ? "" : "[no friend for identifier " + id + " found]<Unknown favorite friend: 'Pal'>"))
        << why;
  }
  // Unfiled: the context account's favourites not filed in the user's tree.
  auto root = sidebar_root();
  add_entry(*add_base_folder(*root, kFriends), "carol", pal(carol));
  home.set_sidebar("1001", root);
  const std::tuple<std::int64_t, const char*, std::string> unfiled[] = {
      {ann, "1001", "friend:dave//0//@fa-Friend/p2"},
      {ann, "2002", "friend:carol/31/42/d1000.5/https://img.example/carol.jpg@fa-Friend/p1 friend:dave//0//@fa-Friend/p2"},
      {bob, "2002", "friend:erin/33/0//@fa-Friend/p3"},
      {0, "*--*albums*--*", "friend:frank/34/0//@fa-Friend/p4"},
  };
  for (const auto& [who, user, expected] : unfiled) {
    auto ctx = context(who);
    auto list = nonFoldarizedFriendswithContext(*ctx, *model(user));
    EXPECT_FALSE(list->is_mutable());
    EXPECT_EQ(list_text(list.get()), expected) << who << " " << user;
    EXPECT_FALSE(ctx->messages);
  }
}

// ---- dispatch, folders and the export of a whole model

TEST_F(Nodes, EntriesAreBuiltByTheirOwnTypeAndEveryContextKeepsItsOwnMessages) {
  const std::tuple<const char*, Ref<Object>, std::string_view, std::string> rows[] = {
      {"tag in the albums tree", str(kTags), kAlbums, "tag:sunset/5@favtag-sunset"},
      {"album in the tags tree", str(kAlbums), kTags, "album:Beach@ff-ImageList/p1"},
      {"favourite friend", str(kFriends), kFriends, "friend:carol/31/42/d1000.5/https://img.example/carol.jpg@fa-Friend/p1"},
      {"location", str(kPlaces), kPlaces, "loc:Entry(,)@location-1"},
      {"letter case", str("com.brenvik.velmora.foldertagsidentifier"), kTags,
       "-[Invalid Node Type: com.brenvik.velmora.foldertagsidentifier (category: " + kTags + ")]<Could not export 'Entry'>"},
      {"no type", nullptr, kAlbums, "-[Invalid Node Type: (null) (category: " + kAlbums + ")]<Could not export 'Entry'>"},
  };
  auto ctx = context(ann);
  for (const auto& [why, type, category, expected] : rows) {
    ctx->messages = nullptr;
    const std::string_view t = text_of(type.get());
    auto item = entry(category, "Entry", str(t == kAlbums    ? album(beach)
                                             : t == kFriends ? pal(carol)
                                             : t == kPlaces  ? location_id("1")
                                                             : favtag_id("sunset")));
    item->type = type;
    EXPECT_EQ(outcome(*ctx, [&] { return nodeFromItem(*item, category, *ctx); }), expected) << why;
  }
  // A category no builder knows: folders of no contents code, no unfiled entries and a log line.
  EXPECT_EQ(text(folderNode(*sidebar_root(), "tags", *ctx).get()), "Root#0[]");
  ctx->messages = nullptr;
  for (const std::string& unknown : {std::string("tags"), kTags + "X"})
    EXPECT_EQ(outcome(*ctx, [&] { return nonFoldarizedItemsInCategory(unknown, *ctx, *model("1001")); }),
              "-[Invalid Node Type: " + unknown + "]");
  // Contexts sharing their lookups keep their own messages; none has a list before its first message.
  auto lookups = std::make_shared<ImportLookups>();
  auto first = MQImporterContext::contextWithDefaults(home.defaults(), nullptr, store, lookups);
  auto second = MQImporterContext::contextWithDefaults(home.defaults(), nullptr, store, lookups);
  EXPECT_FALSE(first->messages);
  first->storeMessage("same");
  first->storeMessage("same");
  LogCapture log;
  EXPECT_EQ(nodeFromItem(*entry(kAlbums, "gone", str(album_id("x"))), kAlbums, *second), nullptr);
  EXPECT_EQ(said(log, *first) + said(log, *second), "[no album for identifier ff-x found]<same><same>"
                                                   "[no album for identifier ff-x found]<Unknown album: 'gone'>");
}


std::string result_text(const MQImporterNodeResult& r) {
  return text(r.tags) + " | " + text(r.albums) + " | " + text(r.friends) + " | " + text(r.locations);
}


TEST_F(Nodes, SharedAlbumModelHasOnlyTheAlbumsTree) {
  auto albums = add_base_folder(*sidebar_root(), kAlbums);
  albums->title = str("Shared Albums");  // a stored base folder keeps its title
  add_entry(*add_folder(*albums, "Trips"), "My beach", album(beach));
  home.set_sidebar(kSharedAlbumsUser, albums);
  auto ctx = context(0);
  LogCapture log;
  auto result = folderTreeWithContext(*model(kSharedAlbumsUser), *ctx);
  EXPECT_EQ(said(log, *ctx), "[Unknown item " + kTags + "][Unknown item " + kFriends + "][Unknown item " + kPlaces + "]");
  EXPECT_EQ(result_text(*result), "- | Shared Albums@Albums#2[Trips#2[album:Beach@ff-ImageList/p1] album:City@ff-ImageList/p3 "
                                  "album:Empty@ff-ImageList/p2]! | - | -");
}

TEST_F(Nodes, ExportSortsFiledContentVisitsInOrderAndLeavesOutEntriesWithoutNode) {
  auto shared = add_base_folder(*sidebar_root(), kAlbums);
  add_entry(*shared, "lost album", album(99));
  add_entry(*shared, "sunset in albums", favtag_id("sunset"), kTags);
  home.set_sidebar(kSharedAlbumsUser, shared);
  auto root = sidebar_root();
  // Base folders stored in another order than the visit order.
  auto places = add_base_folder(*root, kPlaces);
  add_entry(*add_base_folder(*root, kFriends), "lost pal", pal(99));
  auto tags = add_base_folder(*root, kTags);
  add_folder(*tags, "Empty");
  auto broken = add_folder(*tags, "Broken");
  add_entry(*broken, "lost tag", favtag_id("nope"));
  add_entry(*broken, "odd", "odd-1", "com.brenvik.velmora.folderTagsidentifier");
  auto put = [](const Ref<OutlineFolderItem>& f, std::vector<std::pair<const char*, const char*>> entries) {
    for (auto [title, id] : entries) add_entry(*f, title, location_id(id));
  };
  auto nine = add_folder(*places, "Folder 9"), ten = add_folder(*places, "Folder 10");
  put(places, {{"b", "1"}, {"B", "2"}, {"a", "3"}, {"lost place", "404"}});
  put(ten, {{"z", "1"}, {"Z", "2"}});
  put(add_folder(*ten, "Y folder"), {{"y2", "2"}, {"Y1", "3"}});
  put(nine, {{"\xC3\xA9t\xC3\xA9", "1"}, {"~", "2"}});  // after every ASCII title
  add_folder(*places, "")->title = nullptr;
  home.set_sidebar("1001", root);
  auto ctx = context(ann);
  auto m = model("1001");
  LogCapture log;
  auto result = folderTreeWithContext(*m, *ctx);
  EXPECT_FALSE(result->account || result->blacklist || result->statistics);
  // Filed content sorted at every level (folders among entries, untitled last), then the unfiled in their
  // stored order; empty folders stay.
  EXPECT_EQ(result_text(*result),
            "Tags@Tags#1[Broken#1[] Empty#1[] tag:zeta/0@zeta tag:alpha/0@alpha]! | Albums@Albums#2[tag:sunset/5@favtag-sunset "
            "album:Beach@ff-ImageList/p1 album:City@ff-ImageList/p3 album:Empty@ff-ImageList/p2]! | FavFriend@FavFriend#4["
            "friend:carol/31/42/d1000.5/https://img.example/carol.jpg@fa-Friend/p1 friend:dave//0//@fa-Friend/p2]! | "
            "Locations@Locations#3[loc:B(,)@location-2 Folder 10#3[Y folder#3[loc:Y1(,)@location-3 loc:y2(,)@location-2] "
            "loc:Z(,)@location-2 loc:z(,)@location-1] Folder 9#3[loc:~(,)@location-2 loc:\xC3\xA9t\xC3\xA9(,)@location-1] "
            "loc:a(,)@location-3 loc:b(,)@location-1 #3[] loc:zulu(,)@7 loc:alpha(,)@8]!");
  auto line = [&](std::string_view id, const std::string& category) {
    return "[invalid imported node for " + m->itemForIdentifier(id)->description() + " in " + category + "]";
  };
  EXPECT_EQ(said(log, *ctx), "[could not find anything for tag with nope]" + line(favtag_id("nope"), kTags) +
                                 "[Invalid Node Type: com.brenvik.velmora.folderTagsidentifier (category: " + kTags + ")]" +
                                 line("odd-1", kTags) + "[no album for identifier " + album(99) + " found]" +
                                 line(album(99), kAlbums) + "[no friend for identifier " + pal(99) + " found]" +
                                 line(pal(99), kFriends) + "[could not find anything for id with 404]" +
                                 line(location_id("404"), kPlaces) + "<Could not export 'odd'><Unknown album: 'lost "
                                 "album'><Unknown favorite friend: 'lost pal'>");
}

TEST_F(Nodes, FoldersThatRecurOrLoopExportOnce) {
  auto root = sidebar_root();
  auto tags = add_base_folder(*root, kTags);
  // A folder that holds its own ancestor, and a chain of 64 folders each holding the next one twice.
  auto loop = add_folder(*tags, "Loop");
  add_entry(*loop, "sunset", favtag_id("sunset"));
  loop->childList()->push_back(tags);
  Ref<OutlineFolderItem> at = add_folder(*tags, "Twice");
  for (int i = 0; i < 64; ++i) {
    auto next = add_folder(*at, "t", "t" + std::to_string(i));
    at->childList()->push_back(next);
    at = next;
  }
  home.set_sidebar("1001", root);
  auto ctx = context(ann);
  auto m = model("1001");
  LogCapture log;
  auto result = folderTreeWithContext(*m, *ctx);
  // The ancestor is left out, and so is every second reference: one folder "t" inside the other, 64 deep.
  std::string chain;
  for (int i = 0; i < 64; ++i) chain += "[t#1";
  EXPECT_EQ(text(result->tags), "Tags@Tags#1[Loop#1[tag:sunset/5@favtag-sunset] Twice#1" + chain + "[]" + std::string(64, ']') +
                                    " tag:zeta/0@zeta tag:alpha/0@alpha]!");
  const std::vector<std::string> lines = log.lines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto& l) { return l.starts_with("invalid imported node"); }), 65);
  EXPECT_EQ(lines[0], "invalid imported node for " + m->itemForIdentifier(kTags)->description() + " in " + kTags);
}

}  // namespace
}  // namespace orvia::test
