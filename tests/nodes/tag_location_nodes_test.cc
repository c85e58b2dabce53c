// The legacy favourite lists in the preferences (per account and plain) and the tag and location nodes
// built from them, filed through a sidebar entry or collected as unfiled.
#include <gtest/gtest.h>

#include "nodes_fixture.h"

namespace orvia::test {
namespace {

class TagLocationNodes : public NodesTest {
 protected:
  void SetUp() override {
    NodesTest::SetUp();
    ann = home.store().add_account("1001", "ann");
    nouid = home.store().add_account(std::nullopt, "nouid");
  }
  // The description text that "%@" gives for the context's account.
  static std::string account_text(const MQImporterContext& ctx) {
    return ctx.account ? ctx.account->description() : "(null)";
  }
  // A stored sidebar for ann holding leaf entries with these identifiers in its tags and locations
  // folders.
  void file_for_ann(std::vector<std::string> tag_ids, std::vector<std::string> location_ids) {
    auto root = sidebar_root();
    auto tags = add_base_folder(*root, kFolderTagsIdentifier);
    for (const auto& id : tag_ids) add_entry(*tags, id, id);
    auto places = add_folder(*add_base_folder(*root, kFolderLocationsIdentifier), "Places");
    for (const auto& id : location_ids) add_entry(*places, id, id);
    home.set_sidebar("1001", root);
  }
  Ref<OutlineFolderItem> entry(std::string_view base, std::string_view title, Ref<Object> identifier) {
    auto root = sidebar_root();
    auto item = add_entry(*add_base_folder(*root, base), title, "");
    item->identifier = std::move(identifier);
    return item;
  }

  std::int64_t ann = 0, nouid = 0;
};

Ref<Dictionary> tag(std::string_view name, Ref<Object> count = nullptr) {
  auto d = mutable_dict({{"tag", str(name)}});
  if (count) d->set("count", count);
  return d;
}

TEST_F(TagLocationNodes, PerAccountEntrySearchFailures) {
  enum Who { Ann, NoUid, NoAccount };
  struct Row {
    const char* why;
    Ref<Object> base;  // the value of "FavoriteSidebarTags"; null: absent
    Who who;
    int found;  // the "n" of the entry found, or -1
    std::vector<std::string> log;  // "@" stands for the account's description
  };
  auto entry = [](std::string_view name, int n) { return dict({{"tag", str(name)}, {"n", num(n)}}); };
  auto per_ann = [](Ref<Array> list) { return dict({{"1001", list}}); };
  const std::vector<Row> rows = {
      {"base absent", nullptr, Ann, -1, {"wrong base for @"}},
      {"base a list", array({str("x")}), Ann, -1, {"wrogn kind of class: (\n    x\n)"}},
      {"no entry for the account", dict({{"2002", array({entry("sunset", 0)})}}), Ann, -1, {"wrong entry for @"}},
      {"account's value a dictionary", dict({{"1001", dict({{"tag", str("sunset")}})}}), Ann, -1,
       {"wrogn kind of class: {\n    tag = sunset;\n}"}},
      {"shared album context without account", per_ann(array({entry("sunset", 0)})), NoAccount, -1,
       {"wrong entry for (null)"}},
      {"account without user id", per_ann(array({entry("sunset", 0)})), NoUid, -1, {"wrong entry for @"}},
      {"empty list", per_ann(array()), Ann, -1, {"could not find anything for tag with sunset"}},
      {"string before the match", per_ann(array({str("junk"), entry("sunset", 1)})), Ann, -1,
       {"item is no dictionary: junk"}},
      {"match before a string", per_ann(array({entry("sunset", 0), str("junk")})), Ann, 0, {}},
      {"two matches: the first wins", per_ann(array({entry("beach", 0), entry("sunset", 1), entry("sunset", 2)})),
       Ann, 1, {}},
      {"stored with a capital", per_ann(array({entry("Sunset", 0)})), Ann, -1,
       {"could not find anything for tag with sunset"}},
      {"entry without the field", per_ann(array({dict({{"n", num(0)}})})), Ann, -1,
       {"could not find anything for tag with sunset"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    if (row.base) home.set("FavoriteSidebarTags", row.base);
    else home.remove("FavoriteSidebarTags");
    auto ctx = context(row.who == Ann ? account(ann) : row.who == NoUid ? account(nouid) : nullptr);
    LogCapture log;
    Ref<Dictionary> found = defaultsEntryWithBase(kFavoriteSidebarTags, "tag", str("sunset").get(), *ctx);
    if (row.found < 0) {
      EXPECT_EQ(found, nullptr);
    } else {
      ASSERT_NE(found, nullptr);
      EXPECT_EQ(as_number(found->get("n"))->int_value(), row.found);
    }
    std::vector<std::string> expected;
    for (std::string line : row.log) {
      if (auto at = line.find('@'); at != std::string::npos) line.replace(at, 1, account_text(*ctx));
      expected.push_back(line);
    }
    EXPECT_EQ(log.lines(), expected);
    EXPECT_FALSE(ctx->messages);  // the entries never speak to the user
  }
}

TEST_F(TagLocationNodes, FiledTags) {
  home.set_in("FavoriteSidebarTags", "1001",
              array({tag("sunset", num(5)), tag("beach", str("12abc")), tag("Night", num(3)),
                     tag("\xC3\xA4rger", num(2)), tag("dawn"), tag("dusk", str("x"))}));
  const std::tuple<const char*, Ref<Object>, std::string, const char*> rows[] = {  // node, log line
      {"prefix", str("favtag-sunset"), "tag:sunset/5", nullptr},
      {"prefix twice", str("favtag-favtag-sunset"), "tag:sunset/5", nullptr},
      {"prefix inside", str("sunfavtag-set"), "tag:sunset/5", nullptr},
      {"lower-cased before the search", str("favtag-SunSet"), "tag:sunset/5", nullptr},
      {"non-ASCII lower-casing", str("favtag-\xC3\x84RGER"), "tag:\xC3\xA4rger/2", nullptr},
      {"count read from a string", str("favtag-beach"), "tag:beach/12", nullptr},
      {"count missing", str("favtag-dawn"), "tag:dawn/0", nullptr},
      {"count not numeric", str("favtag-dusk"), "tag:dusk/0", nullptr},
      {"stored with a capital", str("favtag-night"), "-", "could not find anything for tag with night"},
      {"nothing after the prefix", str("favtag-"), "-", "could not find anything for tag with "},
      {"no identifier", nullptr, "-", "could not find anything for tag with (null)"},
  };
  auto ctx = context(account(ann));
  for (const auto& [why, identifier, expected, line] : rows) {
    SCOPED_TRACE(why);
    LogCapture log;
    auto node = tagNodeFromItem(*entry(kFolderTagsIdentifier, "Title", identifier), *ctx);
    EXPECT_EQ(node_text(node), expected);
    if (node) EXPECT_EQ(node->identifier.get(), identifier.get());  // the sidebar's, prefix and case kept
    EXPECT_EQ(log.lines(), line ? std::vector<std::string>{line} : std::vector<std::string>{});
  }
  EXPECT_FALSE(ctx->messages);
}

TEST_F(TagLocationNodes, UnfiledTags) {
  home.set_in("FavoriteSidebarTags", "1001",
              array({tag("Sunset", num(3)), tag("beach"), dict({{"count", num(4)}}), tag("filed", num(1))}));
  home.set("IGFavouriteTags", array({str("sunset"), num(42), str("night"), str("filed")}));
  struct Row {
    const char* why;
    bool with_account;
    std::vector<std::string> filed;
    std::string nodes;
  };
  const std::string plain = "tag:sunset/0 tag:night/0 tag:filed/0";  // never checked against the sidebar
  const std::vector<Row> rows = {
      {"one filed", true, {favtag_id("filed")}, "tag:Sunset/3 tag:beach/0 "},
      {"filed under the lower-cased name", true, {favtag_id("filed"), "favtag-sunset"}, "tag:beach/0 "},
      {"filed under the stored case", true, {"favtag-Sunset", favtag_id("filed")}, "tag:Sunset/3 tag:beach/0 "},
      {"no account", false, {}, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    file_for_ann(row.filed, {});
    auto ctx = context(row.with_account ? account(ann) : nullptr);
    LogCapture log;
    auto list = nonFoldarizedTagswithContext(*ctx, *model("1001"));
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list_text(list.get()), row.nodes + plain);
    for (auto* t : nodes_of<MQImporterNodeTag>(list.get()))
      EXPECT_EQ(text_of(t->identifier.get()), text_of(t->tagName.get()));
    std::vector<std::string> messages = {"Invalid favorite tag '42'"};
    if (row.with_account) messages.insert(messages.begin(), "Invalid favorite tag '{\n    count = 4;\n}'");
    EXPECT_EQ(messages_of(*ctx), messages);
    EXPECT_EQ(lines_starting(log, "invalid class"), std::vector<std::string>{"invalid class for favorite tag: 42"});
  }

  // Neither key: nothing, one log line, no message.
  home.remove("FavoriteSidebarTags").remove("IGFavouriteTags");
  auto ctx = context(account(ann));
  LogCapture log;
  auto list = nonFoldarizedTagswithContext(*ctx, *model("1001"));
  ASSERT_NE(list, nullptr);
  EXPECT_TRUE(list->empty());
  EXPECT_EQ(log.lines(), std::vector<std::string>{"wrong base for " + account_text(*ctx)});
  EXPECT_FALSE(ctx->messages);
}

Ref<Dictionary> place(Ref<Object> id, std::string_view name, Ref<Object> lat = nullptr, Ref<Object> lon = nullptr) {
  auto d = mutable_dict();
  if (id) d->set("id", id);
  d->set("name", str(name));
  if (lat) d->set("latitude", lat);
  if (lon) d->set("longitude", lon);
  return d;
}

TEST_F(TagLocationNodes, FiledLocations) {
  home.set_in("FavoriteSidebarLocations", "1001",
              array({place(str("123"), "Spot", real(1.5), real(-2.25)), place(str("abc"), "Lower")}));
  // The sidebar's title, not the stored name.
  const std::tuple<const char*, std::string, std::string, const char*> rows[] = {  // node, log line
      {"prefix", "location-123", "loc:My spot@location-123(1.5,-2.25)", nullptr},
      {"prefix twice", "location-location-123", "loc:My spot@location-location-123(1.5,-2.25)", nullptr},
      {"same id", "location-abc", "loc:My spot@location-abc(,)", nullptr},
      {"id differing in case", "location-ABC", "-", "could not find anything for id with ABC"},
      {"unknown id", "location-999", "-", "could not find anything for id with 999"},
  };
  auto ctx = context(account(ann));
  for (const auto& [why, identifier, expected, line] : rows) {
    SCOPED_TRACE(why);
    LogCapture log;
    EXPECT_EQ(node_text(locationNodeFromItem(*entry(kFolderLocationsIdentifier, "My spot", str(identifier)), *ctx)),
              expected);
    EXPECT_EQ(log.lines(), line ? std::vector<std::string>{line} : std::vector<std::string>{});
  }
  EXPECT_FALSE(ctx->messages);
}

TEST_F(TagLocationNodes, UnfiledLocations) {
  home.set_in("FavoriteSidebarLocations", "1001",
              array({place(str("1"), "One", real(10.5), real(20.5)), place(nullptr, "NoId"), place(str("2"), "Two"),
                     place(str("one"), "Lower")}));
  home.set("IGFavouriteLocations",
           array({place(str("1"), "One", real(10.5), real(20.5)), place(nullptr, "NoIdPlain", real(3)), str("Paris")}));
  file_for_ann({}, {location_id("2"), location_id("ONE")});  // the second differs from "one" in case only
  struct Row {
    const char* why;
    bool with_account;
    std::string nodes;
    std::vector<std::string> messages;
  };
  const std::vector<Row> rows = {
      {"ann",
       true,
       "loc:One@1(10.5,20.5) loc:Lower@one(,) loc:One@1(10.5,20.5) loc:NoIdPlain@(3,)",
       {"Invalid favorite location '{\n    name = NoId;\n}'", "Invalid favorite location 'Paris'"}},
      {"no account", false, "loc:One@1(10.5,20.5) loc:NoIdPlain@(3,)", {"Invalid favorite location 'Paris'"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    auto ctx = context(row.with_account ? account(ann) : nullptr);
    LogCapture log;
    auto list = nonFoldarizedLocationswithContext(*ctx, *model("1001"));
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list_text(list.get()), row.nodes);
    EXPECT_EQ(messages_of(*ctx), row.messages);
    EXPECT_EQ(lines_starting(log, "invalid class"),
              std::vector<std::string>{"invalid class for favorite location: Paris"});
  }
}

}  // namespace
}  // namespace orvia::test
