// The sidebar item: its defaults, the base-folder search, sort positions, its text, and its archived
// form (class name, eight keys in order, parent written in full, children exactly as archived).
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

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
  auto albums = Ref(root->childItems()[1]), tags = Ref(root->childItems()[2]);
  auto porto = add_entry(*add_folder(*add_folder(*albums, "Trips"), "Portugal"), "Porto", "ff-p8");
  // A parent chain that loops (only a hostile archive has one) ends with no base folder, unless the
  // loop passes one; a parent field holding something that is not an item is no parent.
  auto a = folder("A", "a", nullptr, 1), b = folder("B", "b", nullptr, 1), lead_in = leaf("x", "x", kTags, 1);
  a->parent = Ref<Object>(b);
  b->parent = Ref<Object>(a);
  lead_in->parent = Ref<Object>(a);
  auto looping_base = folder(kLocations, kLocations, str(kLocations), 0), c = folder("C", "c", nullptr, 1);
  looping_base->parent = Ref<Object>(c);
  c->parent = Ref<Object>(looping_base);
  auto odd = leaf("odd", "odd", kTags, 1);
  odd->parent = str(kTags);
  const std::tuple<const char*, Ref<OutlineFolderItem>, OutlineFolderItem*> cases[] = {
      {"leaf in the tags folder", Ref(tags->childItems()[0]), tags.get()},
      {"leaf two sub-folders deep in albums", porto, albums.get()},
      {"base folder", tags, nullptr},
      {"root", root, nullptr},
      {"item without parent", leaf("alone", "favtag-alone", kTags, 1), nullptr},
      {"parent chain that loops", lead_in, nullptr},
      {"loop through a base folder", c, looping_base.get()},
      {"loop back to the base folder itself", looping_base, looping_base.get()},
      {"parent that is not an item", odd, nullptr},
  };
  for (const auto& [name, item, expected] : cases) EXPECT_EQ(item->rootItem(), expected) << name;
}

TEST(OutlineFolderItem, SortIndexIsTheFirstEqualPosition) {
  constexpr std::uint64_t kNotFound = 9223372036854775807ull;
  const std::tuple<const char*, Ref<Object>, Ref<Object>, std::uint64_t> cases[] = {
      {"twice in the list", str("b"), array({str("a"), str("b"), str("c"), str("b")}), 1},
      {"mutable strings compare by text", str("c"), array({mutable_str("a"), mutable_str("c")}), 1},
      {"missing", str("z"), array({str("a"), str("b")}), kNotFound},
      {"no list", str("a"), nullptr, kNotFound},
      {"not a list", str("a"), str("a"), kNotFound},
      {"no identifier", nullptr, array({str("a")}), kNotFound},
      {"number identifier", num(7), array({str("7"), num(7)}), 1},
  };
  for (const auto& [name, identifier, list, expected] : cases) {
    Ref<OutlineFolderItem> item = OutlineFolderItem::init();
    item->identifier = identifier;
    item->currentSortOrder = 42;
    item->calculateSortIndex(list.get());
    EXPECT_EQ(item->currentSortOrder, expected) << name;
  }
}

TEST(OutlineFolderItem, DescriptionNamesAddressTitleChildrenAndIdentifier) {
  Ref<OutlineFolderItem> tags = folder(kTags, kTags, str(kTags), 0);
  add_entry(*tags, "sunset", "favtag-sunset");
  add_entry(*tags, "sea", "favtag-sea");
  const std::string T(kTags);
  EXPECT_TRUE(std::regex_match(tags->description(),
                               std::regex("<OutlineFolderItem 0x[0-9a-f]+ '" + T + "' 2 children '" + T + "'>")))
      << tags->description();
  EXPECT_TRUE(std::regex_match(OutlineFolderItem::alloc()->description(),
                               std::regex("<OutlineFolderItem 0x[0-9a-f]+ '\\(null\\)' 0 children '\\(null\\)'>")));
  EXPECT_NE(tags->description(), folder(kTags, kTags, str(kTags), 0)->description());  // the address tells them apart

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
  EXPECT_TRUE(std::regex_match(top->description(), std::regex("<OutlineFolderItem 0x[0-9a-f]+ '<OutlineFolderItem: "
                                                              "0x[0-9a-f]+>' 0 children '<NSArray: 0x[0-9a-f]+>'>")))
      << top->description();
}

TEST(OutlineFolderItem, ArchivesEightKeysInOrderAndDecodesBackEveryFieldAndTheWholeTree) {
  Ref<OutlineFolderItem> root = stored_user_tree();
  OutlineFolderItem* sea = root->childItems()[2]->childItems()[1]->childItems()[0];
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

  // The parent is an object reference, not a conditional one: up through the parents to the root, each
  // as it was, and down again to the same object.
  Ref<OutlineFolderItem> back = decode_item(bytes);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->currentSortOrder, 0u);  // never archived
  const OutlineFolderItem* want = sea;
  for (const OutlineFolderItem* got = back.get(); want; got = got->parentItem(), want = want->parentItem()) {
    ASSERT_NE(got, nullptr) << want->identifierText();
    EXPECT_EQ(got->identifierText(), want->identifierText());
    EXPECT_EQ(summary(got), summary(want));
  }
  EXPECT_EQ(back->parentItem()->childItems()[0], back.get());
  EXPECT_EQ(back->rootItem()->identifierText(), kTags);

  // The decoded lists are the archive's mutable lists, open to change in place.
  Array* list = back->rootItem()->childList();
  ASSERT_TRUE(list && list->is_mutable());
  list->push_back(OutlineFolderItem::init());
  EXPECT_EQ(back->rootItem()->childCount(), 3u);
}

TEST(OutlineFolderItem, DecodingTakesWhateverTheArchiveHolds) {
  // Archives written by hand, with values of other kinds under the item's keys.
  auto item_archive = [](std::vector<GenericRecord::Field> fields) {
    auto r = make<GenericRecord>(std::vector<std::string>{"OutlineFolderItem", "NSObject"});
    r->mutable_fields() = std::move(fields);
    return archive_root(r.get());
  };
  auto child = make<GenericRecord>(std::vector<std::string>{"OutlineFolderItem", "NSObject"});  // no keys
  const std::pair<const char*, std::string> cases[] = {
      {"|(null)|--|0|(no parent)|fixed", item_archive({})},
      {"|(null)|--|0|(no parent)|fixed", item_archive({{"children", str("nope"), false}})},
      {"|(null)|--|0|(no parent)||fixed", item_archive({{"children", array({child}), false}})},  // stays immutable
      {"|(null)|--|0|(no parent)||mutable", item_archive({{"children", mutable_array({str("x"), child, num(3)}), false}})},
      // No title or type text, a folder of the largest level, a parent that is no item.
      {"||F-|18446744073709551615|(no item)|fixed",
       item_archive({{"title", num(12), false}, {"identifier", num(34), false}, {"parent", str("p"), false},
                     {"type", array(), false}, {"folder", num(1), true}, {"level", num(-1), true}})},
  };
  for (const auto& [expected, bytes] : cases) {
    Ref<OutlineFolderItem> back = decode_item(bytes);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(summary(back.get()), expected);
    EXPECT_EQ(back->hasChildren(), back->childCount() > 0);
  }
  Ref<OutlineFolderItem> mixed = decode_item(cases[3].second);
  EXPECT_EQ(mixed->childCount(), 3u);  // other objects count as children but are no items
  EXPECT_EQ(mixed->childItems().size(), 1u);
  Ref<OutlineFolderItem> odd = decode_item(cases[4].second);
  EXPECT_EQ(as_number(odd->title.get())->int_value(), 12);  // kept as it was
  EXPECT_EQ(odd->identifierText(), "");
}

}  // namespace
}  // namespace orvia
