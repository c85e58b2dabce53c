#include "outline/outline_folder_model.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/format.h"
#include "platform/log.h"

namespace orvia {
namespace {

constexpr std::string_view kModelChain[] = {"OutlineFolderModel", "NSObject"};

// Appends to a folder's children. A folder without a list (or with something else under "children")
// takes nothing, as appending to a missing list adds nothing.
void append_child(OutlineFolderItem* folder, Ref<Object> item) {
  if (!folder) return;
  Array* list = folder->childList();
  if (!list) return;
  if (list->is_mutable()) {
    list->push_back(std::move(item));
    return;
  }
  // An immutable list (another archiver may write NSArray) is replaced by a mutable copy, so that the
  // change the user asked for happens instead of failing.
  std::vector<Ref<Object>> items = list->items();
  items.push_back(std::move(item));
  folder->children = make<Array>(std::move(items), true);
}

// Removes every occurrence of `item` (by identity) from a folder's children.
void remove_child(OutlineFolderItem* folder, const Object* item) {
  if (!folder) return;
  Array* list = folder->childList();
  if (!list) return;
  auto same = [item](const Ref<Object>& o) { return o.get() == item; };
  if (list->is_mutable()) {
    std::erase_if(list->mutable_items(), same);
    return;
  }
  if (std::none_of(list->items().begin(), list->items().end(), same)) return;
  std::vector<Ref<Object>> items = list->items();
  std::erase_if(items, same);
  folder->children = make<Array>(std::move(items), true);  // as in append_child
}

// A title is present when it is a non-empty string.
bool has_title(const Object* title) {
  const String* s = as_string(title);
  return s && !s->str().empty();
}

Ref<OutlineFolderItem> new_base_folder(std::string_view identifier) {
  Ref<OutlineFolderItem> folder = OutlineFolderItem::folderItemWithTitle(identifier, identifier);
  folder->type = str(identifier);
  return folder;
}

}  // namespace

// ---- the mapping walk

void recurFolderMapping(OutlineFolderMapping& table, OutlineFolderItem* item) {
  if (!item) return;
  // The table must end as the plain pre-order walk (children in order, later visits replacing earlier
  // ones) leaves it: under each identifier, the item whose LAST pre-order visit comes latest. Read
  // backwards, the pre-order sequence is a post-order walk that takes children last to first, and the
  // winner is the item met FIRST there. That walk, marking each item it meets (walk_stamp_) and never
  // entering a marked one again, keeps the order of first meetings, so it gives the same table while a
  // sub-tree that two lists share is walked once (not once per path) and a children graph that loops
  // (only a hostile archive has one) comes to an end.
  struct Frame {
    OutlineFolderItem* item;
    std::size_t remaining;  // children not yet walked, counted from the back
  };
  static std::atomic<std::uint64_t> walks{0};
  const std::uint64_t stamp = walks.fetch_add(1, std::memory_order_relaxed) + 1;
  std::vector<Frame> stack;
  std::vector<OutlineFolderItem*> met;  // post-order, children last to first
  auto visit = [&](OutlineFolderItem* next) {
    if (next->walk_stamp_ == stamp) return;
    next->walk_stamp_ = stamp;
    stack.push_back(Frame{next, next->childCount()});
  };
  visit(item);
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (top.remaining == 0) {
      met.push_back(top.item);
      stack.pop_back();
      continue;
    }
    const std::size_t index = --top.remaining;
    const Array* list = top.item->childList();
    if (list && index < list->size()) {
      if (OutlineFolderItem* child = OutlineFolderItem::as_item(list->at(index).get())) visit(child);
    }
  }
  // Assign in reverse, so that the first meeting is the last assignment and stays. Only a new table is
  // sized: a walk again over a full one mostly enters known keys and should not reorder the table.
  if (table.empty()) table.reserve(met.size());
  for (auto it = met.rbegin(); it != met.rend(); ++it) {
    if (const String* id = as_string((*it)->identifier.get())) table.insert_or_assign(id->str(), Ref(*it));
  }
}

// ---- creation and loading

Ref<OutlineFolderModel> OutlineFolderModel::initWithExistingUser(Ref<Object> user, bool cleanExistingFolders,
                                                                 Ref<MQUserDefaultsWrapper> data) {
  Ref<OutlineFolderModel> model(new OutlineFolderModel());
  model->_data = std::move(data);
  model->_enforcedUID = std::move(user);
  model->_cleanExisting = cleanExistingFolders;
  model->reassignUserData();
  return model;
}

Ref<OutlineFolderModel> OutlineFolderModel::initWithExistingUser(std::string_view user, bool cleanExistingFolders,
                                                                 Ref<MQUserDefaultsWrapper> data) {
  return initWithExistingUser(Ref<Object>(str(user)), cleanExistingFolders, std::move(data));
}

Ref<OutlineFolderModel> OutlineFolderModel::init() {
  Ref<OutlineFolderModel> model(new OutlineFolderModel());
  model->reassignUserData();
  return model;
}

Ref<OutlineFolderItem> OutlineFolderModel::decodeStoredEntry(std::string_view key) const {
  const Object* value = _userDefaultsData ? _userDefaultsData->get(key) : nullptr;
  if (!value) return nullptr;
  if (const Data* bytes = as_data(value)) {
    try {
      Result<Ref<Object>> root = unarchive(bytes->bytes());
      if (root.ok()) {
        if (OutlineFolderItem* item = OutlineFolderItem::as_item(root.value().get())) return Ref(item);
      }
    } catch (const std::exception&) {
      // Out of memory on a hostile archive: the entry is as unreadable as any other bad one.
    }
  }
  NSLog("undecodable folder structure for %@", key);
  return nullptr;
}

void OutlineFolderModel::reassignUserData() {
  // Without a user the old client asked the thread's run loop to try again in 0.05 s, for ever. No run
  // loop is at hand here and nothing can give the model a user later, so it logs nothing and stays empty.
  if (!_enforcedUID) return;
  if (_currentUserID && deep_equal(_currentUserID.get(), _enforcedUID.get())) return;
  _currentUserID = _enforcedUID;
  register_outline_classes();

  Ref<Object> stored = _data ? _data->valueForKey(kOutlineFolderModels) : nullptr;
  // A value that is not a dictionary holds no stored trees. The value is shared with the reader's
  // cache and is never changed here.
  if (Dictionary* models = as_dict(stored.get())) {
    _userDefaultsData = Ref(models);
  } else {
    _userDefaultsData = make<Dictionary>();
  }

  // Preference keys are strings: a user id of another kind has no entry.
  Ref<OutlineFolderItem> root;
  if (const String* user = as_string(_enforcedUID.get())) root = decodeStoredEntry(user->str());
  if (!root) {
    // A new user (or one whose entry cannot be read): the three base folders, with no parent links.
    root = OutlineFolderItem::folderItemWithTitle(kOutlineRootTitle, kOutlineRootIdentifier);
    root->children = mutable_array({new_base_folder(kFolderFavFriendIdentifier), new_base_folder(kFolderTagsIdentifier),
                                    new_base_folder(kFolderLocationsIdentifier)});
  } else if (const Array* list = root->childList()) {
    // The user's own albums folder gives way to the shared one; a second one stays.
    const auto& children = list->items();
    auto albums = std::find_if(children.begin(), children.end(), [](const Ref<Object>& child) {
      const OutlineFolderItem* item = OutlineFolderItem::as_item(child.get());
      return item && item->hasIdentifier(kFolderAlbumsIdentifier);
    });
    if (albums != children.end()) {
      Ref<Object> dropped = *albums;  // held while the list lets go of it
      remove_child(root.get(), dropped.get());
    }
  }
  _rootItem = root;

  // The shared albums folder, decoded anew (for the albums pseudo-user this is a second copy of its
  // own root). Its parent link stays as stored.
  _albumsItem = decodeStoredEntry(kSharedAlbumsUserID);
  if (!_albumsItem) _albumsItem = new_base_folder(kFolderAlbumsIdentifier);
  append_child(_rootItem.get(), _albumsItem);

  _folderMapping.emplace();
  recurFolderMapping(*_folderMapping, _rootItem.get());
}

// ---- queries

Ref<Array> OutlineFolderModel::identifiers() const {
  if (!_folderMapping) return nullptr;
  std::vector<Ref<Object>> keys;
  keys.reserve(_folderMapping->size());
  for (const auto& entry : *_folderMapping) keys.push_back(str(entry.first));
  return make<Array>(std::move(keys), false);
}

Ref<OutlineFolderItem> OutlineFolderModel::itemForIdentifier(std::string_view identifier) const {
  if (!_folderMapping) return nullptr;
  auto it = _folderMapping->find(identifier);
  return it == _folderMapping->end() ? nullptr : it->second;
}

Ref<OutlineFolderItem> OutlineFolderModel::itemForIdentifier(const Object* identifier) const {
  const String* id = as_string(identifier);
  return id ? itemForIdentifier(std::string_view(id->str())) : nullptr;
}

void OutlineFolderModel::regenerateMapping() {
  if (!_rootItem || !_folderMapping) return;
  recurFolderMapping(*_folderMapping, _rootItem.get());
}

Ref<Array> OutlineFolderModel::expandedFolders() const {
  if (!_folderMapping) return nullptr;
  std::vector<OutlineFolderItem*> items;
  items.reserve(_folderMapping->size());
  for (const auto& entry : *_folderMapping) items.push_back(entry.second.get());
  std::stable_sort(items.begin(), items.end(),
                   [](const OutlineFolderItem* a, const OutlineFolderItem* b) { return a->level < b->level; });
  std::vector<Ref<Object>> open;
  for (OutlineFolderItem* item : items) {
    if (item->folder && item->expanded) open.emplace_back(item);
  }
  return make<Array>(std::move(open), false);
}

std::string OutlineFolderModel::folderSignature() const {
  std::string signature;
  if (!_folderMapping) return signature;
  for (const auto& entry : *_folderMapping) {
    const OutlineFolderItem* item = entry.second.get();
    signature += format("%@.%@.%li", {FormatArg(item->identifier), FormatArg(item->title),
                                      FormatArg(static_cast<std::int64_t>(item->childCount()))});
  }
  return signature;
}

Ref<Data> OutlineFolderModel::folderStructureForMainIdentifier(std::string_view identifier) const {
  Ref<OutlineFolderItem> item = itemForIdentifier(identifier);
  if (!item || !item->hasChildren()) return nullptr;
  return make<Data>(archive_root(item.get()));
}

// ---- editing

void OutlineFolderModel::enter(const Object* identifier, const Ref<OutlineFolderItem>& item) {
  // An identifier that is null or not a string cannot be a key of the table.
  const String* id = as_string(identifier);
  if (_folderMapping && id) _folderMapping->insert_or_assign(id->str(), item);
}

void OutlineFolderModel::newFolderInFolder(OutlineFolderItem* parentFolder, Ref<Object> title,
                                           Ref<Object> identifier) {
  Ref<OutlineFolderItem> item = OutlineFolderItem::folderItemWithTitle(std::move(title), identifier);
  item->parent = Ref<Object>(parentFolder);
  item->type = parentFolder ? parentFolder->type : nullptr;
  item->level = (parentFolder ? parentFolder->level : 0) + 1;
  item->expanded = true;
  append_child(parentFolder, item);
  enter(identifier.get(), item);
  flush();
}

void OutlineFolderModel::addItemWithTitle(Ref<Object> title, Ref<Object> identifier, OutlineFolderItem* folder) {
  if (!has_title(title.get())) return;
  Ref<OutlineFolderItem> item = OutlineFolderItem::folderItemWithTitle(std::move(title), identifier);
  item->folder = false;
  item->parent = Ref<Object>(folder);
  item->type = folder ? folder->type : nullptr;
  append_child(folder, item);
  item->level = (folder ? folder->level : 0) + 1;
  enter(identifier.get(), item);
  flush();
}

void OutlineFolderModel::moveItem(OutlineFolderItem* item, OutlineFolderItem* fromFolder,
                                  OutlineFolderItem* toFolder) {
  if (!item || !has_title(item->title.get())) return;
  Ref<OutlineFolderItem> keep(item);
  Ref<OutlineFolderItem> to(toFolder);  // the item's old parent link may be all that holds it
  if (fromFolder) remove_child(fromFolder, item);
  append_child(to.get(), keep);
  item->parent = Ref<Object>(to);
  item->type = to ? to->type : nullptr;
  item->level = (to ? to->level : 0) + 1;  // the item's descendants keep their type and level
  flush();
}

void OutlineFolderModel::renameFolder(OutlineFolderItem* folderItem, Ref<Object> title) {
  if (!folderItem) return;
  folderItem->title = title;
  // Normally the same item; in the albums pseudo-user's model the table holds the second copy.
  if (Ref<OutlineFolderItem> held = itemForIdentifier(folderItem->identifier.get())) held->title = title;
  flush();
}

void OutlineFolderModel::removeItemFromFolder(OutlineFolderItem* item) {
  if (!item) return;
  Ref<OutlineFolderItem> keep(item);
  remove_child(item->parentItem(), item);  // an item without parent is in no list
  item->parent = nullptr;
  // Only the item's own entry leaves the table; its descendants' entries stay.
  if (const String* id = as_string(item->identifier.get()); id && _folderMapping) _folderMapping->erase(id->str());
  flush();
}

void OutlineFolderModel::cleanupWithIdentifiers(const Object* keep) {
  if (!_folderMapping) return;
  std::unordered_set<std::string_view> kept;
  if (const Array* list = as_array(keep)) {
    for (const Ref<Object>& entry : list->items()) {
      if (const String* s = as_string(entry.get())) kept.insert(s->str());
    }
  }
  std::vector<std::string> keys;
  keys.reserve(_folderMapping->size());
  for (const auto& entry : *_folderMapping) keys.push_back(entry.first);
  for (const std::string& key : keys) {
    if (kept.count(key)) continue;
    auto it = _folderMapping->find(key);
    if (it == _folderMapping->end()) continue;  // an earlier removal took it out
    Ref<OutlineFolderItem> item = it->second;
    if (!item->folder) removeItemFromFolder(item.get());
  }
}

void OutlineFolderModel::resetBaseFoldersForKey(std::string_view key) {
  if (!_rootItem) return;
  Array* list = _rootItem->childList();
  if (!list) return;
  const auto& items = list->items();
  auto found = std::find_if(items.begin(), items.end(), [key](const Ref<Object>& child) {
    const OutlineFolderItem* item = OutlineFolderItem::as_item(child.get());
    return item && item->hasIdentifier(key);
  });
  // A key that no base folder of the root carries leaves nothing to replace: the tree stays as it is.
  if (found == items.end()) return;
  const std::size_t position = static_cast<std::size_t>(found - items.begin());

  Ref<OutlineFolderItem> fresh = new_base_folder(key);  // no parent link, not expanded, level 0
  if (list->is_mutable()) {
    list->mutable_items()[position] = fresh;
  } else {
    std::vector<Ref<Object>> copy = list->items();
    copy[position] = fresh;
    _rootItem->children = make<Array>(std::move(copy), true);
  }
  // _albumsItem stays the replaced folder, now outside the tree, and loses its content.
  if (key == kFolderAlbumsIdentifier && _albumsItem) _albumsItem->children = mutable_array();
  regenerateMapping();
  flush();
}

void OutlineFolderModel::importFolderStructure(const Object* archive, std::string_view mainIdentifier) {
  // Null, the NSNull placeholder, or anything but bytes: nothing to take in.
  const Data* bytes = as_data(archive);
  if (!bytes) return;
  Ref<OutlineFolderItem> receiving = itemForIdentifier(mainIdentifier);
  register_outline_classes();
  Ref<OutlineFolderItem> structure;
  try {
    Result<Ref<Object>> root = unarchive(bytes->bytes());
    if (root.ok()) structure = Ref(OutlineFolderItem::as_item(root.value().get()));
  } catch (const std::exception&) {
  }
  // Bytes that are no archive of a folder item hold no structure: the tree stays as it is.
  if (!structure) return;
  std::vector<Ref<Object>> children;
  if (const Array* list = structure->childList()) children = list->items();
  for (const Ref<Object>& child : children) {
    if (OutlineFolderItem* item = OutlineFolderItem::as_item(child.get())) {
      moveItem(item, item->parentItem(), receiving.get());
    }
  }
  regenerateMapping();
}

void OutlineFolderModel::updateIdentifier(std::string_view oldIdentifier, std::string_view newIdentifier) {
  if (!_folderMapping) return;
  auto it = _folderMapping->find(oldIdentifier);
  if (it == _folderMapping->end()) return;
  Ref<OutlineFolderItem> item = it->second;
  item->identifier = str(newIdentifier);  // items below a renamed base folder keep the old `type`
  _folderMapping->erase(it);
  _folderMapping->insert_or_assign(std::string(newIdentifier), item);
  flush();
}

Ref<Dictionary> OutlineFolderModel::storedFolderModels() const {
  Ref<Dictionary> stored = make<Dictionary>(true);
  if (_userDefaultsData) {
    for (const auto& [key, value] : _userDefaultsData->entries()) stored->append(key, value);
  }
  if (_currentUserID && _rootItem) stored->set(_currentUserID, make<Data>(archive_root(_rootItem.get())));
  if (_albumsItem) stored->set(kSharedAlbumsUserID, make<Data>(archive_root(_albumsItem.get())));
  return stored;
}

// ---- record plumbing

std::span<const std::string_view> OutlineFolderModel::class_chain() const { return kModelChain; }

void OutlineFolderModel::drop_refs() {
  _data = nullptr;
  _userDefaultsData = nullptr;
  _currentUserID = _enforcedUID = nullptr;
  _rootItem = _albumsItem = nullptr;
  _folderMapping.reset();
}

}  // namespace orvia
