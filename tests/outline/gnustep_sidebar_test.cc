// Sidebars written by an independent archiver (GNUstep's NSKeyedArchiver, through the gnustep-peer
// program) load through the folder model exactly as our own archives do, and GNUstep reads the folder
// structures that the model archives. Skips when the peer was not built.
#include <gtest/gtest.h>

#include "sidebar_home.h"
#include "support/gnustep_peer.h"

namespace orvia {
namespace {

using namespace sidebar;
using test::ArchiveFormat;

// A user tree with a few more entries, so that every kind of item shows.
Ref<OutlineFolderItem> richer_user_tree() {
  Ref<OutlineFolderItem> root = stored_user_tree();
  auto rocks = add_folder(*root->childItems()[2]->childItems()[1], "Rocks", "folder-R");
  for (int i = 0; i < 20; ++i) add_entry(*rocks, "rock " + std::to_string(i), "favtag-rock" + std::to_string(i));
  add_entry(*root->childItems()[3], "Ünïcödé ✓", "location-99");
  return root;
}

TEST(GnustepSidebar, TreesWrittenByGnustepLoadLikeOurOwnAndGnustepReadsOurFolderStructures) {
  ORVIA_REQUIRE_GNUSTEP();
  Ref<OutlineFolderItem> user = richer_user_tree(), shared = stored_shared_albums();
  SidebarHome ours(dict({{kUser, archived(user)}, {S, archived(shared)}}));
  Ref<OutlineFolderModel> model = ours.load();
  const std::string expected = table(*model, 1), expected_pseudo = table(*ours.load(S), 1);
  ASSERT_EQ(model->identifiers()->size(), 35u);
  for (ArchiveFormat format : {ArchiveFormat::Binary, ArchiveFormat::Xml}) {
    SCOPED_TRACE(format == ArchiveFormat::Xml ? "xml" : "binary");
    Result<std::string> user_bytes = test::encode_with_gnustep(test::dump_like_gnustep(user.get()), format),
                        shared_bytes = test::encode_with_gnustep(test::dump_like_gnustep(shared.get()), format);
    ASSERT_TRUE(user_bytes.ok() && shared_bytes.ok());
    SidebarHome theirs(dict({{kUser, make<Data>(*user_bytes)}, {S, make<Data>(*shared_bytes)}}));
    LogCapture log;
    Ref<OutlineFolderModel> loaded = theirs.load();
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(table(*loaded, 1), expected);
    EXPECT_EQ(loaded->itemForIdentifier("favtag-rock7")->rootItem(), loaded->itemForIdentifier(T).get());
    EXPECT_EQ(table(*theirs.load(S), 1), expected_pseudo);
    // The decoded lists change in place.
    loaded->addItemWithTitle(str("new"), str("favtag-new"), loaded->itemForIdentifier("folder-R").get());
    EXPECT_EQ(loaded->itemForIdentifier("folder-R")->childCount(), 21u);
  }
  for (std::string_view id : {std::string_view("folder-R"), std::string_view(T), std::string_view(A)}) {
    Ref<Data> bytes = model->folderStructureForMainIdentifier(id);
    Result<nlohmann::json> theirs = test::decode_with_gnustep(bytes ? bytes->bytes() : "");
    ASSERT_TRUE(theirs.ok()) << theirs.error().message;
    EXPECT_EQ((*theirs)["$class"], "OutlineFolderItem");
    // The whole connected tree, parents and shared objects included, as GNUstep sees it.
    EXPECT_EQ(test::json_text(*theirs), test::json_text(test::dump_like_gnustep(model->itemForIdentifier(id).get())));
  }
}

}  // namespace
}  // namespace orvia
