// The import driver's per-account extras: the blocked-users folder, the account record and the
// statistics node, read from a legacy installation.
#include <gtest/gtest.h>

#include <filesystem>

#include "nodes/importer_context.h"
#include "platform/log.h"
#include "records/records.h"
#include "service/mq_orvia4_importer.h"
#include "support/legacy_home.h"

namespace orvia::test {
namespace {

class ImportBuilders : public ::testing::Test {
 protected:
  void SetUp() override {
    register_record_classes();
    home.store().add_account("1001", "ann");
    home.store().add_account("2002", "bob");
  }
  // Writes the installation and makes one context per account, as the import run does.
  std::vector<Ref<MQImporterContext>> contexts() {
    auto store = home.attach();
    EXPECT_TRUE(store.ok()) << store.error().message;
    std::vector<Ref<MQImporterContext>> out;
    if (!store.ok()) return out;
    auto defaults = home.defaults();
    for (const auto& account : store.value()->currentAccounts().value_or(std::vector<Ref<Account>>{}))
      out.push_back(MQImporterContext::contextWithDefaults(defaults, account, store.value()));
    EXPECT_EQ(out.size(), 2u);
    return out;
  }

  LegacyHome home;
  Ref<MQOrvia4Importer> importer = MQOrvia4Importer::init();
};

TEST_F(ImportBuilders, BlockedUsers) {
  using Users = std::vector<std::pair<std::string, std::string>>;  // user id, user name
  struct Row {
    const char* why;
    Ref<Object> value;             // "kUserBlacklistKey"; null: absent
    std::optional<Users> blocked;  // none: no folder
  };
  const std::vector<Row> rows = {
      {"absent", nullptr, std::nullopt},
      {"a list", array({str("1234")}), std::nullopt},
      {"a string", str("1234"), std::nullopt},
      {"an empty dictionary", dict(), Users{}},
      {"one entry", dict({{"1234", str("spammer")}}), Users{{"1234", "spammer"}}},
      {"stored order, not sorted", dict({{"9", str("zed")}, {"10", str("ten")}, {"1", str("one")}}),
       Users{{"9", "zed"}, {"10", "ten"}, {"1", "one"}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    if (row.value) home.set("kUserBlacklistKey", row.value);
    else home.remove("kUserBlacklistKey");
    auto ctxs = contexts();
    ASSERT_EQ(ctxs.size(), 2u);
    LogCapture log;
    Ref<MQImporterNodeFolder> folders[] = {importer->blackListsWithContext(*ctxs[0]),
                                           importer->blackListsWithContext(*ctxs[1])};
    EXPECT_TRUE(log.lines().empty());
    if (!row.blocked) {
      EXPECT_EQ(folders[0], nullptr);
      EXPECT_EQ(folders[1], nullptr);
      continue;
    }
    EXPECT_NE(folders[0].get(), folders[1].get());  // each account's result gets its own folder
    for (const auto& folder : folders) {
      ASSERT_NE(folder, nullptr);
      EXPECT_EQ(text_of(folder->title.get()), "Blacklist");
      EXPECT_EQ(folder->contentsType, MQImporterNodeTypeBlacklist);
      EXPECT_EQ(folder->type, MQImporterNodeTypeFolder);
      EXPECT_EQ(text_of(folder->identifier.get()), "blacklist");
      EXPECT_TRUE(folder->isRoot);
      const Array* children = folder->childList();
      ASSERT_NE(children, nullptr);
      EXPECT_FALSE(children->is_mutable());
      Users got;
      for (const auto& child : children->items()) {
        auto* user = dynamic_cast<MQImporterNodeBlacklist*>(child.get());
        ASSERT_NE(user, nullptr);
        ASSERT_NE(as_string(user->userid.get()), nullptr);  // the key as stored, a string
        EXPECT_EQ(text_of(user->identifier.get()), text_of(user->userid.get()));
        EXPECT_EQ(user->type, MQImporterNodeTypeBlacklist);
        EXPECT_FALSE(user->isRoot || user->ignoreInExport);
        got.emplace_back(text_of(user->userid.get()), text_of(user->username.get()));
      }
      EXPECT_EQ(got, *row.blocked);
    }
    EXPECT_FALSE(ctxs[0]->messages || ctxs[1]->messages);
  }
}

TEST_F(ImportBuilders, AccountRecord) {
  struct Row {
    const char* why;
    Ref<Object> pictures;  // "UserAccountsI"; null: absent
    const char* ann_url;   // nullptr: none
  };
  const std::vector<Row> rows = {
      {"entry for ann only", dict({{"1001", str("https://img.example/ann.jpg")}}), "https://img.example/ann.jpg"},
      {"key absent", nullptr, nullptr},
      {"not a dictionary", array({str("https://img.example/ann.jpg")}), nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    if (row.pictures) home.set("UserAccountsI", row.pictures);
    else home.remove("UserAccountsI");
    auto ctxs = contexts();
    ASSERT_EQ(ctxs.size(), 2u);
    const char* names[] = {"ann", "bob"};
    const char* ids[] = {"1001", "2002"};
    for (int i = 0; i < 2; ++i) {
      auto record = importer->accountWithAccount(*ctxs[i]->account, *ctxs[i]);
      ASSERT_NE(record, nullptr);
      EXPECT_EQ(text_of(record->username.get()), names[i]);
      EXPECT_EQ(text_of(record->userid.get()), ids[i]);
      const char* url = i == 0 ? row.ann_url : nullptr;  // bob never has an entry
      if (url) {
        EXPECT_EQ(text_of(record->imageURLString.get()), url);
      } else {
        EXPECT_EQ(record->imageURLString, nullptr);
      }
      EXPECT_FALSE(ctxs[i]->messages);
    }
  }
}

TEST_F(ImportBuilders, StatisticsNode) {
  namespace fs = std::filesystem;
  enum What { File, Folder, Nothing };
  struct Row {
    const char* why;
    What what;
  };
  for (const Row& row : {Row{"database file", File}, Row{"a folder of that name", Folder}, Row{"missing", Nothing}}) {
    SCOPED_TRACE(row.why);
    fs::remove_all(home.statistics_file("1001"));
    if (row.what == File) home.add_statistics("1001");
    if (row.what == Folder) fs::create_directories(home.statistics_file("1001"));
    auto ctxs = contexts();
    ASSERT_EQ(ctxs.size(), 2u);
    const std::string path =
        home.home() + "/Library/Containers/com.brenvik.velmora/Data/Library/Application Support/Velmora/1001.db";
    LogCapture log;
    auto node = importer->statisticsNodeWithAccount(*ctxs[0]->account, *ctxs[0]);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"folder is: " + path});  // also when nothing is there
    if (row.what == Nothing) {
      EXPECT_EQ(node, nullptr);
    } else {
      ASSERT_NE(node, nullptr);
      EXPECT_EQ(node->type, MQImporterNodeTypeStatistics);
      EXPECT_EQ(text_of(node->identifier.get()), "1001");
      EXPECT_EQ(text_of(node->path.get()), path);
      EXPECT_TRUE(node->isRoot);
    }
    EXPECT_FALSE(ctxs[0]->messages);
  }
}

}  // namespace
}  // namespace orvia::test
