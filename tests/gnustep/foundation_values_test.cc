// Foundation values and import results through GNUstep's keyed archiver and ours, both ways: every value
// kind, sharing, cycles, archives large enough for 2-byte object references, and the reply's records
// (the client tests' sample reply: node trees, accounts, media dictionaries), which our side builds and
// reads as GenericRecords and GNUstep through its copies of the client's classes. Sidebar trees are checked so in tests/outline.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "client/sample_reply.h"
#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "platform/value.h"
#include "support/gnustep_peer.h"

namespace orvia {
namespace {

using test::dump_like_gnustep;
using test::json_text;

Ref<Set> set_of(std::vector<Ref<Object>> items, bool is_mutable) {
  auto s = make<Set>(is_mutable);
  s->mutable_items() = std::move(items);
  return s;
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
      {"data", array({orvia::data(""), orvia::data(std::string("\x00\xff\x7f\x80", 4)), make<Data>("xy", true), make<Data>("", true)})},
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
      {"import results: records sharing one album tree", test::sample_results()},
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
    const std::string graph = json_text(dump_like_gnustep(c.value.get()));
    Result<nlohmann::json> theirs = test::decode_with_gnustep(archive_root(c.value.get()));
    ASSERT_TRUE(theirs.ok()) << theirs.error().message;
    EXPECT_EQ(json_text(*theirs), graph);
    if (!c.gnustep_can_write) continue;
    Result<std::string> bytes = test::encode_with_gnustep(dump_like_gnustep(c.value.get()));
    ASSERT_TRUE(bytes.ok()) << bytes.error().message;
    Result<Ref<Object>> ours = unarchive(*bytes, no_classes);
    ASSERT_TRUE(ours.ok()) << ours.error().message;
    EXPECT_EQ(json_text(dump_like_gnustep(ours->get())), graph);
    theirs = test::decode_with_gnustep(*bytes);
    ASSERT_TRUE(theirs.ok()) << theirs.error().message;
    EXPECT_EQ(json_text(*theirs), graph);
    // GNUstep stores dates in place in "$objects" (bplist marker 0x33), not as NSDate records: reading
    // its archives above met that form.
    if (std::string(c.name) == "dates") {
      Result<Ref<Object>> plist = read_property_list(*bytes);
      Array* objects = plist.ok() ? as_array(as_dict(plist->get())->get("$objects")) : nullptr;
      ASSERT_NE(objects, nullptr);
      EXPECT_TRUE(std::any_of(objects->items().begin(), objects->items().end(), [](const Ref<Object>& o) { return as_date(o.get()); }));
    }
  }
}

}  // namespace
}  // namespace orvia
