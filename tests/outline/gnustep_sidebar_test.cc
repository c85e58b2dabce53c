// Sidebars written by an independent archiver (GNUstep's NSKeyedArchiver, through the gnustep-peer
// program) load through the folder model exactly as our own archives do, and GNUstep reads the folder
// structures that the model archives. Skips when the peer was not built.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "outline/outline_folder_model.h"
#include "platform/log.h"
#include "sidebar_home.h"
#include "support/gnustep_peer.h"

namespace orvia {
namespace {

using namespace sidebar;
using test::ArchiveFormat;

Ref<Data> gnustep_archive(const Ref<OutlineFolderItem>& root, ArchiveFormat format) {
  Result<std::string> bytes = test::encode_with_gnustep(test::dump_like_gnustep(root.get()), format);
  EXPECT_TRUE(bytes.ok()) << (bytes.ok() ? "" : bytes.error().message);
  return bytes.ok() ? make<Data>(*bytes) : nullptr;
}

// A user tree with a few more entries, so that every kind of item shows.
Ref<OutlineFolderItem> richer_user_tree() {
  Ref<OutlineFolderItem> root = stored_user_tree();
  auto rocks = add_folder(*root->childItems()[2]->childItems()[1], "Rocks", "folder-R");
  for (int i = 0; i < 20; ++i) add_entry(*rocks, "rock " + std::to_string(i), "favtag-rock" + std::to_string(i));
  add_entry(*root->childItems()[3], "Ünïcödé ✓", "location-99");
  return root;
}

TEST(GnustepSidebar, TreesWrittenByGnustepLoadLikeOurOwn) {
  ORVIA_REQUIRE_GNUSTEP();
  Ref<OutlineFolderItem> user = richer_user_tree();
  Ref<OutlineFolderItem> shared = stored_shared_albums();

  SidebarHome ours;
  ours.write(dict({{kUser, archived(user)}, {kSharedAlbumsUserID, archived(shared)}}));
  const std::vector<std::string> expected = model_summary(*ours.load());
  const std::vector<std::string> expected_pseudo = model_summary(*ours.load(kSharedAlbumsUserID));
  ASSERT_EQ(expected.size(), 35u);

  for (ArchiveFormat format : {ArchiveFormat::Binary, ArchiveFormat::Xml}) {
    SCOPED_TRACE(format == ArchiveFormat::Xml ? "xml" : "binary");
    Ref<Data> user_bytes = gnustep_archive(user, format);
    Ref<Data> shared_bytes = gnustep_archive(shared, format);
    ASSERT_TRUE(user_bytes && shared_bytes);
    SidebarHome theirs;
    theirs.write(dict({{kUser, user_bytes}, {kSharedAlbumsUserID, shared_bytes}}));
    LogCapture log;
    Ref<OutlineFolderModel> model = theirs.load();
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(model_summary(*model), expected);
    EXPECT_EQ(model->itemForIdentifier("favtag-rock7")->rootItem(), model->itemForIdentifier(kTags).get());
    EXPECT_EQ(model_summary(*theirs.load(kSharedAlbumsUserID)), expected_pseudo);

    // The decoded lists change in place.
    model->addItemWithTitle(str("new"), str("favtag-new"), model->itemForIdentifier("folder-R").get());
    EXPECT_EQ(model->itemForIdentifier("folder-R")->childCount(), 21u);
  }
}

TEST(GnustepSidebar, GnustepReadsTheFolderStructuresWeArchive) {
  ORVIA_REQUIRE_GNUSTEP();
  SidebarHome home;
  home.write(dict({{kUser, archived(richer_user_tree())}, {kSharedAlbumsUserID, archived(stored_shared_albums())}}));
  Ref<OutlineFolderModel> model = home.load();
  for (std::string_view id : {std::string_view("folder-R"), kTags, kAlbums}) {
    SCOPED_TRACE(std::string(id));
    Ref<Data> bytes = model->folderStructureForMainIdentifier(id);
    ASSERT_NE(bytes, nullptr);
    Result<nlohmann::json> theirs = test::decode_with_gnustep(bytes->bytes());
    ASSERT_TRUE(theirs.ok()) << theirs.error().message;
    EXPECT_EQ((*theirs)["$class"], "OutlineFolderItem");
    EXPECT_EQ((*theirs)["identifier"], std::string(id));
    // The whole connected tree, parents and shared objects included, as GNUstep sees it.
    EXPECT_EQ(test::json_text(*theirs), test::json_text(test::dump_like_gnustep(model->itemForIdentifier(id).get())));
  }
}

}  // namespace
}  // namespace orvia
