// The sidebar item: the base-folder search, sort positions, its text, and its archived form (class
// name, eight keys in order, parent written in full, whatever a damaged archive holds read back).
#include <gtest/gtest.h>

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

TEST(OutlineFolderItem, RootItemIsTheNearestBaseFolderAboveAndEndsOnLoops) {
  Ref<OutlineFolderItem> root = stored_user_tree();
  auto albums = Ref(root->childItems()[1]), tags = Ref(root->childItems()[2]);
  auto porto = add_entry(*add_folder(*add_folder(*albums, "Trips"), "Portugal"), "Porto", "ff-p8");
  // Parent chains that loop (only a hostile archive has one), and a parent field that is no item.
  auto a = folder("A", "a", nullptr, 1), b = folder("B", "b", nullptr, 1), lead_in = folder("x", "x", str(T), 1, false);
  auto base = folder(L, L, str(L), 0), c = folder("C", "c", nullptr, 1), odd = folder("o", "o", str(T), 1, false);
  auto link = [](const Ref<OutlineFolderItem>& child, const Ref<OutlineFolderItem>& parent) { child->parent = parent; };
  link(a, b), link(b, a), link(lead_in, a), link(base, c), link(c, base);
  odd->parent = str(T);
  const std::tuple<const char*, Ref<OutlineFolderItem>, OutlineFolderItem*> cases[] = {
      {"leaf in the tags folder", Ref(tags->childItems()[0]), tags.get()},
      {"leaf two sub-folders deep in albums", porto, albums.get()},
      {"base folder", tags, nullptr},
      {"item without parent", folder("alone", "favtag-alone", str(T), 1, false), nullptr},
      {"parent chain that loops", lead_in, nullptr},
      {"loop through a base folder", c, base.get()},
      {"loop back to the base folder itself", base, base.get()},
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
  Ref<OutlineFolderItem> tags = folder(T, T, str(T), 0);
  add_entry(*tags, "sunset", "favtag-sunset");
  add_entry(*tags, "sea", "favtag-sea");
  const std::string at = "<OutlineFolderItem 0x[0-9a-f]+ ";
  EXPECT_TRUE(std::regex_match(tags->description(), std::regex(at + "'" + T + "' 2 children '" + T + "'>")));
  EXPECT_TRUE(std::regex_match(OutlineFolderItem::alloc()->description(), std::regex(at + "'\\(null\\)' 0 children '\\(null\\)'>")));
  EXPECT_NE(tags->description(), folder(T, T, str(T), 0)->description());  // the address tells them apart
  // An item (or a list) as a title or identifier shows by its address form, so a chain of 100,000 items
  // nested through their titles describes without recursing.
  Ref<OutlineFolderItem> top = OutlineFolderItem::alloc(), cur = top;
  for (int i = 0; i < 100000; ++i, cur = Ref(OutlineFolderItem::as_item(cur->title.get()))) {
    cur->title = OutlineFolderItem::alloc();
    cur->identifier = array({cur->title});
  }
  EXPECT_TRUE(std::regex_match(top->description(), std::regex(at + "'<OutlineFolderItem: 0x[0-9a-f]+>' 0 children "
                                                                   "'<NSArray: 0x[0-9a-f]+>'>")));
}

TEST(OutlineFolderItem, ArchivesEightKeysInOrderAndDecodesTheWholeConnectedTree) {
  Ref<OutlineFolderItem> root = stored_user_tree();
  OutlineFolderItem* sea = root->childItems()[2]->childItems()[1]->childItems()[0];
  sea->currentSortOrder = 9;
  const std::string bytes = archive_root(sea);
  // Read back without our class: the generic record keeps the keys as archived.
  ClassRegistry no_classes;
  Result<Ref<Object>> generic = unarchive(bytes, no_classes);
  ASSERT_TRUE(generic.ok());
  auto* record = dynamic_cast<GenericRecord*>(generic->get());
  ASSERT_NE(record, nullptr);
  std::string keys = std::string(record->class_chain()[0]) + " " + std::string(record->class_chain()[1]);
  for (const auto& f : record->fields())
    keys += " " + f.key + (!as_number(f.value.get()) ? "" : as_number(f.value.get())->is_bool() ? ":bool" : ":int");
  EXPECT_EQ(keys, "OutlineFolderItem NSObject title identifier parent children type folder:bool expanded:bool level:int");
  // The parent is an object reference, not a conditional one: every item up to the root comes back.
  Ref<OutlineFolderItem> back = decode_item(bytes);
  ASSERT_TRUE(back && back->rootItem() && back->rootItem()->parentItem());
  EXPECT_EQ(back->currentSortOrder, 0u);  // never archived
  EXPECT_EQ(tree(back->rootItem()->parentItem(), true), tree(root.get(), true));
  EXPECT_EQ(back->parentItem()->childItems()[0], back.get());
  // The decoded lists are the archive's mutable lists, open to change in place.
  back->rootItem()->childList()->push_back(OutlineFolderItem::init());
  EXPECT_EQ(back->rootItem()->childCount(), 3u);
}

TEST(OutlineFolderItem, DecodingTakesWhateverTheArchiveHolds) {
  auto item_archive = [](std::vector<GenericRecord::Field> fields) {
    auto r = make<GenericRecord>(std::vector<std::string>{"OutlineFolderItem", "NSObject"});
    r->mutable_fields() = std::move(fields);
    return archive_root(r.get());
  };
  auto child = make<GenericRecord>(std::vector<std::string>{"OutlineFolderItem", "NSObject"});  // no keys
  const std::pair<const char*, std::string> cases[] = {
      {"|(null)|--|0|(no parent)|fixed 0", item_archive({})},
      {"|(null)|--|0|(no parent)|fixed 0", item_archive({{"children", str("nope"), false}})},
      {"|(null)|--|0|(no parent)||fixed 1", item_archive({{"children", array({child}), false}})},  // stays immutable
      // Other objects count as children but are no items.
      {"|(null)|--|0|(no parent)||mutable 3",
       item_archive({{"children", mutable_array({str("x"), child, num(3)}), false}})},
      // No title or type text, a folder of the largest level, a parent that is no item.
      {"||F-|18446744073709551615|(no item)|fixed 0",
       item_archive({{"title", num(12), false}, {"identifier", num(34), false}, {"parent", str("p"), false},
                     {"type", array(), false}, {"folder", num(1), true}, {"level", num(-1), true}})},
  };
  for (const auto& [expected, bytes] : cases) {
    Ref<OutlineFolderItem> back = decode_item(bytes);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(summary(back.get()) + " " + std::to_string(back->childCount()), expected);
    EXPECT_EQ(back->hasChildren(), back->childCount() > 0);
  }
  Ref<OutlineFolderItem> odd = decode_item(cases[4].second);
  EXPECT_EQ(as_number(odd->title.get())->int_value(), 12);  // kept as it was
}

}  // namespace
}  // namespace orvia
