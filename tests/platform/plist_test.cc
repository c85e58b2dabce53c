#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <thread>

#include <plist/plist.h>

#include "platform/bplist_format.h"
#include "platform/plist.h"
#include "support/support.h"

namespace orvia {
namespace {

// A value tree holding every kind the preferences and archives use.
Ref<Object> every_kind() {
  auto nested = mutable_dict({{"empty array", array()}, {"empty dict", dict()}, {"zero", num(0)}});
  return dict({
      {"ascii", str("plain text")},
      {"empty", str("")},
      {"unicode", str("Zürich 東京 café 😀")},
      {"negative", num(-42)},
      {"int64 min", num(std::numeric_limits<std::int64_t>::min())},
      {"int64 max", num(std::numeric_limits<std::int64_t>::max())},
      {"uint64 max", Number::from_uint(std::numeric_limits<std::uint64_t>::max())},
      {"byte", num(255)},
      {"short", num(65535)},
      {"word", num(4294967295ll)},
      {"real", real(0.1)},
      {"negative real", real(-1e-300)},
      {"yes", boolean(true)},
      {"no", boolean(false)},
      {"one", num(1)},
      {"date", date(728487838.094653)},
      {"old date", date(-1e9 + 0.25)},
      {"data", orvia::data(std::string("\x00\x01\xff binary", 10))},
      {"list", array({str("a"), num(2), boolean(true), array({str("deep")})})},
      {"nested", nested},
  });
}

TEST(BinaryPlist, EveryKindRoundTripsExactly) {
  Ref<Object> original = every_kind();
  auto bytes = write_binary_plist(original.get());
  ASSERT_TRUE(bytes.ok()) << bytes.error().message;
  auto back = read_binary_plist(bytes.value());
  ASSERT_TRUE(back.ok()) << back.error().message;
  EXPECT_TRUE(deep_equal(original.get(), back.value().get()));
  // Key order is the order written.
  const auto& entries = as_dict(back.value().get())->entries();
  EXPECT_EQ(text_of(entries.front().first.get()), "ascii");
  EXPECT_EQ(text_of(entries.back().first.get()), "nested");
  // Through XML (libplist) too, apart from the unsigned value XML cannot carry above 2^63 and the
  // sub-microsecond part of dates.
  const Ref<Object> plain = dict({{"s", str("Zürich")}, {"n", num(-7)}, {"b", boolean(false)}, {"r", real(2.5)}});
  auto xml = write_xml_plist(plain.get());
  ASSERT_TRUE(xml.ok()) << xml.error().message;
  auto from_xml = read_property_list(xml.value());
  ASSERT_TRUE(from_xml.ok()) << from_xml.error().message;
  EXPECT_TRUE(deep_equal(from_xml.value().get(), plain.get()));
}

struct PlistFree {
  void operator()(plist_t p) const { plist_free(p); }
};

// Two other readers, libplist and Python's plistlib, read our bytes to the same values.
TEST(BinaryPlist, LibplistAndPythonReadOurBytesToTheSameValues) {
  auto bytes = write_binary_plist(every_kind().get());
  ASSERT_TRUE(bytes.ok());
  plist_t p = nullptr;
  plist_from_bin(bytes->data(), static_cast<uint32_t>(bytes->size()), &p);
  ASSERT_NE(p, nullptr);
  std::unique_ptr<void, PlistFree> own(p);
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
  ASSERT_NE(as_date(g->get("AKLastEmailListRequestDateKey")), nullptr);
  EXPECT_EQ(as_date(g->get("AKLastEmailListRequestDateKey"))->time(), 728487838.094653);
  EXPECT_EQ(as_number(g->get("NSWindowResizeTime"))->real_value(), 0.0010000000474974513);
  EXPECT_EQ(as_number(g->get("AppleLanguagesSchemaVersion"))->int_value(), 4000);
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
  struct Case {
    const char* name;
    std::string bytes;
  };
  std::vector<Case> cases = {
      {"empty", ""},
      {"magic only", "bplist00"},
      {"not a plist", std::string(64, 'x')},
      {"truncated by one byte", good.substr(0, good.size() - 1)},
      {"truncated to half", good.substr(0, good.size() / 2)},
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
  for (const auto& c : cases) {
    auto r = read_property_list(c.bytes);
    EXPECT_FALSE(r.ok()) << c.name;
  }
}

TEST(BinaryPlist, DeepNestingWithoutCycleReadsAndFrees) {
  Ref<Array> top = mutable_array();
  Ref<Array> cur = top;
  for (int i = 0; i < 100000; ++i) {
    auto next = mutable_array();
    cur->push_back(next);
    cur = next;
  }
  cur->push_back(str("bottom"));
  auto bytes = write_binary_plist(top.get());
  ASSERT_TRUE(bytes.ok());
  auto back = read_binary_plist(bytes.value());
  ASSERT_TRUE(back.ok()) << back.error().message;
  EXPECT_TRUE(deep_equal(top.get(), back.value().get()));
}

TEST(BinaryPlist, SharedContainersAreReadAsOneObject) {
  auto shared = array({str("x")});
  auto bytes = write_binary_plist(array({shared, shared}).get());
  ASSERT_TRUE(bytes.ok());
  auto back = read_binary_plist(bytes.value());
  ASSERT_TRUE(back.ok());
  const Array* a = as_array(back.value().get());
  EXPECT_EQ(a->at(0).get(), a->at(1).get());
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
  const struct {
    std::string path;
    bool ok;
  } cases[] = {{(dir / "large.plist").string(), true},  {(dir / "empty.plist").string(), false},
               {(dir / "folder.plist").string(), false}, {(dir / "missing.plist").string(), false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    auto read = read_property_list_file(c.path);
    ASSERT_EQ(read.ok(), c.ok);
    if (c.ok) {
      EXPECT_EQ(as_array(read.value().get())->size(), list->size());
    }
  }
  ASSERT_TRUE(through_pipe.ok()) << through_pipe.error().message;
  EXPECT_EQ(text_of(as_array(through_pipe.value().get())->at(19999).get()), "entry 19999");
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

TEST(BinaryPlist, WritingInPiecesGivesTheSameBytes) {
  // Objects larger than a piece (strings, data, a container's references) cross piece boundaries. A
  // large file's pieces are handed on by a thread of their own: the sink must see the same bytes.
  for (const std::size_t first : {std::size_t{3} << 20, std::size_t{12} << 20}) {
    SCOPED_TRACE(first);
    struct Pieces final : bplist::Builder::Sink {
      std::string bytes;
      std::uint64_t expected = 0;
      std::size_t count = 0;
      std::size_t finished_at = 0;  // pieces seen when told the file was whole, plus one
      bool wants = false;           // asks for the file's size before its first piece
      bool wants_size() const override { return wants; }
      void expect(std::uint64_t total) override {
        EXPECT_EQ(count, 0u) << "the size after a piece";
        expected = total;
      }
      bool put(std::string_view piece) override {
        EXPECT_EQ(finished_at, 0u) << "a piece after the end";
        bytes.append(piece);
        ++count;
        return true;
      }
      void finished() override {
        EXPECT_EQ(finished_at, 0u) << "told twice";
        finished_at = count + 1;
      }
    };
    bplist::Builder b;
    std::vector<std::uint32_t> refs;
    refs.push_back(b.add_string(std::string(first, 'a')));
    refs.push_back(b.add_string(std::string(1 << 19, 'b') + "é"));
    refs.push_back(b.add_data(std::string((1 << 20) + 1, '\x7f')));
    for (int i = 0; i < 70000; ++i) refs.push_back(b.add_int(i));
    std::vector<std::uint32_t> many(600000, refs[1]);  // 2.4 MB of references
    const std::uint32_t big = b.reserve();
    b.set_array(big, many.data(), many.size());
    refs.push_back(big);
    const std::uint32_t top = b.reserve();
    b.set_array(top, refs.data(), refs.size());

    const std::string whole = b.write(top);
    // One thread; then two, in runs of objects small and large enough that runs are buffered, or
    // written straight on because a large object makes them larger than a buffer may be.
    using Options = bplist::Builder::WriteOptions;
    for (const Options& options : {Options{1}, Options{2, 7, 1 << 16}, Options{2, 1000, 8 << 20},
                                   Options{2, 65536, 8 << 20}, Options{2, 70000, 1}}) {
      for (const bool wants : {true, false}) {
        SCOPED_TRACE(testing::Message() << options.threads << " threads, runs of " << options.run_objects
                                        << (wants ? ", size wanted" : ""));
        Pieces pieces;
        pieces.wants = wants;
        ASSERT_TRUE(b.write_to(top, pieces, options));
        // One thread knows the size before it writes; two size each run as they encode it, unless asked.
        EXPECT_EQ(pieces.expected, wants || options.threads == 1 ? whole.size() : 0u);
        EXPECT_GT(pieces.count, 5u);
        EXPECT_EQ(pieces.finished_at, pieces.count + 1);
        EXPECT_TRUE(pieces.bytes == whole);
      }
    }
    auto back = read_binary_plist(whole);
    ASSERT_TRUE(back.ok()) << back.error().message;
    const Array* a = as_array(back.value().get());
    ASSERT_EQ(a->size(), refs.size());
    EXPECT_EQ(as_array(a->at(a->size() - 1).get())->size(), many.size());
    EXPECT_EQ(text_of(a->at(1).get()).size(), (1u << 19) + 2);

    // A sink that refuses stops the writing.
    struct Refusing final : bplist::Builder::Sink {
      int calls = 0;
      bool put(std::string_view) override { return ++calls < 2; }
      void finished() override { ADD_FAILURE() << "told a stopped file was whole"; }
    } refusing, refusing_two;
    EXPECT_FALSE(b.write_to(top, refusing));
    EXPECT_EQ(refusing.calls, 2);
    EXPECT_FALSE(b.write_to(top, refusing_two, {2, 1000, 1 << 16}));
    EXPECT_EQ(refusing_two.calls, 2);
  }
}

TEST(BinaryPlist, ValuesAroundTheBuildersInlineRoomKeepEveryBit) {
  // The builder keeps small values and counts in its object record and the rest beside it: values and
  // counts on both sides of that room (58-bit values, 1023 entries) must come back as they went in,
  // and equal strings kept either way must still be found equal.
  const std::uint64_t edge = std::uint64_t{1} << 58;
  const std::uint64_t uids[] = {0, 1, edge - 1, edge, edge + 1, std::numeric_limits<std::uint64_t>::max()};
  const std::int64_t ints[] = {-1, std::numeric_limits<std::int64_t>::min(), std::int64_t(edge) - 1, std::int64_t(edge),
                               std::numeric_limits<std::int64_t>::max()};
  const std::size_t counts[] = {0, 14, 15, 1022, 1023, 1024, 1025, 70000};
  bplist::Builder b;
  std::vector<std::uint32_t> refs;
  for (std::uint64_t u : uids) refs.push_back(b.add_uid(u));
  for (std::int64_t i : ints) refs.push_back(b.add_int(i));
  refs.push_back(b.add_uint(std::numeric_limits<std::uint64_t>::max()));
  refs.push_back(b.add_real(-0.5));
  refs.push_back(b.add_date(1e300));
  std::vector<std::string> texts;
  for (std::size_t n : counts) {
    texts.push_back(std::string(n, 'a'));
    texts.push_back(std::string(n / 2, 'b') + "é");  // UTF-16 units: about half as many as bytes
    texts.push_back(std::string(n, 'd'));             // as data
  }
  for (std::size_t t = 0; t < texts.size(); ++t)
    refs.push_back(t % 3 == 2 ? b.add_data(texts[t]) : b.add_string(texts[t]));
  for (std::size_t t = 0; t < texts.size(); ++t) {
    SCOPED_TRACE(t);
    EXPECT_EQ(t % 3 == 2 ? b.add_data(texts[t]) : b.add_string(texts[t]), refs[refs.size() - texts.size() + t]);
  }
  std::vector<std::uint32_t> lists;
  for (std::size_t n : counts) {
    std::vector<std::uint32_t> members(n, refs[0]), keys(n), values(n, refs[1]);
    for (std::size_t k = 0; k < n; ++k) keys[k] = b.add_int(static_cast<std::int64_t>(k));
    lists.push_back(b.reserve());
    b.set_array(lists.back(), members.data(), n);
    lists.push_back(b.reserve());
    b.set_dict(lists.back(), keys.data(), values.data(), n);
    lists.push_back(b.reserve());
    b.set_shared_array(lists.back(), b.share_refs(members.data(), n), n);
  }
  refs.insert(refs.end(), lists.begin(), lists.end());
  const std::uint32_t top = b.reserve();
  b.set_array(top, refs.data(), refs.size());
  const std::string bytes = b.write(top);

  auto view = bplist::View::open(bytes);
  ASSERT_TRUE(view.ok()) << view.error().message;
  auto all = view->item(view->top());
  ASSERT_TRUE(all.ok());
  std::size_t at = 0;
  auto next = [&]() -> bplist::Item {
    auto r = view->ref(all.value(), at++);
    EXPECT_TRUE(r.ok());
    auto it = view->item(r.ok() ? r.value() : 0);
    EXPECT_TRUE(it.ok());
    return it.ok() ? it.value() : bplist::Item{};
  };
  for (std::uint64_t u : uids) {
    const bplist::Item it = next();
    EXPECT_EQ(it.type, bplist::Type::Uid);
    EXPECT_EQ(it.scalar, u);
  }
  for (std::int64_t i : ints) EXPECT_EQ(static_cast<std::int64_t>(next().scalar), i);
  const bplist::Item unsigned_max = next();
  EXPECT_TRUE(unsigned_max.flag);
  EXPECT_EQ(unsigned_max.scalar, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(view->real(next()), -0.5);
  EXPECT_EQ(view->real(next()), 1e300);
  for (std::size_t t = 0; t < texts.size(); ++t) {
    SCOPED_TRACE(t);
    const bplist::Item it = next();
    EXPECT_EQ(t % 3 == 2 ? std::string(view->raw(it)) : view->text(it), texts[t]);
  }
  for (std::size_t n : counts) {
    for (const bplist::Type type : {bplist::Type::Array, bplist::Type::Dict, bplist::Type::Array}) {
      const bplist::Item it = next();
      EXPECT_EQ(it.type, type);
      EXPECT_EQ(it.count, n);
      const bool dict = type == bplist::Type::Dict;
      if (n) {
        EXPECT_EQ(view->ref(it, dict ? 2 * n - 1 : n - 1).value(), refs[dict ? 1 : 0]);  // the last value
      }
    }
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

  struct Collect final : bplist::Builder::Sink {
    std::string bytes;
    std::size_t refuse_after = SIZE_MAX;
    bool put(std::string_view piece) override {
      if (refuse_after-- == 0) return false;
      bytes.append(piece);
      return true;
    }
  };
  using Options = bplist::Builder::WriteOptions;
  for (const Options& options : {Options{1}, Options{2, 7, 1 << 16}, Options{2, 1000, 8 << 20}, Options{2, 4096, 1}}) {
    SCOPED_TRACE(testing::Message() << options.threads << " threads, runs of " << options.run_objects);
    for (const std::size_t refuse_after : {SIZE_MAX, std::size_t{2}}) {
      bplist::Builder b;
      const std::uint32_t top = build(b);
      Collect sink;
      sink.refuse_after = refuse_after;
      EXPECT_EQ(b.drain_to(top, sink, options), refuse_after == SIZE_MAX);
      EXPECT_EQ(b.object_count(), 0u);  // empty afterwards, whether whole or stopped
      if (refuse_after == SIZE_MAX) {
        EXPECT_TRUE(sink.bytes == whole);
      } else {
        EXPECT_TRUE(whole.compare(0, sink.bytes.size(), sink.bytes) == 0);
      }
    }
  }
  auto back = read_binary_plist(whole);
  ASSERT_TRUE(back.ok()) << back.error().message;
  const Array* a = as_array(back.value().get());
  ASSERT_EQ(a->size(), 150003u);
  EXPECT_EQ(text_of(as_dict(a->at(0).get())->get("name")), "Zürich 0 東京");
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

}  // namespace
}  // namespace orvia
