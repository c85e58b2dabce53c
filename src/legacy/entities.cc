#include "legacy/entities.h"

#include <cctype>
#include <climits>

#include "legacy/media_conversion.h"
#include "legacy/user_defaults_wrapper.h"
#include "platform/description.h"
#include "platform/format.h"
#include "platform/log.h"

namespace orvia {
namespace {

void fetch_failed(std::string_view what, const std::string& reason) {
  NSLog("Store fetch of %@ failed: %@", what, reason);
}

// The entity and the columns of the given properties; false (logged) when the store lacks the
// entity, its table or one of the columns.
bool resolve(const CoreDataStore& store, std::string_view entity_name, std::initializer_list<std::string_view> properties,
             const StoreEntity*& entity, std::vector<std::string>& columns) {
  entity = store.entity(entity_name);
  if (!entity) {
    fetch_failed(entity_name, "the store has no entity " + std::string(entity_name));
    return false;
  }
  if (!store.has_table(entity->table)) {
    fetch_failed(entity_name, "the store has no table " + entity->table);
    return false;
  }
  columns.clear();
  for (std::string_view p : properties) {
    auto column = store.column_for(*entity, p);
    if (!column) {
      fetch_failed(entity_name, "the table " + entity->table + " has no column " + core_data_column_name(p));
      return false;
    }
    columns.push_back(quote_identifier(*column));
  }
  return true;
}

std::string select_list(const std::vector<std::string>& columns, std::string_view prefix = "") {
  std::string s;
  for (const auto& c : columns) {
    s += ", ";
    s += prefix;
    s += c;
  }
  return s;
}

RelationshipHints image_hints() {
  // Names of the InstaGram model: ImageItem.list (to-one) or ImageItem.lists (to-many) is the inverse
  // of ImageList.images; ImageItem's own attributes are never keys.
  return RelationshipHints{{"list", "lists"}, {"dictionary", "mediaID"}};
}

// Runs a prepared query to its end; false (logged) on an error of the store.
template <class Row>
bool run(const CoreDataStore& store, StoreQuery& query, std::string_view what, Row&& row) {
  int rc;
  while ((rc = sqlite3_step(query.get())) == SQLITE_ROW) {
    if (!row(query.get())) return true;
  }
  if (rc != SQLITE_DONE) {
    fetch_failed(what, store.last_error());
    return false;
  }
  return true;
}

}  // namespace

std::int64_t legacy_integer_value(const Object* value) {
  if (const Number* n = as_number(value)) {
    if (n->type() == Number::Type::Unsigned) {
      std::uint64_t u = n->uint_value();
      return u > static_cast<std::uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<std::int64_t>(u);
    }
    return n->int_value();
  }
  const String* s = as_string(value);
  if (!s) return 0;
  const std::string& t = s->str();
  std::size_t i = 0;
  while (i < t.size() && std::isspace(static_cast<unsigned char>(t[i]))) ++i;
  bool negative = false;
  if (i < t.size() && (t[i] == '+' || t[i] == '-')) negative = t[i++] == '-';
  std::uint64_t magnitude = 0;
  bool overflow = false;
  for (; i < t.size() && std::isdigit(static_cast<unsigned char>(t[i])); ++i) {
    if (magnitude > (UINT64_MAX - 9) / 10) overflow = true;
    if (!overflow) magnitude = magnitude * 10 + static_cast<std::uint64_t>(t[i] - '0');
  }
  // Out-of-range texts saturate, as the platform's integer reading does.
  if (negative) {
    if (overflow || magnitude > static_cast<std::uint64_t>(INT64_MAX) + 1) return INT64_MIN;
    return magnitude == static_cast<std::uint64_t>(INT64_MAX) + 1 ? INT64_MIN : -static_cast<std::int64_t>(magnitude);
  }
  if (overflow || magnitude > static_cast<std::uint64_t>(INT64_MAX)) return INT64_MAX;
  return static_cast<std::int64_t>(magnitude);
}

// ---------------------------------------------------------------------------------------------------

std::string StoredObject::entityName() const {
  const StoreEntity* e = store_ ? store_->entity(entity_) : nullptr;
  return e ? e->name : std::string();
}

std::string StoredObject::objectURI() const { return store_ ? store_->object_uri(entity_, pk_) : std::string(); }

std::string StoredObject::describe(std::initializer_list<std::pair<std::string_view, const Object*>> values) const {
  std::string s = format("<%@: %p> (entity: %@; id: <%@>; data: {\n",
                         {FormatArg(class_name()), FormatArg(static_cast<const void*>(this)),
                          FormatArg(entityName()), FormatArg(objectURI())});
  for (const auto& [key, value] : values) {
    s += "    ";
    s += key;
    s += " = ";
    s += value ? ::orvia::description(value) : std::string("nil");
    s += ";\n";
  }
  return s + "})";
}

// ---------------------------------------------------------------------------------------------------

std::span<const std::string_view> Account::class_chain() const {
  static constexpr std::string_view kChain[] = {"Account", "NSManagedObject", "NSObject"};
  return kChain;
}

void Account::drop_refs() {
  uid_ = nullptr;
  name_ = nullptr;
  StoredObject::drop_refs();
}

std::string Account::description() const { return describe({{"name", name_.get()}, {"uid", uid_.get()}}); }

Ref<Object> Account::valueForKey(std::string_view key) const {
  if (key == "uid") return uid_;
  if (key == "name") return name_;
  return nullptr;
}

std::optional<std::vector<Ref<Account>>> Account::accountsInContext(const StoreContext& context) {
  if (!context) return std::nullopt;
  const CoreDataStore& store = *context;
  const StoreEntity* entity;
  std::vector<std::string> columns;
  if (!resolve(store, "Account", {"uid", "name"}, entity, columns)) return std::nullopt;
  // A fetch without sort keys: the store's own order, ascending Z_PK.
  auto query = store.prepare("SELECT Z_PK, Z_ENT" + select_list(columns) + " FROM " +
                             quote_identifier(entity->table) + " WHERE Z_ENT IN " + entity->family_sql +
                             " ORDER BY Z_PK");
  if (!query.ok()) {
    fetch_failed("Account", query.error().message);
    return std::nullopt;
  }
  std::vector<Ref<Account>> accounts;
  bool ok = run(store, query.value(), "Account", [&](sqlite3_stmt* stmt) {
    Ref<Account> a(new Account(context, sqlite3_column_int64(stmt, 1), sqlite3_column_int64(stmt, 0)));
    a->uid_ = CoreDataStore::value(stmt, 2, AttributeKind::String);
    a->name_ = CoreDataStore::value(stmt, 3, AttributeKind::String);
    accounts.push_back(std::move(a));
    return true;
  });
  if (!ok) return std::nullopt;
  return accounts;
}

Ref<Object> Account::valueFromStorageForKey(std::string_view key, const MQUserDefaultsWrapper* defaults) const {
  if (!defaults) return nullptr;
  Ref<Object> stored = defaults->valueForKey(key);
  if (!stored) return nullptr;
  const Dictionary* entries = as_dict(stored.get());
  if (!entries) {
    // Defined for a dictionary only; another kind holds no entry for any account.
    NSLog("Account storage %@ is not a dictionary: %@", key, stored->class_name());
    return nullptr;
  }
  const String* uid = as_string(uid_.get());
  if (!uid) return nullptr;
  return Ref<Object>(entries->get(uid->str()));
}

Ref<Object> Account::accessTokenWithDefaults(const MQUserDefaultsWrapper* defaults) const {
  return valueFromStorageForKey("UserAccountsT", defaults);
}
Ref<Object> Account::imageURLWithDefaults(const MQUserDefaultsWrapper* defaults) const {
  return valueFromStorageForKey("UserAccountsI", defaults);
}
Ref<Object> Account::expirationDateWithDefaults(const MQUserDefaultsWrapper* defaults) const {
  return valueFromStorageForKey("UserAccountsE", defaults);
}

// ---------------------------------------------------------------------------------------------------

std::span<const std::string_view> Friend::class_chain() const {
  static constexpr std::string_view kChain[] = {"Friend", "NSManagedObject", "NSObject"};
  return kChain;
}

void Friend::drop_refs() {
  uid_ = unread_count_ = added_ = image_url_ = media_count_ = name_ = nullptr;
  StoredObject::drop_refs();
}

std::string Friend::description() const {
  return describe({{"added", added_.get()},
                   {"imageURL", image_url_.get()},
                   {"mediaCount", media_count_.get()},
                   {"name", name_.get()},
                   {"uid", uid_.get()},
                   {"unreadCount", unread_count_.get()}});
}

void Friend::updateTemporaryValue() {
  const Number* n = as_number(unread_count_.get());
  tmp_unread_count_ = n ? n->int_value() : 0;
}

Ref<Object> Friend::valueForKey(std::string_view key) const {
  if (key == "uid") return uid_;
  if (key == "unreadCount") return unread_count_;
  if (key == "added") return added_;
  if (key == "imageURL") return image_url_;
  if (key == "mediaCount") return media_count_;
  if (key == "name") return name_;
  if (key == "image") return image();
  if (key == "account") return Ref<Object>(account());
  return nullptr;
}

Ref<Object> Friend::image() const {
  if (!store_) return nullptr;
  const StoreEntity* entity;
  std::vector<std::string> columns;
  if (!resolve(*store_, "Friend", {"image"}, entity, columns)) return nullptr;
  auto query = store_->prepare("SELECT " + columns[0] + " FROM " + quote_identifier(entity->table) + " WHERE Z_PK = ?1");
  if (!query.ok()) return nullptr;
  sqlite3_bind_int64(query.value().get(), 1, pk_);
  if (sqlite3_step(query.value().get()) != SQLITE_ROW) return nullptr;
  return CoreDataStore::value(query.value().get(), 0, AttributeKind::Binary);
}

Ref<Account> Friend::account() const {
  if (!store_ || !account_pk_) return nullptr;
  const StoreEntity* entity;
  std::vector<std::string> columns;
  if (!resolve(*store_, "Account", {"uid", "name"}, entity, columns)) return nullptr;
  auto query = store_->prepare("SELECT Z_PK, Z_ENT" + select_list(columns) + " FROM " +
                               quote_identifier(entity->table) + " WHERE Z_PK = ?1 AND Z_ENT IN " + entity->family_sql);
  if (!query.ok()) return nullptr;
  sqlite3_stmt* stmt = query.value().get();
  sqlite3_bind_int64(stmt, 1, *account_pk_);
  if (sqlite3_step(stmt) != SQLITE_ROW) return nullptr;
  Ref<Account> a(new Account(store_, sqlite3_column_int64(stmt, 1), sqlite3_column_int64(stmt, 0)));
  a->uid_ = CoreDataStore::value(stmt, 2, AttributeKind::String);
  a->name_ = CoreDataStore::value(stmt, 3, AttributeKind::String);
  return a;
}

std::vector<Ref<Friend>> Friend::favouriteUsersForAccount(const Account* account, const MQUserDefaultsWrapper* defaults,
                                                          const StoreContext& context) {
  std::int64_t order = 0;
  if (defaults) order = legacy_integer_value(defaults->valueForKey("WZFavoriteFriendsOrderIndex").get());
  auto friends = friendsForAccount(account, order, context);
  return friends ? std::move(*friends) : std::vector<Ref<Friend>>();
}

std::optional<std::vector<Ref<Friend>>> Friend::friendsForAccount(const Account* account, std::int64_t order_index,
                                                                  const StoreContext& context) {
  if (!context) return std::nullopt;
  const CoreDataStore& store = *context;
  const StoreEntity* entity;
  std::vector<std::string> c;
  if (!resolve(store, "Friend", {"uid", "unreadCount", "added", "imageURL", "mediaCount", "name", "account"}, entity, c))
    return std::nullopt;
  const std::string& unread = c[1];
  const std::string& added = c[2];
  const std::string& name = c[5];
  const std::string& account_column = c[6];
  // Sorted by the store as Core Data's SQLite store sorts: ORDER BY on the columns (binary collation,
  // missing values first when ascending, last when descending). Z_PK last makes ties deterministic.
  std::string order;
  if (order_index == 0) {
    order = unread + " DESC, " + name + ", Z_PK";
  } else if (order_index == 1) {
    order = added + ", " + name + ", Z_PK";
  } else {
    order = name + ", " + added + ", Z_PK";
  }
  // SELF.account == account; with no account, the favourites that belong to none.
  std::string where = account ? account_column + " = ?1" : account_column + " IS NULL";
  auto query = store.prepare("SELECT Z_PK, Z_ENT" + select_list(c) + " FROM " + quote_identifier(entity->table) +
                             " WHERE Z_ENT IN " + entity->family_sql + " AND " + where + " ORDER BY " + order);
  if (!query.ok()) {
    fetch_failed("Friend", query.error().message);
    return std::nullopt;
  }
  if (account) sqlite3_bind_int64(query.value().get(), 1, account->primaryKey());
  std::vector<Ref<Friend>> friends;
  bool ok = run(store, query.value(), "Friend", [&](sqlite3_stmt* stmt) {
    Ref<Friend> f(new Friend(context, sqlite3_column_int64(stmt, 1), sqlite3_column_int64(stmt, 0)));
    f->uid_ = CoreDataStore::value(stmt, 2, AttributeKind::String);
    f->unread_count_ = CoreDataStore::value(stmt, 3, AttributeKind::Integer);
    f->added_ = CoreDataStore::value(stmt, 4, AttributeKind::Date);
    f->image_url_ = CoreDataStore::value(stmt, 5, AttributeKind::String);
    f->media_count_ = CoreDataStore::value(stmt, 6, AttributeKind::Integer);
    f->name_ = CoreDataStore::value(stmt, 7, AttributeKind::String);
    if (sqlite3_column_type(stmt, 8) != SQLITE_NULL) f->account_pk_ = sqlite3_column_int64(stmt, 8);
    f->awakeFromFetch();
    friends.push_back(std::move(f));
    return true;
  });
  if (!ok) return std::nullopt;
  return friends;
}

// ---------------------------------------------------------------------------------------------------

Ref<Dictionary> ImageItemRow::convertedDictionary() const {
  if (!has_dictionary) return convertedDictionaryFromArchive(nullptr, objectURI());
  return convertedDictionaryFromArchive(&dictionary, objectURI());
}

std::span<const std::string_view> ImageList::class_chain() const {
  static constexpr std::string_view kChain[] = {"NSManagedObject", "NSObject"};
  return kChain;
}

void ImageList::drop_refs() {
  title_ = created_ = nullptr;
  StoredObject::drop_refs();
}

std::string ImageList::description() const { return describe({{"created", created_.get()}, {"title", title_.get()}}); }

Ref<Object> ImageList::valueForKey(std::string_view key) const {
  if (key == "title") return title_;
  if (key == "created") return created_;
  return nullptr;
}

std::optional<std::vector<Ref<ImageList>>> ImageList::albumsInContext(const StoreContext& context,
                                                                      std::int64_t order_index) {
  if (!context) return std::nullopt;
  const CoreDataStore& store = *context;
  const StoreEntity* entity;
  std::vector<std::string> c;
  if (!resolve(store, "ImageList", {"title", "created"}, entity, c)) return std::nullopt;
  const bool by_count = order_index == 1;
  std::string sql = "SELECT a.Z_PK, a.Z_ENT" + select_list(c, "a.");
  std::string from = " FROM " + quote_identifier(entity->table) + " a";
  if (by_count) {
    std::string reason;
    auto layout = store.to_many("ImageList", "images", "ImageItem", image_hints(), &reason);
    if (!layout) {
      fetch_failed("ImageList", reason);
      return std::nullopt;
    }
    // All member counts in one grouped query.
    sql += ", COALESCE(c.member_count, 0)";
    from += " LEFT JOIN (" + CoreDataStore::member_counts_sql(*layout) + ") c ON c.owner_key = a.Z_PK";
  }
  // Sorted as Core Data's SQLite store sorts (see Friend); albums without a title or creation date
  // come first. Order 1 is the title order re-sorted, stably, by member count, most first.
  std::string order;
  if (order_index == 2) {
    order = "a." + c[1] + ", a.Z_PK";
  } else if (by_count) {
    order = "COALESCE(c.member_count, 0) DESC, a." + c[0] + ", a.Z_PK";
  } else {
    order = "a." + c[0] + ", a.Z_PK";
  }
  auto query = store.prepare(sql + from + " WHERE a.Z_ENT IN " + entity->family_sql + " ORDER BY " + order);
  if (!query.ok()) {
    fetch_failed("ImageList", query.error().message);
    return std::nullopt;
  }
  std::vector<Ref<ImageList>> albums;
  bool ok = run(store, query.value(), "ImageList", [&](sqlite3_stmt* stmt) {
    Ref<ImageList> a(new ImageList(context, sqlite3_column_int64(stmt, 1), sqlite3_column_int64(stmt, 0)));
    a->title_ = CoreDataStore::value(stmt, 2, AttributeKind::String);
    a->created_ = CoreDataStore::value(stmt, 3, AttributeKind::Date);
    if (by_count) a->image_count_ = sqlite3_column_int64(stmt, 4);
    albums.push_back(std::move(a));
    return true;
  });
  if (!ok) return std::nullopt;
  return albums;
}

bool ImageList::enumerateImages(const std::function<bool(const ImageItemRow&)>& visit) const {
  if (!store_) return false;
  const CoreDataStore& store = *store_;
  std::string reason;
  auto layout = store.to_many("ImageList", "images", "ImageItem", image_hints(), &reason);
  if (!layout) {
    fetch_failed("ImageList.images", reason);
    return false;
  }
  const StoreEntity* item;
  std::vector<std::string> c;
  if (!resolve(store, "ImageItem", {"dictionary"}, item, c)) return false;
  auto column = store.column_for(*item, "dictionary");
  auto query = store.prepare(CoreDataStore::members_sql(*layout, {*column}), /*cache=*/true);
  if (!query.ok()) {
    fetch_failed("ImageList.images", query.error().message);
    return false;
  }
  sqlite3_bind_int64(query.value().get(), 1, pk_);
  ImageItemRow row;
  row.store = &store;
  return run(store, query.value(), "ImageList.images", [&](sqlite3_stmt* stmt) {
    row.primary_key = sqlite3_column_int64(stmt, 0);
    row.entity = sqlite3_column_int64(stmt, 1);
    const int type = sqlite3_column_type(stmt, 2);
    row.has_dictionary = type == SQLITE_BLOB || type == SQLITE_TEXT;
    const void* bytes = row.has_dictionary ? sqlite3_column_blob(stmt, 2) : nullptr;
    const auto size = row.has_dictionary ? static_cast<std::size_t>(sqlite3_column_bytes(stmt, 2)) : 0;
    row.dictionary = std::string_view(bytes ? static_cast<const char*>(bytes) : "", size);
    return visit(row);
  });
}

std::optional<std::vector<Ref<ImageItem>>> ImageList::images() const {
  std::vector<Ref<ImageItem>> items;
  bool ok = enumerateImages([&](const ImageItemRow& row) {
    Ref<ImageItem> item(new ImageItem(store_, row.entity, row.primary_key));
    if (row.has_dictionary) item->dictionary_ = data(row.dictionary);
    items.push_back(std::move(item));
    return true;
  });
  if (!ok) return std::nullopt;
  return items;
}

// ---------------------------------------------------------------------------------------------------

std::span<const std::string_view> ImageItem::class_chain() const {
  static constexpr std::string_view kChain[] = {"ImageItem", "NSManagedObject", "NSObject"};
  return kChain;
}

void ImageItem::drop_refs() {
  dictionary_ = nullptr;
  StoredObject::drop_refs();
}

Ref<Dictionary> ImageItem::archivedDictionary() const {
  if (!dictionary_) {
    NSLog("Unreadable media record %@: %@", objectURI(), "no stored dictionary");
    return nullptr;
  }
  auto decoded = decode_media_record(dictionary_->bytes());
  if (!decoded.ok()) {
    NSLog("Unreadable media record %@: %@", objectURI(), decoded.error().message);
    return nullptr;
  }
  return decoded.value();
}

Ref<Dictionary> ImageItem::convertedDictionary() const {
  if (!dictionary_) return convertedDictionaryFromArchive(nullptr, objectURI());
  std::string_view bytes = dictionary_->bytes();
  return convertedDictionaryFromArchive(&bytes, objectURI());
}

}  // namespace orvia
