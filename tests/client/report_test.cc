#include "client/report.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/keyed_archive.h"
#include "platform/value.h"
#include "sample_reply.h"

namespace orvia::client {
namespace {

using test::record;

std::string report(const Object* root, bool* ok = nullptr) {
  std::ostringstream out;
  bool r = write_import_report(out, root);
  if (ok) *ok = r;
  return out.str();
}

TEST(ImportReport, RefusesWhatIsNotAListOfResults) {
  bool ok = true;
  EXPECT_EQ(report(dict({{"a", num(1)}}).get(), &ok),
            "The archive does not hold a list of import results (its root is NSDictionary).\n");
  EXPECT_FALSE(ok);
  EXPECT_EQ(report(nullptr, &ok), "The archive does not hold a list of import results (its root is nil).\n");
  EXPECT_FALSE(ok);
  // A list of something else still prints, one line per item.
  EXPECT_EQ(report(array({str("x")}).get(), &ok), "Orvia 4 import: 1 account\n\nResult 1: not a record (NSString)\n");
  EXPECT_TRUE(ok);
}

TEST(ImportReport, CutsLoopsAndKeepsDeepTreesFlat) {
  // A folder that lists itself (a damaged archive) prints once and then as a reference.
  auto loop = test::folder("Loop", {}, 1);
  as_array(loop->get("children"))->push_back(loop);
  auto root = test::folder(nullptr, {loop}, 1, true);
  auto result = record({"MQImporterNodeResult", "NSObject"}, {{"tags", root}});
  std::string text = report(array({result}).get());
  EXPECT_NE(text.find("  tags: 1 folder, 0 entries\n    Loop/ (1 entry)\n      Loop/ (1 entry) (already shown)\n"),
            std::string::npos)
      << text;

  // 100,000 nested folders: no recursion, and indentation stops growing.
  constexpr int kDepth = 100'000;
  Ref<GenericRecord> inner = test::tag("deepest", 1);
  for (int i = 0; i < kDepth; ++i) inner = test::folder("f", {inner}, 1);
  auto deep = record({"MQImporterNodeResult", "NSObject"}, {{"tags", test::folder(nullptr, {inner}, 1, true)}});
  std::string deep_text = report(array({deep}).get());
  EXPECT_NE(deep_text.find("tags: 100000 folders, 1 tag\n"), std::string::npos);
  EXPECT_NE(deep_text.find("[100002] #deepest (count 1)\n"), std::string::npos);
  EXPECT_LT(deep_text.size(), std::size_t{kDepth} * 200);
}

TEST(Json, WritesEveryKindOfValue) {
  auto with_number_key = mutable_dict();
  with_number_key->append(num(7), str("seven"));
  auto set = make<Set>();
  set->mutable_items().push_back(str("s"));
  struct Case {
    Ref<Object> value;
    const char* json;
  };
  const std::vector<Case> cases = {
      {nullptr, "null"},
      {Null::shared(), "null"},
      {str("a\"b\n\xc3\xa9"), "\"a\\\"b\\n\xc3\xa9\""},
      {num(-5), "-5"},
      {Number::from_uint(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615"},
      {real(1.5), "1.5"},
      {real(std::nan("")), "\"nan\""},
      {real(-INFINITY), "\"-inf\""},
      {array({boolean(true), boolean(false)}), "[true,false]"},
      {date(410000000.25), "{\"$date\":410000000.25}"},
      {array({orvia::data(std::string("\x00\xff!", 3)), orvia::data("ab")}), "[{\"$data\":\"AP8h\"},{\"$data\":\"YWI=\"}]"},
      {array(), "[]"},
      {array({str("x"), Ref<Object>(), num(2)}), "[\"x\",null,2]"},
      {dict({{"k", num(1)}, {"j", array()}}), "{\"k\":1,\"j\":[]}"},
      {with_number_key, "{\"7\":\"seven\"}"},
      {set, "{\"$set\":[\"s\"]}"},
      {test::tag("x", 3),
       "{\"$class\":\"MQImporterNodeTag\",\"identifier\":null,\"type\":1,\"ignore\":false,\"isRoot\":false,"
       "\"tagCount\":3,\"tagName\":\"x\"}"},
      {record({"Empty", "NSObject"}, {}), "{\"$class\":\"Empty\"}"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(to_json(c.value.get(), false), c.json);
    // The pretty form is the same JSON.
    auto parsed = nlohmann::json::parse(to_json(c.value.get(), true), nullptr, false);
    ASSERT_FALSE(parsed.is_discarded()) << c.json;
    EXPECT_EQ(parsed, nlohmann::json::parse(c.json)) << c.json;
  }
  EXPECT_EQ(to_json(record({"R", "NSObject"}, {{"k", array({num(1)})}}).get(), true),
            "{\n  \"$class\": \"R\",\n  \"k\": [\n    1\n  ]\n}\n");
}

TEST(Json, RepeatsSharedObjectsButCutsCyclesAndRunawaySharing) {
  auto shared = array({num(1)});
  EXPECT_EQ(to_json(array({shared, shared}).get(), false), "[[1],[1]]");

  auto loop = mutable_array();
  loop->push_back(loop);
  EXPECT_EQ(to_json(loop.get(), false), "[{\"$ref\":\"NSMutableArray already shown\"}]");

  // 60 levels that each hold the next twice would print 2^60 values in full.
  Ref<Array> level = array({num(1)});
  for (int i = 0; i < 60; ++i) level = array({level, level});
  std::string text = to_json(level.get(), false);
  EXPECT_LT(text.size(), std::size_t{64} << 20);
  EXPECT_NE(text.find("{\"$ref\":\"NSArray already shown\"}"), std::string::npos);
  EXPECT_TRUE(nlohmann::json::accept(text));
}

TEST(Json, NestingOfAnyDepthWritesWithoutRecursion) {
  constexpr std::size_t kDepth = 200'000;
  Ref<Array> a = array();
  for (std::size_t i = 0; i < kDepth; ++i) a = array({a});
  std::string compact = to_json(a.get(), false);
  EXPECT_EQ(compact, std::string(kDepth + 1, '[') + std::string(kDepth + 1, ']'));
  std::string pretty = to_json(a.get(), true);
  EXPECT_TRUE(nlohmann::json::accept(pretty));
  EXPECT_LT(pretty.size(), kDepth * 2 * 140);  // indentation is capped
}

}  // namespace
}  // namespace orvia::client
