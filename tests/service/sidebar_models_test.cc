// The sidebar models loaded ahead on a helper thread: the run gets the models, the log lines and the
// failures it would get loading each in turn, whether the helper is ahead of it or not started yet, and
// the lines of models never taken go with the loader.
#include "service/sidebar_models.h"

#include <gtest/gtest.h>

#include <thread>

#include "outline/outline_folder_model.h"
#include "platform/description.h"
#include "platform/log.h"
#include "records/records.h"
#include "support/legacy_home.h"

namespace orvia {
namespace {

TEST(SidebarModelLoader, GivesWhatLoadingInTurnGives) {
  register_record_classes();
  register_outline_classes();
  test::LegacyHome home;
  for (const char* user : {"1001", "1002", "1005"}) {
    auto tree = test::sidebar_root();
    auto trips = test::add_folder(*test::add_base_folder(*tree, kFolderTagsIdentifier), std::string("trips of ") + user);
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

  // The log and each model's identifiers, the models loaded in turn as the run would load them (no head
  // start), or taken from the loader (the first `taken` of them).
  auto load = [&](std::optional<std::chrono::milliseconds> head_start, std::size_t taken) {
    Heap heap;
    HeapScope scope(heap);
    MQUserDefaultsWrapper::Snapshot snapshot(*defaults);
    LogCapture log;
    std::vector<std::string> out;
    {
      std::optional<SidebarModelLoader> loader;
      if (head_start) {
        std::vector<SidebarModelLoader::Request> requests;
        for (std::size_t i = 0; i < users.size(); ++i) requests.push_back({str(users[i]), i + 1 < users.size()});
        loader.emplace(std::move(requests), defaults);
        std::this_thread::sleep_for(*head_start);
        EXPECT_TRUE(log.lines().empty()) << "lines of models not taken yet are held";
      }
      for (std::size_t i = 0; i < taken; ++i) {
        Ref<OutlineFolderModel> model = loader ? loader->take(i) : nullptr;
        if (!loader) {
          model = OutlineFolderModel::initWithExistingUser(users[i], false, defaults);
          if (i + 1 < users.size()) NSLog("%@", model->identifiers());
        }
        NSLog("exported %@", users[i]);  // what the run logs between two models
        out.push_back(description(model->identifiers().get()));
      }
    }
    for (const std::string& line : log.lines()) out.push_back(line);
    return out;
  };
  const std::vector<std::string> expected = load(std::nullopt, users.size());
  ASSERT_EQ(expected.size(), 18u);
  EXPECT_EQ(expected[8], "undecodable folder structure for 1003");
  // Taken at once (the run loads the first ones itself), after the helper has loaded them all, and only
  // the first two of them, the loader ending while its helper is at work.
  for (auto [head_start, taken] : {std::pair{0, 6}, std::pair{300, 6}, std::pair{0, 2}}) {
    SCOPED_TRACE(testing::Message() << head_start << " ms, " << taken << " taken");
    std::vector<std::string> want = expected;
    if (taken == 2) want = {expected[0], expected[1], expected[6], expected[7], expected[8], expected[9], expected[10]};
    EXPECT_EQ(load(std::chrono::milliseconds(head_start), taken), want);
  }
}

}  // namespace
}  // namespace orvia
