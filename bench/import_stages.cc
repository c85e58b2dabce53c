// import_stages: one import of a home folder, run in this process stage by stage with the same library
// calls as the import run, and timed per stage:
//
//   preferences + sidebar   the install check (reads the preferences), every account's sidebar model and
//                           the shared albums model (with the log line of their identifiers)
//   store reads             attaching the store and the account, album and favourite fetches
//   export                  the folder tree exports of every account and of the shared albums model,
//                           with blocked users, account records and statistics nodes; album nodes get
//                           their media lists, which are read only when archived
//   archive writing         archive_root_to of the results: the reply's bytes, written to the archive file
//                           as the command writes its file (only counted without one). Album media are
//                           read from the store, decoded and converted on a worker meanwhile, so this
//                           stage's CPU time is both threads'; archive-writing-main is the archiving
//                           thread's alone
//   teardown                releasing the request's objects (the request's heap ends)
//
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
#include "platform/queue.h"
#include "records/records.h"
#include "service/mq_orvia4_importer.h"

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

    // Sidebar models: the accounts' and the shared albums structure.
    std::vector<std::pair<Ref<Account>, Ref<OutlineFolderModel>>> models;
    Ref<OutlineFolderModel> album_model;
    {
      Stages::Interval t(stages, kPrefs);
      for (const Ref<Account>& account : *accounts) {
        Ref<Object> userid = account->userid();
        if (!userid) {
          NSLog("invalid account: %@", account);
          continue;
        }
        Ref<OutlineFolderModel> model = OutlineFolderModel::initWithExistingUser(userid, false, defaults);
        NSLog("%@", model->identifiers());
        models.emplace_back(account, model);
      }
      album_model = OutlineFolderModel::initWithExistingUser(str(kAlbumPseudoUser), false, defaults);
    }

    // Fetches.
    auto lookups = std::make_shared<ImportLookups>();
    {
      Stages::Interval t(stages, kStore);
      for (const auto& [account, model] : models) lookups->friends(*store, account.get());
      const auto& albums = lookups->albums(*store);
      if (albums) out.albums = albums->size();
    }

    // The exports, as the run makes them.
    auto results = mutable_array();
    {
      Stages::Interval t(stages, kExport);
      Ref<MQOrvia4Importer> importer = MQOrvia4Importer::initWithHome(defaults->homeFolder());
      for (const auto& [account, model] : models)
        results->push_back(importer->resultForAccount(account, *model, defaults, store, lookups));
      Ref<Object> albums_tree = MQOrvia4Importer::sharedAlbumTree(*album_model, defaults, store, lookups);
      for (const Ref<Object>& r : results->items()) static_cast<MQImporterNodeResult*>(r.get())->albums = albums_tree;
    }
    out.results = results->size();

    {
      const double main_cpu = thread_cpu_now();
      Stages::Interval t(stages, kArchive);
      ReplySink sink(out.archive_out);
      const bool written = archive_root_to(make<Array>(results->items(), false).get(), sink) && sink.close();
      out.archive_bytes = sink.bytes;
      stages.get(kArchiveMain).cpu += thread_cpu_now() - main_cpu;
      if (!written) {
        out.error = "cannot write the archive to " + out.archive_out + ": " + sink.error();
        return;
      }
    }
    out.ok = true;
    teardown.emplace(stages, kTeardown);
  }
  heap.reset();
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
        // As the album lists convert: into a graph where it can, into objects otherwise.
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
