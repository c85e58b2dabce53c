#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>

#include "platform/bplist_format.h"
#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "platform/prefault.h"
#include "support/streamed_list.h"
#include "support/support.h"

namespace orvia {
namespace {

Ref<Object> unarchive_fixture(const std::string& name) {
  auto bytes = test::read_file(test::fixture("keyed-archives/" + name));
  auto r = unarchive_top(bytes);
  EXPECT_TRUE(r.ok()) << name << ": " << (r.ok() ? "" : r.error().message);
  if (!r.ok() || r->empty()) return nullptr;
  for (auto& [k, v] : r.value())
    if (k == "root" || k == "$0" || k == "IB.objectdata") return v;
  return r->front().second;
}

const GenericRecord* generic(const Object* o) { return dynamic_cast<const GenericRecord*>(o); }

// The top-level object of an archive's fixture file under one of its $top keys.
Object* top_object(const std::vector<std::pair<std::string, Ref<Object>>>& tops, const std::string& key) {
  for (auto& [k, v] : tops)
    if (k == key) return v.get();
  return nullptr;
}

TEST(KeyedArchiveFixtures, ArchivesWrittenByAppleDecodeToTheirFacts) {
  ORVIA_REQUIRE_FIXTURES();
  {  // dict-of-array.plist
    Ref<Object> root = unarchive_fixture("dict-of-array.plist");
    const Dictionary* d = as_dict(root.get());
    ASSERT_NE(d, nullptr);
    EXPECT_FALSE(d->is_mutable());
    EXPECT_TRUE(deep_equal(d->get("Array key"), array({num(1), num(2), num(3)}).get()));
    EXPECT_EQ(text_of(d->get("First key")), "First value");
    EXPECT_EQ(text_of(d->get("Second key")), "Second value");
  }
  {  // custom-class-note.plist: inline int and bool, 42 and true kept apart in the array
    Ref<Object> root = unarchive_fixture("custom-class-note.plist");
    const GenericRecord* note = generic(root.get());
    ASSERT_NE(note, nullptr);
    EXPECT_EQ(note->class_name(), "Note");
    EXPECT_EQ(as_number(note->get("date"))->int_value(), 2025);
    EXPECT_TRUE(as_number(note->get("published"))->is_bool());
    EXPECT_EQ(text_of(note->get("title")), "Some cool title");
    const Array* a = as_array(note->get("array"));
    ASSERT_NE(a, nullptr);
    ASSERT_EQ(a->size(), 3u);
    EXPECT_FALSE(as_number(a->at(1).get())->is_bool());
    EXPECT_TRUE(as_number(a->at(2).get())->is_bool());
  }
  {  // self-cycle-mutable-array.plist
    Ref<Object> root = unarchive_fixture("self-cycle-mutable-array.plist");
    const Array* a = as_array(root.get());
    ASSERT_NE(a, nullptr);
    EXPECT_TRUE(a->is_mutable());
    ASSERT_EQ(a->size(), 1u);
    EXPECT_EQ(a->at(0).get(), a);
  }
  {  // mutable-attributed-string.plist: NSMutableString, NSMutableData, empty dictionary
    Ref<Object> root = unarchive_fixture("mutable-attributed-string.plist");
    const GenericRecord* s = generic(root.get());
    ASSERT_NE(s, nullptr);
    const String* text = as_string(s->get("NSString"));
    ASSERT_NE(text, nullptr);
    EXPECT_TRUE(text->is_mutable());
    EXPECT_EQ(text->str(), "firstsecondthird");
    const Data* info = as_data(s->get("NSAttributeInfo"));
    ASSERT_NE(info, nullptr);
    EXPECT_TRUE(info->is_mutable());
    EXPECT_EQ(info->bytes(), std::string("\x05\x00\x0b\x01", 4));
    const Array* attrs = as_array(s->get("NSAttributes"));
    ASSERT_EQ(attrs->size(), 2u);
    EXPECT_TRUE(as_dict(attrs->at(1).get())->empty());
  }
  {  // primitives-unkeyed-top.bplist: $0.. keys, three separate "Hello, World!"
    auto tops = unarchive_top(test::read_file(test::fixture("keyed-archives/primitives-unkeyed-top.bplist")));
    ASSERT_TRUE(tops.ok());
    ASSERT_EQ(tops->size(), 12u);
    auto get = [&](const char* key) { return top_object(tops.value(), key); };
    EXPECT_EQ(get("$0"), get("$1"));
    EXPECT_FALSE(as_number(get("$2"))->is_bool());
    EXPECT_TRUE(as_number(get("$2"))->is_real());
    EXPECT_TRUE(as_number(get("$5"))->is_bool());
    EXPECT_NE(get("$6"), get("$7"));
    EXPECT_EQ(text_of(get("$8")), "Hello, World!");
    EXPECT_EQ(as_number(get("$11"))->int_value(), 42);
  }
  {  // arrays-sets-unkeyed-top.bplist
    auto tops = unarchive_top(test::read_file(test::fixture("keyed-archives/arrays-sets-unkeyed-top.bplist")));
    ASSERT_TRUE(tops.ok());
    EXPECT_EQ(as_array(top_object(tops.value(), "$0"))->size(), 12u);
    const Set* ms = as_set(top_object(tops.value(), "$3"));
    ASSERT_NE(ms, nullptr);
    EXPECT_TRUE(ms->is_mutable());
    EXPECT_EQ(ms->items().size(), 3u);
  }
  {  // null-url-uuid-shared-string.plist
    Ref<Object> root = unarchive_fixture("null-url-uuid-shared-string.plist");
    const Dictionary* d = as_dict(root.get());
    const Array* a = as_array(d->get("array"));
    ASSERT_EQ(a->size(), 4u);
    EXPECT_TRUE(is_null(a->at(0).get()));
    EXPECT_EQ(a->at(1).get(), d->get("string"));
    const GenericRecord* url = generic(d->get("url"));
    ASSERT_NE(url, nullptr);
    EXPECT_EQ(url->class_name(), "NSURL");
    EXPECT_EQ(text_of(url->get("NS.relative")), "index.xml");
    EXPECT_EQ(text_of(generic(url->get("NS.base"))->get("NS.relative")), "https://www.swift.org");
  }
  {  // swift-class-collections.plist: no $classes; keys shared with the array's strings
    Ref<Object> root = unarchive_fixture("swift-class-collections.plist");
    const GenericRecord* r = generic(root.get());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->class_name(), "TestDummy");
    const Array* strings = as_array(r->get("arrayOfStrings"));
    const Dictionary* d = as_dict(r->get("dictionary"));
    EXPECT_EQ(d->entries()[0].first.get(), strings->at(2).get());
  }
  {  // shared-url-twice.plist
    Ref<Object> root = unarchive_fixture("shared-url-twice.plist");
    const Dictionary* d = as_dict(root.get());
    EXPECT_EQ(d->get("copyOne"), d->get("copyTwo"));
  }
  {  // nil-root.plist
    auto r = unarchive(test::read_file(test::fixture("keyed-archives/nil-root.plist")));
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(r.value(), nullptr);
  }
  {  // ios-running-processes.bplist: 328 dictionaries sharing key strings
    Ref<Object> root = unarchive_fixture("ios-running-processes.bplist");
    const Array* a = as_array(root.get());
    ASSERT_EQ(a->size(), 328u);
    const Dictionary* first = as_dict(a->at(0).get());
    EXPECT_EQ(text_of(first->get("name")), "contactsd");
    EXPECT_EQ(as_date(first->get("startDate"))->time(), 680457815.615284);
    EXPECT_EQ(as_number(first->get("pid"))->int_value(), 84474);
    const Dictionary* last = as_dict(a->at(327).get());
    EXPECT_EQ(text_of(last->get("name")), "Mach Kernel");
    EXPECT_EQ(last->get("startDate"), nullptr);
  }
  {  // ios-gpu-counters.bplist: 16-byte integer, number keys, a long UTF-16 string
    Ref<Object> root = unarchive_fixture("ios-gpu-counters.bplist");
    const Array* a = as_array(root.get());
    EXPECT_EQ(as_number(a->at(0).get())->int_value(), 0);
    EXPECT_EQ(as_number(a->at(1).get())->int_value(), 36079294411123);
    EXPECT_EQ(as_number(a->at(2).get())->int_value(), 4294967998);
    const Dictionary* d = as_dict(a->at(4).get());
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(as_number(d->entries()[0].first.get())->int_value(), 0);
  }
  {  // mainmenu-2009-keyedobjects.nib: "$null" slots, deep chains, a cycle
    Ref<Object> root = unarchive_fixture("mainmenu-2009-keyedobjects.nib");
    ASSERT_NE(generic(root.get()), nullptr);
    EXPECT_EQ(root->class_name(), "NSIBObjectData");
  }
  {  // custom-class-chains.bplist
    Ref<Object> root = unarchive_fixture("custom-class-chains.bplist");
    const GenericRecord* t = generic(root.get());
    EXPECT_EQ(text_of(t->get("tableID")), "fullChangeLog");
    EXPECT_EQ(as_number(t->get("rowHeader"))->int_value(), 2);
    EXPECT_EQ(t->get("replyColumns"), nullptr);
    EXPECT_EQ(as_array(t->get("columns"))->size(), 7u);
  }
}

TEST(KeyedArchive, WritesTheSkeletonAppleWrites) {
  std::string bytes = archive_root(array({str("a")}).get());
  auto plist = read_binary_plist(bytes);
  ASSERT_TRUE(plist.ok()) << plist.error().message;
  const Dictionary* top = as_dict(plist.value().get());
  EXPECT_EQ(text_of(top->get("$archiver")), "NSKeyedArchiver");
  EXPECT_EQ(as_number(top->get("$version"))->int_value(), 100000);
  const Array* objects = as_array(top->get("$objects"));
  EXPECT_EQ(text_of(objects->at(0).get()), "$null");
  // #1 the array, #2 its string, #3 the class record, as Apple orders them.
  const Dictionary* arr = as_dict(objects->at(1).get());
  ASSERT_NE(arr, nullptr);
  EXPECT_EQ(text_of(objects->at(2).get()), "a");
  const Dictionary* cls = as_dict(objects->at(3).get());
  EXPECT_EQ(text_of(cls->get("$classname")), "NSArray");
  EXPECT_TRUE(deep_equal(cls->get("$classes"), array({str("NSArray"), str("NSObject")}).get()));
  EXPECT_TRUE(deep_equal(as_dict(top->get("$top"))->get("root"), dict({{"CF$UID", num(1)}}).get()));
}

TEST(KeyedArchive, EveryValueKindRoundTrips) {
  auto shared = mutable_str("shared");
  auto cyclic = mutable_array();
  cyclic->push_back(cyclic);
  auto inner = mutable_dict({{"back", nullptr}});
  Ref<Object> original = dict({
      {"string", str("Zürich 東京 😀")},
      {"empty", str("")},
      {"negative", num(-5)},
      {"min", num(std::numeric_limits<std::int64_t>::min())},
      {"max", num(std::numeric_limits<std::int64_t>::max())},
      {"unsigned", Number::from_uint(std::numeric_limits<std::uint64_t>::max())},
      {"real", real(1.0 / 3.0)},
      {"bool", boolean(false)},
      {"int one", num(1)},
      {"date", date(-123456.789012345)},
      {"data", orvia::data("bytes")},
      {"mdata", make<Data>(std::string("m"), true)},
      {"null", Null::shared()},
      {"empty array", array()},
      {"empty dict", mutable_dict()},
      {"set", make<Set>(true)},
      {"shared1", shared},
      {"shared2", shared},
      {"cycle", cyclic},
  });
  auto back = unarchive(archive_root(original.get()));
  ASSERT_TRUE(back.ok()) << back.error().message;
  const Dictionary* d = as_dict(back.value().get());
  ASSERT_NE(d, nullptr);
  for (const auto& [k, v] : as_dict(original.get())->entries()) {
    std::string key = as_string(k.get())->str();
    if (key == "cycle") continue;
    EXPECT_TRUE(deep_equal(v.get(), d->get(key))) << key;
    EXPECT_EQ(v->class_name(), d->get(key)->class_name()) << key;
  }
  EXPECT_EQ(d->get("shared1"), d->get("shared2"));
  const Array* c = as_array(d->get("cycle"));
  EXPECT_EQ(c->at(0).get(), c);
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

TEST(KeyedArchive, RecordsUseTheCoderAndDecodeByClassName) {
  ClassRegistry registry;
  registry.add("TestNode", []() -> Ref<Record> { return make<Node>(); });
  auto root = make<Node>();
  root->name = str("root");
  root->count = -7;
  root->flag = true;
  root->weight = 0.5;
  auto child = make<Node>();
  child->name = str("child");
  child->children = mutable_array({root});  // a cycle through a list
  root->children = mutable_array({child, child});
  std::string bytes = archive_root(root.get());

  auto back = unarchive(bytes, registry);
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
  const GenericRecord* g = dynamic_cast<const GenericRecord*>(plain.value().get());
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(std::vector<std::string_view>(g->class_chain().begin(), g->class_chain().end()),
            (std::vector<std::string_view>{"TestNode", "TestBase", "NSObject"}));
  EXPECT_EQ(as_number(g->get("count"))->int_value(), -7);
  EXPECT_NE(g->get("$weird"), nullptr);
  auto again = unarchive(archive_root(plain.value().get()), registry);
  ASSERT_TRUE(again.ok());
  EXPECT_EQ(dynamic_cast<Node*>(again.value().get())->count, -7);
}

TEST(KeyedArchive, DeepGraphsArchiveAndUnarchiveWithoutRecursion) {
  ClassRegistry registry;
  registry.add("TestNode", []() -> Ref<Record> { return make<Node>(); });
  auto top = make<Node>();
  Node* cur = top.get();
  for (int i = 0; i < 100000; ++i) {
    auto next = make<Node>();
    next->count = i;
    cur->children = array({next});
    cur = next.get();
  }
  auto back = unarchive(archive_root(top.get()), registry);
  ASSERT_TRUE(back.ok()) << back.error().message;
  int depth = 0;
  const Node* n = dynamic_cast<const Node*>(back.value().get());
  while (n && n->children) {
    n = dynamic_cast<const Node*>(as_array(n->children.get())->at(0).get());
    ++depth;
  }
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
  struct Case {
    const char* name;
    std::string bytes;
  };
  std::string good = archive_root(dict({{"a", array({str("b")})}}).get());
  std::vector<Case> cases = {
      {"not a plist", "hello"},
      {"truncated", good.substr(0, good.size() - 5)},
      {"top level is an array", write_binary_plist(array({str("$null")}).get()).value()},
      {"no $objects", write_binary_plist(dict({{"$top", dict()}}).get()).value()},
      {"$objects not an array", write_binary_plist(dict({{"$top", dict()}, {"$objects", str("x")}}).get()).value()},
      {"root UID beyond $objects", archive_with_objects("", "<key>root</key>" + uid + "99</integer></dict>")},
      {"object without class", archive_with_objects("<dict><key>NS.objects</key><array/></dict>")},
      {"class record not a dictionary",
       archive_with_objects("<dict><key>$class</key>" + uid + "2</integer></dict></dict><string>NSArray</string>")},
      {"class record without name",
       archive_with_objects("<dict><key>$class</key>" + uid + "2</integer></dict></dict><dict/>")},
      {"element UID beyond $objects",
       archive_with_objects("<dict><key>NS.objects</key><array>" + uid + "40</integer></dict></array><key>$class</key>" +
                            uid + "2</integer></dict></dict><dict><key>$classname</key><string>NSArray</string></dict>")},
      {"$top value not a UID", archive_with_objects("", "<key>root</key><string>x</string>")},
  };
  for (const auto& c : cases) {
    auto r = unarchive(c.bytes);
    EXPECT_FALSE(r.ok()) << c.name;
  }
  // An array holding itself through an XML archive is fine: a cycle, restored.
  auto cyc = unarchive(archive_with_objects("<dict><key>NS.objects</key><array>" + uid + "1</integer></dict></array><key>$class</key>" +
                                            uid + "2</integer></dict></dict><dict><key>$classname</key><string>NSMutableArray</string></dict>"));
  ASSERT_TRUE(cyc.ok()) << cyc.error().message;
  EXPECT_EQ(as_array(cyc.value().get())->at(0).get(), cyc.value().get());
}

TEST(KeyedArchive, ABuiltArchiveIsWrittenAfterItsObjectsAreGone) {
  // Enough objects and bytes for the builder to fill several blocks, taken prepared ahead or made on
  // the spot: the bytes are the same, and nothing of the objects is read once they are freed.
  auto make_root = [] {
    auto root = mutable_array();
    for (int i = 0; i < 120000; ++i) {
      auto entry = mutable_dict();
      entry->set("text", str("entry number " + std::to_string(i)));
      entry->set("n", num(i));
      root->push_back(entry);
    }
    return root;
  };
  const std::string expected = archive_root(make_root().get());
  struct Collect final : bplist::Builder::Sink {
    bool put(std::string_view piece) override {
      bytes.append(piece);
      return true;
    }
    std::string bytes;
  };
  for (const std::size_t prepared : {std::size_t{0}, std::size_t{4} << 20, std::size_t{32} << 20}) {
    SCOPED_TRACE(prepared);
    std::optional<PreparedBlocks> ahead;
    if (prepared) ahead.emplace(prepared);
    std::optional<BuiltArchive> built;
    {
      Ref<Object> root = make_root();
      built.emplace(build_archive(root.get()));
    }
    ahead.reset();  // blocks nobody took are freed; the builder keeps those it took
    Collect sink;
    ASSERT_TRUE(built->write_to(sink));
    EXPECT_TRUE(sink.bytes == expected);
  }
}

TEST(KeyedArchive, GraphsAreWrittenAsTheirObjectsAre) {
  using test::StreamedList;
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

  struct Case {
    const char* name;
    std::vector<std::pair<const FlatGraph*, FlatGraph::Node>> graphs;
    int depth;
  };
  const std::vector<Case> cases = {
      {"one graph", {{&first, r1}}, 0},
      {"two graphs sharing constants", {{&first, r1}, {&second, r2}}, 0},
      {"a cycle", {{&cyclic, r3}, {&first, r1}}, 0},
      {"an object that is not a constant", {{&holding, r4}, {&first, r1}}, 0},
      {"deep enough to leave parts for the end", {{&first, r1}, {&cyclic, r3}}, 93},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<StreamedList::Item> as_graphs, as_objects;
    for (const auto& [graph, root] : c.graphs) {
      as_graphs.push_back({nullptr, graph, root});
      as_objects.push_back({graph->materialize(root)});
    }
    const std::string expected = test::archive_streamed(as_objects, c.depth);
    EXPECT_TRUE(test::archive_streamed(as_graphs, c.depth) == expected);
    // And what the objects hold reads back as the graph describes it.
    auto back = unarchive(expected);
    ASSERT_TRUE(back.ok());
  }
  // The materialized objects: one object per node, shared where the node is.
  Ref<Object> made = first.materialize(r1);
  const Dictionary* root = as_dict(made.get());
  ASSERT_NE(root, nullptr);
  const Dictionary* inner = as_dict(root->get("b"));
  ASSERT_NE(inner, nullptr);
  EXPECT_EQ(root->get("a"), inner->get("a"));
  EXPECT_TRUE(root->is_mutable());
  EXPECT_FALSE(inner->is_mutable());
}

}  // namespace
}  // namespace orvia
