// One user's sidebar folder tree from the old client's preferences, with the albums folder that every
// user of that installation shares, and a lookup table from identifier to item.
//
// Stored form: the preference "OutlineFolderModels" is a dictionary from a user id to the keyed archive
// of that user's root item (title "Root", identifier "root", the base folders as children), plus the
// entry "*--*albums*--*": the archive of the shared albums base folder. Loading drops a user's own
// albums folder (the first one only) and appends the shared one as the root's last child.
//
// The model only reads: the editing operations change the tree in memory and `flush` writes nothing.
// Loading never fails: a missing, malformed or undecodable stored tree falls back to the tree of a new
// user (three empty base folders) or a new, empty albums folder, with one line in the system log for an
// entry that is there but cannot be read.
//
// Threads: a model is made, loaded, queried and dropped on one thread; it has no locks. Its items and
// the model itself are freed when the request's Heap ends, cycles through parent links included.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

#include "legacy/user_defaults_wrapper.h"
#include "outline/outline_folder_item.h"
#include "platform/keyed_archive.h"
#include "platform/value.h"

namespace orvia {

// The legacy preference holding the stored trees, and the pseudo-user of the shared albums folder.
inline constexpr std::string_view kOutlineFolderModels = "OutlineFolderModels";
inline constexpr std::string_view kSharedAlbumsUserID = "*--*albums*--*";

// OutlineFolderMapping (the lookup table) and recurFolderMapping (the mapping walk) are declared with
// the item, in outline/outline_folder_item.h.

class OutlineFolderModel final : public Record {
 public:
  // Fields (public, like the records' fields; the operations below keep them consistent).
  Ref<MQUserDefaultsWrapper> _data;  // the preference source; only valueForKey is used
  Ref<Dictionary> _userDefaultsData;  // "OutlineFolderModels", or an empty dictionary
  Ref<Object> _currentUserID;         // the user whose tree is loaded; null before the load
  Ref<Object> _enforcedUID;           // the user the model was made for
  bool _cleanExisting = false;        // stored, never read
  Ref<OutlineFolderItem> _rootItem;
  Ref<OutlineFolderItem> _albumsItem;  // the shared albums folder, the root's last child after loading
  std::optional<OutlineFolderMapping> _folderMapping;  // absent until a load makes it

  // Stores the arguments and loads the user's tree (reassignUserData).
  static Ref<OutlineFolderModel> initWithExistingUser(Ref<Object> user, bool cleanExistingFolders,
                                                      Ref<MQUserDefaultsWrapper> data);
  static Ref<OutlineFolderModel> initWithExistingUser(std::string_view user, bool cleanExistingFolders,
                                                      Ref<MQUserDefaultsWrapper> data);
  // A model with no user. It never loads: no root, no lookup table (see reassignUserData).
  static Ref<OutlineFolderModel> init();

  // Loads the tree of _enforcedUID unless it is loaded already. Without a user the old client retried
  // on its run loop every 0.05 s; nothing can ever give this model a user, so it simply does not load.
  void reassignUserData();

  // ---- queries

  OutlineFolderItem* rootItem() const { return _rootItem.get(); }
  // Every key of the lookup table (immutable list of strings, in the table's order); null before a load.
  Ref<Array> identifiers() const;
  // The item held under the identifier, or null.
  Ref<OutlineFolderItem> itemForIdentifier(std::string_view identifier) const;
  Ref<OutlineFolderItem> itemForIdentifier(const Object* identifier) const;  // non-strings find nothing
  // Walks the tree from the root into the existing table, without clearing it first.
  void regenerateMapping();
  // The items of the table whose `folder` and `expanded` are both true, shallowest first (immutable).
  Ref<Array> expandedFolders() const;
  // "%@.%@.%li" (identifier, title, number of children) for each entry, in the table's order, joined.
  std::string folderSignature() const;
  // A keyed archive of the item with that identifier when it has children, else null.
  Ref<Data> folderStructureForMainIdentifier(std::string_view identifier) const;

  // ---- editing (in memory only; each change ends with flush, which writes nothing)

  void newFolderInFolder(OutlineFolderItem* parentFolder, Ref<Object> title, Ref<Object> identifier);
  void moveItem(OutlineFolderItem* item, OutlineFolderItem* fromFolder, OutlineFolderItem* toFolder);
  void addItemWithTitle(Ref<Object> title, Ref<Object> identifier, OutlineFolderItem* folder);
  void renameFolder(OutlineFolderItem* folderItem, Ref<Object> title);
  void removeItemFromFolder(OutlineFolderItem* item);
  // Removes every leaf entry whose table key is not in `keep` (a list of strings); folders stay.
  void cleanupWithIdentifiers(const Object* keep);
  void resetBaseFoldersForKey(std::string_view key);
  // Takes in the children of an archive that folderStructureForMainIdentifier wrote (Data; null, NSNull
  // or anything else is ignored) into the folder held under `mainIdentifier`.
  void importFolderStructure(const Object* archive, std::string_view mainIdentifier);
  void updateIdentifier(std::string_view oldIdentifier, std::string_view newIdentifier);
  void flushFolderStructure() { flush(); }
  // Commits nothing: the old client's preferences are never written (see storedFolderModels).
  void flush() {}

  // The "OutlineFolderModels" dictionary that the old client would have stored for this model: a copy
  // of _userDefaultsData with the root's archive under _currentUserID and the albums folder's archive
  // under "*--*albums*--*". Nothing calls it on the way of an import; it shows what flush leaves out.
  Ref<Dictionary> storedFolderModels() const;

  std::span<const std::string_view> class_chain() const override;
  void encode_with_coder(KeyedEncoder&) const override {}  // never archived
  void init_with_coder(KeyedDecoder&) override {}

 protected:
  void drop_refs() override;

 private:
  OutlineFolderModel() = default;
  // The root item decoded from the stored entry under `key`, or null (logged unless the entry is absent).
  Ref<OutlineFolderItem> decodeStoredEntry(std::string_view key) const;
  void enter(const Object* identifier, const Ref<OutlineFolderItem>& item);
};

}  // namespace orvia
