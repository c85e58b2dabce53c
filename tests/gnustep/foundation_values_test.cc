// Foundation values and import results through GNUstep's keyed archiver and ours, both ways: every value
// kind, sharing, cycles, archives large enough for 2-byte object references, and the reply's records
// (node trees, account, media dictionaries), which our side builds and reads as GenericRecords and
// GNUstep through its copies of the client's classes. Sidebar trees are checked so in tests/outline.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
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
using test::json_text;
using Field = GenericRecord::Field;

Ref<Set> set_of(std::initializer_list<Ref<Object>> items, bool is_mutable) {
  auto s = make<Set>(is_mutable);
  for (const auto& i : items) s->mutable_items().push_back(i);
  return s;
}

Ref<Object> mutable_data(std::string_view bytes) { return make<Data>(std::string(bytes), true); }

Field object_field(std::string key, Ref<Object> v) { return {std::move(key), std::move(v), false}; }
Field int_field(std::string key, std::int64_t v) { return {std::move(key), num(v), true}; }
Field bool_field(std::string key, bool v) { return {std::move(key), boolean(v), true}; }

Ref<GenericRecord> record(std::vector<std::string> chain, std::vector<Field> fields) {
  auto r = make<GenericRecord>(std::move(chain));
  r->mutable_fields() = std::move(fields);
  return r;
}

Ref<GenericRecord> node(const char* cls, const char* identifier, std::int64_t type, bool is_root, std::vector<Field> own) {
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

// A converted media record: integers, booleans, an empty list, and one user record under two keys.
Ref<Dictionary> media(const char* id) {
  auto user = mutable_dict({{"pk", str("4021")}, {"full_name", str("Ana Sá")}, {"is_private", boolean(false)}});
  auto candidates = array({mutable_dict({{"width", num(640)}, {"url", str("https://img.example/s.jpg")}})});
  return mutable_dict({{"taken_at", num(1400000000)}, {"id", str(id)}, {"image_versions2", mutable_dict({{"candidates", candidates}})},
                       {"user", user}, {"caption", mutable_dict({{"text", str("Alfama ☀")}, {"user", user}})},
                       {"has_liked", boolean(true)}, {"likers", mutable_array()}});
}

// Two results of one run sharing the album tree, as the reply carries them.
Ref<Array> import_results() {
  auto albums = folder("com.brenvik.velmora.folderAlbumsIdentifier", 2, true,
                       {node("MQImporterNodeAlbum", "ff-x-coredata://5E1F/ImageList/p7", 2, false,
                             {object_field("albumName", str("Lisbon 2014")),
                              object_field("items", array({media("123_456"), media("124")}))})});
  auto tags = folder("com.brenvik.velmora.folderTagsIdentifier", 1, true,
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

struct ValueCase {
  const char* name;
  Ref<Object> value;
  bool gnustep_can_write = true;  // GNUstep's writer rejects NaN
};

std::vector<ValueCase> value_cases() {
  auto shared_dict = mutable_dict({{"k", str("v")}});
  auto shared_array = array({num(7)});
  auto shared_string = str("once");
  auto looped = mutable_array({str("first")});
  looped->push_back(looped);
  auto frozen = array({str("frozen")});
  frozen->mutable_items().push_back(frozen);
  auto parent = mutable_dict({{"name", str("parent")}});
  parent->set("child", mutable_dict({{"name", str("child")}, {"parent", parent}}));
  auto number_keys = make<Dictionary>(false);
  number_keys->set(num(2), str("two"));
  number_keys->set(num(1), str("one"));
  auto large = mutable_array();
  for (int i = 0; i < 800; ++i) large->push_back(str("item " + std::to_string(i)));
  for (int i = 0; i < 400; ++i) large->push_back(mutable_dict({{"n", num(i * 1000)}}));
  return {
      {"strings", array({str(""), str("plain"), str("naïve ✓ 日本語 𝄞 \"quoted\" \\ \n\t"), mutable_str("grows"), mutable_str("")})},
      {"integers", array({num(0), num(1), num(-1), num(255), num(256), num(65535), num(65536), num(-129), num(2147483648LL),
                          num(-2147483649LL), num(4294967296LL), num(std::numeric_limits<std::int64_t>::max()),
                          num(std::numeric_limits<std::int64_t>::min())})},
      {"reals", array({real(0.0), real(1.0), real(0.1), real(-2.5), real(1e300), real(5e-324), real(INFINITY), real(-INFINITY),
                       real(3.141592653589793)})},
      // Alone: GNUstep's binary writer stores equal numbers once, and -0.0 equals 0.0.
      {"negative zero", array({real(-0.0)})},
      {"nan", array({real(std::nan(""))}), false},
      {"booleans beside integers", array({boolean(true), boolean(false), num(1), num(0), real(1.0), boolean(true)})},
      {"dates", mutable_dict({{"epoch", date(0)}, {"before", date(-1.5)}, {"fraction", date(750000000.123456789)},
                              {"list", array({date(-978307200.0), date(1e9 + 0.25)})}})},
      {"data", array({orvia::data(""), orvia::data(std::string("\x00\xff\x7f\x80", 4)), mutable_data("xy"), mutable_data("")})},
      {"null and containers, empty and nested",
       mutable_dict({{"n", array({Null::shared(), Null::shared()})},
                     {"empty", array({array(), mutable_array(), dict(), mutable_dict(), set_of({}, false), set_of({}, true)})},
                     {"list", mutable_array({num(1), dict({{"inner", array({str("x"), mutable_dict()})}})})},
                     {"deep", array({array({array({mutable_array({str("bottom")})})})})}})},
      {"number keys", number_keys},
      {"sets", array({set_of({str("b"), str("a"), str("c")}, false), set_of({num(3), num(1)}, true)})},
      {"shared objects", array({shared_dict, shared_array, shared_dict, mutable_dict({{"again", shared_array}}),
                                shared_string, shared_string})},
      {"arrays holding themselves", array({looped, frozen, looped})},
      {"dictionary reached from its own child", parent},
      {"1200 objects: 2-byte references", large},
      {"import results: records sharing one album tree", import_results()},
  };
}

// GNUstep reads our archive of each case; GNUstep's own archive of it reads back alike, with us (as
// generic records) and with GNUstep. The JSON form carries classes, kinds of numbers, mutability,
// sharing and cycles, so one comparison checks them all.
TEST(GnustepPeer, EveryValueKindAndTheImportRecordsBothWays) {
  ORVIA_REQUIRE_GNUSTEP();
  ClassRegistry no_classes;
  for (const ValueCase& c : value_cases()) {
    SCOPED_TRACE(c.name);
    const json graph = dump_like_gnustep(c.value.get());
    Result<json> theirs = test::decode_with_gnustep(archive_root(c.value.get()));
    ASSERT_TRUE(theirs.ok()) << theirs.error().message;
    EXPECT_EQ(json_text(*theirs), json_text(graph));
    if (!c.gnustep_can_write) continue;
    Result<std::string> bytes = test::encode_with_gnustep(graph);
    ASSERT_TRUE(bytes.ok()) << bytes.error().message;
    Result<Ref<Object>> ours = unarchive(*bytes, no_classes);
    ASSERT_TRUE(ours.ok()) << ours.error().message;
    EXPECT_EQ(json_text(dump_like_gnustep(ours->get())), json_text(graph));
    theirs = test::decode_with_gnustep(*bytes);
    ASSERT_TRUE(theirs.ok()) << theirs.error().message;
    EXPECT_EQ(json_text(*theirs), json_text(graph));
    // GNUstep stores dates in place in "$objects" (bplist marker 0x33), not as NSDate records: reading
    // its archives above met that form.
    if (std::string(c.name) == "dates") {
      Result<Ref<Object>> plist = read_property_list(*bytes);
      ASSERT_TRUE(plist.ok()) << plist.error().message;
      Array* objects = as_array(as_dict(plist->get())->get("$objects"));
      ASSERT_NE(objects, nullptr);
      EXPECT_TRUE(std::any_of(objects->items().begin(), objects->items().end(), [](const Ref<Object>& o) { return as_date(o.get()); }));
    }
  }
}

}  // namespace
}  // namespace orvia
