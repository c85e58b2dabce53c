// The import behind the bus method: what the service does for one request, and the same run without a
// bus for the command line.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/bplist_format.h"
#include "service/memfd.h"

namespace orvia::service {

// Called exactly once per request, from any thread: (NO, nil) for a failure, otherwise YES with the
// archive in a sealed memory file, written there piece by piece as it was made.
using ImportReply = std::function<void(bool success, std::optional<UniqueFd> archive)>;

// Starts the import for one request. Called on the bus thread; the main thread serves the main queue
// meanwhile, so the run may continue there and reply from there.
void handle_import_request(ImportReply reply);

struct ImportOutcome {
  bool success = false;
  std::optional<std::string> archive;  // the reply's archive; nil for a failure
};

// Runs one import in this process for the given home folder (empty: the user's own home folder) and
// waits for its outcome. Serves the main queue on the calling thread while the import needs it, so it
// must be called from a thread that may act as the main thread (the command line's first thread).
ImportOutcome run_direct_import(const std::string& home);
// The same, with a successful run's archive handed to `sink` as it is written instead of kept in the
// outcome (which then holds no archive); `written` tells whether the sink took every piece.
ImportOutcome run_direct_import(const std::string& home, bplist::Builder::Sink& sink, bool& written);

}  // namespace orvia::service
