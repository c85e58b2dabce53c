// Helpers for the sidebar tests: item trees as the old client built them, and a home folder whose
// preferences file holds them under "OutlineFolderModels".
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "legacy/user_defaults_wrapper.h"
#include "outline/outline_folder_item.h"
#include "outline/outline_folder_model.h"
#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "platform/value.h"
#include "support/support.h"

namespace orvia::sidebar {

inline constexpr std::string_view kBundle = "com.brenvik.velmora";
inline constexpr std::string_view kUser = "1234";
inline constexpr std::string_view kFav = kFolderFavFriendIdentifier;
inline constexpr std::string_view kAlbums = kFolderAlbumsIdentifier;
inline constexpr std::string_view kTags = kFolderTagsIdentifier;
inline constexpr std::string_view kLocations = kFolderLocationsIdentifier;

inline Ref<OutlineFolderItem> folder(std::string_view title, std::string_view id, Ref<Object> type,
                                     std::uint64_t level, bool expanded = false) {
  Ref<OutlineFolderItem> f = OutlineFolderItem::folderItemWithTitle(title, id);
  f->type = std::move(type);
  f->level = level;
  f->expanded = expanded;
  return f;
}

inline Ref<OutlineFolderItem> base_folder(std::string_view id, bool expanded = true) {
  return folder(id, id, str(id), 0, expanded);
}

inline Ref<OutlineFolderItem> leaf(std::string_view title, std::string_view id, std::string_view type,
                                   std::uint64_t level) {
  Ref<OutlineFolderItem> l = OutlineFolderItem::folderItemWithTitle(title, id);
  l->folder = false;
  l->type = str(type);
  l->level = level;
  return l;
}

// Appends `child` to the folder's children and links it back, as the old client did.
inline const Ref<OutlineFolderItem>& attach(const Ref<OutlineFolderItem>& parent, const Ref<OutlineFolderItem>& child) {
  parent->childList()->push_back(child);
  child->parent = Ref<Object>(parent);
  return child;
}

// A user's stored tree: Root > favourite friends > one friend; albums (the user's own) > one album;
// tags > sunset, Seaside > sea; locations > one location.
inline Ref<OutlineFolderItem> stored_user_tree() {
  Ref<OutlineFolderItem> root = folder("Root", "root", nullptr, 0, true);
  auto fav = attach(root, base_folder(kFav));
  attach(fav, leaf("anna", "fa-x-coredata://5E1F/Friend/p3", kFav, 1));
  auto own_albums = attach(root, base_folder(kAlbums));
  attach(own_albums, leaf("Old album", "ff-x-coredata://5E1F/ImageList/p1", kAlbums, 1));
  auto tags = attach(root, base_folder(kTags));
  attach(tags, leaf("sunset", "favtag-sunset", kTags, 1));
  auto seaside = attach(tags, folder("Seaside", "folder-7A", str(kTags), 1, true));
  attach(seaside, leaf("sea", "favtag-sea", kTags, 2));
  auto locations = attach(root, base_folder(kLocations, false));
  attach(locations, leaf("Lisbon", "location-2134", kLocations, 1));
  return root;
}

// The shared albums folder: Lisbon 2014 and Porto, one inside a sub-folder.
inline Ref<OutlineFolderItem> stored_shared_albums() {
  Ref<OutlineFolderItem> albums = base_folder(kAlbums);
  attach(albums, leaf("Lisbon 2014", "ff-x-coredata://5E1F/ImageList/p7", kAlbums, 1));
  auto trips = attach(albums, folder("Trips", "folder-9C", str(kAlbums), 1, true));
  attach(trips, leaf("Porto", "ff-x-coredata://5E1F/ImageList/p8", kAlbums, 2));
  return albums;
}

inline Ref<Data> archived(const Ref<OutlineFolderItem>& item) { return make<Data>(archive_root(item.get())); }

// A home folder holding the old client's preferences file.
class SidebarHome {
 public:
  std::filesystem::path home() const { return dir_.path(); }
  std::filesystem::path preferences_file() const {
    std::string id(kBundle);
    return dir_.path() / "Library/Containers" / id / "Data/Library/Preferences" / (id + ".plist");
  }
  // Writes the preferences: "OutlineFolderModels" = models (when given), plus an install marker.
  void write(Ref<Object> models) const {
    Ref<Dictionary> top = mutable_dict({{"FinishedStartScreen415x", boolean(true)}});
    if (models) top->set(kOutlineFolderModels, models);
    Result<std::string> bytes = write_binary_plist(top.get());
    ASSERT_TRUE(bytes.ok()) << bytes.error().message;
    std::filesystem::create_directories(preferences_file().parent_path());
    test::write_file(preferences_file(), *bytes);
  }
  Ref<MQUserDefaultsWrapper> reader() const { return MQUserDefaultsWrapper::initWithBundleID(kBundle, home().string()); }
  Ref<OutlineFolderModel> load(std::string_view user = kUser) const {
    return OutlineFolderModel::initWithExistingUser(user, false, reader());
  }

 private:
  test::TempDir dir_;
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
