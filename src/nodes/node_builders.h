// The node builders: class-level operations of MQImporterNode that turn the legacy sidebar and the
// legacy favourite lists into importer nodes, category by category. They live here, beside the
// folder model they consult, so that the records stay free of legacy types.
//
// Nothing here ends an import: an item that cannot be converted gives null, a line in the system log,
// and where the user should learn of it a message in the context.
#pragma once

#include <string>
#include <string_view>

#include "nodes/importer_context.h"
#include "outline/outline_folder_model.h"
#include "records/records.h"

namespace orvia {

// The category identifiers (kFolderTagsIdentifier, ...) are the base-folder identifiers of the sidebar.

// Legacy preference keys of the favourite lists.
inline constexpr std::string_view kFavoriteSidebarTags = "FavoriteSidebarTags";
inline constexpr std::string_view kFavoriteSidebarLocations = "FavoriteSidebarLocations";
inline constexpr std::string_view kFavoriteTags = "IGFavouriteTags";
inline constexpr std::string_view kFavoriteLocations = "IGFavouriteLocations";

// ---- dispatch and folders
Ref<MQImporterNodeFolder> folderNode(const OutlineFolderItem& item, std::string_view category, MQImporterContext& context);
Ref<MQImporterNode> nodeFromItem(const OutlineFolderItem& item, std::string_view category, MQImporterContext& context);
// The unfiled favourites of a category, or null for an unknown category.
Ref<Array> nonFoldarizedItemsInCategory(std::string_view category, MQImporterContext& context,
                                        const OutlineFolderModel& model);

// ---- per category
Ref<MQImporterNode> tagNodeFromItem(const OutlineFolderItem& item, MQImporterContext& context);
Ref<Array> nonFoldarizedTagswithContext(MQImporterContext& context, const OutlineFolderModel& model);
Ref<MQImporterNode> locationNodeFromItem(const OutlineFolderItem& item, MQImporterContext& context);
Ref<Array> nonFoldarizedLocationswithContext(MQImporterContext& context, const OutlineFolderModel& model);
Ref<MQImporterNode> albumNodeFromItem(const OutlineFolderItem& item, MQImporterContext& context);
Ref<Array> nonFoldarizedAlbumswithContext(MQImporterContext& context, const OutlineFolderModel& model);
Ref<MQImporterNode> friendNodeFromItem(const OutlineFolderItem& item, MQImporterContext& context);
Ref<Array> nonFoldarizedFriendswithContext(MQImporterContext& context, const OutlineFolderModel& model);

// ---- legacy defaults entries
// The current account's list under a per-account key, or null (the reason logged).
Ref<Array> defaultsArrayWithBase(std::string_view base, MQImporterContext& context);
// The value under a key, unchecked.
Ref<Object> defaultsArrayWithKey(std::string_view key, MQImporterContext& context);
// The first entry of the current account's list whose `field` equals `value`, or null.
Ref<Dictionary> defaultsEntryWithBase(std::string_view base, std::string_view field, const Object* value,
                                      MQImporterContext& context);

// ---- text operations with fixed meanings
// Unicode's full lower-case mapping, the same in every locale.
std::string lowercased(std::string_view utf8);
// Removes every occurrence of `part`.
std::string removing_occurrences(std::string_view text, std::string_view part);
// Plain comparison: by UTF-16 code units, case-sensitive, not localised, digits not as numbers.
int compare_plain(std::string_view a, std::string_view b);

}  // namespace orvia
