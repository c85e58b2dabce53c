// Sidebar trees (OutlineFolderItem, parent written in full) and import results (node trees, account,
// media dictionaries) through GNUstep's keyed archiver and its copies of the client's classes, both ways.
// Our side builds and reads them as GenericRecords, so these tests hold for any registered classes.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "platform/value.h"
#include "support/gnustep_peer.h"

namespace orvia {
namespace {

using nlohmann::json;
using test::dump_like_gnustep;
using test::ArchiveFormat;
using test::json_text;
using Field = GenericRecord::Field;

constexpr const char* kTags = "com.brenvik.velmora.folderTagsIdentifier";
constexpr const char* kAlbums = "com.brenvik.velmora.folderAlbumsIdentifier";

Field object_field(std::string key, Ref<Object> v) { return {std::move(key), std::move(v), false}; }
Field int_field(std::string key, std::int64_t v) { return {std::move(key), num(v), true}; }
Field bool_field(std::string key, bool v) { return {std::move(key), boolean(v), true}; }

Ref<GenericRecord> record(std::vector<std::string> chain, std::vector<Field> fields) {
  auto r = make<GenericRecord>(std::move(chain));
  r->mutable_fields() = std::move(fields);
  return r;
}

// --- sidebar ---

Ref<GenericRecord> outline_item(const char* title, const char* identifier, const char* type, bool folder,
                                std::int64_t level) {
  return record({"OutlineFolderItem", "NSObject"},
                {object_field("title", str(title)), object_field("identifier", str(identifier)),
                 object_field("parent", nullptr), object_field("children", mutable_array()),
                 object_field("type", type ? Ref<Object>(str(type)) : nullptr), bool_field("folder", folder),
                 bool_field("expanded", folder), int_field("level", level)});
}

void attach(GenericRecord* parent, const Ref<GenericRecord>& child) {
  for (Field& f : child->mutable_fields())
    if (f.key == "parent") f.value = Ref<Object>(parent);
  as_array(parent->get("children"))->push_back(child);
}

// Root > Tags > two tags; Root > Albums > Holidays > one album. Returns the album entry, from which
// the whole tree is reached through "parent".
Ref<GenericRecord> sidebar_tree() {
  auto root = outline_item("Root", "root", nullptr, true, 0);
  auto tags = outline_item(kTags, kTags, kTags, true, 0);
  auto albums = outline_item(kAlbums, kAlbums, kAlbums, true, 0);
  auto holidays = outline_item("Holidays", "folder-9C1E", kAlbums, true, 1);
  auto album = outline_item("Lisbon 2014", "ff-x-coredata://5E1F/ImageList/p7", kAlbums, false, 2);
  attach(root.get(), tags);
  attach(root.get(), albums);
  attach(tags.get(), outline_item("sunset", "favtag-sunset", kTags, false, 1));
  attach(tags.get(), outline_item("Über", "favtag-über", kTags, false, 1));
  attach(albums.get(), holidays);
  attach(holidays.get(), album);
  return album;
}

// --- import results ---

Ref<GenericRecord> node(const char* cls, const char* identifier, std::int64_t type, bool is_root,
                        std::vector<Field> own) {
  std::vector<Field> fields = {object_field("identifier", str(identifier)), int_field("type", type),
                               bool_field("ignore", false), bool_field("isRoot", is_root)};
  for (Field& f : own) fields.push_back(std::move(f));
  return record({cls, "MQImporterNode", "NSObject"}, std::move(fields));
}

Ref<GenericRecord> folder(const char* title, std::int64_t contents_type, bool is_root, std::vector<Ref<Object>> children) {
  auto list = mutable_array();
  for (auto& c : children) list->push_back(c);
  return node("MQImporterNodeFolder", title, 0, is_root,
              {object_field("title", str(title)), object_field("children", list), int_field("contentsType", contents_type)});
}

// A converted media record: integers, booleans, empty lists, and one user record under two keys.
Ref<Dictionary> media(const char* id) {
  auto user = mutable_dict({{"pk", str("4021")}, {"username", str("ana")}, {"full_name", str("Ana Sá")},
                            {"profile_pic_url", str("https://img.example/ana.jpg")}, {"is_private", boolean(false)}});
  auto candidates = array({mutable_dict({{"width", num(640)}, {"height", num(640)}, {"url", str("https://img.example/s.jpg")}}),
                           mutable_dict({{"width", num(320)}, {"height", num(320)}, {"url", str("https://img.example/l.jpg")}})});
  auto caption = mutable_dict({{"pk", str("17")}, {"text", str("Alfama ☀")}, {"type", num(1)},
                               {"created_at", num(1400000000)}, {"content_type", str("comment")},
                               {"user", user}, {"did_report_as_spam", boolean(false)}, {"media_id", str("123")}});
  return mutable_dict({{"taken_at", num(1400000000)}, {"id", str(id)}, {"pk", str("123")}, {"media_type", num(1)},
                       {"code", str("BAbCdEf")}, {"filter_type", num(0)},
                       {"image_versions2", mutable_dict({{"candidates", candidates}})},
                       {"original_width", num(640)}, {"user", user}, {"caption", caption},
                       {"like_count", num(12)}, {"has_liked", boolean(true)}, {"likers", mutable_array()},
                       {"comment_count", num(0)}, {"converted_from_orvia4", boolean(true)}});
}

// Two results of one run sharing the album tree, as the reply carries them.
Ref<Array> import_results() {
  auto albums = folder(kAlbums, 2, true,
                       {node("MQImporterNodeAlbum", "ff-x-coredata://5E1F/ImageList/p7", 2, false,
                             {object_field("albumName", str("Lisbon 2014")),
                              object_field("items", array({media("123_456"), media("124")}))})});
  auto tags = folder(kTags, 1, true,
                     {folder("Sky", 1, false,
                             {node("MQImporterNodeTag", "favtag-sunset", 1, false,
                                   {int_field("tagCount", 3), object_field("tagName", str("sunset"))})}),
                      node("MQImporterNodeLocation", "location-213", 3, false,
                           {object_field("latitude", real(38.7223)), object_field("longitude", real(-9.1393)),
                            object_field("name", str("Lisboa"))})});
  auto friends = folder("com.brenvik.velmora.folderFavFriendIdentifier", 4, true,
                        {node("MQImporterNodeFriend", "fa-x-coredata://5E1F/Friend/p3", 4, false,
                              {int_field("mediaCount", 5000000000LL), object_field("added", date(421000000.125)),
                               object_field("imageURL", str("https://img.example/bo.jpg")),
                               object_field("username", str("bo")), object_field("uid", str("99"))})});
  auto result = [&](const char* uid, Ref<Object> tag_tree, Ref<Object> friend_tree) {
    auto account = record({"MQImporterAccount", "NSObject"},
                          {object_field("uid", str(uid)), object_field("imageURL", nullptr), object_field("username", str("ana"))});
    auto stats = node("MQImporterNodeStatistics", "statistics", 6, true, {object_field("path", str(std::string("/home/a/") + uid + ".db"))});
    return record({"MQImporterNodeResult", "NSObject"},
                  {object_field("account", account), object_field("tags", tag_tree), object_field("locations", nullptr),
                   object_field("albums", albums), object_field("friends", friend_tree),
                   object_field("statistics", stats), bool_field("ignore", false)});
  };
  auto blocked = folder("Blocked", 5, true,
                        {node("MQImporterNodeBlacklist", "blocked-1", 5, false,
                              {object_field("uid", num(42)), object_field("username", str("spam"))})});
  return array({result("4021", tags, friends), result("77", blocked, nullptr)});
}

// The JSON form carries classes, kinds of numbers, mutable lists, sharing and cycles (an item's "parent"
// is a $ref to the folder that lists it), so one comparison checks them all.
struct Graph {
  const char* name;
  Ref<Object> (*make)();
  std::vector<ArchiveFormat> formats;  // of GNUstep's archives
};
const Graph kGraphs[] = {
    {"sidebar tree", [] { return Ref<Object>(sidebar_tree()); }, {ArchiveFormat::Binary, ArchiveFormat::Xml}},
    {"import results", [] { return Ref<Object>(import_results()); }, {ArchiveFormat::Binary}},
};

TEST(GnustepReadsOurArchives, SidebarTreeWithParentsInFullAndImportResultsSharingOneAlbumTree) {
  ORVIA_REQUIRE_GNUSTEP();
  for (const Graph& g : kGraphs) {
    SCOPED_TRACE(g.name);
    Ref<Object> graph = g.make();
    Result<json> theirs = test::decode_with_gnustep(archive_root(graph.get()));
    ASSERT_TRUE(theirs.ok()) << theirs.error().message;
    EXPECT_EQ(json_text(*theirs), json_text(dump_like_gnustep(graph.get())));
  }
}

TEST(WeReadGnustepArchives, SidebarTreeAndImportResultsAsGenericRecords) {
  ORVIA_REQUIRE_GNUSTEP();
  ClassRegistry no_classes;  // read as the generic records any unregistered class becomes
  for (const Graph& g : kGraphs) {
    json graph = dump_like_gnustep(g.make().get());
    for (ArchiveFormat format : g.formats) {
      SCOPED_TRACE(std::string(g.name) + (format == ArchiveFormat::Xml ? ", xml" : ", binary"));
      Result<std::string> bytes = test::encode_with_gnustep(graph, format);
      ASSERT_TRUE(bytes.ok()) << bytes.error().message;
      Result<Ref<Object>> ours = unarchive(*bytes, no_classes);
      ASSERT_TRUE(ours.ok()) << ours.error().message;
      EXPECT_EQ(json_text(dump_like_gnustep(ours->get())), json_text(graph));
      Result<json> theirs = test::decode_with_gnustep(*bytes);
      ASSERT_TRUE(theirs.ok()) << theirs.error().message;
      EXPECT_EQ(json_text(*theirs), json_text(graph));
    }
  }
}

TEST(WeReadGnustepArchives, GnustepWritesTheFriendsDateInPlace) {
  // So that reading the import results above meets a date stored in place in "$objects" (bplist marker
  // 0x33), not as an NSDate record.
  ORVIA_REQUIRE_GNUSTEP();
  Result<std::string> bytes = test::encode_with_gnustep(dump_like_gnustep(import_results().get()));
  ASSERT_TRUE(bytes.ok()) << bytes.error().message;
  Result<Ref<Object>> plist = read_property_list(*bytes);
  ASSERT_TRUE(plist.ok()) << plist.error().message;
  Array* objects = as_array(as_dict(plist->get())->get("$objects"));
  ASSERT_NE(objects, nullptr);
  EXPECT_TRUE(std::any_of(objects->items().begin(), objects->items().end(),
                          [](const Ref<Object>& o) { return as_date(o.get()) != nullptr; }));
}

}  // namespace
}  // namespace orvia
