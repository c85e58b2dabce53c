// Writes a complete legacy installation of the old client into a folder that stands for a home
// folder: its preferences (with the sidebar folder trees as keyed archives), its Core Data store and
// the per-account statistics databases. Used for demos, for tests of the service and for benchmarks.
//
// Everything is derived from the seed through our own generator: the same options give the same bytes
// in every file (except the -wal of a store kept in WAL state, whose salts SQLite picks).
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "platform/result.h"

namespace orvia::tools {

enum class Profile { Demo, Typical, Heavy };

// How the albums' "images" relationship is laid out in the store.
enum class ImagesLayout {
  ForeignKey,  // ZIMAGEITEM.ZLIST (inverse `list`), unordered
  Ordered,     // the same plus ZIMAGEITEM.Z_FOK_LIST
  JoinTable,   // many-to-many join table Z_5IMAGES (inverse `lists`)
};

struct SampleOptions {
  std::filesystem::path home;  // the folder that stands for the home folder
  Profile profile = Profile::Demo;
  std::uint64_t seed = 1;
  ImagesLayout layout = ImagesLayout::ForeignKey;
  double scale = 1.0;     // multiplies every count of the profile except the number of accounts
  bool keep_wal = false;  // leave the store's rows in its -wal, as a writer that never checkpointed
  bool force = false;     // replace the legacy files that a previous run left
  // Reports long work: phase name, units done, units in the phase. May be empty.
  std::function<void(std::string_view phase, std::uint64_t done, std::uint64_t total)> progress;
};

struct SampleSummary {
  std::string profile;
  std::uint64_t seed = 0;
  std::string layout;
  std::string store_uuid;
  std::uint64_t accounts = 0;
  std::uint64_t albums = 0;
  std::uint64_t media = 0;
  std::uint64_t friends = 0;   // all accounts together
  std::uint64_t tags = 0;      // per-account favourite tags, all accounts together
  std::uint64_t locations = 0; // per-account favourite locations, all accounts together
  std::uint64_t sidebar_entries = 0;        // items of all stored trees, shared albums tree included
  std::uint64_t shared_album_entries = 0;   // items of the shared albums tree
  std::uint64_t statistics_files = 0;
  std::uint64_t preferences_bytes = 0;
  std::uint64_t store_bytes = 0;
};

// Where the old client keeps its files below a home folder.
std::filesystem::path preferences_path(const std::filesystem::path& home);
std::filesystem::path store_path(const std::filesystem::path& home);
std::filesystem::path statistics_path(const std::filesystem::path& home, std::string_view uid);

bool parse_profile(std::string_view text, Profile& out);
bool parse_layout(std::string_view text, ImagesLayout& out);
// A positive number, or "small" (a twentieth).
bool parse_scale(std::string_view text, double& out);
std::string_view profile_name(Profile p);
std::string_view layout_name(ImagesLayout l);

Result<SampleSummary> generate_sample_home(const SampleOptions& options);

// "demo seed 1 (fk): 2 accounts, 10 albums, ..." on one line.
std::string summary_line(const SampleSummary& summary);

}  // namespace orvia::tools
