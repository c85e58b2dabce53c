// The values the old client kept: media records, sidebar trees as keyed archives, and its preferences.
#include <cmath>
#include <string>
#include <unordered_map>

#include "platform/keyed_archive.h"
#include "tools/sample_plan.h"

namespace orvia::tools {

namespace {

const std::vector<std::string> kMediaCaptions = {
    "Golden hour at the lake", "Morgenkaffee ☕", "東京の夜", "Best café in town", "No filter needed",
    "Sunday walk", "Throwback", "Can't wait to go back!", "Zürich in the snow ❄️", "Fête de la musique",
    "Weekend vibes", "Quiet streets", "Über den Wolken", "Old town, new light", "🌊🌊🌊",
    "Line 2: \"quoted\" & <tagged>", "multi\nline caption", ""};

const std::vector<std::string> kMediaTags = {"sunset", "zürich", "東京", "café", "travel", "bw", "nofilter",
                                             "autumn", "food", "streetphotography", "🌅", "snow"};

const std::vector<std::string> kPosterNames = {"anna.berg", "jonas_k", "zoë.laurent", "mateo.garcía",
                                               "yuki.tanaka", "søren.n", "jürgen.müller", "chloé.d",
                                               "li.wang", "amélie_photo", "noah.nyc", "東京カメラ"};

std::string code_text(Rng& rng, int n) {
  static const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
  std::string s;
  for (int i = 0; i < n; ++i) s.push_back(alphabet[rng.below(64)]);
  return s;
}

std::string digit_text(Rng& rng, int n) {
  std::string s(1, static_cast<char>('1' + rng.below(9)));
  for (int i = 1; i < n; ++i) s.push_back(static_cast<char>('0' + rng.below(10)));
  return s;
}

Ref<Dictionary> image_entry(const std::string& url, std::int64_t w, std::int64_t h) {
  return dict({{"url", str(url)}, {"width", num(w)}, {"height", num(h)}});
}

struct Poster {
  std::string id, username, full_name, picture;
};

// Who posted a media item: often one of the favourite friends, else one of a few other users.
Poster poster_for(const Plan& plan, Rng& rng) {
  if (!plan.friends.empty() && rng.chance(0.5)) {
    const FriendPlan& f = plan.friends[rng.below(plan.friends.size())];
    return {f.uid, f.name, f.name, f.image_url};
  }
  std::size_t i = rng.below(kPosterNames.size());
  Rng own(mix_seed(plan.seed, 500 + i));
  Poster p;
  p.id = digit_text(own, 8);
  p.username = kPosterNames[i];
  p.full_name = rng.chance(0.2) ? "" : kPosterNames[i];
  p.picture = "https://photos.example/u/" + p.id + "/avatar.jpg";
  return p;
}

Ref<Dictionary> user_dict(const Poster& p) {
  return dict({{"username", str(p.username)},
                {"profile_picture", str(p.picture)},
                {"id", str(p.id)},
                {"full_name", str(p.full_name)}});
}

}  // namespace

std::string media_id(const Plan& plan, const MediaPlan& item) {
  Rng rng(mix_seed(plan.seed, 1000 + static_cast<std::uint64_t>(item.pk)));
  std::string head = digit_text(rng, 19);
  Poster poster = poster_for(plan, rng);
  return head + "_" + poster.id;
}

Ref<Dictionary> media_record(const Plan& plan, const MediaPlan& item) {
  // The same stream as media_id, read in the same order first.
  Rng rng(mix_seed(plan.seed, 1000 + static_cast<std::uint64_t>(item.pk)));
  std::string head = digit_text(rng, 19);
  Poster poster = poster_for(plan, rng);
  const std::string id = head + "_" + poster.id;

  // The rarer forms: forced on the first items, so every store shows each of them.
  const std::int64_t pk = item.pk;
  const double r = rng.unit();
  const bool no_caption = pk == 1 || (pk > 8 && r < 0.04);
  const bool null_caption = pk == 2 || (pk > 8 && r >= 0.04 && r < 0.07);
  const bool no_counts = pk == 3 || (pk > 8 && rng.chance(0.03));
  const bool trailing_slash = pk == 5 || (pk > 8 && rng.chance(0.03));
  const bool no_liked = pk == 8 || (pk > 8 && rng.chance(0.01));
  const double loc = rng.unit();
  const int location_form = pk == 6 ? 1 : pk == 7 ? 2 : (loc < 0.4 ? 2 : loc < 0.9 ? 1 : 0);  // 0 absent, 1 null, 2 dict

  const std::int64_t created = plan.base_unix + static_cast<std::int64_t>(rng.below(3 * 365 * 86400));
  const std::string code = code_text(rng, 10);
  const std::string base_url = "https://photos.example/m/" + code_text(rng, 12);
  const std::int64_t height = rng.chance(0.2) ? 800 : 640;

  auto record = make<Dictionary>(true);
  record->set("attribution", Null::shared());
  auto tags = array();
  for (std::uint64_t n = rng.below(4); n > 0; --n) tags->push_back(str(kMediaTags[rng.below(kMediaTags.size())]));
  record->set("tags", tags);
  record->set("type", str(item.video ? "video" : "image"));
  if (location_form == 1) {
    record->set("location", Null::shared());
  } else if (location_form == 2) {
    record->set("location", dict({{"latitude", real(47.0 + rng.unit())},
                                  {"name", str(rng.chance(0.5) ? "Zürich" : "東京")},
                                  {"longitude", real(8.0 + rng.unit())},
                                  {"id", num(static_cast<std::int64_t>(rng.between(100000, 99999999)))}}));
  }
  if (!no_counts) record->set("comments", dict({{"count", num(rng.between(0, 120))}}));
  record->set("filter", str(rng.chance(0.6) ? "Normal" : "Valencia"));
  record->set("created_time", str(std::to_string(created)));
  record->set("link", str("https://photos.example/p/" + code + (trailing_slash ? "/" : "")));
  if (!no_counts) record->set("likes", dict({{"count", num(rng.between(0, 5000))}}));
  record->set("images", dict({{"low_resolution", image_entry(base_url + "_a.jpg", 320, height / 2)},
                              {"thumbnail", image_entry(base_url + "_s.jpg", 150, 150)},
                              {"standard_resolution", image_entry(base_url + "_n.jpg", 640, height)}}));
  record->set("users_in_photo", array());
  if (null_caption) {
    record->set("caption", Null::shared());
  } else if (!no_caption) {
    record->set("caption", dict({{"created_time", str(std::to_string(created + static_cast<std::int64_t>(rng.below(120))))},
                                 {"text", str(kMediaCaptions[rng.below(kMediaCaptions.size())])},
                                 {"from", user_dict(poster)},
                                 {"id", str(digit_text(rng, 17))}}));
  }
  if (!no_liked) record->set("user_has_liked", boolean(rng.chance(0.2)));
  record->set("id", str(id));
  record->set("user", user_dict(poster));
  if (item.video) {
    const std::string video = "https://photos.example/v/" + code_text(rng, 12);
    record->set("videos", dict({{"low_bandwidth", image_entry(video + "_101.mp4", 480, 480)},
                                {"standard_resolution", image_entry(video + "_102.mp4", 640, 640)},
                                {"low_resolution", image_entry(video + "_103.mp4", 480, 480)}}));
  }
  return record;
}

Result<std::string> archive_sidebar(const SidebarTree& tree) {
  // The items link both ways (parent and children): a heap of their own frees them afterwards.
  Heap heap;
  HeapScope scope(heap);
  std::vector<Ref<GenericRecord>> items;
  items.reserve(tree.nodes.size());
  // The old client used one constant string per base identifier: the archive holds each once.
  std::unordered_map<std::string, Ref<Object>> constants;
  for (const char* id : {kFriendsFolder, kAlbumsFolder, kTagsFolder, kLocationsFolder}) constants[id] = str(id);
  auto text = [&](const std::string& s) -> Ref<Object> {
    if (s.empty()) return nullptr;
    auto it = constants.find(s);
    return it != constants.end() ? it->second : Ref<Object>(str(s));
  };
  for (const SidebarNode& n : tree.nodes) {
    auto item = make<GenericRecord>(std::vector<std::string>{"OutlineFolderItem", "NSObject"});
    auto& f = item->mutable_fields();
    f.push_back({"title", text(n.title), false});
    f.push_back({"identifier", text(n.identifier), false});
    f.push_back({"parent", nullptr, false});
    f.push_back({"children", mutable_array(), false});
    f.push_back({"type", text(n.type), false});
    f.push_back({"folder", boolean(n.folder), true});
    f.push_back({"expanded", boolean(n.expanded), true});
    f.push_back({"level", num(n.level), true});
    items.push_back(std::move(item));
  }
  for (std::size_t i = 0; i < tree.nodes.size(); ++i) {
    const SidebarNode& n = tree.nodes[i];
    auto& f = items[i]->mutable_fields();
    if (n.parent >= 0) f[2].value = items[static_cast<std::size_t>(n.parent)];
    auto* children = as_array(f[3].value.get());
    for (int c : n.children) children->push_back(items[static_cast<std::size_t>(c)]);
  }
  std::string bytes = archive_root(items.front().get());
  if (bytes.empty()) return Error{"the sidebar tree of " + tree.user + " could not be archived"};
  return bytes;
}

Result<Ref<Dictionary>> preferences_dictionary(const Plan& plan) {
  auto prefs = make<Dictionary>(true);
  prefs->set("NSWindow Frame MainWindow", str("120 96 1180 820 0 0 1440 877 "));
  prefs->set("FinishedStartScreen410x", boolean(true));
  prefs->set("SUHasLaunchedBefore", boolean(true));

  auto models = make<Dictionary>(true);
  for (const SidebarTree& tree : plan.trees) {
    auto bytes = archive_sidebar(tree);
    if (!bytes) return bytes.error();
    models->set(tree.user, orvia::data(bytes.value()));
  }
  prefs->set("OutlineFolderModels", models);

  auto blacklist = make<Dictionary>(true);
  for (const auto& [uid, name] : plan.blacklist) blacklist->set(uid, str(name));
  prefs->set("kUserBlacklistKey", blacklist);

  auto tokens = make<Dictionary>(true), pictures = make<Dictionary>(true), expiry = make<Dictionary>(true);
  for (const AccountPlan& a : plan.accounts) {
    tokens->set(a.uid, str(a.token));
    pictures->set(a.uid, str(a.picture_url));
    expiry->set(a.uid, date(a.expiry));
  }
  prefs->set("UserAccountsT", tokens);
  prefs->set("UserAccountsI", pictures);
  prefs->set("UserAccountsE", expiry);
  prefs->set("WZAlbumsOrderIndex", num(plan.albums_order));
  prefs->set("WZFavoriteFriendsOrderIndex", num(plan.friends_order));
  prefs->set("IGLastSelectedAccount", str(plan.accounts.front().uid));

  auto sidebar_tags = make<Dictionary>(true), sidebar_locations = make<Dictionary>(true);
  for (const AccountPlan& a : plan.accounts) {
    auto tags = mutable_array();
    for (const TagPlan& t : a.tags) {
      auto entry = mutable_dict({{"tag", str(t.tag)}});
      if (t.count_form == TagPlan::CountForm::Integer) entry->set("count", num(t.count));
      if (t.count_form == TagPlan::CountForm::String) entry->set("count", str(std::to_string(t.count)));
      tags->push_back(entry);
    }
    sidebar_tags->set(a.uid, tags);
    auto locations = mutable_array();
    for (const LocationPlan& l : a.locations)
      locations->push_back(dict({{"id", str(l.id)},
                                 {"latitude", real(l.latitude)},
                                 {"longitude", real(l.longitude)},
                                 {"name", str(l.name)}}));
    sidebar_locations->set(a.uid, locations);
  }
  prefs->set("FavoriteSidebarTags", sidebar_tags);
  prefs->set("FavoriteSidebarLocations", sidebar_locations);

  auto plain_tags = array();
  for (const std::string& t : plan.plain_tags) plain_tags->push_back(str(t));
  prefs->set("IGFavouriteTags", plain_tags);
  auto plain_locations = array();
  for (const LocationPlan& l : plan.plain_locations)
    plain_locations->push_back(dict({{"id", str(l.id)},
                                     {"latitude", real(l.latitude)},
                                     {"longitude", real(l.longitude)},
                                     {"name", str(l.name)}}));
  prefs->set("IGFavouriteLocations", plain_locations);
  return prefs;
}

}  // namespace orvia::tools
