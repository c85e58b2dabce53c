// The sidebar: its items (base-folder search, sort positions, text, archived form), a user's folder
// model loaded from the old client's preferences file (trees written by our archiver and by GNUstep's,
// damaged, hostile and very large ones), its lookup table and queries, and the editing operations, which
// change the model in memory only.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <regex>

#include "outline/outline_folder_model.h"
#include "platform/description.h"
#include "platform/keyed_archive.h"
#include "platform/log.h"
#include "platform/plist.h"
#include "support/gnustep_peer.h"
#include "support/legacy_home.h"

namespace orvia {
namespace {

using test::add_base_folder;
using test::add_entry;
using test::add_folder;
using Lines = std::vector<std::string>;
const std::string kUser = "1234", F(kFolderFavFriendIdentifier), A(kFolderAlbumsIdentifier),
                         T(kFolderTagsIdentifier), L(kFolderLocationsIdentifier), S(kSharedAlbumsUserID);

// An item standing alone (no parent link, in no list); a leaf unless `type` is null.
Ref<OutlineFolderItem> folder(std::string_view title, std::string_view id, Ref<Object> type, std::uint64_t level,
                                     bool is_folder = true) {
  Ref<OutlineFolderItem> f = OutlineFolderItem::folderItemWithTitle(title, id);
  f->type = std::move(type);
  f->level = level;
  f->folder = is_folder;
  return f;
}
Ref<OutlineFolderItem> opened(Ref<OutlineFolderItem> f) {
  f->expanded = true;
  return f;
}

// Root > favourite friends > anna; albums (the user's own) > Old album; tags > sunset, Seaside > sea;
// locations (closed) > Lisbon. Every folder but locations is open.
Ref<OutlineFolderItem> stored_user_tree() {
  Ref<OutlineFolderItem> root = opened(test::sidebar_root());
  add_entry(*opened(add_base_folder(*root, F)), "anna", "fa-x-coredata://5E1F/Friend/p3");
  add_entry(*opened(add_base_folder(*root, A)), "Old album", "ff-x-coredata://5E1F/ImageList/p1");
  auto tags = opened(add_base_folder(*root, T));
  add_entry(*tags, "sunset", "favtag-sunset");
  add_entry(*opened(add_folder(*tags, "Seaside", "folder-7A")), "sea", "favtag-sea");
  add_entry(*add_base_folder(*root, L), "Lisbon", "location-2134");
  return root;
}
// The shared albums folder: Lisbon 2014 and Porto, one inside a sub-folder.
Ref<OutlineFolderItem> stored_shared_albums() {
  Ref<OutlineFolderItem> albums = opened(folder(A, A, str(A), 0));
  add_entry(*albums, "Lisbon 2014", "ff-x-coredata://5E1F/ImageList/p7");
  add_entry(*opened(add_folder(*albums, "Trips", "folder-9C")), "Porto", "ff-x-coredata://5E1F/ImageList/p8");
  return albums;
}
Ref<Data> archived(const Ref<OutlineFolderItem>& item) { return make<Data>(archive_root(item.get())); }
Ref<Dictionary> both_trees() {
  return dict({{kUser, archived(stored_user_tree())}, {S, archived(stored_shared_albums())}});
}

// A home folder holding the old client's preferences file with "OutlineFolderModels" = models.
class SidebarHome : public test::LegacyHome {
 public:
  explicit SidebarHome(Ref<Object> models = both_trees(), bool write = true) {
    if (models) set(kOutlineFolderModels, std::move(models));
    if (write) write_preferences();
  }
  Ref<OutlineFolderModel> load(std::string_view user = kUser) const {
    return OutlineFolderModel::initWithExistingUser(user, false, defaults());
  }
};

// Base folders by their short names, object URIs without store and scheme.
std::string shorten(std::string_view s) {
  static const std::regex base("com\\.brenvik\\.velmora\\.folder(\\w+?)Identifier"), uri("x-coredata://5E1F/");
  return std::regex_replace(std::regex_replace(std::string(s), base, "$1"), uri, "");
}

// "title|type|<F or -><E or ->|level|parent's identifier|each child's identifier|mutable or fixed"
// (a null type "(null)", a parent that is no item "(no item)", none "(no parent)").
std::string summary(const OutlineFolderItem* item) {
  std::string s = std::string(item->titleText()) + "|" + (item->type ? std::string(item->typeText()) : "(null)") +
                  "|" + (item->folder ? "F" : "-") + (item->expanded ? "E" : "-") + "|" + std::to_string(item->level) +
                  "|";
  if (const OutlineFolderItem* parent = item->parentItem()) s += parent->identifierText();
  else s += item->parent ? "(no item)" : "(no parent)";
  for (const OutlineFolderItem* child : item->childItems()) s += "|" + std::string(child->identifierText());
  return shorten(s + (item->childList() && item->childList()->is_mutable() ? "|mutable" : "|fixed"));
}

// A tree as one text, folders with their children in brackets: "root[Tags[favtag-sunset folder-7A[favtag-sea]]]";
// with `full`, every item as its summary.
std::string tree(const OutlineFolderItem* item, bool full = false) {
  std::string s = full ? summary(item) : shorten(std::string(item->identifierText()));
  if (!item->folder) return s;
  s += '[';
  for (const OutlineFolderItem* child : item->childItems()) s += (s.back() == '[' ? "" : " ") + tree(child, full);
  return s + ']';
}

// The lookup table as one text, sorted: identifiers (detail 0), "identifier=summary" (1), and the item's
// address too (2: two equal states hold the same items under the same keys).
std::string table(const OutlineFolderModel& model, int detail = 0) {
  std::vector<std::string> ids;
  if (model._folderMapping) {
    for (const auto& [key, item] : *model._folderMapping)
      ids.push_back(shorten(key) + (detail ? "=" + summary(item.get()) : "") + (detail > 1 ? item->description() : ""));
  }
  std::sort(ids.begin(), ids.end());
  std::string out;
  for (const std::string& id : ids) out += (out.empty() ? "" : " ") + id;
  return out;
}


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
  EXPECT_TRUE(std::regex_match(OutlineFolderItem::alloc()->description(),
                               std::regex(at + "'\\(null\\)' 0 children '\\(null\\)'>")));
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

const std::string kSharedTree = "Albums[ff-ImageList/p7 folder-9C[ff-ImageList/p8]]";
const std::string kUserTree =
    "root[FavFriend[fa-Friend/p3] Tags[favtag-sunset folder-7A[favtag-sea]] Locations[location-2134] ";
// The table of a new user: the root and the four base folders, empty, closed and unlinked, albums last.
const std::string kNewUser =
    "Albums=Albums|Albums|F-|0|(no parent)|mutable FavFriend=FavFriend|FavFriend|F-|0|(no parent)|mutable "
    "Locations=Locations|Locations|F-|0|(no parent)|mutable Tags=Tags|Tags|F-|0|(no parent)|mutable "
    "root=Root|(null)|F-|0|(no parent)|FavFriend|Tags|Locations|Albums|mutable";

TEST(OutlineFolderModelLoad, UsersWithoutReadableStoredTreeGetFourEmptyBaseFoldersSilently) {
  auto expect_new_user = [](const SidebarHome& home, const std::string& name) {
    LogCapture log;
    Ref<OutlineFolderModel> model = home.load();
    EXPECT_EQ(table(*model, 1), kNewUser) << name;
    EXPECT_EQ(model->rootItem(), model->itemForIdentifier("root").get());
    EXPECT_EQ(model->rootItem()->childItems().back(), model->_albumsItem.get());
    EXPECT_TRUE(model->_userDefaultsData && log.lines().empty()) << name;
  };
  // "OutlineFolderModels" absent, empty, with another user's tree only, or not a dictionary.
  for (Ref<Object> models : {Ref<Object>(), Ref<Object>(dict()), Ref<Object>(dict({{"999", archived(stored_user_tree())}})),
                             Ref<Object>(str("x")), Ref<Object>(array({archived(stored_user_tree())})),
                             Ref<Object>(archived(stored_user_tree()))})
    expect_new_user(SidebarHome(models), description(models.get()).substr(0, 40));
  SidebarHome none(nullptr, false), broken(nullptr, false);
  expect_new_user(none, "no preferences file");
  std::filesystem::create_directories(broken.preferences_file().parent_path());
  test::write_file(broken.preferences_file(), "bplist00 but not really");
  expect_new_user(broken, "a preferences file that is no property list");
  // A model without user stays empty.
  LogCapture log;
  for (Ref<OutlineFolderModel> m :
       {OutlineFolderModel::init(), OutlineFolderModel::initWithExistingUser(Ref<Object>(), false, nullptr)}) {
    m->reassignUserData();
    EXPECT_FALSE(m->rootItem() || m->identifiers() || m->itemForIdentifier("root") || m->expandedFolders() ||
                 m->folderStructureForMainIdentifier("root"));
    EXPECT_EQ(m->folderSignature(), "");
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(OutlineFolderModelLoad, StoredTreeTakesTheSharedAlbumsFolderInsteadOfItsOwnAndThePseudoUserASecondCopy) {
  SidebarHome home;
  LogCapture log;
  Ref<OutlineFolderModel> model = home.load();
  // Items come back as stored (the shared folder's parent link too: none); the user's own albums
  // folder and its album (p1) are gone from the tree and from the table.
  Ref<OutlineFolderItem> expected = stored_user_tree();
  expected->childList()->mutable_items().erase(expected->childList()->mutable_items().begin() + 1);
  expected->childList()->push_back(stored_shared_albums());
  EXPECT_EQ(tree(model->rootItem(), true), tree(expected.get(), true));
  EXPECT_EQ(table(*model), "Albums FavFriend Locations Tags fa-Friend/p3 favtag-sea favtag-sunset ff-ImageList/p7 "
                           "ff-ImageList/p8 folder-7A folder-9C location-2134 root");
  EXPECT_EQ(model->rootItem()->childItems().back(), model->_albumsItem.get());
  EXPECT_TRUE(log.lines().empty());
  // A second load for the same user changes nothing.
  const std::string state = table(*model, 2);
  OutlineFolderItem* root = model->rootItem();
  model->reassignUserData();
  EXPECT_EQ(model->rootItem(), root);
  EXPECT_EQ(table(*model, 2), state);
  EXPECT_EQ(root->childCount(), 4u);

  // Only the first stored albums folder is dropped: a second one stays, and the shared one is new.
  Ref<OutlineFolderItem> two = stored_user_tree();
  add_entry(*add_base_folder(*two, A), "Kept", "ff-kept");
  model = SidebarHome(dict({{kUser, archived(two)}})).load();
  EXPECT_EQ(tree(model->rootItem()), kUserTree + "Albums[ff-kept] Albums[]]");
  EXPECT_EQ(model->itemForIdentifier(A), model->_albumsItem);  // the walk enters the shared one last

  // The shared albums pseudo-user holds a second copy.
  model = home.load(S);
  // The first copy is the root; the second copy is its last child and is what the table holds.
  OutlineFolderItem *first = model->rootItem(), *second = model->_albumsItem.get();
  EXPECT_EQ(tree(first), "Albums[ff-ImageList/p7 folder-9C[ff-ImageList/p8] " + kSharedTree + "]");
  EXPECT_TRUE(second != first && first->childItems().back() == second);
  EXPECT_EQ(model->itemForIdentifier(A).get(), second);
  EXPECT_EQ(model->itemForIdentifier("ff-x-coredata://5E1F/ImageList/p8")->parentItem(), second->childItems()[1]);
  EXPECT_EQ(table(*model), "Albums ff-ImageList/p7 ff-ImageList/p8 folder-9C");
  // Without a shared entry the pseudo-user gets the tree of a new user.
  EXPECT_EQ(table(*SidebarHome(dict({{kUser, archived(stored_user_tree())}})).load(S), 1), kNewUser);
}

TEST(OutlineFolderModelLoad, DamagedEntriesFallBackWithOneLogLine) {
  const Ref<Object> bad_entries[] = {
      str("not an archive"), data("garbage"), make<Data>(archive_root(str("Root").get())),
      make<Data>(archive_root(make<GenericRecord>(std::vector<std::string>{"OtherItem", "NSObject"}).get())),
      make<Data>(archive_root(stored_user_tree().get()).substr(0, 200)),  // truncated
  };
  for (const Ref<Object>& bad : bad_entries) {
    for (bool user_entry : {true, false}) {
      SCOPED_TRACE(std::to_string(&bad - bad_entries) + (user_entry ? " as the user's" : " as the shared"));
      SidebarHome home(dict({{kUser, user_entry ? bad : Ref<Object>(archived(stored_user_tree()))},
                             {S, user_entry ? Ref<Object>(archived(stored_shared_albums())) : bad}}));
      LogCapture log;
      Ref<OutlineFolderModel> model = home.load();
      EXPECT_EQ(log.lines(), Lines{"undecodable folder structure for " + (user_entry ? kUser : S)});
      // The other entry still loads; the shared folder that did not is a new, empty one.
      EXPECT_EQ(tree(model->rootItem()), user_entry ? "root[FavFriend[] Tags[] Locations[] " + kSharedTree + "]"
                                                     : kUserTree + "Albums[]]");
      EXPECT_EQ(model->itemForIdentifier(A), model->_albumsItem);
    }
  }
}

TEST(OutlineFolderModelQueries, FolderStructureExpandedFoldersAndSignature) {
  Ref<OutlineFolderItem> root = stored_user_tree();
  auto deep = opened(add_folder(*root->childItems()[2]->childItems()[1], "Deeper", "folder-8B"));
  add_folder(*deep, "Closed", "folder-9D");
  opened(add_entry(*deep, "open leaf", "favtag-open"));
  Ref<OutlineFolderModel> model = SidebarHome(dict({{kUser, archived(root)}})).load();
  // Folder structures: only of folders with content, the item's archive (with its parents, see above).
  for (std::string_view none : {std::string_view(A), std::string_view("favtag-sea"), std::string_view("no such item")})
    EXPECT_EQ(model->folderStructureForMainIdentifier(none), nullptr) << none;
  Ref<Data> bytes = model->folderStructureForMainIdentifier("folder-7A");
  EXPECT_EQ(bytes ? bytes->bytes() : "", archive_root(model->itemForIdentifier("folder-7A").get()));
  // Expanded folders: open folders only (not the closed ones, not the open leaf), shallowest first.
  Ref<Array> open = model->expandedFolders();
  ASSERT_TRUE(open && !open->is_mutable());
  std::vector<std::string> ids;
  for (const Ref<Object>& o : open->items()) {
    const OutlineFolderItem* item = OutlineFolderItem::as_item(o.get());
    ids.push_back(std::to_string(item->level) + " " + shorten(item->identifierText()));
  }
  EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end(), [](auto& a, auto& b) { return a[0] < b[0]; }));
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(ids, (Lines{"0 FavFriend", "0 Tags", "0 root", "1 folder-7A", "2 folder-8B"}));
  // The signature joins every entry in table order.
  model->_folderMapping =
      OutlineFolderMapping{{"x", model->itemForIdentifier("folder-7A")}, {"y", model->itemForIdentifier(A)}};
  const std::string sig = model->folderSignature(), a = "folder-7A.Seaside.2", b = A + "." + A + ".0";
  EXPECT_TRUE(sig == a + b || sig == b + a) << sig;
}

// The walk as the old client wrote it: recursive, pre-order, later visits replace earlier ones.
void reference_walk(std::map<std::string, OutlineFolderItem*>& table, OutlineFolderItem* item) {
  if (const String* id = as_string(item->identifier.get())) table[id->str()] = item;
  for (OutlineFolderItem* child : item->childItems()) reference_walk(table, child);
}

TEST(RecurFolderMapping, MatchesThePlainWalkOnTreesThatShareSubTrees) {
  // Random graphs without loops in which items appear in several lists and identifiers repeat: the
  // iterative walk must leave the same table as the recursive one, which visits shared items again.
  std::mt19937 rng(20140106);
  for (int round = 0; round < 300; ++round) {
    const int n = 2 + static_cast<int>(rng() % 24);
    std::vector<Ref<OutlineFolderItem>> items;
    for (int i = 0; i < n; ++i) {
      items.push_back(OutlineFolderItem::init());
      if (rng() % 8 != 0) items.back()->identifier = str("id" + std::to_string(rng() % 6));
    }
    for (int i = 0; i + 1 < n; ++i) {  // edges only from lower to higher index
      for (int e = static_cast<int>(rng() % 4); e > 0; --e)
        items[i]->childList()->push_back(items[i + 1 + static_cast<int>(rng() % static_cast<unsigned>(n - i - 1))]);
    }
    std::map<std::string, OutlineFolderItem*> expected{{"id1", items.back().get()}, {"pre", items[0].get()}}, got;
    OutlineFolderMapping table{{"id1", items.back()}, {"pre", items[0]}};  // entries from before stay or give way
    reference_walk(expected, items[0].get());
    recurFolderMapping(table, items[0].get());
    for (const auto& [key, item] : table) got[key] = item.get();
    EXPECT_EQ(got, expected) << "round " << round;
  }
}

TEST(OutlineFolderModelLoad, LoopingChildrenEndAndHundredThousandLevelsLoad) {
  // Hostile archives: a root that lists itself, and two folders that list each other.
  Ref<OutlineFolderItem> root = test::sidebar_root();
  root->childList()->push_back(root);
  auto a = add_folder(*root, "A", "a"), b = add_folder(*a, "B", "b");
  b->childList()->push_back(a);
  add_entry(*b, "leaf", "leaf");
  Ref<OutlineFolderModel> model = SidebarHome(dict({{kUser, archived(root)}})).load();
  EXPECT_EQ(table(*model), "Albums a b leaf root");
  EXPECT_EQ(model->itemForIdentifier("b")->childItems()[0], model->itemForIdentifier("a").get());
  model->regenerateMapping();
  EXPECT_EQ(table(*model), "Albums a b leaf root");
  EXPECT_NE(model->folderSignature(), "");

  constexpr int kDepth = 100000;
  root = test::sidebar_root();
  Ref<OutlineFolderItem> at = opened(add_base_folder(*root, T));
  for (int i = 1; i <= kDepth; ++i) at = opened(add_folder(*at, "f", "folder-" + std::to_string(i)));
  add_entry(*at, "bottom", "favtag-bottom");
  model = SidebarHome(dict({{kUser, archived(root)}})).load();
  root = at = nullptr;
  Ref<OutlineFolderItem> bottom = model->itemForIdentifier("favtag-bottom");
  ASSERT_NE(bottom, nullptr);
  EXPECT_EQ(bottom->level, kDepth + 1u);
  EXPECT_EQ(bottom->rootItem(), model->itemForIdentifier(T).get());
  EXPECT_EQ(model->expandedFolders()->size(), kDepth + 1u);  // tags and every sub-folder
  model->regenerateMapping();
  EXPECT_EQ(model->identifiers()->size(), kDepth + 4u);
  EXPECT_NE(model->folderStructureForMainIdentifier("folder-99999"), nullptr);
}

int g_watchers_alive = 0;
// A record that counts itself, hung into a tree to see when the tree is freed.
struct Watcher final : Record {
  static constexpr std::string_view kChain[] = {"Watcher", "NSObject"};
  Watcher() { ++g_watchers_alive; }
  ~Watcher() override { --g_watchers_alive; }
  std::span<const std::string_view> class_chain() const override { return kChain; }
  void encode_with_coder(KeyedEncoder&) const override {}
  void init_with_coder(KeyedDecoder&) override {}
};

TEST(OutlineFolderModelLifetime, TheRequestHeapFreesModelAndTrees) {
  SidebarHome home;
  g_watchers_alive = 0;
  {
    Heap request;
    HeapScope scope(request);
    Ref<OutlineFolderModel> model = home.load(), pseudo = home.load(S);
    model->itemForIdentifier("favtag-sea")->title = make<Watcher>();
    model->itemForIdentifier("ff-x-coredata://5E1F/ImageList/p8")->title = make<Watcher>();
    pseudo->rootItem()->title = make<Watcher>();
    model = pseudo = nullptr;
    // Parents and children hold each other: dropping the models frees nothing yet.
    EXPECT_EQ(g_watchers_alive, 3);
    EXPECT_GT(request.tracked_count(), 0u);
  }
  EXPECT_EQ(g_watchers_alive, 0);
}

// ---- editing

class FolderEditing : public testing::Test {
 protected:
  Ref<OutlineFolderItem> item(std::string_view id) const { return model_->itemForIdentifier(id); }
  std::string tree_of(std::string_view id, bool full = false) const { return tree(item(id).get(), full); }

  SidebarHome home_;
  Ref<OutlineFolderModel> model_ = home_.load();
};

TEST_F(FolderEditing, NewFoldersAndEntriesTakeTheirParentsCategoryAndLevelAndEntriesNeedATitle) {
  model_->newFolderInFolder(item(T).get(), str("Beaches"), str("folder-B1"));
  model_->newFolderInFolder(item("folder-B1").get(), str("Sand"), str("folder-B2"));
  model_->addItemWithTitle(str("waves"), str("favtag-waves"), item("folder-7A").get());
  for (Ref<Object> title : {Ref<Object>(), Ref<Object>(str("")), Ref<Object>(mutable_str(""))})
    model_->addItemWithTitle(title, str("favtag-untitled"), item("folder-7A").get());
  EXPECT_EQ(tree_of(T, true), "Tags|Tags|FE|0|root|favtag-sunset|folder-7A|folder-B1|mutable["
            "sunset|Tags|--|1|Tags|mutable Seaside|Tags|FE|1|Tags|favtag-sea|favtag-waves|mutable["
            "sea|Tags|--|2|folder-7A|mutable waves|Tags|--|2|folder-7A|mutable] "
            "Beaches|Tags|FE|1|Tags|folder-B2|mutable[Sand|Tags|FE|2|folder-B1|mutable[]]]");
  EXPECT_EQ(table(*model_).find("untitled"), std::string::npos);
  EXPECT_EQ(item("folder-B2")->rootItem(), item(T).get());
}

TEST_F(FolderEditing, MovingRemovingAndCleaningUp) {
  Ref<OutlineFolderItem> seaside = item("folder-7A"), sea = item("favtag-sea");
  // A sub-folder changes folder, category and level; its content keeps both.
  model_->moveItem(seaside.get(), item(T).get(), item(L).get());
  EXPECT_EQ(tree_of(L, true), "Locations|Locations|F-|0|root|location-2134|folder-7A|mutable[Lisbon|Locations|--|1|"
                              "Locations|mutable Seaside|Locations|FE|1|Locations|favtag-sea|mutable["
                              "sea|Tags|--|2|folder-7A|mutable]]");
  model_->moveItem(item("favtag-sunset").get(), nullptr, item(F).get());  // no folder to leave: in both lists
  EXPECT_EQ(item("favtag-sunset")->typeText(), F);
  // No folder to join: detached, in no list, without category, level 1.
  model_->moveItem(sea.get(), seaside.get(), nullptr);
  EXPECT_EQ(summary(sea.get()), "sea|(null)|--|1|(no parent)|mutable");
  // An item without title, or none, is not moved.
  item("location-2134")->title = str("");
  model_->moveItem(item("location-2134").get(), item(L).get(), item(F).get());
  model_->moveItem(nullptr, item(T).get(), item(F).get());
  EXPECT_EQ(tree(model_->rootItem()), "root[FavFriend[fa-Friend/p3 favtag-sunset] Tags[favtag-sunset] Locations["
                                      "location-2134 folder-7A[]] " + kSharedTree + "]");

  // Removing a folder takes out only its own entry; an item without parent is in no list, its entry still goes.
  model_->removeItemFromFolder(seaside.get());
  EXPECT_TRUE(seaside->parent == nullptr && item("folder-7A") == nullptr);
  model_->removeItemFromFolder(seaside.get());
  model_->removeItemFromFolder(nullptr);
  EXPECT_EQ(item("favtag-sea"), sea);
  model_->removeItemFromFolder(sea.get());
  EXPECT_EQ(item("favtag-sea"), nullptr);
  EXPECT_EQ(tree(model_->rootItem()), "root[FavFriend[fa-Friend/p3 favtag-sunset] Tags[favtag-sunset] "
                                      "Locations[location-2134] " + kSharedTree + "]");
}

TEST_F(FolderEditing, CleanupRemovesLeavesThatAreNotKept) {
  const std::string state = table(*model_, 2);
  model_->cleanupWithIdentifiers(array({str("fa-x-coredata://5E1F/Friend/p3"), str("favtag-sunset"), str("favtag-sea"),
                                        str("location-2134"), str("ff-x-coredata://5E1F/ImageList/p7"),
                                        str("ff-x-coredata://5E1F/ImageList/p8")}).get());
  EXPECT_EQ(table(*model_, 2), state);
  model_->cleanupWithIdentifiers(array({str("favtag-sea")}).get());
  EXPECT_EQ(tree(model_->rootItem()), "root[FavFriend[] Tags[folder-7A[favtag-sea]] Locations[] Albums[folder-9C[]]]");
  EXPECT_EQ(table(*model_), "Albums FavFriend Locations Tags favtag-sea folder-7A folder-9C root");
  model_->cleanupWithIdentifiers(array().get());
  EXPECT_EQ(table(*model_), "Albums FavFriend Locations Tags folder-7A folder-9C root");
}

TEST_F(FolderEditing, ResettingABaseFolderReplacesItInPlace) {
  Ref<OutlineFolderItem> old_tags = item(T), shared = model_->_albumsItem;
  model_->resetBaseFoldersForKey(T);
  model_->resetBaseFoldersForKey(A);
  EXPECT_EQ(tree(model_->rootItem(), true), "Root|(null)|FE|0|(no parent)|FavFriend|Tags|Locations|Albums|mutable["
            "FavFriend|FavFriend|FE|0|root|fa-Friend/p3|mutable[anna|FavFriend|--|1|FavFriend|mutable] "
            "Tags|Tags|F-|0|(no parent)|mutable[] Locations|Locations|F-|0|root|location-2134|mutable[Lisbon|Locations|"
            "--|1|Locations|mutable] Albums|Albums|F-|0|(no parent)|mutable[]]");
  EXPECT_TRUE(item(T) != old_tags && item("favtag-sea") != nullptr);  // the old content's entries stay
  // The albums folder: _albumsItem stays the replaced folder and is emptied.
  EXPECT_TRUE(model_->_albumsItem == shared && !shared->hasChildren() && item(A) != shared);
  EXPECT_EQ(model_->rootItem()->childItems()[3], item(A).get());
  // A key no base folder carries changes nothing.
  const std::string state = table(*model_, 2);
  model_->resetBaseFoldersForKey("com.brenvik.velmora.folderUnknownIdentifier");
  EXPECT_EQ(table(*model_, 2), state);
}

TEST_F(FolderEditing, ImportedStructureAppendsTheSubFoldersChildrenAndLeavesOutUntitledOnes) {
  model_->addItemWithTitle(str("waves"), str("favtag-waves"), item("folder-7A").get());
  model_->newFolderInFolder(item("folder-7A").get(), str("Cliffs"), str("folder-C1"));
  model_->addItemWithTitle(str("rock"), str("favtag-rock"), item("folder-C1").get());
  Ref<Data> structure = model_->folderStructureForMainIdentifier("folder-7A");
  // Another user's model takes in copies; their content enters the table too.
  Ref<OutlineFolderModel> target = SidebarHome(nullptr).load("5678");
  target->importFolderStructure(structure.get(), L);
  EXPECT_EQ(tree(target->itemForIdentifier(L).get(), true),
            "Locations|Locations|F-|0|(no parent)|favtag-sea|favtag-waves|folder-C1|mutable[sea|Locations|--|1|"
            "Locations|mutable waves|Locations|--|1|Locations|mutable Cliffs|Locations|FE|1|Locations|favtag-rock|"
            "mutable[rock|Tags|--|3|folder-C1|mutable]]");
  EXPECT_EQ(table(*target), "Albums FavFriend Locations Tags favtag-rock favtag-sea favtag-waves folder-C1 root");
  EXPECT_EQ(target->itemForIdentifier("favtag-rock")->parentItem(), target->itemForIdentifier("folder-C1").get());
  EXPECT_NE(target->itemForIdentifier("favtag-rock"), item("favtag-rock"));
  EXPECT_EQ(tree_of("folder-7A"), "folder-7A[favtag-sea favtag-waves folder-C1[favtag-rock]]");  // untouched

  Ref<OutlineFolderItem> box = opened(folder("Box", "folder-box", str(T), 1));
  add_entry(*box, "one", "favtag-one");
  add_entry(*box, "", "favtag-empty-title");
  add_entry(*box, "x", "favtag-no-title")->title = nullptr;
  add_entry(*box, "two", "favtag-two");
  model_->importFolderStructure(archived(box).get(), F);
  EXPECT_EQ(tree_of(F), "FavFriend[fa-Friend/p3 favtag-one favtag-two]");
  // Nothing but an archive of an item, and no folder under the receiving identifier: nothing taken in.
  const std::string state = table(*model_, 2);
  for (Ref<Object> archive : {Ref<Object>(), Ref<Object>(Null::shared()), Ref<Object>(str("folder")),
                              Ref<Object>(data("garbage")), Ref<Object>(make<Data>(archive_root(str("x").get()))),
                              Ref<Object>(archived(box))})
    model_->importFolderStructure(archive.get(), archive && as_data(archive.get()) ? "no such folder" : F);
  EXPECT_EQ(table(*model_, 2), state);
}

TEST_F(FolderEditing, RenamingFoldersAndIdentifiers) {
  Ref<OutlineFolderItem> seaside = item("folder-7A");
  model_->renameFolder(seaside.get(), str("Coast"));
  model_->updateIdentifier("folder-7A", "folder-coast");
  EXPECT_TRUE(item("folder-7A") == nullptr && item("folder-coast") == seaside);
  EXPECT_EQ(summary(seaside.get()), "Coast|Tags|FE|1|Tags|favtag-sea|mutable");
  EXPECT_EQ(seaside->identifierText(), "folder-coast");
  // A base folder renamed this way leaves its items' category as it was, and is no base folder any more.
  model_->updateIdentifier(T, "com.brenvik.velmora.folderTagsIdentifier2");
  EXPECT_EQ(item(T), nullptr);
  EXPECT_EQ(item("favtag-sunset")->typeText(), T);
  EXPECT_EQ(item("favtag-sunset")->rootItem(), nullptr);
  const std::string state = table(*model_, 2);
  model_->updateIdentifier("no such item", "anything");
  EXPECT_EQ(table(*model_, 2), state);
  // In the albums pseudo-user both copies of the albums folder are renamed.
  Ref<OutlineFolderModel> pseudo = home_.load(S);
  pseudo->renameFolder(pseudo->rootItem(), str("All albums"));
  EXPECT_EQ(pseudo->rootItem()->titleText(), "All albums");
  EXPECT_EQ(pseudo->_albumsItem->titleText(), "All albums");
}

TEST_F(FolderEditing, TheStoredFormIsComposedOnlyOnRequestAndNoOperationTouchesThePreferences) {
  const std::string defaults_bytes = *write_binary_plist(model_->_userDefaultsData.get());
  model_->addItemWithTitle(str("waves"), str("favtag-waves"), item(T).get());
  Ref<Dictionary> stored = model_->storedFolderModels();
  EXPECT_EQ(stored->size(), 2u);
  EXPECT_EQ(as_data(stored->get(kUser))->bytes(), archive_root(model_->rootItem()));
  EXPECT_EQ(as_data(stored->get(S))->bytes(), archive_root(model_->_albumsItem.get()));
  EXPECT_EQ(*write_binary_plist(model_->_userDefaultsData.get()), defaults_bytes);

  const test::TreeSnapshot before = test::snapshot_tree(home_.path());
  const std::string file_bytes = test::read_file(home_.preferences_file());
  for (std::string_view user : {std::string_view(kUser), std::string_view(S), std::string_view("new user")}) {
    Ref<OutlineFolderModel> m = home_.load(user);
    auto at = [&](std::string_view id) { return m->itemForIdentifier(id).get(); };
    LogCapture log;
    m->newFolderInFolder(at(T), str("N"), str("n"));
    m->addItemWithTitle(str("A"), str("a"), at(F));
    m->importFolderStructure(m->folderStructureForMainIdentifier("folder-7A").get(), F);
    m->moveItem(at("folder-7A"), at(T), at(L));
    m->renameFolder(at(T), str("Tags!"));
    m->removeItemFromFolder(at("favtag-sea"));
    m->cleanupWithIdentifiers(array().get());
    m->resetBaseFoldersForKey(T);
    m->resetBaseFoldersForKey(A);
    m->updateIdentifier(T, "tags2");
    m->flushFolderStructure();
    m->flush();
    EXPECT_TRUE(log.lines().empty()) << user;
    EXPECT_EQ(test::snapshot_tree(home_.path()), before) << user;
  }
  EXPECT_EQ(test::read_file(home_.preferences_file()), file_bytes);
}

using test::ArchiveFormat;

// A user tree with a few more entries, so that every kind of item shows.
Ref<OutlineFolderItem> richer_user_tree() {
  Ref<OutlineFolderItem> root = stored_user_tree();
  auto rocks = add_folder(*root->childItems()[2]->childItems()[1], "Rocks", "folder-R");
  for (int i = 0; i < 20; ++i) add_entry(*rocks, "rock " + std::to_string(i), "favtag-rock" + std::to_string(i));
  add_entry(*root->childItems()[3], "Ünïcödé ✓", "location-99");
  return root;
}

TEST(GnustepSidebar, TreesWrittenByGnustepLoadLikeOurOwnAndGnustepReadsOurFolderStructures) {
  ORVIA_REQUIRE_GNUSTEP();
  Ref<OutlineFolderItem> user = richer_user_tree(), shared = stored_shared_albums();
  SidebarHome ours(dict({{kUser, archived(user)}, {S, archived(shared)}}));
  Ref<OutlineFolderModel> model = ours.load();
  const std::string expected = table(*model, 1), expected_pseudo = table(*ours.load(S), 1);
  ASSERT_EQ(model->identifiers()->size(), 35u);
  for (ArchiveFormat format : {ArchiveFormat::Binary, ArchiveFormat::Xml}) {
    SCOPED_TRACE(format == ArchiveFormat::Xml ? "xml" : "binary");
    Result<std::string> user_bytes = test::encode_with_gnustep(test::dump_like_gnustep(user.get()), format),
                        shared_bytes = test::encode_with_gnustep(test::dump_like_gnustep(shared.get()), format);
    ASSERT_TRUE(user_bytes.ok() && shared_bytes.ok());
    SidebarHome theirs(dict({{kUser, make<Data>(*user_bytes)}, {S, make<Data>(*shared_bytes)}}));
    LogCapture log;
    Ref<OutlineFolderModel> loaded = theirs.load();
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(table(*loaded, 1), expected);
    EXPECT_EQ(table(*theirs.load(S), 1), expected_pseudo);  // the decoded lists mutable ones too
  }
  for (std::string_view id : {std::string_view("folder-R"), std::string_view(T), std::string_view(A)}) {
    Ref<Data> bytes = model->folderStructureForMainIdentifier(id);
    Result<nlohmann::json> theirs = test::decode_with_gnustep(bytes ? bytes->bytes() : "");
    ASSERT_TRUE(theirs.ok()) << theirs.error().message;
    // The whole connected tree, parents and shared objects included, as GNUstep sees it.
    EXPECT_EQ(test::json_text(*theirs), test::json_text(test::dump_like_gnustep(model->itemForIdentifier(id).get())));
  }
}

}  // namespace
}  // namespace orvia
