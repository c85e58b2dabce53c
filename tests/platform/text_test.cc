// Texts: description as Foundation prints it, %@ formatting, and the log's lines.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/description.h"
#include "platform/format.h"
#include "platform/keyed_archive.h"
#include "platform/log.h"
#include "platform/value.h"

namespace orvia {
namespace {

std::string address(const Object* obj, std::string_view class_name) { return format("<%@: %p>", {std::string(class_name), obj}); }

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
  auto plain = make<PlainRecord>();
  auto cycle = mutable_dict();
  cycle->set("self", array({cycle}));
  auto twice = array({str("x")});
  const std::pair<Ref<Object>, std::string> cases[] = {
      {str("Rachit LED \"x\"\n"), "Rachit LED \"x\"\n"},  // a string alone, as it is
      {nullptr, "(null)"},
      {array({boolean(true), boolean(false)}), "(\n    1,\n    0\n)"},
      {real(9348.31), "9348.309999999999"},  // 16 digits
      {real(std::nextafter(9348.31, 1e9)), "9348.310000000001"},
      {real(3.0), "3"},
      {Number::from_uint(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615"},
      {orvia::data(std::string("\x54\x31\xc0\x46\xd3\x0e\x7f\x32\x01", 9)), "<5431c046 d30e7f32 01>"},
      {orvia::data(""), "<>"},
      {set_of({}), "{(\n)}"},
      {set_of({str("a"), str("b c")}), "{(\n    a,\n    \"b c\"\n)}"},
      {dict_of({{str("Z"), str("Value")}, {str("A"), array({num(1), dict({{"Key", num(9)}})})}, {str("G"), str("ZValue")}}),
       "{\n    A =     (\n        1,\n                {\n            Key = 9;\n        }\n    );\n    G = ZValue;\n    Z = Value;\n}"},
      {dict({{"NSStoreType", str("SQLite")}, {"NSStoreUUID", str("B78DC464-C2CF-4F19-980B-FBC41EDA301E")}, {"_NSAutoVacuumLevel", str("2")},
             {"addressCountry_id", num(2)}, {"name", str("Rachit LED")}}),
       "{\n    NSStoreType = SQLite;\n    NSStoreUUID = \"B78DC464-C2CF-4F19-980B-FBC41EDA301E\";\n"
       "    \"_NSAutoVacuumLevel\" = 2;\n    \"addressCountry_id\" = 2;\n    name = \"Rachit LED\";\n}"},
      {dict({{"\xe6\x88\x91", str("\xe5\x93\x88\xe5\x93\x88")}}), "{\n    \"\\U6211\" = \"\\U54c8\\U54c8\";\n}"},  // UTF-16 units
      {array({str("\xf0\x9f\x98\x80!")}), "(\n    \"\\Ud83d\\Ude00!\"\n)"},  // beyond the BMP: a surrogate pair
      {dict({{"", str("")}, {"q", str("say \"hi\"\\ now\nthen\tend\r")}}), "{\n    \"\" = \"\";\n    q = \"say \\\"hi\\\"\\\\ now\\nthen\\tend\\r\";\n}"},
      {array({str(std::string("a\x01\xff", 3))}), "(\n    \"a\\U0001\\Ufffd\"\n)"},  // control character, broken UTF-8
      {dict({{"ErrorCode", num(-102)}, {"amount", real(1.5)}, {"count", num(7)}, {"empty", Null::shared()}, {"raw", orvia::data("\x01\x02\x03\x04\x05")},
             {"when", date(410737086.9)}}),
       "{\n    ErrorCode = \"-102\";\n    amount = \"1.5\";\n    count = 7;\n    empty = \"<null>\";\n    raw = <01020304 05>;\n"
       "    when = \"2014-01-06 21:38:06 +0000\";\n}"},
      // Keys sorted by UTF-16 units: U+FF21 sorts before U+1F600 by code point but after it by unit (0xFF21 > 0xD83D).
      {dict({{"\xef\xbc\xa1", num(1)}, {"\xf0\x9f\x98\x80", num(2)}, {"B", num(3)}, {"a", num(4)}}),
       "{\n    B = 3;\n    a = 4;\n    \"\\Ud83d\\Ude00\" = 2;\n    \"\\Uff21\" = 1;\n}"},
      {dict_of({{num(3), str("c")}, {num(-1), str("a")}, {str("k"), str("b")}}), "{\n    3 = c;\n    \"-1\" = a;\n    k = b;\n}"},  // stored order
      {dict({{"s", set_of({num(1)})}, {"x", array({array(), dict()})}}),
       "{\n    s =     {(\n        1\n    )};\n    x =     (\n                (\n        ),\n                {\n        }\n    );\n}"},
      {array({plain, make<TitledRecord>()}), "(\n    \"" + address(plain.get(), "MQPlainRecord") + "\",\n    \"<Titled 'Summer trip'>\"\n)"},
      // A container met again inside itself prints its address; one met twice side by side prints twice.
      {cycle, "{\n    self =     (\n        \"" + address(cycle.get(), "NSMutableDictionary") + "\"\n    );\n}"},
      {array({twice, twice}), "(\n        (\n        x\n    ),\n        (\n        x\n    )\n)"},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(description(value.get()), text);
  EXPECT_EQ(plain->description(), address(plain.get(), "MQPlainRecord"));
  // Dates in UTC with whole seconds; 400 Gregorian years are exactly 146097 days, which gives exact far dates.
  const double k400 = 146097.0 * 86400;
  const std::pair<double, std::string> dates[] = {
      {410737086.999, "2014-01-06 21:38:06 +0000"},  {-0.5, "2000-12-31 23:59:59 +0000"},       {-978307200.25, "1969-12-31 23:59:59 +0000"},
      {-3182241600, "1900-02-28 12:00:00 +0000"},    {-63113904000, "0001-01-01 00:00:00 +0000"}, {252423993599, "9999-12-31 23:59:59 +0000"},
      {100000 * k400, "40002001-01-01 00:00:00 +0000"}, {-10 * k400, "-1999-01-01 00:00:00 +0000"}, {std::nan(""), "nan"}, {1e300, "1e+300"},
  };
  for (const auto& [t, text] : dates) EXPECT_EQ(description(date(t).get()), text) << t;
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

TEST(Format, ConversionsAndMissingExtraOrMalformedArguments) {
  const auto tag = str("sunset");
  const auto* address = reinterpret_cast<const void*>(std::uintptr_t{0x55d0c0a0});
  const std::int64_t big = std::numeric_limits<std::int64_t>::max();
  const std::uint64_t ubig = std::numeric_limits<std::uint64_t>::max();
  const std::pair<std::string, std::string> cases[] = {
      {format("Unknown item %@ %@", {tag, tag.get()}), "Unknown item sunset sunset"},
      {format("%@ and %@", {std::string("text with %@ inside")}), "text with %@ inside and (null)"},  // then a missing argument
      {format("invalid account: %@", {nullptr}), "invalid account: (null)"},
      {format("Invalid favorite tag '%@'", {dict({{"name", tag}})}), "Invalid favorite tag '{\n    name = sunset;\n}'"},
      {format("%@.%@.%li %@", {str("root"), str("Root"), 4, num(12)}), "root.Root.4 12"},
      {format("%li %ld %lld %d %i", {-1, big, -42ll, 7, 0}), "-1 9223372036854775807 -42 7 0"},
      {format("%lu %llu %zu %u", {ubig, ubig, std::size_t{3}, -1}), "18446744073709551615 18446744073709551615 3 18446744073709551615"},
      {format("%d", {num(-5)}), "-5"},
      {format("%x %X %5li|%-4d|%03u|%.3d", {255, 255, 42, 7, 5, 7}), "ff FF    42|7   |005|007"},
      {format("<OutlineFolderItem %p '%@' %li children '%@'>", {address, str("Trips"), 2, str("f-1")}), "<OutlineFolderItem 0x55d0c0a0 'Trips' 2 children 'f-1'>"},
      {format("%p", {static_cast<const void*>(nullptr)}), "0x0"},
      {format("%p", {tag}), format("%p", {static_cast<const void*>(tag.get())})},
      {format("Failed to initalize persistent store: %@\n%@", {str("gone"), dict()}), "Failed to initalize persistent store: gone\n{\n}"},
      // Missing arguments print as nothing would, extra ones are left over, malformed specs print as written.
      {format("%li items %p", {}), "0 items 0x0"},
      {format("just text", {str("unused")}), "just text"},
      {format("", {1}), ""},
      {format("100%% done, trailing %", {}), "100% done, trailing %"},
      {format("trailing %l", {5}), "trailing %l"},
      {format("%s %f %@", {str("a"), str("b")}), "%s %f a"},
      {format("%99999999999d|", {1}), "%99999999999d|"},
      {format("%%%@%%", {str("x")}), "%x%"},
  };
  for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
}

using Lines = std::vector<std::string>;

TEST(Log, CapturesGetExactLinesAndNestAndTheStderrCopyCanBeSilenced) {
  testing::internal::CaptureStderr();
  LogCapture outer;
  NSLog("Unknown item %@", str("com.brenvik.velmora.folderTagsIdentifier"));
  set_log_to_stderr(false);
  {
    LogCapture inner;
    NSLog("invalid imported node for %@ in %@", str("a b"), "tags");
    log_line("two\nlines");
    EXPECT_EQ(inner.lines(), (Lines{"invalid imported node for a b in tags", "two\nlines"}));
    inner.clear();
    EXPECT_TRUE(inner.lines().empty());
  }
  set_log_to_stderr(true);
  NSLog("%li", 3);
  log_line("multi\nline");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unknown item com.brenvik.velmora.folderTagsIdentifier\n3\nmulti\nline\n");
  EXPECT_EQ(outer.lines(), (Lines{"Unknown item com.brenvik.velmora.folderTagsIdentifier", "invalid imported node for a b in tags", "two\nlines", "3", "multi\nline"}));
  EXPECT_TRUE(outer.contains("two\nlines"));
  EXPECT_FALSE(outer.contains("two"));
  // Lines held on a thread wait for it to write them; other threads' lines go on.
  Lines held, inner_held;
  LogCapture capture;
  std::thread helper([&] {
    LogHold hold(held);
    NSLog("loaded %@", "a");
    {
      LogHold inner(inner_held);
      log_line("inner");
    }
    log_line("two\nlines");
  });
  helper.join();
  log_line("meanwhile");
  EXPECT_EQ(held, (Lines{"loaded a", "two\nlines"}));
  EXPECT_EQ(inner_held, (Lines{"inner"}));
  write_held(held);
  EXPECT_TRUE(held.empty());
  EXPECT_EQ(capture.lines(), (Lines{"meanwhile", "loaded a", "two\nlines"}));
}

TEST(Log, LinesFromManyThreadsStayWholeOnStderrAndInCaptures) {
  constexpr int kThreads = 8, kLines = 400;
  // Lines of different lengths, some longer than a pipe's atomic write size, and on one thread one far longer
  // than the system log takes (stderr and captures still get it whole).
  const auto text = [](int t, int i) { return std::string(i == kLines ? 300000 : i * 13 % 5000, 'a' + t); };
  std::map<std::string, int> expected, captured, written;
  LogCapture capture;
  testing::internal::CaptureStderr();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i <= (t == 0 ? kLines : kLines - 1); ++i) expected[format("thread %d line %d %@", {t, i, text(t, i)})]++;
    threads.emplace_back([t, &text] {
      for (int i = 0; i <= (t == 0 ? kLines : kLines - 1); ++i) NSLog("thread %d line %d %@", t, i, text(t, i));
    });
  }
  for (auto& th : threads) th.join();
  const std::string out = testing::internal::GetCapturedStderr();
  for (const auto& line : capture.lines()) captured[line]++;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) written[line]++;
  EXPECT_EQ(captured, expected);
  EXPECT_EQ(written, expected);
  EXPECT_EQ(out.back(), '\n');
}

}  // namespace
}  // namespace orvia
