#include "records/records.h"

#include <mutex>

namespace orvia {
namespace {

template <std::size_t N>
std::span<const std::string_view> chain(const std::string_view (&names)[N]) {
  return {names, N};
}

constexpr std::string_view kNodeChain[] = {"MQImporterNode", "NSObject"};
constexpr std::string_view kFolderChain[] = {"MQImporterNodeFolder", "MQImporterNode", "NSObject"};
constexpr std::string_view kTagChain[] = {"MQImporterNodeTag", "MQImporterNode", "NSObject"};
constexpr std::string_view kLocationChain[] = {"MQImporterNodeLocation", "MQImporterNode", "NSObject"};
constexpr std::string_view kAlbumChain[] = {"MQImporterNodeAlbum", "MQImporterNode", "NSObject"};
constexpr std::string_view kFriendChain[] = {"MQImporterNodeFriend", "MQImporterNode", "NSObject"};
constexpr std::string_view kBlacklistChain[] = {"MQImporterNodeBlacklist", "MQImporterNode", "NSObject"};
constexpr std::string_view kStatisticsChain[] = {"MQImporterNodeStatistics", "MQImporterNode", "NSObject"};
constexpr std::string_view kAccountChain[] = {"MQImporterAccount", "NSObject"};
constexpr std::string_view kResultChain[] = {"MQImporterNodeResult", "NSObject"};

// Plain creation of the base class is possible only through a subclass; the base itself is never
// archived, but the registry must know its name for archives that hold one.
class PlainNode final : public MQImporterNode {};

}  // namespace

// ---- MQImporterNode

std::span<const std::string_view> MQImporterNode::class_chain() const { return chain(kNodeChain); }

void MQImporterNode::encode_with_coder(KeyedEncoder& c) const {
  c.encode_object(kEncodeKeyIdentifier, identifier);
  c.encode_int64(kEncodeKeyType, static_cast<std::int64_t>(type));
  c.encode_bool(kEncodeKeyIgnore, ignoreInExport);
  c.encode_bool(kEncodeKeyIsRoot, isRoot);
}

void MQImporterNode::init_with_coder(KeyedDecoder& c) {
  identifier = c.decode_object(kEncodeKeyIdentifier);
  type = static_cast<std::uint64_t>(c.decode_int64(kEncodeKeyType));
  ignoreInExport = c.decode_bool(kEncodeKeyIgnore);
  isRoot = c.decode_bool(kEncodeKeyIsRoot);
}

Ref<MQImporterNode> MQImporterNode::copy() const {
  register_record_classes();
  Ref<Object> copied = copy_through_archive(this);
  return Ref<MQImporterNode>(dynamic_cast<MQImporterNode*>(copied.get()));
}

// ---- MQImporterNodeFolder

std::span<const std::string_view> MQImporterNodeFolder::class_chain() const { return chain(kFolderChain); }

bool MQImporterNodeFolder::hasChildren() const {
  const Array* list = childList();
  return list && !list->empty();
}

void MQImporterNodeFolder::appendChild(Ref<MQImporterNode> node) {
  Array* list = childList();
  if (!list) return;
  // Nobody else holds the list: appending in place cannot be told apart from replacing it, and keeps
  // building a folder of n entries linear instead of quadratic.
  if (list->ref_count() == 1 && list->is_mutable()) {
    list->push_back(std::move(node));
    return;
  }
  std::vector<Ref<Object>> items;
  items.reserve(list->size() + 1);
  items = list->items();
  items.push_back(std::move(node));
  children = make<Array>(std::move(items), true);
}

void MQImporterNodeFolder::encode_with_coder(KeyedEncoder& c) const {
  MQImporterNode::encode_with_coder(c);
  c.encode_object(kEncodeKeyTitle, title);
  c.encode_object(kEncodeKeyChildren, children);
  c.encode_int64(kEncodeKeyContentsType, static_cast<std::int64_t>(contentsType));
}

void MQImporterNodeFolder::init_with_coder(KeyedDecoder& c) {
  MQImporterNode::init_with_coder(c);
  title = c.decode_object(kEncodeKeyTitle);
  children = c.decode_object(kEncodeKeyChildren);
  contentsType = static_cast<std::uint64_t>(c.decode_int64(kEncodeKeyContentsType));
}

void MQImporterNodeFolder::drop_refs() {
  MQImporterNode::drop_refs();
  title = children = nullptr;
}

// ---- leaves

std::span<const std::string_view> MQImporterNodeTag::class_chain() const { return chain(kTagChain); }
void MQImporterNodeTag::encode_with_coder(KeyedEncoder& c) const {
  MQImporterNode::encode_with_coder(c);
  c.encode_int64(kEncodeKeyTagCount, static_cast<std::int64_t>(tagCount));
  c.encode_object(kEncodeKeyTagName, tagName);
}
void MQImporterNodeTag::init_with_coder(KeyedDecoder& c) {
  MQImporterNode::init_with_coder(c);
  tagCount = static_cast<std::uint64_t>(c.decode_int64(kEncodeKeyTagCount));
  tagName = c.decode_object(kEncodeKeyTagName);
}
void MQImporterNodeTag::drop_refs() {
  MQImporterNode::drop_refs();
  tagName = nullptr;
}

std::span<const std::string_view> MQImporterNodeLocation::class_chain() const { return chain(kLocationChain); }
void MQImporterNodeLocation::encode_with_coder(KeyedEncoder& c) const {
  MQImporterNode::encode_with_coder(c);
  c.encode_object(kEncodeKeyLatitude, latitude);
  c.encode_object(kEncodeKeyLongitude, longitude);
  c.encode_object(kEncodeKeyName, name);
}
void MQImporterNodeLocation::init_with_coder(KeyedDecoder& c) {
  MQImporterNode::init_with_coder(c);
  latitude = c.decode_object(kEncodeKeyLatitude);
  longitude = c.decode_object(kEncodeKeyLongitude);
  name = c.decode_object(kEncodeKeyName);
}
void MQImporterNodeLocation::drop_refs() {
  MQImporterNode::drop_refs();
  latitude = longitude = name = nullptr;
}

std::span<const std::string_view> MQImporterNodeAlbum::class_chain() const { return chain(kAlbumChain); }
void MQImporterNodeAlbum::encode_with_coder(KeyedEncoder& c) const {
  MQImporterNode::encode_with_coder(c);
  c.encode_object(kEncodeKeyAlbumName, albumName);
  c.encode_object(kEncodeKeyItems, items);
}
void MQImporterNodeAlbum::init_with_coder(KeyedDecoder& c) {
  MQImporterNode::init_with_coder(c);
  albumName = c.decode_object(kEncodeKeyAlbumName);
  items = c.decode_object(kEncodeKeyItems);
}
void MQImporterNodeAlbum::drop_refs() {
  MQImporterNode::drop_refs();
  albumName = items = nullptr;
}

std::span<const std::string_view> MQImporterNodeFriend::class_chain() const { return chain(kFriendChain); }
void MQImporterNodeFriend::encode_with_coder(KeyedEncoder& c) const {
  MQImporterNode::encode_with_coder(c);
  c.encode_int64(kEncodeKeyMediaCount, static_cast<std::int64_t>(mediaCount));
  c.encode_object(kEncodeKeyAdded, added);
  c.encode_object(kEncodeKeyImageURL, imageURLString);
  c.encode_object(kEncodeKeyUsername, username);
  c.encode_object(kEncodeKeyUID, uid);
}
void MQImporterNodeFriend::init_with_coder(KeyedDecoder& c) {
  MQImporterNode::init_with_coder(c);
  mediaCount = static_cast<std::uint64_t>(c.decode_int64(kEncodeKeyMediaCount));
  added = c.decode_object(kEncodeKeyAdded);
  imageURLString = c.decode_object(kEncodeKeyImageURL);
  username = c.decode_object(kEncodeKeyUsername);
  uid = c.decode_object(kEncodeKeyUID);
}
void MQImporterNodeFriend::drop_refs() {
  MQImporterNode::drop_refs();
  added = imageURLString = username = uid = nullptr;
}

std::span<const std::string_view> MQImporterNodeBlacklist::class_chain() const { return chain(kBlacklistChain); }
void MQImporterNodeBlacklist::encode_with_coder(KeyedEncoder& c) const {
  MQImporterNode::encode_with_coder(c);
  c.encode_object(kEncodeKeyUID, userid);
  c.encode_object(kEncodeKeyUsername, username);
}
void MQImporterNodeBlacklist::init_with_coder(KeyedDecoder& c) {
  MQImporterNode::init_with_coder(c);
  userid = c.decode_object(kEncodeKeyUID);
  username = c.decode_object(kEncodeKeyUsername);
}
void MQImporterNodeBlacklist::drop_refs() {
  MQImporterNode::drop_refs();
  userid = username = nullptr;
}

std::span<const std::string_view> MQImporterNodeStatistics::class_chain() const { return chain(kStatisticsChain); }
void MQImporterNodeStatistics::encode_with_coder(KeyedEncoder& c) const {
  MQImporterNode::encode_with_coder(c);
  c.encode_object(kEncodeKeyPath, path);
}
void MQImporterNodeStatistics::init_with_coder(KeyedDecoder& c) {
  MQImporterNode::init_with_coder(c);
  path = c.decode_object(kEncodeKeyPath);
}
void MQImporterNodeStatistics::drop_refs() {
  MQImporterNode::drop_refs();
  path = nullptr;
}

// ---- MQImporterAccount

std::span<const std::string_view> MQImporterAccount::class_chain() const { return chain(kAccountChain); }

void MQImporterAccount::encode_with_coder(KeyedEncoder& c) const {
  c.encode_object(kEncodeKeyUID, userid);
  c.encode_object(kEncodeKeyImageURL, imageURLString);
  c.encode_object(kEncodeKeyUsername, username);
}

void MQImporterAccount::init_with_coder(KeyedDecoder& c) {
  userid = c.decode_object(kEncodeKeyUID);
  imageURLString = c.decode_object(kEncodeKeyImageURL);
  username = c.decode_object(kEncodeKeyUsername);
}

std::optional<std::string> MQImporterAccount::imageURL() const {
  const String* s = as_string(imageURLString.get());
  if (!s || s->str().empty() || !parses_as_url(s->str())) return std::nullopt;
  return s->str();
}

bool parses_as_url(std::string_view t) {
  // The characters a URL may hold (RFC 3986: unreserved, reserved and the percent of an escape).
  static constexpr std::string_view kAllowed = "-._~:/?#[]@!$&'()*+,;=%";
  for (std::size_t i = 0; i < t.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(t[i]);
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              kAllowed.find(static_cast<char>(c)) != std::string_view::npos;
    if (!ok) return false;
    if (c == '%') {
      auto hex = [](char h) { return (h >= '0' && h <= '9') || (h >= 'a' && h <= 'f') || (h >= 'A' && h <= 'F'); };
      if (i + 2 >= t.size() + 0 || !hex(t[i + 1]) || !hex(t[i + 2])) return false;
    }
  }
  // A scheme, when the text has one before any "/", "?" or "#", starts with a letter.
  std::size_t colon = t.find(':');
  std::size_t stop = t.find_first_of("/?#");
  if (colon != std::string_view::npos && (stop == std::string_view::npos || colon < stop)) {
    if (colon == 0) return false;
    for (std::size_t i = 0; i < colon; ++i) {
      char c = t[i];
      bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (i > 0 && ((c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.'));
      if (!ok) return false;
    }
  }
  return true;
}

// ---- MQImporterNodeResult

std::span<const std::string_view> MQImporterNodeResult::class_chain() const { return chain(kResultChain); }

bool MQImporterNodeResult::setValueForKey(std::string_view key, Ref<Object> value) {
  if (key == kEncodeKeyTags) {
    tags = std::move(value);
  } else if (key == kEncodeKeyLocations) {
    locations = std::move(value);
  } else if (key == kEncodeKeyAlbums) {
    albums = std::move(value);
  } else if (key == kEncodeKeyFriends) {
    friends = std::move(value);
  } else {
    return false;
  }
  return true;
}

void MQImporterNodeResult::encode_with_coder(KeyedEncoder& c) const {
  // The blocked users have no key: they stay with the service.
  c.encode_object(kEncodeKeyAccount, account);
  c.encode_object(kEncodeKeyTags, tags);
  c.encode_object(kEncodeKeyLocations, locations);
  c.encode_object(kEncodeKeyAlbums, albums);
  c.encode_object(kEncodeKeyFriends, friends);
  c.encode_object(kEncodeStatistics, statistics);
  c.encode_bool(kEncodeKeyIgnore, ignoreInExport);
}

void MQImporterNodeResult::init_with_coder(KeyedDecoder& c) {
  account = c.decode_object(kEncodeKeyAccount);
  tags = c.decode_object(kEncodeKeyTags);
  locations = c.decode_object(kEncodeKeyLocations);
  albums = c.decode_object(kEncodeKeyAlbums);
  friends = c.decode_object(kEncodeKeyFriends);
  statistics = c.decode_object(kEncodeStatistics);
  ignoreInExport = c.decode_bool(kEncodeKeyIgnore);
}

void MQImporterNodeResult::drop_refs() {
  account = tags = locations = albums = friends = blacklist = statistics = nullptr;
}

void register_record_classes(ClassRegistry& registry) {
  auto add = [&registry] {
    registry.add("MQImporterNode", []() -> Ref<Record> { return make<PlainNode>(); });
    registry.add("MQImporterNodeFolder", []() -> Ref<Record> { return make<MQImporterNodeFolder>(); });
    registry.add("MQImporterNodeTag", []() -> Ref<Record> { return make<MQImporterNodeTag>(); });
    registry.add("MQImporterNodeLocation", []() -> Ref<Record> { return make<MQImporterNodeLocation>(); });
    registry.add("MQImporterNodeAlbum", []() -> Ref<Record> { return make<MQImporterNodeAlbum>(); });
    registry.add("MQImporterNodeFriend", []() -> Ref<Record> { return make<MQImporterNodeFriend>(); });
    registry.add("MQImporterNodeBlacklist", []() -> Ref<Record> { return make<MQImporterNodeBlacklist>(); });
    registry.add("MQImporterNodeStatistics", []() -> Ref<Record> { return make<MQImporterNodeStatistics>(); });
    registry.add("MQImporterAccount", []() -> Ref<Record> { return make<MQImporterAccount>(); });
    registry.add("MQImporterNodeResult", []() -> Ref<Record> { return make<MQImporterNodeResult>(); });
  };
  if (&registry == &ClassRegistry::shared()) {
    static std::once_flag once;
    std::call_once(once, add);
  } else {
    add();
  }
}

}  // namespace orvia
