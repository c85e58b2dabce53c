// A small legacy installation of the old client for tests: a temporary folder that stands for a home
// folder, holding what the old client left there — its preferences file (binary property list, with
// the sidebar trees as keyed archives of OutlineFolderItem), its Core Data store (a real SQLite file
// in Core Data's layout) and the per-account statistics databases.
//
//   LegacyHome home;                                   // marker "FinishedStartScreen410x" set
//   auto account = home.store().add_account("1001", "ann");
//   auto root = sidebar_root();
//   auto tags = add_base_folder(*root, kFolderTagsIdentifier);
//   add_entry(*tags, "sunset", favtag_id("Sunset"));
//   home.set_sidebar("1001", root);
//   home.set_in("FavoriteSidebarTags", "1001", array({dict({{"tag", str("sunset")}})}));
//   auto store = home.attach();                        // writes everything, attaches as the service does
//   (or home.write() and point an importer at home.home())
//
// Binaries that use it link orvia_legacy and orvia_outline (orvia_nodes and orvia_service bring both).
#pragma once

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "legacy/core_data_wrapper.h"
#include "legacy/user_defaults_wrapper.h"
#include "outline/outline_folder_item.h"
#include "platform/result.h"
#include "platform/value.h"
#include "support/support.h"

namespace orvia::test {

inline constexpr std::string_view kLegacyBundleID = "com.brenvik.velmora";
inline constexpr std::string_view kSharedAlbumsUser = "*--*albums*--*";

// ---- sidebar trees ----------------------------------------------------------------------------------

// Identifiers of sidebar entries as the old client formed them.
std::string favtag_id(std::string_view tag);        // "favtag-" + the tag lower-cased (ASCII letters)
std::string location_id(std::string_view id);       // "location-" + the id as stored
std::string album_id(std::string_view object_uri);   // "ff-" + the album's object URI
std::string friend_id(std::string_view object_uri);  // "fa-" + the favourite user's object URI

// The root of a tree: title "Root", identifier "root", a folder without type.
Ref<OutlineFolderItem> sidebar_root();
// A base folder appended to `root`: its identifier is also its title and type; level 0.
Ref<OutlineFolderItem> add_base_folder(OutlineFolderItem& root, std::string_view identifier);
// A sub-folder appended to `parent`: the parent's type and level + 1; identifier "folder-<title>"
// unless given.
Ref<OutlineFolderItem> add_folder(OutlineFolderItem& parent, std::string_view title, std::string_view identifier = {});
// A leaf entry appended to `folder`, of the folder's type unless `type` is given. Every item made here
// has its parent link set.
Ref<OutlineFolderItem> add_entry(OutlineFolderItem& folder, std::string_view title, std::string_view identifier,
                                 std::optional<std::string_view> type = std::nullopt);

// ---- media records ------------------------------------------------------------------------------------

// A media record in the photo service's older form (what the store's ImageItem.dictionary holds):
// "id", "link", "type", "caption" {id, text, created_time, from {id, username}}, "images"
// {standard_resolution, low_resolution {url}}, "likes" {count}, "comments" {count}, "user" {id,
// username, full_name, profile_picture}, "user_has_liked"; "videos" only for a video.
Ref<Dictionary> older_media(std::string_view id, std::string_view link, std::string_view caption = "a caption",
                            std::string_view username = "ann", bool video = false);
// The keyed archive of a record (NSDictionary, as the old client stored it).
std::string media_archive(const Dictionary& record);

// ---- Core Data store ----------------------------------------------------------------------------------

// A Core Data store of the model "InstaGram" written with SQLite: system tables, one upper-case store
// UUID, and the tables ZACCOUNT, ZFRIEND, ZIMAGEITEM, ZIMAGELIST (entities numbered alphabetically:
// Account 1, Friend 2, ImageItem 3, ImageList 4). Every add_* inserts one row (Z_OPT 1, Z_MAX kept)
// and returns its Z_PK. Rows are visible to readers once close() has run; a later add reopens.
class LegacyStore {
 public:
  static constexpr std::string_view kDefaultUUID = "6B1E4C0A-2F3D-4A5B-9C8D-7E6F5A4B3C2D";
  enum Entity : int { kAccount = 1, kFriend = 2, kImageItem = 3, kImageList = 4 };

  struct FriendRow {
    std::optional<std::string> uid = {}, name = {}, image_url = {};
    std::optional<double> added = {};  // seconds since 2001
    std::optional<std::int64_t> unread_count = {}, media_count = {};
    std::optional<std::int64_t> account = {};  // Z_PK of the account, none for a favourite of no account
  };

  explicit LegacyStore(std::filesystem::path file, std::string uuid = std::string(kDefaultUUID));
  ~LegacyStore();
  LegacyStore(const LegacyStore&) = delete;
  LegacyStore& operator=(const LegacyStore&) = delete;

  // "x-coredata://<UUID>/<Entity>/p<pk>"
  std::string uri(Entity entity, std::int64_t pk) const;

  std::int64_t add_account(std::optional<std::string> uid, std::optional<std::string> name);
  std::int64_t add_friend(const FriendRow& row);
  std::int64_t add_album(std::optional<std::string> title, std::optional<double> created = std::nullopt);
  // A member of `album` holding `dictionary` (a keyed archive; none for NULL).
  std::int64_t add_image(std::int64_t album, std::optional<std::string> dictionary,
                         std::optional<std::string> media_id = std::nullopt);

  // Creates the file with its tables unless it exists (add_* does this on its own).
  void open();
  // Finishes the file (checkpointed, no -wal left) so that a reader sees every row.
  void close();
  // Runs SQL on the store (opening it first), e.g. to damage it on purpose.
  void exec(const std::string& sql);

 private:
  struct Blob {
    std::string bytes;
  };
  using Value = std::variant<std::monostate, std::int64_t, double, std::string, Blob>;
  static std::string literal(const Value& v);
  void run(const std::string& sql);
  std::int64_t insert(Entity entity, const std::string& table, const std::vector<std::string>& columns,
                      const std::vector<Value>& values);

  std::filesystem::path file_;
  std::string uuid_;
  sqlite3* db_ = nullptr;
  std::int64_t next_pk_[5] = {0, 1, 1, 1, 1};
};

// ---- the installation -----------------------------------------------------------------------------------

class LegacyHome {
 public:
  // An empty home with the install marker "FinishedStartScreen410x" (true) in its preferences.
  LegacyHome();

  const std::filesystem::path& path() const { return dir_.path(); }
  std::string home() const { return dir_.path().string(); }
  std::filesystem::path container() const;  // <home>/Library/Containers/com.brenvik.velmora/Data
  std::filesystem::path preferences_file() const;
  std::filesystem::path store_file() const;
  std::filesystem::path statistics_file(std::string_view uid) const;

  LegacyHome& set(std::string_view key, Ref<Object> value);
  LegacyHome& remove(std::string_view key);
  // preferences[key][subkey] = value, making preferences[key] a mutable dictionary when it is none
  // (per-account lists, "UserAccountsI", "kUserBlacklistKey").
  LegacyHome& set_in(std::string_view key, std::string_view subkey, Ref<Object> value);
  // The keyed archive of `tree` under "OutlineFolderModels" for a user id or "*--*albums*--*".
  LegacyHome& set_sidebar(std::string_view user, const Ref<OutlineFolderItem>& tree);

  // Writes the preferences file (binary property list; a new file each time).
  void write_preferences();
  // A statistics database for the account (a small SQLite file).
  std::filesystem::path add_statistics(std::string_view uid);

  // The preferences reader of this home, as the service makes it.
  Ref<MQUserDefaultsWrapper> defaults() const;
  // The store at store_file(), made on first use.
  LegacyStore& store();
  // Writes the preferences and finishes the store (made empty when nothing was added): the
  // installation as the old client left it, for runs that read the home themselves.
  void write();
  // write(), then attaches the store through MQCoreDataWrapper::initWithStorePath with defaults(), as
  // the service does; an Error when that fails or takes more than a minute.
  Result<Ref<MQCoreDataWrapper>> attach();

 private:
  TempDir dir_;
  Ref<Dictionary> prefs_;
  std::optional<LegacyStore> store_;
};

}  // namespace orvia::test
