// Read-only access to an SQLite store written by Core Data, without its object model: the layout is
// discovered from the store itself.
//
// What is read (layout notes: shared reference "coredata-sqlite"):
//  - Z_PRIMARYKEY: entity numbers, names and parents. A root entity E has the table "Z" + UPPER(E);
//    a sub-entity's rows live in its root's table, told apart by Z_ENT. A fetch of an entity covers
//    it and all its descendants.
//  - Z_METADATA.Z_UUID: the store's UUID, the host part of every object URI
//    ("x-coredata://<UUID>/<concrete entity>/p<Z_PK>").
//  - Z_MODELCACHE (optional): the compressed object model, used only for relationship inverse names,
//    ordering flags and attribute names. Stores without it are read by naming rules and heuristics.
//  - Attributes live in columns "Z" + UPPER(attribute); to-one relationships in "Z" + UPPER(name).
//
// Never writes: when "<store>-wal" is non-empty or "<store>-journal" exists, the store and that file
// are copied into a fresh private folder that is opened instead and removed with the store object;
// otherwise the file is opened "mode=ro&immutable=1". Nothing is created next to the store. A store
// that another connection is writing right now (a write lock on its lock bytes or on its WAL write
// lock) is refused as locked.
//
// Threads: one thread at a time (it is opened on a background thread and then used on the main queue).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/object.h"
#include "platform/result.h"
#include "platform/value.h"

namespace orvia {

struct SqliteCloser {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct SqliteFinalizer {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using SqliteDb = std::unique_ptr<sqlite3, SqliteCloser>;
using SqliteStatement = std::unique_ptr<sqlite3_stmt, SqliteFinalizer>;

// A fresh folder of our own (mkdtemp, mode 0700), removed with all its contents on destruction.
class PrivateTempDir {
 public:
  static Result<std::unique_ptr<PrivateTempDir>> create();
  ~PrivateTempDir();
  PrivateTempDir(const PrivateTempDir&) = delete;
  PrivateTempDir& operator=(const PrivateTempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  explicit PrivateTempDir(std::filesystem::path p) : path_(std::move(p)) {}
  std::filesystem::path path_;
};

struct StoreEntity {
  std::int64_t number = 0;
  std::string name;
  std::int64_t super = 0;              // 0 for a root
  std::int64_t root = 0;               // the root entity's number (its own for a root)
  std::string table;                   // the root's table, "Z" + UPPER(root name)
  std::vector<std::int64_t> family;    // itself and every descendant, ascending
  std::vector<std::int64_t> lineage;   // itself and every ancestor, itself first
  std::string family_sql;              // "(4,5,6)", for Z_ENT IN ...
};

// How a to-many relationship R of entity A ("owner") to entity B ("member") is stored.
struct ToManyLayout {
  enum class Kind { ForeignKey, JoinTable };
  Kind kind = Kind::ForeignKey;
  std::string member_table;   // B's root table
  std::string member_family;  // B's family, "(…)"
  bool member_is_root = false;  // B's table holds B's family only: no Z_ENT filter needed
  // ForeignKey: B's to-one column holding A's Z_PK. JoinTable: the join table's columns.
  std::string foreign_key;
  std::string join_table;
  std::string owner_column;   // join table: A's keys
  std::string member_column;  // join table: B's keys
  std::string order_column;   // Z_FOK_… when the relationship is ordered, else empty
};

// The parts of the compressed object model that the reader uses.
struct StoreModel {
  struct Relationship {
    std::string entity, name, destination, inverse;  // inverse empty when there is none
    bool to_many = false;
    bool ordered = false;
  };
  std::map<std::string, std::set<std::string>, std::less<>> attributes;  // entity -> attribute names
  std::vector<Relationship> relationships;
  const Relationship* find(std::string_view entity, std::string_view name) const;
};

// Hints for finding a relationship in a store without a model cache.
struct RelationshipHints {
  std::vector<std::string> inverse_names;      // likely names of the inverse, most likely first
  std::vector<std::string> member_attributes;  // attributes of the member entity (their columns are not keys)
};

enum class AttributeKind { String, Integer, Real, Date, Binary };

// A statement prepared on the store; a cached one is reset (and its bindings cleared) on release.
// Must not outlive the store.
class StoreQuery {
 public:
  StoreQuery() = default;
  StoreQuery(StoreQuery&&) noexcept;
  StoreQuery& operator=(StoreQuery&&) noexcept;
  ~StoreQuery();
  sqlite3_stmt* get() const { return stmt_; }
  explicit operator bool() const { return stmt_ != nullptr; }

 private:
  friend class CoreDataStore;
  void release();
  sqlite3_stmt* stmt_ = nullptr;
  SqliteStatement owned_;  // set when not cached
  bool* in_use_ = nullptr;
};

class CoreDataStore {
 public:
  struct OpenError {
    int sqlite_code = SQLITE_ERROR;  // SQLite's result code for the failure
    std::string reason;              // what was found wrong
  };

  // Opens the store at `path` as described in the file comment. On failure `error` (when given)
  // receives the SQLite code and reason; the returned Error carries the reason too.
  static Result<std::shared_ptr<CoreDataStore>> open(const std::string& path, OpenError* error = nullptr);
  ~CoreDataStore();
  CoreDataStore(const CoreDataStore&) = delete;
  CoreDataStore& operator=(const CoreDataStore&) = delete;

  const std::string& path() const { return path_; }
  const std::string& uuid() const { return uuid_; }
  bool read_from_private_copy() const { return copy_ != nullptr; }
  const StoreModel* model() const { return model_ ? &*model_ : nullptr; }

  const StoreEntity* entity(std::string_view name) const;
  const StoreEntity* entity(std::int64_t number) const;
  const std::vector<StoreEntity>& entities() const { return entities_; }

  // "x-coredata://<UUID>/<name of entity `entity_number`>/p<pk>"; empty for an unknown entity.
  std::string object_uri(std::int64_t entity_number, std::int64_t pk) const;

  bool has_table(std::string_view table) const;
  bool has_column(std::string_view table, std::string_view column) const;
  // The column of an attribute or to-one relationship ("Z" + UPPER(name)) when the table has it.
  std::optional<std::string> column_for(const StoreEntity& entity, std::string_view property) const;

  // Finds how R of `owner` to `member` is stored (cached). Nothing when it cannot be found; `reason`
  // then says why.
  std::optional<ToManyLayout> to_many(std::string_view owner, std::string_view relationship,
                                      std::string_view member, const RelationshipHints& hints = {},
                                      std::string* reason = nullptr) const;
  // SELECT <key> AS owner_key, COUNT(*) AS member_count: one row per owner that has members.
  static std::string member_counts_sql(const ToManyLayout& layout);
  // SELECT m.Z_PK, m.Z_ENT[, m.<columns>] of the members of owner ?1, in the relationship's order
  // (Z_FOK_ ascending when ordered), then ascending Z_PK.
  static std::string members_sql(const ToManyLayout& layout, const std::vector<std::string>& columns);

  // Prepares a statement. `cache` keeps it for reuse when it is not already in use.
  Result<StoreQuery> prepare(const std::string& sql, bool cache = false) const;
  // sqlite3_errmsg of the connection.
  std::string last_error() const;
  // Gives back the memory of the connection's page cache (pages read again when needed).
  void release_cache() const;

  // The value of a result column as the attribute kind reads it; nil for NULL.
  static Ref<Object> value(sqlite3_stmt* stmt, int column, AttributeKind kind);

 private:
  CoreDataStore() = default;
  bool load(OpenError& error);
  void load_model();
  std::vector<std::string> columns_of(std::string_view table) const;
  // 0: the column holds keys that are no owner's; 1: it holds no key at all; 2: all its keys are owners'.
  int points_to(const StoreEntity& member, const std::string& column, const StoreEntity& owner) const;

  std::string path_;
  std::unique_ptr<PrivateTempDir> copy_;  // destroyed after db_ (declared first)
  SqliteDb db_;
  std::string uuid_;
  std::vector<StoreEntity> entities_;
  std::map<std::string, std::size_t, std::less<>> by_name_;
  std::map<std::int64_t, std::size_t> by_number_;
  std::map<std::string, std::vector<std::string>, std::less<>> tables_;  // table -> columns
  std::set<std::string, std::less<>> integer_columns_;  // "table.column" declared INTEGER
  std::set<std::string, std::less<>> indexes_;
  std::optional<StoreModel> model_;
  mutable std::map<std::string, std::pair<std::optional<ToManyLayout>, std::string>, std::less<>> to_many_cache_;
  struct CachedStatement {
    SqliteStatement stmt;
    bool in_use = false;
  };
  mutable std::map<std::string, std::unique_ptr<CachedStatement>, std::less<>> statements_;
};

// "Z" + the name upper-cased (ASCII), as Core Data names tables and columns.
std::string core_data_column_name(std::string_view name);
// The name as an SQL identifier in double quotes.
std::string quote_identifier(std::string_view name);

}  // namespace orvia
