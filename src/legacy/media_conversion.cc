#include "legacy/media_conversion.h"

#include <initializer_list>
#include <optional>
#include <string>

#include "platform/description.h"
#include "platform/keyed_archive.h"
#include "platform/log.h"

namespace orvia {
namespace {

// Keys and constant values are immutable, untracked objects shared by every conversion: the
// conversion runs once per stored media item (hundreds of thousands in a large store), on two threads
// at once, so they are immortal (no count changes on every use).
struct Constants {
  Ref<String> taken_at = immortal(str("taken_at")), id = immortal(str("id")), pk = immortal(str("pk")),
              device_timestamp = immortal(str("device_timestamp")), media_type = immortal(str("media_type")),
              code = immortal(str("code")), filter_type = immortal(str("filter_type")),
              image_versions2 = immortal(str("image_versions2")), candidates = immortal(str("candidates")),
              width = immortal(str("width")), height = immortal(str("height")), url = immortal(str("url")),
              original_width = immortal(str("original_width")), original_height = immortal(str("original_height")),
              user = immortal(str("user")), caption = immortal(str("caption")),
              like_count = immortal(str("like_count")), has_liked = immortal(str("has_liked")),
              likers = immortal(str("likers")), comment_likes_enabled = immortal(str("comment_likes_enabled")),
              comment_threading_enabled = immortal(str("comment_threading_enabled")),
              has_more_comments = immortal(str("has_more_comments")),
              max_num_visible_preview_comments = immortal(str("max_num_visible_preview_comments")),
              preview_comments = immortal(str("preview_comments")), comment_count = immortal(str("comment_count")),
              photo_of_you = immortal(str("photo_of_you")), can_viewer_save = immortal(str("can_viewer_save")),
              converted_from_orvia4 = immortal(str("converted_from_orvia4")), username = immortal(str("username")),
              full_name = immortal(str("full_name")), profile_pic_url = immortal(str("profile_pic_url")),
              is_private = immortal(str("is_private")), user_id = immortal(str("user_id")),
              text = immortal(str("text")), type = immortal(str("type")), created_at = immortal(str("created_at")),
              created_at_utc = immortal(str("created_at_utc")), content_type = immortal(str("content_type")),
              status = immortal(str("status")), bit_flags = immortal(str("bit_flags")),
              did_report_as_spam = immortal(str("did_report_as_spam")), media_id = immortal(str("media_id")),
              caption_is_edited = immortal(str("caption_is_edited"));
  Ref<String> comment = immortal(str("comment")), active = immortal(str("Active"));
  Ref<Number> zero = immortal(num(0)), one = immortal(num(1)), two = immortal(num(2)), n320 = immortal(num(320)),
              n640 = immortal(num(640));
  Ref<Number> yes = immortal(boolean(true)), no = immortal(boolean(false));
};

const Constants& k() {
  static const Constants constants;
  return constants;
}

// The value at a key path of nested dictionaries; nothing when a part is missing or a value on the
// way is not a dictionary (a stored null under "caption" gives nothing for "caption.text").
Object* at_path(const Dictionary* stored, std::initializer_list<std::string_view> path) {
  const Object* cur = stored;
  for (std::string_view part : path) {
    const Dictionary* d = as_dict(cur);
    if (!d) return nullptr;
    cur = d->get(part);
    if (!cur) return nullptr;
  }
  return const_cast<Object*>(cur);
}

void put(Dictionary& d, const Ref<String>& key, Object* value) {
  if (value) d.append(Ref<Object>(key), Ref<Object>(value));
}
void put(Dictionary& d, const Ref<String>& key, const Ref<Object>& value) { put(d, key, value.get()); }

// The text that "id" and "link" are cut from. A string is taken as it is and a number by its decimal
// text (a stored numeric id still gives a "pk"); any other kind gives nothing, so neither "pk" nor
// "code" is set for it.
bool text_source(const Object* o, std::string& out) {
  if (const String* s = as_string(o)) {
    out = s->str();
    return true;
  }
  if (as_number(o)) {
    out = description(o);
    return true;
  }
  return false;
}

}  // namespace

Result<Ref<Dictionary>> decode_media_record(std::string_view archive) {
  auto root = unarchive(archive);
  if (!root.ok()) return Error{root.error().message};
  Dictionary* d = as_dict(root.value().get());
  if (!d) {
    return Error{root.value() ? "the archived root is a " + std::string(root.value()->class_name()) + ", not a dictionary"
                              : std::string("the archived root is nil")};
  }
  return Ref<Dictionary>(d);
}

namespace {

// The conversion, reading the stored record through `at_path` (a key path -> the object there, or null).
template <class AtPath>
Ref<Dictionary> convert(AtPath&& at_path) {
  const Constants& c = k();
  Ref<Dictionary> out = make<Dictionary>(true);
  out->reserve(24);
  Object* created_time = at_path({"caption", "created_time"});
  Object* id = at_path({"id"});

  // "pk": the id up to its first "_" (the whole id when it has none).
  Ref<Object> pk;
  std::string text;
  if (text_source(id, text)) {
    std::size_t cut = text.find('_');
    if (cut == std::string::npos && as_string(id)) {
      pk = Ref<Object>(id);
    } else {
      pk = str(std::string_view(text).substr(0, cut));
    }
  }
  // "code": the link after its last "/" (empty when it ends in "/", the whole link when it has none).
  Ref<Object> code;
  if (text_source(at_path({"link"}), text)) {
    std::size_t cut = text.rfind('/');
    code = str(cut == std::string::npos ? std::string_view(text) : std::string_view(text).substr(cut + 1));
  }

  put(*out, c.taken_at, created_time);
  put(*out, c.id, id);
  put(*out, c.pk, pk);
  put(*out, c.device_timestamp, created_time);
  put(*out, c.media_type, at_path({"videos"}) ? c.two.get() : c.one.get());
  put(*out, c.code, code);
  put(*out, c.filter_type, c.zero.get());

  Ref<Dictionary> standard = make<Dictionary>(true);
  standard->reserve(3);
  put(*standard, c.width, c.n640.get());
  put(*standard, c.height, c.n640.get());
  put(*standard, c.url, at_path({"images", "standard_resolution", "url"}));
  Ref<Dictionary> low = make<Dictionary>(true);
  low->reserve(3);
  put(*low, c.width, c.n320.get());
  put(*low, c.height, c.n320.get());
  put(*low, c.url, at_path({"images", "low_resolution", "url"}));
  Ref<Dictionary> versions = make<Dictionary>(true);
  versions->reserve(1);
  put(*versions, c.candidates, Ref<Object>(make<Array>(std::vector<Ref<Object>>{standard, low}, false)));
  put(*out, c.image_versions2, Ref<Object>(versions));

  put(*out, c.original_width, c.n640.get());
  put(*out, c.original_height, c.n640.get());

  Ref<Dictionary> user = make<Dictionary>(true);
  user->reserve(5);
  put(*user, c.pk, at_path({"user", "id"}));
  put(*user, c.username, at_path({"user", "username"}));
  put(*user, c.full_name, at_path({"user", "full_name"}));
  put(*user, c.profile_pic_url, at_path({"user", "profile_picture"}));
  put(*user, c.is_private, c.no.get());
  put(*out, c.user, Ref<Object>(user));

  Ref<Dictionary> caption = make<Dictionary>(true);
  caption->reserve(13);
  put(*caption, c.pk, at_path({"caption", "id"}));
  put(*caption, c.user_id, at_path({"caption", "from", "id"}));
  put(*caption, c.text, at_path({"caption", "text"}));
  put(*caption, c.type, c.one.get());
  put(*caption, c.created_at, created_time);
  put(*caption, c.created_at_utc, created_time);
  put(*caption, c.content_type, c.comment.get());
  put(*caption, c.status, c.active.get());
  put(*caption, c.bit_flags, c.zero.get());
  put(*caption, c.user, Ref<Object>(user));  // the very same record as the top-level "user"
  put(*caption, c.did_report_as_spam, c.no.get());
  put(*caption, c.media_id, pk);
  put(*caption, c.caption_is_edited, c.no.get());
  put(*out, c.caption, Ref<Object>(caption));

  put(*out, c.like_count, at_path({"likes", "count"}));
  put(*out, c.has_liked, at_path({"user_has_liked"}));
  put(*out, c.likers, Ref<Object>(make<Array>(false)));
  put(*out, c.comment_likes_enabled, c.no.get());
  put(*out, c.comment_threading_enabled, c.no.get());
  put(*out, c.has_more_comments, c.no.get());
  put(*out, c.max_num_visible_preview_comments, c.zero.get());
  put(*out, c.preview_comments, Ref<Object>(make<Array>(false)));
  put(*out, c.comment_count, at_path({"comments", "count"}));
  put(*out, c.photo_of_you, c.no.get());
  put(*out, c.can_viewer_save, c.yes.get());
  put(*out, c.converted_from_orvia4, c.yes.get());
  return out;
}

}  // namespace

Ref<Dictionary> convertedDictionary(const Dictionary* stored) {
  return convert([stored](std::initializer_list<std::string_view> path) { return at_path(stored, path); });
}

std::optional<Ref<Dictionary>> convertedDictionaryByLookup(std::string_view archive) {
  KeyedArchiveLookup lookup(archive);
  if (!lookup.usable()) return std::nullopt;
  bool unsure = false;
  Ref<Dictionary> out = convert([&](std::initializer_list<std::string_view> path) -> Object* {
    std::optional<Object*> value = lookup.at_path(path);
    if (!value) unsure = true;
    return value.value_or(nullptr);
  });
  if (unsure) return std::nullopt;
  return out;
}

Ref<Dictionary> convertedDictionaryFromArchive(const std::string_view* archive, std::string_view label) {
  std::string unreadable;
  Ref<Dictionary> out = convertedDictionaryFromArchive(archive, &unreadable);
  if (!unreadable.empty()) NSLog("Unreadable media record %@: %@", label, unreadable);
  return out;
}

Ref<Dictionary> convertedDictionaryFromArchive(const std::string_view* archive, std::string* unreadable) {
  if (!archive) {
    // No stored record: the item still becomes a media dictionary, of constants only.
    *unreadable = "no stored dictionary";
    return convertedDictionary(nullptr);
  }
  if (std::optional<Ref<Dictionary>> quick = convertedDictionaryByLookup(*archive)) return std::move(*quick);
  auto decoded = decode_media_record(*archive);
  if (!decoded.ok()) {
    *unreadable = decoded.error().message;
    return convertedDictionary(nullptr);
  }
  return convertedDictionary(decoded.value().get());
}

}  // namespace orvia
