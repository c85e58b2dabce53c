// Objects of the old client's Core Data store (model "InstaGram"), read through CoreDataStore:
//   Account(uid, name), Friend(uid, image, unreadCount, added, imageURL, mediaCount, name, account),
//   ImageList(title, created, images -> ImageItem), ImageItem(dictionary, mediaID).
// Entity numbers, tables and the layout of ImageList.images are discovered from each store.
//
// Values are objects (String, Number, Date, Data) or nil, so a missing value stays missing. Objects
// are read once when fetched and never written back. They keep their store open while they live.
// Used on one thread at a time (the main queue during an import).
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "legacy/coredata_store.h"
#include "platform/keyed_archive.h"
#include "platform/object.h"
#include "platform/value.h"

namespace orvia {

class MQUserDefaultsWrapper;

// The object context through which every fetch runs: the attached store.
using StoreContext = std::shared_ptr<CoreDataStore>;

// The integer value of a preference as the old client read it (integerValue): a number's integer
// value (a real truncated, a Boolean 0 or 1), a string's leading integer ("2abc" is 2, "x" is 0),
// anything else or nothing 0.
std::int64_t legacy_integer_value(const Object* value);

// A row of the store: its entity, key and URI. Not archivable (encoding writes nothing).
class StoredObject : public Record {
 public:
  std::int64_t primaryKey() const { return pk_; }
  std::int64_t entityNumber() const { return entity_; }
  // The concrete entity's name ("VideoItem" for a row of a sub-entity of ImageItem).
  std::string entityName() const;
  // URIRepresentation of the permanent object ID: "x-coredata://<store UUID>/<entity>/p<Z_PK>".
  std::string objectURI() const;
  const StoreContext& context() const { return store_; }

  void encode_with_coder(KeyedEncoder&) const override {}
  void init_with_coder(KeyedDecoder&) override {}

 protected:
  StoredObject(StoreContext store, std::int64_t entity, std::int64_t pk)
      : store_(std::move(store)), entity_(entity), pk_(pk) {}
  void drop_refs() override { store_.reset(); }
  // "<Class: 0x…> (entity: E; id: <uri>; data: {\n    key = value;\n})" with the given values.
  std::string describe(std::initializer_list<std::pair<std::string_view, const Object*>> values) const;

  StoreContext store_;
  std::int64_t entity_;
  std::int64_t pk_;
};

class Account final : public StoredObject {
 public:
  // All accounts, in ascending Z_PK (a fetch without sort keys). Nothing when the fetch fails.
  static std::optional<std::vector<Ref<Account>>> accountsInContext(const StoreContext& context);

  Ref<Object> userid() const { return uid_; }     // attribute uid
  Ref<Object> username() const { return name_; }  // attribute name
  Ref<Object> valueForKey(std::string_view key) const;

  // The account's entry in the preference dictionary under `key`, keyed by its uid; nothing when the
  // preference is missing or not a dictionary, or has no entry for the uid. Asks anew on every call.
  Ref<Object> valueFromStorageForKey(std::string_view key, const MQUserDefaultsWrapper* defaults) const;
  Ref<Object> accessTokenWithDefaults(const MQUserDefaultsWrapper* defaults) const;      // "UserAccountsT"
  Ref<Object> imageURLWithDefaults(const MQUserDefaultsWrapper* defaults) const;         // "UserAccountsI"
  Ref<Object> expirationDateWithDefaults(const MQUserDefaultsWrapper* defaults) const;   // "UserAccountsE"

  std::span<const std::string_view> class_chain() const override;
  std::string description() const override;

 private:
  friend class Friend;
  Account(StoreContext store, std::int64_t entity, std::int64_t pk) : StoredObject(std::move(store), entity, pk) {}
  void drop_refs() override;
  Ref<Object> uid_, name_;
};

class Friend final : public StoredObject {
 public:
  // The favourite users of `account` (those whose account is empty when `account` is null) in the
  // order that "WZFavoriteFriendsOrderIndex" chooses:
  //   0 or absent: unreadCount descending, then name;  1: added, then name;  other: name, then added.
  // Never nothing: an empty list when the fetch fails (the failure is logged).
  static std::vector<Ref<Friend>> favouriteUsersForAccount(const Account* account,
                                                           const MQUserDefaultsWrapper* defaults,
                                                           const StoreContext& context);
  // The same with the order index given.
  static std::optional<std::vector<Ref<Friend>>> friendsForAccount(const Account* account, std::int64_t order_index,
                                                                   const StoreContext& context);

  Ref<Object> uid() const { return uid_; }
  Ref<Object> image() const;  // read from the store on demand (the import never needs it)
  Ref<Object> unreadCount() const { return unread_count_; }
  Ref<Object> added() const { return added_; }
  Ref<Object> imageURL() const { return image_url_; }
  Ref<Object> mediaCount() const { return media_count_; }
  Ref<Object> name() const { return name_; }
  // The account this favourite belongs to, fetched on demand; nil when it has none.
  Ref<Account> account() const;
  std::optional<std::int64_t> accountKey() const { return account_pk_; }
  Ref<Object> valueForKey(std::string_view key) const;

  // Not stored: a copy of unreadCount made whenever the object is loaded.
  std::int64_t tmpUnreadCount() const { return tmp_unread_count_; }
  void setTmpUnreadCount(std::int64_t value) { tmp_unread_count_ = value; }
  void awakeFromFetch() { updateTemporaryValue(); }
  void updateTemporaryValue();

  std::span<const std::string_view> class_chain() const override;
  std::string description() const override;

 private:
  Friend(StoreContext store, std::int64_t entity, std::int64_t pk) : StoredObject(std::move(store), entity, pk) {}
  void drop_refs() override;
  Ref<Object> uid_, unread_count_, added_, image_url_, media_count_, name_;
  std::optional<std::int64_t> account_pk_;
  std::int64_t tmp_unread_count_ = 0;
};

class ImageItem;

// One member of an album as the store yields it. The bytes view is valid during the callback only.
struct ImageItemRow {
  const CoreDataStore* store = nullptr;
  std::int64_t entity = 0;
  std::int64_t primary_key = 0;
  bool has_dictionary = false;
  std::string_view dictionary;  // the stored keyed archive
  std::string objectURI() const { return store->object_uri(entity, primary_key); }
  // ImageItem's convertedDictionary for this row (never null; see media_conversion.h).
  Ref<Dictionary> convertedDictionary() const;
};

// An album: an object of entity "ImageList" (no class of its own in the old client).
class ImageList final : public StoredObject {
 public:
  // All albums in the order that "WZAlbumsOrderIndex" chooses (one query):
  //   2: created;  1: number of images, most first, equal counts by title;  other: title.
  // Ascending sorts put missing values first, as the store's SQL does. Nothing when the fetch fails.
  static std::optional<std::vector<Ref<ImageList>>> albumsInContext(const StoreContext& context,
                                                                    std::int64_t order_index);

  Ref<Object> title() const { return title_; }
  Ref<Object> created() const { return created_; }
  Ref<Object> valueForKey(std::string_view key) const;  // "title", "created"
  // The number of images, when the fetch counted them (order 1).
  std::optional<std::int64_t> knownImageCount() const { return image_count_; }

  // Calls `visit` for each member of "images" in the relationship's order (its stored order when it
  // is ordered, else ascending Z_PK), one row at a time, until it returns false. One indexed query.
  // False when the relationship cannot be read (logged); members already visited stay visited.
  bool enumerateImages(const std::function<bool(const ImageItemRow&)>& visit) const;
  // All members as objects (convenient for small albums). Nothing when the relationship cannot be read.
  std::optional<std::vector<Ref<ImageItem>>> images() const;

  std::span<const std::string_view> class_chain() const override;
  std::string description() const override;

 private:
  ImageList(StoreContext store, std::int64_t entity, std::int64_t pk) : StoredObject(std::move(store), entity, pk) {}
  void drop_refs() override;
  Ref<Object> title_, created_;
  std::optional<std::int64_t> image_count_;
};

class ImageItem final : public StoredObject {
 public:
  Ref<Data> dictionary() const { return dictionary_; }  // the stored keyed archive, or nil
  // The decoded contents of `dictionary`; nil (logged) when it is missing or not an archived dictionary.
  Ref<Dictionary> archivedDictionary() const;
  // A new mutable dictionary in the newer media form; never null (see media_conversion.h).
  Ref<Dictionary> convertedDictionary() const;

  std::span<const std::string_view> class_chain() const override;

 private:
  friend class ImageList;
  ImageItem(StoreContext store, std::int64_t entity, std::int64_t pk) : StoredObject(std::move(store), entity, pk) {}
  void drop_refs() override;
  Ref<Data> dictionary_;
};

}  // namespace orvia
