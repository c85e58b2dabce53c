// The records of the reply: the importer node family, the import result and the import account.
// Their class names, archive keys and value kinds are a wire format shared with the client, which
// unpacks the reply into its own copies of these classes.
//
// Records are plain value classes: a missing key decodes as nil, 0 or NO, and whatever object an
// archive holds under a key is taken (no class checks), so object-valued fields are Ref<Object>.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/keyed_archive.h"
#include "platform/value.h"

namespace orvia {

// Node type codes; also the codes of a folder's contentsType.
enum MQImporterNodeType : std::uint64_t {
  MQImporterNodeTypeFolder = 0,
  MQImporterNodeTypeTag = 1,
  MQImporterNodeTypeAlbum = 2,
  MQImporterNodeTypeLocation = 3,
  MQImporterNodeTypeFriend = 4,
  MQImporterNodeTypeBlacklist = 5,
  MQImporterNodeTypeStatistics = 6,
};

inline constexpr std::string_view kEncodeKeyIdentifier = "identifier";
inline constexpr std::string_view kEncodeKeyType = "type";
inline constexpr std::string_view kEncodeKeyIgnore = "ignore";
inline constexpr std::string_view kEncodeKeyIsRoot = "isRoot";
inline constexpr std::string_view kEncodeKeyTitle = "title";
inline constexpr std::string_view kEncodeKeyChildren = "children";
inline constexpr std::string_view kEncodeKeyContentsType = "contentsType";
inline constexpr std::string_view kEncodeKeyTagCount = "tagCount";
inline constexpr std::string_view kEncodeKeyTagName = "tagName";
inline constexpr std::string_view kEncodeKeyLatitude = "latitude";
inline constexpr std::string_view kEncodeKeyLongitude = "longitude";
inline constexpr std::string_view kEncodeKeyName = "name";
inline constexpr std::string_view kEncodeKeyAlbumName = "albumName";
inline constexpr std::string_view kEncodeKeyItems = "items";
inline constexpr std::string_view kEncodeKeyMediaCount = "mediaCount";
inline constexpr std::string_view kEncodeKeyAdded = "added";
inline constexpr std::string_view kEncodeKeyImageURL = "imageURL";
inline constexpr std::string_view kEncodeKeyUsername = "username";
inline constexpr std::string_view kEncodeKeyUID = "uid";
inline constexpr std::string_view kEncodeKeyPath = "path";
inline constexpr std::string_view kEncodeKeyAccount = "account";
inline constexpr std::string_view kEncodeKeyTags = "tags";
inline constexpr std::string_view kEncodeKeyLocations = "locations";
inline constexpr std::string_view kEncodeKeyAlbums = "albums";
inline constexpr std::string_view kEncodeKeyFriends = "friends";
inline constexpr std::string_view kEncodeStatistics = "statistics";

// The common node. Never made for itself: every node of a tree is one of the seven subclasses.
class MQImporterNode : public Record {
 public:
  Ref<Object> identifier;  // text, as the builder forms it
  std::uint64_t type = MQImporterNodeTypeFolder;
  bool ignoreInExport = false;
  bool isRoot = false;

  virtual bool hasChildren() const { return false; }
  // copyWithZone: a new node of the same class with its own copies of everything, through an archive.
  Ref<MQImporterNode> copy() const;

  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;
  std::span<const std::string_view> class_chain() const override;

 protected:
  MQImporterNode() = default;
  void drop_refs() override { identifier = nullptr; }
};

class MQImporterNodeFolder final : public MQImporterNode {
 public:
  Ref<Object> title;
  Ref<Object> children;  // a list of nodes, or absent until a builder sets one
  std::uint64_t contentsType = 0;

  bool hasChildren() const override;
  // Appends to a new list (someone holding the old list keeps its contents); does nothing while the
  // folder has no list at all.
  void appendChild(Ref<MQImporterNode> node);
  Array* childList() const { return as_array(children.get()); }

  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;
  std::span<const std::string_view> class_chain() const override;

 protected:
  void drop_refs() override;
};

class MQImporterNodeTag final : public MQImporterNode {
 public:
  std::uint64_t tagCount = 0;
  Ref<Object> tagName;
  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;
  std::span<const std::string_view> class_chain() const override;

 protected:
  void drop_refs() override;
};

class MQImporterNodeLocation final : public MQImporterNode {
 public:
  Ref<Object> latitude, longitude, name;
  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;
  std::span<const std::string_view> class_chain() const override;

 protected:
  void drop_refs() override;
};

class MQImporterNodeAlbum final : public MQImporterNode {
 public:
  Ref<Object> albumName;
  Ref<Object> items;  // the media dictionaries
  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;
  std::span<const std::string_view> class_chain() const override;

 protected:
  void drop_refs() override;
};

class MQImporterNodeFriend final : public MQImporterNode {
 public:
  std::uint64_t mediaCount = 0;
  Ref<Object> added, imageURLString, username, uid;
  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;
  std::span<const std::string_view> class_chain() const override;

 protected:
  void drop_refs() override;
};

class MQImporterNodeBlacklist final : public MQImporterNode {
 public:
  Ref<Object> userid;  // as the legacy block list keys it (a string there)
  Ref<Object> username;
  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;
  std::span<const std::string_view> class_chain() const override;

 protected:
  void drop_refs() override;
};

class MQImporterNodeStatistics final : public MQImporterNode {
 public:
  Ref<Object> path;
  bool hasChildren() const override { return true; }  // always, although it holds no nodes
  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;
  std::span<const std::string_view> class_chain() const override;

 protected:
  void drop_refs() override;
};

class MQImporterAccount final : public Record {
 public:
  Ref<Object> userid, imageURLString, username;
  // The picture address parsed as a URL: nil when absent, empty or not a valid URL.
  std::optional<std::string> imageURL() const;

  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;
  std::span<const std::string_view> class_chain() const override;

 protected:
  void drop_refs() override { userid = imageURLString = username = nullptr; }
};

class MQImporterNodeResult final : public Record {
 public:
  Ref<Object> account, tags, locations, albums, friends, blacklist, statistics;
  bool ignoreInExport = false;

  // The four category fields set by their key names "tags", "locations", "albums", "friends".
  bool setValueForKey(std::string_view key, Ref<Object> value);

  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;
  std::span<const std::string_view> class_chain() const override;

 protected:
  void drop_refs() override;
};

// Registers the record classes with a registry (the shared one by default); safe to call often.
void register_record_classes(ClassRegistry& registry = ClassRegistry::shared());

// Whether a string is an address that parses as a URL (RFC 3986 characters, a valid scheme if any).
bool parses_as_url(std::string_view text);

}  // namespace orvia
