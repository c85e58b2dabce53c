// Stored media records (keyed archives of the older interface's dictionaries) converted to the newer
// form: the 24 keys in order, their kinds, and every incomplete or odd record.
#include "legacy/media_conversion.h"

#include <gtest/gtest.h>

#include <functional>

#include "platform/bplist_format.h"
#include "platform/keyed_archive.h"
#include "platform/log.h"
#include "support/streamed_list.h"

namespace orvia {
namespace {

Ref<Dictionary> full_record() {
  return mutable_dict({
      {"id", str("123_456")},
      {"link", str("https://photos.example/p/BAbCdEf")},
      {"type", str("image")},
      {"created_time", str("1300000000")},  // never read: only the caption's time is
      {"caption", dict({{"id", str("c1")},
                        {"text", str("hello")},
                        {"created_time", str("1400000000")},
                        {"from", dict({{"id", str("456")}, {"username", str("ann")}})}})},
      {"images", dict({{"standard_resolution", dict({{"url", str("https://s/640.jpg")}, {"width", num(1080)}})},
                       {"low_resolution", dict({{"url", str("https://s/320.jpg")}, {"width", num(320)}})}})},
      {"likes", dict({{"count", num(5)}})},
      {"comments", dict({{"count", num(2)}})},
      {"user", dict({{"id", str("456")},
                     {"username", str("ann")},
                     {"full_name", str("Ann A")},
                     {"profile_picture", str("https://p/ann.jpg")}})},
      {"user_has_liked", boolean(true)},
  });
}

std::vector<std::string> keys_of(const Dictionary* d) {
  std::vector<std::string> out;
  if (d)
    for (const auto& [k, v] : d->entries()) out.emplace_back(text_of(k.get()));
  return out;
}

const std::vector<std::string> kAllKeys = {
    "taken_at",          "id",
    "pk",                "device_timestamp",
    "media_type",        "code",
    "filter_type",       "image_versions2",
    "original_width",    "original_height",
    "user",              "caption",
    "like_count",        "has_liked",
    "likers",            "comment_likes_enabled",
    "comment_threading_enabled", "has_more_comments",
    "max_num_visible_preview_comments", "preview_comments",
    "comment_count",     "photo_of_you",
    "can_viewer_save",   "converted_from_orvia4"};

void expect_int(const Object* o, std::int64_t v) {
  const Number* n = as_number(o);
  ASSERT_TRUE(n);
  EXPECT_TRUE(n->is_integer());
  EXPECT_EQ(n->int_value(), v);
}
void expect_bool(const Object* o, bool v) {
  const Number* n = as_number(o);
  ASSERT_TRUE(n);
  EXPECT_TRUE(n->is_bool());
  EXPECT_EQ(n->bool_value(), v);
}

TEST(MediaConversion, MapsACompleteRecordKeyForKey) {
  Ref<Dictionary> stored = full_record();
  Ref<Dictionary> out = convertedDictionary(stored.get());
  EXPECT_TRUE(out->is_mutable());
  EXPECT_EQ(keys_of(out.get()), kAllKeys);
  Object* time = stored->get("caption") ? as_dict(stored->get("caption"))->get("created_time") : nullptr;
  EXPECT_EQ(out->get("taken_at"), time);  // copied, the same object
  EXPECT_EQ(out->get("device_timestamp"), time);
  EXPECT_EQ(out->get("id"), stored->get("id"));
  EXPECT_EQ(text_of(out->get("pk")), "123");
  expect_int(out->get("media_type"), 1);
  EXPECT_EQ(text_of(out->get("code")), "BAbCdEf");
  expect_int(out->get("filter_type"), 0);
  expect_int(out->get("original_width"), 640);
  expect_int(out->get("original_height"), 640);
  expect_int(out->get("like_count"), 5);
  expect_bool(out->get("has_liked"), true);
  expect_int(out->get("comment_count"), 2);
  EXPECT_TRUE(as_array(out->get("likers")) && as_array(out->get("likers"))->empty());
  EXPECT_TRUE(as_array(out->get("preview_comments")) && as_array(out->get("preview_comments"))->empty());
  EXPECT_NE(out->get("likers"), out->get("preview_comments"));
  for (const char* k : {"comment_likes_enabled", "comment_threading_enabled", "has_more_comments", "photo_of_you"})
    expect_bool(out->get(k), false);
  expect_int(out->get("max_num_visible_preview_comments"), 0);
  expect_bool(out->get("can_viewer_save"), true);
  expect_bool(out->get("converted_from_orvia4"), true);

  const Dictionary* versions = as_dict(out->get("image_versions2"));
  ASSERT_TRUE(versions);
  EXPECT_EQ(keys_of(versions), std::vector<std::string>({"candidates"}));
  const Array* candidates = as_array(versions->get("candidates"));
  ASSERT_TRUE(candidates);
  ASSERT_EQ(candidates->size(), 2u);
  const std::vector<std::pair<std::int64_t, const char*>> sizes = {{640, "https://s/640.jpg"}, {320, "https://s/320.jpg"}};
  for (std::size_t i = 0; i < 2; ++i) {
    const Dictionary* c = as_dict(candidates->at(i).get());
    ASSERT_TRUE(c);
    EXPECT_EQ(keys_of(c), std::vector<std::string>({"width", "height", "url"}));
    expect_int(c->get("width"), sizes[i].first);  // fixed, whatever the stored width
    expect_int(c->get("height"), sizes[i].first);
    EXPECT_EQ(text_of(c->get("url")), sizes[i].second);
  }

  const Dictionary* user = as_dict(out->get("user"));
  ASSERT_TRUE(user);
  EXPECT_EQ(keys_of(user), std::vector<std::string>({"pk", "username", "full_name", "profile_pic_url", "is_private"}));
  EXPECT_EQ(text_of(user->get("pk")), "456");
  EXPECT_EQ(text_of(user->get("username")), "ann");
  EXPECT_EQ(text_of(user->get("full_name")), "Ann A");
  EXPECT_EQ(text_of(user->get("profile_pic_url")), "https://p/ann.jpg");
  expect_bool(user->get("is_private"), false);

  const Dictionary* caption = as_dict(out->get("caption"));
  ASSERT_TRUE(caption);
  EXPECT_EQ(keys_of(caption),
            std::vector<std::string>({"pk", "user_id", "text", "type", "created_at", "created_at_utc", "content_type",
                                      "status", "bit_flags", "user", "did_report_as_spam", "media_id",
                                      "caption_is_edited"}));
  EXPECT_EQ(text_of(caption->get("pk")), "c1");
  EXPECT_EQ(text_of(caption->get("user_id")), "456");
  EXPECT_EQ(text_of(caption->get("text")), "hello");
  expect_int(caption->get("type"), 1);
  EXPECT_EQ(caption->get("created_at"), time);
  EXPECT_EQ(caption->get("created_at_utc"), time);
  EXPECT_EQ(text_of(caption->get("content_type")), "comment");
  EXPECT_EQ(text_of(caption->get("status")), "Active");
  expect_int(caption->get("bit_flags"), 0);
  EXPECT_EQ(caption->get("user"), out->get("user"));  // the very same record
  expect_bool(caption->get("did_report_as_spam"), false);
  EXPECT_EQ(caption->get("media_id"), out->get("pk"));
  expect_bool(caption->get("caption_is_edited"), false);

  // Every call makes a new dictionary.
  EXPECT_NE(convertedDictionary(stored.get()).get(), out.get());
}

struct EdgeCase {
  const char* name;
  std::function<void(Dictionary& stored)> change;
  std::function<void(const Dictionary& out)> check;
};

const Dictionary& sub(const Dictionary& d, const char* key) {
  static const Ref<Dictionary> empty = dict({});
  const Dictionary* s = as_dict(d.get(key));
  return s ? *s : *empty;
}

TEST(MediaConversion, HandlesIncompleteAndOddRecords) {
  const std::vector<EdgeCase> cases = {
      {"id without _", [](Dictionary& s) { s.set("id", str("789")); },
       [](const Dictionary& o) {
         EXPECT_EQ(text_of(o.get("pk")), "789");
         EXPECT_EQ(text_of(sub(o, "caption").get("media_id")), "789");
       }},
      {"id with two _", [](Dictionary& s) { s.set("id", str("1_2_3")); },
       [](const Dictionary& o) { EXPECT_EQ(text_of(o.get("pk")), "1"); }},
      {"id starting with _", [](Dictionary& s) { s.set("id", str("_9")); },
       [](const Dictionary& o) { EXPECT_EQ(text_of(o.get("pk")), ""); }},
      {"link ending in /", [](Dictionary& s) { s.set("link", str("https://photos.example/p/BAbCdEf/")); },
       [](const Dictionary& o) {
         ASSERT_TRUE(as_string(o.get("code")));
         EXPECT_EQ(text_of(o.get("code")), "");
       }},
      {"link without /", [](Dictionary& s) { s.set("link", str("BAbCdEf")); },
       [](const Dictionary& o) { EXPECT_EQ(text_of(o.get("code")), "BAbCdEf"); }},
      {"videos", [](Dictionary& s) { s.set("videos", dict({{"standard_resolution", dict({})}})); },
       [](const Dictionary& o) { expect_int(o.get("media_type"), 2); }},
      {"videos stored as null", [](Dictionary& s) { s.set("videos", Null::shared()); },
       [](const Dictionary& o) { expect_int(o.get("media_type"), 2); }},
      {"no likes, comments or user_has_liked",
       [](Dictionary& s) {
         s.remove("likes");
         s.remove("comments");
         s.remove("user_has_liked");
       },
       [](const Dictionary& o) {
         EXPECT_FALSE(o.get("like_count"));
         EXPECT_FALSE(o.get("comment_count"));
         EXPECT_FALSE(o.get("has_liked"));
         EXPECT_EQ(o.size(), 21u);
       }},
      {"user_has_liked stored as null", [](Dictionary& s) { s.set("user_has_liked", Null::shared()); },
       [](const Dictionary& o) { EXPECT_TRUE(is_null(o.get("has_liked"))); }},
      {"no caption", [](Dictionary& s) { s.remove("caption"); },
       [](const Dictionary& o) {
         EXPECT_FALSE(o.get("taken_at"));
         EXPECT_FALSE(o.get("device_timestamp"));
         EXPECT_EQ(keys_of(&sub(o, "caption")),
                   std::vector<std::string>({"type", "content_type", "status", "bit_flags", "user",
                                             "did_report_as_spam", "media_id", "caption_is_edited"}));
       }},
      {"caption stored as null", [](Dictionary& s) { s.set("caption", Null::shared()); },
       [](const Dictionary& o) {
         EXPECT_FALSE(o.get("taken_at"));
         EXPECT_FALSE(sub(o, "caption").get("text"));
         EXPECT_EQ(sub(o, "caption").get("user"), o.get("user"));
       }},
      {"caption.from is a text", [](Dictionary& s) {
         as_dict(s.get("caption"))->set("from", str("456"));
       },
       [](const Dictionary& o) {
         EXPECT_FALSE(sub(o, "caption").get("user_id"));
         EXPECT_EQ(text_of(sub(o, "caption").get("text")), "hello");
       }},
      {"user stored as null", [](Dictionary& s) { s.set("user", Null::shared()); },
       [](const Dictionary& o) { EXPECT_EQ(keys_of(&sub(o, "user")), std::vector<std::string>({"is_private"})); }},
      {"no low resolution image",
       [](Dictionary& s) { as_dict(s.get("images"))->remove("low_resolution"); },
       [](const Dictionary& o) {
         const Array* c = as_array(sub(o, "image_versions2").get("candidates"));
         ASSERT_TRUE(c);
         EXPECT_EQ(keys_of(as_dict(c->at(1).get())), std::vector<std::string>({"width", "height"}));
         EXPECT_EQ(text_of(as_dict(c->at(0).get())->get("url")), "https://s/640.jpg");
       }},
      {"no id",
       [](Dictionary& s) { s.remove("id"); },
       [](const Dictionary& o) {
         EXPECT_FALSE(o.get("id"));
         EXPECT_FALSE(o.get("pk"));
         EXPECT_FALSE(sub(o, "caption").get("media_id"));
       }},
      {"numeric id", [](Dictionary& s) { s.set("id", num(123)); },
       [](const Dictionary& o) {
         expect_int(o.get("id"), 123);  // copied as stored
         EXPECT_EQ(text_of(o.get("pk")), "123");
       }},
      {"id that is a dictionary", [](Dictionary& s) { s.set("id", dict({{"a", str("1_2")}})); },
       [](const Dictionary& o) {
         EXPECT_TRUE(as_dict(o.get("id")));
         EXPECT_FALSE(o.get("pk"));
         EXPECT_FALSE(sub(o, "caption").get("media_id"));
       }},
      {"link stored as null", [](Dictionary& s) { s.set("link", Null::shared()); },
       [](const Dictionary& o) { EXPECT_FALSE(o.get("code")); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Ref<Dictionary> stored = full_record();
    c.change(*stored);
    Ref<Dictionary> out = convertedDictionary(stored.get());
    c.check(*out);
    expect_bool(out->get("converted_from_orvia4"), true);
  }
}

TEST(MediaConversion, ConvertsUnreadableRecordsFromAnEmptyRecord) {
  const std::vector<std::string> constants = {
      "media_type", "filter_type", "image_versions2", "original_width", "original_height", "user", "caption",
      "likers", "comment_likes_enabled", "comment_threading_enabled", "has_more_comments",
      "max_num_visible_preview_comments", "preview_comments", "photo_of_you", "can_viewer_save",
      "converted_from_orvia4"};
  struct Case {
    const char* name;
    std::optional<std::string> archive;
    const char* reason;  // the logged reason, or its start
  };
  const std::vector<Case> cases = {
      {"no stored dictionary", std::nullopt, "no stored dictionary"},
      {"not an archive", std::string("not a keyed archive"), ""},
      {"an archived list", archive_root(array({str("a")}).get()), "the archived root is a NSArray, not a dictionary"},
      {"an archived nil", archive_root(static_cast<const Object*>(nullptr)), "the archived root is nil"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    std::string_view bytes = c.archive ? std::string_view(*c.archive) : std::string_view();
    Ref<Dictionary> out = convertedDictionaryFromArchive(c.archive ? &bytes : nullptr, "x-coredata://U/ImageItem/p7");
    EXPECT_EQ(keys_of(out.get()), constants);
    expect_int(out->get("media_type"), 1);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].rfind(std::string("Unreadable media record x-coredata://U/ImageItem/p7: ") + c.reason, 0),
              0u)
        << log.lines()[0];
  }
  // A readable archive converts without a log line.
  LogCapture log;
  const std::string archive = archive_root(full_record().get());
  std::string_view bytes = archive;
  Ref<Dictionary> out = convertedDictionaryFromArchive(&bytes, "x");
  EXPECT_EQ(keys_of(out.get()), kAllKeys);
  EXPECT_TRUE(log.lines().empty());
}

TEST(MediaConversion, KeepsIntegersAndBooleansApartThroughAnArchive) {
  Ref<Dictionary> out = convertedDictionary(full_record().get());
  auto decoded = unarchive(archive_root(out.get()));
  ASSERT_TRUE(decoded.ok()) << decoded.error().message;
  const Dictionary* back = as_dict(decoded.value().get());
  ASSERT_TRUE(back);
  EXPECT_TRUE(deep_equal(back, out.get()));
  expect_int(back->get("filter_type"), 0);
  expect_bool(back->get("photo_of_you"), false);
  expect_bool(back->get("converted_from_orvia4"), true);
  // The shared user record stays one object.
  EXPECT_EQ(as_dict(back->get("caption"))->get("user"), back->get("user"));
}


// ---- reading only the values taken, against decoding whole

// A keyed archive written entry by entry, so that a test can shape what archivers never write.
class Sketch {
 public:
  Sketch() { objects_.push_back(b_.add_string("$null")); }
  std::uint64_t string(std::string_view text) { return value(b_.add_string(text)); }
  std::uint64_t integer(std::int64_t v) { return value(b_.add_int(v)); }
  std::uint64_t boolean_value(bool v) { return value(b_.add_bool(v)); }
  std::uint64_t null_object() { return value(b_.add_null()); }
  std::uint64_t class_record(std::string_view name) {
    const std::uint32_t names[] = {b_.add_string(name), b_.add_string("NSObject")};
    const std::uint32_t list = b_.reserve();
    b_.set_array(list, names, 2);
    const std::uint32_t keys[] = {b_.add_string("$classname"), b_.add_string("$classes")};
    const std::uint32_t values[] = {b_.add_string(name), list};
    const std::uint32_t d = b_.reserve();
    b_.set_dict(d, keys, values, 2);
    return value(d);
  }
  std::uint64_t slot() { return value(b_.reserve()); }
  // A record with lists of UIDs under list keys ("NS.keys", "NS.objects") and single UIDs under others.
  void record(std::uint64_t at, std::uint64_t cls, const std::vector<std::pair<std::string, std::vector<std::uint64_t>>>& lists,
              const std::vector<std::pair<std::string, std::uint64_t>>& fields = {}) {
    std::vector<std::uint32_t> keys, values;
    for (const auto& [key, uids] : lists) {
      std::vector<std::uint32_t> refs;
      for (std::uint64_t u : uids) refs.push_back(b_.add_uid(u));
      const std::uint32_t list = b_.reserve();
      b_.set_array(list, refs.data(), refs.size());
      keys.push_back(b_.add_string(key));
      values.push_back(list);
    }
    for (const auto& [key, uid] : fields) {
      keys.push_back(b_.add_string(key));
      values.push_back(b_.add_uid(uid));
    }
    if (cls) {
      keys.push_back(b_.add_string("$class"));
      values.push_back(b_.add_uid(cls));
    }
    b_.set_dict(objects_[at], keys.data(), values.data(), keys.size());
  }
  std::uint64_t dictionary(std::uint64_t cls, const std::vector<std::pair<std::uint64_t, std::uint64_t>>& entries) {
    const std::uint64_t at = slot();
    std::vector<std::uint64_t> keys, values;
    for (const auto& [k, v] : entries) keys.push_back(k), values.push_back(v);
    record(at, cls, {{"NS.keys", keys}, {"NS.objects", values}});
    return at;
  }
  std::string bytes(std::uint64_t root) {
    const std::uint32_t list = b_.reserve();
    b_.set_array(list, objects_.data(), objects_.size());
    const std::uint32_t tk = b_.add_string("root"), tv = b_.add_uid(root);
    const std::uint32_t top_dict = b_.reserve();
    b_.set_dict(top_dict, &tk, &tv, 1);
    const std::uint32_t keys[] = {b_.add_string("$version"), b_.add_string("$archiver"), b_.add_string("$top"),
                                  b_.add_string("$objects")};
    const std::uint32_t values[] = {b_.add_int(100000), b_.add_string("NSKeyedArchiver"), top_dict, list};
    const std::uint32_t top = b_.reserve();
    b_.set_dict(top, keys, values, 4);
    return b_.write(top);
  }

 private:
  std::uint64_t value(std::uint32_t index) {
    objects_.push_back(index);
    return objects_.size() - 1;
  }
  bplist::Builder b_;
  std::vector<std::uint32_t> objects_;
};

TEST(MediaConversion, ReadingOnlyTheTakenValuesConvertsExactlyAsDecodingWhole) {
  enum Expect { Reads, Declines };
  struct Case {
    const char* name;
    Expect expect;
    std::function<std::string()> make;
  };
  // A record in the usual shape; `shape` may change it before it is written. Padded, its root gets
  // filler entries at the end, enough for its keys to be looked up through an index.
  bool padded = false;
  auto record = [&padded](const std::function<void(Sketch&, std::uint64_t dict_class, std::vector<std::pair<std::uint64_t, std::uint64_t>>& root)>& shape) {
    Sketch s;
    const std::uint64_t dict_class = s.class_record("NSDictionary");
    const std::uint64_t user = s.dictionary(dict_class, {{s.string("id"), s.string("456")}, {s.string("username"), s.string("ann")}});
    const std::uint64_t caption =
        s.dictionary(dict_class, {{s.string("text"), s.string("hello")}, {s.string("created_time"), s.string("1400000000")},
                                  {s.string("from"), user}});  // the caption's author is the very same record
    std::vector<std::pair<std::uint64_t, std::uint64_t>> root = {
        {s.string("id"), s.string("1_2")}, {s.string("link"), s.string("https://l/AbC")}, {s.string("user"), user},
        {s.string("caption"), caption}, {s.string("user_has_liked"), s.boolean_value(false)}};
    shape(s, dict_class, root);
    for (int i = 0; padded && i < 8; ++i) root.push_back({s.string("filler " + std::to_string(i)), s.string("f")});
    return s.bytes(s.dictionary(dict_class, root));
  };
  auto plain = [](Sketch&, std::uint64_t, std::vector<std::pair<std::uint64_t, std::uint64_t>>&) {};
  const std::vector<Case> cases = {
      {"archived by our archiver", Reads, [] { return archive_root(full_record().get()); }},
      {"shared records", Reads, [&] { return record(plain); }},
      {"a null slot before the same key", Reads,
       [&] {
         return record([](Sketch& s, std::uint64_t, auto& root) {
           root.insert(root.begin(), {s.string("id"), s.string("$null")});
           root.insert(root.begin(), {s.string("link"), 0});
         });
       }},
      {"a byte beyond ASCII in ASCII-marked strings: values taken, and a key", Reads,
       [&] {
         std::string b = record([](Sketch& s, std::uint64_t, auto& root) {
           root[0].second = s.string("7#_8");
           root.insert(root.begin(), {s.string("id#"), s.string("9_9")});
           root[1].second = s.string("https://l/#");  // the link, whose end becomes the code
         });
         for (std::string_view marked : {"7#_8", "id#", "https://l/#"}) {  // '#' becomes a Latin-1 e-acute
           const std::size_t at = b.find(marked);
           if (at == std::string::npos) {
             ADD_FAILURE() << marked;
             continue;
           }
           b[at + marked.find('#')] = '\xe9';
         }
         return b;
       }},
      {"the same key twice: the first counts", Reads,
       [&] {
         return record([](Sketch& s, std::uint64_t, auto& root) { root.insert(root.begin(), {s.string("id"), s.string("7_8")}); });
       }},
      {"NSNull and a number as values", Reads,
       [&] {
         return record([](Sketch& s, std::uint64_t, auto& root) {
           const std::uint64_t null_class = s.class_record("NSNull");
           const std::uint64_t null_object = s.slot();
           s.record(null_object, null_class, {});
           root.push_back({s.string("videos"), null_object});
           root.push_back({s.string("likes"), s.integer(7)});  // not a dictionary: no like count
         });
       }},
      {"keys without values and the null object as key", Reads,
       [&] {
         return record([](Sketch& s, std::uint64_t dict_class, auto& root) {
           const std::uint64_t extra = s.slot();
           s.record(extra, dict_class, {{"NS.keys", {s.string("count"), s.string("x")}}, {"NS.objects", {s.integer(3)}}});
           root.push_back({s.string("comments"), extra});
           root.push_back({s.null_object(), s.string("ignored")});
         });
       }},
      {"a cycle through the id (left to decoding whole: not a plain value)", Declines,
       [&] {
         return record([](Sketch& s, std::uint64_t, auto& root) {
           const std::uint64_t array_class = s.class_record("NSMutableArray");
           const std::uint64_t list = s.slot();
           root[0].second = list;
           s.record(list, array_class, {{"NS.objects", {list, s.string("x")}}});
         });
       }},
      {"a string record as key", Declines,
       [&] {
         return record([](Sketch& s, std::uint64_t, auto& root) {
           const std::uint64_t string_class = s.class_record("NSMutableString");
           const std::uint64_t key = s.slot();
           s.record(key, string_class, {}, {{"NS.string", s.string("id")}});
           root.insert(root.begin(), {key, s.string("first")});
         });
       }},
      {"a record of another class", Declines,
       [&] {
         return record([](Sketch& s, std::uint64_t, auto& root) {
           const std::uint64_t other = s.class_record("SomethingElse");
           const std::uint64_t o = s.slot();
           s.record(o, other, {}, {{"name", s.string("x")}});
           root.push_back({s.string("attribution"), o});
         });
       }},
      {"a damaged entry nobody reaches", Declines,
       [&] {
         return record([](Sketch& s, std::uint64_t, auto&) {
           const std::uint64_t o = s.slot();
           s.record(o, 0, {}, {{"name", s.string("no class")}});
         });
       }},
      {"a root that is not a dictionary", Declines,
       [] {
         Sketch s;
         return s.bytes(s.string("just text"));
       }},
      {"the XML form", Declines,
       [] {
         return std::string(
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
             "<key>$archiver</key><string>NSKeyedArchiver</string><key>$version</key><integer>100000</integer>"
             "<key>$top</key><dict><key>root</key><dict><key>CF$UID</key><integer>1</integer></dict></dict>"
             "<key>$objects</key><array><string>$null</string>"
             "<dict><key>NS.keys</key><array><dict><key>CF$UID</key><integer>3</integer></dict></array>"
             "<key>NS.objects</key><array><dict><key>CF$UID</key><integer>4</integer></dict></array>"
             "<key>$class</key><dict><key>CF$UID</key><integer>2</integer></dict></dict>"
             "<dict><key>$classname</key><string>NSDictionary</string></dict><string>id</string><string>9_1</string>"
             "</array></dict></plist>");
       }},
  };
  for (const bool pad : {false, true})
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + (pad ? " (padded)" : ""));
    padded = pad;
    const std::string bytes = c.make();
    Result<Ref<Dictionary>> decoded = decode_media_record(bytes);
    const std::string whole = archive_root(convertedDictionary(decoded.ok() ? decoded.value().get() : nullptr).get());
    std::optional<Ref<Dictionary>> quick = convertedDictionaryByLookup(bytes);
    EXPECT_EQ(quick.has_value(), c.expect == Reads);
    if (quick) {
      EXPECT_TRUE(decoded.ok());
      EXPECT_TRUE(archive_root(quick->get()) == whole);
    }
    // Whichever way it goes, the album builder's entry point converts as decoding whole does.
    LogCapture log;
    const std::string_view view = bytes;
    EXPECT_TRUE(archive_root(convertedDictionaryFromArchive(&view, "x-coredata://t/ImageItem/p1").get()) == whole);
    // And the album lists' form, a graph where it can be read so, is written as those objects are.
    FlatGraph graph;
    FlatGraph::Node root;
    std::string unreadable;
    Ref<Dictionary> media = convertedMediaFromArchive(&view, &unreadable, graph, root);
    EXPECT_EQ(media == nullptr, c.expect == Reads);
    const std::string streamed = media ? test::archive_streamed({{media}}) : test::archive_streamed({{nullptr, &graph, root}});
    EXPECT_TRUE(streamed == test::archive_streamed({{convertedDictionary(decoded.ok() ? decoded.value().get() : nullptr)}}));
  }
}

}  // namespace
}  // namespace orvia
