// What the node builder tests share: a legacy installation, its attached store, contexts and models
// made as the import run makes them, and short readers of what the builders left behind.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nodes/importer_context.h"
#include "nodes/node_builders.h"
#include "outline/outline_folder_model.h"
#include "platform/log.h"
#include "records/records.h"
#include "support/legacy_home.h"

namespace orvia::test {

class NodesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    register_record_classes();
    register_outline_classes();
  }

  // Writes the installation and attaches its store (once; later calls rewrite the preferences only).
  void attach() {
    if (store) {
      home.write_preferences();
      return;
    }
    auto attached = home.attach();
    ASSERT_TRUE(attached.ok()) << attached.error().message;
    store = attached.value();
  }
  // The legacy account with this Z_PK (attaches first).
  Ref<Account> account(std::int64_t pk) {
    attach();
    auto accounts = store->currentAccounts();
    if (accounts) {
      for (const auto& a : *accounts)
        if (a->primaryKey() == pk) return a;
    }
    ADD_FAILURE() << "no account p" << pk;
    return nullptr;
  }
  Ref<MQImporterContext> context(Ref<Account> account) {
    attach();
    return MQImporterContext::contextWithDefaults(home.defaults(), std::move(account), store);
  }
  Ref<OutlineFolderModel> model(std::string_view user) {
    attach();
    return OutlineFolderModel::initWithExistingUser(user, false, home.defaults());
  }

  LegacyHome home;
  Ref<MQCoreDataWrapper> store;
};

inline std::vector<std::string> messages_of(const MQImporterContext& context) {
  std::vector<std::string> out;
  if (context.messages) {
    for (const auto& m : context.messages->items()) out.emplace_back(text_of(m.get()));
  }
  return out;
}

inline std::vector<std::string> lines_starting(const LogCapture& log, std::string_view prefix) {
  std::vector<std::string> out;
  for (const auto& line : log.lines())
    if (line.rfind(prefix, 0) == 0) out.push_back(line);
  return out;
}

// The nodes of a list (or of a folder node's children) in order.
template <class T = MQImporterNode>
std::vector<T*> nodes_of(const Object* list) {
  std::vector<T*> out;
  if (const Array* a = as_array(list)) {
    for (const auto& o : a->items()) out.push_back(dynamic_cast<T*>(o.get()));
  }
  return out;
}

// Titles or identifiers of a folder node's children, for order checks.
inline std::vector<std::string> child_labels(const MQImporterNodeFolder& folder) {
  std::vector<std::string> out;
  for (MQImporterNode* n : nodes_of(folder.children.get())) {
    if (auto* f = dynamic_cast<MQImporterNodeFolder*>(n)) out.emplace_back(text_of(f->title.get()));
    else if (auto* t = dynamic_cast<MQImporterNodeTag*>(n)) out.emplace_back(text_of(t->tagName.get()));
    else if (auto* l = dynamic_cast<MQImporterNodeLocation*>(n)) out.emplace_back(text_of(l->name.get()));
    else if (auto* a = dynamic_cast<MQImporterNodeAlbum*>(n)) out.emplace_back(text_of(a->albumName.get()));
    else if (auto* f2 = dynamic_cast<MQImporterNodeFriend*>(n)) out.emplace_back(text_of(f2->username.get()));
    else out.emplace_back("?");
  }
  return out;
}

}  // namespace orvia::test
