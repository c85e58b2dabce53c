#include "outline/outline_folder_item.h"

#include <mutex>
#include <typeinfo>

#include "platform/format.h"

namespace orvia {
namespace {

constexpr std::string_view kItemChain[] = {"OutlineFolderItem", "NSObject"};

bool is_base_identifier(std::string_view id) {
  return id == kFolderFavFriendIdentifier || id == kFolderAlbumsIdentifier || id == kFolderTagsIdentifier ||
         id == kFolderLocationsIdentifier;
}

// A title or identifier as the item's description shows it. A record or container there (only a
// damaged archive has one) shows as its address form: describing it could describe an item again, and
// a chain of items nested through their titles would then recurse as deep as the archive.
FormatArg field_arg(const Object* value, std::string& scratch) {
  if (!value) return FormatArg(nullptr);
  switch (value->kind()) {
    case ObjectKind::Array:
    case ObjectKind::Dictionary:
    case ObjectKind::Set:
    case ObjectKind::Record:
      scratch = format("<%@: %p>", {FormatArg(value->class_name()), FormatArg(static_cast<const void*>(value))});
      return FormatArg(scratch);
    default:
      return FormatArg(value);
  }
}

}  // namespace

OutlineFolderItem* OutlineFolderItem::as_item(const Object* o) {
  // The class is final: comparing the dynamic type is enough, and cheaper than a dynamic_cast on
  // walks over 100,000 items.
  if (!o || o->kind() != ObjectKind::Record || typeid(*o) != typeid(OutlineFolderItem)) return nullptr;
  return static_cast<OutlineFolderItem*>(const_cast<Object*>(o));
}

Ref<OutlineFolderItem> OutlineFolderItem::alloc() { return Ref<OutlineFolderItem>(new OutlineFolderItem()); }

Ref<OutlineFolderItem> OutlineFolderItem::init() {
  Ref<OutlineFolderItem> item = alloc();
  item->children = mutable_array();
  return item;
}

Ref<OutlineFolderItem> OutlineFolderItem::folderItemWithTitle(Ref<Object> title, Ref<Object> identifier) {
  Ref<OutlineFolderItem> item = init();
  item->title = std::move(title);
  item->identifier = std::move(identifier);
  item->folder = true;
  return item;
}

Ref<OutlineFolderItem> OutlineFolderItem::folderItemWithTitle(std::string_view title, std::string_view identifier) {
  return folderItemWithTitle(str(title), str(identifier));
}

std::vector<OutlineFolderItem*> OutlineFolderItem::childItems() const {
  std::vector<OutlineFolderItem*> out;
  if (const Array* list = childList()) {
    out.reserve(list->size());
    for (const Ref<Object>& child : list->items()) {
      if (OutlineFolderItem* item = as_item(child.get())) out.push_back(item);
    }
  }
  return out;
}

std::size_t OutlineFolderItem::childCount() const {
  const Array* list = childList();
  return list ? list->size() : 0;
}

bool OutlineFolderItem::hasIdentifier(std::string_view id) const {
  const String* s = as_string(identifier.get());
  return s && s->str() == id;
}

OutlineFolderItem* OutlineFolderItem::rootItem() const {
  // Brent's cycle check: a parent chain that loops (only a hostile archive makes one) ends the search
  // with no base folder instead of running forever. Constant memory, linear time.
  const OutlineFolderItem* saved = this;
  std::size_t power = 1, steps = 0;
  for (OutlineFolderItem* candidate = parentItem(); candidate; candidate = candidate->parentItem()) {
    if (is_base_identifier(candidate->identifierText())) return candidate;
    if (candidate == saved) return nullptr;
    if (++steps == power) {
      saved = candidate;
      power *= 2;
      steps = 0;
    }
  }
  return nullptr;
}

std::string OutlineFolderItem::description() const {
  std::string title_scratch, identifier_scratch;
  return format("<OutlineFolderItem %p '%@' %li children '%@'>",
                {FormatArg(static_cast<const void*>(this)), field_arg(title.get(), title_scratch),
                 FormatArg(static_cast<std::int64_t>(childCount())), field_arg(identifier.get(), identifier_scratch)});
}

void OutlineFolderItem::calculateSortIndex(const Object* list) {
  currentSortOrder = kSortIndexNotFound;
  const Array* ids = as_array(list);
  if (!ids || !identifier) return;
  const String* own = as_string(identifier.get());
  for (std::size_t i = 0; i < ids->size(); ++i) {
    const Object* entry = ids->at(i).get();
    const bool equal = own ? (as_string(entry) && as_string(entry)->str() == own->str())
                           : deep_equal(entry, identifier.get());
    if (equal) {
      currentSortOrder = i;
      return;
    }
  }
}

std::span<const std::string_view> OutlineFolderItem::class_chain() const { return kItemChain; }

void OutlineFolderItem::encode_with_coder(KeyedEncoder& c) const {
  c.encode_object(kOutlineKeyTitle, title);
  c.encode_object(kOutlineKeyIdentifier, identifier);
  c.encode_object(kOutlineKeyParent, parent);  // in full, not as a conditional reference
  c.encode_object(kOutlineKeyChildren, children);
  c.encode_object(kOutlineKeyType, type);
  c.encode_bool(kOutlineKeyFolder, folder);
  c.encode_bool(kOutlineKeyExpanded, expanded);
  c.encode_int64(kOutlineKeyLevel, static_cast<std::int64_t>(level));
}

void OutlineFolderItem::init_with_coder(KeyedDecoder& c) {
  title = c.decode_object(kOutlineKeyTitle);
  identifier = c.decode_object(kOutlineKeyIdentifier);
  parent = c.decode_object(kOutlineKeyParent);
  children = c.decode_object(kOutlineKeyChildren);
  folder = c.decode_bool(kOutlineKeyFolder);
  type = c.decode_object(kOutlineKeyType);
  expanded = c.decode_bool(kOutlineKeyExpanded);
  level = static_cast<std::uint64_t>(c.decode_int64(kOutlineKeyLevel));
}

void OutlineFolderItem::drop_refs() { title = identifier = type = parent = children = nullptr; }

void register_outline_classes(ClassRegistry& registry) {
  auto add = [&registry] {
    // The unarchiver fills a bare shell: the children list comes from the archive, not from init().
    registry.add("OutlineFolderItem", []() -> Ref<Record> { return OutlineFolderItem::alloc(); });
  };
  if (&registry == &ClassRegistry::shared()) {
    static std::once_flag once;
    std::call_once(once, add);
  } else {
    add();
  }
}

}  // namespace orvia
