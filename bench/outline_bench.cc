// Sidebar loading at scale: a preferences file whose "OutlineFolderModels" holds a user's tree and the
// shared albums folder, 100,000 items in all, loaded as one request does it (read the file, unarchive
// both entries, attach the albums folder, map every identifier) and asked for its identifiers.
//
//   BM_LoadMapAndListWideSidebar   100,000 items: base folders > 100-entry sub-folders
//   BM_LoadMapAndListDeepSidebar   100,000 sub-folders, each inside the one before
//   BM_MappingWalk                 the mapping walk alone, over the loaded 100,000-item tree
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "outline/outline_folder_model.h"
#include "platform/keyed_archive.h"
#include "platform/object.h"
#include "platform/plist.h"

namespace orvia {
namespace {

constexpr std::string_view kBundle = "com.brenvik.velmora";
constexpr std::string_view kUser = "1234";
constexpr int kItems = 100000;

Ref<OutlineFolderItem> add(const Ref<OutlineFolderItem>& parent, Ref<OutlineFolderItem> child) {
  child->parent = Ref<Object>(parent);
  parent->childList()->push_back(child);
  return child;
}

Ref<OutlineFolderItem> base(std::string_view id) {
  Ref<OutlineFolderItem> f = OutlineFolderItem::folderItemWithTitle(id, id);
  f->type = str(id);
  return f;
}

Ref<OutlineFolderItem> entry(const std::string& id, std::string_view type, std::uint64_t level) {
  Ref<OutlineFolderItem> e = OutlineFolderItem::folderItemWithTitle(str(id), str(id));
  e->folder = false;
  e->type = str(type);
  e->level = level;
  return e;
}

// Fills a base folder with `count` items: sub-folders of 100 entries each.
void fill(const Ref<OutlineFolderItem>& folder, std::string_view type, const std::string& prefix, int count) {
  Ref<OutlineFolderItem> sub;
  for (int i = 0; i < count; ++i) {
    if (i % 101 == 0) {
      const std::string n = std::to_string(i);
      sub = add(folder, OutlineFolderItem::folderItemWithTitle(str(prefix + "folder " + n), str(prefix + "folder-" + n)));
      sub->type = str(type);
      sub->level = 1;
      sub->expanded = true;
    } else {
      add(sub, entry(prefix + std::to_string(i), type, 2));
    }
  }
}

// A home folder under the temporary folder, with the preferences file written once per shape.
class Home {
 public:
  explicit Home(bool deep) {
    char pattern[] = "/tmp/outline-bench-XXXXXX";
    path_ = mkdtemp(pattern);
    Heap heap;
    HeapScope scope(heap);
    Ref<OutlineFolderItem> root = OutlineFolderItem::folderItemWithTitle("Root", "root");
    auto fav = add(root, base(kFolderFavFriendIdentifier));
    auto tags = add(root, base(kFolderTagsIdentifier));
    auto locations = add(root, base(kFolderLocationsIdentifier));
    Ref<OutlineFolderItem> albums = base(kFolderAlbumsIdentifier);
    if (deep) {
      Ref<OutlineFolderItem> at = tags;
      for (int i = 1; i < kItems; ++i) {
        const std::string n = std::to_string(i);
        at = add(at, OutlineFolderItem::folderItemWithTitle(str("f" + n), str("folder-" + n)));
        at->level = static_cast<std::uint64_t>(i);
      }
    } else {
      fill(fav, kFolderFavFriendIdentifier, "fa-", kItems / 4);
      fill(tags, kFolderTagsIdentifier, "favtag-", kItems / 4);
      fill(locations, kFolderLocationsIdentifier, "location-", kItems / 4);
      fill(albums, kFolderAlbumsIdentifier, "ff-x-coredata://5E1F/ImageList/p", kItems / 4);
    }
    Ref<Dictionary> models = mutable_dict();
    models->set(kUser, make<Data>(archive_root(root.get())));
    models->set(kSharedAlbumsUserID, make<Data>(archive_root(albums.get())));
    Ref<Dictionary> top = mutable_dict({{kOutlineFolderModels, models}});
    std::string id(kBundle);
    std::filesystem::path file = path_ / "Library/Containers" / id / "Data/Library/Preferences" / (id + ".plist");
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << write_binary_plist(top.get()).value();
    file_size_ = std::filesystem::file_size(file);
  }
  ~Home() { std::filesystem::remove_all(path_); }
  std::string path() const { return path_.string(); }
  std::uintmax_t file_size() const { return file_size_; }

 private:
  std::filesystem::path path_;
  std::uintmax_t file_size_ = 0;
};

void load_map_and_list(benchmark::State& state, bool deep) {
  Home home(deep);
  std::size_t identifiers = 0;
  for (auto _ : state) {
    Heap request;  // everything of one request, freed at its end (cycles included)
    HeapScope scope(request);
    Ref<OutlineFolderModel> model = OutlineFolderModel::initWithExistingUser(
        kUser, false, MQUserDefaultsWrapper::initWithBundleID(kBundle, home.path()));
    Ref<Array> ids = model->identifiers();
    identifiers = ids->size();
    benchmark::DoNotOptimize(ids.get());
  }
  state.counters["identifiers"] = static_cast<double>(identifiers);
  state.counters["file_bytes"] = static_cast<double>(home.file_size());
  state.counters["items/s"] = benchmark::Counter(static_cast<double>(identifiers), benchmark::Counter::kIsIterationInvariantRate);
}

void BM_LoadMapAndListWideSidebar(benchmark::State& state) { load_map_and_list(state, false); }
void BM_LoadMapAndListDeepSidebar(benchmark::State& state) { load_map_and_list(state, true); }

void BM_MappingWalk(benchmark::State& state) {
  Home home(false);
  Heap request;
  HeapScope scope(request);
  Ref<OutlineFolderModel> model = OutlineFolderModel::initWithExistingUser(
      kUser, false, MQUserDefaultsWrapper::initWithBundleID(kBundle, home.path()));
  for (auto _ : state) {
    OutlineFolderMapping table;
    recurFolderMapping(table, model->rootItem());
    benchmark::DoNotOptimize(table.size());
  }
}

BENCHMARK(BM_LoadMapAndListWideSidebar)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadMapAndListDeepSidebar)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MappingWalk)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace orvia

BENCHMARK_MAIN();
