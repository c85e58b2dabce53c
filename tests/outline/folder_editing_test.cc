// The sidebar's editing operations on a loaded model: they change the tree and the lookup table in
// memory only, and the old client's preferences stay byte for byte as they were.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/log.h"
#include "sidebar_home.h"

namespace orvia {
namespace {

using namespace sidebar;
using Ids = std::vector<std::string>;
const std::string F(kFav), T(kTags), L(kLocations), A(kAlbums);

// A home holding a user's tree and the shared albums folder, and the model loaded from it.
class FolderEditing : public testing::Test {
 protected:
  void SetUp() override {
    home_.write(dict({{kUser, archived(stored_user_tree())}, {kSharedAlbumsUserID, archived(stored_shared_albums())}}));
    model_ = home_.load();
  }
  Ref<OutlineFolderItem> item(std::string_view id) const { return model_->itemForIdentifier(id); }
  std::string tree() const { return tree_text(model_->rootItem()); }

  SidebarHome home_;
  Ref<OutlineFolderModel> model_;
};

TEST_F(FolderEditing, NewFoldersAndEntriesTakeTheirParentsCategoryAndLevel) {
  Ref<OutlineFolderItem> tags = item(kTags);
  model_->newFolderInFolder(tags.get(), str("Beaches"), str("folder-B1"));
  model_->newFolderInFolder(item("folder-B1").get(), str("Sand"), str("folder-B2"));
  model_->addItemWithTitle(str("waves"), str("favtag-waves"), item("folder-7A").get());
  EXPECT_EQ(tree_text(tags.get()), "Tags[favtag-sunset folder-7A[favtag-sea favtag-waves] folder-B1[folder-B2[]]]");
  EXPECT_EQ(summary(item("folder-B1").get()), "Beaches|" + T + "|FE|1|" + T + "|folder-B2|mutable");
  EXPECT_EQ(summary(item("folder-B2").get()), "Sand|" + T + "|FE|2|folder-B1|mutable");
  EXPECT_EQ(summary(item("favtag-waves").get()), "waves|" + T + "|--|2|folder-7A|mutable");  // a closed leaf
  EXPECT_EQ(item("folder-B1")->parentItem(), tags.get());
  EXPECT_EQ(item("favtag-waves")->parentItem(), item("folder-7A").get());
  EXPECT_EQ(item("folder-B2")->rootItem(), tags.get());

  // An entry needs a title.
  const std::vector<std::string> state = table_state(*model_);
  for (Ref<Object> title : {Ref<Object>(), Ref<Object>(str("")), Ref<Object>(mutable_str(""))})
    model_->addItemWithTitle(title, str("favtag-untitled"), item("folder-7A").get());
  EXPECT_EQ(table_state(*model_), state);
  EXPECT_EQ(item("folder-7A")->childCount(), 2u);
}

TEST_F(FolderEditing, MovingItems) {
  Ref<OutlineFolderItem> seaside = item("folder-7A"), sunset = item("favtag-sunset"), sea = item("favtag-sea");
  // A sub-folder changes folder, category and level; its content keeps both.
  model_->moveItem(seaside.get(), item(kTags).get(), item(kLocations).get());
  EXPECT_EQ(seaside->parentItem(), item(kLocations).get());
  EXPECT_EQ(summary(seaside.get()), "Seaside|" + L + "|FE|1|" + L + "|favtag-sea|mutable");
  EXPECT_EQ(summary(sea.get()), "sea|" + T + "|--|2|folder-7A|mutable");
  // No folder to leave: the entry now stands in both lists.
  model_->moveItem(sunset.get(), nullptr, item(kFav).get());
  EXPECT_EQ(sunset->typeText(), kFav);
  // No folder to join: detached from the folder it leaves, in no list, without category, level 1.
  model_->moveItem(sea.get(), seaside.get(), nullptr);
  EXPECT_EQ(summary(sea.get()), "sea|(null)|--|1|(no parent)|mutable");
  // An item without title, or none, is not moved.
  item("location-2134")->title = str("");
  model_->moveItem(item("location-2134").get(), item(kLocations).get(), item(kFav).get());
  model_->moveItem(nullptr, item(kTags).get(), item(kFav).get());
  EXPECT_EQ(item("location-2134")->parentItem(), item(kLocations).get());
  EXPECT_EQ(tree(), "root[FavFriend[fa-Friend/p3 favtag-sunset] Tags[favtag-sunset] Locations[location-2134 "
                    "folder-7A[]] Albums[ff-ImageList/p7 folder-9C[ff-ImageList/p8]]]");
  EXPECT_EQ(item("folder-7A"), seaside);
}

TEST_F(FolderEditing, RemovingASubFolderTakesOutOnlyItsOwnEntry) {
  Ref<OutlineFolderItem> seaside = item("folder-7A"), sea = item("favtag-sea");
  model_->removeItemFromFolder(seaside.get());
  EXPECT_EQ(tree_text(item(kTags).get()), "Tags[favtag-sunset]");
  EXPECT_EQ(seaside->parent, nullptr);
  EXPECT_EQ(tree_text(seaside.get()), "folder-7A[favtag-sea]");
  EXPECT_EQ(item("folder-7A"), nullptr);
  EXPECT_EQ(item("favtag-sea"), sea);  // the content's entries stay in the table

  // An item without parent is in no list; its entry still goes.
  model_->removeItemFromFolder(seaside.get());
  model_->removeItemFromFolder(sea.get());
  EXPECT_EQ(item("favtag-sea"), nullptr);
  model_->removeItemFromFolder(nullptr);
}

TEST_F(FolderEditing, CleanupRemovesLeavesThatAreNotKept) {
  Ref<Array> all_leaves = mutable_array();
  for (const char* id : {"fa-x-coredata://5E1F/Friend/p3", "favtag-sunset", "favtag-sea", "location-2134",
                         "ff-x-coredata://5E1F/ImageList/p7", "ff-x-coredata://5E1F/ImageList/p8"})
    all_leaves->push_back(str(id));
  const std::vector<std::string> state = table_state(*model_);
  model_->cleanupWithIdentifiers(all_leaves.get());
  EXPECT_EQ(table_state(*model_), state);

  const Ids folders{"root", F, T, "folder-7A", L, A, "folder-9C"};
  model_->cleanupWithIdentifiers(array({str("favtag-sea")}).get());
  EXPECT_EQ(tree(), "root[FavFriend[] Tags[folder-7A[favtag-sea]] Locations[] Albums[folder-9C[]]]");
  Ids expected = folders;
  expected.push_back("favtag-sea");
  EXPECT_EQ(sorted_identifiers(*model_), sorted(expected));

  model_->cleanupWithIdentifiers(array().get());
  EXPECT_EQ(tree(), "root[FavFriend[] Tags[folder-7A[]] Locations[] Albums[folder-9C[]]]");
  EXPECT_EQ(sorted_identifiers(*model_), sorted(folders));
}

TEST_F(FolderEditing, ResettingABaseFolderReplacesItInPlace) {
  Ref<OutlineFolderItem> old_tags = item(kTags), shared = model_->_albumsItem;
  model_->resetBaseFoldersForKey(kTags);
  model_->resetBaseFoldersForKey(kAlbums);
  EXPECT_EQ(tree(), "root[FavFriend[fa-Friend/p3] Tags[] Locations[location-2134] Albums[]]");
  OutlineFolderItem* root = model_->rootItem();
  EXPECT_NE(item(kTags), old_tags);
  EXPECT_EQ(root->childItems()[1], item(kTags).get());
  EXPECT_EQ(summary(item(kTags).get()), T + "|" + T + "|F-|0|(no parent)|mutable");
  EXPECT_NE(item("favtag-sea"), nullptr);  // the old content's entries stay
  // The albums folder: _albumsItem stays the replaced folder and is emptied.
  EXPECT_EQ(model_->_albumsItem, shared);
  EXPECT_FALSE(shared->hasChildren());
  EXPECT_NE(item(kAlbums), shared);
  EXPECT_EQ(root->childItems()[3], item(kAlbums).get());

  // A key no base folder carries changes nothing.
  const std::vector<std::string> state = table_state(*model_);
  model_->resetBaseFoldersForKey("com.brenvik.velmora.folderUnknownIdentifier");
  EXPECT_EQ(table_state(*model_), state);
}

TEST_F(FolderEditing, ImportedStructureAppendsTheSubFoldersChildren) {
  Ref<OutlineFolderItem> seaside = item("folder-7A");
  model_->addItemWithTitle(str("waves"), str("favtag-waves"), seaside.get());
  model_->newFolderInFolder(seaside.get(), str("Cliffs"), str("folder-C1"));
  model_->addItemWithTitle(str("rock"), str("favtag-rock"), item("folder-C1").get());
  Ref<Data> structure = model_->folderStructureForMainIdentifier("folder-7A");
  ASSERT_NE(structure, nullptr);

  // Another user's model takes it in.
  SidebarHome other;
  Ref<OutlineFolderModel> target = other.load("5678");
  target->importFolderStructure(structure.get(), kLocations);
  Ref<OutlineFolderItem> locations = target->itemForIdentifier(kLocations);
  EXPECT_EQ(tree_text(locations.get()), "Locations[favtag-sea favtag-waves folder-C1[favtag-rock]]");
  for (OutlineFolderItem* moved : locations->childItems()) {
    EXPECT_EQ(moved->parentItem(), locations.get());
    EXPECT_EQ(moved->typeText(), kLocations);
    EXPECT_EQ(moved->level, 1u);
    EXPECT_EQ(target->itemForIdentifier(moved->identifierText()).get(), moved);
  }
  Ref<OutlineFolderItem> rock = target->itemForIdentifier("favtag-rock");  // content enters the table too
  ASSERT_NE(rock, nullptr);
  EXPECT_EQ(summary(rock.get()), "rock|" + T + "|--|3|folder-C1|mutable");
  EXPECT_NE(rock.get(), item("favtag-rock").get());  // a copy, not the source model's item
  EXPECT_EQ(tree_text(seaside.get()), "folder-7A[favtag-sea favtag-waves folder-C1[favtag-rock]]");  // untouched
}

TEST_F(FolderEditing, ImportLeavesOutUntitledChildrenAndIgnoresNonArchives) {
  Ref<OutlineFolderItem> structure = folder("Box", "folder-box", str(kTags), 1, true);
  add_entry(*structure, "one", "favtag-one");
  add_entry(*structure, "", "favtag-empty-title");
  add_entry(*structure, "x", "favtag-no-title")->title = nullptr;
  add_entry(*structure, "two", "favtag-two");
  model_->importFolderStructure(archived(structure).get(), kFav);
  EXPECT_EQ(tree_text(item(kFav).get()), "FavFriend[fa-Friend/p3 favtag-one favtag-two]");
  EXPECT_EQ(item("favtag-empty-title"), nullptr);

  const std::vector<std::string> state = table_state(*model_);
  for (Ref<Object> archive : {Ref<Object>(), Ref<Object>(Null::shared()), Ref<Object>(str("folder")),
                              Ref<Object>(data("garbage")), Ref<Object>(make<Data>(archive_root(str("x").get())))}) {
    model_->importFolderStructure(archive.get(), kFav);
  }
  // No folder under the receiving identifier: the children are taken out of the structure and put
  // nowhere, so the tree takes in nothing.
  model_->importFolderStructure(archived(structure).get(), "no such folder");
  EXPECT_EQ(item("favtag-one")->parentItem(), item(kFav).get());
  EXPECT_EQ(table_state(*model_), state);
}

TEST_F(FolderEditing, RenamingFoldersAndIdentifiers) {
  Ref<OutlineFolderItem> seaside = item("folder-7A");
  model_->renameFolder(seaside.get(), str("Coast"));
  EXPECT_EQ(seaside->titleText(), "Coast");
  model_->updateIdentifier("folder-7A", "folder-coast");
  EXPECT_EQ(item("folder-7A"), nullptr);
  EXPECT_EQ(item("folder-coast"), seaside);
  EXPECT_EQ(seaside->identifierText(), "folder-coast");
  // A base folder renamed this way leaves its items' category as it was.
  model_->updateIdentifier(kTags, "com.brenvik.velmora.folderTagsIdentifier2");
  EXPECT_EQ(item(kTags), nullptr);
  EXPECT_EQ(item("favtag-sunset")->typeText(), kTags);
  EXPECT_EQ(item("favtag-sunset")->rootItem(), nullptr);  // no longer a base folder above it
  // An identifier the table does not hold changes nothing.
  const std::vector<std::string> state = table_state(*model_);
  model_->updateIdentifier("no such item", "anything");
  EXPECT_EQ(table_state(*model_), state);

  // In the albums pseudo-user both copies of the albums folder are renamed.
  Ref<OutlineFolderModel> pseudo = home_.load(kSharedAlbumsUserID);
  pseudo->renameFolder(pseudo->rootItem(), str("All albums"));
  EXPECT_EQ(pseudo->rootItem()->titleText(), "All albums");
  EXPECT_EQ(pseudo->_albumsItem->titleText(), "All albums");
}

// That nothing reaches the preferences file is checked for every operation by NoOperationTouchesThePreferencesFile.
TEST_F(FolderEditing, TheStoredFormIsComposedOnlyOnRequest) {
  Ref<Dictionary> defaults = model_->_userDefaultsData;
  const std::string defaults_bytes = *write_binary_plist(defaults.get());
  model_->addItemWithTitle(str("waves"), str("favtag-waves"), item(kTags).get());
  model_->flush();
  model_->flushFolderStructure();

  Ref<Dictionary> stored = model_->storedFolderModels();
  ASSERT_EQ(stored->size(), 2u);
  Result<Ref<Object>> user_tree = unarchive(as_data(stored->get(kUser))->bytes());
  Result<Ref<Object>> albums = unarchive(as_data(stored->get(kSharedAlbumsUserID))->bytes());
  ASSERT_TRUE(user_tree.ok() && albums.ok());
  ASSERT_NE(OutlineFolderItem::as_item(user_tree->get()), nullptr);
  ASSERT_NE(OutlineFolderItem::as_item(albums->get()), nullptr);
  EXPECT_EQ(tree_text(OutlineFolderItem::as_item(user_tree->get())), tree());
  EXPECT_EQ(tree_text(OutlineFolderItem::as_item(albums->get())), tree_text(model_->_albumsItem.get()));
  EXPECT_NE(tree().find("favtag-waves"), std::string::npos);

  EXPECT_EQ(model_->_userDefaultsData, defaults);
  EXPECT_EQ(*write_binary_plist(model_->_userDefaultsData.get()), defaults_bytes);
}

TEST_F(FolderEditing, NoOperationTouchesThePreferencesFile) {
  const test::TreeSnapshot before = test::snapshot_tree(home_.path());
  const std::string file_bytes = test::read_file(home_.preferences_file());
  ASSERT_FALSE(file_bytes.empty());
  for (std::string_view user : {kUser, kSharedAlbumsUserID, std::string_view("new user")}) {
    SCOPED_TRACE(user);
    Ref<OutlineFolderModel> m = home_.load(user);
    auto at = [&](std::string_view id) { return m->itemForIdentifier(id).get(); };
    LogCapture log;
    m->newFolderInFolder(at(kTags), str("N"), str("n"));
    m->addItemWithTitle(str("A"), str("a"), at(kFav));
    m->importFolderStructure(m->folderStructureForMainIdentifier("folder-7A").get(), kFav);
    m->moveItem(at("folder-7A"), at(kTags), at(kLocations));
    m->renameFolder(at(kTags), str("Tags!"));
    m->removeItemFromFolder(at("favtag-sea"));
    m->cleanupWithIdentifiers(array().get());
    m->resetBaseFoldersForKey(kTags);
    m->resetBaseFoldersForKey(kAlbums);
    m->updateIdentifier(kTags, "tags2");
    m->flushFolderStructure();
    m->flush();
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(test::snapshot_tree(home_.path()), before);
  }
  EXPECT_EQ(test::read_file(home_.preferences_file()), file_bytes);
}

}  // namespace
}  // namespace orvia
