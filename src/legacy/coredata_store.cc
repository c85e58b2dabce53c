#include "legacy/coredata_store.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <unordered_set>

#include "legacy/inflate.h"
#include "legacy/store_cache.h"
#include "platform/keyed_archive.h"
#include "platform/log.h"

namespace fs = std::filesystem;

namespace orvia {
namespace {

// SQLite's lock bytes in the main file (unix VFS): PENDING, RESERVED and the SHARED range.
constexpr off_t kPendingByte = 0x40000000;
constexpr off_t kLockRangeLength = 2 + 510;
// The WAL write lock in the -shm file (the first of the WAL index locks).
constexpr off_t kWalWriteLockByte = 120;
// A store is used by one thread at a time (the media reader's worker alone while it reads), so the
// connection goes without SQLite's own lock around every call: some 15 lock pairs per media row.
constexpr int kOneThreadAtATime = SQLITE_OPEN_NOMUTEX;

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// True when another connection (of any process, this one included) holds a write lock on bytes of
// the file. Asks with an open-file-description lock query, which places no lock and writes nothing.
bool write_locked(const std::string& path, off_t start, off_t length) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return false;
  struct flock probe {};
  probe.l_type = F_RDLCK;
  probe.l_whence = SEEK_SET;
  probe.l_start = start;
  probe.l_len = length;
  probe.l_pid = 0;
  if (::fcntl(fd.get(), F_OFD_GETLK, &probe) != 0) return false;  // cannot tell: go on
  return probe.l_type != F_UNLCK;
}

std::uint32_t be32(const unsigned char* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}

// Checks the database header without SQLite: the magic text, a valid page size, and a file that holds
// all the pages its header counts.
bool check_header(const std::string& path, CoreDataStore::OpenError& error) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    error = {SQLITE_CANTOPEN, "unable to open the store file"};
    return false;
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    error = {SQLITE_CANTOPEN, "the store is not a regular file"};
    return false;
  }
  unsigned char header[100];
  ssize_t n = ::pread(fd.get(), header, sizeof header, 0);
  if (n < static_cast<ssize_t>(sizeof header) || std::string_view(reinterpret_cast<char*>(header), 16) !=
                                                      std::string_view("SQLite format 3\0", 16)) {
    error = {SQLITE_NOTADB, "file is not a database"};
    return false;
  }
  std::uint32_t page_size = (std::uint32_t{header[16]} << 8) | header[17];
  if (page_size == 1) page_size = 65536;
  if (page_size < 512 || page_size > 65536 || (page_size & (page_size - 1)) != 0) {
    error = {SQLITE_NOTADB, "invalid page size in the database header"};
    return false;
  }
  const auto size = static_cast<std::uint64_t>(st.st_size);
  if (size % page_size != 0) {
    error = {SQLITE_CORRUPT, "the store file ends inside a page (truncated)"};
    return false;
  }
  std::uint32_t change_counter = be32(header + 24);
  std::uint32_t page_count = be32(header + 28);
  std::uint32_t valid_for = be32(header + 92);
  if (page_count != 0 && valid_for == change_counter &&
      size < static_cast<std::uint64_t>(page_count) * page_size) {
    error = {SQLITE_CORRUPT, "the store file is shorter than its header says (truncated)"};
    return false;
  }
  return true;
}

bool non_empty_file(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

// "file:" URI of a path: every byte but unreserved ones and "/" percent-encoded.
std::string file_uri(const std::string& path) {
  static const char* hex = "0123456789ABCDEF";
  std::string uri = "file:";
  for (unsigned char c : path) {
    if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
      uri.push_back(static_cast<char>(c));
    } else {
      uri.push_back('%');
      uri.push_back(hex[c >> 4]);
      uri.push_back(hex[c & 15]);
    }
  }
  return uri + "?mode=ro&immutable=1";
}

}  // namespace

std::string quote_identifier(std::string_view name) {
  std::string q = "\"";
  for (char c : name) {
    if (c == '"') q.push_back('"');
    q.push_back(c);
  }
  q.push_back('"');
  return q;
}

namespace {

std::string upper(std::string_view s) {
  std::string u(s);
  for (char& c : u) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return u;
}

// Splits a join-table column "Z_<digits><NAME>" into its number and name; false for anything else.
bool split_numbered(std::string_view column, std::int64_t& number, std::string_view& name) {
  if (column.size() < 4 || column.substr(0, 2) != "Z_") return false;
  std::size_t i = 2;
  std::int64_t n = 0;
  while (i < column.size() && std::isdigit(static_cast<unsigned char>(column[i])) && i < 20) {
    n = n * 10 + (column[i] - '0');
    ++i;
  }
  if (i == 2 || i >= column.size() || !std::isalpha(static_cast<unsigned char>(column[i]))) return false;
  number = n;
  name = column.substr(i);
  return true;
}

// True when `name` is `base` optionally followed by decimal digits (Core Data's clash suffix).
bool is_name_with_suffix(std::string_view name, std::string_view base) {
  if (name.substr(0, base.size()) != base) return false;
  return std::all_of(name.begin() + static_cast<std::ptrdiff_t>(base.size()), name.end(),
                     [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
}

bool contains(const std::vector<std::int64_t>& v, std::int64_t x) {
  return std::find(v.begin(), v.end(), x) != v.end();
}

const GenericRecord* as_generic(const Object* o) {
  return o && o->kind() == ObjectKind::Record ? dynamic_cast<const GenericRecord*>(o) : nullptr;
}

// Reads entity, attribute and relationship descriptions out of a decoded object model. Walks the
// object graph with an explicit stack; the model's records refer to each other in cycles.
void collect_model(const Object* root, StoreModel& model) {
  std::vector<const Object*> stack{root};
  std::unordered_set<const Object*> seen;
  auto entity_name = [](const Object* o) -> std::string {
    const GenericRecord* e = as_generic(o);
    return e ? std::string(text_of(e->get("NSEntityName"))) : std::string();
  };
  while (!stack.empty()) {
    const Object* o = stack.back();
    stack.pop_back();
    if (!o || !seen.insert(o).second) continue;
    switch (o->kind()) {
      case ObjectKind::Array:
        for (const auto& item : static_cast<const Array*>(o)->items()) stack.push_back(item.get());
        break;
      case ObjectKind::Set:
        for (const auto& item : static_cast<const Set*>(o)->items()) stack.push_back(item.get());
        break;
      case ObjectKind::Dictionary:
        for (const auto& [k, v] : static_cast<const Dictionary*>(o)->entries()) {
          stack.push_back(k.get());
          stack.push_back(v.get());
        }
        break;
      case ObjectKind::Record: {
        const GenericRecord* g = as_generic(o);
        if (!g) break;
        for (const auto& field : g->fields()) stack.push_back(field.value.get());
        std::string_view cls = g->class_name();
        if (cls != "NSAttributeDescription" && cls != "NSRelationshipDescription") break;
        std::string entity = entity_name(g->get("NSEntity"));
        std::string name(text_of(g->get("NSPropertyName")));
        if (entity.empty() || name.empty()) break;
        if (cls == "NSAttributeDescription") {
          model.attributes[entity].insert(name);
          break;
        }
        StoreModel::Relationship rel;
        rel.entity = entity;
        rel.name = name;
        rel.destination = std::string(text_of(g->get("_NSDestinationEntityName")));
        if (rel.destination.empty()) rel.destination = entity_name(g->get("NSDestinationEntity"));
        rel.inverse = std::string(text_of(g->get("_NSInverseRelationshipName")));
        if (rel.inverse.empty()) {
          if (const GenericRecord* inv = as_generic(g->get("NSInverseRelationship")))
            rel.inverse = std::string(text_of(inv->get("NSPropertyName")));
        }
        const Number* max = as_number(g->get("NSMaxCount"));
        rel.to_many = !max || max->int_value() != 1;
        const Number* ordered = as_number(g->get("NSIsOrdered"));
        rel.ordered = ordered && ordered->bool_value();
        if (!model.find(rel.entity, rel.name)) model.relationships.push_back(std::move(rel));
        break;
      }
      default:
        break;
    }
  }
}

}  // namespace

std::string core_data_column_name(std::string_view name) { return "Z" + upper(name); }

const StoreModel::Relationship* StoreModel::find(std::string_view entity, std::string_view name) const {
  for (const auto& r : relationships) {
    if (r.entity == entity && r.name == name) return &r;
  }
  return nullptr;
}

// ---------------------------------------------------------------------------------------------------

Result<std::unique_ptr<PrivateTempDir>> PrivateTempDir::create() {
  std::error_code ec;
  fs::path base = fs::temp_directory_path(ec);
  if (ec) base = "/tmp";
  std::string templ = (base / "orvia-store-XXXXXX").string();
  if (!::mkdtemp(templ.data())) return Error{"cannot make a private temporary folder"};
  return std::unique_ptr<PrivateTempDir>(new PrivateTempDir(templ));
}

PrivateTempDir::~PrivateTempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

StoreQuery::StoreQuery(StoreQuery&& o) noexcept
    : stmt_(std::exchange(o.stmt_, nullptr)), owned_(std::move(o.owned_)), in_use_(std::exchange(o.in_use_, nullptr)) {}

StoreQuery& StoreQuery::operator=(StoreQuery&& o) noexcept {
  if (this != &o) {
    release();
    stmt_ = std::exchange(o.stmt_, nullptr);
    owned_ = std::move(o.owned_);
    in_use_ = std::exchange(o.in_use_, nullptr);
  }
  return *this;
}

StoreQuery::~StoreQuery() { release(); }

void StoreQuery::release() {
  if (in_use_) {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    *in_use_ = false;
    in_use_ = nullptr;
  }
  owned_.reset();
  stmt_ = nullptr;
}

// ---------------------------------------------------------------------------------------------------

Result<std::shared_ptr<CoreDataStore>> CoreDataStore::open(const std::string& path, OpenError* error_out) {
  OpenError error;
  auto fail = [&](OpenError e) -> Result<std::shared_ptr<CoreDataStore>> {
    if (error_out) *error_out = e;
    return Error{e.reason};
  };
  if (!check_header(path, error)) return fail(error);
  // Another connection in the middle of a write: the legacy application is still at work.
  if (write_locked(path, kPendingByte, kLockRangeLength) ||
      (exists(path + "-shm") && write_locked(path + "-shm", kWalWriteLockByte, 1))) {
    return fail({SQLITE_BUSY, "database is locked"});
  }

  std::shared_ptr<CoreDataStore> store(new CoreDataStore());
  store->path_ = path;
  sqlite3* raw = nullptr;
  int rc;
  std::string side;  // the -wal or -journal file that holds committed (or rolled-back) state
  if (non_empty_file(path + "-wal")) {
    side = "-wal";
  } else if (exists(path + "-journal")) {
    side = "-journal";
  }
  if (!side.empty()) {
    auto dir = PrivateTempDir::create();
    if (!dir.ok()) return fail({SQLITE_CANTOPEN, dir.error().message});
    store->copy_ = std::move(dir.value());
    const fs::path copy = store->copy_->path() / "store.sqlite";
    std::error_code ec;
    fs::copy_file(path, copy, ec);
    if (!ec) fs::copy_file(path + side, copy.string() + side, ec);
    if (ec) return fail({SQLITE_CANTOPEN, "cannot copy the store: " + ec.message()});
    // The private copy is opened read-write so that SQLite can replay its WAL or roll back its
    // journal; nothing of it outlives this object.
    rc = sqlite3_open_v2(copy.c_str(), &raw, SQLITE_OPEN_READWRITE | kOneThreadAtATime, nullptr);
  } else {
    rc = sqlite3_open_v2(file_uri(path).c_str(), &raw, SQLITE_OPEN_URI | SQLITE_OPEN_READONLY | kOneThreadAtATime,
                         nullptr);
  }
  store->db_.reset(raw);
  if (rc != SQLITE_OK) return fail({rc, raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc)});
  sqlite3_extended_result_codes(raw, 0);
  if (!store->load(error)) return fail(error);
  return store;
}

CoreDataStore::~CoreDataStore() = default;

bool CoreDataStore::load(OpenError& error) {
  sqlite3* db = db_.get();
  auto sql_fail = [&](std::string what) {
    int code = sqlite3_errcode(db);
    error = {code == SQLITE_OK ? SQLITE_ERROR : code, what + ": " + sqlite3_errmsg(db)};
    return false;
  };
  sqlite3_exec(db, "PRAGMA query_only = 1", nullptr, nullptr, nullptr);
  if (const std::string cache = store_page_cache_pragma(path_); !cache.empty())
    sqlite3_exec(db, cache.c_str(), nullptr, nullptr, nullptr);

  // Schema: tables with their columns, and index names.
  {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT type, name FROM sqlite_master WHERE type IN ('table', 'index')", -1, &raw,
                           nullptr) != SQLITE_OK)
      return sql_fail("cannot read the schema");
    SqliteStatement stmt(raw);
    int rc;
    std::vector<std::string> tables;
    while ((rc = sqlite3_step(raw)) == SQLITE_ROW) {
      const unsigned char* type = sqlite3_column_text(raw, 0);
      const unsigned char* name = sqlite3_column_text(raw, 1);
      if (!type || !name) continue;
      if (std::string_view(reinterpret_cast<const char*>(type)) == "table") {
        tables.emplace_back(reinterpret_cast<const char*>(name));
      } else {
        indexes_.insert(reinterpret_cast<const char*>(name));
      }
    }
    if (rc != SQLITE_DONE) return sql_fail("cannot read the schema");
    for (const auto& t : tables) {
      sqlite3_stmt* ci = nullptr;
      if (sqlite3_prepare_v2(db, "SELECT name, type FROM pragma_table_info(?1)", -1, &ci, nullptr) != SQLITE_OK)
        return sql_fail("cannot read the columns of " + t);
      SqliteStatement cstmt(ci);
      sqlite3_bind_text(ci, 1, t.c_str(), static_cast<int>(t.size()), SQLITE_TRANSIENT);
      std::vector<std::string> cols;
      while ((rc = sqlite3_step(ci)) == SQLITE_ROW) {
        const unsigned char* c = sqlite3_column_text(ci, 0);
        if (!c) continue;
        cols.emplace_back(reinterpret_cast<const char*>(c));
        const unsigned char* type = sqlite3_column_text(ci, 1);
        if (type && upper(reinterpret_cast<const char*>(type)) == "INTEGER") integer_columns_.insert(t + "." + cols.back());
      }
      if (rc != SQLITE_DONE) return sql_fail("cannot read the columns of " + t);
      tables_[t] = std::move(cols);
    }
  }
  for (const char* system : {"Z_PRIMARYKEY", "Z_METADATA"}) {
    if (!has_table(system)) {
      error = {SQLITE_CORRUPT, std::string("the store has no ") + system + " table"};
      return false;
    }
  }

  // Entities.
  {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT Z_ENT, Z_NAME, Z_SUPER FROM Z_PRIMARYKEY ORDER BY Z_ENT", -1, &raw, nullptr) !=
        SQLITE_OK)
      return sql_fail("cannot read Z_PRIMARYKEY");
    SqliteStatement stmt(raw);
    int rc;
    while ((rc = sqlite3_step(raw)) == SQLITE_ROW) {
      StoreEntity e;
      e.number = sqlite3_column_int64(raw, 0);
      const unsigned char* name = sqlite3_column_text(raw, 1);
      if (!name || e.number <= 0) continue;
      e.name = reinterpret_cast<const char*>(name);
      e.super = sqlite3_column_int64(raw, 2);
      if (by_name_.count(e.name) || by_number_.count(e.number)) continue;
      by_name_[e.name] = entities_.size();
      by_number_[e.number] = entities_.size();
      entities_.push_back(std::move(e));
    }
    if (rc != SQLITE_DONE) return sql_fail("cannot read Z_PRIMARYKEY");
  }
  // Roots, lineages and families; a parent chain that loops or leaves the table ends where it breaks.
  for (auto& e : entities_) {
    e.lineage = {e.number};
    std::int64_t cur = e.super;
    while (cur != 0 && by_number_.count(cur) && !contains(e.lineage, cur)) {
      e.lineage.push_back(cur);
      cur = entities_[by_number_[cur]].super;
    }
    e.root = e.lineage.back();
    e.table = core_data_column_name(entities_[by_number_[e.root]].name);
  }
  for (auto& e : entities_) {
    for (const auto& other : entities_) {
      if (contains(other.lineage, e.number)) e.family.push_back(other.number);
    }
    std::sort(e.family.begin(), e.family.end());
    e.family_sql = "(";
    for (std::size_t i = 0; i < e.family.size(); ++i) {
      if (i) e.family_sql += ",";
      e.family_sql += std::to_string(e.family[i]);
    }
    e.family_sql += ")";
  }

  // The store's UUID.
  {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT Z_UUID FROM Z_METADATA ORDER BY Z_VERSION LIMIT 1", -1, &raw, nullptr) !=
        SQLITE_OK)
      return sql_fail("cannot read Z_METADATA");
    SqliteStatement stmt(raw);
    int rc = sqlite3_step(raw);
    if (rc == SQLITE_ROW && sqlite3_column_text(raw, 0)) {
      uuid_ = reinterpret_cast<const char*>(sqlite3_column_text(raw, 0));
    } else if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
      return sql_fail("cannot read Z_METADATA");
    }
    if (uuid_.empty()) {
      error = {SQLITE_CORRUPT, "the store's metadata has no UUID"};
      return false;
    }
  }
  load_model();
  return true;
}

void CoreDataStore::load_model() {
  if (!has_table("Z_MODELCACHE")) return;  // older stores have none
  auto query = prepare("SELECT Z_CONTENT FROM Z_MODELCACHE LIMIT 1");
  if (!query.ok()) return;
  sqlite3_stmt* stmt = query.value().get();
  if (sqlite3_step(stmt) != SQLITE_ROW || sqlite3_column_type(stmt, 0) != SQLITE_BLOB) return;
  std::string_view blob(static_cast<const char*>(sqlite3_column_blob(stmt, 0)),
                        static_cast<std::size_t>(sqlite3_column_bytes(stmt, 0)));
  auto inflated = inflate_raw(blob);
  if (!inflated.ok()) {
    NSLog("Store model cache of %@ unreadable: %@", path_, inflated.error().message);
    return;
  }
  // The decoded model is a graph with cycles: a heap of its own frees it once its names are read.
  Heap heap;
  HeapScope scope(heap);
  auto decoded = unarchive(inflated.value());
  if (!decoded.ok()) {
    NSLog("Store model cache of %@ unreadable: %@", path_, decoded.error().message);
    return;
  }
  StoreModel model;
  collect_model(decoded.value().get(), model);
  model_ = std::move(model);
}

const StoreEntity* CoreDataStore::entity(std::string_view name) const {
  auto it = by_name_.find(name);
  return it == by_name_.end() ? nullptr : &entities_[it->second];
}

const StoreEntity* CoreDataStore::entity(std::int64_t number) const {
  auto it = by_number_.find(number);
  return it == by_number_.end() ? nullptr : &entities_[it->second];
}

std::string CoreDataStore::object_uri(std::int64_t entity_number, std::int64_t pk) const {
  const StoreEntity* e = entity(entity_number);
  if (!e) return {};
  std::string uri;
  uri.reserve(14 + uuid_.size() + e->name.size() + 22);
  uri += "x-coredata://";
  uri += uuid_;
  uri += '/';
  uri += e->name;
  uri += "/p";
  uri += std::to_string(pk);
  return uri;
}

bool CoreDataStore::has_table(std::string_view table) const { return tables_.find(table) != tables_.end(); }

bool CoreDataStore::has_column(std::string_view table, std::string_view column) const {
  auto it = tables_.find(table);
  if (it == tables_.end()) return false;
  return std::find(it->second.begin(), it->second.end(), column) != it->second.end();
}

std::vector<std::string> CoreDataStore::columns_of(std::string_view table) const {
  auto it = tables_.find(table);
  return it == tables_.end() ? std::vector<std::string>() : it->second;
}

std::optional<std::string> CoreDataStore::column_for(const StoreEntity& entity, std::string_view property) const {
  std::string column = core_data_column_name(property);
  if (!has_column(entity.table, column)) return std::nullopt;
  return column;
}

int CoreDataStore::points_to(const StoreEntity& member, const std::string& column, const StoreEntity& owner) const {
  // Every key in the column must be a row of the owner entity (or one of its sub-entities). Each
  // distinct key is looked up once: a store's media name a few thousand albums a hundred times each.
  const std::string t = quote_identifier(member.table), c = quote_identifier(column);
  auto stray = prepare("SELECT 1 FROM (SELECT DISTINCT " + c + " AS k FROM " + t + " WHERE " + c +
                       " IS NOT NULL) WHERE k NOT IN (SELECT Z_PK FROM " + quote_identifier(owner.table) +
                       " WHERE Z_ENT IN " + owner.family_sql + ") LIMIT 1");
  if (!stray.ok() || sqlite3_step(stray.value().get()) != SQLITE_DONE) return 0;
  auto any = prepare("SELECT 1 FROM " + t + " WHERE " + c + " IS NOT NULL AND Z_ENT IN " + member.family_sql + " LIMIT 1");
  if (!any.ok()) return 0;
  return sqlite3_step(any.value().get()) == SQLITE_ROW ? 2 : 1;
}

std::optional<ToManyLayout> CoreDataStore::to_many(std::string_view owner_name, std::string_view relationship,
                                                   std::string_view member_name, const RelationshipHints& hints,
                                                   std::string* reason) const {
  std::string key = std::string(owner_name) + "." + std::string(relationship) + ">" + std::string(member_name);
  if (auto it = to_many_cache_.find(key); it != to_many_cache_.end()) {
    if (!it->second.first && reason) *reason = it->second.second;
    return it->second.first;
  }
  auto remember = [&](std::optional<ToManyLayout> layout, std::string why) {
    if (!layout && reason) *reason = why;
    to_many_cache_[key] = {layout, std::move(why)};
    return layout;
  };
  const StoreEntity* owner = entity(owner_name);
  const StoreEntity* member = entity(member_name);
  if (!owner || !member) return remember(std::nullopt, "no entity " + std::string(owner ? member_name : owner_name));
  if (!has_table(owner->table) || !has_table(member->table)) {
    return remember(std::nullopt, "no table " + (has_table(owner->table) ? member->table : owner->table));
  }
  // Entities whose numbers may name the relationship's sides: the entity itself, its ancestors (which
  // may declare the relationship) and its descendants.
  auto related = [&](const StoreEntity& e) {
    std::vector<std::int64_t> v = e.family;
    v.insert(v.end(), e.lineage.begin(), e.lineage.end());
    return v;
  };
  const std::vector<std::int64_t> owner_related = related(*owner);
  const std::vector<std::int64_t> member_related = related(*member);
  const std::string rel_upper = upper(relationship);

  ToManyLayout layout;
  layout.member_table = member->table;
  layout.member_family = member->family_sql;
  layout.member_is_root = member->number == member->root;

  // Whether the relationship is ordered: the model says so when the store has one; without it, an
  // ordering column shows it.
  std::optional<bool> ordered;
  auto foreign_key_layout = [&](const std::string& column) {
    layout.kind = ToManyLayout::Kind::ForeignKey;
    layout.foreign_key = column;
    std::string fok = "Z_FOK_" + column.substr(1);
    layout.order_column = ordered.value_or(true) && has_column(member->table, fok) ? fok : std::string();
    return layout;
  };

  // What the model says about the inverse, when the store carries its model.
  std::string inverse_upper;
  std::optional<bool> inverse_to_many;
  if (model_) {
    const StoreModel::Relationship* rel = nullptr;
    for (std::int64_t n : owner->lineage) {
      if ((rel = model_->find(entity(n)->name, relationship))) break;
    }
    if (rel) ordered = rel->ordered;
    if (rel && !rel->inverse.empty()) {
      inverse_upper = upper(rel->inverse);
      const StoreModel::Relationship* inv = nullptr;
      for (std::int64_t n : member_related) {
        if (const StoreEntity* e = entity(n); e && (inv = model_->find(e->name, rel->inverse))) break;
      }
      if (inv) inverse_to_many = inv->to_many;
      if (!inv || !inv->to_many) {
        if (has_column(member->table, "Z" + inverse_upper)) return remember(foreign_key_layout("Z" + inverse_upper), "");
      }
    }
  }

  // A join table: one column "Z_<b><R>[digits]" with the members' keys, another "Z_<a><S>[digits]"
  // with the owners' keys.
  if (inverse_to_many.value_or(true)) {
    for (const auto& [table, columns] : tables_) {
      std::int64_t n;
      std::string_view name;
      if (!split_numbered(table, n, name)) continue;
      std::string member_col, owner_col;
      for (const auto& c : columns) {
        if (c.rfind("Z_FOK_", 0) == 0 || !split_numbered(c, n, name)) continue;
        if (member_col.empty() && contains(member_related, n) && is_name_with_suffix(name, rel_upper)) {
          member_col = c;
        } else if (owner_col.empty() && contains(owner_related, n) &&
                   (inverse_upper.empty() || is_name_with_suffix(name, inverse_upper))) {
          owner_col = c;
        }
      }
      if (member_col.empty() || owner_col.empty()) continue;
      layout.kind = ToManyLayout::Kind::JoinTable;
      layout.join_table = table;
      layout.member_column = member_col;
      layout.owner_column = owner_col;
      std::string fok = "Z_FOK_" + member_col.substr(2);
      layout.order_column = ordered.value_or(true) && has_column(table, fok) ? fok : std::string();
      return remember(layout, "");
    }
  }

  // A to-one column in the members' table that holds the owners' keys. Without a model the inverse's
  // name is unknown: take columns that are no attribute, ranked by the evidence that they are keys of
  // the owner entity, and check their values.
  std::set<std::string> attribute_columns;
  for (const auto& a : hints.member_attributes) attribute_columns.insert(core_data_column_name(a));
  if (model_) {
    for (std::int64_t n : member_related) {
      const StoreEntity* e = entity(n);
      if (!e) continue;
      if (auto it = model_->attributes.find(e->name); it != model_->attributes.end()) {
        for (const auto& a : it->second) attribute_columns.insert(core_data_column_name(a));
      }
    }
  }
  const std::vector<std::string> columns = columns_of(member->table);
  struct Candidate {
    std::string column;
    int rank;
  };
  std::vector<Candidate> candidates;
  for (const auto& c : columns) {
    if (c.size() < 2 || c[0] != 'Z' || !std::isalpha(static_cast<unsigned char>(c[1]))) continue;
    if (attribute_columns.count(c) || !integer_columns_.count(member->table + "." + c)) continue;
    const std::string base = c.substr(1);
    int rank = 0;
    for (std::int64_t n : owner_related) {
      if (has_column(member->table, "Z" + std::to_string(n) + "_" + base)) rank = std::max(rank, 8);
    }
    if (!inverse_upper.empty() && base == inverse_upper) rank = std::max(rank, 8);
    for (std::size_t i = 0; i < hints.inverse_names.size(); ++i) {
      if (upper(hints.inverse_names[i]) == base) rank = std::max(rank, 4);
    }
    if (indexes_.count(member->table + "_" + c + "_INDEX")) rank = std::max(rank, 2) + 1;
    if (rank > 0) candidates.push_back({c, rank});
  }
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const Candidate& a, const Candidate& b) { return a.rank > b.rank; });
  // A column whose keys all name owners wins over one that holds no key at all (which proves nothing).
  const std::string* vacuous = nullptr;
  for (const auto& cand : candidates) {
    const int verdict = points_to(*member, cand.column, *owner);
    if (verdict == 2) return remember(foreign_key_layout(cand.column), "");
    if (verdict == 1 && !vacuous) vacuous = &cand.column;
  }
  if (vacuous) return remember(foreign_key_layout(*vacuous), "");
  return remember(std::nullopt, "no column or join table holds " + std::string(owner_name) + "." +
                                    std::string(relationship));
}

std::string CoreDataStore::member_counts_sql(const ToManyLayout& l) {
  // When the members' table holds nothing but members, the count reads the key index alone.
  if (l.kind == ToManyLayout::Kind::ForeignKey) {
    return "SELECT " + quote_identifier(l.foreign_key) + " AS owner_key, COUNT(*) AS member_count FROM " +
           quote_identifier(l.member_table) + " WHERE " + quote_identifier(l.foreign_key) + " IS NOT NULL" +
           (l.member_is_root ? "" : " AND Z_ENT IN " + l.member_family) + " GROUP BY " +
           quote_identifier(l.foreign_key);
  }
  if (l.member_is_root) {
    return "SELECT " + quote_identifier(l.owner_column) + " AS owner_key, COUNT(*) AS member_count FROM " +
           quote_identifier(l.join_table) + " GROUP BY " + quote_identifier(l.owner_column);
  }
  return "SELECT j." + quote_identifier(l.owner_column) + " AS owner_key, COUNT(*) AS member_count FROM " +
         quote_identifier(l.join_table) + " j JOIN " + quote_identifier(l.member_table) + " m ON m.Z_PK = j." +
         quote_identifier(l.member_column) + " WHERE m.Z_ENT IN " + l.member_family + " GROUP BY j." +
         quote_identifier(l.owner_column);
}

std::string CoreDataStore::members_sql(const ToManyLayout& l, const std::vector<std::string>& columns) {
  std::string sql = "SELECT m.Z_PK, m.Z_ENT";
  for (const auto& c : columns) sql += ", m." + quote_identifier(c);
  // Unordered relationships have no order of their own: members come by ascending Z_PK.
  if (l.kind == ToManyLayout::Kind::ForeignKey) {
    sql += " FROM " + quote_identifier(l.member_table) + " m WHERE m." + quote_identifier(l.foreign_key) + " = ?1 AND m.Z_ENT IN " +
           l.member_family + " ORDER BY ";
    if (!l.order_column.empty()) sql += "m." + quote_identifier(l.order_column) + ", ";
  } else {
    sql += " FROM " + quote_identifier(l.join_table) + " j JOIN " + quote_identifier(l.member_table) + " m ON m.Z_PK = j." +
           quote_identifier(l.member_column) + " WHERE j." + quote_identifier(l.owner_column) + " = ?1 AND m.Z_ENT IN " +
           l.member_family + " ORDER BY ";
    if (!l.order_column.empty()) sql += "j." + quote_identifier(l.order_column) + ", ";
  }
  return sql + "m.Z_PK";
}

Result<StoreQuery> CoreDataStore::prepare(const std::string& sql, bool cache) const {
  StoreQuery q;
  if (cache) {
    auto& slot = statements_[sql];
    if (!slot) slot = std::make_unique<CachedStatement>();
    if (!slot->in_use) {
      if (!slot->stmt) {
        sqlite3_stmt* raw = nullptr;
        if (sqlite3_prepare_v2(db_.get(), sql.c_str(), static_cast<int>(sql.size()), &raw, nullptr) != SQLITE_OK) {
          sqlite3_finalize(raw);
          return Error{last_error()};
        }
        slot->stmt.reset(raw);
      }
      slot->in_use = true;
      q.stmt_ = slot->stmt.get();
      q.in_use_ = &slot->in_use;
      return q;
    }
    // Already in use further up the stack: a statement of its own.
  }
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db_.get(), sql.c_str(), static_cast<int>(sql.size()), &raw, nullptr) != SQLITE_OK) {
    sqlite3_finalize(raw);
    return Error{last_error()};
  }
  q.owned_.reset(raw);
  q.stmt_ = raw;
  return q;
}

void CoreDataStore::release_cache() const {
  if (db_) sqlite3_db_release_memory(db_.get());
}

std::string CoreDataStore::last_error() const { return db_ ? sqlite3_errmsg(db_.get()) : "no connection"; }

Ref<Object> CoreDataStore::value(sqlite3_stmt* stmt, int column, AttributeKind kind) {
  const int type = sqlite3_column_type(stmt, column);
  if (type == SQLITE_NULL) return nullptr;
  switch (kind) {
    case AttributeKind::String: {
      const unsigned char* text = sqlite3_column_text(stmt, column);
      if (!text) return nullptr;
      return str(std::string_view(reinterpret_cast<const char*>(text),
                                  static_cast<std::size_t>(sqlite3_column_bytes(stmt, column))));
    }
    case AttributeKind::Integer:
      if (type == SQLITE_BLOB) return nullptr;
      return num(sqlite3_column_int64(stmt, column));
    case AttributeKind::Real:
      if (type == SQLITE_BLOB) return nullptr;
      return real(sqlite3_column_double(stmt, column));
    case AttributeKind::Date:
      // Seconds since 2001-01-01 UTC, as Core Data stores a date.
      if (type != SQLITE_INTEGER && type != SQLITE_FLOAT) return nullptr;
      return date(sqlite3_column_double(stmt, column));
    case AttributeKind::Binary: {
      if (type != SQLITE_BLOB && type != SQLITE_TEXT) return nullptr;
      const void* bytes = sqlite3_column_blob(stmt, column);
      const auto size = static_cast<std::size_t>(sqlite3_column_bytes(stmt, column));
      return data(std::string_view(bytes ? static_cast<const char*>(bytes) : "", size));
    }
  }
  return nullptr;
}

}  // namespace orvia
