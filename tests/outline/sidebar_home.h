// Sidebar trees as the old client built them, a home folder whose preferences file holds them under
// "OutlineFolderModels", and short texts of items, trees and models to compare whole.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "outline/outline_folder_model.h"
#include "platform/keyed_archive.h"
#include "platform/log.h"
#include "platform/plist.h"
#include "platform/value.h"
#include "support/legacy_home.h"

namespace orvia::sidebar {

using test::add_base_folder;
using test::add_entry;
using test::add_folder;
inline const std::string kUser = "1234", F(kFolderFavFriendIdentifier), A(kFolderAlbumsIdentifier),
                         T(kFolderTagsIdentifier), L(kFolderLocationsIdentifier), S(kSharedAlbumsUserID);

// An item standing alone (no parent link, in no list); a leaf unless `type` is null.
inline Ref<OutlineFolderItem> folder(std::string_view title, std::string_view id, Ref<Object> type, std::uint64_t level,
                                     bool is_folder = true) {
  Ref<OutlineFolderItem> f = OutlineFolderItem::folderItemWithTitle(title, id);
  f->type = std::move(type);
  f->level = level;
  f->folder = is_folder;
  return f;
}
inline Ref<OutlineFolderItem> opened(Ref<OutlineFolderItem> f) {
  f->expanded = true;
  return f;
}

// Root > favourite friends > anna; albums (the user's own) > Old album; tags > sunset, Seaside > sea;
// locations (closed) > Lisbon. Every folder but locations is open.
inline Ref<OutlineFolderItem> stored_user_tree() {
  Ref<OutlineFolderItem> root = opened(test::sidebar_root());
  add_entry(*opened(add_base_folder(*root, F)), "anna", "fa-x-coredata://5E1F/Friend/p3");
  add_entry(*opened(add_base_folder(*root, A)), "Old album", "ff-x-coredata://5E1F/ImageList/p1");
  auto tags = opened(add_base_folder(*root, T));
  add_entry(*tags, "sunset", "favtag-sunset");
  add_entry(*opened(add_folder(*tags, "Seaside", "folder-7A")), "sea", "favtag-sea");
  add_entry(*add_base_folder(*root, L), "Lisbon", "location-2134");
  return root;
}
// The shared albums folder: Lisbon 2014 and Porto, one inside a sub-folder.
inline Ref<OutlineFolderItem> stored_shared_albums() {
  Ref<OutlineFolderItem> albums = opened(folder(A, A, str(A), 0));
  add_entry(*albums, "Lisbon 2014", "ff-x-coredata://5E1F/ImageList/p7");
  add_entry(*opened(add_folder(*albums, "Trips", "folder-9C")), "Porto", "ff-x-coredata://5E1F/ImageList/p8");
  return albums;
}
inline Ref<Data> archived(const Ref<OutlineFolderItem>& item) { return make<Data>(archive_root(item.get())); }
inline Ref<Dictionary> both_trees() {
  return dict({{kUser, archived(stored_user_tree())}, {S, archived(stored_shared_albums())}});
}

// A home folder holding the old client's preferences file with "OutlineFolderModels" = models.
class SidebarHome : public test::LegacyHome {
 public:
  explicit SidebarHome(Ref<Object> models = both_trees(), bool write = true) {
    if (models) set(kOutlineFolderModels, std::move(models));
    if (write) write_preferences();
  }
  Ref<OutlineFolderModel> load(std::string_view user = kUser) const {
    return OutlineFolderModel::initWithExistingUser(user, false, defaults());
  }
};

// Base folders by their short names, object URIs without store and scheme.
inline std::string shorten(std::string_view s) {
  static const std::regex base("com\\.brenvik\\.velmora\\.folder(\\w+?)Identifier"), uri("x-coredata://5E1F/");
  return std::regex_replace(std::regex_replace(std::string(s), base, "$1"), uri, "");
}

// "title|type|<F or -><E or ->|level|parent's identifier|each child's identifier|mutable or fixed"
// (a null type "(null)", a parent that is no item "(no item)", none "(no parent)").
inline std::string summary(const OutlineFolderItem* item) {
  std::string s = std::string(item->titleText()) + "|" + (item->type ? std::string(item->typeText()) : "(null)") +
                  "|" + (item->folder ? "F" : "-") + (item->expanded ? "E" : "-") + "|" + std::to_string(item->level) +
                  "|";
  if (const OutlineFolderItem* parent = item->parentItem()) s += parent->identifierText();
  else s += item->parent ? "(no item)" : "(no parent)";
  for (const OutlineFolderItem* child : item->childItems()) s += "|" + std::string(child->identifierText());
  return shorten(s + (item->childList() && item->childList()->is_mutable() ? "|mutable" : "|fixed"));
}

// A tree as one text, folders with their children in brackets: "root[Tags[favtag-sunset folder-7A[favtag-sea]]]";
// with `full`, every item as its summary.
inline std::string tree(const OutlineFolderItem* item, bool full = false) {
  std::string s = full ? summary(item) : shorten(std::string(item->identifierText()));
  if (!item->folder) return s;
  s += '[';
  for (const OutlineFolderItem* child : item->childItems()) s += (s.back() == '[' ? "" : " ") + tree(child, full);
  return s + ']';
}

// The lookup table as one text, sorted: identifiers (detail 0), "identifier=summary" (1), and the item's
// address too (2: two equal states hold the same items under the same keys).
inline std::string table(const OutlineFolderModel& model, int detail = 0) {
  std::vector<std::string> ids;
  if (model._folderMapping) {
    for (const auto& [key, item] : *model._folderMapping)
      ids.push_back(shorten(key) + (detail ? "=" + summary(item.get()) : "") + (detail > 1 ? item->description() : ""));
  }
  std::sort(ids.begin(), ids.end());
  std::string out;
  for (const std::string& id : ids) out += (out.empty() ? "" : " ") + id;
  return out;
}

}  // namespace orvia::sidebar
