#include <gtest/gtest.h>

#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "records/records.h"

namespace orvia {
namespace {

class RecordsTest : public testing::Test {
 protected:
  void SetUp() override { register_record_classes(); }
};

Ref<MQImporterNodeFolder> folder(std::string_view title, std::uint64_t contents) {
  auto f = make<MQImporterNodeFolder>();
  f->title = str(title);
  f->contentsType = contents;
  f->children = mutable_array();
  return f;
}

// Each record of an archive, in $objects order: its class chain, then its keys in archived order with
// the kind of each number (=b a boolean, =i an integer, =r a real), one record a line.
std::string wire_summary(const std::string& archive) {
  const Ref<Object> plist = read_binary_plist(archive).value();
  const Array* objects = as_array(as_dict(plist.get())->get("$objects"));
  std::string out;
  for (const auto& o : objects->items()) {
    const Dictionary* rec = as_dict(o.get());
    if (!rec || !rec->get("$class") || rec->get("NS.objects") || rec->get("NS.keys") || rec->get("NS.time")) continue;
    const Dictionary* cls = as_dict(objects->at(as_number(as_dict(rec->get("$class"))->get("CF$UID"))->int_value()).get());
    for (const auto& name : as_array(cls->get("$classes"))->items()) out += std::string(text_of(name.get())) + ",";
    out.back() = ':';
    for (const auto& [key, value] : rec->entries()) {
      const Number* n = as_number(value.get());
      if (text_of(key.get()) != "$class") out += " " + std::string(text_of(key.get())) + (!n ? "" : n->is_bool() ? "=b" : n->is_real() ? "=r" : "=i");
    }
    out += "\n";
  }
  return out;
}

TEST_F(RecordsTest, EveryRecordClassWritesItsKeysAndReadsThemBack) {
  // Values of every kind in each member a class archives, one record a line.
  auto root = folder("Root", 4), sub = folder("Sub", 4);
  root->isRoot = true, root->identifier = str("com.brenvik.velmora.folderFavFriendIdentifier");
  auto fr = make<MQImporterNodeFriend>();
  fr->type = MQImporterNodeTypeFriend, fr->mediaCount = 12, fr->added = date(123456.5), fr->imageURLString = fr->username = str("ünï");
  fr->uid = str("42"), fr->ignoreInExport = true;
  sub->appendChild(fr);
  auto tag = make<MQImporterNodeTag>();
  tag->tagName = str("sunset"), tag->tagCount = 7;
  auto loc = make<MQImporterNodeLocation>();
  loc->latitude = real(47.37), loc->longitude = real(-8.5), loc->name = str("Zürich");
  auto album = make<MQImporterNodeAlbum>();
  album->albumName = str("Trip"), album->items = array({dict({{"pk", str("1")}, {"converted_from_orvia4", boolean(true)}, {"filter_type", num(0)}})});
  auto blocked = make<MQImporterNodeBlacklist>();
  blocked->userid = str("1234"), blocked->username = str("spammer");
  auto stats = make<MQImporterNodeStatistics>();
  stats->path = str("/home/u/x.db");
  for (const Ref<MQImporterNode>& n : std::vector<Ref<MQImporterNode>>{sub, tag, loc, album, blocked, stats}) root->appendChild(n);
  auto account = make<MQImporterAccount>();
  account->userid = str("u1");
  auto result = make<MQImporterNodeResult>();
  result->account = account, result->tags = root, result->statistics = stats, result->blacklist = folder("Blacklist", 5);  // not archived
  const std::string bytes = archive_root(result.get());
  const std::string node = "MQImporterNode,NSObject: identifier type=i ignore=b isRoot=b";
  EXPECT_EQ(wire_summary(bytes),
            "MQImporterNodeResult,NSObject: account tags locations albums friends statistics ignore=b\n"
            "MQImporterAccount,NSObject: uid imageURL username\n"
            "MQImporterNodeFolder," + node + " title children contentsType=i\n"
            "MQImporterNodeFolder," + node + " title children contentsType=i\n"
            "MQImporterNodeFriend," + node + " mediaCount=i added imageURL username uid\n"
            "MQImporterNodeTag," + node + " tagCount=i tagName\n"
            "MQImporterNodeLocation," + node + " latitude longitude name\n"
            "MQImporterNodeAlbum," + node + " albumName items\n"
            "MQImporterNodeBlacklist," + node + " uid username\n"
            "MQImporterNodeStatistics," + node + " path\n");
  // Read back into the registered classes, every key into its member: archived again, the same bytes.
  auto back = unarchive(bytes);
  ASSERT_TRUE(back.ok()) << back.error().message;
  auto* result_back = as<MQImporterNodeResult>(back.value());
  ASSERT_NE(result_back, nullptr);
  EXPECT_TRUE(archive_root(result_back) == bytes);
  auto* root_back = as<MQImporterNodeFolder>(result_back->tags);
  ASSERT_TRUE(root_back && root_back->childList()->size() == 6u);
  EXPECT_NE(as<MQImporterAccount>(result_back->account), nullptr);
  EXPECT_NE(as<MQImporterNodeFriend>(as<MQImporterNodeFolder>(root_back->childList()->at(0))->childList()->at(0)), nullptr);
  EXPECT_EQ(as<MQImporterNodeStatistics>(root_back->childList()->at(5)), result_back->statistics.get());
  EXPECT_TRUE(as<MQImporterNodeStatistics>(result_back->statistics)->hasChildren());
}

TEST_F(RecordsTest, MissingAndOddKeysDecodeAsNothingOrAsStored) {
  // A node without "type" and "isRoot", one with type 9, a blacklist uid that is a number.
  auto record = [](std::vector<std::string> chain, std::vector<GenericRecord::Field> fields) {
    auto r = make<GenericRecord>(std::move(chain));
    r->mutable_fields() = std::move(fields);
    return r;
  };
  auto result = record({"MQImporterNodeResult", "NSObject"},
                       {{"account", record({"MQImporterAccount", "NSObject"}, {{"uid", str("u1"), false}}), false},
                        {"tags", record({"MQImporterNodeTag", "MQImporterNode", "NSObject"}, {{"type", num(9), true}}), false},
                        {"albums", record({"MQImporterNodeBlacklist", "MQImporterNode", "NSObject"}, {{"uid", num(77), false}}), false}});
  auto decoded = unarchive(archive_root(result.get()));
  ASSERT_TRUE(decoded.ok()) << decoded.error().message;
  auto* back = as<MQImporterNodeResult>(decoded.value());
  ASSERT_NE(back, nullptr);
  EXPECT_FALSE(back->ignoreInExport);
  EXPECT_EQ(text_of(as<MQImporterAccount>(back->account)->userid.get()), "u1");
  EXPECT_EQ(as<MQImporterAccount>(back->account)->username, nullptr);
  EXPECT_EQ(as<MQImporterNodeTag>(back->tags)->type, 9u);
  auto* b = as<MQImporterNodeBlacklist>(back->albums);
  EXPECT_TRUE(b->type == 0u && !b->isRoot);
  EXPECT_EQ(as_number(b->userid.get())->int_value(), 77);
}

TEST_F(RecordsTest, FolderChildrenAppendAndCopySemantics) {
  auto never = make<MQImporterNodeFolder>();
  never->appendChild(make<MQImporterNodeTag>());
  EXPECT_TRUE(never->children == nullptr && !never->hasChildren());
  auto f = folder("f", 1);
  EXPECT_FALSE(f->hasChildren());
  auto t = make<MQImporterNodeTag>();
  f->appendChild(t);
  EXPECT_TRUE(f->hasChildren());
  Ref<Object> before = f->children;  // a reader keeps the old contents
  f->appendChild(t);
  EXPECT_EQ(as_array(before.get())->size(), 1u);
  ASSERT_EQ(f->childList()->size(), 2u);
  Ref<MQImporterNode> copy = f->copy();
  auto* fc = dynamic_cast<MQImporterNodeFolder*>(copy.get());
  ASSERT_TRUE(fc && fc != f.get());
  EXPECT_NE(fc->childList()->at(0).get(), t.get());
  EXPECT_EQ(fc->childList()->at(0).get(), fc->childList()->at(1).get());  // sharing survives the copy
  fc->appendChild(make<MQImporterNodeTag>());
  EXPECT_EQ(f->childList()->size(), 2u);
}

TEST(AccountRecord, ImageURLParsesOnlyAddresses) {
  const std::pair<Ref<Object>, bool> cases[] = {
      {nullptr, false}, {str(""), false}, {str("https://pic.example/a b.jpg"), false}, {str("https://pic.example/p.jpg?s=1&x=%20"), true},
      {str("relative/path.jpg"), true}, {str("1http://x"), false}, {str("ht tp://x"), false}, {num(5), false},
  };
  for (const auto& [value, expected] : cases) {
    auto acc = make<MQImporterAccount>();
    acc->imageURLString = value;
    EXPECT_EQ(acc->imageURL().has_value(), expected) << (value ? text_of(value.get()) : "nil");
  }
}

}  // namespace
}  // namespace orvia
