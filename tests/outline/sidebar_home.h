// Helpers for the sidebar tests: item trees as the old client built them, and a home folder whose
// preferences file holds them under "OutlineFolderModels".
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "outline/outline_folder_item.h"
#include "outline/outline_folder_model.h"
#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "platform/value.h"
#include "support/legacy_home.h"

namespace orvia::sidebar {

using test::add_base_folder;
using test::add_entry;
using test::add_folder;
inline constexpr std::string_view kUser = "1234";
inline constexpr std::string_view kFav = kFolderFavFriendIdentifier;
inline constexpr std::string_view kAlbums = kFolderAlbumsIdentifier;
inline constexpr std::string_view kTags = kFolderTagsIdentifier;
inline constexpr std::string_view kLocations = kFolderLocationsIdentifier;

// Items standing alone (no parent link, in no list), for trees built by hand.
inline Ref<OutlineFolderItem> folder(std::string_view title, std::string_view id, Ref<Object> type,
                                     std::uint64_t level, bool expanded = false) {
  Ref<OutlineFolderItem> f = OutlineFolderItem::folderItemWithTitle(title, id);
  f->type = std::move(type);
  f->level = level;
  f->expanded = expanded;
  return f;
}
inline Ref<OutlineFolderItem> leaf(std::string_view title, std::string_view id, std::string_view type,
                                   std::uint64_t level) {
  Ref<OutlineFolderItem> l = folder(title, id, str(type), level);
  l->folder = false;
  return l;
}
inline Ref<OutlineFolderItem> opened(Ref<OutlineFolderItem> f) {
  f->expanded = true;
  return f;
}

// A user's stored tree: Root > favourite friends > one friend; albums (the user's own) > one album;
// tags > sunset, Seaside > sea; locations (closed) > one location. Every folder but locations is open.
inline Ref<OutlineFolderItem> stored_user_tree() {
  Ref<OutlineFolderItem> root = opened(test::sidebar_root());
  add_entry(*opened(add_base_folder(*root, kFav)), "anna", "fa-x-coredata://5E1F/Friend/p3");
  add_entry(*opened(add_base_folder(*root, kAlbums)), "Old album", "ff-x-coredata://5E1F/ImageList/p1");
  auto tags = opened(add_base_folder(*root, kTags));
  add_entry(*tags, "sunset", "favtag-sunset");
  add_entry(*opened(add_folder(*tags, "Seaside", "folder-7A")), "sea", "favtag-sea");
  add_entry(*add_base_folder(*root, kLocations), "Lisbon", "location-2134");
  return root;
}

// The shared albums folder: Lisbon 2014 and Porto, one inside a sub-folder.
inline Ref<OutlineFolderItem> stored_shared_albums() {
  Ref<OutlineFolderItem> albums = folder(kAlbums, kAlbums, str(kAlbums), 0, true);
  add_entry(*albums, "Lisbon 2014", "ff-x-coredata://5E1F/ImageList/p7");
  add_entry(*opened(add_folder(*albums, "Trips", "folder-9C")), "Porto", "ff-x-coredata://5E1F/ImageList/p8");
  return albums;
}

inline Ref<Data> archived(const Ref<OutlineFolderItem>& item) { return make<Data>(archive_root(item.get())); }

// A home folder holding the old client's preferences file.
class SidebarHome : public test::LegacyHome {
 public:
  // Writes the preferences: "OutlineFolderModels" = models (when given), plus an install marker.
  void write(Ref<Object> models) {
    if (models) set(kOutlineFolderModels, std::move(models));
    write_preferences();
  }
  Ref<OutlineFolderModel> load(std::string_view user = kUser) const {
    return OutlineFolderModel::initWithExistingUser(user, false, defaults());
  }
};

// The base folders in the order a loaded model's root lists them (the shared albums folder appended).
inline const std::vector<std::string> kBaseOrder = {std::string(kFav), std::string(kTags), std::string(kLocations),
                                                    std::string(kAlbums)};

// The identifiers of an item's children, in order.
inline std::vector<std::string> child_ids(const OutlineFolderItem* item) {
  std::vector<std::string> ids;
  if (item) {
    for (const OutlineFolderItem* child : item->childItems()) ids.emplace_back(child->identifierText());
  }
  return ids;
}

// Everything the model knows of an item that does not depend on object addresses:
// "title|type|<F or -><E or ->|level|parent's identifier|each child's identifier|mutable or fixed"
// (a null type shows as "(null)", a parent that is no item as "(no item)", none as "(no parent)").
inline std::string summary(const OutlineFolderItem* item) {
  std::string s = std::string(item->titleText()) + "|" + (item->type ? std::string(item->typeText()) : "(null)") +
                  "|" + (item->folder ? "F" : "-") + (item->expanded ? "E" : "-") + "|" + std::to_string(item->level) +
                  "|";
  if (const OutlineFolderItem* parent = item->parentItem()) s += parent->identifierText();
  else s += item->parent ? "(no item)" : "(no parent)";
  for (const std::string& id : child_ids(item)) s += "|" + id;
  s += item->childList() && item->childList()->is_mutable() ? "|mutable" : "|fixed";
  return s;
}

// An item's tree as one text, folders with their children in brackets, base folders by their short
// names and object URIs without store and scheme: "root[Tags[favtag-sunset folder-7A[favtag-sea]] ...]".
inline std::string tree_text(const OutlineFolderItem* item) {
  std::string s(item->identifierText());
  if (s.starts_with("com.brenvik.velmora.folder") && s.ends_with("Identifier")) s = s.substr(26, s.size() - 36);
  if (auto at = s.find("x-coredata://5E1F/"); at != std::string::npos) s.erase(at, 18);
  if (!item->folder) return s;
  s += '[';
  for (const OutlineFolderItem* child : item->childItems()) s += (s.back() == '[' ? "" : " ") + tree_text(child);
  return s + ']';
}

inline std::vector<std::string> sorted(std::vector<std::string> ids) {
  std::sort(ids.begin(), ids.end());
  return ids;
}

inline std::vector<std::string> sorted_identifiers(const OutlineFolderModel& model) {
  std::vector<std::string> ids;
  if (Ref<Array> list = model.identifiers()) {
    for (const Ref<Object>& id : list->items()) ids.emplace_back(text_of(id.get()));
  }
  return sorted(std::move(ids));
}

// The lookup table as "identifier = summary" lines, in identifier order.
inline std::vector<std::string> model_summary(const OutlineFolderModel& model) {
  std::vector<std::string> out;
  for (const std::string& id : sorted_identifiers(model)) out.push_back(id + " = " + summary(model.itemForIdentifier(id).get()));
  return out;
}

// The lookup table as sorted lines, one per entry, naming the item (by address), its fields and its
// parent: two equal states hold the same items under the same keys, in the same places.
inline std::vector<std::string> table_state(const OutlineFolderModel& model) {
  std::vector<std::string> lines;
  if (model._folderMapping) {
    for (const auto& [key, item] : *model._folderMapping) {
      lines.push_back(key + " -> " + item->description() + " type " + std::string(item->typeText()) + " level " +
                      std::to_string(item->level) + (item->folder ? " folder" : "") +
                      (item->expanded ? " expanded" : "") + " in " +
                      (item->parentItem() ? item->parentItem()->description() : "(none)"));
    }
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

}  // namespace orvia::sidebar
