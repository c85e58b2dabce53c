// Stored media records (keyed archives of the older interface's dictionaries) converted to the newer
// form: the 24 keys in order, their kinds, and every incomplete or odd record.
#include "legacy/media_conversion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>

#include "platform/bplist_format.h"
#include "platform/keyed_archive.h"
#include "platform/log.h"
#include "platform/plist.h"
#include "support/streamed_list.h"

namespace orvia {
namespace {

Ref<Dictionary> full_record() {  // its own created_time is never read: only the caption's time is
  return mutable_dict(
      {{"id", str("123_456")}, {"link", str("https://photos.example/p/BAbCdEf")}, {"type", str("image")},
       {"created_time", str("1300000000")},
       {"caption", dict({{"id", str("c1")}, {"text", str("hello")}, {"created_time", str("1400000000")},
                         {"from", dict({{"id", str("456")}, {"username", str("ann")}})}})},
       {"images", dict({{"standard_resolution", dict({{"url", str("https://s/640.jpg")}, {"width", num(1080)}})},
                        {"low_resolution", dict({{"url", str("https://s/320.jpg")}, {"width", num(320)}})}})},
       {"likes", dict({{"count", num(5)}})}, {"comments", dict({{"count", num(2)}})},
       {"user", dict({{"id", str("456")}, {"username", str("ann")}, {"full_name", str("Ann A")},
                      {"profile_picture", str("https://p/ann.jpg")}})},
       {"user_has_liked", boolean(true)}});
}

// A value tree as text that tells the kinds apart: "text", 7 (integer), 7.5r (real), YES/NO (boolean),
// null, [items] and {key: value} with keys in their stored order.
std::string shape(const Object* o) {
  const Number* n = as_number(o);
  if (!o || as_string(o) || n) {
    return !o ? "nil" : as_string(o) ? '"' + as_string(o)->str() + '"' : n->is_bool() ? (n->bool_value() ? "YES" : "NO")
           : n->is_real() ? std::to_string(n->real_value()) + "r" : std::to_string(n->int_value());
  }
  std::string out;
  if (const Array* a = as_array(o))
    for (const auto& item : a->items()) out += (out.empty() ? "" : ", ") + shape(item.get());
  if (const Dictionary* d = as_dict(o))
    for (const auto& [k, v] : d->entries()) out += (out.empty() ? "" : ", ") + std::string(text_of(k.get())) + ": " + shape(v.get());
  return as_array(o) ? "[" + out + "]" : as_dict(o) ? "{" + out + "}" : is_null(o) ? "null" : std::string(o->class_name());
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
  // Values taken over are the stored objects themselves, and values used twice one object; every call
  // makes a new dictionary.
  const Dictionary* caption = as_dict(out->get("caption"));
  ASSERT_TRUE(caption);
  const Object* time = as_dict(stored->get("caption"))->get("created_time");
  for (const Object* o : {out->get("taken_at"), out->get("device_timestamp"), caption->get("created_at"), caption->get("created_at_utc")})
    EXPECT_EQ(o, time);
  EXPECT_TRUE(out->get("id") == stored->get("id") && caption->get("user") == out->get("user") &&
              caption->get("media_id") == out->get("pk") && out->get("likers") != out->get("preview_comments"));
  EXPECT_NE(convertedDictionary(stored.get()).get(), out.get());
}

// The entries at the given key paths of a conversion ("caption.text" reaches into the caption, "#" is
// the number of entries), as one line of "path=shape" items.
std::string pick(const Dictionary& out, const std::string& paths) {
  std::string line, path;
  for (std::istringstream in(paths); in >> path;) {
    const Object* at = &out;
    for (std::size_t part = 0; at && part <= path.size(); part = std::min(path.find('.', part), path.size()) + 1)
      at = as_dict(at) ? as_dict(at)->get(path.substr(part, path.find('.', part) - part)) : nullptr;
    line += (line.empty() ? "" : " ") + path + "=" + (path == "#" ? std::to_string(out.size()) : shape(at));
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
      {"no likes, comments or user_has_liked", [](Dictionary& s) { s.remove("likes"), s.remove("comments"), s.remove("user_has_liked"); },
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

// A keyed archive written entry by entry, so that a test can shape what archivers never write: UIDs
// number the entries of "$objects" ("$null" is 0); Raw values are entries of the property list.
class Sketch {
 public:
  using U = std::uint64_t;
  using Raw = std::uint32_t;
  using Fields = std::vector<std::pair<std::string, Raw>>;
  Sketch() { push(b_.add_string("$null")); }
  U string(std::string_view text) { return push(b_.add_string(text)); }
  U integer(std::int64_t v) { return push(b_.add_int(v)); }
  U boolean_value(bool v) { return push(b_.add_bool(v)); }
  U null_object() { return push(b_.add_null()); }
  U slot() { return push(b_.reserve()); }
  U class_record(std::string_view name) {
    return push(dict({{"$classname", b_.add_string(name)}, {"$classes", list({b_.add_string(name), b_.add_string("NSObject")})}}));
  }
  Raw uid(U u) { return b_.add_uid(u); }
  Raw uids(const std::vector<U>& us) {
    std::vector<Raw> refs;
    for (U u : us) refs.push_back(uid(u));
    return list(refs);
  }
  // Fills a slot with a record of class `cls` (none: without "$class").
  void record(U at, U cls, Fields fields) {
    if (cls) fields.push_back({"$class", uid(cls)});
    dict(fields, objects_[at]);
  }
  U dictionary(U cls, const std::vector<std::pair<U, U>>& entries) {
    const U at = slot();
    std::vector<U> keys, values;
    for (const auto& [k, v] : entries) keys.push_back(k), values.push_back(v);
    record(at, cls, {{"NS.keys", uids(keys)}, {"NS.objects", uids(values)}});
    return at;
  }
  std::string bytes(U root) {
    return b_.write(dict({{"$version", b_.add_int(100000)}, {"$archiver", b_.add_string("NSKeyedArchiver")},
                          {"$top", dict({{"root", uid(root)}})}, {"$objects", list(objects_)}}));
  }

 private:
  U push(Raw index) {
    objects_.push_back(index);
    return objects_.size() - 1;
  }
  Raw list(const std::vector<Raw>& refs) {
    const Raw at = b_.reserve();
    b_.set_array(at, refs.data(), refs.size());
    return at;
  }
  Raw dict(const Fields& fields, std::optional<Raw> at = std::nullopt) {
    std::vector<Raw> keys, values;
    for (const auto& [k, v] : fields) keys.push_back(b_.add_string(k)), values.push_back(v);
    if (!at) at = b_.reserve();
    b_.set_dict(*at, keys.data(), values.data(), keys.size());
    return *at;
  }
  bplist::Builder b_;
  std::vector<Raw> objects_;
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
      s.record(o, c, field ? Sketch::Fields{{field, s.uid(s.string(text))}} : Sketch::Fields{});
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
         s.record(extra, dict_class, {{"NS.keys", s.uids({s.string("count"), s.string("x")})}, {"NS.objects", s.uids({s.integer(3)})}});
         root.push_back({s.string("comments"), extra});
         root.push_back({s.null_object(), s.string("ignored")});
       })},
      {"a cycle through the id (left to decoding whole: not a plain value)", Declines,
       record([](Sketch& s, std::uint64_t, Root& root) {
         const std::uint64_t array_class = s.class_record("NSMutableArray"), list = s.slot();
         root[0].second = list;
         s.record(list, array_class, {{"NS.objects", s.uids({list, s.string("x")})}});
       })},
      {"a string record as key", Declines, record(one_record("NSMutableString", "NS.string", "id", ""))},
      {"a record of another class", Declines, record(one_record("SomethingElse", "name", "x", "attribution"))},
      {"a damaged entry nobody reaches", Declines, record(one_record(nullptr, "name", "no class", nullptr))},
      {"a root that is not a dictionary", Declines, [] {
         Sketch s;
         return s.bytes(s.string("just text"));
       }},
      {"the XML form", Declines, [] {  // XML writes a UID as a dictionary of "CF$UID"
         auto u = [](int n) { return dict({{"CF$UID", num(n)}}); };
         return write_xml_plist(dict({{"$archiver", str("NSKeyedArchiver")}, {"$version", num(100000)}, {"$top", dict({{"root", u(1)}})},
                                      {"$objects", array({str("$null"), dict({{"NS.keys", array({u(3)})}, {"NS.objects", array({u(4)})}, {"$class", u(2)}}),
                                                          dict({{"$classname", str("NSDictionary")}}), str("id"), str("9_1")})}}).get()).value();
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
    EXPECT_TRUE(!quick || (decoded.ok() && archive_root(quick->get()) == whole));
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
