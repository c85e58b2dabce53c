// Stored media records (keyed archives of the older interface's dictionaries) converted to the newer
// form: the 24 keys in order, their kinds, and every incomplete or odd record.
#include "legacy/media_conversion.h"

#include <gtest/gtest.h>

#include <algorithm>
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

// A value tree as text that tells the kinds apart: "text", 7 (integer), 7.5r (real), YES/NO (boolean),
// null, [items] and {key: value} with keys in their stored order.
std::string shape(const Object* o) {
  if (!o) return "nil";
  if (const String* s = as_string(o)) return '"' + s->str() + '"';
  if (const Number* n = as_number(o)) {
    if (n->is_bool()) return n->bool_value() ? "YES" : "NO";
    return n->is_real() ? std::to_string(n->real_value()) + "r" : std::to_string(n->int_value());
  }
  if (const Array* a = as_array(o)) {
    std::string out = "[";
    for (const auto& item : a->items()) out += (out.size() > 1 ? ", " : "") + shape(item.get());
    return out + "]";
  }
  if (const Dictionary* d = as_dict(o)) {
    std::string out = "{";
    for (const auto& [k, v] : d->entries())
      out += (out.size() > 1 ? ", " : "") + std::string(text_of(k.get())) + ": " + shape(v.get());
    return out + "}";
  }
  return is_null(o) ? "null" : std::string(o->class_name());
}

// The conversion of full_record(): the 24 keys in order. Sizes are fixed, whatever the stored widths; the
// record's own created_time is never read, only the caption's.
const std::string kUser = R"({pk: "456", username: "ann", full_name: "Ann A", profile_pic_url: "https://p/ann.jpg", )"
                          R"(is_private: NO})";
const std::string kFullConversion =
    R"({taken_at: "1400000000", id: "123_456", pk: "123", device_timestamp: "1400000000", media_type: 1, )"
    R"(code: "BAbCdEf", filter_type: 0, image_versions2: {candidates: [{width: 640, height: 640, )"
    R"(url: "https://s/640.jpg"}, {width: 320, height: 320, url: "https://s/320.jpg"}]}, original_width: 640, )"
    R"(original_height: 640, user: )" + kUser + R"(, caption: {pk: "c1", user_id: "456", text: "hello", type: 1, )"
    R"(created_at: "1400000000", created_at_utc: "1400000000", content_type: "comment", status: "Active", )"
    R"(bit_flags: 0, user: )" + kUser + R"(, did_report_as_spam: NO, media_id: "123", caption_is_edited: NO}, )"
    R"(like_count: 5, has_liked: YES, likers: [], comment_likes_enabled: NO, comment_threading_enabled: NO, )"
    R"(has_more_comments: NO, max_num_visible_preview_comments: 0, preview_comments: [], comment_count: 2, )"
    R"(photo_of_you: NO, can_viewer_save: YES, converted_from_orvia4: YES})";

TEST(MediaConversion, MapsACompleteRecordKeyForKey) {
  Ref<Dictionary> stored = full_record();
  Ref<Dictionary> out = convertedDictionary(stored.get());
  EXPECT_TRUE(out->is_mutable());
  EXPECT_EQ(shape(out.get()), kFullConversion);
  // Values taken over are the stored objects themselves, and values used twice one object.
  const Dictionary* caption = as_dict(out->get("caption"));
  ASSERT_TRUE(caption);
  const Object* time = as_dict(stored->get("caption"))->get("created_time");
  for (const char* key : {"taken_at", "device_timestamp"}) EXPECT_EQ(out->get(key), time) << key;
  for (const char* key : {"created_at", "created_at_utc"}) EXPECT_EQ(caption->get(key), time) << key;
  EXPECT_EQ(out->get("id"), stored->get("id"));
  EXPECT_EQ(caption->get("user"), out->get("user"));
  EXPECT_EQ(caption->get("media_id"), out->get("pk"));
  EXPECT_NE(out->get("likers"), out->get("preview_comments"));
  // Every call makes a new dictionary.
  EXPECT_NE(convertedDictionary(stored.get()).get(), out.get());
}

// The entries at the given key paths of a conversion ("caption.text" reaches into the caption, "#" is
// the number of entries), as one line of "path=shape" items.
std::string pick(const Dictionary& out, std::string_view paths) {
  std::string line;
  for (std::size_t from = 0; from < paths.size();) {
    const std::size_t end = std::min(paths.find(' ', from), paths.size());
    const std::string path(paths.substr(from, end - from));
    from = end + 1;
    std::string value = std::to_string(out.size());
    if (path != "#") {
      const Object* at = &out;
      for (std::size_t part = 0; at && part <= path.size();) {
        const std::size_t dot = std::min(path.find('.', part), path.size());
        at = as_dict(at) ? as_dict(at)->get(path.substr(part, dot - part)) : nullptr;
        part = dot + 1;
      }
      value = shape(at);
    }
    line += (line.empty() ? "" : " ") + path + "=" + value;
  }
  return line;
}

TEST(MediaConversion, HandlesIncompleteAndOddRecords) {
  struct Case {
    const char* name;
    std::function<void(Dictionary& stored)> change;
    const char* paths;
    std::string expected;
  };
  const Ref<Object> null = Null::shared();
  auto set = [](const char* key, Ref<Object> v) { return [key, v](Dictionary& s) { s.set(key, v); }; };
  const std::vector<Case> cases = {
      {"id without _", set("id", str("789")), "pk caption.media_id", R"(pk="789" caption.media_id="789")"},
      {"id with two _", set("id", str("1_2_3")), "pk", R"(pk="1")"},
      {"id starting with _", set("id", str("_9")), "pk", R"(pk="")"},
      {"link ending in /", set("link", str("https://photos.example/p/BAbCdEf/")), "code", R"(code="")"},
      {"link without /", set("link", str("BAbCdEf")), "code", R"(code="BAbCdEf")"},
      {"videos", set("videos", dict({{"standard_resolution", dict({})}})), "media_type", "media_type=2"},
      {"videos stored as null", set("videos", null), "media_type", "media_type=2"},
      {"no likes, comments or user_has_liked",
       [](Dictionary& s) {
         for (const char* key : {"likes", "comments", "user_has_liked"}) s.remove(key);
       },
       "like_count comment_count has_liked #", "like_count=nil comment_count=nil has_liked=nil #=21"},
      {"user_has_liked stored as null", set("user_has_liked", null), "has_liked", "has_liked=null"},
      {"no caption", [](Dictionary& s) { s.remove("caption"); }, "taken_at device_timestamp caption",
       R"(taken_at=nil device_timestamp=nil caption={type: 1, content_type: "comment", status: "Active", )"
       R"(bit_flags: 0, user: )" + kUser + R"(, did_report_as_spam: NO, media_id: "123", caption_is_edited: NO})"},
      {"caption stored as null", set("caption", null), "taken_at caption.text caption.user",
       "taken_at=nil caption.text=nil caption.user=" + kUser},
      {"caption.from is a text", [](Dictionary& s) { as_dict(s.get("caption"))->set("from", str("456")); },
       "caption.user_id caption.text", R"(caption.user_id=nil caption.text="hello")"},
      {"user stored as null", set("user", null), "user", "user={is_private: NO}"},
      {"no low resolution image", [](Dictionary& s) { as_dict(s.get("images"))->remove("low_resolution"); },
       "image_versions2",
       R"(image_versions2={candidates: [{width: 640, height: 640, url: "https://s/640.jpg"}, {width: 320, height: 320}]})"},
      {"no id", [](Dictionary& s) { s.remove("id"); }, "id pk caption.media_id", "id=nil pk=nil caption.media_id=nil"},
      {"numeric id", set("id", num(123)), "id pk", R"(id=123 pk="123")"},  // copied as stored, cut as its text
      {"id that is a dictionary", set("id", dict({{"a", str("1_2")}})), "id pk caption.media_id",
       R"(id={a: "1_2"} pk=nil caption.media_id=nil)"},
      {"link stored as null", set("link", null), "code", "code=nil"},
  };
  for (const auto& c : cases) {
    Ref<Dictionary> stored = full_record();
    c.change(*stored);
    Ref<Dictionary> out = convertedDictionary(stored.get());
    EXPECT_EQ(pick(*out, std::string(c.paths) + " converted_from_orvia4"), c.expected + " converted_from_orvia4=YES")
        << c.name;
  }
}

TEST(MediaConversion, ConvertsUnreadableRecordsFromAnEmptyRecord) {
  const std::string constants_only =
      R"({media_type: 1, filter_type: 0, image_versions2: {candidates: [{width: 640, height: 640}, )"
      R"({width: 320, height: 320}]}, original_width: 640, original_height: 640, user: {is_private: NO}, )"
      R"(caption: {type: 1, content_type: "comment", status: "Active", bit_flags: 0, user: {is_private: NO}, )"
      R"(did_report_as_spam: NO, caption_is_edited: NO}, likers: [], comment_likes_enabled: NO, )"
      R"(comment_threading_enabled: NO, has_more_comments: NO, max_num_visible_preview_comments: 0, )"
      R"(preview_comments: [], photo_of_you: NO, can_viewer_save: YES, converted_from_orvia4: YES})";
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
    EXPECT_EQ(shape(out.get()), constants_only);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].rfind(std::string("Unreadable media record x-coredata://U/ImageItem/p7: ") + c.reason, 0),
              0u)
        << log.lines()[0];
  }
  // A readable archive converts without a log line.
  LogCapture log;
  const std::string archive = archive_root(full_record().get());
  std::string_view bytes = archive;
  EXPECT_EQ(shape(convertedDictionaryFromArchive(&bytes, "x").get()), kFullConversion);
  EXPECT_TRUE(log.lines().empty());
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
  using Root = std::vector<std::pair<std::uint64_t, std::uint64_t>>;
  using Shape = std::function<void(Sketch&, std::uint64_t dict_class, Root& root)>;
  bool padded = false;
  auto record = [&padded](Shape shape) -> std::function<std::string()> {
    return [&padded, shape] {
      Sketch s;
      const std::uint64_t dict_class = s.class_record("NSDictionary");
      const std::uint64_t user =
          s.dictionary(dict_class, {{s.string("id"), s.string("456")}, {s.string("username"), s.string("ann")}});
      const std::uint64_t caption =
          s.dictionary(dict_class, {{s.string("text"), s.string("hello")},
                                    {s.string("created_time"), s.string("1400000000")},
                                    {s.string("from"), user}});  // the caption's author is the very same record
      Root root = {{s.string("id"), s.string("1_2")}, {s.string("link"), s.string("https://l/AbC")},
                   {s.string("user"), user}, {s.string("caption"), caption},
                   {s.string("user_has_liked"), s.boolean_value(false)}};
      if (shape) shape(s, dict_class, root);
      for (int i = 0; padded && i < 8; ++i) root.push_back({s.string("filler " + std::to_string(i)), s.string("f")});
      return s.bytes(s.dictionary(dict_class, root));
    };
  };
  // A record of class `cls` (none: without $class) with at most one text field, put into the root under
  // `key` ("": as the root's first key; nullptr: nowhere).
  auto one_record = [](const char* cls, const char* field, const char* text, const char* key) -> Shape {
    return [=](Sketch& s, std::uint64_t, Root& root) {
      const std::uint64_t c = cls ? s.class_record(cls) : 0, o = s.slot();
      std::vector<std::pair<std::string, std::uint64_t>> fields;
      if (field) fields.push_back({field, s.string(text)});
      s.record(o, c, {}, fields);
      if (key && *key) root.push_back({s.string(key), o});
      if (key && !*key) root.insert(root.begin(), {o, s.string("first")});
    };
  };
  const std::vector<Case> cases = {
      {"archived by our archiver", Reads, [] { return archive_root(full_record().get()); }},
      {"shared records", Reads, record(nullptr)},
      {"a null slot before the same key", Reads, record([](Sketch& s, std::uint64_t, Root& root) {
         root.insert(root.begin(), {s.string("id"), s.string("$null")});
         root.insert(root.begin(), {s.string("link"), 0});
       })},
      {"a byte beyond ASCII in ASCII-marked strings: values taken, and a key", Reads,
       [make = record([](Sketch& s, std::uint64_t, Root& root) {
          root[0].second = s.string("7#_8");
          root.insert(root.begin(), {s.string("id#"), s.string("9_9")});
          root[1].second = s.string("https://l/#");  // the link, whose end becomes the code
        })] {
         std::string b = make();
         for (std::string_view marked : {"7#_8", "id#", "https://l/#"}) {  // '#' becomes a Latin-1 e-acute
           const std::size_t at = b.find(marked);
           if (at == std::string::npos) ADD_FAILURE() << marked;
           else b[at + marked.find('#')] = '\xe9';
         }
         return b;
       }},
      {"the same key twice: the first counts", Reads,
       record([](Sketch& s, std::uint64_t, Root& root) { root.insert(root.begin(), {s.string("id"), s.string("7_8")}); })},
      {"NSNull and a number as values", Reads, record([one_record](Sketch& s, std::uint64_t d, Root& root) {
         one_record("NSNull", nullptr, nullptr, "videos")(s, d, root);
         root.push_back({s.string("likes"), s.integer(7)});  // not a dictionary: no like count
       })},
      {"keys without values and the null object as key", Reads, record([](Sketch& s, std::uint64_t dict_class, Root& root) {
         const std::uint64_t extra = s.slot();
         s.record(extra, dict_class, {{"NS.keys", {s.string("count"), s.string("x")}}, {"NS.objects", {s.integer(3)}}});
         root.push_back({s.string("comments"), extra});
         root.push_back({s.null_object(), s.string("ignored")});
       })},
      {"a cycle through the id (left to decoding whole: not a plain value)", Declines,
       record([](Sketch& s, std::uint64_t, Root& root) {
         const std::uint64_t array_class = s.class_record("NSMutableArray"), list = s.slot();
         root[0].second = list;
         s.record(list, array_class, {{"NS.objects", {list, s.string("x")}}});
       })},
      {"a string record as key", Declines, record(one_record("NSMutableString", "NS.string", "id", ""))},
      {"a record of another class", Declines, record(one_record("SomethingElse", "name", "x", "attribution"))},
      {"a damaged entry nobody reaches", Declines, record(one_record(nullptr, "name", "no class", nullptr))},
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
