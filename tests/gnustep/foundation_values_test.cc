// Foundation values through GNUstep's keyed archiver and ours, both ways: every value kind, sharing,
// cycles and archives large enough for 2-byte object references.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/value.h"
#include "support/gnustep_peer.h"

namespace orvia {
namespace {

using nlohmann::json;
using test::dump_like_gnustep;
using test::json_text;

struct ValueCase {
  const char* name;
  std::function<Ref<Object>()> make;
  bool gnustep_can_write = true;  // GNUstep's writer rejects NaN
};

Ref<Set> set_of(std::initializer_list<Ref<Object>> items, bool is_mutable) {
  auto s = make<Set>(is_mutable);
  for (const auto& i : items) s->mutable_items().push_back(i);
  return s;
}

Ref<Object> mutable_data(std::string_view bytes) { return make<Data>(std::string(bytes), true); }

std::vector<ValueCase> value_cases() {
  return {
      {"strings",
       [] {
         return array({str(""), str("plain"), str("naïve ✓ 日本語 𝄞 \"quoted\" \\ \n\t"), mutable_str("grows"),
                       mutable_str("")});
       }},
      {"integers",
       [] {
         return array({num(0), num(1), num(-1), num(255), num(256), num(65535), num(65536), num(-129),
                       num(2147483648LL), num(-2147483649LL), num(4294967296LL),
                       num(std::numeric_limits<std::int64_t>::max()),
                       num(std::numeric_limits<std::int64_t>::min())});
       }},
      {"reals",
       [] {
         return array({real(0.0), real(1.0), real(0.1), real(-2.5), real(1e300), real(5e-324),
                       real(std::numeric_limits<double>::infinity()),
                       real(-std::numeric_limits<double>::infinity()), real(3.141592653589793)});
       }},
      // Alone: GNUstep's binary writer stores equal numbers once, and -0.0 equals 0.0.
      {"negative zero", [] { return array({real(-0.0)}); }},
      {"nan", [] { return array({real(std::nan(""))}); }, false},
      {"booleans beside integers",
       [] { return array({boolean(true), boolean(false), num(1), num(0), real(1.0), boolean(true)}); }},
      {"dates",
       [] {
         return mutable_dict({{"epoch", date(0)},
                              {"before", date(-1.5)},
                              {"fraction", date(750000000.123456789)},
                              {"list", array({date(-978307200.0), date(1e9 + 0.25)})}});
       }},
      {"data",
       [] {
         return array({orvia::data(""), orvia::data(std::string("\x00\xff\x7f\x80", 4)), mutable_data("xy"), mutable_data("")});
       }},
      {"null", [] { return array({Null::shared(), Null::shared()}); }},
      {"empty containers",
       [] {
         return array({array(), mutable_array(), dict(), mutable_dict(), set_of({}, false), set_of({}, true)});
       }},
      {"nested containers",
       [] {
         return mutable_dict({{"list", mutable_array({num(1), dict({{"inner", array({str("x"), mutable_dict()})}})})},
                              {"n", Null::shared()},
                              {"deep", array({array({array({mutable_array({str("bottom")})})})})}});
       }},
      {"number keys",
       [] {
         auto d = make<Dictionary>(false);
         d->set(num(2), str("two"));
         d->set(num(1), str("one"));
         return Ref<Object>(d);
       }},
      {"sets", [] { return array({set_of({str("b"), str("a"), str("c")}, false), set_of({num(3), num(1)}, true)}); }},
      {"shared objects",
       [] {
         auto shared_dict = mutable_dict({{"k", str("v")}});
         auto shared_array = array({num(7)});
         auto shared_string = str("once");
         return array({shared_dict, shared_array, shared_dict, mutable_dict({{"again", shared_array}}),
                       shared_string, shared_string});
       }},
      {"array holding itself",
       [] {
         auto a = mutable_array({str("first")});
         a->push_back(a);
         auto frozen = array({str("frozen")});
         frozen->mutable_items().push_back(frozen);
         return array({a, frozen, a});
       }},
      {"dictionary reached from its own child",
       [] {
         auto parent = mutable_dict({{"name", str("parent")}});
         auto child = mutable_dict({{"name", str("child")}, {"parent", parent}});
         parent->set("child", child);
         return Ref<Object>(parent);
       }},
      {"1200 objects: 2-byte references",
       [] {
         auto a = mutable_array();
         for (int i = 0; i < 800; ++i) a->push_back(str("item " + std::to_string(i)));
         for (int i = 0; i < 400; ++i) a->push_back(mutable_dict({{"n", num(i * 1000)}}));
         return Ref<Object>(a);
       }},
  };
}

TEST(GnustepPeer, DumpOfOurGraphHasTheSharedJsonForm) {
  // Pins the form that every GNUstep comparison relies on: identity only for containers and records,
  // ids in first-visit order, sorted keys, tagged reals, dates, data and mutable leaves.
  auto root = mutable_array({str("s"), mutable_str("m"), num(-5), real(1.5), boolean(true), date(2.5),
                             data("\x01"), Null::shared()});
  auto d = mutable_dict({{"z", num(1)}, {"a", root}});
  auto rec = make<GenericRecord>(std::vector<std::string>{"Thing", "NSObject"});
  rec->mutable_fields() = {{"name", str("x"), false}, {"count", num(2), true}, {"flag", boolean(true), true}};
  rec->mutable_fields().push_back({"self", rec, false});
  auto numbered = make<Dictionary>(false);
  numbered->set(num(2), str("two"));
  numbered->set(num(1), str("one"));
  for (Ref<Object> o : {Ref<Object>(d), Ref<Object>(d), Ref<Object>(rec), Ref<Object>(set_of({str("b"), str("a")}, false)),
                        Ref<Object>(numbered)}) {
    root->push_back(o);
  }
  json expected = json::parse(R"({"$id": 1, "$class": "NSMutableArray", "$items": [
      "s", {"$mstring": "m"}, -5, {"$real": 1.5}, true, {"$date": 2.5}, {"$data": "01"}, {"$null": true},
      {"$id": 2, "$class": "NSMutableDictionary", "$entries": {"a": {"$ref": 1}, "z": 1}},
      {"$ref": 2},
      {"$id": 3, "$class": "Thing", "count": 2, "flag": true, "name": "x", "self": {"$ref": 3}},
      {"$id": 4, "$class": "NSSet", "$items": ["a", "b"]},
      {"$id": 5, "$class": "NSDictionary", "$pairs": [[1, "one"], [2, "two"]]}]})");
  EXPECT_EQ(json_text(dump_like_gnustep(root.get())), json_text(expected));
  EXPECT_EQ(dump_like_gnustep(nullptr), json(nullptr));
}

// GNUstep reads our archive of each case; GNUstep's own archive of it reads back alike, with us (as
// generic records) and with GNUstep.
TEST(GnustepPeer, EveryValueKindWithSharingAndCyclesBothWays) {
  ORVIA_REQUIRE_GNUSTEP();
  ClassRegistry no_classes;
  for (const ValueCase& c : value_cases()) {
    SCOPED_TRACE(c.name);
    Ref<Object> value = c.make();
    const json graph = dump_like_gnustep(value.get());
    Result<json> theirs = test::decode_with_gnustep(archive_root(value.get()));
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
  }
}

}  // namespace
}  // namespace orvia
