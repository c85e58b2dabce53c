// Loading a user's sidebar from the old client's preferences file (trees written by our archiver), the
// lookup table, the read-only queries, and loading from damaged, hostile and very large preferences.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "platform/log.h"
#include "sidebar_home.h"

namespace orvia {
namespace {

using namespace sidebar;
using Ids = std::vector<std::string>;
const std::string kP7 = "ff-x-coredata://5E1F/ImageList/p7", kP8 = "ff-x-coredata://5E1F/ImageList/p8";

// The tree of a new user: the root and the four base folders, empty, closed and unlinked, albums last.
void expect_new_user_tree(const OutlineFolderModel& model) {
  Ids expected;
  std::string root = "root = Root|(null)|F-|0|(no parent)";
  for (const std::string& id : kBaseOrder) {
    expected.push_back(id + " = " + id + "|" + id + "|F-|0|(no parent)|mutable");
    root += "|" + id;
  }
  expected.push_back(root + "|mutable");
  EXPECT_EQ(model_summary(model), sorted(expected));
  ASSERT_NE(model.rootItem(), nullptr);
  EXPECT_EQ(model.rootItem(), model.itemForIdentifier("root").get());
  EXPECT_EQ(model.rootItem()->childItems().back(), model._albumsItem.get());
}

TEST(OutlineFolderModelLoad, UsersWithoutReadableStoredTreeGetFourEmptyBaseFoldersSilently) {
  using Prepare = std::function<void(SidebarHome&)>;
  auto models = [](Ref<Object> value) -> Prepare { return [value](SidebarHome& h) { h.write(value); }; };
  const std::pair<const char*, Prepare> cases[] = {
      {"no preferences file", [](SidebarHome&) {}},
      {"no OutlineFolderModels", models(nullptr)},
      {"empty OutlineFolderModels", models(dict())},
      {"only another user's tree", models(dict({{"999", archived(stored_user_tree())}}))},
      // "OutlineFolderModels" that is not a dictionary counts as absent.
      {"OutlineFolderModels a string", models(str("x"))},
      {"OutlineFolderModels a list", models(array({archived(stored_user_tree())}))},
      {"OutlineFolderModels an archive", models(archived(stored_user_tree()))},
      {"a preferences file that is no property list",
       [](SidebarHome& h) {
         std::filesystem::create_directories(h.preferences_file().parent_path());
         test::write_file(h.preferences_file(), "bplist00 but not really");
       }},
  };
  for (const auto& [name, prepare] : cases) {
    SCOPED_TRACE(name);
    SidebarHome home;
    prepare(home);
    LogCapture log;
    Ref<OutlineFolderModel> model = home.load();
    expect_new_user_tree(*model);
    ASSERT_NE(model->_userDefaultsData, nullptr);
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST(OutlineFolderModelLoad, StoredTreeTakesTheSharedAlbumsFolderInsteadOfItsOwn) {
  SidebarHome home;
  home.write(dict({{kUser, archived(stored_user_tree())}, {kSharedAlbumsUserID, archived(stored_shared_albums())}}));
  LogCapture log;
  Ref<OutlineFolderModel> model = home.load();
  OutlineFolderItem* root = model->rootItem();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->childItems().back(), model->_albumsItem.get());
  // Items come back as stored (the shared folder's parent link too: none); the user's own albums
  // folder and its album (p1) are gone from the tree and from the table.
  EXPECT_EQ(tree_text(root), "root[FavFriend[fa-Friend/p3] Tags[favtag-sunset folder-7A[favtag-sea]] "
                            "Locations[location-2134] Albums[ff-ImageList/p7 folder-9C[ff-ImageList/p8]]]");
  EXPECT_EQ(sorted_identifiers(*model),
            sorted({"root", std::string(kFav), "fa-x-coredata://5E1F/Friend/p3", std::string(kTags), "favtag-sunset",
                    "folder-7A", "favtag-sea", std::string(kLocations), "location-2134", std::string(kAlbums), kP7,
                    "folder-9C", kP8}));
  EXPECT_EQ(summary(model->_albumsItem.get()),
            std::string(kAlbums) + "|" + std::string(kAlbums) + "|FE|0|(no parent)|" + kP7 + "|folder-9C|mutable");
  EXPECT_EQ(summary(model->itemForIdentifier(kLocations).get()),
            std::string(kLocations) + "|" + std::string(kLocations) + "|F-|0|root|location-2134|mutable");
  EXPECT_EQ(model->itemForIdentifier("favtag-sea")->rootItem(), model->itemForIdentifier(kTags).get());
  EXPECT_TRUE(log.lines().empty());

  // A second load for the same user changes nothing.
  const std::vector<std::string> state = table_state(*model);
  model->reassignUserData();
  EXPECT_EQ(model->rootItem(), root);
  EXPECT_EQ(table_state(*model), state);
  EXPECT_EQ(child_ids(root).size(), 4u);
}

TEST(OutlineFolderModelLoad, OnlyTheFirstStoredAlbumsFolderIsDropped) {
  Ref<OutlineFolderItem> root = stored_user_tree();
  add_entry(*add_base_folder(*root, kAlbums), "Kept", "ff-kept");
  SidebarHome home;
  home.write(dict({{kUser, archived(root)}}));
  Ref<OutlineFolderModel> model = home.load();
  Ids two_albums = kBaseOrder;
  two_albums.insert(two_albums.begin() + 3, std::string(kAlbums));
  EXPECT_EQ(child_ids(model->rootItem()), two_albums);
  // The kept one stands before the shared one, so the walk enters the shared one last.
  EXPECT_NE(model->itemForIdentifier("ff-kept"), nullptr);
  EXPECT_EQ(model->itemForIdentifier(kAlbums), model->_albumsItem);
  EXPECT_EQ(model->_albumsItem->childCount(), 0u);  // no shared entry: a new, empty folder
}

TEST(OutlineFolderModelLoad, SharedAlbumsPseudoUserHoldsTheSecondCopy) {
  SidebarHome home;
  home.write(dict({{kUser, archived(stored_user_tree())}, {kSharedAlbumsUserID, archived(stored_shared_albums())}}));
  Ref<OutlineFolderModel> model = home.load(kSharedAlbumsUserID);
  // The first copy is the root; the second copy is its last child and is what the table holds.
  OutlineFolderItem* first = model->rootItem();
  OutlineFolderItem* second = model->_albumsItem.get();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(child_ids(first), (Ids{kP7, "folder-9C", std::string(kAlbums)}));
  EXPECT_NE(second, first);
  EXPECT_EQ(first->childItems().back(), second);
  EXPECT_EQ(model->itemForIdentifier(kAlbums).get(), second);
  EXPECT_EQ(model->itemForIdentifier(kP8)->parentItem(), second->childItems()[1]);
  EXPECT_EQ(sorted_identifiers(*model), sorted({std::string(kAlbums), kP7, "folder-9C", kP8}));

  // Without a shared entry the pseudo-user gets the tree of a new user.
  SidebarHome bare;
  bare.write(dict({{kUser, archived(stored_user_tree())}}));
  expect_new_user_tree(*bare.load(kSharedAlbumsUserID));
}

TEST(OutlineFolderModelLoad, ModelWithoutUserStaysEmpty) {
  LogCapture log;
  for (Ref<OutlineFolderModel> model :
       {OutlineFolderModel::init(), OutlineFolderModel::initWithExistingUser(Ref<Object>(), false, nullptr)}) {
    model->reassignUserData();
    EXPECT_EQ(model->rootItem(), nullptr);
    EXPECT_EQ(model->identifiers(), nullptr);
    EXPECT_EQ(model->itemForIdentifier("root"), nullptr);
    EXPECT_EQ(model->expandedFolders(), nullptr);
    EXPECT_EQ(model->folderSignature(), "");
    EXPECT_EQ(model->folderStructureForMainIdentifier("root"), nullptr);
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(OutlineFolderModelLoad, DamagedEntriesFallBackWithOneLogLine) {
  const std::pair<const char*, Ref<Object>> bad_entries[] = {
      {"a string", str("not an archive")},
      {"bytes that are no property list", data("garbage")},
      {"an archive of a string", make<Data>(archive_root(str("Root").get()))},
      {"an archive of another class",
       make<Data>(archive_root(make<GenericRecord>(std::vector<std::string>{"OtherItem", "NSObject"}).get()))},
      {"a truncated archive", make<Data>(archive_root(stored_user_tree().get()).substr(0, 200))},
  };
  for (const auto& [name, bad] : bad_entries) {
    SCOPED_TRACE(name);
    for (bool user_entry : {true, false}) {
      SidebarHome home;
      home.write(dict({{kUser, user_entry ? bad : Ref<Object>(archived(stored_user_tree()))},
                       {kSharedAlbumsUserID, user_entry ? Ref<Object>(archived(stored_shared_albums())) : bad}}));
      LogCapture log;
      Ref<OutlineFolderModel> model = home.load();
      EXPECT_EQ(log.lines(), Ids{"undecodable folder structure for " +
                                 std::string(user_entry ? "1234" : "*--*albums*--*")});
      EXPECT_EQ(child_ids(model->rootItem()), kBaseOrder);
      EXPECT_EQ(model->itemForIdentifier(kAlbums), model->_albumsItem);
      // The other entry still loads; the shared folder that did not is a new, empty one.
      EXPECT_EQ(model->_albumsItem->childCount(), user_entry ? 2u : 0u);
      EXPECT_EQ(model->itemForIdentifier("favtag-sea") != nullptr, !user_entry);
    }
  }
}

TEST(OutlineFolderModelQueries, FolderStructureAndExpandedFolders) {
  Ref<OutlineFolderItem> root = stored_user_tree();
  auto deep = opened(add_folder(*root->childItems()[2]->childItems()[1], "Deeper", "folder-8B"));
  add_folder(*deep, "Closed", "folder-9D");
  opened(add_entry(*deep, "open leaf", "favtag-open"));
  SidebarHome home;
  home.write(dict({{kUser, archived(root)}}));
  Ref<OutlineFolderModel> model = home.load();

  // Folder structures: only of folders with content; the parent is written in full, so the whole
  // tree comes along.
  for (std::string_view none : {kAlbums, std::string_view("favtag-sea"), std::string_view("no such item")})
    EXPECT_EQ(model->folderStructureForMainIdentifier(none), nullptr) << none;
  Ref<Data> bytes = model->folderStructureForMainIdentifier("folder-7A");
  ASSERT_NE(bytes, nullptr);
  Result<Ref<Object>> back = unarchive(bytes->bytes());
  ASSERT_TRUE(back.ok());
  OutlineFolderItem* seaside = OutlineFolderItem::as_item(back->get());
  ASSERT_NE(seaside, nullptr);
  EXPECT_EQ(seaside->identifierText(), "folder-7A");
  EXPECT_EQ(summary(seaside), summary(model->itemForIdentifier("folder-7A").get()));
  EXPECT_EQ(seaside->parentItem()->parentItem()->identifierText(), "root");

  // Expanded folders: open folders only (not the closed ones, not the open leaf), shallowest first.
  Ref<Array> open = model->expandedFolders();
  ASSERT_NE(open, nullptr);
  EXPECT_FALSE(open->is_mutable());
  Ids ids;
  std::uint64_t last_level = 0;
  for (const Ref<Object>& o : open->items()) {
    OutlineFolderItem* item = OutlineFolderItem::as_item(o.get());
    ASSERT_NE(item, nullptr);
    EXPECT_GE(item->level, last_level);
    last_level = item->level;
    ids.emplace_back(item->identifierText());
  }
  EXPECT_EQ(sorted(ids), sorted({"root", std::string(kFav), std::string(kTags), "folder-7A", "folder-8B"}));
}

TEST(OutlineFolderModelQueries, SignatureJoinsEveryEntryInTableOrder) {
  SidebarHome home;
  Ref<OutlineFolderModel> model = home.load();
  std::string expected;
  Ref<Array> ids = model->identifiers();
  ASSERT_EQ(ids->size(), 5u);
  for (const Ref<Object>& id : ids->items()) {
    std::string text(text_of(id.get()));
    expected += text == "root" ? "root.Root.4" : text + "." + text + ".0";
  }
  EXPECT_EQ(model->folderSignature(), expected);
}

// ---- the mapping walk

// The walk as the old client wrote it: recursive, pre-order, later visits replace earlier ones.
void reference_walk(std::map<std::string, OutlineFolderItem*>& table, OutlineFolderItem* item) {
  if (const String* id = as_string(item->identifier.get())) table[id->str()] = item;
  for (OutlineFolderItem* child : item->childItems()) reference_walk(table, child);
}

TEST(RecurFolderMapping, MatchesThePlainWalkOnTreesThatShareSubTrees) {
  // Random graphs without loops in which items appear in several lists and identifiers repeat: the
  // iterative walk must leave the same table as the recursive one, which visits shared items again.
  std::mt19937 rng(20140106);
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    const int n = 2 + static_cast<int>(rng() % 24);
    std::vector<Ref<OutlineFolderItem>> items;
    for (int i = 0; i < n; ++i) {
      items.push_back(OutlineFolderItem::init());
      if (rng() % 8 != 0) items.back()->identifier = str("id" + std::to_string(rng() % 6));
    }
    // Edges only from lower to higher index: no loops, but any amount of sharing.
    for (int i = 0; i + 1 < n; ++i) {
      for (int e = static_cast<int>(rng() % 4); e > 0; --e)
        items[i]->childList()->push_back(items[i + 1 + static_cast<int>(rng() % static_cast<unsigned>(n - i - 1))]);
    }
    std::map<std::string, OutlineFolderItem*> expected{{"id1", items.back().get()}, {"pre", items[0].get()}};
    OutlineFolderMapping table{{"id1", items.back()}, {"pre", items[0]}};  // entries from before stay or give way
    reference_walk(expected, items[0].get());
    recurFolderMapping(table, items[0].get());
    std::map<std::string, OutlineFolderItem*> got;
    for (const auto& [key, item] : table) got[key] = item.get();
    EXPECT_EQ(got, expected);
  }
}

TEST(RecurFolderMapping, LoopingChildrenEndAndEnterEveryItemOnce) {
  // Hostile archives: a root that lists itself, and two folders that list each other.
  Ref<OutlineFolderItem> root = test::sidebar_root();
  root->childList()->push_back(root);
  auto a = add_folder(*root, "A", "a");
  auto b = add_folder(*a, "B", "b");
  b->childList()->push_back(a);
  add_entry(*b, "leaf", "leaf");
  SidebarHome home;
  home.write(dict({{kUser, archived(root)}}));
  Ref<OutlineFolderModel> model = home.load();
  EXPECT_EQ(sorted_identifiers(*model), (Ids{"a", "b", std::string(kAlbums), "leaf", "root"}));
  EXPECT_EQ(model->itemForIdentifier("b")->childItems()[0], model->itemForIdentifier("a").get());
  model->regenerateMapping();
  EXPECT_EQ(sorted_identifiers(*model).size(), 5u);
  EXPECT_NE(model->folderSignature(), "");
}

TEST(OutlineFolderModelLoad, HundredThousandLevelsDeepLoadsAndMaps) {
  constexpr int kDepth = 100000;
  SidebarHome home;
  {
    Ref<OutlineFolderItem> root = test::sidebar_root();
    Ref<OutlineFolderItem> at = opened(add_base_folder(*root, kTags));
    for (int i = 1; i <= kDepth; ++i) at = opened(add_folder(*at, "f", "folder-" + std::to_string(i)));
    add_entry(*at, "bottom", "favtag-bottom");
    home.write(dict({{kUser, archived(root)}}));
  }
  Ref<OutlineFolderModel> model = home.load();
  Ref<OutlineFolderItem> bottom = model->itemForIdentifier("favtag-bottom");
  ASSERT_NE(bottom, nullptr);
  EXPECT_EQ(bottom->level, kDepth + 1u);
  EXPECT_EQ(bottom->rootItem(), model->itemForIdentifier(kTags).get());
  EXPECT_EQ(model->expandedFolders()->size(), kDepth + 1u);  // tags and every sub-folder
  model->regenerateMapping();
  EXPECT_EQ(model->identifiers()->size(), kDepth + 4u);
  EXPECT_NE(model->folderStructureForMainIdentifier("folder-99999"), nullptr);
}

// ---- lifetime

int g_watchers_alive = 0;

// A record that counts itself, hung into a tree to see when the tree is freed.
class Watcher final : public Record {
 public:
  Watcher() { ++g_watchers_alive; }
  ~Watcher() override { --g_watchers_alive; }
  std::span<const std::string_view> class_chain() const override {
    static constexpr std::string_view kChain[] = {"Watcher", "NSObject"};
    return kChain;
  }
  void encode_with_coder(KeyedEncoder&) const override {}
  void init_with_coder(KeyedDecoder&) override {}
};

TEST(OutlineFolderModelLifetime, TheRequestHeapFreesModelAndTrees) {
  SidebarHome home;
  home.write(dict({{kUser, archived(stored_user_tree())}, {kSharedAlbumsUserID, archived(stored_shared_albums())}}));
  g_watchers_alive = 0;
  {
    Heap request;
    HeapScope scope(request);
    Ref<OutlineFolderModel> model = home.load();
    model->itemForIdentifier("favtag-sea")->title = make<Watcher>();
    model->itemForIdentifier(kP8)->title = make<Watcher>();
    Ref<OutlineFolderModel> pseudo = home.load(kSharedAlbumsUserID);
    pseudo->rootItem()->title = make<Watcher>();
    EXPECT_EQ(g_watchers_alive, 3);
    model = nullptr;
    pseudo = nullptr;
    // Parents and children hold each other: dropping the models frees nothing yet.
    EXPECT_EQ(g_watchers_alive, 3);
    EXPECT_GT(request.tracked_count(), 0u);
  }
  EXPECT_EQ(g_watchers_alive, 0);
}

}  // namespace
}  // namespace orvia
