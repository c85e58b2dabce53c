#include <gtest/gtest.h>

#include <cctype>
#include <limits>
#include <optional>
#include <set>
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
using test::dump_like_gnustep;

Tops fixture_tops(const std::string& name) {
  auto r = unarchive_top(test::read_file(test::fixture("keyed-archives/" + name)));
  EXPECT_TRUE(r.ok()) << name << ": " << (r.ok() ? "" : r.error().message);
  return r.ok() ? r.value() : Tops{};
}

Object* top(const Tops& tops, const std::string& key) {
  for (auto& [k, v] : tops)
    if (k == key) return v.get();
  return nullptr;
}

// Files written on macOS, in the JSON form of the GNUstep comparisons (classes, so mutability; kinds of numbers,
// 42 and true kept apart; shared containers and records as $ref; cycles): a property list as its root, an archive
// as its $top keys. Each row: a file, a JSON pointer into its form, and what lies there ("#n": that many members,
// "-": nothing).
TEST(KeyedArchiveFixtures, FilesWrittenByAppleDecodeToTheirFacts) {
  ORVIA_REQUIRE_FIXTURES();
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"dict-of-array.plist", "/root", R"({"$class":"NSDictionary","$entries":{"Array key":{"$class":"NSArray","$id":2,"$items":[1,2,3]},)"
                                       R"("First key":"First value","Second key":"Second value"},"$id":1})"},
      {"custom-class-note.plist", "/root", R"({"$class":"Note","$id":1,"array":{"$class":"NSArray","$id":2,"$items":["Hello, World!",42,true]},)"
                                           R"("author":"Michael Wright","date":2025,"published":true,"title":"Some cool title"})"},
      {"self-cycle-mutable-array.plist", "/root", R"({"$class":"NSMutableArray","$id":1,"$items":[{"$ref":1}]})"},
      {"shared-url-twice.plist", "/root", R"({"$class":"NSDictionary","$entries":{"copyOne":{"$class":"NSURL","$id":2,"NS.base":null,)"
                                          R"("NS.relative":"https://example.com/foo/bar?a=b#hash"},"copyTwo":{"$ref":2}},"$id":1})"},
      {"null-url-uuid-shared-string.plist", "/root",
       R"({"$class":"NSDictionary","$entries":{"array":{"$class":"NSArray","$id":2,"$items":[{"$null":true},"hello",34545,)"
       R"({"$class":"NSDictionary","$entries":{"key":"val"},"$id":3}]},"string":"hello","url":{"$class":"NSURL","$id":4,)"
       R"("NS.base":{"$class":"NSURL","$id":5,"NS.base":null,"NS.relative":"https://www.swift.org"},"NS.relative":"index.xml"},)"
       R"("uuid":{"$class":"NSUUID","$id":6,"NS.uuidbytes":{"$data":"71dc068e342045ff919e3a267d55ec22"}}},"$id":1})"},
      {"swift-class-collections.plist", "/root",  // no $classes
       R"({"$class":"TestDummy","$id":1,"arrayOfInts":{"$class":"NSArray","$id":2,"$items":[1,2,3]},"arrayOfStrings":)"
       R"({"$class":"NSArray","$id":3,"$items":["foo","bar","baz"]},"dictionary":{"$class":"NSDictionary","$entries":)"
       R"({"baz":"aaa","foo":"bar"},"$id":4},"set":{"$class":"NSSet","$id":5,"$items":["is","not","ordered","set"]}})"},
      {"mutable-attributed-string.plist", "/root/NSString", R"({"$mstring":"firstsecondthird"})"},
      {"mutable-attributed-string.plist", "/root/NSAttributeInfo", R"({"$mdata":"05000b01"})"},
      {"mutable-attributed-string.plist", "/root/NSAttributes/$items/1/$entries", "#0"},
      {"primitives-unkeyed-top.bplist", "", R"({"$0":1,"$1":1,"$2":{"$real":1.0},"$3":{"$real":1.5},"$4":{"$data":"61736466617364666164736661647366"},)"
                                            R"("$5":true,"$6":"Hello, World!","$7":"Hello, World!","$8":"Hello, World!","$9":false,"$10":false,"$11":42})"},
      {"arrays-sets-unkeyed-top.bplist", "/$0/$items", "#12"},
      {"arrays-sets-unkeyed-top.bplist", "/$3", R"({"$class":"NSMutableSet","$id":1,"$items":["Hello, World!",42,true]})"},
      {"nil-root.plist", "/root", "null"},
      {"ios-running-processes.bplist", "/root/$items", "#328"},
      {"ios-running-processes.bplist", "/root/$items/0/$entries/name", R"("contactsd")"},
      {"ios-running-processes.bplist", "/root/$items/0/$entries/startDate", R"({"$date":680457815.615284})"},
      {"ios-running-processes.bplist", "/root/$items/0/$entries/pid", "84474"},
      {"ios-running-processes.bplist", "/root/$items/327/$entries/name", R"("Mach Kernel")"},
      {"ios-running-processes.bplist", "/root/$items/327/$entries/startDate", "-"},
      {"ios-gpu-counters.bplist", "/root/$items/1", "36079294411123"},  // 16-byte integer, number keys
      {"ios-gpu-counters.bplist", "/root/$items/2", "4294967998"},
      {"ios-gpu-counters.bplist", "/root/$items/4/$pairs/0/0", "0"},
      {"mainmenu-2009-keyedobjects.nib", "/IB.objectdata/$class", R"("NSIBObjectData")"},  // "$null" slots, deep chains, a cycle
      {"custom-class-chains.bplist", "/root/tableID", R"("fullChangeLog")"},
      {"custom-class-chains.bplist", "/root/rowHeader", "2"},
      {"custom-class-chains.bplist", "/root/replyColumns", "null"},
      {"custom-class-chains.bplist", "/root/columns/$items", "#7"},
      {"preferences/global-prefs-2024.plist", "/$entries", "#55"},
      {"preferences/global-prefs-2024.plist", "/$entries/AKLastEmailListRequestDateKey", R"({"$date":728487838.094653})"},
      {"preferences/global-prefs-2024.plist", "/$entries/NSWindowResizeTime", R"({"$real":0.0010000000474974513})"},
      {"preferences/global-prefs-2024.plist", "/$entries/KB_DoubleQuoteOption", R"("“abc”")"},
      {"preferences/global-prefs-2024.plist", "/$entries/AppleLanguages/$items", R"(["en","us"])"},
      {"preferences/terminal-prefs-2013.plist", "/$entries/Default Window Settings", R"("Dark")"},
      {"preferences/terminal-prefs-2013.plist", "/$entries/ProfileCurrentVersion", R"({"$real":2.02})"},
      {"preferences/terminal-prefs-2013.plist", "/$entries/Window Settings/$entries", "#11"},
  };
  std::map<std::string, nlohmann::json> forms;
  for (const auto& [file, pointer, expected] : rows) {
    SCOPED_TRACE(testing::Message() << file << " " << pointer);
    nlohmann::json& form = forms[file];
    if (form.is_null() && std::string_view(file).starts_with("preferences/")) {
      auto plist = read_property_list_file(test::fixture(file));
      ASSERT_TRUE(plist.ok()) << plist.error().message;
      form = dump_like_gnustep(plist.value().get());
    } else if (form.is_null()) {
      for (const auto& [key, object] : fixture_tops(file)) form[key] = dump_like_gnustep(object.get());
    }
    const nlohmann::json::json_pointer at(pointer);
    if (expected[0] == '-') EXPECT_FALSE(form.contains(at));
    else if (expected[0] == '#') EXPECT_EQ(form.at(at).size(), std::stoul(expected + 1));
    else EXPECT_EQ(test::json_text(form.at(at)), test::json_text(nlohmann::json::parse(expected)));
  }
  // Strings stored once are one object wherever they are used (the JSON form shows sharing of containers only).
  Tops shared = fixture_tops("null-url-uuid-shared-string.plist"), swift = fixture_tops("swift-class-collections.plist");
  EXPECT_EQ(as_array(as_dict(top(shared, "root"))->get("array"))->at(1).get(), as_dict(top(shared, "root"))->get("string"));
  const auto* dummy = dynamic_cast<const GenericRecord*>(top(swift, "root"));
  EXPECT_EQ(as_dict(dummy->get("dictionary"))->entries()[0].first.get(), as_array(dummy->get("arrayOfStrings"))->at(2).get());
  Tops primitives = fixture_tops("primitives-unkeyed-top.bplist");
  EXPECT_EQ(top(primitives, "$0"), top(primitives, "$1"));
  EXPECT_NE(top(primitives, "$6"), top(primitives, "$7"));
}

// The archive of one array as Apple writes it (#1 the array, #2 its string, #3 the class record), and the
// "$classes" of each Foundation class as Apple lists them.
TEST(KeyedArchive, WritesTheSkeletonAndClassChainsAppleWrites) {
  auto plist = read_binary_plist(archive_root(array({str("a")}).get()));
  ASSERT_TRUE(plist.ok()) << plist.error().message;
  std::string text;  // the description on one line: each run of white space as one space
  for (char c : description(plist.value().get()))
    if (!std::isspace(static_cast<unsigned char>(c)) || (!text.empty() && text.back() != ' ')) text += std::isspace(static_cast<unsigned char>(c)) ? ' ' : c;
  EXPECT_EQ(text, "{ \"$archiver\" = NSKeyedArchiver; \"$objects\" = ( \"$null\", { \"$class\" = { \"CF$UID\" = 3; }; "
                  "\"NS.objects\" = ( { \"CF$UID\" = 2; } ); }, a, { \"$classes\" = ( NSArray, NSObject ); "
                  "\"$classname\" = NSArray; } ); \"$top\" = { root = { \"CF$UID\" = 1; }; }; \"$version\" = 100000; }");
  plist = read_binary_plist(archive_root(array({mutable_array(), dict({}), mutable_dict(), make<Set>(false), make<Set>(true), mutable_str("s"),
                                                make<Data>(std::string("d"), true), date(0), Null::shared()}).get()));
  std::set<std::string> chains;
  for (const Ref<Object>& entry : as_array(as_dict(plist.value().get())->get("$objects"))->items()) {
    if (!as_dict(entry.get()) || !as_dict(entry.get())->get("$classes")) continue;
    std::string chain;
    for (const Ref<Object>& name : as_array(as_dict(entry.get())->get("$classes"))->items()) chain += std::string(text_of(name.get())) + " ";
    chains.insert(chain);
  }
  EXPECT_EQ(chains, (std::set<std::string>{"NSArray NSObject ", "NSMutableArray NSArray NSObject ", "NSDictionary NSObject ",
                                           "NSMutableDictionary NSDictionary NSObject ", "NSSet NSObject ", "NSMutableSet NSSet NSObject ",
                                           "NSMutableString NSString NSObject ", "NSMutableData NSData NSObject ", "NSDate NSObject ", "NSNull NSObject "}));
}

TEST(KeyedArchive, EveryValueKindRoundTrips) {
  auto shared = mutable_str("shared");
  auto cyclic = mutable_array();
  cyclic->push_back(cyclic);
  const Ref<Object> original = dict({
      {"string", str("Zürich 東京 😀")}, {"empty", str("")}, {"negative", num(-5)}, {"min", num(std::numeric_limits<std::int64_t>::min())},
      {"max", num(std::numeric_limits<std::int64_t>::max())}, {"unsigned", Number::from_uint(std::numeric_limits<std::uint64_t>::max())},
      {"real", real(1.0 / 3.0)}, {"bool", boolean(false)}, {"int one", num(1)}, {"date", date(-123456.789012345)},
      {"data", orvia::data("bytes")}, {"mdata", make<Data>(std::string("m"), true)}, {"null", Null::shared()}, {"empty array", array()},
      {"empty dict", mutable_dict()}, {"set", make<Set>(true)}, {"shared1", shared}, {"shared2", shared}, {"cycle", cyclic},
  });
  auto back = unarchive(archive_root(original.get()));
  ASSERT_TRUE(back.ok()) << back.error().message;
  EXPECT_EQ(test::json_text(dump_like_gnustep(back.value().get())), test::json_text(dump_like_gnustep(original.get())));
  EXPECT_EQ(as_dict(back.value().get())->get("shared1"), as_dict(back.value().get())->get("shared2"));
}

// A record of our own kind, to check the coder API and class chains.
class Node final : public Record {
 public:
  static constexpr std::string_view kChain[] = {"TestNode", "TestBase", "NSObject"};
  std::span<const std::string_view> class_chain() const override { return kChain; }
  void encode_with_coder(KeyedEncoder& c) const override {
    c.encode_object("name", name), c.encode_int64("count", count), c.encode_bool("flag", flag);
    c.encode_double("weight", weight), c.encode_object("children", children), c.encode_object("$weird", name);
  }
  void init_with_coder(KeyedDecoder& c) override {
    name = c.decode_object("name"), count = c.decode_int64("count"), flag = c.decode_bool("flag");
    weight = c.decode_double("weight"), children = c.decode_object("children"), weird = c.decode_object("$weird");
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

TEST(KeyedArchive, RecordsUseTheCoderAndDecodeByClassNameOrAsGenericRecords) {
  auto root = make<Node>();
  root->name = str("root"), root->count = -7, root->flag = true, root->weight = 0.5;
  auto child = make<Node>();
  child->children = mutable_array({root});  // a cycle through a list
  root->children = mutable_array({child, child});
  const std::string bytes = archive_root(root.get());
  const std::string form = test::json_text(dump_like_gnustep(root.get()));
  auto back = unarchive(bytes, node_registry());
  ASSERT_TRUE(back.ok()) << back.error().message;
  ASSERT_NE(dynamic_cast<Node*>(back.value().get()), nullptr);
  EXPECT_EQ(text_of(static_cast<Node*>(back.value().get())->weird.get()), "root");
  EXPECT_EQ(test::json_text(dump_like_gnustep(back.value().get())), form);
  // Without the class registered: a generic record that keeps every key and chain and archives the same.
  auto plain = unarchive(bytes, ClassRegistry());
  ASSERT_TRUE(plain.ok() && dynamic_cast<const GenericRecord*>(plain.value().get()));
  EXPECT_EQ(test::json_text(dump_like_gnustep(plain.value().get())), form);
  EXPECT_TRUE(archive_root(plain.value().get()) == bytes);
  // 100,000 levels archive and unarchive without recursion.
  auto deep = make<Node>();
  deep->count = -1;
  for (int i = 0; i < 100000; ++i) {
    auto parent = make<Node>();
    parent->children = array({deep});
    deep = parent;
  }
  back = unarchive(archive_root(deep.get()), node_registry());
  ASSERT_TRUE(back.ok()) << back.error().message;
  int depth = 0;
  const Node* n = dynamic_cast<const Node*>(back.value().get());
  for (; n && n->children; ++depth) n = dynamic_cast<const Node*>(as_array(n->children.get())->at(0).get());
  EXPECT_EQ(depth, 100000);
  EXPECT_EQ(n->count, -1);
}

TEST(KeyedArchive, MalformedArchivesAreErrors) {
  auto archive = [](const std::string& objects, const std::string& top = "<key>root</key><dict><key>CF$UID</key><integer>1</integer></dict>") {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict><key>$archiver</key><string>NSKeyedArchiver</string>"
           "<key>$version</key><integer>100000</integer><key>$top</key><dict>" + top + "</dict><key>$objects</key><array><string>$null</string>" +
           objects + "</array></dict></plist>";
  };
  const std::string uid = "<dict><key>CF$UID</key><integer>";
  // An NSArray or NSMutableArray (class record #2) holding the object of UID `element`.
  auto array_of = [&](const char* element, const char* cls) {
    return archive("<dict><key>NS.objects</key><array>" + uid + element + "</integer></dict></array><key>$class</key>" + uid +
                   "2</integer></dict></dict><dict><key>$classname</key><string>" + cls + "</string></dict>");
  };
  const std::pair<const char*, std::string> cases[] = {
      {"not a plist", "hello"},
      {"top level is an array", write_binary_plist(array({str("$null")}).get()).value()},
      {"no $objects", write_binary_plist(dict({{"$top", dict()}}).get()).value()},
      {"$objects not an array", write_binary_plist(dict({{"$top", dict()}, {"$objects", str("x")}}).get()).value()},
      {"root UID beyond $objects", archive("", "<key>root</key>" + uid + "99</integer></dict>")},
      {"root UID just beyond $objects", archive("")},
      {"object without class", archive("<dict><key>NS.objects</key><array/></dict>")},
      {"class record not a dictionary", archive("<dict><key>$class</key>" + uid + "2</integer></dict></dict><string>NSArray</string>")},
      {"class record without name", archive("<dict><key>$class</key>" + uid + "2</integer></dict></dict><dict/>")},
      {"element UID beyond $objects", array_of("40", "NSArray")},
      {"$top value not a UID", archive("", "<key>root</key><string>x</string>")},
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
    std::optional<PreparedBlocks> ahead;
    if (prepared) ahead.emplace(prepared);
    std::optional<BuiltArchive> built(build_archive(make_root().get()));
    ahead.reset();  // blocks nobody took are freed; the builder keeps those it took
    Collect sink;
    ASSERT_TRUE(built->write_to(sink));
    EXPECT_TRUE(sink.bytes == expected) << prepared;
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
    for (FlatGraph::Node v : {g.signed_number(-5), g.unsigned_number(UINT64_MAX), g.real_number(2.5), g.existing(boolean(true).get()),
                              g.existing(seven.get()), g.string("shared text") /* equal text, another object: another UID */, g.array(true)})
      g.append(list, v);
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
  const std::pair<std::vector<std::pair<const FlatGraph*, FlatGraph::Node>>, int> cases[] = {
      {{{&first, r1}}, 0},
      {{{&first, r1}, {&second, r2}}, 0},   // sharing constants
      {{{&cyclic, r3}, {&first, r1}}, 0},   // a cycle
      {{{&holding, r4}, {&first, r1}}, 0},  // an object that is not a constant
      {{{&first, r1}, {&cyclic, r3}}, 93},  // deep enough to leave parts for the end
  };
  for (const auto& [graphs, depth] : cases) {
    std::vector<test::StreamedList::Item> as_graphs, as_objects;
    for (const auto& [graph, root] : graphs) {
      as_graphs.push_back({nullptr, graph, root});
      as_objects.push_back({graph->materialize(root)});
    }
    const std::string expected = test::archive_streamed(as_objects, depth);
    EXPECT_TRUE(test::archive_streamed(as_graphs, depth) == expected) << graphs.size() << " graphs, depth " << depth;
    EXPECT_TRUE(unarchive(expected).ok());
  }
}

}  // namespace
}  // namespace orvia
