// The sidebar's editing operations on a loaded model: they change the tree and the lookup table in
// memory only, and the old client's preferences stay byte for byte as they were.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
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

// A home holding a user's tree and the shared albums folder, and the model loaded from it.
class FolderEditing : public testing::Test {
 protected:
  void SetUp() override {
    home_.write(dict({{kUser, archived(stored_user_tree())}, {kSharedAlbumsUserID, archived(stored_shared_albums())}}));
    model_ = home_.load();
  }
  Ref<OutlineFolderItem> item(std::string_view id) const { return model_->itemForIdentifier(id); }
  // Every item reachable from the root through children lists.
  std::vector<const OutlineFolderItem*> reachable() const {
    std::vector<const OutlineFolderItem*> out, todo{model_->rootItem()};
    while (!todo.empty()) {
      const OutlineFolderItem* at = todo.back();
      todo.pop_back();
      out.push_back(at);
      for (const OutlineFolderItem* child : at->childItems()) todo.push_back(child);
    }
    return out;
  }
  bool in_tree(const OutlineFolderItem* wanted) const { return std::ranges::count(reachable(), wanted) > 0; }

  SidebarHome home_;
  Ref<OutlineFolderModel> model_;
};

TEST_F(FolderEditing, NewFolderTakesItsParentsCategoryAndIsFound) {
  Ref<OutlineFolderItem> tags = item(kTags);
  model_->newFolderInFolder(tags.get(), str("Beaches"), str("folder-B1"));
  Ref<OutlineFolderItem> made = item("folder-B1");
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(tags->childItems().back(), made.get());
  EXPECT_EQ(made->parentItem(), tags.get());
  EXPECT_EQ(summary(made.get()), "Beaches|" + std::string(kTags) + "|FE|1|" + std::string(kTags) + "|mutable");

  // Inside a sub-folder the level grows by one more.
  model_->newFolderInFolder(made.get(), str("Sand"), str("folder-B2"));
  EXPECT_EQ(item("folder-B2")->level, 2u);
  EXPECT_EQ(item("folder-B2")->rootItem(), tags.get());
}

TEST_F(FolderEditing, NewEntryIsAClosedLeafAndNeedsATitle) {
  Ref<OutlineFolderItem> seaside = item("folder-7A");
  model_->addItemWithTitle(str("waves"), str("favtag-waves"), seaside.get());
  Ref<OutlineFolderItem> waves = item("favtag-waves");
  ASSERT_NE(waves, nullptr);
  EXPECT_EQ(summary(waves.get()), "waves|" + std::string(kTags) + "|--|2|folder-7A|mutable");
  EXPECT_EQ(waves->parentItem(), seaside.get());
  EXPECT_EQ(child_ids(seaside.get()), (Ids{"favtag-sea", "favtag-waves"}));

  const std::vector<std::string> state = table_state(*model_);
  for (Ref<Object> title : {Ref<Object>(), Ref<Object>(str("")), Ref<Object>(mutable_str(""))}) {
    model_->addItemWithTitle(title, str("favtag-untitled"), seaside.get());
    EXPECT_EQ(item("favtag-untitled"), nullptr);
  }
  EXPECT_EQ(table_state(*model_), state);
  EXPECT_EQ(seaside->childCount(), 2u);
}

TEST_F(FolderEditing, MovingASubFolderChangesOnlyTheSubFolder) {
  Ref<OutlineFolderItem> tags = item(kTags), locations = item(kLocations), seaside = item("folder-7A");
  Ref<OutlineFolderItem> sea = item("favtag-sea");
  model_->moveItem(seaside.get(), tags.get(), locations.get());
  EXPECT_EQ(child_ids(tags.get()), (Ids{"favtag-sunset"}));
  EXPECT_EQ(child_ids(locations.get()), (Ids{"location-2134", "folder-7A"}));
  EXPECT_EQ(seaside->parentItem(), locations.get());
  EXPECT_EQ(summary(seaside.get()),
            "Seaside|" + std::string(kLocations) + "|FE|1|" + std::string(kLocations) + "|favtag-sea|mutable");
  EXPECT_EQ(summary(sea.get()), "sea|" + std::string(kTags) + "|--|2|folder-7A|mutable");  // category and level kept
  EXPECT_EQ(item("folder-7A"), seaside);
}

TEST_F(FolderEditing, MovingWithoutFolderToLeaveOrToJoin) {
  Ref<OutlineFolderItem> tags = item(kTags), fav = item(kFav), sunset = item("favtag-sunset");
  // No folder to leave: the entry now stands in both lists.
  model_->moveItem(sunset.get(), nullptr, fav.get());
  EXPECT_EQ(child_ids(tags.get()), (Ids{"favtag-sunset", "folder-7A"}));
  EXPECT_EQ(child_ids(fav.get()), (Ids{"fa-x-coredata://5E1F/Friend/p3", "favtag-sunset"}));
  EXPECT_EQ(sunset->typeText(), kFav);
  // No folder to join: detached from the folder it leaves, in no list, without category, level 1.
  Ref<OutlineFolderItem> sea = item("favtag-sea"), seaside = item("folder-7A");
  model_->moveItem(sea.get(), seaside.get(), nullptr);
  EXPECT_FALSE(seaside->hasChildren());
  EXPECT_EQ(summary(sea.get()), "sea|(null)|--|1|(no parent)|mutable");
  EXPECT_FALSE(in_tree(sea.get()));
  // An item without title is not moved.
  Ref<OutlineFolderItem> lisbon = item("location-2134");
  lisbon->title = str("");
  model_->moveItem(lisbon.get(), item(kLocations).get(), fav.get());
  EXPECT_EQ(lisbon->parentItem(), item(kLocations).get());
  EXPECT_EQ(fav->childCount(), 2u);
  model_->moveItem(nullptr, tags.get(), fav.get());
  EXPECT_EQ(fav->childCount(), 2u);
}

TEST_F(FolderEditing, RemovingASubFolderTakesOutOnlyItsOwnEntry) {
  Ref<OutlineFolderItem> seaside = item("folder-7A"), sea = item("favtag-sea");
  model_->removeItemFromFolder(seaside.get());
  EXPECT_EQ(child_ids(item(kTags).get()), (Ids{"favtag-sunset"}));
  EXPECT_EQ(seaside->parent, nullptr);
  EXPECT_FALSE(in_tree(seaside.get()));
  EXPECT_FALSE(in_tree(sea.get()));
  EXPECT_EQ(item("folder-7A"), nullptr);
  EXPECT_EQ(item("favtag-sea"), sea);  // the content's entries stay in the table
  EXPECT_EQ(child_ids(seaside.get()), (Ids{"favtag-sea"}));

  // An item without parent is in no list; its entry still goes.
  model_->removeItemFromFolder(seaside.get());
  model_->removeItemFromFolder(sea.get());
  EXPECT_EQ(item("favtag-sea"), nullptr);
  model_->removeItemFromFolder(nullptr);
}

TEST_F(FolderEditing, CleanupRemovesLeavesThatAreNotKept) {
  const Ids folders{"root", std::string(kFav), std::string(kTags), "folder-7A", std::string(kLocations),
                    std::string(kAlbums), "folder-9C"};
  const Ids leaves{"fa-x-coredata://5E1F/Friend/p3", "favtag-sunset", "favtag-sea", "location-2134",
                   "ff-x-coredata://5E1F/ImageList/p7", "ff-x-coredata://5E1F/ImageList/p8"};
  Ref<Array> all_leaves = mutable_array();
  for (const std::string& id : leaves) all_leaves->push_back(str(id));

  const std::vector<std::string> state = table_state(*model_);
  model_->cleanupWithIdentifiers(all_leaves.get());
  EXPECT_EQ(table_state(*model_), state);

  model_->cleanupWithIdentifiers(array({str("favtag-sea")}).get());
  Ids expected = folders;
  expected.push_back("favtag-sea");
  EXPECT_EQ(sorted_identifiers(*model_), sorted(expected));
  EXPECT_EQ(child_ids(item(kTags).get()), (Ids{"folder-7A"}));
  EXPECT_EQ(child_ids(item("folder-7A").get()), (Ids{"favtag-sea"}));

  model_->cleanupWithIdentifiers(array().get());
  EXPECT_EQ(sorted_identifiers(*model_), sorted(folders));
  for (const OutlineFolderItem* at : reachable()) EXPECT_TRUE(at->folder) << at->identifierText();
}

TEST_F(FolderEditing, ResettingABaseFolderReplacesItInPlace) {
  Ref<OutlineFolderItem> old_tags = item(kTags);
  model_->resetBaseFoldersForKey(kTags);
  OutlineFolderItem* root = model_->rootItem();
  EXPECT_EQ(child_ids(root), kBaseOrder);
  Ref<OutlineFolderItem> fresh = item(kTags);
  EXPECT_NE(fresh, old_tags);
  EXPECT_EQ(root->childItems()[1], fresh.get());
  EXPECT_EQ(summary(fresh.get()), std::string(kTags) + "|" + std::string(kTags) + "|F-|0|(no parent)|mutable");
  EXPECT_NE(item("favtag-sea"), nullptr);  // the old content's entries stay

  // The albums folder: _albumsItem stays the replaced folder and is emptied.
  Ref<OutlineFolderItem> shared = model_->_albumsItem;
  model_->resetBaseFoldersForKey(kAlbums);
  EXPECT_EQ(model_->_albumsItem, shared);
  EXPECT_FALSE(shared->hasChildren());
  EXPECT_FALSE(in_tree(shared.get()));
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
  EXPECT_EQ(child_ids(locations.get()), (Ids{"favtag-sea", "favtag-waves", "folder-C1"}));
  for (OutlineFolderItem* moved : locations->childItems()) {
    EXPECT_EQ(moved->parentItem(), locations.get());
    EXPECT_EQ(moved->typeText(), kLocations);
    EXPECT_EQ(moved->level, 1u);
    EXPECT_EQ(target->itemForIdentifier(moved->identifierText()).get(), moved);
  }
  Ref<OutlineFolderItem> rock = target->itemForIdentifier("favtag-rock");  // content enters the table too
  ASSERT_NE(rock, nullptr);
  EXPECT_EQ(rock->typeText(), kTags);
  EXPECT_EQ(rock->level, 3u);
  EXPECT_NE(rock.get(), item("favtag-rock").get());  // a copy, not the source model's item
  EXPECT_EQ(child_ids(seaside.get()), (Ids{"favtag-sea", "favtag-waves", "folder-C1"}));  // source untouched
}

TEST_F(FolderEditing, ImportLeavesOutUntitledChildrenAndIgnoresNonArchives) {
  Ref<OutlineFolderItem> structure = folder("Box", "folder-box", str(kTags), 1);
  attach(structure, leaf("one", "favtag-one", kTags, 2));
  attach(structure, leaf("", "favtag-empty-title", kTags, 2));
  auto untitled = attach(structure, leaf("x", "favtag-no-title", kTags, 2));
  untitled->title = nullptr;
  attach(structure, leaf("two", "favtag-two", kTags, 2));
  model_->importFolderStructure(archived(structure).get(), kFav);
  EXPECT_EQ(child_ids(item(kFav).get()), (Ids{"fa-x-coredata://5E1F/Friend/p3", "favtag-one", "favtag-two"}));
  EXPECT_EQ(item("favtag-empty-title"), nullptr);

  const std::vector<std::string> state = table_state(*model_);
  for (Ref<Object> archive : {Ref<Object>(), Ref<Object>(Null::shared()), Ref<Object>(str("folder")),
                              Ref<Object>(data("garbage")), Ref<Object>(make<Data>(archive_root(str("x").get())))}) {
    model_->importFolderStructure(archive.get(), kFav);
  }
  EXPECT_EQ(table_state(*model_), state);

  // No folder under the receiving identifier: the children are taken out of the structure and put
  // nowhere, so the tree takes in nothing.
  model_->importFolderStructure(archived(structure).get(), "no such folder");
  EXPECT_EQ(item("favtag-one")->parentItem(), item(kFav).get());
  EXPECT_EQ(table_state(*model_), state);
}

TEST_F(FolderEditing, RenamingAFolderAndAnIdentifier) {
  Ref<OutlineFolderItem> seaside = item("folder-7A");
  model_->renameFolder(seaside.get(), str("Coast"));
  EXPECT_EQ(seaside->titleText(), "Coast");

  model_->updateIdentifier("folder-7A", "folder-coast");
  EXPECT_EQ(item("folder-7A"), nullptr);
  EXPECT_EQ(item("folder-coast"), seaside);
  EXPECT_EQ(seaside->identifierText(), "folder-coast");
  // A base folder renamed this way leaves its items' category as it was.
  Ref<OutlineFolderItem> tags = item(kTags);
  model_->updateIdentifier(kTags, "com.brenvik.velmora.folderTagsIdentifier2");
  EXPECT_EQ(item(kTags), nullptr);
  EXPECT_EQ(item("favtag-sunset")->typeText(), kTags);
  EXPECT_EQ(item("favtag-sunset")->rootItem(), nullptr);  // no longer a base folder above it
  // An identifier the table does not hold changes nothing.
  const std::vector<std::string> state = table_state(*model_);
  model_->updateIdentifier("no such item", "anything");
  EXPECT_EQ(table_state(*model_), state);
  EXPECT_EQ(item("anything"), nullptr);
}

TEST_F(FolderEditing, RenamingInTheAlbumsPseudoUserRenamesBothCopies) {
  Ref<OutlineFolderModel> pseudo = home_.load(kSharedAlbumsUserID);
  OutlineFolderItem* first = pseudo->rootItem();
  pseudo->renameFolder(first, str("All albums"));
  EXPECT_EQ(first->titleText(), "All albums");
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
  ASSERT_TRUE(user_tree.ok());
  OutlineFolderItem* root = OutlineFolderItem::as_item(user_tree->get());
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(child_ids(root), child_ids(model_->rootItem()));
  EXPECT_EQ(child_ids(root->childItems()[1]), (Ids{"favtag-sunset", "folder-7A", "favtag-waves"}));
  Result<Ref<Object>> albums = unarchive(as_data(stored->get(kSharedAlbumsUserID))->bytes());
  ASSERT_TRUE(albums.ok());
  EXPECT_EQ(child_ids(OutlineFolderItem::as_item(albums->get())), child_ids(model_->_albumsItem.get()));

  EXPECT_EQ(model_->_userDefaultsData, defaults);
  EXPECT_EQ(*write_binary_plist(model_->_userDefaultsData.get()), defaults_bytes);
}

TEST_F(FolderEditing, NoOperationTouchesThePreferencesFile) {
  const test::TreeSnapshot before = test::snapshot_tree(home_.home());
  const std::string file_bytes = test::read_file(home_.preferences_file());
  ASSERT_FALSE(file_bytes.empty());
  using Edit = std::function<void(OutlineFolderModel&)>;
  auto at = [](OutlineFolderModel& m, std::string_view id) { return m.itemForIdentifier(id).get(); };
  const std::vector<std::pair<const char*, Edit>> edits = {
      {"newFolderInFolder", [&](OutlineFolderModel& m) { m.newFolderInFolder(at(m, kTags), str("N"), str("n")); }},
      {"addItemWithTitle", [&](OutlineFolderModel& m) { m.addItemWithTitle(str("A"), str("a"), at(m, kFav)); }},
      {"moveItem", [&](OutlineFolderModel& m) { m.moveItem(at(m, "folder-7A"), at(m, kTags), at(m, kLocations)); }},
      {"renameFolder", [&](OutlineFolderModel& m) { m.renameFolder(at(m, kTags), str("Tags!")); }},
      {"removeItemFromFolder", [&](OutlineFolderModel& m) { m.removeItemFromFolder(at(m, "favtag-sea")); }},
      {"cleanupWithIdentifiers", [](OutlineFolderModel& m) { m.cleanupWithIdentifiers(array().get()); }},
      {"resetBaseFoldersForKey tags", [](OutlineFolderModel& m) { m.resetBaseFoldersForKey(kTags); }},
      {"resetBaseFoldersForKey albums", [](OutlineFolderModel& m) { m.resetBaseFoldersForKey(kAlbums); }},
      {"importFolderStructure",
       [](OutlineFolderModel& m) {
         m.importFolderStructure(m.folderStructureForMainIdentifier("folder-7A").get(), kFav);
       }},
      {"updateIdentifier", [](OutlineFolderModel& m) { m.updateIdentifier(kTags, "tags2"); }},
      {"flushFolderStructure", [](OutlineFolderModel& m) { m.flushFolderStructure(); }},
      {"flush", [](OutlineFolderModel& m) { m.flush(); }},
  };
  for (const auto& [name, edit] : edits) {
    SCOPED_TRACE(name);
    for (std::string_view user : {kUser, kSharedAlbumsUserID, std::string_view("new user")}) {
      Ref<OutlineFolderModel> model = home_.load(user);
      LogCapture log;
      edit(*model);
      EXPECT_TRUE(log.lines().empty());
      EXPECT_EQ(test::snapshot_tree(home_.home()), before);
    }
  }
  EXPECT_EQ(test::read_file(home_.preferences_file()), file_bytes);
}

}  // namespace
}  // namespace orvia
