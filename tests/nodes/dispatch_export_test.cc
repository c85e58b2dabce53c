// Entry dispatch, folder nodes and the export of a whole sidebar model into the category trees of one
// import result.
#include <gtest/gtest.h>

#include "nodes/folder_export.h"
#include "nodes_fixture.h"

namespace orvia::test {
namespace {

class DispatchExport : public NodesTest {
 protected:
  void SetUp() override {
    NodesTest::SetUp();
    LegacyStore& s = home.store();
    ann = s.add_account("1001", "ann");
    beach = s.add_album("Beach", 1);
    s.add_image(beach, media_archive(*older_media("1_1", "https://ig.example/p/A")));
    carol = s.add_friend({.uid = "31", .name = "carol", .account = ann});
    home.set_in("FavoriteSidebarTags", "1001",
                array({dict({{"tag", str("sunset")}, {"count", num(5)}}), dict({{"tag", str("zeta")}}),
                       dict({{"tag", str("alpha")}})}));
    home.set_in("FavoriteSidebarLocations", "1001",
                array({dict({{"id", str("1")}, {"name", str("One")}}), dict({{"id", str("2")}, {"name", str("Two")}}),
                       dict({{"id", str("3")}, {"name", str("Three")}}), dict({{"id", str("7")}, {"name", str("zulu")}}),
                       dict({{"id", str("8")}, {"name", str("alpha")}})}));
  }
  std::string beach_id() { return album_id(home.store().uri(LegacyStore::kImageList, beach)); }
  std::string carol_id() { return friend_id(home.store().uri(LegacyStore::kFriend, carol)); }
  // A valid identifier for an entry of the category.
  std::string valid_id(std::string_view type) {
    if (type == kFolderAlbumsIdentifier) return beach_id();
    if (type == kFolderFavFriendIdentifier) return carol_id();
    if (type == kFolderLocationsIdentifier) return location_id("1");
    return favtag_id("sunset");
  }
  static MQImporterNodeFolder* folder(const Ref<Object>& o) { return dynamic_cast<MQImporterNodeFolder*>(o.get()); }

  std::int64_t ann = 0, beach = 0, carol = 0;
};

TEST_F(DispatchExport, EveryContextKeepsItsOwnMessages) {
  auto lookups = std::make_shared<ImportLookups>();
  auto first = MQImporterContext::contextWithDefaults(home.defaults(), account(ann), store, lookups);
  auto second = MQImporterContext::contextWithDefaults(home.defaults(), nullptr, store, lookups);
  EXPECT_FALSE(first->messages);  // no list before the first message
  first->storeMessage("same");
  first->storeMessage("same");
  // Builders leave their messages in their own context.
  auto gone = add_entry(*add_base_folder(*sidebar_root(), kFolderAlbumsIdentifier), "gone", album_id("x"));
  EXPECT_EQ(nodeFromItem(*gone, kFolderAlbumsIdentifier, *second), nullptr);
  EXPECT_EQ(messages_of(*first), (std::vector<std::string>{"same", "same"}));
  EXPECT_EQ(messages_of(*second), std::vector<std::string>{"Unknown album: 'gone'"});
}

TEST_F(DispatchExport, EntriesAreBuiltByTheirOwnType) {
  struct Row {
    const char* why;
    Ref<Object> type;
    std::string_view category;
    const char* built;  // the node's class, or nullptr for none
  };
  const std::vector<Row> rows = {
      {"tag in the albums tree", str(kFolderTagsIdentifier), kFolderAlbumsIdentifier, "MQImporterNodeTag"},
      {"album in the tags tree", str(kFolderAlbumsIdentifier), kFolderTagsIdentifier, "MQImporterNodeAlbum"},
      {"favourite friend", str(kFolderFavFriendIdentifier), kFolderFavFriendIdentifier, "MQImporterNodeFriend"},
      {"location", str(kFolderLocationsIdentifier), kFolderLocationsIdentifier, "MQImporterNodeLocation"},
      {"letter case", str("com.brenvik.velmora.foldertagsidentifier"), kFolderTagsIdentifier, nullptr},
      {"a result key", str("tags"), kFolderTagsIdentifier, nullptr},
      {"no type", nullptr, kFolderAlbumsIdentifier, nullptr},
  };
  auto ctx = context(account(ann));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    ctx->messages = nullptr;
    auto root = sidebar_root();
    auto item = add_entry(*add_base_folder(*root, row.category), "Entry", valid_id(text_of(row.type.get())));
    item->type = row.type;
    LogCapture log;
    Ref<MQImporterNode> node = nodeFromItem(*item, row.category, *ctx);
    EXPECT_EQ(node ? node->class_name() : "none", row.built ? row.built : "none");
    if (!row.built) {
      const std::string type = row.type ? std::string(text_of(row.type.get())) : "(null)";
      EXPECT_EQ(log.lines(), std::vector<std::string>{"Invalid Node Type: " + type + " (category: " +
                                                      std::string(row.category) + ")"});
      EXPECT_EQ(messages_of(*ctx), std::vector<std::string>{"Could not export 'Entry'"});
    } else {
      EXPECT_TRUE(log.lines().empty());
      EXPECT_FALSE(ctx->messages);
    }
  }
}

TEST_F(DispatchExport, FolderNodes) {
  struct Row {
    std::string_view category;
    std::uint64_t contents;
  };
  const Row rows[] = {{kFolderFavFriendIdentifier, 4}, {kFolderAlbumsIdentifier, 2}, {kFolderTagsIdentifier, 1},
                      {kFolderLocationsIdentifier, 3}, {"com.brenvik.velmora.folderlocationsidentifier", 0}};
  auto ctx = context(nullptr);
  auto root = sidebar_root();
  auto trips = add_folder(*add_base_folder(*root, kFolderTagsIdentifier), "Trips");
  add_entry(*trips, "sunset", favtag_id("sunset"));
  add_folder(*trips, "Inner");
  auto untitled = add_folder(*root, "");
  untitled->title = nullptr;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.category);
    for (const auto& item : {trips, untitled}) {
      LogCapture log;
      auto node = folderNode(*item, row.category, *ctx);
      ASSERT_NE(node, nullptr);
      EXPECT_EQ(node->type, MQImporterNodeTypeFolder);
      EXPECT_EQ(node->contentsType, row.contents);
      EXPECT_EQ(node->title.get(), item->title.get());  // unchanged, a missing title included
      EXPECT_TRUE(node->childList() && node->childList()->empty());  // whatever the item holds
      EXPECT_FALSE(node->identifier || node->isRoot || node->ignoreInExport);
      EXPECT_TRUE(log.lines().empty());
    }
  }
  EXPECT_FALSE(ctx->messages);
}

TEST_F(DispatchExport, UserWithoutStoredTreeGetsOnlyUnfiledFavourites) {
  auto ctx = context(account(ann));
  auto m = model("1001");
  auto result = folderTreeWithContext(*m, *ctx);
  const std::tuple<Ref<Object>, std::string_view, std::uint64_t, const char*> rows[] = {
      {result->tags, kFolderTagsIdentifier, 1, "sunset zeta alpha"},
      {result->albums, kFolderAlbumsIdentifier, 2, "Beach"},
      {result->friends, kFolderFavFriendIdentifier, 4, "carol"},
      {result->locations, kFolderLocationsIdentifier, 3, "One Two Three zulu alpha"},
  };
  for (const auto& [field, base, contents, labels] : rows) {
    SCOPED_TRACE(base);
    MQImporterNodeFolder* root = folder(field);
    ASSERT_NE(root, nullptr);
    EXPECT_TRUE(root->isRoot);
    EXPECT_EQ(text_of(root->identifier.get()), base);
    EXPECT_EQ(text_of(root->title.get()), base);  // a base folder the model made
    EXPECT_EQ(root->contentsType, contents);
    EXPECT_EQ(tree_text(*root), labels);
  }
  EXPECT_FALSE(result->account || result->blacklist || result->statistics);

  // The unfiled entries of a category no builder knows: nothing, and a log line.
  for (std::string_view unknown : {std::string_view("tags"), std::string_view("com.brenvik.velmora.folderTagsIdentifierX")}) {
    LogCapture log;
    EXPECT_EQ(nonFoldarizedItemsInCategory(unknown, *ctx, *m), nullptr);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Invalid Node Type: " + std::string(unknown)});
  }
  EXPECT_FALSE(ctx->messages);
}

TEST_F(DispatchExport, SharedAlbumModelHasOnlyTheAlbumsTree) {
  auto root = sidebar_root();
  auto albums = add_base_folder(*root, kFolderAlbumsIdentifier);
  albums->title = str("Shared Albums");
  add_entry(*add_folder(*albums, "Trips"), "My beach", beach_id());
  home.set_sidebar(kSharedAlbumsUser, albums);
  auto ctx = context(nullptr);
  LogCapture log;
  auto result = folderTreeWithContext(*model(kSharedAlbumsUser), *ctx);
  EXPECT_EQ(lines_starting(log, "Unknown item"),
            (std::vector<std::string>{"Unknown item com.brenvik.velmora.folderTagsIdentifier",
                                      "Unknown item com.brenvik.velmora.folderFavFriendIdentifier",
                                      "Unknown item com.brenvik.velmora.folderLocationsIdentifier"}));
  EXPECT_FALSE(result->tags || result->friends || result->locations);
  MQImporterNodeFolder* tree = folder(result->albums);
  ASSERT_NE(tree, nullptr);
  EXPECT_EQ(text_of(tree->title.get()), "Shared Albums");  // a stored base folder keeps its title
  EXPECT_EQ(text_of(tree->identifier.get()), kFolderAlbumsIdentifier);
  EXPECT_EQ(tree_text(*tree), "Trips[Beach]");  // Beach is filed: nothing unfiled
  EXPECT_FALSE(ctx->messages);
}

TEST_F(DispatchExport, SortedByTitleAtEveryLevelUnfiledAfterAndUnsorted) {
  auto root = sidebar_root();
  add_base_folder(*root, kFolderTagsIdentifier);
  add_base_folder(*root, kFolderFavFriendIdentifier);
  auto places = add_base_folder(*root, kFolderLocationsIdentifier);
  add_entry(*places, "b", location_id("1"));
  add_entry(*places, "B", location_id("2"));
  auto nine = add_folder(*places, "Folder 9");
  add_entry(*places, "a", location_id("3"));
  auto ten = add_folder(*places, "Folder 10");
  add_entry(*ten, "z", location_id("1"));
  auto deeper = add_folder(*ten, "Y folder");
  add_entry(*deeper, "y2", location_id("2"));
  add_entry(*deeper, "Y1", location_id("3"));
  add_entry(*ten, "Z", location_id("2"));
  add_entry(*nine, "\xC3\xA9t\xC3\xA9", location_id("1"));  // after every ASCII title
  add_entry(*nine, "~", location_id("2"));
  home.set_sidebar("1001", root);
  auto ctx = context(account(ann));
  auto result = folderTreeWithContext(*model("1001"), *ctx);
  MQImporterNodeFolder* tree = folder(result->locations);
  ASSERT_NE(tree, nullptr);
  // Filed content sorted at every level (folders among entries), then the unfiled in their stored order.
  EXPECT_EQ(tree_text(*tree), "B Folder 10[Y folder[Y1 y2] Z z] Folder 9[~ \xC3\xA9t\xC3\xA9] a b zulu alpha");

  // Only the four roots carry isRoot and an identifier; every folder below has neither and the
  // category's contents code.
  std::vector<std::pair<MQImporterNode*, std::uint64_t>> todo;
  for (const Ref<Object>& field : {result->tags, result->albums, result->friends, result->locations}) {
    ASSERT_TRUE(folder(field) && folder(field)->isRoot);
    for (MQImporterNode* n : nodes_of(folder(field)->children.get())) todo.emplace_back(n, folder(field)->contentsType);
  }
  while (!todo.empty()) {
    auto [n, contents] = todo.back();
    todo.pop_back();
    EXPECT_FALSE(n->isRoot);
    if (auto* sub = dynamic_cast<MQImporterNodeFolder*>(n)) {
      EXPECT_EQ(sub->identifier, nullptr);
      EXPECT_EQ(sub->contentsType, contents);
      for (MQImporterNode* c : nodes_of(sub->children.get())) todo.emplace_back(c, contents);
    }
  }
}

TEST_F(DispatchExport, VisitOrderAndEntriesWithoutNode) {
  auto shared_root = sidebar_root();
  auto shared = add_base_folder(*shared_root, kFolderAlbumsIdentifier);
  add_entry(*shared, "lost album", album_id(home.store().uri(LegacyStore::kImageList, 99)));
  add_entry(*shared, "sunset in albums", favtag_id("sunset"), kFolderTagsIdentifier);
  home.set_sidebar(kSharedAlbumsUser, shared);
  auto root = sidebar_root();
  // Base folders stored in another order than the visit order.
  add_entry(*add_base_folder(*root, kFolderLocationsIdentifier), "lost place", location_id("404"));
  add_entry(*add_base_folder(*root, kFolderFavFriendIdentifier), "lost pal",
            friend_id(home.store().uri(LegacyStore::kFriend, 99)));
  auto tags = add_base_folder(*root, kFolderTagsIdentifier);
  add_folder(*tags, "Empty");
  auto broken = add_folder(*tags, "Broken");
  add_entry(*broken, "lost tag", favtag_id("nope"));
  add_entry(*broken, "odd", "odd-1", "com.brenvik.velmora.folderTagsidentifier");
  home.set_sidebar("1001", root);

  auto ctx = context(account(ann));
  auto m = model("1001");
  LogCapture log;
  auto result = folderTreeWithContext(*m, *ctx);
  auto line = [&](std::string_view id, std::string_view category) {
    Ref<OutlineFolderItem> item = m->itemForIdentifier(id);
    EXPECT_NE(item, nullptr) << id;
    return "invalid imported node for " + (item ? item->description() : std::string()) + " in " +
           std::string(category);
  };
  EXPECT_EQ(lines_starting(log, "invalid imported node"),
            (std::vector<std::string>{line(favtag_id("nope"), kFolderTagsIdentifier),
                                      line("odd-1", kFolderTagsIdentifier),
                                      line(album_id(home.store().uri(LegacyStore::kImageList, 99)), kFolderAlbumsIdentifier),
                                      line(friend_id(home.store().uri(LegacyStore::kFriend, 99)), kFolderFavFriendIdentifier),
                                      line(location_id("404"), kFolderLocationsIdentifier)}));
  EXPECT_EQ(messages_of(*ctx), (std::vector<std::string>{"Could not export 'odd'", "Unknown album: 'lost album'",
                                                        "Unknown favorite friend: 'lost pal'"}));

  // Empty folders stay, as folders with an empty children list.
  ASSERT_NE(folder(result->tags), nullptr);
  EXPECT_EQ(tree_text(*folder(result->tags)), "Broken[] Empty[] zeta alpha");
  // The tag entry of the albums folder is a tag node of the albums tree; Beach is unfiled.
  MQImporterNodeFolder* album_tree = folder(result->albums);
  ASSERT_NE(album_tree, nullptr);
  ASSERT_EQ(tree_text(*album_tree), "sunset Beach");
  auto album_kids = nodes_of(album_tree->children.get());
  EXPECT_EQ(dynamic_cast<MQImporterNodeTag*>(album_kids[0])->tagCount, 5u);
  EXPECT_NE(dynamic_cast<MQImporterNodeAlbum*>(album_kids[1]), nullptr);
}

TEST_F(DispatchExport, FoldersThatRecurOrLoopExportOnce) {
  auto root = sidebar_root();
  auto tags = add_base_folder(*root, kFolderTagsIdentifier);
  // A folder that holds its own ancestor, and a chain of 64 folders each holding the next one twice.
  auto loop = add_folder(*tags, "Loop");
  add_entry(*loop, "sunset", favtag_id("sunset"));
  loop->childList()->push_back(tags);
  Ref<OutlineFolderItem> at = add_folder(*tags, "Twice");
  for (int i = 0; i < 64; ++i) {
    auto next = add_folder(*at, "t", std::to_string(i).insert(0, 1, 't'));
    at->childList()->push_back(next);
    at = next;
  }
  at = nullptr;
  home.set_sidebar("1001", root);
  auto ctx = context(account(ann));
  auto m = model("1001");
  LogCapture log;
  auto result = folderTreeWithContext(*m, *ctx);
  MQImporterNodeFolder* tree = folder(result->tags);
  ASSERT_NE(tree, nullptr);
  // The ancestor is left out, and so is every second reference: one folder "t" inside the other, 64 deep.
  std::string chain;
  for (int i = 0; i < 64; ++i) chain += "[t";
  chain += "[]" + std::string(64, ']');
  EXPECT_EQ(tree_text(*tree), "Loop[sunset] Twice" + chain + " zeta alpha");
  EXPECT_EQ(lines_starting(log, "invalid imported node").size(), 65u);
  EXPECT_EQ(lines_starting(log, "invalid imported node")[0],
            "invalid imported node for " + m->itemForIdentifier(kFolderTagsIdentifier)->description() + " in " +
                std::string(kFolderTagsIdentifier));
}

}  // namespace
}  // namespace orvia::test
