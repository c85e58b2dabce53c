// The old client's preferences, read from real property-list files below a home folder.
#include "legacy/user_defaults_wrapper.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <thread>

#include "legacy_test_util.h"
#include "platform/description.h"
#include "platform/log.h"
#include "platform/plist.h"

namespace fs = std::filesystem;

namespace orvia {
namespace {

using test::snapshot_tree;
using test::TempDir;

constexpr const char* kBundle = "com.brenvik.velmora";

fs::path preferences_file(const fs::path& home) {
  return home / "Library/Containers" / kBundle / "Data/Library/Preferences" / (std::string(kBundle) + ".plist");
}

void write_preferences(const fs::path& file, const Ref<Object>& top, bool xml = false) {
  test::write_file(file, (xml ? write_xml_plist(top.get()) : write_binary_plist(top.get())).value());
}

TEST(UserDefaults, AnswersTheInstallationQuestionFromTheMarkers) {
  auto prefs = [](Ref<Object> top, bool xml = false) {
    return [top, xml](const fs::path& h) { write_preferences(preferences_file(h), top, xml); };
  };
  const std::vector<std::tuple<const char*, std::function<void(const fs::path& home)>, bool>> cases = {
      {"no preferences at all", [](const fs::path&) {}, false},
      {"only the last marker, stored as NO", prefs(dict({{"FinishedStartScreen415x", boolean(false)}})), true},
      {"the first marker as 0", prefs(dict({{"FinishedStartScreen400", num(0)}})), true},
      {"a middle marker as an empty text, XML", prefs(dict({{"FinishedStartScreen410xxxxxx", str("")}}), true), true},
      {"other keys only", prefs(dict({{"WZAlbumsOrderIndex", num(1)}, {"FinishedStartScreen", boolean(true)},
                                      {"FinishedStartScreen416x", boolean(true)}})), false},
      {"a file named like the domain, without .plist", [](const fs::path& h) {
         write_preferences(fs::path(preferences_file(h)).replace_extension(), dict({{"FinishedStartScreen400", boolean(true)}}));
       }, false},
      {"a top level that is a list", prefs(array({str("FinishedStartScreen400")})), false},
      {"an unreadable file", [](const fs::path& h) { test::write_file(preferences_file(h), "bplist00 broken"); }, false},
      {"the preferences file is a folder", [](const fs::path& h) { fs::create_directories(preferences_file(h)); }, false},
  };
  for (const auto& [name, write, installed] : cases) {
    SCOPED_TRACE(name);
    TempDir home;
    write(home.path());
    const auto before = snapshot_tree(home.path());
    EXPECT_EQ(MQUserDefaultsWrapper::initWithBundleID(kBundle, home.path().string())->hasExistingOrviaInstall(), installed);
    EXPECT_EQ(snapshot_tree(home.path()), before);
  }
}

TEST(UserDefaults, ReadsValuesOfEveryKindAndNothingForMissingKeys) {
  TempDir home;
  Ref<Dictionary> prefs = dict({{"text", str("hello")}, {"number", num(42)}, {"flag", boolean(true)},
                                {"when", date(1000.5)}, {"bytes", data("\x01\x02")},
                                {"list", array({str("a"), num(1)})}, {"nested", dict({{"1001", str("x")}})}});
  write_preferences(preferences_file(home.path()), prefs);
  auto defaults = MQUserDefaultsWrapper::initWithBundleID(kBundle, home.path().string());
  for (const auto& [key, value] : prefs->entries())
    EXPECT_TRUE(deep_equal(defaults->valueForKey(text_of(key.get())).get(), value.get())) << text_of(key.get());
  EXPECT_TRUE(as_number(defaults->valueForKey("flag").get())->is_bool());
  EXPECT_FALSE(defaults->valueForKey("missing") || defaults->valueForKey(""));
}

TEST(UserDefaults, TakesTheHomeFolderWhenCreatedAndSeesAChangedFile) {
  TempDir home;
  auto defaults = [&] {
    test::HomeOverride override_home(home.path());
    return MQUserDefaultsWrapper::initWithBundleID(kBundle);
  }();
  EXPECT_EQ(defaults->homeFolder(), home.path().string());
  auto set = [&](Ref<Object> v) { write_preferences(preferences_file(home.path()), dict({{"WZAlbumsOrderIndex", v}})); };
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

// The sidebar trees' key of a preferences file with one tree, as a helper thread with a heap of its
// own reads it.
Ref<MQUserDefaultsWrapper> defaults_with_models(const TempDir& home) {
  write_preferences(preferences_file(home.path()), dict({{"OutlineFolderModels", dict({{"1", str("tree")}})}}));
  return MQUserDefaultsWrapper::initWithBundleID(kBundle, home.path().string());
}
const Object* read_on_helper(const MQUserDefaultsWrapper& defaults, bool* whole = nullptr) {
  const Object* seen = nullptr;
  std::thread helper([&] {
    Heap own;
    HeapScope helper_scope(own);
    Ref<Object> models = defaults.valueForKey("OutlineFolderModels");
    seen = models.get();
    if (whole) *whole = as_dict(seen) && as_dict(seen)->size() == 1;
  });
  helper.join();
  return seen;
}

TEST(UserDefaults, ValuesReadInAHeapServeItsHelperThreadsAndEndWithIt) {
  TempDir home;
  auto defaults = defaults_with_models(home);
  std::optional<Heap> run_heap;  // every run's heap at one address, as successive requests may have
  for (int run = 0; run < 2; ++run) {
    SCOPED_TRACE(run);
    run_heap.emplace();
    HeapScope scope(*run_heap);
    MQUserDefaultsWrapper::Snapshot snapshot(*defaults);
    Ref<Object> models = defaults->valueForKey("OutlineFolderModels");
    ASSERT_TRUE(as_dict(models.get()));
    EXPECT_EQ(as_dict(models.get())->size(), 1u) << "not the emptied values of the heap before";
    EXPECT_EQ(read_on_helper(*defaults), models.get()) << "the helper reads the run's copy";
    models = nullptr;
    run_heap.reset();  // the run's values end with it
  }
}

TEST(UserDefaults, AHelperLeavesTheValuesOfAnotherThreadsHeapInPlace) {
  // Without a snapshot a helper reads its own copy, and the run's copy stays cached (dropping it on
  // the helper's thread would unlink objects from a heap the run's thread is using).
  TempDir home;
  auto defaults = defaults_with_models(home);
  Heap run_heap;
  HeapScope scope(run_heap);
  const Object* before = defaults->valueForKey("OutlineFolderModels").get();
  ASSERT_TRUE(as_dict(before));
  bool whole = false;
  read_on_helper(*defaults, &whole);
  EXPECT_TRUE(whole);
  EXPECT_EQ(defaults->valueForKey("OutlineFolderModels").get(), before) << "the run's copy is still the one cached";
}

TEST(UserDefaults, FindsStatisticsDatabasesAndLogsEveryPath) {
  TempDir home;
  const std::string folder = home.path().string() + "/Library/Containers/com.brenvik.velmora/Data/Library/Application Support/Velmora";
  fs::create_directories(folder + "/1002.db");  // a folder counts as present
  test::write_file(folder + "/1001.db", "SQLite format 3");
  auto defaults = MQUserDefaultsWrapper::initWithBundleID(kBundle, home.path().string());
  // {account id (a number by its decimal text), file, present}
  for (const auto& [id, file, present] : std::vector<std::tuple<Ref<Object>, const char*, bool>>{
           {str("1002"), "1002.db", true}, {num(1001), "1001.db", true}, {str("1003"), "1003.db", false},
           {nullptr, "(null).db", false}}) {
    LogCapture log;
    Ref<String> path = defaults->statisticsPathWithAccountID(id.get());
    const std::string expected = folder + "/" + file;
    EXPECT_EQ(log.lines(), std::vector<std::string>({"folder is: " + expected}));
    EXPECT_EQ(path ? path->str() : "none", present ? expected : "none");
  }
}

}  // namespace
}  // namespace orvia
