#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
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

// A value tree holding every kind the preferences and archives use.
Ref<Object> every_kind() {
  auto nested = mutable_dict({{"empty array", array()}, {"empty dict", dict()}, {"zero", num(0)}});
  return dict({
      {"ascii", str("plain text")}, {"empty", str("")}, {"unicode", str("Zürich 東京 café 😀")}, {"negative", num(-42)},
      {"int64 min", num(std::numeric_limits<std::int64_t>::min())},
      {"int64 max", num(std::numeric_limits<std::int64_t>::max())},
      {"uint64 max", Number::from_uint(std::numeric_limits<std::uint64_t>::max())},
      {"byte", num(255)}, {"short", num(65535)}, {"word", num(4294967295ll)},
      {"real", real(0.1)}, {"negative real", real(-1e-300)},
      {"yes", boolean(true)}, {"no", boolean(false)}, {"one", num(1)},
      {"date", date(728487838.094653)}, {"old date", date(-1e9 + 0.25)},
      {"data", orvia::data(std::string("\x00\x01\xff binary", 10))},
      {"list", array({str("a"), num(2), boolean(true), array({str("deep")})})},
      {"nested", nested},
  });
}

TEST(BinaryPlist, EveryKindRoundTripsExactly) {
  Ref<Object> original = every_kind();
  auto back = read_binary_plist(write_binary_plist(original.get()).value());
  ASSERT_TRUE(back.ok()) << back.error().message;
  EXPECT_TRUE(deep_equal(original.get(), back.value().get()));
  // Key order is the order written.
  const auto& entries = as_dict(back.value().get())->entries();
  EXPECT_EQ(text_of(entries.front().first.get()), "ascii");
  EXPECT_EQ(text_of(entries.back().first.get()), "nested");
  // Through XML (libplist) too, apart from the unsigned value XML cannot carry above 2^63 and the
  // sub-microsecond part of dates.
  const Ref<Object> plain = dict({{"s", str("Zürich")}, {"n", num(-7)}, {"b", boolean(false)}, {"r", real(2.5)}});
  auto from_xml = read_property_list(write_xml_plist(plain.get()).value());
  ASSERT_TRUE(from_xml.ok()) << from_xml.error().message;
  EXPECT_TRUE(deep_equal(from_xml.value().get(), plain.get()));
}

// Two other readers, libplist and Python's plistlib, read our bytes to the same values.
TEST(BinaryPlist, LibplistAndPythonReadOurBytesToTheSameValues) {
  auto bytes = write_binary_plist(every_kind().get());
  ASSERT_TRUE(bytes.ok());
  plist_t p = nullptr;
  plist_from_bin(bytes->data(), static_cast<uint32_t>(bytes->size()), &p);
  ASSERT_NE(p, nullptr);
  std::unique_ptr<void, void (*)(plist_t)> own(p, plist_free);
  char* s = nullptr;
  plist_get_string_val(plist_dict_get_item(p, "unicode"), &s);
  EXPECT_STREQ(s, "Zürich 東京 café 😀");
  free(s);
  int64_t neg = 0;
  plist_get_uint_val(plist_dict_get_item(p, "negative"), reinterpret_cast<uint64_t*>(&neg));
  EXPECT_EQ(neg, -42);
  double r = 0;
  plist_get_real_val(plist_dict_get_item(p, "real"), &r);
  EXPECT_EQ(r, 0.1);
  EXPECT_EQ(plist_get_node_type(plist_dict_get_item(p, "yes")), PLIST_BOOLEAN);
  EXPECT_EQ(plist_get_node_type(plist_dict_get_item(p, "one")), PLIST_UINT);

  // Python's plistlib: print a canonical text of what it reads.
  test::TempDir dir;
  test::write_file(dir / "in.plist", bytes.value());
  std::string cmd = "python3 -c \"import plistlib,sys; d=plistlib.load(open(sys.argv[1],'rb')); "
                    "print(d['unicode']=='Zürich 東京 café 😀', d['negative'], d['int64 min'], d['uint64 max'], "
                    "repr(d['real']), d['yes'] is True, type(d['one']) is int, d['data'], "
                    "d['date'].isoformat(), d['list'], d['nested'])\" " + (dir / "in.plist").string();
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(cmd.c_str(), "r"), pclose);
  ASSERT_TRUE(pipe);
  char buf[4096] = {};
  std::string out;
  while (fgets(buf, sizeof buf, pipe.get())) out += buf;
  EXPECT_EQ(out,
            "True -42 -9223372036854775808 18446744073709551615 0.1 True True b'\\x00\\x01\\xff binary' "
            "2024-02-01T13:43:58.094653 ['a', 2, True, ['deep']] {'empty array': [], 'empty dict': {}, 'zero': 0}\n");
}

TEST(BinaryPlist, WritesSmallestSizesAndSharesEqualScalars) {
  // 300 equal strings and numbers are written once each: the file holds few objects.
  auto list = mutable_array();
  for (int i = 0; i < 300; ++i) {
    list->push_back(str("same"));
    list->push_back(num(7));
  }
  auto bytes = write_binary_plist(list.get());
  ASSERT_TRUE(bytes.ok());
  auto view = bplist::View::open(bytes.value());
  ASSERT_TRUE(view.ok());
  EXPECT_EQ(view->size(), 3u);
  const auto* trailer = reinterpret_cast<const unsigned char*>(bytes->data() + bytes->size() - 32);
  EXPECT_EQ(trailer[7], 1);  // one-byte references
  EXPECT_EQ(trailer[6], 2);  // the offset table lies beyond byte 255
}

TEST(BinaryPlist, ReadsPreferenceFilesWrittenByMacOS) {
  ORVIA_REQUIRE_FIXTURES();
  auto global = read_property_list_file(test::fixture("preferences/global-prefs-2024.plist"));
  ASSERT_TRUE(global.ok()) << global.error().message;
  const Dictionary* g = as_dict(global.value().get());
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->size(), 55u);
  EXPECT_TRUE(deep_equal(g->get("AKLastEmailListRequestDateKey"), date(728487838.094653).get()));
  EXPECT_EQ(as_number(g->get("NSWindowResizeTime"))->real_value(), 0.0010000000474974513);
  EXPECT_EQ(text_of(g->get("KB_DoubleQuoteOption")), "“abc”");
  EXPECT_TRUE(deep_equal(g->get("AppleLanguages"), array({str("en"), str("us")}).get()));
  auto terminal = read_property_list_file(test::fixture("preferences/terminal-prefs-2013.plist"));
  ASSERT_TRUE(terminal.ok()) << terminal.error().message;
  const Dictionary* t = as_dict(terminal.value().get());
  EXPECT_EQ(text_of(t->get("Default Window Settings")), "Dark");
  EXPECT_EQ(as_number(t->get("ProfileCurrentVersion"))->real_value(), 2.02);
  EXPECT_EQ(as_dict(t->get("Window Settings"))->size(), 11u);
}

// Builds a bplist by hand: objects given as raw bytes, then offset table and trailer.
std::string hand_made(const std::vector<std::string>& objects, unsigned ref_size = 1, std::uint64_t top = 0,
                      std::uint64_t claimed_count = 0, unsigned offset_size = 1) {
  std::string out = "bplist00";
  std::vector<std::uint64_t> offsets;
  for (const auto& o : objects) {
    offsets.push_back(out.size());
    out += o;
  }
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

TEST(BinaryPlist, MalformedInputsAreErrors) {
  std::string good = write_binary_plist(dict({{"a", array({str("x"), num(1)})}}).get()).value();
  std::vector<std::pair<const char*, std::string>> cases = {
      {"empty", ""},
      {"magic only", "bplist00"},
      {"not a plist", std::string(64, 'x')},
      {"truncated by one byte", good.substr(0, good.size() - 1)},
      {"array holding itself", hand_made({std::string("\xA1\x00", 2)})},
      {"dictionary holding itself as value", hand_made({std::string("\xD1\x01\x00", 3), "\x51k"})},
      {"reference out of range", hand_made({std::string("\xA1\x07", 2)})},
      {"top beyond count", hand_made({"\x09"}, 1, 5)},
      {"absurd object count", hand_made({"\x09"}, 1, 0, 1ull << 60)},
      {"absurd array count", hand_made({std::string("\xAF\x13\x7f\xff\xff\xff\xff\xff\xff\xff", 10)})},
      {"string longer than the file", hand_made({std::string("\x5F\x12\x7f\xff\xff\xff", 6)})},
      {"unknown marker", hand_made({"\xE0"})},
      {"non-string dictionary key", hand_made({std::string("\xD1\x01\x01", 3), "\x10\x05"})},
      {"bad reference size", hand_made({"\x09"}, 3)},
      // Each one byte short of the object area, in the forms read most often.
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
}

TEST(BinaryPlist, DeepNestingAndSharedContainersReadBackAsWritten) {
  // 100,000 levels are read and freed without recursion; a container written once is read as one object.
  Ref<Array> cur = mutable_array({str("bottom")});
  for (int i = 0; i < 100000; ++i) cur = mutable_array({cur});
  const Ref<Object> top = array({cur, cur});
  auto back = read_binary_plist(write_binary_plist(top.get()).value());
  ASSERT_TRUE(back.ok()) << back.error().message;
  EXPECT_TRUE(deep_equal(top.get(), back.value().get()));
  EXPECT_EQ(as_array(back.value().get())->at(0).get(), as_array(back.value().get())->at(1).get());
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
  for (const char* name : {"empty.plist", "folder.plist", "missing.plist"})
    EXPECT_FALSE(read_property_list_file((dir / name).string()).ok()) << name;
  for (auto read : {read_property_list_file((dir / "large.plist").string()), std::move(through_pipe)}) {
    ASSERT_TRUE(read.ok()) << read.error().message;
    EXPECT_TRUE(deep_equal(read.value().get(), list.get()));
  }
}

TEST(Plist, WrongTopLevelKindsAndWriterLimits) {
  EXPECT_FALSE(write_binary_plist(nullptr).ok());
  EXPECT_FALSE(write_binary_plist(array({Null::shared()}).get()).ok());
  auto self = mutable_array();
  self->push_back(self);
  EXPECT_FALSE(write_binary_plist(self.get()).ok());
  EXPECT_FALSE(read_property_list("<?xml version=\"1.0\"?><plist><dict><key>a</key>").ok());
  // A top level that is not a dictionary still reads: callers decide what they accept.
  auto s = read_property_list(write_binary_plist(str("top").get()).value());
  ASSERT_TRUE(s.ok());
  EXPECT_EQ(text_of(s.value().get()), "top");
}

using Options = bplist::Builder::WriteOptions;

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
    if (count++ == refuse_at) return false;
    bytes.append(piece);
    return true;
  }
  void finished() override {
    EXPECT_EQ(finished_at, 0u) << "told twice";
    finished_at = count + 1;
  }
};

// `write` hands one file to the sink in pieces: with one thread, then two in runs of objects small and
// large enough that runs are buffered, or written straight on because a large object makes them larger
// than a buffer may be; with the size asked for or not, and with a sink that refuses the
// second piece.
void expect_written_in_pieces(const std::string& whole, const std::function<bool(Pieces&, const Options&)>& write) {
  for (const Options& options : {Options{1}, Options{2, 7, 1 << 16}, Options{2, 1000, 8 << 20},
                                 Options{2, 65536, 8 << 20}, Options{2, 70000, 1}}) {
    for (const int mode : {0, 1, 2}) {
      SCOPED_TRACE(testing::Message() << options.threads << " threads, runs of " << options.run_objects
                                      << (mode == 0 ? ", size wanted" : mode == 2 ? ", refused" : ""));
      Pieces pieces;
      pieces.wants = mode == 0;
      pieces.refuse_at = mode == 2 ? 1 : SIZE_MAX;
      EXPECT_EQ(write(pieces, options), mode != 2);
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

TEST(BinaryPlist, WritingInPiecesGivesTheSameBytes) {
  // Objects larger than a piece (strings, data, a container's references) cross piece boundaries; the
  // first string is, or is not, larger than a buffer may be.
  for (const std::size_t first : {std::size_t{3} << 20, std::size_t{12} << 20}) {
    SCOPED_TRACE(first);
    bplist::Builder b;
    std::vector<std::uint32_t> refs = {b.add_string(std::string(first, 'a')), b.add_string(std::string(1 << 19, 'b') + "é"),
                                       b.add_data(std::string((1 << 20) + 1, '\x7f'))};
    for (int i = 0; i < 70000; ++i) refs.push_back(b.add_int(i));
    std::vector<std::uint32_t> many(600000, refs[1]);  // 2.4 MB of references
    refs.push_back(b.reserve());
    b.set_array(refs.back(), many.data(), many.size());
    const std::uint32_t top = b.reserve();
    b.set_array(top, refs.data(), refs.size());
    const std::string whole = b.write(top);
    expect_written_in_pieces(whole, [&](Pieces& sink, const Options& options) { return b.write_to(top, sink, options); });

    auto back = read_binary_plist(whole);
    ASSERT_TRUE(back.ok()) << back.error().message;
    const Array* a = as_array(back.value().get());
    ASSERT_EQ(a->size(), refs.size());
    EXPECT_EQ(as_array(a->at(a->size() - 1).get())->size(), many.size());
    EXPECT_EQ(text_of(a->at(1).get()).size(), (1u << 19) + 2);
  }
}

TEST(BinaryPlist, ABuilderDrainedAsItWritesGivesTheSameBytes) {
  // Its memory goes back run by run while the other thread encodes the runs ahead: a block given back
  // too early would show as wrong bytes (or, under the address sanitizer, as a read of freed memory).
  // The top container is reserved first and filled last, so its references lie in the last block.
  auto build = [](bplist::Builder& b) {
    const std::uint32_t top = b.reserve();
    std::vector<std::uint32_t> refs;
    for (int i = 0; i < 150000; ++i) {
      const std::uint32_t dict = b.reserve();
      const std::uint32_t keys[] = {b.add_string("name"), b.add_string("n")};
      const std::uint32_t values[] = {
          b.add_string(i % 3 ? "place " + std::to_string(i) : "Zürich " + std::to_string(i) + " 東京"), b.add_int(i)};
      b.set_dict(dict, keys, values, 2);
      refs.push_back(dict);
      if (i % 50000 == 7) refs.push_back(b.add_data(std::string((1 << 19) + i, '\x01')));  // a block of its own
    }
    EXPECT_EQ(b.add_string("Zürich 7 東京"), b.add_string("Zürich 7 東京"));  // equal strings stay shared
    b.set_array(top, refs.data(), refs.size());
    return top;
  };
  bplist::Builder reference;
  const std::string whole = reference.write(build(reference));
  expect_written_in_pieces(whole, [&](Pieces& sink, const Options& options) {
    bplist::Builder b;
    const bool whole_file = b.drain_to(build(b), sink, options);
    EXPECT_EQ(b.object_count(), 0u);  // empty afterwards, whether whole or stopped
    return whole_file;
  });
  auto back = read_binary_plist(whole);
  ASSERT_TRUE(back.ok()) << back.error().message;
  const Array* a = as_array(back.value().get());
  ASSERT_EQ(a->size(), 150003u);
  EXPECT_EQ(text_of(as_dict(a->at(0).get())->get("name")), "Zürich 0 東京");
}

TEST(BinaryPlist, ValuesAroundTheBuildersInlineRoomKeepEveryBit) {
  // The builder keeps small values and counts in its object record and the rest beside it: values and
  // counts on both sides of that room (58-bit values, 1023 entries) must come back as they went in,
  // and equal strings kept either way must still be found equal.
  const std::uint64_t edge = std::uint64_t{1} << 58;
  bplist::Builder b;
  std::vector<std::uint32_t> refs;
  auto expected = mutable_array();
  auto add = [&](std::uint32_t ref, Ref<Object> value) {
    refs.push_back(ref);
    expected->push_back(std::move(value));
  };
  for (std::uint64_t u : {std::uint64_t{0}, std::uint64_t{1}, edge - 1, edge, edge + 1, std::uint64_t{UINT64_MAX}})
    add(b.add_uid(u), dict({{"CF$UID", Number::from_uint(u)}}));
  for (std::int64_t i : {std::int64_t{-1}, std::int64_t{INT64_MIN}, std::int64_t(edge) - 1, std::int64_t(edge), std::int64_t{INT64_MAX}})
    add(b.add_int(i), num(i));
  add(b.add_uint(UINT64_MAX), Number::from_uint(UINT64_MAX));
  add(b.add_real(-0.5), real(-0.5));
  add(b.add_date(1e300), date(1e300));
  const std::size_t counts[] = {0, 14, 15, 1022, 1023, 1024, 1025, 70000};
  for (std::size_t n : counts) {
    const std::string plain(n, 'a'), wide = std::string(n / 2, 'b') + "é", bytes(n, 'd');  // wide: half as many UTF-16 units
    add(b.add_string(plain), str(plain));
    add(b.add_string(wide), str(wide));
    add(b.add_data(bytes), orvia::data(bytes));
  }
  for (std::size_t t = 0, at = refs.size() - 3 * std::size(counts); t < std::size(counts); ++t, at += 3) {
    SCOPED_TRACE(counts[t]);
    EXPECT_EQ(b.add_string(text_of(expected->at(at).get())), refs[at]);
    EXPECT_EQ(b.add_string(text_of(expected->at(at + 1).get())), refs[at + 1]);
    EXPECT_EQ(b.add_data(as_data(expected->at(at + 2).get())->bytes()), refs[at + 2]);
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
    add(l, list);
    add(d, map);
    add(s, list);
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
    std::string s(n, 'a');
    EXPECT_TRUE(bplist::is_ascii(s)) << n;
    for (std::size_t at = 0; at < n; ++at) {
      for (unsigned char high : {0x80, 0xc3, 0xff}) {
        std::string t = s;
        t[at] = static_cast<char>(high);
        EXPECT_FALSE(bplist::is_ascii(t)) << "length " << n << ", byte " << at;
      }
    }
  }
}

// Strings read from any source hold well-formed UTF-8, so that a value written and read back (or
// archived and unarchived) is the value read: ill-formed bytes read as U+FFFD, for each maximal
// ill-formed part, as Unicode recommends.
TEST(PlistText, IllFormedUtf8ReadsAsReplacementAndRoundTrips) {
  const std::string kFFFD = "\xEF\xBF\xBD";
  const struct {
    const char* name;
    std::string stored, read;
  } cases[] = {
      {"well-formed", "caf\xC3\xA9 \xF0\x9F\x98\x80", "caf\xC3\xA9 \xF0\x9F\x98\x80"},
      {"a real U+FFFD stays", kFFFD, kFFFD},
      {"lone continuation byte", "a\x80z", "a" + kFFFD + "z"},
      {"truncated three-byte sequence", "\xE2\x82z", kFFFD + "z"},
      {"truncated at the end", "ab\xF0\x9F\x98", "ab" + kFFFD},
      {"overlong slash", "\xC0\xAF", kFFFD + kFFFD},
      {"surrogate", "\xED\xA0\x80", kFFFD + kFFFD + kFFFD},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80", kFFFD + kFFFD + kFFFD + kFFFD},
      {"lead byte before ASCII", std::string("?\xF0\x00\x01\x00", 5), "?" + kFFFD + std::string("\x00\x01\x00", 3)},
      {"byte FF", "\xFF", kFFFD},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    // Read from a binary property list (a UTF-8 string object, marker 0x7n).
    auto read = read_binary_plist(hand_made({static_cast<char>(0x70 | c.stored.size()) + c.stored}));
    ASSERT_TRUE(read.ok()) << read.error().message;
    EXPECT_EQ(text_of(read.value().get()), c.read);
    // Written as it is held (a string made in memory with ill-formed bytes writes the same way).
    const Ref<Object> made = str(c.stored);
    for (const Ref<Object>& value : {read.value(), made}) {
      auto back = read_binary_plist(write_binary_plist(value.get()).value());
      ASSERT_TRUE(back.ok()) << back.error().message;
      EXPECT_EQ(text_of(back.value().get()), c.read);
    }
    // Read from XML (libplist passes the bytes through), as a key and as a value.
    if (c.stored.find('\0') != std::string::npos) continue;
    auto xml = read_xml_plist("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>" + c.stored + "</key><string>" +
                              c.stored + "</string></dict></plist>");
    ASSERT_TRUE(xml.ok()) << xml.error().message;
    const Dictionary* d = as_dict(xml.value().get());
    ASSERT_TRUE(d && d->size() == 1);
    EXPECT_EQ(text_of(d->entries()[0].first.get()), c.read);
    EXPECT_EQ(text_of(d->entries()[0].second.get()), c.read);
  }
  // Asking libplist for the C string of a string holding NUL would end the process; the text ends at the NUL.
  auto nul = read_xml_plist(std::string("<plist version=\"1.0\"><array><string>a\0b</string></array></plist>", 64));
  ASSERT_TRUE(nul.ok()) << nul.error().message;
  EXPECT_TRUE(deep_equal(nul.value().get(), array({str("a")}).get()));
}

TEST(PlistText, ArchivedKeysReadAsStringValuesDo) {
  // A record of an unknown class whose key is an ASCII-marker string with a Latin-1 byte, and one whose
  // key is ill-formed UTF-8: the keys read as the strings would, and archive back unchanged.
  const std::string latin1_key = "\x54" "caf\xE9";     // 0x54: ASCII string of 4 bytes
  const std::string ill_formed_key = "\x72" "a\xFF";  // 0x72: UTF-8 string of 2 bytes
  // $top {root: UID 1}; $objects [$null, the record, its class {$classname: "Thing"}].
  std::string archive = hand_made({
      std::string("\xD4\x01\x02\x03\x04\x05\x06\x07\x08", 9),
      "\x59$archiver", "\x58$version", "\x54$top", "\x58$objects",
      std::string("\x5F\x10\x0F", 3) + "NSKeyedArchiver", std::string("\x12\x00\x01\x86\xA0", 5),
      std::string("\xD1\x09\x0A", 3),
      std::string("\xA3\x0B\x0C\x0D", 4),
      "\x54root", std::string("\x80\x01", 2),
      "\x55$null",
      std::string("\xD3\x0E\x0F\x10\x11\x12\x13", 7),
      std::string("\xD1\x14\x15", 3),
      "\x56$class", latin1_key, ill_formed_key,
      std::string("\x80\x02", 2), std::string("\x10\x01", 2), std::string("\x10\x02", 2),
      "\x5A$classname", "\x55Thing",
  });
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round == 0 ? "as stored" : "archived again");
    auto root = unarchive(archive);
    ASSERT_TRUE(root.ok()) << root.error().message;
    const auto* record = dynamic_cast<const GenericRecord*>(root.value().get());
    ASSERT_NE(record, nullptr);
    ASSERT_EQ(record->fields().size(), 2u);
    EXPECT_EQ(record->fields()[0].key, "caf\xC3\xA9");
    EXPECT_EQ(record->fields()[1].key, "a\xEF\xBF\xBD");
    EXPECT_EQ(as_number(record->get("caf\xC3\xA9"))->int_value(), 1);
    archive = archive_root(root.value());
  }
}

}  // namespace
}  // namespace orvia
