// The sidebar models loaded ahead on a helper thread: the run gets the models, the log lines and the
// failures it would get loading each in turn, whether the helper is ahead of it or not started yet.
#include "service/sidebar_models.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "outline/outline_folder_model.h"
#include "platform/description.h"
#include "platform/log.h"
#include "records/records.h"
#include "support/legacy_home.h"

namespace orvia {
namespace {

using test::LegacyHome;

struct Loaded {
  std::vector<std::string> log;
  std::vector<std::string> identifiers;  // each model's, as its description
};

TEST(SidebarModelLoader, GivesWhatLoadingInTurnGives) {
  register_record_classes();
  register_outline_classes();
  LegacyHome home;
  for (const char* user : {"1001", "1002", "1005"}) {
    auto tree = test::sidebar_root();
    auto tags = test::add_base_folder(*tree, kFolderTagsIdentifier);
    auto trips = test::add_folder(*tags, std::string("trips of ") + user);
    for (int i = 0; i < 50; ++i) test::add_entry(*trips, "tag " + std::to_string(i), test::favtag_id(user + std::to_string(i)));
    home.set_sidebar(user, tree);
  }
  home.set_in("OutlineFolderModels", "1003", str("not an archive"));  // logged while loading
  auto shared = test::sidebar_root();
  test::add_entry(*test::add_base_folder(*shared, kFolderAlbumsIdentifier), "Trip", test::album_id("x-coredata://S/ImageList/p1"));
  home.set_sidebar(test::kSharedAlbumsUser, shared);
  home.write();
  Ref<MQUserDefaultsWrapper> defaults = home.defaults();
  ASSERT_TRUE(defaults->hasExistingOrviaInstall());  // read outside any heap, as the run reads it first
  // Users in the run's order: "1004" has no stored tree, the last one is the shared albums'.
  const std::vector<std::string> users = {"1001", "1003", "1002", "1004", "1005", std::string(test::kSharedAlbumsUser)};

  // Each model loaded in turn as the run would load it (no head start), or taken from the loader.
  auto load = [&](std::optional<std::chrono::milliseconds> head_start) {
    Loaded out;
    Heap heap;
    HeapScope scope(heap);
    MQUserDefaultsWrapper::Snapshot snapshot(*defaults);
    LogCapture log;
    std::optional<SidebarModelLoader> loader;
    if (head_start) {
      std::vector<SidebarModelLoader::Request> requests;
      for (std::size_t i = 0; i < users.size(); ++i) requests.push_back({str(users[i]), i + 1 < users.size()});
      loader.emplace(std::move(requests), defaults);
      std::this_thread::sleep_for(*head_start);
      EXPECT_TRUE(log.lines().empty()) << "lines of models not taken yet are held";
    }
    for (std::size_t i = 0; i < users.size(); ++i) {
      Ref<OutlineFolderModel> model = loader ? loader->take(i) : nullptr;
      if (!loader) {
        model = OutlineFolderModel::initWithExistingUser(users[i], false, defaults);
        if (i + 1 < users.size()) NSLog("%@", model->identifiers());
      }
      NSLog("exported %@", users[i]);  // what the run logs between two models
      out.identifiers.push_back(description(model->identifiers().get()));
    }
    out.log = log.lines();
    return out;
  };

  const Loaded expected = load(std::nullopt);
  ASSERT_EQ(expected.log.size(), 12u);
  EXPECT_EQ(expected.log[2], "undecodable folder structure for 1003");
  // Taken at once (the run loads the first ones itself) and taken after the helper has loaded them all.
  for (auto head_start : {std::chrono::milliseconds(0), std::chrono::milliseconds(300)}) {
    SCOPED_TRACE(head_start.count());
    const Loaded got = load(head_start);
    EXPECT_EQ(got.log, expected.log);
    EXPECT_EQ(got.identifiers, expected.identifiers);
  }
}

TEST(SidebarModelLoader, EndsCleanlyWithModelsNotTaken) {
  register_record_classes();
  register_outline_classes();
  LegacyHome home;
  home.set_in("OutlineFolderModels", "1", str("not an archive"));
  home.write();
  Ref<MQUserDefaultsWrapper> defaults = home.defaults();
  ASSERT_TRUE(defaults->hasExistingOrviaInstall());
  LogCapture log;
  {
    Heap heap;
    HeapScope scope(heap);
    SidebarModelLoader loader({{str("1"), true}, {str("2"), true}}, defaults);
    EXPECT_NE(loader.take(0), nullptr);
  }
  // Only the taken model's lines were written; the other's went with the loader.
  ASSERT_FALSE(log.lines().empty());
  EXPECT_EQ(log.lines()[0], "undecodable folder structure for 1");
  EXPECT_EQ(log.lines().size(), 2u);
}

}  // namespace
}  // namespace orvia
