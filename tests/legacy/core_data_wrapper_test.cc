// Attaching the old client's store the way an import does: in the background, then one block on the
// main queue, with the home folder taken when the attach runs.
#include "legacy/core_data_wrapper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "legacy_test_util.h"
#include "platform/log.h"
#include "platform/queue.h"

namespace fs = std::filesystem;

namespace orvia {
namespace {

using test::snapshot_tree;

void serve_main_queue_until(const std::function<bool()>& done) {
  for (int i = 0; i < 400 && !done(); ++i) MainQueue::shared().drain(std::chrono::milliseconds(50));
}

TEST(CoreDataWrapper, RunsTheCompletionOnceOnTheMainQueueAfterAttaching) {
  test::TempDir home;
  const fs::path store = MQCoreDataWrapper::storePathForHome(home.path().string());
  fs::create_directories(store.parent_path());
  test::InstaGramStore(store).account(1, "1001", "ann");
  const auto before = snapshot_tree(home.path());
  test::HomeOverride override_home(home.path());
  std::atomic<int> runs{0}, failures{0};
  bool on_main = false, attached = false;
  Ref<MQCoreDataWrapper> wrapper;
  wrapper = MQCoreDataWrapper::initWithCompletionBlock(
      [&] {
        ++runs;
        on_main = MainQueue::shared().is_main_thread();
        auto accounts = wrapper->currentAccounts();
        attached = wrapper->managedObjectContext() && accounts && accounts->size() == 1;
      },
      MQUserDefaultsWrapper::initWithBundleID("com.brenvik.velmora", home.path().string()), [&] { ++failures; });
  // The attach has nowhere to run its block until the main queue is served.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(runs.load(), 0);
  serve_main_queue_until([&] { return runs + failures > 0; });
  MainQueue::shared().drain(std::chrono::milliseconds(100));  // a second run would show here
  EXPECT_EQ(std::to_string(runs) + " " + std::to_string(failures) + " " + std::to_string(on_main) + " " +
                std::to_string(attached), "1 0 1 1");
  EXPECT_TRUE(wrapper->defaultsData());
  // Without a completion (nothing to run) and without preferences (the default orders).
  auto quiet = MQCoreDataWrapper::initWithStorePath(store.string(), nullptr, nullptr);
  serve_main_queue_until([&] { return quiet->managedObjectContext() != nullptr; });
  EXPECT_TRUE(quiet->currentAlbums());
  EXPECT_EQ(quiet->currentFriendsInAccount(nullptr).size(), 0u);
  MainQueue::shared().drain(std::chrono::milliseconds(50));
  EXPECT_EQ(snapshot_tree(home.path()), before);
}

TEST(CoreDataWrapper, ReportsAFailedAttachThroughTheFailureBlockOnly) {
  const std::vector<std::pair<std::function<void(const fs::path&)>, const char*>> cases = {
      {[](const fs::path&) {}, "unable to open the store file"},
      {[](const fs::path& p) { test::write_file(p, std::string(4096, 'z')); }, "file is not a database"},
  };
  for (const auto& [make, reason] : cases) {
    SCOPED_TRACE(reason);
    test::TempDir home;
    const fs::path store = MQCoreDataWrapper::storePathForHome(home.path().string());
    fs::create_directories(store.parent_path());
    make(store);
    const auto before = snapshot_tree(home.path());
    LogCapture log;
    test::HomeOverride override_home(home.path());
    int runs = 0, failures = 0;
    bool on_main = false;
    auto wrapper = MQCoreDataWrapper::initWithCompletionBlock([&] { ++runs; }, nullptr, [&] {
      ++failures;
      on_main = MainQueue::shared().is_main_thread();
    });
    serve_main_queue_until([&] { return runs + failures > 0; });
    MainQueue::shared().drain(std::chrono::milliseconds(50));
    EXPECT_EQ(std::to_string(runs) + " " + std::to_string(failures) + " " + std::to_string(on_main), "0 1 1");
    EXPECT_FALSE(wrapper->managedObjectContext() || wrapper->currentAccounts() || wrapper->currentAlbums());
    EXPECT_TRUE(wrapper->currentFriendsInAccount(nullptr).empty());
    ASSERT_EQ(log.lines().size(), 1u) << testing::PrintToString(log.lines());
    const std::string line = log.lines()[0];
    EXPECT_EQ(line.rfind("Failed to initalize persistent store: The file \xE2\x80\x9CInstaGramStore.db\xE2\x80\x9D "
                         "couldn\xE2\x80\x99t be opened.\n{", 0), 0u) << line;
    EXPECT_NE(line.find("NSFilePath = \"" + store.string() + "\";"), std::string::npos) << line;
    EXPECT_NE(line.find(reason), std::string::npos) << line;
    EXPECT_EQ(snapshot_tree(home.path()), before);
  }
}

}  // namespace
}  // namespace orvia
