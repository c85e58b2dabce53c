// Property lists: the value model, binary and XML reading and writing, and the builder's writes in pieces.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>

#include <plist/plist.h>

#include "platform/bplist_format.h"
#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "support/support.h"

namespace orvia {
namespace {

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min(), kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kUMax = std::numeric_limits<std::uint64_t>::max();

TEST(Values, HeapFreesCyclesAndDeepNestingAndDictionariesFindKeysAtAnySize) {
  Heap heap;
  {
    HeapScope scope(heap);
    auto a = mutable_array();
    a->push_back(a);  // holds itself
    Ref<Array> cur = mutable_array();
    for (int i = 0; i < 200000; ++i) cur = mutable_array({cur});
    EXPECT_GE(heap.tracked_count(), 200002u);
  }
  // Leaving the scope released the deep chain without recursing; the cycle stays until the heap ends.
  EXPECT_EQ(heap.tracked_count(), 1u);
  auto d = mutable_dict();
  for (int i = 40; i > 0; --i) d->set(std::to_string(i), num(i));
  for (int i = 1; i <= 40; ++i) EXPECT_EQ(as_number(d->get(std::to_string(i)))->int_value(), i);
  d->set("7", str("seven"));
  EXPECT_EQ(d->size(), 40u);
  EXPECT_EQ(text_of(d->get("7")), "seven");
  EXPECT_TRUE(d->remove("7"));
  EXPECT_EQ(d->get("7"), nullptr);
  EXPECT_EQ(as_number(d->get("8"))->int_value(), 8);
  EXPECT_EQ(text_of(d->entries().front().first.get()), "40");
  // Numbers keep their kinds: booleans are shared and apart from integers, a small unsigned is signed.
  EXPECT_EQ(boolean(true).get(), boolean(true).get());
  EXPECT_EQ(Number::from_uint(5)->type(), Number::Type::Signed);
  EXPECT_EQ(real(-2.75)->int_value(), -2);
}

TEST(Values, DeepEqualKeepsKindsApartAndTakesNaNAsEqualToNaN) {
  const double nan = std::nan("");
  const struct {
    const char* name;
    Ref<Object> a, b;
    bool equal;
  } cases[] = {
      {"NaN and NaN", real(nan), real(-nan), true},       {"NaN and a number", real(nan), real(1.0), false},
      {"real and integer", real(1.0), num(1), true},      {"integer and boolean", num(1), boolean(true), false},
      {"zero and -0", real(0.0), real(-0.0), true},       {"NaN dates", date(nan), date(nan), true},
      {"NaN date and a date", date(nan), date(0), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(deep_equal(c.a.get(), c.b.get()), c.equal);
    auto back = read_binary_plist(write_binary_plist(array({c.a}).get()).value());  // NaN equals its copy
    ASSERT_TRUE(back.ok());
    EXPECT_TRUE(deep_equal(array({c.a}).get(), back.value().get()));
  }
}

// Every kind the preferences and archives hold, read back by us, by libplist and by Python's plistlib.
TEST(BinaryPlist, EveryKindReadsBackHereInLibplistAndInPython) {
  const Ref<Object> original = dict({
      {"ascii", str("plain text")}, {"empty", str("")}, {"unicode", str("Zürich 東京 café 😀")}, {"negative", num(-42)},
      {"int64 min", num(kMin)}, {"int64 max", num(kMax)}, {"uint64 max", Number::from_uint(kUMax)}, {"byte", num(255)},
      {"short", num(65535)}, {"word", num(4294967295ll)}, {"real", real(0.1)}, {"negative real", real(-1e-300)},
      {"yes", boolean(true)}, {"no", boolean(false)}, {"one", num(1)}, {"date", date(728487838.094653)},
      {"old date", date(-1e9 + 0.25)}, {"data", orvia::data(std::string("\x00\x01\xff binary", 10))},
      {"list", array({str("a"), num(2), boolean(true), array({str("deep")})})},
      {"nested", mutable_dict({{"empty array", array()}, {"empty dict", dict()}, {"zero", num(0)}})},
  });
  const std::string bytes = write_binary_plist(original.get()).value();
  auto back = read_binary_plist(bytes);
  ASSERT_TRUE(back.ok()) << back.error().message;
  EXPECT_TRUE(deep_equal(original.get(), back.value().get()));
  EXPECT_EQ(text_of(as_dict(back.value().get())->entries().back().first.get()), "nested");  // keys in the order written
  // Our XML, and libplist's reading of our bytes written out as XML: the same values, but for what XML cannot carry.
  plist_t p = nullptr;
  plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &p);
  ASSERT_NE(p, nullptr);
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(p, &xml, &length);
  const std::string libplist_xml(xml, length);
  plist_to_xml_free(xml);
  plist_free(p);
  for (const std::string& text : {write_xml_plist(original.get()).value(), libplist_xml}) {
    auto from_xml = read_property_list(text);
    ASSERT_TRUE(from_xml.ok()) << from_xml.error().message;
    const Dictionary* d = as_dict(from_xml.value().get());
    ASSERT_EQ(d->size(), as_dict(original.get())->size());
    for (const auto& [key, value] : as_dict(original.get())->entries()) {
      const bool xml_carries = text_of(key.get()) != "uint64 max" && !as_date(value.get());
      EXPECT_TRUE(!xml_carries || deep_equal(value.get(), d->get(text_of(key.get())))) << text_of(key.get());
    }
  }
  test::TempDir dir;
  test::write_file(dir / "in.plist", bytes);
  const std::string cmd = "python3 -c \"import plistlib,sys; d=plistlib.load(open(sys.argv[1],'rb')); "
                          "print(d['unicode']=='Zürich 東京 café 😀', d['negative'], d['int64 min'], d['uint64 max'], "
                          "repr(d['real']), d['yes'] is True, type(d['one']) is int, d['data'], "
                          "d['date'].isoformat(), d['list'], d['nested'])\" " + (dir / "in.plist").string();
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(cmd.c_str(), "r"), pclose);
  char out[4096] = {};
  ASSERT_TRUE(pipe && fgets(out, sizeof out, pipe.get()));
  EXPECT_STREQ(out, "True -42 -9223372036854775808 18446744073709551615 0.1 True True b'\\x00\\x01\\xff binary' "
                    "2024-02-01T13:43:58.094653 ['a', 2, True, ['deep']] {'empty array': [], 'empty dict': {}, 'zero': 0}\n");
}

TEST(BinaryPlist, SharesEqualScalarsAndContainersAndNestsDeepWithoutRecursion) {
  // 300 equal strings and numbers are written once each, in one-byte references, the offset table beyond byte 255.
  auto list = mutable_array();
  for (int i = 0; i < 300; ++i) list->push_back(str("same")), list->push_back(num(7));
  const std::string bytes = write_binary_plist(list.get()).value();
  EXPECT_EQ(bplist::View::open(bytes)->size(), 3u);
  EXPECT_EQ(bytes[bytes.size() - 32 + 7], 1);
  EXPECT_EQ(bytes[bytes.size() - 32 + 6], 2);
  // 100,000 levels are read and freed without recursion; a container written once is read as one object.
  Ref<Array> cur = mutable_array({str("bottom")});
  for (int i = 0; i < 100000; ++i) cur = mutable_array({cur});
  const Ref<Object> top = array({cur, cur});
  auto back = read_binary_plist(write_binary_plist(top.get()).value());
  ASSERT_TRUE(back.ok()) << back.error().message;
  EXPECT_TRUE(deep_equal(top.get(), back.value().get()));
  EXPECT_EQ(as_array(back.value().get())->at(0).get(), as_array(back.value().get())->at(1).get());
}

// Builds a bplist by hand: objects given as raw bytes, then offset table and trailer.
std::string hand_made(const std::vector<std::string>& objects, unsigned ref_size = 1, std::uint64_t top = 0,
                      std::uint64_t claimed_count = 0, unsigned offset_size = 1) {
  std::string out = "bplist00";
  std::vector<std::uint64_t> offsets;
  for (const auto& o : objects) offsets.push_back(out.size()), out += o;
  auto put = [&](std::uint64_t v, unsigned bytes) {
    for (int i = static_cast<int>(bytes) - 1; i >= 0; --i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
  };
  const std::uint64_t table = out.size();
  for (auto off : offsets) put(off, offset_size);
  out.append(6, '\0');
  out.push_back(static_cast<char>(offset_size));
  out.push_back(static_cast<char>(ref_size));
  put(claimed_count ? claimed_count : objects.size(), 8);
  put(top, 8);
  put(table, 8);
  return out;
}

TEST(Plist, MalformedInputsAndValuesAreErrors) {
  std::string good = write_binary_plist(dict({{"a", array({str("x"), num(1)})}}).get()).value();
  std::vector<std::pair<const char*, std::string>> cases = {
      {"empty", ""},
      {"magic only", "bplist00"},
      {"not a plist", std::string(64, 'x')},
      {"truncated by one byte", good.substr(0, good.size() - 1)},
      {"truncated XML", "<?xml version=\"1.0\"?><plist><dict><key>a</key>"},
      {"array holding itself", hand_made({std::string("\xA1\x00", 2)})},
      {"dictionary holding itself as value", hand_made({std::string("\xD1\x01\x00", 3), "\x51k"})},
      {"reference out of range", hand_made({std::string("\xA1\x07", 2)})},
      {"reference just out of range", hand_made({std::string("\xA1\x01", 2)})},
      {"top beyond count", hand_made({"\x09"}, 1, 5)},
      {"absurd object count", hand_made({"\x09"}, 1, 0, 1ull << 60)},
      {"absurd array count", hand_made({std::string("\xAF\x13\x7f\xff\xff\xff\xff\xff\xff\xff", 10)})},
      {"string longer than the file", hand_made({std::string("\x5F\x12\x7f\xff\xff\xff", 6)})},
      {"unknown marker", hand_made({"\xE0"})},
      {"non-string dictionary key", hand_made({std::string("\xD1\x01\x01", 3), "\x10\x05"})},
      {"bad reference size", hand_made({"\x09"}, 3)},
      {"short string one byte short", hand_made({"\x53" "ab"})},
      {"UTF-8 string one byte short", hand_made({"\x72\xc3"})},
      {"UID one byte short", hand_made({std::string("\xA1\x01", 2), "\x81\x01"})},
      {"integer one byte short", hand_made({"\x12\x01\x02\x03"})},
      {"array one reference short", hand_made({std::string("\xA2\x00", 2)})},
      {"dictionary one reference short", hand_made({std::string("\xD1\x01", 2), "\x51k"})},
  };
  // 100,000-deep nesting (4-byte references) that is valid except that the innermost array points back to the top.
  std::vector<std::string> deep;
  for (std::uint32_t i = 0; i < 100000; ++i) {
    const std::uint32_t child = i + 1 < 100000 ? i + 1 : 0;
    deep.push_back({'\xA1', char(child >> 24), char(child >> 16), char(child >> 8), char(child)});
  }
  cases.push_back({"100,000-deep nesting closing a cycle", hand_made(deep, 4, 0, 0, 4)});
  for (const auto& [name, bytes] : cases) EXPECT_FALSE(read_property_list(bytes).ok()) << name;
  // Writing: no top, NSNull (no property list kind) and an array holding itself. A top that is not a
  // dictionary reads: callers decide what they accept.
  auto self = mutable_array();
  self->push_back(self);
  for (const Ref<Object>& bad : {Ref<Object>(), Ref<Object>(array({Null::shared()})), Ref<Object>(self)}) EXPECT_FALSE(write_binary_plist(bad.get()).ok());
  EXPECT_EQ(text_of(read_property_list(write_binary_plist(str("top").get()).value()).value().get()), "top");
}

TEST(Plist, ReadsAFileWhateverKindOfPathHoldsIt) {
  // A regular file is read at its size at once; a pipe is read to its end; a folder, an empty file
  // and a missing path are errors, not crashes.
  auto list = mutable_array();
  for (int i = 0; i < 20000; ++i) list->push_back(str("entry " + std::to_string(i)));
  const std::string bytes = write_binary_plist(list.get()).value();
  ASSERT_GT(bytes.size(), 65536u * 3);
  test::TempDir dir;
  test::write_file(dir / "large.plist", bytes);
  test::write_file(dir / "empty.plist", "");
  std::filesystem::create_directory(dir / "folder.plist");
  ASSERT_EQ(::mkfifo((dir / "pipe.plist").c_str(), 0600), 0);
  std::thread feeder([&] { test::write_file(dir / "pipe.plist", bytes); });
  auto through_pipe = read_property_list_file((dir / "pipe.plist").string());
  feeder.join();
  for (const char* name : {"empty.plist", "folder.plist", "missing.plist"}) EXPECT_FALSE(read_property_list_file((dir / name).string()).ok()) << name;
  for (auto read : {read_property_list_file((dir / "large.plist").string()), std::move(through_pipe)}) {
    ASSERT_TRUE(read.ok()) << read.error().message;
    EXPECT_TRUE(deep_equal(read.value().get(), list.get()));
  }
}

// Keeps the pieces, checks the order of the calls, and can refuse one piece.
struct Pieces final : bplist::Builder::Sink {
  std::string bytes;
  std::uint64_t expected = 0;
  std::size_t count = 0, finished_at = 0, refuse_at = SIZE_MAX;  // finished_at: pieces seen when told, plus one
  bool wants = false;                                              // asks for the file's size before its first piece
  bool wants_size() const override { return wants; }
  void expect(std::uint64_t total) override {
    EXPECT_EQ(count, 0u) << "the size after a piece";
    expected = total;
  }
  bool put(std::string_view piece) override {
    EXPECT_EQ(finished_at, 0u) << "a piece after the end";
    return count++ != refuse_at && (bytes.append(piece), true);
  }
  void finished() override {
    EXPECT_EQ(finished_at, 0u) << "told twice";
    finished_at = count + 1;
  }
};

// A builder's file handed to a sink in pieces: with one thread, or two in runs small and large enough that runs are
// buffered, or written straight on because a large object makes them larger than a buffer may be; with the size
// asked for or not, and with a sink that refuses the second piece. Written as built, or drained: its memory goes
// back run by run while the other thread encodes the runs ahead, and a block given back too early shows as wrong
// bytes (or, under the address sanitizer, as a read of freed memory).
TEST(BinaryPlist, WritingInPiecesAndDrainingGiveTheSameBytes) {
  // Objects larger than a piece cross piece boundaries; the first string is, or is not, larger than a buffer may
  // be. The top container is reserved first and filled last, so its references lie in the last block.
  auto build = [](bplist::Builder& b, std::size_t first) {
    const std::uint32_t top = b.reserve();
    std::vector<std::uint32_t> refs = {b.add_string(std::string(first, 'a')), b.add_string(std::string(1 << 19, 'b') + "é"),
                                       b.add_data(std::string((1 << 20) + 1, '\x7f'))};
    std::vector<std::uint32_t> many(600000, refs[1]);  // 2.4 MB of references
    refs.push_back(b.reserve());
    b.set_array(refs.back(), many.data(), many.size());
    for (int i = 0; i < 150000; ++i) {
      const std::uint32_t dict = b.reserve();
      const std::uint32_t keys[] = {b.add_string("name"), b.add_string("n")};
      const std::uint32_t values[] = {b.add_string(i % 3 ? "place " + std::to_string(i) : "Zürich " + std::to_string(i) + " 東京"), b.add_int(i)};
      b.set_dict(dict, keys, values, 2);
      refs.push_back(dict);
      if (i % 50000 == 7) refs.push_back(b.add_data(std::string((1 << 19) + i, '\x01')));  // a block of its own
    }
    EXPECT_EQ(b.add_string("Zürich 7 東京"), b.add_string("Zürich 7 東京"));  // equal strings stay shared
    b.set_array(top, refs.data(), refs.size());
    return top;
  };
  using Options = bplist::Builder::WriteOptions;
  for (const auto& [first, drains] : {std::pair{std::size_t{3} << 20, std::vector{false}}, std::pair{std::size_t{12} << 20, std::vector{false, true}}}) {
    bplist::Builder built;
    const std::uint32_t top = build(built, first);
    const std::string whole = built.write(top);
    for (const bool drained : drains) {
      for (const Options& options : {Options{1}, Options{2, 7, 1 << 16}, Options{2, 1000, 8 << 20}, Options{2, 65536, 8 << 20}, Options{2, 70000, 1}}) {
        for (const int mode : {0, 1, 2}) {
          SCOPED_TRACE(testing::Message() << (first >> 20) << " MB first, " << (drained ? "drained, " : "") << options.threads << " threads, runs of "
                                          << options.run_objects << (mode == 0 ? ", size wanted" : mode == 2 ? ", refused" : ""));
          Pieces pieces;
          pieces.wants = mode == 0;
          pieces.refuse_at = mode == 2 ? 1 : SIZE_MAX;
          bplist::Builder b;
          EXPECT_EQ(drained ? b.drain_to(build(b, first), pieces, options) : built.write_to(top, pieces, options), mode != 2);
          EXPECT_EQ(b.object_count(), 0u);  // drained, whether whole or stopped
          if (mode == 2) {  // stopped: no piece after the refused one, and not told the file was whole
            EXPECT_EQ(pieces.count, 2u);
            EXPECT_EQ(pieces.finished_at, 0u);
            EXPECT_TRUE(whole.compare(0, pieces.bytes.size(), pieces.bytes) == 0);
            continue;
          }
          // One thread knows the size before it writes; two size each run as they encode it, unless asked.
          EXPECT_EQ(pieces.expected, pieces.wants || options.threads == 1 ? whole.size() : 0u);
          EXPECT_GT(pieces.count, 5u);
          EXPECT_EQ(pieces.finished_at, pieces.count + 1);
          EXPECT_TRUE(pieces.bytes == whole);
        }
      }
    }
    auto back = read_binary_plist(whole);
    ASSERT_TRUE(back.ok()) << back.error().message;
    const Array* a = as_array(back.value().get());
    ASSERT_EQ(a->size(), 150007u);
    EXPECT_EQ(text_of(a->at(1).get()).size(), (1u << 19) + 2);
    EXPECT_EQ(as_array(a->at(3).get())->size(), 600000u);
    EXPECT_EQ(text_of(as_dict(a->at(4).get())->get("name")), "Zürich 0 東京");
  }
}

TEST(BinaryPlist, ValuesAroundTheBuildersInlineRoomKeepEveryBit) {
  // The builder keeps small values and counts in its object record and the rest beside it: values and counts on
  // both sides of that room (58-bit values, 1023 entries) come back as they went in, and equal strings and data
  // kept either way are found equal.
  const std::uint64_t edge = std::uint64_t{1} << 58;
  bplist::Builder b;
  std::vector<std::uint32_t> refs;
  auto expected = mutable_array();
  auto add = [&](std::uint32_t ref, Ref<Object> value) { refs.push_back(ref), expected->push_back(std::move(value)); };
  for (std::uint64_t u : {std::uint64_t{0}, std::uint64_t{1}, edge - 1, edge, edge + 1, kUMax}) add(b.add_uid(u), dict({{"CF$UID", Number::from_uint(u)}}));
  for (std::int64_t i : {std::int64_t{-1}, kMin, std::int64_t(edge) - 1, std::int64_t(edge), kMax}) add(b.add_int(i), num(i));
  add(b.add_uint(kUMax), Number::from_uint(kUMax));
  add(b.add_real(-0.5), real(-0.5));
  add(b.add_date(1e300), date(1e300));
  const std::size_t first_text = refs.size(), counts[] = {0, 14, 15, 1022, 1023, 1024, 1025, 70000};
  for (std::size_t n : counts) {
    const std::string plain(n, 'a'), wide = std::string(n / 2, 'b') + "é", bytes(n, 'd');  // wide: half as many UTF-16 units
    add(b.add_string(plain), str(plain));
    add(b.add_string(wide), str(wide));
    add(b.add_data(bytes), orvia::data(bytes));
  }
  for (std::size_t at = first_text; at < refs.size(); ++at) {
    const Data* d = as_data(expected->at(at).get());
    EXPECT_EQ(d ? b.add_data(d->bytes()) : b.add_string(text_of(expected->at(at).get())), refs[at]) << at;
  }
  for (std::size_t n : counts) {
    std::vector<std::uint32_t> members(n, refs[0]), keys(n), values(n, refs[1]);
    auto list = mutable_array();
    auto map = mutable_dict();
    for (std::size_t k = 0; k < n; ++k) {
      keys[k] = b.add_string("key " + std::to_string(k));
      list->push_back(expected->at(0));
      map->set("key " + std::to_string(k), expected->at(1));
    }
    const std::uint32_t l = b.reserve(), d = b.reserve(), s = b.reserve();
    b.set_array(l, members.data(), n);
    b.set_dict(d, keys.data(), values.data(), n);
    b.set_shared_array(s, b.share_refs(members.data(), n), n);
    add(l, list), add(d, map), add(s, list);
  }
  const std::uint32_t top = b.reserve();
  b.set_array(top, refs.data(), refs.size());
  auto back = read_binary_plist(b.write(top));
  ASSERT_TRUE(back.ok()) << back.error().message;
  const Array* got = as_array(back.value().get());
  ASSERT_EQ(got->size(), expected->size());
  for (std::size_t i = 0; i < got->size(); ++i) EXPECT_TRUE(deep_equal(got->at(i).get(), expected->at(i).get())) << i;
}

// Strings are checked for ASCII eight bytes at a time with overlapping tails: a byte of 0x80 or above
// must be seen wherever it lies, in strings of every length around the word sizes.
TEST(BinaryPlist, AsciiCheckSeesAHighByteAtEveryPlace) {
  for (std::size_t n = 0; n <= 40; ++n) {
    EXPECT_TRUE(bplist::is_ascii(std::string(n, 'a'))) << n;
    for (std::size_t at = 0; at < n; ++at) {
      for (const char high : {'\x80', '\xc3', '\xff'}) EXPECT_FALSE(bplist::is_ascii(std::string(at, 'a') + high + std::string(n - at - 1, 'a'))) << n << " " << at;
    }
  }
}

// Strings read from any source hold well-formed UTF-8, so that a value written and read back (or archived and
// unarchived) is the value read: ill-formed bytes read as U+FFFD, for each maximal ill-formed part, as Unicode
// recommends.
TEST(PlistText, IllFormedUtf8ReadsAsReplacementAndRoundTrips) {
  const std::string kFFFD = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> cases[] = {  // stored, read
      {"caf\xC3\xA9 \xF0\x9F\x98\x80", "caf\xC3\xA9 \xF0\x9F\x98\x80"},  {kFFFD, kFFFD},
      {"a\x80z", "a" + kFFFD + "z"},                                  {"\xE2\x82z", kFFFD + "z"},
      {"ab\xF0\x9F\x98", "ab" + kFFFD},                               {"\xC0\xAF", kFFFD + kFFFD},
      {"\xED\xA0\x80", kFFFD + kFFFD + kFFFD},                        {"\xF4\x90\x80\x80", kFFFD + kFFFD + kFFFD + kFFFD},
      {std::string("?\xF0\x00\x01\x00", 5), "?" + kFFFD + std::string("\x00\x01\x00", 3)}, {"\xFF", kFFFD},
  };
  for (const auto& [stored, read] : cases) {
    SCOPED_TRACE(testing::PrintToString(stored));
    // From a binary property list (a UTF-8 string object, marker 0x7n); then written as held, as is a string made
    // in memory with those bytes.
    auto from_binary = read_binary_plist(hand_made({static_cast<char>(0x70 | stored.size()) + stored}));
    ASSERT_TRUE(from_binary.ok()) << from_binary.error().message;
    EXPECT_EQ(text_of(from_binary.value().get()), read);
    for (const Ref<Object>& value : {from_binary.value(), Ref<Object>(str(stored))})
      EXPECT_EQ(text_of(read_binary_plist(write_binary_plist(value.get()).value()).value().get()), read);
    // From XML (libplist passes the bytes through), as a key and as a value.
    if (stored.find('\0') != std::string::npos) continue;
    auto xml = read_xml_plist("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>" + stored + "</key><string>" + stored + "</string></dict></plist>");
    ASSERT_TRUE(xml.ok()) << xml.error().message;
    EXPECT_TRUE(deep_equal(xml.value().get(), dict({{read, str(read)}}).get()));
  }
  // Asking libplist for the C string of a string holding NUL would end the process; the text ends at the NUL.
  auto nul = read_xml_plist(std::string("<plist version=\"1.0\"><array><string>a\0b</string></array></plist>", 64));
  ASSERT_TRUE(nul.ok()) << nul.error().message;
  EXPECT_TRUE(deep_equal(nul.value().get(), array({str("a")}).get()));
}

TEST(PlistText, ArchivedKeysReadAsStringValuesDo) {
  // A record of an unknown class whose key is an ASCII-marker string with a Latin-1 byte, and one whose
  // key is ill-formed UTF-8: the keys read as the strings would, and archive back unchanged.
  // $top {root: UID 1}; $objects [$null, the record, its class {$classname: "Thing"}].
  std::string archive = hand_made({
      std::string("\xD4\x01\x02\x03\x04\x05\x06\x07\x08", 9), "\x59$archiver", "\x58$version", "\x54$top", "\x58$objects",
      std::string("\x5F\x10\x0F", 3) + "NSKeyedArchiver", std::string("\x12\x00\x01\x86\xA0", 5), std::string("\xD1\x09\x0A", 3),
      std::string("\xA3\x0B\x0C\x0D", 4), "\x54root", std::string("\x80\x01", 2), "\x55$null", std::string("\xD3\x0E\x0F\x10\x11\x12\x13", 7),
      std::string("\xD1\x14\x15", 3), "\x56$class", "\x54" "caf\xE9" /* ASCII marker, 4 bytes */, "\x72" "a\xFF" /* UTF-8 marker, 2 bytes */,
      std::string("\x80\x02", 2), std::string("\x10\x01", 2), std::string("\x10\x02", 2), "\x5A$classname", "\x55Thing",
  });
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round == 0 ? "as stored" : "archived again");
    auto root = unarchive(archive);
    ASSERT_TRUE(root.ok()) << root.error().message;
    const auto* record = dynamic_cast<const GenericRecord*>(root.value().get());
    ASSERT_TRUE(record && record->fields().size() == 2u);
    EXPECT_EQ(record->fields()[0].key, "caf\xC3\xA9");
    EXPECT_EQ(record->fields()[1].key, "a\xEF\xBF\xBD");
    EXPECT_EQ(as_number(record->get("caf\xC3\xA9"))->int_value(), 1);
    archive = archive_root(root.value());
  }
}

}  // namespace
}  // namespace orvia
