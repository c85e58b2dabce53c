// The import end to end on a small legacy installation: the reply archive read by our decoder and by
// GNUstep with client-side classes, its bytes pinned, and the installation unchanged afterwards.
#include <gtest/gtest.h>

#include <cstdio>

#include "legacy/core_data_wrapper.h"
#include "outline/outline_folder_model.h"
#include "platform/keyed_archive.h"
#include "records/records.h"
#include "service/import_request.h"
#include "support/gnustep_peer.h"
#include "support/legacy_home.h"

namespace orvia {
namespace {

using test::LegacyHome;
using test::LegacyStore;

// Two accounts with a user id and one without; albums filed in the shared album tree.
void fill_two_accounts(LegacyHome& home) {
  LegacyStore& store = home.store();
  const auto ann = store.add_account("1001", "ann");
  store.add_account("1002", "bob");
  store.add_account(std::nullopt, "nobody");
  const auto trip = store.add_album("Trip", 100.0);
  store.add_image(trip, test::media_archive(*test::older_media("11_1001", "https://photos.example/p/AAA")));
  store.add_image(trip, test::media_archive(*test::older_media("12_1001", "https://photos.example/p/BBB/", "", "ann", true)));
  store.add_album("Unfiled", 50.0);
  store.add_friend({.uid = "77", .name = "carla", .added = 5.5, .media_count = 9, .account = ann});

  auto shared = test::sidebar_root();
  auto albums = test::add_base_folder(*shared, kFolderAlbumsIdentifier);
  auto holidays = test::add_folder(*albums, "Holidays");
  test::add_entry(*holidays, "Trip", test::album_id(store.uri(LegacyStore::kImageList, trip)));
  home.set_sidebar("*--*albums*--*", albums);

  auto tree = test::sidebar_root();
  test::add_base_folder(*tree, kFolderFavFriendIdentifier);
  auto tags = test::add_base_folder(*tree, kFolderTagsIdentifier);
  test::add_entry(*tags, "sunset", test::favtag_id("sunset"));
  test::add_base_folder(*tree, kFolderLocationsIdentifier);
  home.set_sidebar("1001", tree);
  home.set_in("FavoriteSidebarTags", "1001", array({dict({{"tag", str("sunset")}, {"count", num(4)}})}));
  home.set_in("UserAccountsI", "1001", str("https://pics.example/ann.jpg"));
  home.set_in("kUserBlacklistKey", "1234", str("spammer"));
  home.add_statistics("1001");
  home.write();
}

Ref<Array> decode_reply(const std::string& archive) {
  register_record_classes();
  auto root = unarchive(archive);
  EXPECT_TRUE(root.ok()) << (root.ok() ? "" : root.error().message);
  return root.ok() ? Ref<Array>(as_array(root.value().get())) : nullptr;
}

// FNV-1a of the bytes, printed in hex.
std::string digest(const std::string& bytes) {
  std::uint64_t h = 1469598103934665603ull;
  for (unsigned char c : bytes) h = (h ^ c) * 1099511628211ull;
  char out[17];
  std::snprintf(out, sizeof out, "%016llx", static_cast<unsigned long long>(h));
  return out;
}

// What a result holds is checked over many installations, directly and through the bus, by the hostile
// installation catalogue: here, one result per account with a user id, a real reply as the client
// reads it, and the reply's bytes.
TEST(ImportEndToEnd, DirectRunGivesOneResultPerAccountSharingOneAlbumTreeInPinnedBytes) {
  LegacyHome home;
  fill_two_accounts(home);
  const test::TreeSnapshot before = test::snapshot_tree(home.path());

  service::ImportOutcome outcome = service::run_direct_import(home.home());
  ASSERT_TRUE(outcome.success);
  ASSERT_TRUE(outcome.archive);
  Ref<Array> results = decode_reply(*outcome.archive);
  ASSERT_NE(results, nullptr);
  ASSERT_EQ(results->size(), 2u);  // the account without a user id is left out
  auto* a = dynamic_cast<MQImporterNodeResult*>(results->at(0).get());
  auto* b = dynamic_cast<MQImporterNodeResult*>(results->at(1).get());
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->albums.get(), b->albums.get());
  EXPECT_NE(a->statistics, nullptr);
  EXPECT_EQ(b->statistics, nullptr);  // bob has no statistics database

  // The client reads the archive with its own classes: GNUstep gives the same records.
  if (test::gnustep_available()) {
    auto theirs = test::decode_with_gnustep(*outcome.archive);
    ASSERT_TRUE(theirs.ok()) << theirs.error().message;
    nlohmann::json ours = test::dump_like_gnustep(results.get());
    EXPECT_EQ(test::json_text(theirs.value()), test::json_text(ours));
  }
  EXPECT_EQ(test::snapshot_tree(home.path()), before);

  // Optimisations must not change the reply: the archive of this installation is pinned. A change of
  // the wire format on purpose updates the digest here, with the reason in the commit. The statistics
  // path holds the temporary home's name: it is masked with as many bytes.
  std::string bytes = *outcome.archive;
  const std::string path = home.home();
  for (std::size_t at = bytes.find(path); at != std::string::npos; at = bytes.find(path, at))
    bytes.replace(at, path.size(), std::string(path.size(), 'H'));
  EXPECT_EQ(digest(bytes), "54debfab975f5e9d") << "archive of " << bytes.size() << " bytes";
}

}  // namespace
}  // namespace orvia
