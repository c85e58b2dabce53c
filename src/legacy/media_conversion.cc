#include "legacy/media_conversion.h"

#include <array>
#include <bit>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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

// The object at a key path of nested dictionaries; nothing when a part is missing or a value on the
// way is not a dictionary (a stored null under "caption" gives nothing for "caption.text").
const Object* at_path(const Dictionary* stored, std::initializer_list<std::string_view> path) {
  const Object* cur = stored;
  for (std::string_view part : path) {
    const Dictionary* d = as_dict(cur);
    if (!d) return nullptr;
    cur = d->get(part);
    if (!cur) return nullptr;
  }
  return cur;
}

using Node = FlatGraph::Node;
constexpr Node kNone = FlatGraph::kNone;

// The text that "id" and "link" are cut from. A string is taken as it is and a number by its decimal
// text (a stored numeric id still gives a "pk"); any other kind gives nothing, so neither "pk" nor
// "code" is set for it. The text lies in the graph's bytes (a string) or in `scratch` (a number:
// `in_scratch` is set).
bool text_source(const FlatGraph& g, Node n, std::string_view& out, std::string& scratch, bool& in_scratch) {
  in_scratch = false;
  if (n == kNone) return false;
  if (FlatGraph::is_existing(n)) {
    const Object* o = g.existing_object(n);
    if (const String* s = as_string(o)) {
      out = s->str();
      return true;
    }
    if (as_number(o)) {
      scratch = description(o);
      out = scratch;
      in_scratch = true;
      return true;
    }
    return false;
  }
  const FlatGraph::Data& d = g.node(n);
  switch (d.kind) {
    case FlatGraph::Kind::String:
      out = d.text;
      return true;
    case FlatGraph::Kind::Number:
      scratch = description(g.materialize(n).get());
      out = scratch;
      in_scratch = true;
      return true;
    default:
      return false;
  }
}

bool is_string(const FlatGraph& g, Node n) {
  if (FlatGraph::is_existing(n)) return as_string(g.existing_object(n)) != nullptr;
  return g.node(n).kind == FlatGraph::Kind::String;
}

// A part of a text: a view when the text lies in the graph's bytes, a copy when it lies in scratch.
Node cut_text(FlatGraph& g, std::string_view part, bool in_scratch) {
  return in_scratch ? g.owned_string(std::string(part)) : g.string(part);
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

// The conversion into `g`, reading the stored record through `at_path` (a key path -> the node of
// the object there, or kNone); the converted record's node.
template <class AtPath, class Present>
Node convert(FlatGraph& g, AtPath&& at_path, Present&& present) {
  const Constants& c = k();
  // Each constant is one node of the graph, made when first used.
  std::array<std::pair<const Object*, Node>, 64> made{};
  auto constant = [&g, &made](const auto& object) {
    const Object* o = object.get();
    std::size_t i = (reinterpret_cast<std::uintptr_t>(o) >> 4) % made.size();
    while (made[i].first && made[i].first != o) i = (i + 1) % made.size();
    if (!made[i].first) made[i] = {o, g.existing(o)};
    return made[i].second;
  };
  auto put = [&g, &constant](Node dict, const Ref<String>& key, Node value) {
    if (value != kNone) g.put(dict, constant(key), value);
  };
  const Node out = g.dictionary(true);
  const Node created_time = at_path({"caption", "created_time"});
  const Node id = at_path({"id"});

  // "pk": the id up to its first "_" (the whole id when it has none).
  Node pk = kNone;
  std::string_view text;
  std::string scratch;
  bool in_scratch = false;
  if (text_source(g, id, text, scratch, in_scratch)) {
    std::size_t cut = text.find('_');
    pk = cut == std::string_view::npos && is_string(g, id) ? id : cut_text(g, text.substr(0, cut), in_scratch);
  }
  // "code": the link after its last "/" (empty when it ends in "/", the whole link when it has none).
  Node code = kNone;
  if (text_source(g, at_path({"link"}), text, scratch, in_scratch)) {
    std::size_t cut = text.rfind('/');
    code = cut_text(g, cut == std::string_view::npos ? text : text.substr(cut + 1), in_scratch);
  }

  put(out, c.taken_at, created_time);
  put(out, c.id, id);
  put(out, c.pk, pk);
  put(out, c.device_timestamp, created_time);
  put(out, c.media_type, present({"videos"}) ? constant(c.two) : constant(c.one));
  put(out, c.code, code);
  put(out, c.filter_type, constant(c.zero));

  const Node standard = g.dictionary(true);
  put(standard, c.width, constant(c.n640));
  put(standard, c.height, constant(c.n640));
  put(standard, c.url, at_path({"images", "standard_resolution", "url"}));
  const Node low = g.dictionary(true);
  put(low, c.width, constant(c.n320));
  put(low, c.height, constant(c.n320));
  put(low, c.url, at_path({"images", "low_resolution", "url"}));
  const Node versions = g.dictionary(true);
  const Node candidates = g.array(false);
  g.append(candidates, standard);
  g.append(candidates, low);
  put(versions, c.candidates, candidates);
  put(out, c.image_versions2, versions);

  put(out, c.original_width, constant(c.n640));
  put(out, c.original_height, constant(c.n640));

  const Node user = g.dictionary(true);
  put(user, c.pk, at_path({"user", "id"}));
  put(user, c.username, at_path({"user", "username"}));
  put(user, c.full_name, at_path({"user", "full_name"}));
  put(user, c.profile_pic_url, at_path({"user", "profile_picture"}));
  put(user, c.is_private, constant(c.no));
  put(out, c.user, user);

  const Node caption = g.dictionary(true);
  put(caption, c.pk, at_path({"caption", "id"}));
  put(caption, c.user_id, at_path({"caption", "from", "id"}));
  put(caption, c.text, at_path({"caption", "text"}));
  put(caption, c.type, constant(c.one));
  put(caption, c.created_at, created_time);
  put(caption, c.created_at_utc, created_time);
  put(caption, c.content_type, constant(c.comment));
  put(caption, c.status, constant(c.active));
  put(caption, c.bit_flags, constant(c.zero));
  put(caption, c.user, user);  // the very same record as the top-level "user"
  put(caption, c.did_report_as_spam, constant(c.no));
  put(caption, c.media_id, pk);
  put(caption, c.caption_is_edited, constant(c.no));
  put(out, c.caption, caption);

  put(out, c.like_count, at_path({"likes", "count"}));
  put(out, c.has_liked, at_path({"user_has_liked"}));
  put(out, c.likers, g.array(false));
  put(out, c.comment_likes_enabled, constant(c.no));
  put(out, c.comment_threading_enabled, constant(c.no));
  put(out, c.has_more_comments, constant(c.no));
  put(out, c.max_num_visible_preview_comments, constant(c.zero));
  put(out, c.preview_comments, g.array(false));
  put(out, c.comment_count, at_path({"comments", "count"}));
  put(out, c.photo_of_you, constant(c.no));
  put(out, c.can_viewer_save, constant(c.yes));
  put(out, c.converted_from_orvia4, constant(c.yes));
  return out;
}

// The graph of a stored record's conversion, read through the lookup: false when some value is not
// a plain one (it is then left to decoding the record whole) or the lookup cannot tell.
bool convert_by_lookup(KeyedArchiveLookup& lookup, FlatGraph& g, Node& root) {
  bool unsure = false;
  std::vector<std::pair<std::uint64_t, Node>> seen;  // stored UID -> its node: one object per UID
  seen.reserve(16);
  root = convert(g, [&](std::initializer_list<std::string_view> path) -> Node {
    std::optional<KeyedArchiveLookup::Value> v = lookup.value_at(path);
    if (!v || v->kind == KeyedArchiveLookup::Value::Kind::Other) {
      unsure = true;
      return kNone;
    }
    using Kind = KeyedArchiveLookup::Value::Kind;
    if (v->kind == Kind::Nil) return kNone;
    for (const auto& [uid, node] : seen)
      if (uid == v->uid) return node;
    Node n = kNone;
    switch (v->kind) {
      case Kind::String: n = v->converted ? g.owned_string(std::move(v->converted_text)) : g.string(v->text); break;
      case Kind::Signed: n = g.signed_number(static_cast<std::int64_t>(v->bits)); break;
      case Kind::Unsigned: n = g.unsigned_number(v->bits); break;
      case Kind::Real: n = g.real_number(std::bit_cast<double>(v->bits)); break;
      case Kind::Bool: n = g.existing(Number::from_bool(v->bits != 0).get()); break;  // YES and NO are shared
      default: break;
    }
    seen.emplace_back(v->uid, n);
    return n;
  }, [&](std::initializer_list<std::string_view> path) {
    // Only whether there is an object: any kind will do, once it is known to decode (a container
    // always decodes to one in an archive the lookup accepts).
    std::optional<KeyedArchiveLookup::Value> v = lookup.value_at(path);
    if (v && v->kind != KeyedArchiveLookup::Value::Kind::Other) return v->kind != KeyedArchiveLookup::Value::Kind::Nil;
    if (v && v->container) return true;
    std::optional<Object*> decoded = lookup.at_path(path);
    if (!decoded) unsure = true;
    return decoded.value_or(nullptr) != nullptr;
  });
  return !unsure;
}

}  // namespace

Ref<Dictionary> convertedDictionary(const Dictionary* stored) {
  FlatGraph g;
  const Node root = convert(
      g,
      [&](std::initializer_list<std::string_view> path) {
        const Object* o = at_path(stored, path);
        return o ? g.existing(o) : kNone;
      },
      [&](std::initializer_list<std::string_view> path) { return at_path(stored, path) != nullptr; });
  return Ref<Dictionary>(static_cast<Dictionary*>(g.materialize(root).get()));
}

bool convertedGraphByLookup(std::string_view archive, FlatGraph& graph, FlatGraph::Node& root) {
  KeyedArchiveLookup lookup(archive);
  if (!lookup.usable()) return false;
  graph.clear();
  graph.reserve(32, 64, 48);
  if (convert_by_lookup(lookup, graph, root)) return true;
  graph.clear();
  return false;
}

std::optional<Ref<Dictionary>> convertedDictionaryByLookup(std::string_view archive) {
  FlatGraph g;
  Node root;
  if (!convertedGraphByLookup(archive, g, root)) return std::nullopt;
  return Ref<Dictionary>(static_cast<Dictionary*>(g.materialize(root).get()));
}

Ref<Dictionary> convertedDictionaryFromArchive(const std::string_view* archive, std::string_view label) {
  std::string unreadable;
  Ref<Dictionary> out = convertedDictionaryFromArchive(archive, &unreadable);
  if (!unreadable.empty()) NSLog("Unreadable media record %@: %@", label, unreadable);
  return out;
}

Ref<Dictionary> convertedDictionaryFromArchive(const std::string_view* archive, std::string* unreadable) {
  FlatGraph graph;
  FlatGraph::Node root;
  Ref<Dictionary> out = convertedMediaFromArchive(archive, unreadable, graph, root);
  if (out) return out;
  return Ref<Dictionary>(static_cast<Dictionary*>(graph.materialize(root).get()));
}

Ref<Dictionary> convertedMediaFromArchive(const std::string_view* archive, std::string* unreadable, FlatGraph& graph,
                                          FlatGraph::Node& root) {
  if (!archive) {
    // No stored record: the item still becomes a media dictionary, of constants only.
    *unreadable = "no stored dictionary";
    return convertedDictionary(nullptr);
  }
  if (convertedGraphByLookup(*archive, graph, root)) return nullptr;
  auto decoded = decode_media_record(*archive);
  if (!decoded.ok()) {
    *unreadable = decoded.error().message;
    return convertedDictionary(nullptr);
  }
  return convertedDictionary(decoded.value().get());
}

}  // namespace orvia
