// The sidebar item: its defaults, the base-folder search, sort positions, its text, and its archived
// form (class name, eight keys in order, parent written in full, children exactly as archived).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "outline/outline_folder_item.h"
#include "platform/keyed_archive.h"
#include "platform/value.h"
#include "sidebar_home.h"

namespace orvia {
namespace {

using namespace sidebar;

Ref<OutlineFolderItem> decode_item(const std::string& bytes) {
  register_outline_classes();
  Result<Ref<Object>> root = unarchive(bytes);
  EXPECT_TRUE(root.ok()) << (root.ok() ? "" : root.error().message);
  return root.ok() ? Ref(OutlineFolderItem::as_item(root->get())) : nullptr;
}

TEST(OutlineFolderItem, MadeItemsStartEmpty) {
  Ref<OutlineFolderItem> made = OutlineFolderItem::folderItemWithTitle("Trips", "folder-1");
  EXPECT_EQ(made->identifierText(), "folder-1");
  EXPECT_EQ(summary(made.get()), "Trips|(null)|F-|0|(no parent)|mutable");

  // init gives a fresh list every time; the bare shell the unarchiver fills has none.
  EXPECT_NE(OutlineFolderItem::init()->childList(), OutlineFolderItem::init()->childList());
  EXPECT_FALSE(OutlineFolderItem::init()->folder);
  EXPECT_EQ(OutlineFolderItem::alloc()->children, nullptr);
}

TEST(OutlineFolderItem, RootItemIsTheNearestBaseFolderAbove) {
  Ref<OutlineFolderItem> root = stored_user_tree();
  auto albums = Ref(root->childItems()[1]);
  auto tags = Ref(root->childItems()[2]);
  auto sunset = Ref(tags->childItems()[0]);
  auto trips = attach(albums, folder("Trips", "folder-1", str(kAlbums), 1));
  auto portugal = attach(trips, folder("Portugal", "folder-2", str(kAlbums), 2));
  auto porto = attach(portugal, leaf("Porto", "ff-p8", kAlbums, 3));
  auto orphan = leaf("alone", "favtag-alone", kTags, 1);

  // A parent chain that loops (only a hostile archive has one) ends with no base folder, unless the
  // loop passes one.
  auto a = folder("A", "a", nullptr, 1), b = folder("B", "b", nullptr, 1);
  a->parent = Ref<Object>(b);
  b->parent = Ref<Object>(a);
  auto lead_in = leaf("x", "x", kTags, 1);
  lead_in->parent = Ref<Object>(a);
  auto looping_base = base_folder(kLocations);
  auto c = folder("C", "c", nullptr, 1);
  looping_base->parent = Ref<Object>(c);
  c->parent = Ref<Object>(looping_base);
  // A parent field holding something that is not an item is no parent.
  auto odd = leaf("odd", "odd", kTags, 1);
  odd->parent = str(kTags);

  struct Case {
    const char* name;
    Ref<OutlineFolderItem> item;
    OutlineFolderItem* expected;
  } cases[] = {
      {"leaf in the tags folder", sunset, tags.get()},
      {"leaf two sub-folders deep in albums", porto, albums.get()},
      {"sub-folder", trips, albums.get()},
      {"base folder", tags, nullptr},
      {"root", root, nullptr},
      {"item without parent", orphan, nullptr},
      {"parent chain that loops", lead_in, nullptr},
      {"loop through a base folder", c, looping_base.get()},
      {"loop back to the base folder itself", looping_base, looping_base.get()},
      {"parent that is not an item", odd, nullptr},
  };
  for (const Case& k : cases) EXPECT_EQ(k.item->rootItem(), k.expected) << k.name;
}

TEST(OutlineFolderItem, SortIndexIsTheFirstEqualPosition) {
  constexpr std::uint64_t kNotFound = 9223372036854775807ull;
  struct Case {
    const char* name;
    Ref<Object> identifier;
    Ref<Object> list;
    std::uint64_t expected;
  } cases[] = {
      {"twice in the list", str("b"), array({str("a"), str("b"), str("c"), str("b")}), 1},
      {"mutable strings compare by text", str("c"), array({mutable_str("a"), mutable_str("c")}), 1},
      {"missing", str("z"), array({str("a"), str("b")}), kNotFound},
      {"empty list", str("a"), array(), kNotFound},
      {"no list", str("a"), nullptr, kNotFound},
      {"not a list", str("a"), str("a"), kNotFound},
      {"no identifier", nullptr, array({str("a")}), kNotFound},
      {"number identifier", num(7), array({str("7"), num(7)}), 1},
  };
  for (const Case& k : cases) {
    Ref<OutlineFolderItem> item = OutlineFolderItem::init();
    item->identifier = k.identifier;
    item->currentSortOrder = 42;
    item->calculateSortIndex(k.list.get());
    EXPECT_EQ(item->currentSortOrder, k.expected) << k.name;
  }
}

// "<OutlineFolderItem 0x<hex> " + rest, with any address.
void expect_description(const std::string& text, const std::string& rest) {
  const std::string head = "<OutlineFolderItem 0x";
  ASSERT_EQ(text.rfind(head, 0), 0u) << text;
  const std::size_t space = text.find(' ', head.size());
  ASSERT_NE(space, std::string::npos) << text;
  EXPECT_GT(space, head.size()) << text;
  EXPECT_EQ(text.substr(head.size(), space - head.size()).find_first_not_of("0123456789abcdef"), std::string::npos)
      << text;
  EXPECT_EQ(text.substr(space + 1), rest);
}

TEST(OutlineFolderItem, DescriptionNamesAddressTitleChildrenAndIdentifier) {
  Ref<OutlineFolderItem> tags = base_folder(kTags);
  attach(tags, leaf("sunset", "favtag-sunset", kTags, 1));
  attach(tags, leaf("sea", "favtag-sea", kTags, 1));
  expect_description(tags->description(), "'" + std::string(kTags) + "' 2 children '" + std::string(kTags) + "'>");
  expect_description(OutlineFolderItem::alloc()->description(), "'(null)' 0 children '(null)'>");
  EXPECT_NE(tags->description(), base_folder(kTags)->description());  // the address tells them apart

  // A damaged archive may hold an item (or a list) as a title or identifier: it shows by its address
  // form, so a chain of 100,000 items nested through their titles describes without recursing.
  Ref<OutlineFolderItem> top = OutlineFolderItem::alloc();
  Ref<OutlineFolderItem> cur = top;
  for (int i = 0; i < 100000; ++i) {
    Ref<OutlineFolderItem> next = OutlineFolderItem::alloc();
    cur->title = next;
    cur->identifier = array({next});
    cur = next;
  }
  const std::string text = top->description();
  EXPECT_NE(text.find("' 0 children '<NSArray: 0x"), std::string::npos) << text;
  EXPECT_EQ(text.rfind("<OutlineFolderItem 0x", 0), 0u) << text;
  EXPECT_NE(text.find("'<OutlineFolderItem: 0x"), std::string::npos) << text;
}

TEST(OutlineFolderItem, ArchivesEightKeysInOrderAndDecodesBackEveryFieldAndTheWholeTree) {
  Ref<OutlineFolderItem> root = stored_user_tree();
  OutlineFolderItem* tags = root->childItems()[2];
  OutlineFolderItem* seaside = tags->childItems()[1];
  OutlineFolderItem* sea = seaside->childItems()[0];
  sea->expanded = true;
  sea->currentSortOrder = 9;
  const std::string bytes = archive_root(sea);

  // Read back without our class: the generic record keeps the keys as archived.
  ClassRegistry no_classes;
  Result<Ref<Object>> generic = unarchive(bytes, no_classes);
  ASSERT_TRUE(generic.ok()) << generic.error().message;
  auto* record = dynamic_cast<GenericRecord*>(generic->get());
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(std::vector<std::string_view>(record->class_chain().begin(), record->class_chain().end()),
            (std::vector<std::string_view>{"OutlineFolderItem", "NSObject"}));
  std::vector<std::string> keys;
  for (const auto& f : record->fields()) keys.push_back(f.key);
  EXPECT_EQ(keys, (std::vector<std::string>{"title", "identifier", "parent", "children", "type", "folder",
                                            "expanded", "level"}));
  EXPECT_TRUE(as_number(record->get("folder"))->is_bool());
  EXPECT_TRUE(as_number(record->get("expanded"))->is_bool());
  EXPECT_TRUE(as_number(record->get("level"))->is_integer());

  Ref<OutlineFolderItem> back = decode_item(bytes);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->identifierText(), "favtag-sea");
  EXPECT_EQ(summary(back.get()), "sea|" + std::string(kTags) + "|-E|2|folder-7A|mutable");
  EXPECT_EQ(back->currentSortOrder, 0u);  // never archived

  // The parent is an object reference, not a conditional one: up through the parents to the root, each
  // as it was, and down again to the same object.
  OutlineFolderItem* back_seaside = back->parentItem();
  ASSERT_NE(back_seaside, nullptr);
  EXPECT_EQ(summary(back_seaside), summary(seaside));
  EXPECT_EQ(back_seaside->childItems()[0], back.get());
  OutlineFolderItem* back_tags = back_seaside->parentItem();
  ASSERT_NE(back_tags, nullptr);
  EXPECT_EQ(summary(back_tags), summary(tags));
  OutlineFolderItem* back_root = back_tags->parentItem();
  ASSERT_NE(back_root, nullptr);
  EXPECT_EQ(summary(back_root), summary(root.get()));  // "Root", no type, no parent
  EXPECT_EQ(back->rootItem(), back_tags);

  // The decoded lists are the archive's mutable lists, open to change in place.
  Array* list = back_tags->childList();
  ASSERT_TRUE(list && list->is_mutable());
  list->push_back(OutlineFolderItem::init());
  EXPECT_EQ(back_tags->childCount(), 3u);
}

TEST(OutlineFolderItem, DecodingTakesWhateverTheArchiveHolds) {
  // Archives written by hand, with values of other kinds under the item's keys.
  using Field = GenericRecord::Field;
  auto item_record = [](std::vector<Field> fields) {
    auto r = make<GenericRecord>(std::vector<std::string>{"OutlineFolderItem", "NSObject"});
    r->mutable_fields() = std::move(fields);
    return r;
  };
  auto child = item_record({{"title", str("child"), false}, {"identifier", str("c"), false}});
  struct Case {
    const char* name;
    Ref<GenericRecord> record;
    std::size_t child_count;
    std::size_t child_items;
    bool mutable_list;
  } cases[] = {
      {"no keys at all", item_record({}), 0, 0, false},
      {"children that are no list", item_record({{"children", str("nope"), false}}), 0, 0, false},
      {"an immutable list stays immutable", item_record({{"children", array({child}), false}}), 1, 1, false},
      {"a list with other objects in it",
       item_record({{"children", mutable_array({str("x"), child, num(3)}), false}}), 3, 1, true},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    Ref<OutlineFolderItem> back = decode_item(archive_root(k.record.get()));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->childCount(), k.child_count);
    EXPECT_EQ(back->hasChildren(), k.child_count > 0);
    EXPECT_EQ(back->childItems().size(), k.child_items);
    EXPECT_EQ(back->childList() && back->childList()->is_mutable(), k.mutable_list);
    EXPECT_FALSE(back->folder);
    EXPECT_EQ(back->level, 0u);
  }

  Ref<OutlineFolderItem> odd = decode_item(archive_root(
      item_record({{"title", num(12), false}, {"identifier", num(34), false}, {"parent", str("p"), false},
                   {"type", array(), false}, {"folder", num(1), true}, {"level", num(-1), true}})
          .get()));
  ASSERT_NE(odd, nullptr);
  EXPECT_EQ(as_number(odd->title.get())->int_value(), 12);  // kept as it was
  EXPECT_EQ(odd->identifierText(), "");
  // No title or type text, a folder of the largest level, a parent that is no item, no children list.
  EXPECT_EQ(summary(odd.get()), "||F-|18446744073709551615|(no item)|fixed");
}

}  // namespace
}  // namespace orvia
