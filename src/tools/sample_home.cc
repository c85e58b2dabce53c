#include "tools/sample_home.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <system_error>

#include "platform/plist.h"
#include "tools/sample_plan.h"

namespace orvia::tools {

namespace fs = std::filesystem;

namespace {

fs::path container(const fs::path& home) {
  return home / "Library" / "Containers" / kBundleID / "Data" / "Library";
}

fs::path support_folder(const fs::path& home) { return container(home) / "Application Support" / "Velmora"; }

Result<bool> write_file(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) return Error{"cannot write " + path.string()};
  return true;
}

// The files of an earlier run: refused unless `force`, then removed. Only what this tool writes is
// removed (the preferences file, the store with its companions, statistics databases).
Result<bool> clear_previous(const fs::path& home, bool force) {
  std::error_code ec;
  std::vector<fs::path> found;
  for (const fs::path& p : {preferences_path(home), store_path(home)})
    if (fs::exists(p, ec)) found.push_back(p);
  for (const char* suffix : {"-wal", "-shm", "-journal"}) {
    fs::path p = store_path(home).string() + suffix;
    if (fs::exists(p, ec)) found.push_back(p);
  }
  for (auto it = fs::directory_iterator(support_folder(home), ec); !ec && it != fs::directory_iterator(); it.increment(ec))
    if (it->path().extension() == ".db" && it->path() != store_path(home)) found.push_back(it->path());
  if (found.empty()) return true;
  if (!force)
    return Error{home.string() + " already holds a legacy installation (" + found.front().string() +
                 "); use --force to replace it"};
  for (const fs::path& p : found) {
    fs::remove(p, ec);
    if (ec) return Error{"cannot remove " + p.string() + ": " + ec.message()};
  }
  return true;
}

std::string with_unit(std::uint64_t bytes) {
  char buf[64];
  if (bytes >= 1024ull * 1024) {
    std::snprintf(buf, sizeof buf, "%.1f MB", static_cast<double>(bytes) / (1024.0 * 1024.0));
  } else if (bytes >= 10ull * 1024) {
    std::snprintf(buf, sizeof buf, "%.1f kB", static_cast<double>(bytes) / 1024.0);
  } else {
    std::snprintf(buf, sizeof buf, "%llu bytes", static_cast<unsigned long long>(bytes));
  }
  return buf;
}

}  // namespace

fs::path preferences_path(const fs::path& home) {
  return container(home) / "Preferences" / (std::string(kBundleID) + ".plist");
}

fs::path store_path(const fs::path& home) { return support_folder(home) / "InstaGramStore.db"; }

fs::path statistics_path(const fs::path& home, std::string_view uid) {
  return support_folder(home) / (std::string(uid) + ".db");
}

bool parse_profile(std::string_view text, Profile& out) {
  if (text == "demo") return out = Profile::Demo, true;
  if (text == "typical") return out = Profile::Typical, true;
  if (text == "heavy") return out = Profile::Heavy, true;
  return false;
}

bool parse_layout(std::string_view text, ImagesLayout& out) {
  if (text == "fk") return out = ImagesLayout::ForeignKey, true;
  if (text == "ordered") return out = ImagesLayout::Ordered, true;
  if (text == "join") return out = ImagesLayout::JoinTable, true;
  return false;
}

bool parse_scale(std::string_view text, double& out) {
  if (text == "small") return out = 0.05, true;
  std::string s(text);
  char* end = nullptr;
  double v = std::strtod(s.c_str(), &end);
  if (s.empty() || end != s.c_str() + s.size() || !std::isfinite(v) || v <= 0 || v > 1000) return false;
  out = v;
  return true;
}

std::string_view profile_name(Profile p) {
  return p == Profile::Demo ? "demo" : p == Profile::Typical ? "typical" : "heavy";
}

std::string_view layout_name(ImagesLayout l) {
  return l == ImagesLayout::ForeignKey ? "fk" : l == ImagesLayout::Ordered ? "ordered" : "join";
}

Result<SampleSummary> generate_sample_home(const SampleOptions& options) {
  if (options.home.empty()) return Error{"no folder given"};
  if (!(options.scale > 0) || !std::isfinite(options.scale)) return Error{"the scale must be a positive number"};
  std::error_code ec;
  for (const fs::path& dir : {preferences_path(options.home).parent_path(), support_folder(options.home)}) {
    fs::create_directories(dir, ec);
    if (ec) return Error{"cannot create " + dir.string() + ": " + ec.message()};
  }
  auto cleared = clear_previous(options.home, options.force);
  if (!cleared) return cleared.error();

  // Every object made here (sidebar items link both ways) belongs to this run.
  Heap heap;
  HeapScope scope(heap);
  auto report = [&](std::string_view phase, std::uint64_t done, std::uint64_t total) {
    if (options.progress) options.progress(phase, done, total);
  };

  report("plan", 0, 1);
  Plan plan = make_plan(options);
  SampleSummary summary;
  summary.profile = std::string(profile_name(options.profile));
  summary.seed = options.seed;
  summary.layout = std::string(layout_name(options.layout));
  summary.store_uuid = plan.store_uuid;
  summary.accounts = plan.accounts.size();
  summary.albums = plan.albums.size();
  summary.media = plan.media.size();
  summary.friends = plan.friends.size();
  for (const AccountPlan& a : plan.accounts) {
    summary.tags += a.tags.size();
    summary.locations += a.locations.size();
  }
  for (const SidebarTree& t : plan.trees) summary.sidebar_entries += t.nodes.size();
  summary.shared_album_entries = plan.trees.back().nodes.size();

  report("preferences", 0, 1);
  {
    auto prefs = preferences_dictionary(plan);
    if (!prefs) return prefs.error();
    auto bytes = write_binary_plist(prefs.value().get());
    if (!bytes) return Error{"cannot encode the preferences: " + bytes.error().message};
    auto written = write_file(preferences_path(options.home), bytes.value());
    if (!written) return written.error();
    summary.preferences_bytes = bytes.value().size();
  }

  report("store", 0, plan.media.size());
  auto store = write_store(plan, options, store_path(options.home));
  if (!store) return store.error();
  summary.store_bytes = store.value();

  for (const AccountPlan& a : plan.accounts) {
    if (!a.has_statistics) continue;
    auto written = write_statistics(plan, a, statistics_path(options.home, a.uid));
    if (!written) return written.error();
    ++summary.statistics_files;
  }
  return summary;
}

std::string summary_line(const SampleSummary& s) {
  return s.profile + " seed " + std::to_string(s.seed) + " (" + s.layout + "): " + std::to_string(s.accounts) +
         " accounts, " + std::to_string(s.albums) + " albums, " + std::to_string(s.media) + " media, " +
         std::to_string(s.friends) + " friends, " + std::to_string(s.tags) + " tags, " +
         std::to_string(s.locations) + " locations, " + std::to_string(s.sidebar_entries) + " sidebar entries (" +
         std::to_string(s.shared_album_entries) + " in the shared albums tree), " +
         std::to_string(s.statistics_files) + " statistics files; preferences " + with_unit(s.preferences_bytes) +
         ", store " + with_unit(s.store_bytes) + ", store UUID " + s.store_uuid;
}

}  // namespace orvia::tools
