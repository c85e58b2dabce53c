// The import driver's block list folder, read from a legacy installation. It does not travel in the
// reply, so the driver's builder is looked at directly.
#include <gtest/gtest.h>

#include "nodes/importer_context.h"
#include "platform/log.h"
#include "records/records.h"
#include "service/mq_orvia4_importer.h"
#include "support/legacy_home.h"

namespace orvia::test {
namespace {

// The folder as one line: its fields, then each blocked user as "identifier|user id=name" (a user id
// that is no string marked "#", a user of the wrong type or flags marked "!").
std::string summary(const MQImporterNodeFolder* folder) {
  if (!folder) return "none";
  auto t = [](const Ref<Object>& o) { return std::string(text_of(o.get())); };
  std::string out = t(folder->title) + " " + t(folder->identifier) + " " + std::to_string(folder->contentsType) + "/" +
                    std::to_string(folder->type) + (folder->isRoot ? " root" : "") +
                    (folder->childList()->is_mutable() ? " mutable" : "") + ":";
  for (const auto& child : folder->childList()->items()) {
    auto* user = dynamic_cast<MQImporterNodeBlacklist*>(child.get());
    if (!user) return out + " not a user";
    out += " " + t(user->identifier) + "|" + t(user->userid) + (as_string(user->userid.get()) ? "" : "#") + "=" +
           t(user->username) + (user->type != MQImporterNodeTypeBlacklist || user->isRoot || user->ignoreInExport ? "!" : "");
  }
  return out;
}

TEST(ImportBuilders, BlockedUsersFolderForEachAccount) {
  register_record_classes();
  LegacyHome home;
  home.store().add_account("1001", "ann");
  home.store().add_account("2002", "bob");
  const std::string head = "Blacklist blacklist " + std::to_string(MQImporterNodeTypeBlacklist) + "/" +
                           std::to_string(MQImporterNodeTypeFolder) + " root:";
  // In stored order, not sorted; the key as stored, a string.
  for (const auto& [value, expected] : std::vector<std::pair<Ref<Object>, std::string>>{
           {nullptr, "none"}, {array({str("1234")}), "none"}, {dict(), head},
           {dict({{"9", str("zed")}, {"10", str("ten")}, {"1", str("one")}}), head + " 9|9=zed 10|10=ten 1|1=one"}}) {
    SCOPED_TRACE(expected);
    value ? home.set("kUserBlacklistKey", value) : home.remove("kUserBlacklistKey");
    auto store = home.attach();
    ASSERT_TRUE(store.ok()) << store.error().message;
    LogCapture log;
    std::vector<Ref<MQImporterNodeFolder>> folders;
    const auto accounts = store.value()->currentAccounts();
    for (const auto& account : accounts.value()) {
      auto context = MQImporterContext::contextWithDefaults(home.defaults(), account, store.value());
      folders.push_back(MQOrvia4Importer::init()->blackListsWithContext(*context));
      EXPECT_EQ(summary(folders.back().get()), expected);
      EXPECT_FALSE(context->messages);
    }
    ASSERT_EQ(folders.size(), 2u);
    EXPECT_TRUE(!folders[0] || folders[0] != folders[1]) << "each account's result gets its own folder";
    EXPECT_TRUE(log.lines().empty());
  }
}

}  // namespace
}  // namespace orvia::test
