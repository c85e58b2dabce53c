// Loading a user's sidebar from the old client's preferences file (trees written by our archiver), the
// lookup table, the read-only queries, and loading from damaged, hostile and very large preferences.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "outline/outline_folder_model.h"
#include "platform/log.h"
#include "platform/value.h"
#include "sidebar_home.h"

namespace orvia {
namespace {

using namespace sidebar;
using Ids = std::vector<std::string>;

void expect_new_user_tree(const OutlineFolderModel& model) {
  Ids all = kBaseOrder;
  all.push_back("root");
  EXPECT_EQ(sorted_identifiers(model), sorted(all));
  OutlineFolderItem* root = model.rootItem();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->identifierText(), "root");
  EXPECT_EQ(root->titleText(), "Root");
  EXPECT_EQ(child_ids(root), kBaseOrder);
  for (OutlineFolderItem* base : root->childItems()) {
    const std::string id(base->identifierText());
    EXPECT_EQ(summary(base), id + "|" + id + "|F-|0|(no parent)|mutable");  // empty, closed, unlinked
    EXPECT_EQ(model.itemForIdentifier(id).get(), base);
  }
  EXPECT_EQ(root->childItems().back(), model._albumsItem.get());
}

TEST(OutlineFolderModelLoad, UsersWithoutStoredTreeGetFourEmptyBaseFolders) {
  struct Case {
    const char* name;
    std::function<void(const SidebarHome&)> prepare;
  } cases[] = {
      {"no preferences file", [](const SidebarHome&) {}},
      {"no OutlineFolderModels", [](const SidebarHome& h) { h.write(nullptr); }},
      {"empty OutlineFolderModels", [](const SidebarHome& h) { h.write(dict()); }},
      {"only another user's tree",
       [](const SidebarHome& h) { h.write(dict({{"999", archived(stored_user_tree())}})); }},
      {"a preferences file that is no property list",
       [](const SidebarHome& h) {
         std::filesystem::create_directories(h.preferences_file().parent_path());
         test::write_file(h.preferences_file(), "bplist00 but not really");
       }},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    SidebarHome home;
    k.prepare(home);
    LogCapture log;
    Ref<OutlineFolderModel> model = home.load();
    expect_new_user_tree(*model);
    EXPECT_EQ(text_of(model->_currentUserID.get()), kUser);
    EXPECT_EQ(text_of(model->_enforcedUID.get()), kUser);
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
  EXPECT_EQ(child_ids(root), kBaseOrder);
  OutlineFolderItem* shared = root->childItems().back();
  EXPECT_EQ(shared, model->_albumsItem.get());
  EXPECT_EQ(model->itemForIdentifier(kAlbums).get(), shared);
  // Its parent link is left as stored (none).
  EXPECT_EQ(summary(shared), std::string(kAlbums) + "|" + std::string(kAlbums) +
                                 "|FE|0|(no parent)|ff-x-coredata://5E1F/ImageList/p7|folder-9C|mutable");

  // The user's own albums folder and its album (p1) are gone from the tree and from the table.
  EXPECT_EQ(sorted_identifiers(*model),
            sorted({"root", std::string(kFav), "fa-x-coredata://5E1F/Friend/p3", std::string(kTags), "favtag-sunset",
                    "folder-7A", "favtag-sea", std::string(kLocations), "location-2134", std::string(kAlbums),
                    "ff-x-coredata://5E1F/ImageList/p7", "folder-9C", "ff-x-coredata://5E1F/ImageList/p8"}));

  // Items come back as stored.
  Ref<OutlineFolderItem> sea = model->itemForIdentifier("favtag-sea");
  ASSERT_NE(sea, nullptr);
  EXPECT_EQ(summary(sea.get()), "sea|" + std::string(kTags) + "|--|2|folder-7A|mutable");
  EXPECT_EQ(sea->parentItem(), model->itemForIdentifier("folder-7A").get());
  EXPECT_EQ(sea->rootItem(), model->itemForIdentifier(kTags).get());
  EXPECT_TRUE(log.lines().empty());

  // A second load for the same user changes nothing.
  OutlineFolderItem* root_before = model->rootItem();
  const std::vector<std::string> state = table_state(*model);
  model->reassignUserData();
  EXPECT_EQ(model->rootItem(), root_before);
  EXPECT_EQ(table_state(*model), state);
  EXPECT_EQ(child_ids(root_before).size(), 4u);
}

TEST(OutlineFolderModelLoad, OnlyTheFirstStoredAlbumsFolderIsDropped) {
  Ref<OutlineFolderItem> root = stored_user_tree();
  auto second = attach(root, base_folder(kAlbums));
  attach(second, leaf("Kept", "ff-kept", kAlbums, 1));
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
  Ref<OutlineFolderItem> shared = stored_shared_albums();
  home.write(dict({{kUser, archived(stored_user_tree())}, {kSharedAlbumsUserID, archived(shared)}}));
  Ref<OutlineFolderModel> model = home.load(kSharedAlbumsUserID);

  // The first copy is the root; the second copy is its last child and is what the table holds.
  OutlineFolderItem* first = model->rootItem();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->identifierText(), kAlbums);
  EXPECT_EQ(child_ids(first), (Ids{"ff-x-coredata://5E1F/ImageList/p7", "folder-9C", std::string(kAlbums)}));
  OutlineFolderItem* second = model->_albumsItem.get();
  EXPECT_NE(second, first);
  EXPECT_EQ(first->childItems().back(), second);
  EXPECT_EQ(model->itemForIdentifier(kAlbums).get(), second);
  for (OutlineFolderItem* album : second->childItems()) {
    EXPECT_EQ(model->itemForIdentifier(album->identifierText()).get(), album);
  }
  EXPECT_EQ(model->itemForIdentifier("ff-x-coredata://5E1F/ImageList/p8")->parentItem(), second->childItems()[1]);
  for (std::string_view other : {kTags, kFav, kLocations}) EXPECT_EQ(model->itemForIdentifier(other), nullptr);

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
    EXPECT_FALSE(model->_folderMapping.has_value());
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(OutlineFolderModelLoad, DamagedEntriesFallBackWithOneLogLine) {
  Ref<GenericRecord> other_class = make<GenericRecord>(std::vector<std::string>{"OtherItem", "NSObject"});
  struct Case {
    const char* name;
    Ref<Object> value;  // stored under the user's key and under the shared key
  } bad_entries[] = {
      {"a string", str("not an archive")},
      {"a number", num(7)},
      {"a dictionary", dict({{"title", str("Root")}})},
      {"bytes that are no property list", data("garbage")},
      {"a property list that is no archive", make<Data>(*write_binary_plist(array({str("a")}).get()))},
      {"an archive of a string", make<Data>(archive_root(str("Root").get()))},
      {"an archive of nil", make<Data>(archive_root(static_cast<const Object*>(nullptr)))},
      {"an archive of another class", make<Data>(archive_root(other_class.get()))},
      {"a truncated archive", make<Data>(archive_root(stored_user_tree().get()).substr(0, 200))},
  };
  for (const Case& k : bad_entries) {
    SCOPED_TRACE(k.name);
    {
      SidebarHome home;
      home.write(dict({{kUser, k.value}, {kSharedAlbumsUserID, archived(stored_shared_albums())}}));
      LogCapture log;
      Ref<OutlineFolderModel> model = home.load();
      EXPECT_EQ(log.lines(), (std::vector<std::string>{"undecodable folder structure for 1234"}));
      EXPECT_EQ(child_ids(model->rootItem()), kBaseOrder);
      EXPECT_EQ(model->_albumsItem->childCount(), 2u);  // the shared folder still loads
    }
    {
      SidebarHome home;
      home.write(dict({{kUser, archived(stored_user_tree())}, {kSharedAlbumsUserID, k.value}}));
      LogCapture log;
      Ref<OutlineFolderModel> model = home.load();
      EXPECT_EQ(log.lines(), (std::vector<std::string>{"undecodable folder structure for *--*albums*--*"}));
      EXPECT_EQ(model->itemForIdentifier(kAlbums), model->_albumsItem);
      EXPECT_EQ(model->_albumsItem->childCount(), 0u);
      EXPECT_EQ(model->_albumsItem->typeText(), kAlbums);
      EXPECT_NE(model->itemForIdentifier("favtag-sea"), nullptr);  // the user's tree still loads
    }
  }

  // "OutlineFolderModels" that is not a dictionary counts as absent, silently.
  for (Ref<Object> models : {Ref<Object>(str("x")), Ref<Object>(array({archived(stored_user_tree())})),
                             Ref<Object>(archived(stored_user_tree()))}) {
    SidebarHome home;
    home.write(models);
    LogCapture log;
    Ref<OutlineFolderModel> model = home.load();
    expect_new_user_tree(*model);
    EXPECT_EQ(model->_userDefaultsData->size(), 0u);
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST(OutlineFolderModelLoad, ItemsWithoutStringIdentifierStayOutOfTheTable) {
  Ref<OutlineFolderItem> root = stored_user_tree();
  OutlineFolderItem* tags = root->childItems()[2];
  auto nameless = attach(Ref(tags), folder("No id", "x", str(kTags), 1));
  nameless->identifier = nullptr;
  attach(nameless, leaf("inside", "favtag-inside", kTags, 2));
  auto numbered = attach(Ref(tags), leaf("Numbered", "x", kTags, 1));
  numbered->identifier = num(77);
  // Something that is not an item in a children list is passed over.
  tags->childList()->push_back(str("stray"));
  SidebarHome home;
  home.write(dict({{kUser, archived(root)}}));
  Ref<OutlineFolderModel> model = home.load();
  EXPECT_NE(model->itemForIdentifier("favtag-inside"), nullptr);
  EXPECT_EQ(model->itemForIdentifier("77"), nullptr);
  EXPECT_EQ(model->itemForIdentifier(num(77).get()), nullptr);
  Ref<Array> ids = model->identifiers();
  for (const Ref<Object>& id : ids->items()) EXPECT_NE(as_string(id.get()), nullptr);
  EXPECT_EQ(sorted_identifiers(*model).size(), 11u);  // the stored tree's 9, the new albums folder, favtag-inside
}

TEST(OutlineFolderModelQueries, FolderStructureArchivesFoldersWithContent) {
  SidebarHome home;
  home.write(dict({{kUser, archived(stored_user_tree())}}));
  Ref<OutlineFolderModel> model = home.load();
  EXPECT_EQ(model->folderStructureForMainIdentifier(kAlbums), nullptr);  // the new, empty shared folder
  EXPECT_EQ(model->folderStructureForMainIdentifier("favtag-sea"), nullptr);
  EXPECT_EQ(model->folderStructureForMainIdentifier("no such item"), nullptr);
  Ref<Data> bytes = model->folderStructureForMainIdentifier("folder-7A");
  ASSERT_NE(bytes, nullptr);
  Result<Ref<Object>> back = unarchive(bytes->bytes());
  ASSERT_TRUE(back.ok());
  OutlineFolderItem* seaside = OutlineFolderItem::as_item(back->get());
  ASSERT_NE(seaside, nullptr);
  EXPECT_EQ(seaside->identifierText(), "folder-7A");
  // The parent is written in full: the whole tree comes along.
  EXPECT_EQ(summary(seaside), summary(model->itemForIdentifier("folder-7A").get()));
  ASSERT_NE(seaside->parentItem(), nullptr);
  EXPECT_EQ(seaside->parentItem()->parentItem()->identifierText(), "root");
}

TEST(OutlineFolderModelQueries, ExpandedFoldersAreOpenFoldersShallowestFirst) {
  Ref<OutlineFolderItem> root = stored_user_tree();
  OutlineFolderItem* tags = root->childItems()[2];
  auto deep = attach(Ref(tags->childItems()[1]), folder("Deeper", "folder-8B", str(kTags), 2, true));
  attach(deep, folder("Closed", "folder-9D", str(kTags), 3, false));
  auto open_leaf = attach(deep, leaf("open leaf", "favtag-open", kTags, 3));
  open_leaf->expanded = true;
  SidebarHome home;
  home.write(dict({{kUser, archived(root)}}));
  Ref<OutlineFolderModel> model = home.load();
  Ref<Array> open = model->expandedFolders();
  ASSERT_NE(open, nullptr);
  EXPECT_FALSE(open->is_mutable());
  Ids ids;
  std::uint64_t last_level = 0;
  for (const Ref<Object>& o : open->items()) {
    OutlineFolderItem* item = OutlineFolderItem::as_item(o.get());
    ASSERT_NE(item, nullptr);
    EXPECT_TRUE(item->folder && item->expanded);
    EXPECT_GE(item->level, last_level);
    last_level = item->level;
    ids.emplace_back(item->identifierText());
  }
  // Not the closed folders, not the open leaf.
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
    for (int i = 0; i < n; ++i) {
      const int edges = static_cast<int>(rng() % 4);
      for (int e = 0; e < edges && i + 1 < n; ++e) {
        const int to = i + 1 + static_cast<int>(rng() % static_cast<unsigned>(n - i - 1));
        items[i]->childList()->push_back(items[to]);
      }
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
  Ref<OutlineFolderItem> root = folder("Root", "root", nullptr, 0);
  root->childList()->push_back(root);
  auto a = attach(root, folder("A", "a", nullptr, 1));
  auto b = attach(a, folder("B", "b", nullptr, 2));
  b->childList()->push_back(a);
  attach(b, leaf("leaf", "leaf", kTags, 3));

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
  Ref<OutlineFolderItem> root = folder("Root", "root", nullptr, 0);
  auto tags = attach(root, base_folder(kTags));
  Ref<OutlineFolderItem> at = tags;
  for (int i = 1; i <= kDepth; ++i) {
    const std::string n = std::to_string(i);
    at = attach(at, folder("f" + n, "folder-" + n, str(kTags), i, true));
  }
  attach(at, leaf("bottom", "favtag-bottom", kTags, kDepth + 1));
  SidebarHome home;
  home.write(dict({{kUser, archived(root)}}));
  at = nullptr;
  root = nullptr;
  tags = nullptr;

  Ref<OutlineFolderModel> model = home.load();
  Ref<OutlineFolderItem> bottom = model->itemForIdentifier("favtag-bottom");
  ASSERT_NE(bottom, nullptr);
  EXPECT_EQ(bottom->level, static_cast<std::uint64_t>(kDepth + 1));
  EXPECT_EQ(bottom->rootItem(), model->itemForIdentifier(kTags).get());
  EXPECT_EQ(model->identifiers()->size(), static_cast<std::size_t>(kDepth + 4));
  EXPECT_EQ(model->expandedFolders()->size(), static_cast<std::size_t>(kDepth + 1));  // tags and every sub-folder
  model->regenerateMapping();
  EXPECT_EQ(model->identifiers()->size(), static_cast<std::size_t>(kDepth + 4));
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
    model->itemForIdentifier("ff-x-coredata://5E1F/ImageList/p8")->title = make<Watcher>();
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
