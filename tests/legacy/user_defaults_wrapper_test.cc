// The old client's preferences, read from real property-list files below a home folder.
#include "legacy/user_defaults_wrapper.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "legacy_test_util.h"
#include "platform/description.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/plist.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace orvia {
namespace {

using test::snapshot_tree;
using test::TempDir;

constexpr const char* kBundle = "com.brenvik.velmora";

fs::path preferences_file(const fs::path& home) {
  return home / "Library/Containers" / kBundle / "Data/Library/Preferences" / (std::string(kBundle) + ".plist");
}

void write_preferences(const fs::path& file, const Object* top, bool xml = false) {
  auto bytes = xml ? write_xml_plist(top) : write_binary_plist(top);
  ASSERT_TRUE(bytes.ok()) << bytes.error().message;
  test::write_file(file, bytes.value());
}

TEST(UserDefaults, AnswersTheInstallationQuestionFromTheMarkers) {
  auto prefs = [](Ref<Object> top, bool xml = false) {
    return [top, xml](const fs::path& h) { write_preferences(preferences_file(h), top.get(), xml); };
  };
  struct Case {
    const char* name;
    std::function<void(const fs::path& home)> write;
    bool installed;
  };
  const std::vector<Case> cases = {
      {"no preferences at all", [](const fs::path&) {}, false},
      {"only the last marker, stored as NO", prefs(dict({{"FinishedStartScreen415x", boolean(false)}})), true},
      {"the first marker as 0", prefs(dict({{"FinishedStartScreen400", num(0)}})), true},
      {"a middle marker as an empty text, XML", prefs(dict({{"FinishedStartScreen410xxxxxx", str("")}}), true), true},
      {"other keys only",
       prefs(dict({{"WZAlbumsOrderIndex", num(1)},
                   {"FinishedStartScreen", boolean(true)},
                   {"FinishedStartScreen416x", boolean(true)}})),
       false},
      {"a file named like the domain, without .plist",
       [](const fs::path& h) {
         write_preferences(fs::path(preferences_file(h)).replace_extension(),
                           dict({{"FinishedStartScreen400", boolean(true)}}).get());
       },
       false},
      {"a top level that is a list", prefs(array({str("FinishedStartScreen400")})), false},
      {"an unreadable file", [](const fs::path& h) { test::write_file(preferences_file(h), "bplist00 broken"); }, false},
      {"the preferences file is a folder", [](const fs::path& h) { fs::create_directories(preferences_file(h)); },
       false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir home;
    c.write(home.path());
    const auto before = snapshot_tree(home.path());
    auto defaults = MQUserDefaultsWrapper::initWithBundleID(kBundle, home.path().string());
    EXPECT_EQ(defaults->hasExistingOrviaInstall(), c.installed);
    EXPECT_EQ(snapshot_tree(home.path()), before);
  }
}

TEST(UserDefaults, ReadsValuesOfEveryKindAndNothingForMissingKeys) {
  TempDir home;
  Ref<Dictionary> prefs = dict({{"text", str("hello")},
                                {"number", num(42)},
                                {"flag", boolean(true)},
                                {"when", date(1000.5)},
                                {"bytes", data("\x01\x02")},
                                {"list", array({str("a"), num(1)})},
                                {"nested", dict({{"1001", str("x")}})}});
  write_preferences(preferences_file(home.path()), prefs.get());
  auto defaults = MQUserDefaultsWrapper::initWithBundleID(kBundle, home.path().string());
  for (const auto& [key, value] : prefs->entries()) {
    SCOPED_TRACE(text_of(key.get()));
    EXPECT_TRUE(deep_equal(defaults->valueForKey(text_of(key.get())).get(), value.get()));
  }
  EXPECT_TRUE(as_number(defaults->valueForKey("flag").get())->is_bool());
  EXPECT_FALSE(defaults->valueForKey("missing"));
  EXPECT_FALSE(defaults->valueForKey(""));
}

TEST(UserDefaults, TakesTheHomeFolderWhenCreatedAndSeesAChangedFile) {
  TempDir home;
  auto defaults = [&] {
    test::HomeOverride override_home(home.path());
    return MQUserDefaultsWrapper::initWithBundleID(kBundle);
  }();
  EXPECT_EQ(defaults->homeFolder(), home.path().string());

  auto set = [&](Ref<Object> v) { write_preferences(preferences_file(home.path()), dict({{"WZAlbumsOrderIndex", v}}).get()); };
  auto get = [&] {
    Ref<Object> v = defaults->valueForKey("WZAlbumsOrderIndex");
    return v ? std::string(v->class_name()) + " " + description(v.get()) : "nil";
  };
  EXPECT_EQ(get(), "nil");  // no file yet
  set(num(1));
  EXPECT_EQ(get(), "NSNumber 1");
  set(str("two"));  // a rewritten file (another size) is read again
  EXPECT_EQ(get(), "NSString two");
  fs::remove(preferences_file(home.path()));
  EXPECT_EQ(get(), "nil");

  // A request reads one state of the file: its first lookup looks at the file, later ones do not.
  set(num(3));
  {
    MQUserDefaultsWrapper::Snapshot outer(*defaults);
    MQUserDefaultsWrapper::Snapshot inner(*defaults);
    EXPECT_EQ(get(), "NSNumber 3");
    set(str("four, longer"));
    EXPECT_EQ(get(), "NSNumber 3");
  }
  EXPECT_EQ(get(), "NSString four, longer");
}

TEST(UserDefaults, ValuesReadInAHeapServeItsHelperThreadsAndEndWithIt) {
  TempDir home;
  write_preferences(preferences_file(home.path()), dict({{"OutlineFolderModels", dict({{"1", str("tree")}})}}).get());
  auto defaults = MQUserDefaultsWrapper::initWithBundleID(kBundle, home.path().string());
  std::optional<Heap> run_heap;  // every run's heap at one address, as successive requests may have
  for (int run = 0; run < 2; ++run) {
    SCOPED_TRACE(run);
    run_heap.emplace();
    HeapScope scope(*run_heap);
    MQUserDefaultsWrapper::Snapshot snapshot(*defaults);
    Ref<Object> models = defaults->valueForKey("OutlineFolderModels");
    ASSERT_TRUE(as_dict(models.get()));
    EXPECT_EQ(as_dict(models.get())->size(), 1u) << "not the emptied values of the heap before";
    const Object* seen_by_helper = nullptr;
    std::thread helper([&] {
      Heap own;  // a helper makes its objects in a heap of its own
      HeapScope helper_scope(own);
      seen_by_helper = defaults->valueForKey("OutlineFolderModels").get();
    });
    helper.join();
    EXPECT_EQ(seen_by_helper, models.get()) << "the helper reads the run's copy";
    models = nullptr;
    run_heap.reset();  // the run's values end with it
  }
}

TEST(UserDefaults, AHelperLeavesTheValuesOfAnotherThreadsHeapInPlace) {
  // Without a snapshot, a helper cannot use what the run's thread read into the run's heap: it reads
  // its own copy, and the run's copy stays cached (dropping it on the helper's thread would unlink
  // objects from a heap the run's thread is using).
  TempDir home;
  write_preferences(preferences_file(home.path()), dict({{"OutlineFolderModels", dict({{"1", str("tree")}})}}).get());
  auto defaults = MQUserDefaultsWrapper::initWithBundleID(kBundle, home.path().string());
  Heap run_heap;
  HeapScope scope(run_heap);
  const Object* before = defaults->valueForKey("OutlineFolderModels").get();
  ASSERT_TRUE(as_dict(before));
  bool helper_read = false;
  std::thread helper([&] {
    Heap own;
    HeapScope helper_scope(own);
    Ref<Object> models = defaults->valueForKey("OutlineFolderModels");
    helper_read = as_dict(models.get()) && as_dict(models.get())->size() == 1;
  });
  helper.join();
  EXPECT_TRUE(helper_read);
  EXPECT_EQ(defaults->valueForKey("OutlineFolderModels").get(), before) << "the run's copy is still the one cached";
}

TEST(UserDefaults, FindsStatisticsDatabasesAndLogsEveryPath) {
  TempDir home;
  const std::string folder = home.path().string() + "/Library/Containers/com.brenvik.velmora/Data/Library/Application Support/Velmora";
  fs::create_directories(folder);
  test::write_file(folder + "/1001.db", "SQLite format 3");
  fs::create_directories(folder + "/1002.db");
  auto defaults = MQUserDefaultsWrapper::initWithBundleID(kBundle, home.path().string());
  struct Case {
    Ref<Object> id;
    const char* file;
    bool present;
  };
  const std::vector<Case> cases = {
      {str("1002"), "1002.db", true},  // a folder counts as present
      {num(1001), "1001.db", true},    // a number by its decimal text
      {str("1003"), "1003.db", false},
      {nullptr, "(null).db", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    LogCapture log;
    Ref<String> path = defaults->statisticsPathWithAccountID(c.id.get());
    const std::string expected = folder + "/" + c.file;
    EXPECT_EQ(log.lines(), std::vector<std::string>({"folder is: " + expected}));
    EXPECT_EQ(path ? path->str() : "none", c.present ? expected : "none");
  }
}

}  // namespace
}  // namespace orvia
