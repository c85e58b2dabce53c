// orvia4-sample-home: writes a sample legacy installation into a folder that stands for a home folder.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <string>

#include "platform/object.h"
#include "tools/sample_home.h"

int main(int argc, char** argv) {
  using namespace orvia::tools;
  CLI::App app{
      "Writes a complete installation of the old client (preferences with sidebar trees, Core Data store,\n"
      "statistics databases) below DIR, as if DIR were a home folder. The same options give the same bytes."};
  std::string dir, profile_text = "demo", layout_text = "fk", scale_text = "1";
  std::uint64_t seed = 1;
  bool keep_wal = false, force = false, quiet = false;
  app.add_option("DIR", dir, "Folder that stands for the home folder")->required();
  app.add_option("--profile", profile_text, "demo, typical or heavy")->capture_default_str();
  app.add_option("--seed", seed, "Seed of the generated data")->capture_default_str();
  app.add_option("--images-layout", layout_text, "Store layout of the albums' images: fk, ordered or join")
      ->capture_default_str();
  app.add_option("--scale", scale_text, "Multiplies every count but the accounts (a number, or \"small\")")
      ->capture_default_str();
  app.add_flag("--keep-wal", keep_wal, "Leave the store's rows in its -wal file, not checkpointed");
  app.add_flag("--force", force, "Replace the legacy files of an earlier run");
  app.add_flag("--quiet", quiet, "No progress line");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int code = app.exit(e);
    return code == 0 ? 0 : 2;
  }

  SampleOptions options;
  options.home = dir;
  options.seed = seed;
  options.keep_wal = keep_wal;
  options.force = force;
  if (!parse_profile(profile_text, options.profile)) {
    std::fprintf(stderr, "--profile: unknown profile '%s' (demo, typical or heavy)\n", profile_text.c_str());
    return 2;
  }
  if (!parse_layout(layout_text, options.layout)) {
    std::fprintf(stderr, "--images-layout: unknown layout '%s' (fk, ordered or join)\n", layout_text.c_str());
    return 2;
  }
  if (!parse_scale(scale_text, options.scale)) {
    std::fprintf(stderr, "--scale: '%s' is not a positive number up to 1000, nor \"small\"\n", scale_text.c_str());
    return 2;
  }

  const bool tty = isatty(STDERR_FILENO) != 0;
  bool line_open = false;
  if (!quiet) {
    options.progress = [&](std::string_view phase, std::uint64_t done, std::uint64_t total) {
      if (tty) {
        if (phase == "media" && total) {
          std::fprintf(stderr, "\rwriting media %llu/%llu (%llu%%)   ", static_cast<unsigned long long>(done),
                       static_cast<unsigned long long>(total), static_cast<unsigned long long>(done * 100 / total));
        } else {
          std::fprintf(stderr, "\rwriting %.*s...                    ", static_cast<int>(phase.size()), phase.data());
        }
        line_open = true;
      } else if (phase != "media" || done == total) {
        // Without a terminal: one line per phase, and one when the media are done.
        std::fprintf(stderr, "%.*s%s\n", static_cast<int>(phase.size()), phase.data(),
                     phase == "media" ? " done" : "...");
      }
      std::fflush(stderr);
    };
  }

  auto start = std::chrono::steady_clock::now();
  orvia::Heap heap;
  orvia::HeapScope scope(heap);
  auto result = generate_sample_home(options);
  if (line_open) std::fprintf(stderr, "\r\033[K");
  if (!result) {
    std::fprintf(stderr, "orvia4-sample-home: %s\n", result.error().message.c_str());
    return 1;
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%s; %.1f s\n", summary_line(result.value()).c_str(), seconds);
  return 0;
}
