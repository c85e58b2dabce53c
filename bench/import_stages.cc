// import_stages: one import of a home folder, run in this process stage by stage with the same library
// calls as the import run, overlapping where the run overlaps them, and timed per stage:
//
//   preferences + sidebar   the install check (reads the preferences) and the waits for the sidebar
//                           models (every account's and the shared albums model), which load on the
//                           run's helper thread beside the fetches and exports: their CPU shows in those
//                           stages' CPU, as the process's
//   store reads             attaching the store and the account, album and favourite fetches
//   export                  the folder tree exports of every account and of the shared albums model,
//                           with blocked users, account records and statistics nodes; album nodes get
//                           their media lists, which are read only when archived
//   archive writing         build_archive of the results, then its bytes written to the archive file on
//                           a thread of their own as the command writes its file (only counted without
//                           one), up to the last byte. Album media are read from the store, decoded and
//                           converted on a worker while the archive is built, so this stage's CPU is
//                           every thread's; archive-writing-main is the archiving thread's while it builds
//   teardown                releasing the request's objects (the request's heap ends), beside the write
//
// Stages that overlap count their time each, so they add up to more than the total.
// After the import, passes of their own over every album's media, on one thread:
//   media-rows              reading the stored records out of the store
//   media-conversion        the same plus converting each record (what the worker does)
//   media-decode            decoding each stored record whole (what converting would cost without
//                           reading only the values it takes)
//
// The reply is the one the import run makes (the script compares its bytes with orvia4-import's).
//
//   import_stages --home DIR [--archive-out FILE]
//
// Prints "stage <name> <wall seconds> <cpu seconds>" lines, then "info <key> <value>" lines. Log lines
// go to stderr, as the service's do.
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "legacy/core_data_wrapper.h"
#include "legacy/media_conversion.h"
#include "legacy/user_defaults_wrapper.h"
#include "nodes/folder_export.h"
#include "nodes/importer_context.h"
#include "outline/outline_folder_model.h"
#include "platform/file_writer.h"
#include "platform/keyed_archive.h"
#include "platform/log.h"
#include "platform/prefault.h"
#include "platform/queue.h"
#include "records/records.h"
#include "service/mq_orvia4_importer.h"
#include "service/sidebar_models.h"

namespace orvia {
namespace {

double cpu_now() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double thread_cpu_now() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double wall_now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Wall and CPU seconds per stage, summed over every interval charged to it.
class Stages {
 public:
  struct Totals {
    double wall = 0, cpu = 0;
  };
  class Interval {
   public:
    Interval(Stages& stages, const char* name) : stages_(stages), name_(name), wall_(wall_now()), cpu_(cpu_now()) {}
    ~Interval() {
      Totals& t = stages_.get(name_);
      t.wall += wall_now() - wall_;
      t.cpu += cpu_now() - cpu_;
    }
    Interval(const Interval&) = delete;
    Interval& operator=(const Interval&) = delete;

   private:
    Stages& stages_;
    const char* name_;
    double wall_, cpu_;
  };

  Totals& get(const char* name) {
    for (auto& [n, t] : order_)
      if (n == name) return t;
    order_.emplace_back(name, Totals{});
    return order_.back().second;
  }
  const std::vector<std::pair<std::string, Totals>>& all() const { return order_; }

 private:
  std::vector<std::pair<std::string, Totals>> order_;
};

constexpr const char* kPrefs = "preferences+sidebar";
constexpr const char* kStore = "store-reads";
constexpr const char* kExport = "export";
constexpr const char* kArchive = "archive-writing";
constexpr const char* kArchiveMain = "archive-writing-main";  // the archiving thread's CPU alone
// Passes of their own after the import (see the file comment).
constexpr const char* kMediaRows = "media-rows";
constexpr const char* kMedia = "media-conversion";
constexpr const char* kMediaDecode = "media-decode";
constexpr const char* kTeardown = "teardown";

// Where the reply's bytes go as they are written: the archive file, through the writer the command
// uses, or nowhere (only counted) without one.
class ReplySink final : public bplist::Builder::Sink {
 public:
  explicit ReplySink(std::string path) : path_(std::move(path)) {}
  bool put(std::string_view piece) override {
    bytes += piece.size();
    if (path_.empty()) return true;
    if (!file_.is_open() && !file_.open(path_).ok()) return false;
    return file_.write(piece);
  }
  bool close() { return !file_.is_open() || file_.close().ok(); }
  std::string error() const { return file_.error(); }
  std::uint64_t bytes = 0;

 private:
  std::string path_;
  FileWriter file_;
};

struct RunOutcome {
  bool ok = false;
  std::string error;
  std::string archive_out;  // the file the reply goes to; none: only counted
  std::uint64_t archive_bytes = 0;
  std::size_t accounts = 0, results = 0, albums = 0, media = 0, media_bytes = 0;
};

// The import run's continuation, stage by stage (see the file comment).
void continue_import(Stages& stages, const Ref<MQUserDefaultsWrapper>& defaults, const Ref<MQCoreDataWrapper>& store,
                     RunOutcome& out) {
  // Where the reply goes, written on a thread of its own while the request's objects are freed.
  ReplySink sink(out.archive_out);
  bool written = false;
  std::thread writer;
  std::optional<Stages::Interval> archiving;
  // The request's objects die with its heap; the teardown interval covers the locals going too.
  std::optional<Heap> heap(std::in_place);
  std::optional<Stages::Interval> teardown;
  {
    HeapScope scope(*heap);
    MQUserDefaultsWrapper::Snapshot snapshot(*defaults);
    std::optional<std::vector<Ref<Account>>> accounts;
    {
      Stages::Interval t(stages, kStore);
      accounts = store->currentAccounts();
    }
    if (!accounts || accounts->empty()) {
      out.error = "the store holds no accounts";
      return;
    }
    out.accounts = accounts->size();

    // Sidebar models: the accounts' and the shared albums structure, loaded on the run's helper thread
    // beside the fetches and exports, as the import run loads them.
    std::vector<Ref<Account>> valid;
    std::vector<SidebarModelLoader::Request> requests;
    for (const Ref<Account>& account : *accounts) {
      Ref<Object> userid = account->userid();
      if (!userid) {
        NSLog("invalid account: %@", account);
        continue;
      }
      valid.push_back(account);
      requests.push_back({userid, true});
    }
    requests.push_back({str(kAlbumPseudoUser), false});
    std::optional<SidebarModelLoader> models;
    {
      Stages::Interval t(stages, kPrefs);
      models.emplace(std::move(requests), defaults);
    }

    // Fetches.
    auto lookups = std::make_shared<ImportLookups>();
    {
      Stages::Interval t(stages, kStore);
      for (const Ref<Account>& account : valid) lookups->friends(*store, account.get());
      const auto& albums = lookups->albums(*store);
      if (albums) out.albums = albums->size();
    }

    // The exports, as the run makes them, each after its model (waiting for it counts as loading).
    auto results = mutable_array();
    Ref<MQOrvia4Importer> importer = MQOrvia4Importer::initWithHome(defaults->homeFolder());
    auto take = [&](std::size_t i) {
      Stages::Interval t(stages, kPrefs);
      return models->take(i);
    };
    for (std::size_t i = 0; i < valid.size(); ++i) {
      Ref<OutlineFolderModel> model = take(i);
      Stages::Interval t(stages, kExport);
      results->push_back(importer->resultForAccount(valid[i], *model, defaults, store, lookups));
    }
    Ref<OutlineFolderModel> album_model = take(valid.size());
    {
      Stages::Interval t(stages, kExport);
      Ref<Object> albums_tree = MQOrvia4Importer::sharedAlbumTree(*album_model, defaults, store, lookups);
      for (const Ref<Object>& r : results->items()) static_cast<MQImporterNodeResult*>(r.get())->albums = albums_tree;
    }
    out.results = results->size();

    // Every object in the builder, then the bytes written on their own thread while this one frees
    // the request's objects, as the command does.
    archiving.emplace(stages, kArchive);
    const double main_cpu = thread_cpu_now();
    auto built = std::make_shared<BuiltArchive>(build_archive(make<Array>(results->items(), false).get()));
    stages.get(kArchiveMain).cpu += thread_cpu_now() - main_cpu;
    writer = std::thread([built, &sink, &written] {
      try {
        written = built->write_to(sink) && sink.close();
      } catch (const std::exception& e) {
        std::fprintf(stderr, "import_stages: %s\n", e.what());
      }
    });
    teardown.emplace(stages, kTeardown);
  }
  heap.reset();
  teardown.reset();
  writer.join();
  archiving.reset();
  out.archive_bytes = sink.bytes;
  if (!written) {
    out.error = "cannot write the archive to " + out.archive_out + ": " + sink.error();
    return;
  }
  out.ok = true;
}

// Every album's media on this thread: reading alone, reading and converting, and decoding whole.
void media_passes(Stages& stages, const Ref<MQCoreDataWrapper>& store, RunOutcome& out) {
  Heap heap;
  HeapScope scope(heap);
  ImportLookups lookups;
  const auto& albums = lookups.albums(*store);
  if (!albums) return;
  {
    Stages::Interval t(stages, kMediaRows);
    for (const Ref<ImageList>& album : *albums) {
      album->enumerateImages([&](const ImageItemRow& row) {
        ++out.media;
        out.media_bytes += row.dictionary.size();
        return true;
      });
    }
  }
  {
    Stages::Interval t(stages, kMedia);
    FlatGraph graph;
    for (const Ref<ImageList>& album : *albums) {
      album->enumerateImages([&](const ImageItemRow& row) {
        // As the album lists convert: into a graph where it can, into objects otherwise; each record
        // into the graph emptied for it, as each of the lists' records goes into its own.
        graph.clear();
        const std::string_view bytes = row.dictionary;
        FlatGraph::Node root;
        std::string unreadable;
        (void)convertedMediaFromArchive(row.has_dictionary ? &bytes : nullptr, &unreadable, graph, root);
        return true;
      });
    }
  }
  {
    Stages::Interval t(stages, kMediaDecode);
    for (const Ref<ImageList>& album : *albums) {
      album->enumerateImages([&](const ImageItemRow& row) {
        if (row.has_dictionary) (void)decode_media_record(row.dictionary);
        return true;
      });
    }
  }
}

int run(const std::string& home, const std::string& archive_out) {
  register_record_classes();
  register_outline_classes();
  Stages stages;
  RunOutcome out;
  out.archive_out = archive_out;
  const double start_wall = wall_now(), start_cpu = cpu_now();
  // As the run does from its start: the builder's memory made resident while a core is idle.
  PreparedBlocks prepared(prepared_archive_bytes(MQCoreDataWrapper::storePathForHome(home)));

  Ref<MQUserDefaultsWrapper> defaults;
  bool installed = false;
  {
    Stages::Interval t(stages, kPrefs);
    defaults = MQUserDefaultsWrapper::initWithBundleID(kLegacyBundleID, home);
    installed = defaults->hasExistingOrviaInstall();
  }
  if (!installed) {
    std::fprintf(stderr, "import_stages: no legacy installation below %s\n", home.c_str());
    return 1;
  }

  bool done = false;
  std::optional<Stages::Interval> attach(std::in_place, stages, kStore);
  Ref<MQCoreDataWrapper> store;
  store = MQCoreDataWrapper::initWithStorePath(
      MQCoreDataWrapper::storePathForHome(home),
      [&] {
        attach.reset();
        continue_import(stages, defaults, store, out);
        done = true;
      },
      defaults,
      [&] {
        attach.reset();
        out.error = "the store could not be attached";
        done = true;
      });
  while (!done) MainQueue::shared().drain(std::chrono::milliseconds(5));
  const double total_wall = wall_now() - start_wall, total_cpu = cpu_now() - start_cpu;
  stages.get(kArchiveMain).wall = stages.get(kArchive).wall;

  if (!out.ok) {
    std::fprintf(stderr, "import_stages: %s\n", out.error.c_str());
    return 1;
  }
  media_passes(stages, store, out);
  for (const auto& [name, t] : stages.all()) std::printf("stage %s %.6f %.6f\n", name.c_str(), t.wall, t.cpu);
  std::printf("stage total %.6f %.6f\n", total_wall, total_cpu);
  std::printf("info accounts %zu\ninfo results %zu\ninfo albums %zu\ninfo media %zu\ninfo media_bytes %zu\n",
              out.accounts, out.results, out.albums, out.media, out.media_bytes);
  std::printf("info archive_bytes %llu\n", static_cast<unsigned long long>(out.archive_bytes));
  return 0;
}

}  // namespace
}  // namespace orvia

int main(int argc, char** argv) {
  std::string home, archive_out;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--home" && i + 1 < argc) {
      home = argv[++i];
    } else if (arg == "--archive-out" && i + 1 < argc) {
      archive_out = argv[++i];
    } else {
      std::fprintf(stderr, "usage: import_stages --home DIR [--archive-out FILE]\n");
      return 2;
    }
  }
  if (home.empty()) {
    std::fprintf(stderr, "usage: import_stages --home DIR [--archive-out FILE]\n");
    return 2;
  }
  return orvia::run(home, archive_out);
}
