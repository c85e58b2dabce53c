#include "tools/sample_plan.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <string_view>
#include <unordered_set>

namespace orvia::tools {

namespace {

// What a profile holds at scale 1. Friends, tags and locations are per account; albums and media
// belong to no account.
struct ProfileShape {
  int accounts;
  std::int64_t albums, media, friends, tags, locations;
  std::int64_t folders;         // sub-folders per category of each account's tree
  std::int64_t max_folder_level;  // sub-folders lie at levels 1..max, entries one deeper at most
  std::int64_t shared_albums, shared_folders;
  std::int64_t blacklist, plain_tags, plain_locations;
  double filed;        // share of favourites filed into the sidebar
  double empty_albums; // share of albums without media
  std::int64_t smart_lists;
  double videos;
  std::int64_t deleted_albums;
  bool missing_statistics;  // the last account has no statistics database
  bool stale_tree;          // "OutlineFolderModels" also holds the tree of an account removed since
  double renamed;           // share of album entries whose sidebar title is an older name
  std::int64_t albums_order, friends_order;
};

constexpr ProfileShape kDemo{2, 10, 50, 12, 12, 12, 3, 2, 7, 3, 2, 4, 2, 0.75, 0.1, 1, 0.1, 1,
                            false, false, 0.0, 0, 0};
constexpr ProfileShape kTypical{3, 100, 5000, 300, 300, 300, 40, 4, 70, 15, 12, 25, 10, 0.85, 0.02, 3,
                               0.08, 2, true, true, 0.02, 1, 1};
constexpr ProfileShape kHeavy{5, 2000, 200000, 5000, 5000, 5000, 1200, 5, 1500, 300, 60, 200, 100, 0.9,
                             0.01, 10, 0.08, 2, true, true, 0.02, 2, 2};

const std::vector<std::string> kTagWords = {
    "sunset", "zürich", "東京", "café", "🌅", "mountains", "streetphotography", "bw", "coffee",
    "travel", "beach", "nofilter", "autumn", "snow", "architecture", "food", "münchen", "paris",
    "fête", "naïve", "kyōto", "øresund", "straße", "portrait", "nature", "reykjavík", "🍜ramen",
    "city", "night", "bridge", "sea", "forest", "lake", "flowers", "macro", "cats", "dogs", "music",
    "art", "vintage", "film", "35mm", "minimal", "sky", "clouds", "rain", "summer", "winter",
    "spring", "garden", "market", "train", "bicycle", "harbour", "island", "desert", "canyon",
    "サクラ", "北京", "açaí", "crème", "señor", "ελλάδα", "москва", "☕", "🌊surf"};

// Tags that only ever appear unfiled: letter case kept, so the sidebar never names them.
const std::vector<std::string> kCapitalTags = {"NYC", "BlackAndWhite", "TBT", "InstaGood", "LA",
                                               "Berlin", "OOTD", "Zürich", "DailyPic", "GoldenHour"};

struct Place {
  const char* name;
  double lat, lon;
};
const std::vector<Place> kPlaces = {
    {"Zürich HB", 47.3782, 8.5402},           {"東京タワー", 35.6586, 139.7454},
    {"Café de Flore", 48.8541, 2.3326},       {"São Paulo", -23.5505, -46.6333},
    {"Kölner Dom", 50.9413, 6.9583},          {"🗽 Liberty Island", 40.6892, -74.0445},
    {"Reykjavík", 64.1466, -21.9426},         {"Kraków Old Town", 50.0614, 19.9366},
    {"Golden Gate Bridge", 37.8199, -122.4783}, {"Brandenburger Tor", 52.5163, 13.3777},
    {"Plaza Mayor", 40.4155, -3.7074},        {"Shibuya Crossing", 35.6595, 139.7005},
    {"Sydney Opera House", -33.8568, 151.2153}, {"Piazza San Marco", 45.4341, 12.3388},
    {"Nyhavn", 55.6798, 12.5907},             {"Montréal", 45.5017, -73.5673},
    {"Malmö", 55.6050, 13.0038},              {"Île de la Cité", 48.8546, 2.3477},
    {"Cape Town", -33.9249, 18.4241},         {"Zermatt", 46.0207, 7.7491},
    {"北京 故宫", 39.9163, 116.3972},           {"Αθήνα Acropolis", 37.9715, 23.7257},
    {"Central Park", 40.7829, -73.9654},      {"Ponte Vecchio", 43.7680, 11.2531}};

const std::vector<std::string> kFirstNames = {
    "anna", "jonas", "zoë", "mateo", "yuki", "søren", "jürgen", "chloé", "li", "amélie", "noah",
    "emma", "luca", "maja", "olga", "ravi", "sofia", "tomás", "elif", "kenji", "ines", "paul",
    "frida", "marta", "hana", "ida", "leo", "nina", "omar", "sara"};
const std::vector<std::string> kLastNames = {
    "berg", "könig", "laurent", "garcía", "tanaka", "nielsen", "müller", "dubois", "wang", "rossi",
    "meyer", "sato", "novak", "silva", "kowalski", "haddad", "olsen", "ferreira", "ivanova", "park"};
const std::vector<std::string> kHandleSuffixes = {"", ".photo", "_k", ".travels", "_shots", ".nyc",
                                                  "_東京", ".film", "_art", "☀"};

const std::vector<std::string> kAlbumWords = {
    "Zürich 2014", "東京 trip", "Café mornings", "🌊 Beach days", "Family", "Street", "Mountains",
    "Autumn walks", "Best of 2013", "Someday", "Wedding", "Road trip", "Kyōto", "Night lights",
    "Architecture", "Food", "Garden", "Friends", "Portraits", "Black & white", "Winter", "Summer",
    "München", "Paris", "Reykjavík", "Inspiration", "Later", "archive", "favourites", "b-sides"};

const std::vector<std::string> kFolderWords = {
    "Travel", "Family", "Friends", "Zürich", "東京", "Café hopping", "🌄 Favourites", "Work", "2014",
    "2015", "Archive", "best of", "B-roll", "Inspiration", "Later", "Europe", "Asia", "Food",
    "Photographers", "Locals", "Städte", "Été", "Misc", "old", "New", "Folder 9", "Folder 10"};

std::int64_t scaled(std::int64_t n, double scale) {
  if (n <= 0) return 0;
  return std::max<std::int64_t>(1, std::llround(static_cast<double>(n) * scale));
}

std::string digits(Rng& rng, int count) {
  std::string s;
  s.push_back(static_cast<char>('1' + rng.below(9)));
  for (int i = 1; i < count; ++i) s.push_back(static_cast<char>('0' + rng.below(10)));
  return s;
}

std::string hex(Rng& rng, int count) {
  static const char* h = "0123456789abcdef";
  std::string s;
  for (int i = 0; i < count; ++i) s.push_back(h[rng.below(16)]);
  return s;
}

// Texts from a pool, unique; once the pool is used up, pool entries with a number appended.
class UniqueNames {
 public:
  UniqueNames(const std::vector<std::string>& pool, Rng& rng, std::string joiner = " ")
      : pool_(pool), joiner_(std::move(joiner)) {
    order_.resize(pool.size());
    for (std::size_t i = 0; i < order_.size(); ++i) order_[i] = i;
    rng.shuffle(order_);
  }
  std::string next(Rng& rng) {
    for (;;) {
      std::string s;
      if (used_ < order_.size()) {
        s = pool_[order_[used_++]];
      } else {
        s = pool_[rng.below(pool_.size())] + joiner_ + std::to_string(rng.between(2, 9999));
      }
      if (seen_.insert(s).second) return s;
    }
  }
  bool taken(const std::string& s) const { return seen_.count(s) != 0; }
  void reserve(const std::string& s) { seen_.insert(s); }

 private:
  const std::vector<std::string>& pool_;
  std::string joiner_;
  std::vector<std::size_t> order_;
  std::size_t used_ = 0;
  std::unordered_set<std::string> seen_;
};

std::string capitalized_words(const std::string& handle) {
  // "anna.berg" -> "Anna Berg" (ASCII letters only change case; others stay).
  std::string out;
  bool start = true;
  for (char c : handle) {
    if (c == '.' || c == '_') {
      out.push_back(' ');
      start = true;
      continue;
    }
    if (start && c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    out.push_back(c);
    start = false;
  }
  return out;
}

// Builds one category of a sidebar tree below `base`: `folders` sub-folders at levels 1..max_level,
// then the entries spread over the base folder and the sub-folders.
void grow_category(SidebarTree& tree, int base, const std::string& category, std::int64_t folders,
                   std::int64_t max_level, const std::vector<std::pair<std::string, std::string>>& entries,
                   Rng& rng, double expanded_share) {
  auto add = [&](int parent, SidebarNode node) {
    node.parent = parent;
    node.type = category;
    node.level = tree.nodes[parent].level + 1;
    tree.nodes.push_back(std::move(node));
    int index = static_cast<int>(tree.nodes.size() - 1);
    tree.nodes[parent].children.push_back(index);
    return index;
  };
  std::vector<int> holders{base};           // folders that can take entries
  std::vector<std::vector<int>> by_depth{{base}};  // folders by depth below the base folder
  UniqueNames titles(kFolderWords, rng);
  for (std::int64_t i = 0; i < folders; ++i) {
    // A depth first, then a folder there: every level gets about as many folders, so the trees
    // are deep as well as wide.
    std::size_t depth = rng.below(std::min<std::size_t>(by_depth.size(), static_cast<std::size_t>(max_level)));
    int parent = by_depth[depth][rng.below(by_depth[depth].size())];
    SidebarNode folder;
    folder.title = titles.next(rng);
    folder.identifier = "folder-" + random_uuid(rng);
    folder.folder = true;
    folder.expanded = rng.chance(expanded_share);
    int index = add(parent, std::move(folder));
    holders.push_back(index);
    if (depth + 1 >= by_depth.size()) by_depth.emplace_back();
    by_depth[depth + 1].push_back(index);
  }
  for (const auto& [title, identifier] : entries) {
    SidebarNode leaf;
    leaf.title = title;
    leaf.identifier = identifier;
    add(holders[rng.below(holders.size())], std::move(leaf));
  }
  // Folders and entries were made over time, in no particular order.
  for (int holder : holders) rng.shuffle(tree.nodes[holder].children);
}

// The favourites of one category that get filed: a random selection of `share`, never all of them
// when there are two or more (some favourites always stay unfiled).
std::vector<std::size_t> filed_selection(std::size_t n, double share, Rng& rng) {
  std::vector<std::size_t> all(n);
  for (std::size_t i = 0; i < n; ++i) all[i] = i;
  rng.shuffle(all);
  std::size_t k = static_cast<std::size_t>(std::llround(static_cast<double>(n) * share));
  if (n >= 2 && k >= n) k = n - 1;
  all.resize(k);
  return all;
}

int add_base(SidebarTree& tree, int root, const char* identifier, bool expanded) {
  SidebarNode base;
  base.title = identifier;  // the old client named its base folders by their identifiers
  base.identifier = identifier;
  base.type = identifier;
  base.folder = true;
  base.expanded = expanded;
  base.level = 0;
  base.parent = root;
  tree.nodes.push_back(std::move(base));
  int index = static_cast<int>(tree.nodes.size() - 1);
  if (root >= 0) tree.nodes[root].children.push_back(index);
  return index;
}

SidebarTree new_tree(std::string user) {
  SidebarTree tree;
  tree.user = std::move(user);
  SidebarNode root;
  root.title = "Root";
  root.identifier = "root";
  root.folder = true;
  root.expanded = true;
  tree.nodes.push_back(std::move(root));
  return tree;
}

}  // namespace

std::uint64_t mix_seed(std::uint64_t seed, std::uint64_t stream) {
  Rng r(seed ^ (stream * 0xD6E8FEB86659FD93ull));
  r.next();
  return r.next();
}

std::string random_uuid(Rng& rng) {
  static const char* h = "0123456789ABCDEF";
  std::uint64_t a = rng.next(), b = rng.next();
  a = (a & ~0xF000ull) | 0x4000ull;                    // version 4
  b = (b & 0x3FFFFFFFFFFFFFFFull) | 0x8000000000000000ull;  // variant 10
  std::string s;
  for (int i = 15; i >= 0; --i) {
    s.push_back(h[(a >> (i * 4)) & 0xF]);
    if (i == 8 || i == 4) s.push_back('-');
  }
  s.push_back('-');
  for (int i = 15; i >= 0; --i) {
    s.push_back(h[(b >> (i * 4)) & 0xF]);
    if (i == 12) s.push_back('-');
  }
  return s;
}

std::string Plan::album_uri(const AlbumPlan& a) const {
  return "x-coredata://" + store_uuid + (a.smart ? "/SmartImageList/p" : "/ImageList/p") + std::to_string(a.pk);
}

std::string Plan::friend_uri(std::int64_t pk) const {
  return "x-coredata://" + store_uuid + "/Friend/p" + std::to_string(pk);
}

Plan make_plan(const SampleOptions& options) {
  const ProfileShape& shape = options.profile == Profile::Demo      ? kDemo
                            : options.profile == Profile::Typical ? kTypical
                                                                  : kHeavy;
  const double k = options.scale;
  const bool demo = options.profile == Profile::Demo;
  Plan plan;
  plan.profile = options.profile;
  plan.seed = options.seed;
  Rng rng(mix_seed(options.seed, 1));
  plan.store_uuid = random_uuid(rng);
  // The history starts on a day of 2013 that the seed picks, at midnight UTC.
  plan.base_unix = 1356998400 + static_cast<std::int64_t>(options.seed % 365) * 86400;
  const double base2001 = static_cast<double>(plan.base_unix - kUnixTo2001);
  const double three_years = 3 * 365 * 86400.0;
  plan.albums_order = shape.albums_order;
  plan.friends_order = shape.friends_order;

  // Accounts.
  std::unordered_set<std::string> handles;
  auto new_handle = [&](Rng& r) {
    for (;;) {
      std::string h = r.pick(kFirstNames) + (r.chance(0.6) ? "." + r.pick(kLastNames) : "") + r.pick(kHandleSuffixes);
      // Demo names stay readable: numbers only where the plain names run out.
      if (handles.size() > 2000 || (!demo && r.chance(0.3)) || handles.count(h)) h += std::to_string(r.between(1, 999));
      if (handles.insert(h).second) return h;
    }
  };
  for (int i = 0; i < shape.accounts; ++i) {
    AccountPlan a;
    a.pk = i + 1;
    a.uid = digits(rng, 9);
    a.name = new_handle(rng);
    a.full_name = capitalized_words(a.name);
    a.token = a.uid + "." + hex(rng, 7) + "." + hex(rng, 32);
    a.picture_url = "https://photos.example/u/" + a.uid + "/profile_" + hex(rng, 8) + ".jpg";
    a.expiry = base2001 + three_years + 60 * 86400.0 + static_cast<double>(rng.below(86400));
    a.has_statistics = !(shape.missing_statistics && i == shape.accounts - 1);
    plan.accounts.push_back(std::move(a));
  }

  // Favourite friends, per account; primary keys follow the order in which they were added.
  const std::int64_t friends_per_account = scaled(shape.friends, k);
  struct Pending {
    std::size_t account;
    double added;
  };
  std::vector<Pending> pending;
  for (std::size_t a = 0; a < plan.accounts.size(); ++a)
    for (std::int64_t j = 0; j < friends_per_account; ++j)
      pending.push_back({a, base2001 + rng.unit() * three_years});
  std::stable_sort(pending.begin(), pending.end(), [](const Pending& x, const Pending& y) { return x.added < y.added; });
  std::vector<std::vector<std::string>> names_by_account(plan.accounts.size());
  for (const Pending& p : pending) {
    FriendPlan f;
    f.pk = static_cast<std::int64_t>(plan.friends.size()) + 1;
    f.account = p.account;
    f.added = p.added;
    f.uid = digits(rng, static_cast<int>(rng.between(6, 10)));
    auto& names = names_by_account[p.account];
    // A few favourites share a name (another person with the same handle on a renamed account).
    f.name = (!demo && !names.empty() && rng.chance(0.02)) ? rng.pick(names) : new_handle(rng);
    names.push_back(f.name);
    f.image_url = "https://photos.example/u/" + f.uid + "/avatar_" + hex(rng, 6) + ".jpg";
    f.unread = rng.chance(0.4) ? 0 : rng.between(1, demo ? 20 : 300);
    f.has_media_count = demo || !rng.chance(0.03);
    f.media_count = rng.between(1, 5000);
    if (rng.chance(0.3)) {
      f.image = std::string("\x89PNG\r\n\x1a\n", 8);
      for (int b = 0; b < 24; ++b) f.image.push_back(static_cast<char>(rng.below(256)));
    }
    plan.accounts[p.account].friends.push_back(plan.friends.size());
    plan.friends.push_back(std::move(f));
  }

  // Favourite tags and locations, per account.
  const std::int64_t tags_per_account = scaled(shape.tags, k);
  const std::int64_t locations_per_account = scaled(shape.locations, k);
  for (AccountPlan& a : plan.accounts) {
    UniqueNames tags(kTagWords, rng, "");
    for (std::int64_t j = 0; j < tags_per_account; ++j) {
      TagPlan t;
      t.tag = tags.next(rng);
      t.count = rng.between(1, 50000);
      if (!demo) {
        double r = rng.unit();
        t.count_form = r < 0.05 ? TagPlan::CountForm::String : r < 0.08 ? TagPlan::CountForm::Missing
                                                                        : TagPlan::CountForm::Integer;
      }
      a.tags.push_back(std::move(t));
    }
    std::set<std::string> ids;
    for (std::int64_t j = 0; j < locations_per_account; ++j) {
      const Place& p = kPlaces[rng.below(kPlaces.size())];
      LocationPlan l;
      do l.id = digits(rng, static_cast<int>(rng.between(5, 9)));
      while (!ids.insert(l.id).second);
      l.name = j < static_cast<std::int64_t>(kPlaces.size()) ? kPlaces[j].name : p.name;
      const Place& base = j < static_cast<std::int64_t>(kPlaces.size()) ? kPlaces[j] : p;
      l.latitude = std::round((base.lat + (rng.unit() - 0.5) * 0.02) * 1e6) / 1e6;
      l.longitude = std::round((base.lon + (rng.unit() - 0.5) * 0.02) * 1e6) / 1e6;
      a.locations.push_back(std::move(l));
    }
  }
  // A few unfiled tags written with capitals (the sidebar only ever names lower-case tags).
  if (!demo) {
    for (AccountPlan& a : plan.accounts) {
      std::set<std::string> have;
      for (const auto& t : a.tags) have.insert(t.tag);
      for (std::size_t c = 0; c < std::min<std::size_t>(3, a.tags.size()); ++c) {
        std::string name = rng.pick(kCapitalTags);
        if (have.insert(name).second) a.tags.push_back({name, rng.between(1, 900), TagPlan::CountForm::Integer});
      }
    }
  }

  // Albums: primary keys with gaps where albums were deleted (never the last key).
  const std::int64_t albums = scaled(shape.albums, k);
  const std::int64_t deleted = std::min<std::int64_t>(shape.deleted_albums, albums);
  std::set<std::int64_t> deleted_pks;
  while (static_cast<std::int64_t>(deleted_pks.size()) < deleted)
    deleted_pks.insert(rng.between(1, albums + deleted - 1));
  {
    UniqueNames titles(kAlbumWords, rng);
    std::int64_t pk = 0;
    for (std::int64_t j = 0; j < albums; ++j) {
      do ++pk;
      while (deleted_pks.count(pk));
      AlbumPlan al;
      al.pk = pk;
      al.title = titles.next(rng);
      al.created = base2001 + rng.unit() * three_years;
      plan.albums.push_back(std::move(al));
    }
    plan.album_max_pk = pk;
  }
  {
    std::vector<std::size_t> order(plan.albums.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    rng.shuffle(order);
    std::int64_t smart = std::min<std::int64_t>(scaled(shape.smart_lists, k), albums);
    for (std::int64_t s = 0; s < smart; ++s) {
      AlbumPlan& al = plan.albums[order[s]];
      al.smart = true;
      al.query = "tag:" + plan.accounts[0].tags[rng.below(plan.accounts[0].tags.size())].tag;
    }
  }

  // Media: how many each album holds, then primary keys handed out in the order the media arrived.
  const std::int64_t media = scaled(shape.media, k);
  {
    std::vector<double> weight(plan.albums.size());
    double total = 0;
    for (double& w : weight) {
      w = rng.chance(shape.empty_albums) ? 0.0 : 0.2 + rng.unit() * 1.8;
      total += w;
    }
    if (total == 0) {
      weight[0] = 1;
      total = 1;
    }
    std::vector<std::int64_t> counts(weight.size());
    std::int64_t given = 0;
    for (std::size_t i = 0; i < weight.size(); ++i) {
      counts[i] = static_cast<std::int64_t>(std::floor(weight[i] / total * static_cast<double>(media)));
      given += counts[i];
    }
    for (std::size_t i = 0; given < media; i = (i + 1) % weight.size())
      if (weight[i] > 0) ++counts[i], ++given;
    std::vector<std::size_t> arrival;
    arrival.reserve(static_cast<std::size_t>(media));
    for (std::size_t i = 0; i < counts.size(); ++i) arrival.insert(arrival.end(), static_cast<std::size_t>(counts[i]), i);
    rng.shuffle(arrival);
    plan.media.reserve(arrival.size());
    for (std::size_t i = 0; i < arrival.size(); ++i) {
      MediaPlan m;
      m.pk = static_cast<std::int64_t>(i) + 1;
      m.album = arrival[i];
      // The first items always show the rarer forms, whatever the seed (see media_record).
      m.video = m.pk == 4 || (m.pk > 8 && rng.chance(shape.videos));
      if (!plan.friends.empty() && rng.chance(0.05)) m.unread_by = plan.friends[rng.below(plan.friends.size())].pk;
      plan.albums[m.album].members.push_back(i);
      plan.media.push_back(m);
    }
    // The user's order inside an album: mostly as the media arrived, with some moved by hand.
    for (AlbumPlan& al : plan.albums) {
      auto& mem = al.members;
      for (std::size_t swaps = mem.size() / 4; swaps > 0; --swaps) std::swap(mem[rng.below(mem.size())], mem[rng.below(mem.size())]);
    }
  }

  // Preferences-only data.
  for (std::int64_t j = 0, n = scaled(shape.blacklist, k); j < n; ++j)
    plan.blacklist.emplace_back(digits(rng, static_cast<int>(rng.between(6, 10))), new_handle(rng));
  {
    const auto& own = plan.accounts[0].tags;
    std::set<std::string> seen;
    for (std::int64_t j = 0, n = scaled(shape.plain_tags, k); j < n; ++j) {
      // The plain list predates the per-account lists: it shares some tags with them.
      std::string t = rng.chance(0.4) && !own.empty() ? own[rng.below(own.size())].tag
                      : rng.chance(0.15)               ? rng.pick(kCapitalTags)
                                                       : rng.pick(kTagWords) + (j >= 20 ? std::to_string(j) : "");
      if (seen.insert(t).second) plan.plain_tags.push_back(t);
    }
    const auto& locs = plan.accounts[0].locations;
    for (std::int64_t j = 0, n = scaled(shape.plain_locations, k); j < n; ++j) {
      if (rng.chance(0.4) && !locs.empty()) {
        plan.plain_locations.push_back(locs[rng.below(locs.size())]);
      } else {
        const Place& p = rng.pick(kPlaces);
        plan.plain_locations.push_back({digits(rng, 8), p.name, p.lat, p.lon});
      }
    }
  }

  // Sidebar trees, one per account.
  const std::int64_t folders = demo ? shape.folders : scaled(shape.folders, k);
  const double expanded_share = demo ? 0.6 : 0.3;
  for (std::size_t ai = 0; ai < plan.accounts.size(); ++ai) {
    const AccountPlan& a = plan.accounts[ai];
    SidebarTree tree = new_tree(a.uid);
    int friends = add_base(tree, 0, kFriendsFolder, true);
    int albums_base = add_base(tree, 0, kAlbumsFolder, rng.chance(0.5));
    int tags = add_base(tree, 0, kTagsFolder, true);
    int locations = add_base(tree, 0, kLocationsFolder, rng.chance(0.5));

    std::vector<std::pair<std::string, std::string>> entries;
    for (std::size_t i : filed_selection(a.friends.size(), shape.filed, rng)) {
      const FriendPlan& f = plan.friends[a.friends[i]];
      entries.emplace_back(f.name, "fa-" + plan.friend_uri(f.pk));
    }
    // A favourite of another account: this account's sidebar knows no such friend any more.
    const AccountPlan& other = plan.accounts[(ai + 1) % plan.accounts.size()];
    if (&other != &a && !other.friends.empty()) {
      const FriendPlan& f = plan.friends[other.friends[rng.below(other.friends.size())]];
      entries.emplace_back(f.name, "fa-" + plan.friend_uri(f.pk));
    }
    rng.shuffle(entries);
    grow_category(tree, friends, kFriendsFolder, folders, shape.max_folder_level, entries, rng, expanded_share);

    entries.clear();
    for (std::size_t i : filed_selection(plan.albums.size(), 0.8, rng))
      entries.emplace_back(plan.albums[i].title, "ff-" + plan.album_uri(plan.albums[i]));
    rng.shuffle(entries);
    grow_category(tree, albums_base, kAlbumsFolder, folders, shape.max_folder_level, entries, rng, expanded_share);

    entries.clear();
    std::vector<std::size_t> lower;  // tags written in lower case only can be filed
    for (std::size_t i = 0; i < a.tags.size(); ++i)
      if (std::none_of(a.tags[i].tag.begin(), a.tags[i].tag.end(), [](char c) { return c >= 'A' && c <= 'Z'; }))
        lower.push_back(i);
    for (std::size_t i : filed_selection(lower.size(), shape.filed, rng))
      entries.emplace_back(a.tags[lower[i]].tag, "favtag-" + a.tags[lower[i]].tag);
    rng.shuffle(entries);
    grow_category(tree, tags, kTagsFolder, folders, shape.max_folder_level, entries, rng, expanded_share);

    entries.clear();
    for (std::size_t i : filed_selection(a.locations.size(), shape.filed, rng))
      entries.emplace_back(a.locations[i].name, "location-" + a.locations[i].id);
    rng.shuffle(entries);
    grow_category(tree, locations, kLocationsFolder, folders, shape.max_folder_level, entries, rng, expanded_share);
    plan.trees.push_back(std::move(tree));
  }

  // The tree of an account that was removed from the old client: its sidebar stayed behind.
  if (shape.stale_tree) {
    SidebarTree tree = new_tree(digits(rng, 9));
    add_base(tree, 0, kFriendsFolder, true);
    int tags = add_base(tree, 0, kTagsFolder, false);
    add_base(tree, 0, kLocationsFolder, false);
    std::vector<std::pair<std::string, std::string>> entries;
    for (int j = 0; j < 5; ++j) {
      std::string t = rng.pick(kTagWords);
      entries.emplace_back(t, "favtag-" + t);
    }
    grow_category(tree, tags, kTagsFolder, 2, 2, entries, rng, 0.5);
    plan.trees.push_back(std::move(tree));
  }

  // The albums tree that all accounts share.
  {
    SidebarTree tree;
    tree.user = kSharedAlbumsUser;
    add_base(tree, -1, kAlbumsFolder, true);
    std::vector<std::pair<std::string, std::string>> entries;
    std::int64_t filed = std::min<std::int64_t>(scaled(shape.shared_albums, k), albums);
    if (albums >= 2 && filed >= albums) filed = albums - 1;
    std::vector<std::size_t> order(plan.albums.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    rng.shuffle(order);
    for (std::int64_t j = 0; j < filed; ++j) {
      const AlbumPlan& al = plan.albums[order[j]];
      // Some entries keep the name the album had when it was filed.
      std::string title = rng.chance(shape.renamed) ? al.title + " (old)" : al.title;
      entries.emplace_back(title, "ff-" + plan.album_uri(al));
    }
    // Albums deleted from the store after they were filed.
    for (std::int64_t pk : deleted_pks)
      entries.emplace_back(demo ? "Deleted trip" : "Deleted album " + std::to_string(pk),
                           "ff-x-coredata://" + plan.store_uuid + "/ImageList/p" + std::to_string(pk));
    rng.shuffle(entries);
    std::int64_t shared_folders = demo ? shape.shared_folders : scaled(shape.shared_folders, k);
    grow_category(tree, 0, kAlbumsFolder, shared_folders, shape.max_folder_level, entries, rng, expanded_share);
    plan.trees.push_back(std::move(tree));
  }
  return plan;
}

}  // namespace orvia::tools
