#include "support/legacy_home.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "platform/queue.h"

namespace fs = std::filesystem;

namespace orvia::test {

// ---- sidebar trees

std::string favtag_id(std::string_view tag) {
  std::string id = "favtag-";
  for (char c : tag) id.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
  return id;
}
std::string location_id(std::string_view id) { return "location-" + std::string(id); }
std::string album_id(std::string_view object_uri) { return "ff-" + std::string(object_uri); }
std::string friend_id(std::string_view object_uri) { return "fa-" + std::string(object_uri); }

namespace {

Ref<OutlineFolderItem> append(OutlineFolderItem& parent, Ref<OutlineFolderItem> item) {
  item->parent = Ref<Object>(&parent);
  if (Array* list = parent.childList()) list->push_back(item);
  return item;
}

}  // namespace

Ref<OutlineFolderItem> sidebar_root() { return OutlineFolderItem::folderItemWithTitle("Root", "root"); }

Ref<OutlineFolderItem> add_base_folder(OutlineFolderItem& root, std::string_view identifier) {
  auto folder = OutlineFolderItem::folderItemWithTitle(identifier, identifier);
  folder->type = str(identifier);
  return append(root, folder);
}

Ref<OutlineFolderItem> add_folder(OutlineFolderItem& parent, std::string_view title, std::string_view identifier) {
  auto folder = OutlineFolderItem::folderItemWithTitle(
      title, identifier.empty() ? "folder-" + std::string(title) : std::string(identifier));
  folder->type = parent.type;
  folder->level = parent.level + 1;
  return append(parent, folder);
}

Ref<OutlineFolderItem> add_entry(OutlineFolderItem& folder, std::string_view title, std::string_view identifier,
                                 std::optional<std::string_view> type) {
  auto entry = OutlineFolderItem::init();
  entry->title = str(title);
  entry->identifier = str(identifier);
  entry->type = type ? Ref<Object>(str(*type)) : folder.type;
  entry->level = folder.level + 1;
  return append(folder, entry);
}

// ---- media records

Ref<Dictionary> older_media(std::string_view id, std::string_view link, std::string_view caption,
                            std::string_view username, bool video) {
  auto user = dict({{"id", str("77")},
                    {"username", str(username)},
                    {"full_name", str("Ann Example")},
                    {"profile_picture", str("https://img.example/ann.jpg")}});
  auto record = mutable_dict({
      {"id", str(id)},
      {"link", str(link)},
      {"type", str(video ? "video" : "image")},
      {"caption", dict({{"id", str("900")},
                        {"text", str(caption)},
                        {"created_time", str("1400000000")},
                        {"from", dict({{"id", str("77")}, {"username", str(username)}})}})},
      {"images", dict({{"standard_resolution", dict({{"url", str("https://img.example/s/" + std::string(id))}})},
                       {"low_resolution", dict({{"url", str("https://img.example/l/" + std::string(id))}})}})},
      {"likes", dict({{"count", num(12)}})},
      {"comments", dict({{"count", num(3)}})},
      {"user", user},
      {"user_has_liked", boolean(false)},
  });
  if (video) record->set("videos", dict({{"standard_resolution", dict({{"url", str("https://vid.example/1")}})}}));
  return record;
}

std::string media_archive(const Dictionary& record) { return archive_root(&record); }

// ---- Core Data store

LegacyStore::LegacyStore(fs::path file, std::string uuid) : file_(std::move(file)), uuid_(std::move(uuid)) {}

LegacyStore::~LegacyStore() { close(); }

std::string LegacyStore::uri(Entity entity, std::int64_t pk) const {
  static constexpr std::string_view kNames[] = {"", "Account", "Friend", "ImageItem", "ImageList"};
  return "x-coredata://" + uuid_ + "/" + std::string(kNames[entity]) + "/p" + std::to_string(pk);
}

// A value as SQL text: NULL, a number, or the bytes of a string or blob in hex.
std::string LegacyStore::literal(const Value& v) {
  if (auto* x = std::get_if<std::int64_t>(&v)) return std::to_string(*x);
  if (auto* d = std::get_if<double>(&v)) return fmt::format("{:.17g}", *d);
  const std::string* bytes = std::get_if<std::string>(&v);
  if (auto* b = std::get_if<Blob>(&v)) bytes = &b->bytes;
  if (!bytes) return "NULL";
  std::string hex;
  for (unsigned char c : *bytes) hex += fmt::format("{:02X}", c);
  return std::holds_alternative<Blob>(v) ? "X'" + hex + "'" : "CAST(X'" + hex + "' AS TEXT)";
}

void LegacyStore::exec(const std::string& sql) {
  open();
  run(sql);
}

void LegacyStore::run(const std::string& sql) {
  char* err = nullptr;
  if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK)
    ADD_FAILURE() << "SQL failed: " << (err ? err : "?") << "\n" << sql;
  sqlite3_free(err);
}

void LegacyStore::open() {
  if (db_) return;
  const bool fresh = !fs::exists(file_);
  fs::create_directories(file_.parent_path());
  if (sqlite3_open(file_.c_str(), &db_) != SQLITE_OK) {
    ADD_FAILURE() << "cannot open " << file_ << ": " << sqlite3_errmsg(db_);
    sqlite3_close_v2(db_);
    db_ = nullptr;
    return;
  }
  run("PRAGMA synchronous = OFF");  // a test file needs no durability
  if (!fresh) return;
  // The system tables exactly as Core Data writes them; entity tables as the model lays them out.
  run("PRAGMA page_size = 4096; PRAGMA auto_vacuum = 2; PRAGMA journal_mode = WAL;"
       "CREATE TABLE ZACCOUNT ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZNAME VARCHAR, ZUID VARCHAR );"
       "CREATE TABLE ZFRIEND ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZMEDIACOUNT INTEGER, "
       "ZUNREADCOUNT INTEGER, ZACCOUNT INTEGER, ZADDED TIMESTAMP, ZIMAGEURL VARCHAR, ZNAME VARCHAR, ZUID VARCHAR, "
       "ZIMAGE BLOB );"
       "CREATE INDEX ZFRIEND_ZACCOUNT_INDEX ON ZFRIEND (ZACCOUNT);"
       "CREATE TABLE ZIMAGEITEM ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZLIST INTEGER, "
       "ZMEDIAID VARCHAR, ZDICTIONARY BLOB );"
       "CREATE INDEX ZIMAGEITEM_ZLIST_INDEX ON ZIMAGEITEM (ZLIST);"
       "CREATE TABLE ZIMAGELIST ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZCREATED TIMESTAMP, "
       "ZTITLE VARCHAR );"
       "CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_NAME VARCHAR, Z_SUPER INTEGER, Z_MAX INTEGER);"
       "CREATE TABLE Z_METADATA (Z_VERSION INTEGER PRIMARY KEY, Z_UUID VARCHAR(255), Z_PLIST BLOB);"
       "INSERT INTO Z_PRIMARYKEY VALUES (1, 'Account', 0, 0), (2, 'Friend', 0, 0), (3, 'ImageItem', 0, 0), "
       "(4, 'ImageList', 0, 0);");
  auto hashes = mutable_dict();
  for (const char* name : {"Account", "Friend", "ImageItem", "ImageList"})
    hashes->set(name, orvia::data(std::string(32, static_cast<char>(name[0]))));
  auto metadata = write_binary_plist(dict({{"NSPersistenceFrameworkVersion", num(866)},
                                           {"NSStoreModelVersionHashes", hashes},
                                           {"NSStoreModelVersionHashesVersion", num(3)},
                                           {"NSStoreModelVersionIdentifiers", array({str("")})},
                                           {"NSStoreType", str("SQLite")},
                                           {"_NSAutoVacuumLevel", str("2")}})
                                         .get());
  run("INSERT INTO Z_METADATA VALUES (1, " + literal(uuid_) + ", " + literal(Blob{metadata.ok() ? metadata.value() : ""}) + ")");
}

void LegacyStore::close() {
  if (db_) sqlite3_close_v2(db_);  // the last connection checkpoints and removes the -wal
  db_ = nullptr;
}

std::int64_t LegacyStore::insert(Entity entity, const std::string& table, const std::vector<std::string>& columns,
                                 const std::vector<Value>& values) {
  open();
  const std::int64_t pk = next_pk_[entity]++;
  std::string names = "Z_PK, Z_ENT, Z_OPT", row = std::to_string(pk) + ", " + std::to_string(entity) + ", 1";
  for (std::size_t i = 0; i < columns.size(); ++i) names += ", " + columns[i], row += ", " + literal(values[i]);
  run("INSERT INTO " + table + " (" + names + ") VALUES (" + row + ")");
  run("UPDATE Z_PRIMARYKEY SET Z_MAX = " + std::to_string(pk) + " WHERE Z_ENT = " + std::to_string(entity));
  return pk;
}

std::int64_t LegacyStore::add_account(std::optional<std::string> uid, std::optional<std::string> name) {
  auto text = [](const std::optional<std::string>& s) -> Value { return s ? Value(*s) : Value(); };
  return insert(kAccount, "ZACCOUNT", {"ZUID", "ZNAME"}, {text(uid), text(name)});
}

std::int64_t LegacyStore::add_friend(const FriendRow& row) {
  auto text = [](const std::optional<std::string>& s) -> Value { return s ? Value(*s) : Value(); };
  auto integer = [](const std::optional<std::int64_t>& i) -> Value { return i ? Value(*i) : Value(); };
  return insert(kFriend, "ZFRIEND",
                {"ZUID", "ZNAME", "ZIMAGEURL", "ZADDED", "ZMEDIACOUNT", "ZUNREADCOUNT", "ZACCOUNT"},
                {text(row.uid), text(row.name), text(row.image_url), row.added ? Value(*row.added) : Value(),
                 integer(row.media_count), integer(row.unread_count), integer(row.account)});
}

std::int64_t LegacyStore::add_album(std::optional<std::string> title, std::optional<double> created) {
  return insert(kImageList, "ZIMAGELIST", {"ZTITLE", "ZCREATED"},
                {title ? Value(*title) : Value(), created ? Value(*created) : Value()});
}

std::int64_t LegacyStore::add_image(std::int64_t album, std::optional<std::string> dictionary,
                                    std::optional<std::string> media_id) {
  return insert(kImageItem, "ZIMAGEITEM", {"ZLIST", "ZDICTIONARY", "ZMEDIAID"},
                {Value(album), dictionary ? Value(Blob{*dictionary}) : Value(), media_id ? Value(*media_id) : Value()});
}

// ---- the installation

LegacyHome::LegacyHome() : prefs_(mutable_dict()) { prefs_->set("FinishedStartScreen410x", boolean(true)); }

fs::path LegacyHome::container() const {
  return path() / "Library/Containers" / std::string(kLegacyBundleID) / "Data";
}
fs::path LegacyHome::preferences_file() const {
  return container() / "Library/Preferences" / (std::string(kLegacyBundleID) + ".plist");
}
fs::path LegacyHome::store_file() const {
  return container() / "Library/Application Support/Velmora/InstaGramStore.db";
}
fs::path LegacyHome::statistics_file(std::string_view uid) const {
  return container() / "Library/Application Support/Velmora" / (std::string(uid) + ".db");
}

LegacyHome& LegacyHome::set(std::string_view key, Ref<Object> value) {
  prefs_->set(key, std::move(value));
  return *this;
}

LegacyHome& LegacyHome::remove(std::string_view key) {
  prefs_->remove(key);
  return *this;
}

LegacyHome& LegacyHome::set_in(std::string_view key, std::string_view subkey, Ref<Object> value) {
  Dictionary* inner = as_dict(prefs_->get(key));
  if (!inner) {
    auto made = mutable_dict();
    prefs_->set(key, made);
    inner = made.get();
  }
  inner->set(subkey, std::move(value));
  return *this;
}

LegacyHome& LegacyHome::set_sidebar(std::string_view user, const Ref<OutlineFolderItem>& tree) {
  return set_in("OutlineFolderModels", user, orvia::data(archive_root(tree.get())));
}

void LegacyHome::write_preferences() {
  auto bytes = write_binary_plist(prefs_.get());
  ASSERT_TRUE(bytes.ok()) << bytes.error().message;
  const fs::path file = preferences_file();
  fs::create_directories(file.parent_path());
  const fs::path fresh = file.string() + ".new";  // a new file each time, as the old client saved
  write_file(fresh, bytes.value());
  fs::rename(fresh, file);
}

fs::path LegacyHome::add_statistics(std::string_view uid) {
  const fs::path file = statistics_file(uid);
  fs::create_directories(file.parent_path());
  sqlite3* db = nullptr;
  if (sqlite3_open(file.c_str(), &db) == SQLITE_OK)
    sqlite3_exec(db, "CREATE TABLE statistics (day INTEGER PRIMARY KEY, followers INTEGER)", nullptr, nullptr, nullptr);
  sqlite3_close_v2(db);
  return file;
}

Ref<MQUserDefaultsWrapper> LegacyHome::defaults() const {
  return MQUserDefaultsWrapper::initWithBundleID(kLegacyBundleID, home());
}

LegacyStore& LegacyHome::store() {
  if (!store_) store_.emplace(store_file());
  return *store_;
}

void LegacyHome::write() {
  write_preferences();
  store().open();  // an installation without rows still has its store
  store().close();
}

Result<Ref<MQCoreDataWrapper>> LegacyHome::attach() {
  write();
  // Attaches as the service does, serving the main queue until the completion or the failure block ran.
  auto outcome = std::make_shared<std::atomic<int>>(0);  // 1 attached, 2 failed
  Ref<MQCoreDataWrapper> wrapper = MQCoreDataWrapper::initWithStorePath(
      store_file().string(), [outcome] { outcome->store(1); }, defaults(), [outcome] { outcome->store(2); });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (outcome->load() == 0 && std::chrono::steady_clock::now() < deadline)
    MainQueue::shared().drain(std::chrono::milliseconds(50));
  if (outcome->load() == 1) return wrapper;
  return Error{outcome->load() == 2 ? "the store could not be attached" : "attaching timed out"};
}

}  // namespace orvia::test
