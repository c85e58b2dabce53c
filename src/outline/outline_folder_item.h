// One node of the old client's sidebar folder tree: the root ("Root" / "root"), the four base folders
// (one per category of favourites), sub-folders the user made, and leaf entries that file one favourite.
//
// The old client stored these trees as keyed archives of OutlineFolderItem records in its preferences;
// this class reads and writes that archived form (class name "OutlineFolderItem", the eight keys below).
//
// Like every record, an item takes whatever object an archive holds under a key, so the object fields
// are Ref<Object>; the typed accessors (parentItem, childList, childItems, the *Text views) give null or
// empty for values of another kind. Items have no value equality: finding or removing an item in a
// children list goes by identity.
//
// Ownership: `parent` is an owning reference, so a parent and its children keep each other alive; the
// cycles are cut when the request's Heap ends (platform/object.h).
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/value.h"

namespace orvia {

class OutlineFolderItem;

// Hashes keys and the string views they are looked up with alike, so a lookup copies nothing.
struct OutlineKeyHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view key) const noexcept { return std::hash<std::string_view>{}(key); }
};

// Identifier text -> item: the folder model's lookup table. Items whose identifier is null or not a
// string are never entered.
using OutlineFolderMapping = std::unordered_map<std::string, Ref<OutlineFolderItem>, OutlineKeyHash, std::equal_to<>>;

// The mapping walk (outline_folder_model.cc): enters `item` and everything reachable from it through
// children lists into `table`, depth-first and pre-order, children in order; where several items share
// an identifier the one visited later replaces the earlier. Never removes an entry. Iterative (any
// depth), and each item is walked once, so a children graph that loops or shares sub-trees ends in
// time linear in its size.
void recurFolderMapping(OutlineFolderMapping& table, OutlineFolderItem* item);

// Base folder identifiers; each is also the `type` of every item of its category. Compared exactly.
inline constexpr std::string_view kFolderFavFriendIdentifier = "com.brenvik.velmora.folderFavFriendIdentifier";
inline constexpr std::string_view kFolderAlbumsIdentifier = "com.brenvik.velmora.folderAlbumsIdentifier";
inline constexpr std::string_view kFolderTagsIdentifier = "com.brenvik.velmora.folderTagsIdentifier";
inline constexpr std::string_view kFolderLocationsIdentifier = "com.brenvik.velmora.folderLocationsIdentifier";

// The root item of every user's tree.
inline constexpr std::string_view kOutlineRootTitle = "Root";
inline constexpr std::string_view kOutlineRootIdentifier = "root";

// Archive keys of an item, in the order in which encode_with_coder writes them.
inline constexpr std::string_view kOutlineKeyTitle = "title";
inline constexpr std::string_view kOutlineKeyIdentifier = "identifier";
inline constexpr std::string_view kOutlineKeyParent = "parent";
inline constexpr std::string_view kOutlineKeyChildren = "children";
inline constexpr std::string_view kOutlineKeyType = "type";
inline constexpr std::string_view kOutlineKeyFolder = "folder";
inline constexpr std::string_view kOutlineKeyExpanded = "expanded";
inline constexpr std::string_view kOutlineKeyLevel = "level";

class OutlineFolderItem final : public Record {
 public:
  // The position calculateSortIndex gives an identifier that the list lacks (NSNotFound).
  static constexpr std::uint64_t kSortIndexNotFound =
      static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

  Ref<Object> title;       // display name (a string, or null)
  Ref<Object> identifier;  // lookup key (a string, or null)
  Ref<Object> type;        // the base identifier of the item's category (a string, or null)
  Ref<Object> parent;      // the folder holding the item: an OutlineFolderItem, or null
  Ref<Object> children;    // a mutable list of items; null only in archives that lack the key
  bool folder = false;
  bool expanded = false;
  std::uint64_t currentSortOrder = 0;  // transient, never archived
  std::uint64_t level = 0;             // depth below the base folders

  // A shell with every field empty and no children list, as the unarchiver starts from. Decoding does
  // not run init(): the children list is exactly the one in the archive.
  static Ref<OutlineFolderItem> alloc();
  // Every field empty except `children`, a new empty mutable list.
  static Ref<OutlineFolderItem> init();
  // init() with title and identifier set and `folder` true.
  static Ref<OutlineFolderItem> folderItemWithTitle(Ref<Object> title, Ref<Object> identifier);
  static Ref<OutlineFolderItem> folderItemWithTitle(std::string_view title, std::string_view identifier);

  // Typed views of the object fields.
  OutlineFolderItem* parentItem() const { return as_item(parent.get()); }
  Array* childList() const { return as_array(children.get()); }
  // The children that are items, in order (anything else in the list is skipped).
  std::vector<OutlineFolderItem*> childItems() const;
  // The number of entries in the children list (0 when it is not a list), as "%li children" prints it.
  std::size_t childCount() const;
  std::string_view titleText() const { return text_of(title.get()); }
  std::string_view identifierText() const { return text_of(identifier.get()); }
  std::string_view typeText() const { return text_of(type.get()); }
  bool hasIdentifier(std::string_view id) const;  // identifier is a string equal to `id`

  // The base folder the item lies in: the nearest ancestor (never the item itself) whose identifier is
  // one of the four base identifiers, or null. Stops on a parent chain that loops.
  OutlineFolderItem* rootItem() const;
  // "<OutlineFolderItem 0x... 'title' 3 children 'identifier'>"
  std::string description() const override;
  bool hasChildren() const { return childCount() > 0; }
  // currentSortOrder := position of the first entry of `list` equal to the identifier, else
  // kSortIndexNotFound. A list that is not an array holds nothing.
  void calculateSortIndex(const Object* list);
  bool hasBadge() const { return false; }
  bool hasIcon() const { return true; }

  std::span<const std::string_view> class_chain() const override;
  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;

  static OutlineFolderItem* as_item(const Object* o);

 protected:
  void drop_refs() override;

 private:
  friend void recurFolderMapping(OutlineFolderMapping& table, OutlineFolderItem* item);
  OutlineFolderItem() = default;
  // The last mapping walk that reached the item: each walk takes a new number, so an item met again
  // (shared by two lists, or on a loop) is known without a set of visited items.
  std::uint64_t walk_stamp_ = 0;
};

// Adds OutlineFolderItem to a registry (the shared one by default); safe to call often.
void register_outline_classes(ClassRegistry& registry = ClassRegistry::shared());

}  // namespace orvia
