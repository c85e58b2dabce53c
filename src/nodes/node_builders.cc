#include "nodes/node_builders.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include "nodes/album_media.h"
#include "platform/format.h"
#include "platform/log.h"

namespace orvia {
namespace {

enum class Kind { Friends, Albums, Tags, Locations, None };

// Every dispatch tests the identifiers in this order: friends, albums, tags, locations.
Kind kind_of(std::string_view category) {
  if (category == kFolderFavFriendIdentifier) return Kind::Friends;
  if (category == kFolderAlbumsIdentifier) return Kind::Albums;
  if (category == kFolderTagsIdentifier) return Kind::Tags;
  if (category == kFolderLocationsIdentifier) return Kind::Locations;
  return Kind::None;
}

std::uint64_t contents_code(Kind k) {
  switch (k) {
    case Kind::Friends: return MQImporterNodeTypeFriend;
    case Kind::Albums: return MQImporterNodeTypeAlbum;
    case Kind::Tags: return MQImporterNodeTypeTag;
    case Kind::Locations: return MQImporterNodeTypeLocation;
    case Kind::None: return 0;
  }
  return 0;
}

std::optional<std::string> text_form(const Object* o) { return entry_value_text(o); }

// The integer value of a legacy count: a number's integer value, a string's leading integer, else 0.
std::uint64_t count_value(const Object* o) { return static_cast<std::uint64_t>(legacy_integer_value(o)); }

Ref<Array> immutable_copy(const Ref<Array>& list) { return make<Array>(list->items(), false); }

}  // namespace

// ---------------------------------------------------------------------------------------------------
// Text operations

std::string lowercased(std::string_view utf8) {
  icu::UnicodeString u = icu::UnicodeString::fromUTF8(icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
  u.toLower(icu::Locale::getRoot());
  std::string out;
  u.toUTF8String(out);
  return out;
}

std::string removing_occurrences(std::string_view text, std::string_view part) {
  if (part.empty()) return std::string(text);
  std::string out;
  out.reserve(text.size());
  std::size_t pos = 0;
  for (;;) {
    std::size_t hit = text.find(part, pos);
    if (hit == std::string_view::npos) break;
    out.append(text.substr(pos, hit - pos));
    pos = hit + part.size();
  }
  out.append(text.substr(pos));
  return out;
}

int compare_plain(std::string_view a, std::string_view b) {
  // Decodes code points and compares them in UTF-16 unit order: U+E000..U+FFFF sort after the
  // supplementary planes, whose surrogates come first in UTF-16.
  auto next = [](std::string_view s, std::size_t& i) -> std::uint32_t {
    unsigned char c = static_cast<unsigned char>(s[i]);
    std::uint32_t cp = c;
    std::size_t len = 1;
    if (c >= 0xf0 && i + 4 <= s.size()) {
      cp = ((c & 0x07u) << 18) | ((s[i + 1] & 0x3fu) << 12) | ((s[i + 2] & 0x3fu) << 6) | (s[i + 3] & 0x3fu), len = 4;
    } else if (c >= 0xe0 && i + 3 <= s.size()) {
      cp = ((c & 0x0fu) << 12) | ((s[i + 1] & 0x3fu) << 6) | (s[i + 2] & 0x3fu), len = 3;
    } else if (c >= 0xc0 && i + 2 <= s.size()) {
      cp = ((c & 0x1fu) << 6) | (s[i + 1] & 0x3fu), len = 2;
    }
    i += len;
    return (cp >= 0xe000 && cp <= 0xffff) ? cp + 0x200000 : cp;
  };
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    std::uint32_t x = next(a, i), y = next(b, j);
    if (x != y) return x < y ? -1 : 1;
  }
  if (i < a.size()) return 1;
  if (j < b.size()) return -1;
  return 0;
}

// ---------------------------------------------------------------------------------------------------
// Legacy defaults entries

Ref<Array> defaultsArrayWithBase(std::string_view base, MQImporterContext& context) {
  Ref<Object> value = context.userDefaults ? context.userDefaults->valueForKey(base) : nullptr;
  if (!value) {
    NSLog("wrong base for %@", context.account);
    return nullptr;
  }
  const Dictionary* per_account = as_dict(value.get());
  if (!per_account) {
    NSLog("wrogn kind of class: %@", value);
    return nullptr;
  }
  Object* entry = nullptr;
  if (context.account) {
    if (auto uid = text_form(context.account->userid().get())) entry = per_account->get(*uid);
  }
  if (!entry) {
    NSLog("wrong entry for %@", context.account);
    return nullptr;
  }
  if (!as_array(entry)) {
    NSLog("wrogn kind of class: %@", entry);
    return nullptr;
  }
  return Ref<Array>(as_array(entry));
}

Ref<Object> defaultsArrayWithKey(std::string_view key, MQImporterContext& context) {
  return context.userDefaults ? context.userDefaults->valueForKey(key) : nullptr;
}

Ref<Dictionary> defaultsEntryWithBase(std::string_view base, std::string_view field, const Object* value,
                                      MQImporterContext& context) {
  Ref<Array> list = defaultsArrayWithBase(base, context);
  if (!list) return nullptr;
  // The list is searched from its start: an element that is not a dictionary ends the search before
  // any later match. The request's index of the list answers the same in constant time.
  const ImportLookups::EntryIndex& index = context.lookups().entryIndex(list, field);
  std::size_t match = SIZE_MAX;
  if (const String* wanted = as_string(value)) {
    if (auto it = index.first.find(wanted->str()); it != index.first.end()) match = it->second;
  }
  if (index.first_non_dictionary < match) {
    NSLog("item is no dictionary: %@", list->at(index.first_non_dictionary));
    return nullptr;
  }
  if (match != SIZE_MAX) return Ref<Dictionary>(as_dict(list->at(match).get()));
  NSLog("could not find anything for %@ with %@", field, value);
  return nullptr;
}

// ---------------------------------------------------------------------------------------------------
// Dispatch and folders

Ref<MQImporterNodeFolder> folderNode(const OutlineFolderItem& item, std::string_view category, MQImporterContext&) {
  auto node = make<MQImporterNodeFolder>();
  node->type = MQImporterNodeTypeFolder;
  node->title = item.title;
  node->children = mutable_array();
  node->contentsType = contents_code(kind_of(category));
  return node;
}

Ref<MQImporterNode> nodeFromItem(const OutlineFolderItem& item, std::string_view category, MQImporterContext& context) {
  // The item's own type decides its kind; the category only names the tree in the log line.
  switch (kind_of(text_of(item.type.get()))) {
    case Kind::Friends: return friendNodeFromItem(item, context);
    case Kind::Albums: return albumNodeFromItem(item, context);
    case Kind::Tags: return tagNodeFromItem(item, context);
    case Kind::Locations: return locationNodeFromItem(item, context);
    case Kind::None: break;
  }
  context.storeMessage(format("Could not export '%@'", {item.title}));
  NSLog("Invalid Node Type: %@ (category: %@)", item.type, category);
  return nullptr;
}

Ref<Array> nonFoldarizedItemsInCategory(std::string_view category, MQImporterContext& context,
                                        const OutlineFolderModel& model) {
  switch (kind_of(category)) {
    case Kind::Friends: return nonFoldarizedFriendswithContext(context, model);
    case Kind::Albums: return nonFoldarizedAlbumswithContext(context, model);
    case Kind::Tags: return nonFoldarizedTagswithContext(context, model);
    case Kind::Locations: return nonFoldarizedLocationswithContext(context, model);
    case Kind::None: break;
  }
  NSLog("Invalid Node Type: %@", category);
  return nullptr;
}

// ---------------------------------------------------------------------------------------------------
// Tags

Ref<MQImporterNode> tagNodeFromItem(const OutlineFolderItem& item, MQImporterContext& context) {
  Ref<Object> wanted;
  if (const String* id = as_string(item.identifier.get())) wanted = str(lowercased(removing_occurrences(id->str(), "favtag-")));
  Ref<Dictionary> entry = defaultsEntryWithBase(kFavoriteSidebarTags, "tag", wanted.get(), context);
  if (!entry) return nullptr;
  auto node = make<MQImporterNodeTag>();
  node->type = MQImporterNodeTypeTag;
  node->identifier = item.identifier;
  node->tagName = entry->get("tag");
  node->tagCount = count_value(entry->get("count"));
  return node;
}

Ref<Array> nonFoldarizedTagswithContext(MQImporterContext& context, const OutlineFolderModel& model) {
  auto result = mutable_array();
  if (Ref<Array> list = defaultsArrayWithBase(kFavoriteSidebarTags, context)) {
    for (const Ref<Object>& element : list->items()) {
      // Our choice: an element that is not a dictionary, or whose tag is not text, counts as an entry
      // without a tag.
      const Dictionary* entry = as_dict(element.get());
      const String* tag = entry ? as_string(entry->get("tag")) : nullptr;
      if (!tag) {
        context.storeMessage(format("Invalid favorite tag '%@'", {element}));
        continue;
      }
      if (model.itemForIdentifier("favtag-" + lowercased(tag->str()))) continue;  // filed: its folder brings it
      auto node = make<MQImporterNodeTag>();
      node->type = MQImporterNodeTypeTag;
      node->identifier = Ref<Object>(const_cast<String*>(tag));
      node->tagName = node->identifier;
      node->tagCount = count_value(entry->get("count"));
      result->push_back(node);
    }
  }
  Ref<Object> plain = defaultsArrayWithKey(kFavoriteTags, context);
  if (const Array* tags = as_array(plain.get())) {
    for (const Ref<Object>& element : tags->items()) {
      if (as_string(element.get())) {
        auto node = make<MQImporterNodeTag>();
        node->type = MQImporterNodeTypeTag;
        node->identifier = element;
        node->tagName = element;
        result->push_back(node);
      } else {
        NSLog("invalid class for favorite tag: %@", element);
        context.storeMessage(format("Invalid favorite tag '%@'", {element}));
      }
    }
  } else if (plain) {
    NSLog("wrogn kind of class: %@", plain);  // our choice: a plain value that is not a list adds nothing
  }
  return result;
}

// ---------------------------------------------------------------------------------------------------
// Locations

Ref<MQImporterNode> locationNodeFromItem(const OutlineFolderItem& item, MQImporterContext& context) {
  Ref<Object> wanted;
  if (const String* id = as_string(item.identifier.get())) wanted = str(removing_occurrences(id->str(), "location-"));
  Ref<Dictionary> entry = defaultsEntryWithBase(kFavoriteSidebarLocations, "id", wanted.get(), context);
  if (!entry) return nullptr;
  auto node = make<MQImporterNodeLocation>();
  node->type = MQImporterNodeTypeLocation;
  node->identifier = item.identifier;
  node->name = item.title;  // a filed location is named after its sidebar entry
  node->latitude = entry->get("latitude");
  node->longitude = entry->get("longitude");
  return node;
}

Ref<Array> nonFoldarizedLocationswithContext(MQImporterContext& context, const OutlineFolderModel& model) {
  auto result = mutable_array();
  if (Ref<Array> list = defaultsArrayWithBase(kFavoriteSidebarLocations, context)) {
    for (const Ref<Object>& element : list->items()) {
      const Dictionary* entry = as_dict(element.get());  // our choice: a non-dictionary has no "id"
      Object* id = entry ? entry->get("id") : nullptr;
      if (!id) {
        context.storeMessage(format("Invalid favorite location '%@'", {element}));
        continue;
      }
      if (model.itemForIdentifier(format("location-%@", {id}))) continue;
      auto node = make<MQImporterNodeLocation>();
      node->type = MQImporterNodeTypeLocation;
      node->identifier = Ref<Object>(id);
      node->name = entry->get("name");
      node->latitude = entry->get("latitude");
      node->longitude = entry->get("longitude");
      result->push_back(node);
    }
  }
  Ref<Object> plain = defaultsArrayWithKey(kFavoriteLocations, context);
  if (const Array* locations = as_array(plain.get())) {
    for (const Ref<Object>& element : locations->items()) {
      if (const Dictionary* entry = as_dict(element.get())) {
        auto node = make<MQImporterNodeLocation>();
        node->type = MQImporterNodeTypeLocation;
        node->identifier = entry->get("id");
        node->name = entry->get("name");
        node->latitude = entry->get("latitude");
        node->longitude = entry->get("longitude");
        result->push_back(node);
      } else {
        NSLog("invalid class for favorite location: %@", element);
        context.storeMessage(format("Invalid favorite location '%@'", {element}));
      }
    }
  } else if (plain) {
    NSLog("wrogn kind of class: %@", plain);  // our choice: a plain value that is not a list adds nothing
  }
  return result;
}

// ---------------------------------------------------------------------------------------------------
// Albums

namespace {

Ref<MQImporterNodeAlbum> album_node(ImageList& album, MQImporterContext& context) {
  auto node = make<MQImporterNodeAlbum>();
  node->type = MQImporterNodeTypeAlbum;
  node->identifier = str("ff-" + album.objectURI());
  node->albumName = album.title();
  // The media are read and converted when the reply is archived (see album_media.h).
  if (context.convertMedia)
    node->items = make<AlbumMediaList>(Ref<ImageList>(&album), context.lookups().mediaPlan());
  else
    node->items = mutable_array();
  return node;
}

}  // namespace

Ref<MQImporterNode> albumNodeFromItem(const OutlineFolderItem& item, MQImporterContext& context) {
  ImageList* album = nullptr;
  if (context.coreDataWrapper) {
    if (auto id = text_form(item.identifier.get()); id && as_string(item.identifier.get()))
      album = context.lookups().albumForIdentifier(*context.coreDataWrapper, *id);
  }
  if (!album) {
    NSLog("no album for identifier %@ found", item.identifier);
    context.storeMessage(format("Unknown album: '%@'", {item.title}));
    return nullptr;
  }
  return album_node(*album, context);
}

Ref<Array> nonFoldarizedAlbumswithContext(MQImporterContext& context, const OutlineFolderModel& model) {
  auto result = mutable_array();
  if (context.coreDataWrapper) {
    const auto& albums = context.lookups().albums(*context.coreDataWrapper);
    if (albums) {
      for (const Ref<ImageList>& album : *albums) {
        if (model.itemForIdentifier("ff-" + album->objectURI())) continue;  // filed
        result->push_back(album_node(*album, context));
      }
    }
  }
  return immutable_copy(result);
}

// ---------------------------------------------------------------------------------------------------
// Favourite friends

namespace {

Ref<MQImporterNodeFriend> friend_node(Friend& record) {
  auto node = make<MQImporterNodeFriend>();
  node->type = MQImporterNodeTypeFriend;
  node->identifier = str("fa-" + record.objectURI());
  node->mediaCount = count_value(record.mediaCount().get());
  node->added = record.added();
  node->imageURLString = record.imageURL();
  node->username = record.name();
  node->uid = record.uid();
  return node;
}

}  // namespace

Ref<MQImporterNode> friendNodeFromItem(const OutlineFolderItem& item, MQImporterContext& context) {
  Friend* record = nullptr;
  if (context.coreDataWrapper) {
    if (const String* id = as_string(item.identifier.get()))
      record = context.lookups().friendForIdentifier(*context.coreDataWrapper, context.account.get(), id->str());
  }
  if (!record) {
    NSLog("no friend for identifier %@ found", item.identifier);
    context.storeMessage(format("Unknown favorite friend: '%@'", {item.title}));
    return nullptr;
  }
  return friend_node(*record);
}

Ref<Array> nonFoldarizedFriendswithContext(MQImporterContext& context, const OutlineFolderModel& model) {
  auto result = mutable_array();
  if (context.coreDataWrapper) {
    for (const Ref<Friend>& record : context.lookups().friends(*context.coreDataWrapper, context.account.get())) {
      if (model.itemForIdentifier("fa-" + record->objectURI())) continue;  // filed
      result->push_back(friend_node(*record));
    }
  }
  return immutable_copy(result);
}

}  // namespace orvia
