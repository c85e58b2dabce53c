#include <gtest/gtest.h>

#include <cctype>
#include <limits>
#include <optional>
#include <string>

#include "platform/bplist_format.h"
#include "platform/description.h"
#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "platform/prefault.h"
#include "support/gnustep_peer.h"
#include "support/streamed_list.h"
#include "support/support.h"

namespace orvia {
namespace {

using Tops = std::vector<std::pair<std::string, Ref<Object>>>;

Tops fixture_tops(const std::string& name) {
  auto r = unarchive_top(test::read_file(test::fixture("keyed-archives/" + name)));
  EXPECT_TRUE(r.ok()) << name << ": " << (r.ok() ? "" : r.error().message);
  return r.ok() ? r.value() : Tops{};
}

// The object under a $top key, or the archive's root object.
Object* top(const Tops& tops, const std::string& key = "") {
  for (auto& [k, v] : tops)
    if (k == key || (key.empty() && (k == "root" || k == "IB.objectdata"))) return v.get();
  return nullptr;
}

const GenericRecord* generic(const Object* o) { return dynamic_cast<const GenericRecord*>(o); }

TEST(KeyedArchiveFixtures, ArchivesWrittenByAppleDecodeToTheirFacts) {
  ORVIA_REQUIRE_FIXTURES();
  // Whole graphs in the JSON form of the GNUstep comparisons: classes (so mutability), kinds of numbers
  // (42 and true kept apart), shared containers and records ($ref), cycles.
  const std::pair<const char*, const char*> graphs[] = {
      {"dict-of-array.plist", R"({"$class":"NSDictionary","$entries":{"Array key":{"$class":"NSArray","$id":2,"$items":[1,2,3]},)"
                              R"("First key":"First value","Second key":"Second value"},"$id":1})"},
      {"custom-class-note.plist", R"({"$class":"Note","$id":1,"array":{"$class":"NSArray","$id":2,"$items":["Hello, World!",42,true]},)"
                                  R"("author":"Michael Wright","date":2025,"published":true,"title":"Some cool title"})"},
      {"self-cycle-mutable-array.plist", R"({"$class":"NSMutableArray","$id":1,"$items":[{"$ref":1}]})"},
      {"shared-url-twice.plist", R"({"$class":"NSDictionary","$entries":{"copyOne":{"$class":"NSURL","$id":2,"NS.base":null,)"
                                 R"("NS.relative":"https://example.com/foo/bar?a=b#hash"},"copyTwo":{"$ref":2}},"$id":1})"},
      {"null-url-uuid-shared-string.plist",
       R"({"$class":"NSDictionary","$entries":{"array":{"$class":"NSArray","$id":2,"$items":[{"$null":true},"hello",34545,)"
       R"({"$class":"NSDictionary","$entries":{"key":"val"},"$id":3}]},"string":"hello","url":{"$class":"NSURL","$id":4,)"
       R"("NS.base":{"$class":"NSURL","$id":5,"NS.base":null,"NS.relative":"https://www.swift.org"},"NS.relative":"index.xml"},)"
       R"("uuid":{"$class":"NSUUID","$id":6,"NS.uuidbytes":{"$data":"71dc068e342045ff919e3a267d55ec22"}}},"$id":1})"},
      {"swift-class-collections.plist",  // no $classes
       R"({"$class":"TestDummy","$id":1,"arrayOfInts":{"$class":"NSArray","$id":2,"$items":[1,2,3]},"arrayOfStrings":)"
       R"({"$class":"NSArray","$id":3,"$items":["foo","bar","baz"]},"dictionary":{"$class":"NSDictionary","$entries":)"
       R"({"baz":"aaa","foo":"bar"},"$id":4},"set":{"$class":"NSSet","$id":5,"$items":["is","not","ordered","set"]}})"},
  };
  for (const auto& [name, expected] : graphs)
    EXPECT_EQ(test::json_text(test::dump_like_gnustep(top(fixture_tops(name)))), test::json_text(nlohmann::json::parse(expected))) << name;
  {  // shared strings: the JSON form shows sharing of containers only
    Tops tops = fixture_tops("null-url-uuid-shared-string.plist");
    EXPECT_EQ(as_array(as_dict(top(tops))->get("array"))->at(1).get(), as_dict(top(tops))->get("string"));
    Tops swift = fixture_tops("swift-class-collections.plist");  // keys shared with the array's strings
    EXPECT_EQ(as_dict(generic(top(swift))->get("dictionary"))->entries()[0].first.get(),
              as_array(generic(top(swift))->get("arrayOfStrings"))->at(2).get());
  }
  {  // NSMutableString, NSMutableData, empty dictionary
    Tops tops = fixture_tops("mutable-attributed-string.plist");
    const GenericRecord* s = generic(top(tops));
    ASSERT_NE(s, nullptr);
    EXPECT_TRUE(deep_equal(s->get("NSString"), mutable_str("firstsecondthird").get()));
    EXPECT_TRUE(as_string(s->get("NSString"))->is_mutable());
    EXPECT_TRUE(deep_equal(s->get("NSAttributeInfo"), orvia::data(std::string("\x05\x00\x0b\x01", 4)).get()));
    EXPECT_TRUE(as_data(s->get("NSAttributeInfo"))->is_mutable());
    EXPECT_TRUE(as_dict(as_array(s->get("NSAttributes"))->at(1).get())->empty());
  }
  {  // $0.. keys, three separate "Hello, World!"
    Tops tops = fixture_tops("primitives-unkeyed-top.bplist");
    ASSERT_EQ(tops.size(), 12u);
    EXPECT_EQ(top(tops, "$0"), top(tops, "$1"));
    EXPECT_TRUE(as_number(top(tops, "$2"))->is_real());
    EXPECT_TRUE(as_number(top(tops, "$5"))->is_bool());
    EXPECT_NE(top(tops, "$6"), top(tops, "$7"));
    EXPECT_EQ(text_of(top(tops, "$8")), "Hello, World!");
    EXPECT_EQ(as_number(top(tops, "$11"))->int_value(), 42);
    Tops sets = fixture_tops("arrays-sets-unkeyed-top.bplist");
    EXPECT_EQ(as_array(top(sets, "$0"))->size(), 12u);
    EXPECT_EQ(test::json_text(test::dump_like_gnustep(top(sets, "$3"))),
              test::json_text(nlohmann::json::parse(R"({"$class":"NSMutableSet","$id":1,"$items":["Hello, World!",42,true]})")));
  }
  {
    auto r = unarchive(test::read_file(test::fixture("keyed-archives/nil-root.plist")));
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(r.value(), nullptr);
  }
  {  // 328 dictionaries sharing key strings
    Tops tops = fixture_tops("ios-running-processes.bplist");
    const Array* a = as_array(top(tops));
    ASSERT_EQ(a->size(), 328u);
    const Dictionary* first = as_dict(a->at(0).get());
    EXPECT_EQ(text_of(first->get("name")), "contactsd");
    EXPECT_EQ(as_date(first->get("startDate"))->time(), 680457815.615284);
    EXPECT_EQ(as_number(first->get("pid"))->int_value(), 84474);
    EXPECT_EQ(text_of(as_dict(a->at(327).get())->get("name")), "Mach Kernel");
    EXPECT_EQ(as_dict(a->at(327).get())->get("startDate"), nullptr);
  }
  {  // 16-byte integer, number keys, a long UTF-16 string
    Tops tops = fixture_tops("ios-gpu-counters.bplist");
    const Array* a = as_array(top(tops));
    EXPECT_EQ(as_number(a->at(1).get())->int_value(), 36079294411123);
    EXPECT_EQ(as_number(a->at(2).get())->int_value(), 4294967998);
    EXPECT_EQ(as_number(as_dict(a->at(4).get())->entries()[0].first.get())->int_value(), 0);
  }
  {  // "$null" slots, deep chains, a cycle
    Tops tops = fixture_tops("mainmenu-2009-keyedobjects.nib");
    ASSERT_NE(generic(top(tops)), nullptr);
    EXPECT_EQ(top(tops)->class_name(), "NSIBObjectData");
  }
  {
    Tops tops = fixture_tops("custom-class-chains.bplist");
    const GenericRecord* t = generic(top(tops));
    EXPECT_EQ(text_of(t->get("tableID")), "fullChangeLog");
    EXPECT_EQ(as_number(t->get("rowHeader"))->int_value(), 2);
    EXPECT_EQ(t->get("replyColumns"), nullptr);
    EXPECT_EQ(as_array(t->get("columns"))->size(), 7u);
  }
}

TEST(KeyedArchive, WritesTheSkeletonAppleWrites) {
  // #1 the array, #2 its string, #3 the class record, as Apple orders them.
  auto plist = read_binary_plist(archive_root(array({str("a")}).get()));
  ASSERT_TRUE(plist.ok()) << plist.error().message;
  std::string text;  // the description on one line: each run of white space as one space
  for (char c : description(plist.value().get()))
    if (!std::isspace(static_cast<unsigned char>(c)) || (!text.empty() && text.back() != ' ')) text += std::isspace(static_cast<unsigned char>(c)) ? ' ' : c;
  EXPECT_EQ(text, "{ \"$archiver\" = NSKeyedArchiver; \"$objects\" = ( \"$null\", { \"$class\" = { \"CF$UID\" = 3; }; "
                  "\"NS.objects\" = ( { \"CF$UID\" = 2; } ); }, a, { \"$classes\" = ( NSArray, NSObject ); "
                  "\"$classname\" = NSArray; } ); \"$top\" = { root = { \"CF$UID\" = 1; }; }; \"$version\" = 100000; }");
}

TEST(KeyedArchive, WritesTheClassChainsAppleWrites) {
  // Each Foundation class archived with a class record, and that record's "$classes" as Apple lists them.
  const std::pair<Ref<Object>, std::string> cases[] = {
      {mutable_array(), "NSMutableArray NSArray NSObject"},  {dict({}), "NSDictionary NSObject"},
      {mutable_dict(), "NSMutableDictionary NSDictionary NSObject"}, {make<Set>(false), "NSSet NSObject"},
      {make<Set>(true), "NSMutableSet NSSet NSObject"},      {mutable_str("s"), "NSMutableString NSString NSObject"},
      {make<Data>(std::string("d"), true), "NSMutableData NSData NSObject"}, {date(0), "NSDate NSObject"},
      {Null::shared(), "NSNull NSObject"},
  };
  for (const auto& [value, chain] : cases) {
    auto plist = read_binary_plist(archive_root(array({value}).get()));
    ASSERT_TRUE(plist.ok()) << plist.error().message;
    std::string found;
    for (const Ref<Object>& entry : as_array(as_dict(plist.value().get())->get("$objects"))->items()) {
      const Dictionary* d = as_dict(entry.get());
      if (!d || !d->get("$classname") || text_of(d->get("$classname")) == "NSArray") continue;
      for (const Ref<Object>& name : as_array(d->get("$classes"))->items())
        found += (found.empty() ? "" : " ") + std::string(text_of(name.get()));
    }
    EXPECT_EQ(found, chain);
  }
}

TEST(KeyedArchive, EveryValueKindRoundTrips) {
  auto shared = mutable_str("shared");
  auto cyclic = mutable_array();
  cyclic->push_back(cyclic);
  Ref<Object> original = dict({
      {"string", str("Zürich 東京 😀")},   {"empty", str("")},
      {"negative", num(-5)},               {"min", num(std::numeric_limits<std::int64_t>::min())},
      {"max", num(std::numeric_limits<std::int64_t>::max())},
      {"unsigned", Number::from_uint(std::numeric_limits<std::uint64_t>::max())},
      {"real", real(1.0 / 3.0)},           {"bool", boolean(false)},
      {"int one", num(1)},                 {"date", date(-123456.789012345)},
      {"data", orvia::data("bytes")},      {"mdata", make<Data>(std::string("m"), true)},
      {"null", Null::shared()},            {"empty array", array()},
      {"empty dict", mutable_dict()},      {"set", make<Set>(true)},
      {"shared1", shared},                 {"shared2", shared},
      {"cycle", cyclic},
  });
  auto back = unarchive(archive_root(original.get()));
  ASSERT_TRUE(back.ok()) << back.error().message;
  const Dictionary* d = as_dict(back.value().get());
  ASSERT_NE(d, nullptr);
  for (const auto& [k, v] : as_dict(original.get())->entries()) {
    const std::string key(text_of(k.get()));
    if (key == "cycle") continue;
    EXPECT_TRUE(deep_equal(v.get(), d->get(key))) << key;
    EXPECT_EQ(v->class_name(), d->get(key)->class_name()) << key;
  }
  EXPECT_EQ(d->get("shared1"), d->get("shared2"));
  EXPECT_EQ(as_array(d->get("cycle"))->at(0).get(), d->get("cycle"));
}

// A record of our own kind, to check the coder API and class chains.
class Node final : public Record {
 public:
  static constexpr std::string_view kChain[] = {"TestNode", "TestBase", "NSObject"};
  std::span<const std::string_view> class_chain() const override { return kChain; }
  void encode_with_coder(KeyedEncoder& c) const override {
    c.encode_object("name", name);
    c.encode_int64("count", count);
    c.encode_bool("flag", flag);
    c.encode_double("weight", weight);
    c.encode_object("children", children);
    c.encode_object("$weird", name);
  }
  void init_with_coder(KeyedDecoder& c) override {
    name = c.decode_object("name");
    count = c.decode_int64("count");
    flag = c.decode_bool("flag");
    weight = c.decode_double("weight");
    children = c.decode_object("children");
    weird = c.decode_object("$weird");
  }
  Ref<Object> name, children, weird;
  std::int64_t count = 0;
  bool flag = false;
  double weight = 0;

 protected:
  void drop_refs() override { name = children = weird = nullptr; }
};

ClassRegistry node_registry() {
  ClassRegistry registry;
  registry.add("TestNode", []() -> Ref<Record> { return make<Node>(); });
  return registry;
}

TEST(KeyedArchive, RecordsUseTheCoderAndDecodeByClassName) {
  auto root = make<Node>();
  root->name = str("root");
  root->count = -7;
  root->flag = true;
  root->weight = 0.5;
  auto child = make<Node>();
  child->children = mutable_array({root});  // a cycle through a list
  root->children = mutable_array({child, child});
  const std::string bytes = archive_root(root.get());

  auto back = unarchive(bytes, node_registry());
  ASSERT_TRUE(back.ok()) << back.error().message;
  auto* r = dynamic_cast<Node*>(back.value().get());
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(text_of(r->name.get()), "root");
  EXPECT_EQ(text_of(r->weird.get()), "root");
  EXPECT_EQ(r->count, -7);
  EXPECT_TRUE(r->flag);
  EXPECT_EQ(r->weight, 0.5);
  const Array* kids = as_array(r->children.get());
  ASSERT_EQ(kids->size(), 2u);
  EXPECT_EQ(kids->at(0).get(), kids->at(1).get());
  EXPECT_EQ(as_array(static_cast<Node*>(kids->at(0).get())->children.get())->at(0).get(), r);

  // Without the class registered: a generic record that keeps every key and re-archives the same.
  auto plain = unarchive(bytes, ClassRegistry());
  ASSERT_TRUE(plain.ok());
  const GenericRecord* g = generic(plain.value().get());
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(std::vector<std::string_view>(g->class_chain().begin(), g->class_chain().end()),
            (std::vector<std::string_view>{"TestNode", "TestBase", "NSObject"}));
  EXPECT_NE(g->get("$weird"), nullptr);
  EXPECT_TRUE(archive_root(plain.value().get()) == bytes);
}

TEST(KeyedArchive, DeepGraphsArchiveAndUnarchiveWithoutRecursion) {
  auto top = make<Node>();
  Node* cur = top.get();
  for (int i = 0; i < 100000; ++i) {
    auto next = make<Node>();
    next->count = i;
    cur->children = array({next});
    cur = next.get();
  }
  auto back = unarchive(archive_root(top.get()), node_registry());
  ASSERT_TRUE(back.ok()) << back.error().message;
  int depth = 0;
  const Node* n = dynamic_cast<const Node*>(back.value().get());
  for (; n && n->children; ++depth) n = dynamic_cast<const Node*>(as_array(n->children.get())->at(0).get());
  EXPECT_EQ(depth, 100000);
  EXPECT_EQ(n->count, 99999);
}

std::string archive_with_objects(const std::string& objects_xml, const std::string& top = "<key>root</key><dict><key>CF$UID</key><integer>1</integer></dict>") {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
         "<key>$archiver</key><string>NSKeyedArchiver</string><key>$version</key><integer>100000</integer>"
         "<key>$top</key><dict>" + top + "</dict><key>$objects</key><array><string>$null</string>" + objects_xml +
         "</array></dict></plist>";
}

TEST(KeyedArchive, MalformedArchivesAreErrors) {
  const std::string uid = "<dict><key>CF$UID</key><integer>";
  // An NSArray or NSMutableArray (class record #2) holding the object of UID `element`.
  auto array_of = [&](const char* element, const char* cls) {
    return archive_with_objects("<dict><key>NS.objects</key><array>" + uid + element + "</integer></dict></array><key>$class</key>" +
                                uid + "2</integer></dict></dict><dict><key>$classname</key><string>" + cls + "</string></dict>");
  };
  const std::pair<const char*, std::string> cases[] = {
      {"not a plist", "hello"},
      {"top level is an array", write_binary_plist(array({str("$null")}).get()).value()},
      {"no $objects", write_binary_plist(dict({{"$top", dict()}}).get()).value()},
      {"$objects not an array", write_binary_plist(dict({{"$top", dict()}, {"$objects", str("x")}}).get()).value()},
      {"root UID beyond $objects", archive_with_objects("", "<key>root</key>" + uid + "99</integer></dict>")},
      {"object without class", archive_with_objects("<dict><key>NS.objects</key><array/></dict>")},
      {"class record not a dictionary",
       archive_with_objects("<dict><key>$class</key>" + uid + "2</integer></dict></dict><string>NSArray</string>")},
      {"class record without name",
       archive_with_objects("<dict><key>$class</key>" + uid + "2</integer></dict></dict><dict/>")},
      {"element UID beyond $objects", array_of("40", "NSArray")},
      {"$top value not a UID", archive_with_objects("", "<key>root</key><string>x</string>")},
  };
  for (const auto& [name, bytes] : cases) EXPECT_FALSE(unarchive(bytes).ok()) << name;
  // An array holding itself through an XML archive is fine: a cycle, restored.
  auto cyc = unarchive(array_of("1", "NSMutableArray"));
  ASSERT_TRUE(cyc.ok()) << cyc.error().message;
  EXPECT_EQ(as_array(cyc.value().get())->at(0).get(), cyc.value().get());
}

TEST(KeyedArchive, ABuiltArchiveIsWrittenAfterItsObjectsAreGone) {
  // Enough objects and bytes for the builder to fill several blocks, taken prepared ahead or made on
  // the spot: the bytes are the same, and nothing of the objects is read once they are freed.
  auto make_root = [] {
    auto root = mutable_array();
    for (int i = 0; i < 120000; ++i) root->push_back(mutable_dict({{"text", str("entry number " + std::to_string(i))}, {"n", num(i)}}));
    return root;
  };
  const std::string expected = archive_root(make_root().get());
  struct Collect final : bplist::Builder::Sink {
    bool put(std::string_view piece) override { return bytes.append(piece), true; }
    std::string bytes;
  };
  for (const std::size_t prepared : {std::size_t{0}, std::size_t{4} << 20, std::size_t{32} << 20}) {
    SCOPED_TRACE(prepared);
    std::optional<PreparedBlocks> ahead;
    if (prepared) ahead.emplace(prepared);
    std::optional<BuiltArchive> built(build_archive(make_root().get()));
    ahead.reset();  // blocks nobody took are freed; the builder keeps those it took
    Collect sink;
    ASSERT_TRUE(built->write_to(sink));
    EXPECT_TRUE(sink.bytes == expected);
  }
}

TEST(KeyedArchive, GraphsAreWrittenAsTheirObjectsAre) {
  static const Ref<String> key_a = immortal(str("a")), key_b = immortal(str("b"));
  static const Ref<Number> seven = immortal(num(7));
  // A record-shaped graph: shared nodes, constants, nested containers, every kind of plain value.
  auto shaped = [](FlatGraph& g, bool with_cycle) {
    const FlatGraph::Node root = g.dictionary(true), inner = g.dictionary(false), list = g.array(false);
    const FlatGraph::Node shared = g.string("shared text"), a = g.existing(key_a.get()), b = g.existing(key_b.get());
    g.put(root, a, shared);
    g.put(root, b, inner);
    g.put(inner, a, shared);  // the same string object twice: one UID
    g.put(inner, g.string("caf\xC3\xA9 \xF0\x9F\x8C\x8A"), g.owned_string("owned"));
    g.put(inner, b, list);
    g.append(list, g.signed_number(-5));
    g.append(list, g.unsigned_number(UINT64_MAX));
    g.append(list, g.real_number(2.5));
    g.append(list, g.existing(boolean(true).get()));
    g.append(list, g.existing(seven.get()));
    g.append(list, g.string("shared text"));  // equal text, another object: another UID
    g.append(list, g.array(true));
    // Dictionaries whose keys are all constants, in two orders (one of them twice, nested): each
    // shape's keys are worked out once per archive, and later dictionaries of that shape reuse them.
    const FlatGraph::Node pair = g.dictionary(false), again = g.dictionary(true), swapped = g.dictionary(false);
    g.put(pair, a, g.signed_number(1));
    g.put(pair, b, shared);
    g.put(again, a, g.string("x"));
    g.put(again, b, pair);
    g.put(swapped, b, g.signed_number(2));
    g.put(swapped, a, g.existing(seven.get()));
    g.append(list, again);
    g.append(list, swapped);
    if (with_cycle) g.append(list, list);
    g.put(root, g.string("empty"), g.dictionary(true));
    return root;
  };
  FlatGraph first, second, cyclic;
  const FlatGraph::Node r1 = shaped(first, false), r2 = shaped(second, false), r3 = shaped(cyclic, true);
  // Not only constants: the graph holds an object that could go away, so its objects are written.
  auto owned_value = str("an object of the caller");
  FlatGraph holding;
  const FlatGraph::Node r4 = holding.dictionary(true);
  holding.put(r4, holding.existing(key_a.get()), holding.existing(owned_value.get()));
  const struct {
    const char* name;
    std::vector<std::pair<const FlatGraph*, FlatGraph::Node>> graphs;
    int depth;
  } cases[] = {
      {"one graph", {{&first, r1}}, 0},
      {"two graphs sharing constants", {{&first, r1}, {&second, r2}}, 0},
      {"a cycle", {{&cyclic, r3}, {&first, r1}}, 0},
      {"an object that is not a constant", {{&holding, r4}, {&first, r1}}, 0},
      {"deep enough to leave parts for the end", {{&first, r1}, {&cyclic, r3}}, 93},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<test::StreamedList::Item> as_graphs, as_objects;
    for (const auto& [graph, root] : c.graphs) {
      as_graphs.push_back({nullptr, graph, root});
      as_objects.push_back({graph->materialize(root)});
    }
    const std::string expected = test::archive_streamed(as_objects, c.depth);
    EXPECT_TRUE(test::archive_streamed(as_graphs, c.depth) == expected);
    EXPECT_TRUE(unarchive(expected).ok());
  }
}

}  // namespace
}  // namespace orvia
