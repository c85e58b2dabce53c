// Attaching the old client's store the way an import does: in the background, then one block on the
// main queue, with the home folder taken when the attach runs.
#include "legacy/core_data_wrapper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "legacy_test_util.h"
#include "platform/log.h"
#include "platform/queue.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace orvia {
namespace {

using test::HomeOverride;
using test::snapshot_tree;
using test::TempDir;

void serve_main_queue_until(const std::function<bool()>& done) {
  for (int i = 0; i < 400 && !done(); ++i) MainQueue::shared().drain(std::chrono::milliseconds(50));
}

fs::path write_store(const fs::path& home) {
  const fs::path path = MQCoreDataWrapper::storePathForHome(home.string());
  fs::create_directories(path.parent_path());
  test::InstaGramStore s(path);
  s.account(1, "1001", "ann");
  s.finish();
  return path;
}

TEST(CoreDataWrapper, RunsTheCompletionOnceOnTheMainQueueAfterAttaching) {
  TempDir home;
  write_store(home.path());
  const auto before = snapshot_tree(home.path());
  HomeOverride override_home(home.path());
  int runs = 0, failures = 0;
  bool on_main = false, attached = false;
  Ref<MQCoreDataWrapper> wrapper;
  wrapper = MQCoreDataWrapper::initWithCompletionBlock(
      [&] {
        ++runs;
        on_main = MainQueue::shared().is_main_thread();
        attached = wrapper && wrapper->managedObjectContext() != nullptr;
        auto accounts = wrapper->currentAccounts();
        attached = attached && accounts && accounts->size() == 1;
      },
      MQUserDefaultsWrapper::initWithBundleID("com.brenvik.velmora", home.path().string()), [&] { ++failures; });
  serve_main_queue_until([&] { return runs + failures > 0; });
  MainQueue::shared().drain(std::chrono::milliseconds(100));  // a second run would show here
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(failures, 0);
  EXPECT_TRUE(on_main);
  EXPECT_TRUE(attached);
  EXPECT_TRUE(wrapper->defaultsData());
  EXPECT_EQ(snapshot_tree(home.path()), before);
}

TEST(CoreDataWrapper, WaitsInTheBackgroundUntilTheCompletionHasReturned) {
  TempDir home;
  const fs::path store = write_store(home.path());
  std::atomic<int> stage{0};
  auto wrapper = MQCoreDataWrapper::initWithStorePath(
      store.string(), [&] { stage = 1; }, nullptr, [&] { stage = -1; });
  // The attach has nowhere to run its block until the main queue is served.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(stage.load(), 0);
  serve_main_queue_until([&] { return stage != 0; });
  EXPECT_EQ(stage.load(), 1);
  EXPECT_TRUE(wrapper->managedObjectContext());
  // Without preferences the orders are the defaults.
  EXPECT_TRUE(wrapper->currentAlbums());
  EXPECT_TRUE(wrapper->currentFriendsInAccount(nullptr).empty());
}

TEST(CoreDataWrapper, AttachesWithoutACompletionAndDoesNothingElse) {
  TempDir home;
  const fs::path store = write_store(home.path());
  auto wrapper = MQCoreDataWrapper::initWithStorePath(store.string(), nullptr, nullptr);
  serve_main_queue_until([&] { return wrapper->managedObjectContext() != nullptr; });
  EXPECT_TRUE(wrapper->managedObjectContext());
  MainQueue::shared().drain(std::chrono::milliseconds(50));
}

TEST(CoreDataWrapper, ReportsAFailedAttachThroughTheFailureBlockOnly) {
  struct Case {
    const char* name;
    std::function<void(const fs::path& store)> make;
    const char* reason;
  };
  const std::vector<Case> cases = {
      {"no store", [](const fs::path&) {}, "unable to open the store file"},
      {"not SQLite", [](const fs::path& p) { test::write_file(p, std::string(4096, 'z')); }, "file is not a database"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir home;
    const fs::path store = MQCoreDataWrapper::storePathForHome(home.path().string());
    fs::create_directories(store.parent_path());
    c.make(store);
    const auto before = snapshot_tree(home.path());
    LogCapture log;
    HomeOverride override_home(home.path());
    int runs = 0, failures = 0;
    bool on_main = false;
    auto wrapper = MQCoreDataWrapper::initWithCompletionBlock([&] { ++runs; }, nullptr, [&] {
      ++failures;
      on_main = MainQueue::shared().is_main_thread();
    });
    serve_main_queue_until([&] { return runs + failures > 0; });
    MainQueue::shared().drain(std::chrono::milliseconds(50));
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(failures, 1);
    EXPECT_TRUE(on_main);
    EXPECT_FALSE(wrapper->managedObjectContext());
    EXPECT_FALSE(wrapper->currentAccounts());
    EXPECT_FALSE(wrapper->currentAlbums());
    EXPECT_TRUE(wrapper->currentFriendsInAccount(nullptr).empty());
    ASSERT_EQ(log.lines().size(), 1u) << testing::PrintToString(log.lines());
    const std::string line = log.lines()[0];
    EXPECT_EQ(line.rfind("Failed to initalize persistent store: The file \xE2\x80\x9CInstaGramStore.db\xE2\x80\x9D "
                         "couldn\xE2\x80\x99t be opened.\n{",
                         0),
              0u)
        << line;
    EXPECT_NE(line.find("NSFilePath = \"" + store.string() + "\";"), std::string::npos) << line;
    EXPECT_NE(line.find(c.reason), std::string::npos) << line;
    EXPECT_EQ(snapshot_tree(home.path()), before);
  }
}

}  // namespace
}  // namespace orvia
