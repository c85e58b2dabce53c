#include <gtest/gtest.h>

#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "records/records.h"

namespace orvia {
namespace {

class RecordsTest : public testing::Test {
 protected:
  void SetUp() override { register_record_classes(); }

  template <class T>
  Ref<T> round_trip(const Object* o) {
    auto back = unarchive(archive_root(o));
    EXPECT_TRUE(back.ok()) << (back.ok() ? "" : back.error().message);
    return back.ok() ? Ref<T>(dynamic_cast<T*>(back.value().get())) : nullptr;
  }
};

Ref<MQImporterNodeFolder> folder(std::string_view title, std::uint64_t contents) {
  auto f = make<MQImporterNodeFolder>();
  f->title = str(title);
  f->contentsType = contents;
  f->children = mutable_array();
  return f;
}

TEST_F(RecordsTest, EveryNodeClassRoundTripsItsKeys) {
  auto root = folder("Root", 4);
  root->isRoot = true;
  root->identifier = str("com.brenvik.velmora.folderFavFriendIdentifier");
  auto sub = folder("Sub", 4);
  auto fr = make<MQImporterNodeFriend>();
  fr->type = MQImporterNodeTypeFriend;
  fr->identifier = str("fa-x-coredata://U/Friend/p1");
  fr->mediaCount = 12;
  fr->added = date(123456.5);
  fr->imageURLString = str("https://pic.example/a.jpg");
  fr->username = str("ünï");
  fr->uid = str("42");
  fr->ignoreInExport = true;
  sub->appendChild(fr);
  root->appendChild(sub);
  auto tag = make<MQImporterNodeTag>();
  tag->type = MQImporterNodeTypeTag;
  tag->tagName = str("sunset");
  tag->tagCount = 7;
  auto loc = make<MQImporterNodeLocation>();
  loc->type = MQImporterNodeTypeLocation;
  loc->latitude = real(47.37);
  loc->longitude = real(-8.5);
  loc->name = str("Zürich");
  auto album = make<MQImporterNodeAlbum>();
  album->type = MQImporterNodeTypeAlbum;
  album->albumName = str("Trip");
  album->items = array({dict({{"pk", str("1")}, {"converted_from_orvia4", boolean(true)}, {"filter_type", num(0)}})});
  auto blocked = make<MQImporterNodeBlacklist>();
  blocked->type = MQImporterNodeTypeBlacklist;
  blocked->userid = str("1234");
  blocked->username = str("spammer");
  auto stats = make<MQImporterNodeStatistics>();
  stats->type = MQImporterNodeTypeStatistics;
  stats->path = str("/home/u/x.db");
  stats->isRoot = true;
  for (const Ref<MQImporterNode>& n : std::vector<Ref<MQImporterNode>>{tag, loc, album, blocked, stats}) root->appendChild(n);

  Ref<MQImporterNodeFolder> back = round_trip<MQImporterNodeFolder>(root.get());
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(back->isRoot);
  EXPECT_EQ(text_of(back->identifier.get()), "com.brenvik.velmora.folderFavFriendIdentifier");
  EXPECT_EQ(back->contentsType, 4u);
  const Array* kids = back->childList();
  ASSERT_EQ(kids->size(), 6u);
  auto* sub_back = dynamic_cast<MQImporterNodeFolder*>(kids->at(0).get());
  ASSERT_NE(sub_back, nullptr);
  EXPECT_FALSE(sub_back->isRoot);
  auto* fr_back = dynamic_cast<MQImporterNodeFriend*>(sub_back->childList()->at(0).get());
  ASSERT_NE(fr_back, nullptr);
  EXPECT_EQ(fr_back->mediaCount, 12u);
  EXPECT_EQ(as_date(fr_back->added.get())->time(), 123456.5);
  EXPECT_EQ(text_of(fr_back->username.get()), "ünï");
  EXPECT_TRUE(fr_back->ignoreInExport);
  auto* tag_back = dynamic_cast<MQImporterNodeTag*>(kids->at(1).get());
  EXPECT_EQ(tag_back->tagCount, 7u);
  EXPECT_EQ(tag_back->type, MQImporterNodeTypeTag);
  auto* loc_back = dynamic_cast<MQImporterNodeLocation*>(kids->at(2).get());
  EXPECT_EQ(as_number(loc_back->longitude.get())->real_value(), -8.5);
  auto* album_back = dynamic_cast<MQImporterNodeAlbum*>(kids->at(3).get());
  const Dictionary* item = as_dict(as_array(album_back->items.get())->at(0).get());
  EXPECT_TRUE(as_number(item->get("converted_from_orvia4"))->is_bool());
  EXPECT_FALSE(as_number(item->get("filter_type"))->is_bool());
  auto* blocked_back = dynamic_cast<MQImporterNodeBlacklist*>(kids->at(4).get());
  EXPECT_EQ(text_of(blocked_back->userid.get()), "1234");
  auto* stats_back = dynamic_cast<MQImporterNodeStatistics*>(kids->at(5).get());
  EXPECT_TRUE(stats_back->hasChildren());
  EXPECT_EQ(text_of(stats_back->path.get()), "/home/u/x.db");
}

TEST_F(RecordsTest, ArchivedKeysAndClassChainsAreTheWireFormat) {
  auto tag = make<MQImporterNodeTag>();
  tag->tagName = str("t");
  auto plist = read_binary_plist(archive_root(tag.get()));
  ASSERT_TRUE(plist.ok());
  const Array* objects = as_array(as_dict(plist.value().get())->get("$objects"));
  const Dictionary* rec = as_dict(objects->at(1).get());
  std::vector<std::string> keys;
  for (const auto& e : rec->entries()) keys.push_back(as_string(e.first.get())->str());
  EXPECT_EQ(keys, (std::vector<std::string>{"identifier", "type", "ignore", "isRoot", "tagCount", "tagName", "$class"}));
  EXPECT_TRUE(as_number(rec->get("ignore"))->is_bool());
  EXPECT_FALSE(as_number(rec->get("type"))->is_bool());
  const Dictionary* cls = as_dict(objects->at(3).get());
  EXPECT_TRUE(deep_equal(cls->get("$classes"), array({str("MQImporterNodeTag"), str("MQImporterNode"), str("NSObject")}).get()));

  auto result = make<MQImporterNodeResult>();
  result->blacklist = folder("Blacklist", 5);
  plist = read_binary_plist(archive_root(result.get()));
  rec = as_dict(as_array(as_dict(plist.value().get())->get("$objects"))->at(1).get());
  keys.clear();
  for (const auto& e : rec->entries()) keys.push_back(as_string(e.first.get())->str());
  EXPECT_EQ(keys, (std::vector<std::string>{"account", "tags", "locations", "albums", "friends", "statistics", "ignore", "$class"}));
}

TEST_F(RecordsTest, MissingAndOddKeysDecodeAsNothingOrAsStored) {
  // A node without "type" and "isRoot", one with type 9, a blacklist uid that is a number.
  auto node = make<GenericRecord>(std::vector<std::string>{"MQImporterNodeBlacklist", "MQImporterNode", "NSObject"});
  node->mutable_fields().push_back({"uid", num(77), false});
  auto odd = make<GenericRecord>(std::vector<std::string>{"MQImporterNodeTag", "MQImporterNode", "NSObject"});
  odd->mutable_fields().push_back({"type", num(9), true});
  auto result = make<GenericRecord>(std::vector<std::string>{"MQImporterNodeResult", "NSObject"});
  auto account = make<GenericRecord>(std::vector<std::string>{"MQImporterAccount", "NSObject"});
  account->mutable_fields().push_back({"uid", str("u1"), false});
  result->mutable_fields().push_back({"account", account, false});
  result->mutable_fields().push_back({"tags", odd, false});
  result->mutable_fields().push_back({"albums", node, false});

  auto back = round_trip<MQImporterNodeResult>(result.get());
  ASSERT_NE(back, nullptr);
  EXPECT_FALSE(back->ignoreInExport);
  auto* acc = dynamic_cast<MQImporterAccount*>(back->account.get());
  EXPECT_EQ(text_of(acc->userid.get()), "u1");
  EXPECT_EQ(acc->username, nullptr);
  EXPECT_EQ(dynamic_cast<MQImporterNodeTag*>(back->tags.get())->type, 9u);
  auto* b = dynamic_cast<MQImporterNodeBlacklist*>(back->albums.get());
  EXPECT_EQ(b->type, 0u);
  EXPECT_FALSE(b->isRoot);
  EXPECT_EQ(as_number(b->userid.get())->int_value(), 77);
}

TEST_F(RecordsTest, FolderChildrenAppendAndCopySemantics) {
  auto never = make<MQImporterNodeFolder>();
  EXPECT_FALSE(never->hasChildren());
  never->appendChild(make<MQImporterNodeTag>());
  EXPECT_EQ(never->children, nullptr);

  auto f = folder("f", 1);
  EXPECT_FALSE(f->hasChildren());
  auto t = make<MQImporterNodeTag>();
  f->appendChild(t);
  EXPECT_TRUE(f->hasChildren());
  Ref<Object> before = f->children;  // a reader keeps the old contents
  f->appendChild(t);
  EXPECT_EQ(as_array(before.get())->size(), 1u);
  ASSERT_EQ(f->childList()->size(), 2u);
  EXPECT_EQ(f->childList()->at(0).get(), f->childList()->at(1).get());

  Ref<MQImporterNode> copy = f->copy();
  auto* fc = dynamic_cast<MQImporterNodeFolder*>(copy.get());
  ASSERT_NE(fc, nullptr);
  EXPECT_NE(fc, f.get());
  EXPECT_NE(fc->childList()->at(0).get(), t.get());
  EXPECT_EQ(fc->childList()->at(0).get(), fc->childList()->at(1).get());  // sharing survives the copy
  fc->appendChild(make<MQImporterNodeTag>());
  EXPECT_EQ(f->childList()->size(), 2u);

  auto friend_node = make<MQImporterNodeFriend>();
  friend_node->added = date(1.25);
  Ref<MQImporterNode> fcopy = friend_node->copy();
  EXPECT_EQ(as_date(dynamic_cast<MQImporterNodeFriend*>(fcopy.get())->added.get())->time(), 1.25);
}

TEST_F(RecordsTest, SharedAlbumTreeIsStoredOnceAndRestoredAsOne) {
  auto albums = folder("albums", 2);
  auto a = make<MQImporterNodeResult>(), b = make<MQImporterNodeResult>();
  a->albums = albums;
  b->albums = albums;
  a->ignoreInExport = true;
  auto list = round_trip<Array>(array({a, b}).get());
  ASSERT_NE(list, nullptr);
  auto* ra = dynamic_cast<MQImporterNodeResult*>(list->at(0).get());
  auto* rb = dynamic_cast<MQImporterNodeResult*>(list->at(1).get());
  EXPECT_EQ(ra->albums.get(), rb->albums.get());
  EXPECT_TRUE(ra->ignoreInExport);
  EXPECT_FALSE(rb->ignoreInExport);
}

TEST(AccountRecord, ImageURLParsesOnlyAddresses) {
  struct Case {
    Ref<Object> value;
    bool expected;
  };
  const Case cases[] = {
      {nullptr, false},         {str(""), false},       {str("https://pic.example/a b.jpg"), false},
      {str("https://pic.example/p.jpg?s=1&x=%20"), true}, {str("relative/path.jpg"), true},
      {str("1http://x"), false}, {str("ht tp://x"), false}, {num(5), false},
  };
  for (const auto& c : cases) {
    auto acc = make<MQImporterAccount>();
    acc->imageURLString = c.value;
    EXPECT_EQ(acc->imageURL().has_value(), c.expected) << (c.value ? text_of(c.value.get()) : "nil");
  }
}

}  // namespace
}  // namespace orvia
