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
      {"base a string", str("oops"), Ann, -1, {"wrogn kind of class: oops"}},
      {"no entry for the account", dict({{"2002", array({entry("sunset", 0)})}}), Ann, -1, {"wrong entry for @"}},
      {"account's value a dictionary", dict({{"1001", dict({{"tag", str("sunset")}})}}), Ann, -1,
       {"wrogn kind of class: {\n    tag = sunset;\n}"}},
      {"account's value a number", dict({{"1001", num(7)}}), Ann, -1, {"wrogn kind of class: 7"}},
      {"shared album context without account", per_ann(array({entry("sunset", 0)})), NoAccount, -1,
       {"wrong entry for (null)"}},
      {"account without user id", per_ann(array({entry("sunset", 0)})), NoUid, -1, {"wrong entry for @"}},
      {"empty list", per_ann(array()), Ann, -1, {"could not find anything for tag with sunset"}},
      {"string before the match", per_ann(array({str("junk"), entry("sunset", 1)})), Ann, -1,
       {"item is no dictionary: junk"}},
      {"number before the match", per_ann(array({num(7), entry("sunset", 1)})), Ann, -1,
       {"item is no dictionary: 7"}},
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
  struct Row {
    const char* why;
    Ref<Object> identifier;
    const char* name;  // nullptr: no node
    std::uint64_t count;
    std::vector<std::string> log;
  };
  const std::vector<Row> rows = {
      {"prefix", str("favtag-sunset"), "sunset", 5, {}},
      {"prefix twice", str("favtag-favtag-sunset"), "sunset", 5, {}},
      {"prefix inside", str("sunfavtag-set"), "sunset", 5, {}},
      {"lower-cased before the search", str("favtag-SunSet"), "sunset", 5, {}},
      {"non-ASCII lower-casing", str("favtag-\xC3\x84RGER"), "\xC3\xA4rger", 2, {}},
      {"count read from a string", str("favtag-beach"), "beach", 12, {}},
      {"count missing", str("favtag-dawn"), "dawn", 0, {}},
      {"count not numeric", str("favtag-dusk"), "dusk", 0, {}},
      {"stored with a capital", str("favtag-night"), nullptr, 0, {"could not find anything for tag with night"}},
      {"nothing after the prefix", str("favtag-"), nullptr, 0, {"could not find anything for tag with "}},
      {"no identifier", nullptr, nullptr, 0, {"could not find anything for tag with (null)"}},
  };
  auto ctx = context(account(ann));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    LogCapture log;
    auto item = entry(kFolderTagsIdentifier, "Title", row.identifier);
    auto node = tagNodeFromItem(*item, *ctx);
    if (!row.name) {
      EXPECT_EQ(node, nullptr);
    } else {
      auto* t = dynamic_cast<MQImporterNodeTag*>(node.get());
      ASSERT_NE(t, nullptr);
      EXPECT_EQ(t->type, MQImporterNodeTypeTag);
      EXPECT_EQ(t->identifier.get(), row.identifier.get());  // the sidebar's, prefix and case kept
      EXPECT_EQ(text_of(t->tagName.get()), row.name);
      EXPECT_EQ(t->tagCount, row.count);
      EXPECT_FALSE(t->isRoot || t->ignoreInExport);
    }
    EXPECT_EQ(log.lines(), row.log);
  }
  EXPECT_FALSE(ctx->messages);
}

TEST_F(TagLocationNodes, UnfiledTags) {
  home.set_in("FavoriteSidebarTags", "1001",
              array({tag("Sunset", num(3)), tag("beach"), dict({{"count", num(4)}}), tag("filed", num(1))}));
  home.set("IGFavouriteTags", array({str("sunset"), num(42), str("night"), str("filed")}));
  using Nodes = std::vector<std::pair<std::string, std::uint64_t>>;  // identifier (= name), count
  struct Row {
    const char* why;
    bool with_account;
    std::vector<std::string> filed;
    Nodes nodes;
  };
  const Nodes plain = {{"sunset", 0}, {"night", 0}, {"filed", 0}};  // never checked against the sidebar
  const std::vector<Row> rows = {
      {"one filed", true, {favtag_id("filed")}, {{"Sunset", 3}, {"beach", 0}}},
      {"filed under the lower-cased name", true, {favtag_id("filed"), "favtag-sunset"}, {{"beach", 0}}},
      {"filed under the stored case", true, {"favtag-Sunset", favtag_id("filed")}, {{"Sunset", 3}, {"beach", 0}}},
      {"no account", false, {}, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    file_for_ann(row.filed, {});
    auto ctx = context(row.with_account ? account(ann) : nullptr);
    LogCapture log;
    auto list = nonFoldarizedTagswithContext(*ctx, *model("1001"));
    ASSERT_NE(list, nullptr);
    Nodes got;
    for (auto* t : nodes_of<MQImporterNodeTag>(list.get())) {
      ASSERT_NE(t, nullptr);
      EXPECT_EQ(t->type, MQImporterNodeTypeTag);
      EXPECT_EQ(text_of(t->identifier.get()), text_of(t->tagName.get()));
      got.emplace_back(text_of(t->identifier.get()), t->tagCount);
    }
    Nodes expected = row.nodes;
    expected.insert(expected.end(), plain.begin(), plain.end());
    EXPECT_EQ(got, expected);
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
  struct Row {
    const char* why;
    std::string identifier;
    bool found;
    double latitude;
    std::vector<std::string> log;
  };
  const std::vector<Row> rows = {
      {"prefix", "location-123", true, 1.5, {}},
      {"prefix twice", "location-location-123", true, 1.5, {}},
      {"same id", "location-abc", true, 0, {}},
      {"id differing in case", "location-ABC", false, 0, {"could not find anything for id with ABC"}},
      {"unknown id", "location-999", false, 0, {"could not find anything for id with 999"}},
  };
  auto ctx = context(account(ann));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    LogCapture log;
    auto node = locationNodeFromItem(*entry(kFolderLocationsIdentifier, "My spot", str(row.identifier)), *ctx);
    EXPECT_EQ(log.lines(), row.log);
    if (!row.found) {
      EXPECT_EQ(node, nullptr);
      continue;
    }
    auto* l = dynamic_cast<MQImporterNodeLocation*>(node.get());
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(l->type, MQImporterNodeTypeLocation);
    EXPECT_EQ(text_of(l->identifier.get()), row.identifier);
    EXPECT_EQ(text_of(l->name.get()), "My spot");  // the sidebar's title, not the stored name
    if (row.latitude != 0) {
      EXPECT_EQ(as_number(l->latitude.get())->real_value(), row.latitude);
      EXPECT_EQ(as_number(l->longitude.get())->real_value(), -2.25);
    } else {
      EXPECT_FALSE(l->latitude || l->longitude);
    }
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
    std::vector<std::pair<std::string, std::string>> nodes;  // identifier ("" for none), name
    std::vector<std::string> messages;
  };
  const std::vector<Row> rows = {
      {"ann",
       true,
       {{"1", "One"}, {"one", "Lower"}, {"1", "One"}, {"", "NoIdPlain"}},
       {"Invalid favorite location '{\n    name = NoId;\n}'", "Invalid favorite location 'Paris'"}},
      {"no account", false, {{"1", "One"}, {"", "NoIdPlain"}}, {"Invalid favorite location 'Paris'"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    auto ctx = context(row.with_account ? account(ann) : nullptr);
    LogCapture log;
    auto list = nonFoldarizedLocationswithContext(*ctx, *model("1001"));
    ASSERT_NE(list, nullptr);
    std::vector<std::pair<std::string, std::string>> got;
    for (auto* l : nodes_of<MQImporterNodeLocation>(list.get())) {
      ASSERT_NE(l, nullptr);
      EXPECT_EQ(l->type, MQImporterNodeTypeLocation);
      got.emplace_back(text_of(l->identifier.get()), text_of(l->name.get()));
      if (text_of(l->name.get()) == "One") {
        EXPECT_EQ(as_number(l->longitude.get())->real_value(), 20.5);
      }
    }
    EXPECT_EQ(got, row.nodes);
    EXPECT_EQ(messages_of(*ctx), row.messages);
    EXPECT_EQ(lines_starting(log, "invalid class"),
              std::vector<std::string>{"invalid class for favorite location: Paris"});
  }
}

}  // namespace
}  // namespace orvia::test
