// orvia4-import: asks the importer service for what Orvia 4 left in the home folder and shows it.
#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>

#include "client/import_client.h"
#include "client/report.h"
#include "platform/file_writer.h"
#include "platform/keyed_archive.h"
#include "platform/object.h"
#include "service/import_request.h"

namespace {

// Exit statuses; the help text lists them.
constexpr int kExitSuccess = 0;
constexpr int kExitAnsweredNo = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoReply = 3;
constexpr int kExitBadArchive = 4;

constexpr const char* kNoReason = "no legacy installation, no accounts or the legacy store could not be read";

int fail(int status, const std::string& message) {
  std::cerr << "orvia4-import: " << message << '\n';
  return status;
}

std::optional<std::string> read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream out;
  out << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return out.str();
}

bool write_file(const std::string& path, const std::string& bytes) {
  orvia::FileWriter out;
  return out.open(path).ok() && out.write(bytes) && out.close().ok();
}

// Writes the archive to a file as the import hands it over; the file is made with the first piece, so a
// failed import leaves none.
class FileSink final : public orvia::bplist::Builder::Sink {
 public:
  explicit FileSink(std::string path) : path_(std::move(path)) {}
  bool put(std::string_view piece) override {
    if (!file_.is_open() && !file_.open(path_).ok()) return false;
    return file_.write(piece);
  }
  bool close() { return !file_.is_open() || file_.close().ok(); }

 private:
  std::string path_;
  orvia::FileWriter file_;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Asks the Orvia 4 importer service (on the session bus, started on demand) for everything the\n"
      "previous generation left in your home folder, and prints it as a tree or as JSON.",
      "orvia4-import"};
  std::string format = "tree";
  std::string archive_out, decode_path, home;
  bool direct = false;
  double timeout_seconds = 300;
  app.add_option("--format", format,
                 "How to print the import: tree (readable), json, or none (print nothing; with --archive-out)")
      ->check(CLI::IsMember({"tree", "json", "none"}))
      ->capture_default_str();
  app.add_option("--archive-out", archive_out, "Also write the reply's archive, byte for byte, to FILE")
      ->option_text("FILE");
  auto* decode_opt = app.add_option("--decode", decode_path, "Print the keyed archive in FILE (JSON unless --format tree); no service is asked")
                         ->option_text("FILE")
                         ->check(CLI::ExistingFile);
  auto* direct_opt = app.add_flag("--direct", direct, "Run the import in this process instead of asking the service");
  app.add_option("--home", home, "With --direct: the home folder to import from (default: yours)")
      ->option_text("DIR")
      ->needs(direct_opt);
  app.add_option("--timeout", timeout_seconds, "Seconds to wait for the service's reply")
      ->option_text("SECONDS")
      ->check(CLI::Range(0.001, 1e6))
      ->capture_default_str();
  decode_opt->excludes(direct_opt);
  app.set_version_flag("--version", std::string("orvia4-import ") + ORVIA_VERSION);
  app.footer(
      "Exit status: 0 the import succeeded; 1 the service answered NO (" + std::string(kNoReason) +
      "); 2 usage error; 3 no reply from the service (no bus, the service could not start, timeout); "
      "4 the archive could not be read, decoded or written.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int rc = app.exit(e);
    return rc == 0 ? kExitSuccess : kExitUsage;
  }

  bool success = false;
  std::optional<std::string> archive;
  if (!decode_path.empty()) {
    archive = read_file(decode_path);
    if (!archive) return fail(kExitBadArchive, "cannot read " + decode_path);
    success = true;
    if (!app.count("--format")) format = "json";
  } else if (direct && format == "none" && !archive_out.empty()) {
    // Nothing to print: the archive goes to its file as it is written, never whole in memory.
    FileSink sink(archive_out);
    bool written = false;
    orvia::service::ImportOutcome outcome = orvia::service::run_direct_import(home, sink, written);
    if (!outcome.success) return fail(kExitAnsweredNo, std::string("the importer answered NO: ") + kNoReason);
    if (!written || !sink.close()) return fail(kExitBadArchive, "cannot write " + archive_out);
    return kExitSuccess;
  } else if (direct) {
    orvia::service::ImportOutcome outcome = orvia::service::run_direct_import(home);
    success = outcome.success;
    archive = std::move(outcome.archive);
  } else {
    orvia::client::CallOptions options;
    options.timeout = std::chrono::milliseconds(std::llround(timeout_seconds * 1000));
    // Nothing to print: the reply's memory file is copied to its file without being read in here.
    const bool pass_on = format == "none" && !archive_out.empty();
    options.keep_file = pass_on;
    orvia::client::CallOutcome outcome = orvia::client::find_importable_results(options);
    if (outcome.status != orvia::client::CallStatus::Replied) {
      return fail(kExitNoReply, std::string(orvia::client::describe(outcome.status)) + " (" + outcome.error + ")");
    }
    if (pass_on) {
      if (!outcome.success) return fail(kExitAnsweredNo, std::string("the importer answered NO: ") + kNoReason);
      auto copied = orvia::service::copy_whole_fd_to_file(outcome.archive_file.get(), archive_out);
      if (!copied.ok()) return fail(kExitBadArchive, "cannot write " + archive_out + ": " + copied.error().message);
      return kExitSuccess;
    }
    success = outcome.success;
    archive = std::move(outcome.archive);
  }

  if (!success) return fail(kExitAnsweredNo, std::string("the importer answered NO: ") + kNoReason);
  if (!archive) return fail(kExitBadArchive, "the import succeeded but carries no archive");
  if (!archive_out.empty() && !write_file(archive_out, *archive)) {
    return fail(kExitBadArchive, "cannot write " + archive_out);
  }
  if (format == "none") return kExitSuccess;

  // Every object of the decoded reply belongs to this heap; it cuts any cycles at the end.
  orvia::Heap heap;
  orvia::HeapScope scope(heap);
  orvia::ClassRegistry no_classes;  // every record decodes as a GenericRecord: class names and keys as archived
  auto root = orvia::unarchive(*archive, no_classes);
  if (!root.ok()) return fail(kExitBadArchive, "the archive could not be decoded: " + root.error().message);

  if (format == "json") {
    orvia::client::write_json(std::cout, root.value().get());
  } else if (!orvia::client::write_import_report(std::cout, root.value().get())) {
    return fail(kExitBadArchive, "not an import reply; try --format json");
  }
  std::cout.flush();
  if (!std::cout) return fail(kExitBadArchive, "cannot write the output");
  return kExitSuccess;
}
