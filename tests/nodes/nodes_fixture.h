// What the node builder tests share: a legacy installation, its attached store, contexts and models
// made as the import run makes them, and short readers of what the builders left behind.
#pragma once

#include <fmt/format.h>
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

// A node's title, tag name, location name, album name or user name.
inline std::string label(const MQImporterNode* n) {
  if (auto* f = dynamic_cast<const MQImporterNodeFolder*>(n)) return std::string(text_of(f->title.get()));
  if (auto* t = dynamic_cast<const MQImporterNodeTag*>(n)) return std::string(text_of(t->tagName.get()));
  if (auto* l = dynamic_cast<const MQImporterNodeLocation*>(n)) return std::string(text_of(l->name.get()));
  if (auto* a = dynamic_cast<const MQImporterNodeAlbum*>(n)) return std::string(text_of(a->albumName.get()));
  if (auto* f = dynamic_cast<const MQImporterNodeFriend*>(n)) return std::string(text_of(f->username.get()));
  return "?";
}

// A leaf node as one text with all its fields (absent ones empty), "-" for no node:
// "tag:sunset/5", "loc:My spot@location-123(1.5,-2.25)", "album:Beach", "friend:carol/31/42/1000.5/<image>";
// " (type N)" follows when the node's type does not match its class, " root" or " ignored" its flags.
inline std::string node_text(const MQImporterNode* n) {
  if (!n) return "-";
  auto num = [](const Ref<Object>& o) {
    if (const Date* d = as_date(o.get())) return fmt::format("{}", d->time());
    return o ? (as_number(o.get()) ? fmt::format("{}", as_number(o.get())->real_value()) : "?") : std::string();
  };
  auto txt = [](const Ref<Object>& o) { return std::string(text_of(o.get())); };
  std::string s;
  std::uint64_t type = MQImporterNodeTypeFolder;
  if (auto* t = dynamic_cast<const MQImporterNodeTag*>(n)) {
    s = "tag:" + txt(t->tagName) + "/" + std::to_string(t->tagCount), type = MQImporterNodeTypeTag;
  } else if (auto* l = dynamic_cast<const MQImporterNodeLocation*>(n)) {
    s = "loc:" + txt(l->name) + "@" + txt(l->identifier) + "(" + num(l->latitude) + "," + num(l->longitude) + ")";
    type = MQImporterNodeTypeLocation;
  } else if (auto* a = dynamic_cast<const MQImporterNodeAlbum*>(n)) {
    s = "album:" + txt(a->albumName), type = MQImporterNodeTypeAlbum;
  } else if (auto* f = dynamic_cast<const MQImporterNodeFriend*>(n)) {
    s = "friend:" + txt(f->username) + "/" + txt(f->uid) + "/" + std::to_string(f->mediaCount) + "/" + num(f->added) +
        "/" + txt(f->imageURLString);
    type = MQImporterNodeTypeFriend;
  } else {
    s = n->class_name();
  }
  if (n->type != type) s += " (type " + std::to_string(n->type) + ")";
  return s + (n->isRoot ? " root" : "") + (n->ignoreInExport ? " ignored" : "");
}
inline std::string node_text(const Ref<MQImporterNode>& n) { return node_text(n.get()); }

// The nodes of a list as node_text, separated by spaces.
inline std::string list_text(const Object* list) {
  std::string out;
  for (MQImporterNode* n : nodes_of(list)) out += (out.empty() ? "" : " ") + node_text(n);
  return out;
}

// A folder node's children as one text, every folder with its own children in brackets ("(no list)"
// when it has none): "Trips[Beach] Empty[] sunset".
inline std::string tree_text(const MQImporterNodeFolder& folder) {
  std::string out;
  for (MQImporterNode* n : nodes_of(folder.children.get())) {
    if (!out.empty()) out += ' ';
    out += label(n);
    if (auto* sub = dynamic_cast<MQImporterNodeFolder*>(n))
      out.append(sub->childList() ? '[' + tree_text(*sub) + ']' : "(no list)");
  }
  return out;
}

}  // namespace orvia::test
