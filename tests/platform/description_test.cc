#include "platform/description.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/value.h"

namespace orvia {
namespace {

std::string address(const Object* obj, std::string_view class_name) {
  char buf[64];
  std::snprintf(buf, sizeof buf, ": %p>", static_cast<const void*>(obj));
  return "<" + std::string(class_name) + buf;
}

// A record of our own with the default description, and one that gives its own text.
class PlainRecord : public Record {
 public:
  std::span<const std::string_view> class_chain() const override { return kChain; }
  void encode_with_coder(KeyedEncoder&) const override {}
  void init_with_coder(KeyedDecoder&) override {}

 private:
  static constexpr std::string_view kChain[] = {"MQPlainRecord", "NSObject"};
};

class TitledRecord final : public PlainRecord {
 public:
  std::string description() const override { return "<Titled 'Summer trip'>"; }
};

Ref<Dictionary> dict_of(std::vector<std::pair<Ref<Object>, Ref<Object>>> entries) {
  auto d = mutable_dict();
  for (auto& [k, v] : entries) d->append(k, v);
  return d;
}

Ref<Set> set_of(std::initializer_list<Ref<Object>> items) {
  auto s = make<Set>(true);
  for (const auto& i : items) s->mutable_items().push_back(i);
  return s;
}

TEST(Description, PrintsValuesAsFoundationDoes) {
  const struct {
    const char* name;
    Ref<Object> value;
    std::string expected;
  } cases[] = {
      {"string alone, as is", str("Rachit LED \"x\"\n"), "Rachit LED \"x\"\n"},
      {"nil", nullptr, "(null)"},
      {"booleans", array({boolean(true), boolean(false)}), "(\n    1,\n    0\n)"},
      {"real, 16 digits", real(9348.31), "9348.309999999999"},
      {"real, next double up", real(std::nextafter(9348.31, 1e9)), "9348.310000000001"},
      {"whole real", real(3.0), "3"},
      {"unsigned beyond int64", Number::from_uint(std::numeric_limits<std::uint64_t>::max()),
       "18446744073709551615"},
      {"data in 4-byte groups", orvia::data(std::string("\x54\x31\xc0\x46\xd3\x0e\x7f\x32\x01", 9)),
       "<5431c046 d30e7f32 01>"},
      {"empty data", orvia::data(""), "<>"},
      {"empty set", set_of({}), "{(\n)}"},
      {"set", set_of({str("a"), str("b c")}), "{(\n    a,\n    \"b c\"\n)}"},
      {"nested example",
       dict_of({{str("Z"), str("Value")},
                {str("A"), array({num(1), dict({{"Key", num(9)}})})},
                {str("G"), str("ZValue")}}),
       "{\n    A =     (\n        1,\n                {\n            Key = 9;\n        }\n    );\n"
       "    G = ZValue;\n    Z = Value;\n}"},
      {"store metadata quoting",
       dict({{"NSStoreType", str("SQLite")},
             {"NSStoreUUID", str("B78DC464-C2CF-4F19-980B-FBC41EDA301E")},
             {"_NSAutoVacuumLevel", str("2")},
             {"addressCountry_id", num(2)},
             {"name", str("Rachit LED")}}),
       "{\n    NSStoreType = SQLite;\n    NSStoreUUID = \"B78DC464-C2CF-4F19-980B-FBC41EDA301E\";\n"
       "    \"_NSAutoVacuumLevel\" = 2;\n    \"addressCountry_id\" = 2;\n    name = \"Rachit LED\";\n}"},
      {"non-ASCII as UTF-16 units", dict({{"\xe6\x88\x91", str("\xe5\x93\x88\xe5\x93\x88")}}),
       "{\n    \"\\U6211\" = \"\\U54c8\\U54c8\";\n}"},
      {"beyond the BMP as surrogate pair", array({str("\xf0\x9f\x98\x80!")}), "(\n    \"\\Ud83d\\Ude00!\"\n)"},
      {"empty string and escapes", dict({{"", str("")}, {"q", str("say \"hi\"\\ now\nthen\tend")}}),
       "{\n    \"\" = \"\";\n    q = \"say \\\"hi\\\"\\\\ now\\nthen\\tend\";\n}"},
      {"control character and broken UTF-8", array({str(std::string("a\x01\xff", 3))}),
       "(\n    \"a\\U0001\\Ufffd\"\n)"},
      {"leaf values through quoting",
       dict({{"ErrorCode", num(-102)}, {"amount", real(1.5)}, {"count", num(7)}, {"empty", Null::shared()},
             {"raw", orvia::data("\x01\x02\x03\x04\x05")}, {"when", date(410737086.9)}}),
       "{\n    ErrorCode = \"-102\";\n    amount = \"1.5\";\n    count = 7;\n    empty = \"<null>\";\n"
       "    raw = <01020304 05>;\n    when = \"2014-01-06 21:38:06 +0000\";\n}"},
      // U+FF21 sorts before U+1F600 by code point but after it by UTF-16 unit (0xFF21 > 0xD83D).
      {"keys sorted by UTF-16 units", dict({{"\xef\xbc\xa1", num(1)}, {"\xf0\x9f\x98\x80", num(2)}, {"B", num(3)}, {"a", num(4)}}),
       "{\n    B = 3;\n    a = 4;\n    \"\\Ud83d\\Ude00\" = 2;\n    \"\\Uff21\" = 1;\n}"},
      {"number keys keep stored order", dict_of({{num(3), str("c")}, {num(-1), str("a")}, {str("k"), str("b")}}),
       "{\n    3 = c;\n    \"-1\" = a;\n    k = b;\n}"},
      {"set inside dictionary and empty containers inside array",
       dict({{"s", set_of({num(1)})}, {"x", array({array(), dict()})}}),
       "{\n    s =     {(\n        1\n    )};\n    x =     (\n                (\n        ),\n                {\n        }\n    );\n}"},
  };
  for (const auto& c : cases) EXPECT_EQ(description(c.value.get()), c.expected) << c.name;
}

TEST(Description, DatesInUtcWithWholeSeconds) {
  // 400 Gregorian years are exactly 146097 days, which gives exact far dates.
  const double k400 = 146097.0 * 86400;
  const std::pair<double, std::string> cases[] = {
      {410737086.999, "2014-01-06 21:38:06 +0000"},  {-0.5, "2000-12-31 23:59:59 +0000"},
      {-978307200.25, "1969-12-31 23:59:59 +0000"},  {-3182241600, "1900-02-28 12:00:00 +0000"},
      {-63113904000, "0001-01-01 00:00:00 +0000"},   {252423993599, "9999-12-31 23:59:59 +0000"},
      {100000 * k400, "40002001-01-01 00:00:00 +0000"}, {-10 * k400, "-1999-01-01 00:00:00 +0000"},
      {std::nan(""), "nan"},                          {1e300, "1e+300"},
  };
  for (const auto& [t, text] : cases) EXPECT_EQ(description(date(t).get()), text) << t;
}

TEST(Description, RecordsCyclesAndSharing) {
  auto plain = make<PlainRecord>();
  const std::string plain_text = address(plain.get(), "MQPlainRecord");
  EXPECT_EQ(plain->description(), plain_text);
  EXPECT_EQ(description(array({plain, make<TitledRecord>()}).get()),
            "(\n    \"" + plain_text + "\",\n    \"<Titled 'Summer trip'>\"\n)");
  // A container met again inside itself prints its address; one met twice side by side prints twice.
  auto d = mutable_dict();
  d->set("self", array({d}));
  EXPECT_EQ(description(d.get()), "{\n    self =     (\n        \"" + address(d.get(), "NSMutableDictionary") + "\"\n    );\n}");
  auto shared = array({str("x")});
  EXPECT_EQ(description(array({shared, shared}).get()), "(\n        (\n        x\n    ),\n        (\n        x\n    )\n)");
}

TEST(Description, DeepNestingPrintsWithoutRecursionAndStaysBounded) {
  auto nest = [](int depth, bool dictionaries) {
    Ref<Object> cur = dictionaries ? Ref<Object>(dict()) : Ref<Object>(array());
    for (int i = 0; i < depth; ++i) cur = dictionaries ? Ref<Object>(dict({{"k", cur}})) : Ref<Object>(array({cur}));
    return cur;
  };
  // Fully printed: every level's first line carries the element indent and its own indent.
  std::string text = description(nest(200, false).get());
  EXPECT_EQ(text.substr(0, 12), "(\n        (\n");
  EXPECT_NE(text.find("\n" + std::string(8 * 200, ' ') + "(\n" + std::string(4 * 200, ' ') + ")"), std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 8), "\n    )\n)");
  for (bool dictionaries : {false, true}) {
    std::string deep = description(nest(100000, dictionaries).get());
    EXPECT_LE(deep.size(), (std::size_t{4} << 20) + 3);
    EXPECT_GT(deep.size(), std::size_t{1} << 20);
    EXPECT_EQ(deep.substr(deep.size() - 3), "...");
    EXPECT_EQ(deep.substr(0, 2), dictionaries ? "{\n" : "(\n");
  }
  // Sharing that doubles at every level would print 2^60 lines; the walk stops at the bound.
  Ref<Object> wide = array({str("leaf")});
  for (int i = 0; i < 60; ++i) wide = array({wide, wide});
  EXPECT_EQ(description(wide.get()).substr((std::size_t{4} << 20)), "...");
}

}  // namespace
}  // namespace orvia
