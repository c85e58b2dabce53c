// The plan of a sample installation: every account, favourite, album, media item and sidebar tree,
// decided from the seed before any file is written. The writers (store, preferences, archives) only
// turn the plan into bytes, so the data do not depend on the store layout chosen.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/object.h"
#include "platform/value.h"
#include "tools/sample_home.h"

namespace orvia::tools {

// splitmix64: small, fast and the same everywhere.
class Rng {
 public:
  explicit Rng(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  // Uniform in [0, n); 0 when n is 0.
  std::uint64_t below(std::uint64_t n) { return n ? next() % n : 0; }
  std::int64_t between(std::int64_t lo, std::int64_t hi) {  // inclusive
    return lo + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(hi - lo + 1)));
  }
  double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  bool chance(double p) { return unit() < p; }
  template <class T>
  const T& pick(const std::vector<T>& v) { return v[below(v.size())]; }
  template <class T>
  void shuffle(std::vector<T>& v) {
    for (std::size_t i = v.size(); i > 1; --i) std::swap(v[i - 1], v[below(i)]);
  }

 private:
  std::uint64_t state_;
};

// A seed for an independent stream, from the run's seed and a stream number.
std::uint64_t mix_seed(std::uint64_t seed, std::uint64_t stream);

// Upper-case 8-4-4-4-12 text of a random (version 4) UUID.
std::string random_uuid(Rng& rng);

inline constexpr const char* kBundleID = "com.brenvik.velmora";
inline constexpr const char* kFriendsFolder = "com.brenvik.velmora.folderFavFriendIdentifier";
inline constexpr const char* kAlbumsFolder = "com.brenvik.velmora.folderAlbumsIdentifier";
inline constexpr const char* kTagsFolder = "com.brenvik.velmora.folderTagsIdentifier";
inline constexpr const char* kLocationsFolder = "com.brenvik.velmora.folderLocationsIdentifier";
inline constexpr const char* kSharedAlbumsUser = "*--*albums*--*";

// Seconds between 1970-01-01 and 2001-01-01 (Core Data and property-list dates count from 2001).
inline constexpr std::int64_t kUnixTo2001 = 978307200;

// Entity numbers of the store: roots alphabetically, each sub-entity right after its parent.
enum Entity : int {
  kEntAccount = 1,
  kEntFriend = 2,
  kEntImageItem = 3,
  kEntVideoItem = 4,  // sub-entity of ImageItem
  kEntImageList = 5,
  kEntSmartImageList = 6,  // sub-entity of ImageList
};

struct TagPlan {
  std::string tag;
  std::int64_t count = 0;
  enum class CountForm { Integer, String, Missing } count_form = CountForm::Integer;
};

struct LocationPlan {
  std::string id;  // digits, kept as a string, as the photo service hands it out
  std::string name;
  double latitude = 0;
  double longitude = 0;
};

struct FriendPlan {
  std::int64_t pk = 0;
  std::size_t account = 0;
  std::string uid, name, image_url;
  double added = 0;  // since 2001
  std::int64_t unread = 0;
  bool has_media_count = true;
  std::int64_t media_count = 0;
  std::string image;  // small image bytes, or empty for NULL
};

struct AccountPlan {
  std::int64_t pk = 0;
  std::string uid, name, full_name, token, picture_url;
  double expiry = 0;  // since 2001
  bool has_statistics = true;
  std::vector<std::size_t> friends;  // into Plan::friends
  std::vector<TagPlan> tags;
  std::vector<LocationPlan> locations;
};

struct AlbumPlan {
  std::int64_t pk = 0;
  bool smart = false;
  std::string title, query;
  double created = 0;  // since 2001
  std::vector<std::size_t> members;  // into Plan::media, in the album's own (user) order
};

struct MediaPlan {
  std::int64_t pk = 0;
  std::size_t album = 0;
  bool video = false;
  std::int64_t unread_by = 0;  // Friend pk whose unread media this is, or 0
};

// One sidebar item, as the archive stores it.
struct SidebarNode {
  std::string title, identifier, type;  // empty type = none (the root)
  int parent = -1;                      // index in the tree, -1 for none
  std::vector<int> children;
  bool folder = false;
  bool expanded = false;
  std::int64_t level = 0;
};

// nodes[0] is the archive's root object.
struct SidebarTree {
  std::string user;  // key in "OutlineFolderModels"
  std::vector<SidebarNode> nodes;
};

struct Plan {
  Profile profile = Profile::Demo;
  std::uint64_t seed = 0;
  std::string store_uuid;
  std::int64_t base_unix = 0;  // the generated history starts here
  std::vector<AccountPlan> accounts;
  std::vector<FriendPlan> friends;
  std::vector<AlbumPlan> albums;  // in primary-key order
  std::int64_t album_max_pk = 0;
  std::vector<MediaPlan> media;   // in primary-key order, media[i].pk == i + 1
  std::vector<SidebarTree> trees;  // the accounts' trees (and a stale one), then the shared albums tree
  std::vector<std::pair<std::string, std::string>> blacklist;  // user id, user name
  std::vector<std::string> plain_tags;
  std::vector<LocationPlan> plain_locations;
  std::int64_t albums_order = 0;
  std::int64_t friends_order = 0;

  std::string album_uri(const AlbumPlan& a) const;
  std::string friend_uri(std::int64_t pk) const;
};

Plan make_plan(const SampleOptions& options);

// The media record of one item in the older interface's form (a dictionary), made afresh from the
// plan and the item's own random stream.
Ref<Dictionary> media_record(const Plan& plan, const MediaPlan& item);
std::string media_id(const Plan& plan, const MediaPlan& item);

// A keyed archive whose root object is the tree's first node; every item is an OutlineFolderItem.
Result<std::string> archive_sidebar(const SidebarTree& tree);

// The preferences dictionary, with the sidebar archives under "OutlineFolderModels".
Result<Ref<Dictionary>> preferences_dictionary(const Plan& plan);

// Writes the Core Data store at `path` (which must not exist).
Result<std::uint64_t> write_store(const Plan& plan, const SampleOptions& options, const std::filesystem::path& path);

// Writes one account's statistics database.
Result<bool> write_statistics(const Plan& plan, const AccountPlan& account, const std::filesystem::path& path);

}  // namespace orvia::tools
