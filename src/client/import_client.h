// Asks the importer service over the session bus (starting it when needed) and collects its reply.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "service/memfd.h"

namespace orvia::client {

struct CallOptions {
  // How long to wait for the reply, activation included. A large legacy store takes a while.
  std::chrono::milliseconds timeout = std::chrono::minutes(5);
  // The bus to call on; empty: the session bus (DBUS_SESSION_BUS_ADDRESS).
  std::string bus_address;
  // Replies whose archive is larger than this are refused.
  std::size_t max_archive_size = std::size_t{1} << 32;
  // Keep the reply's memory file instead of reading it (CallOutcome::archive_file): for callers that
  // only pass the archive on (to a file, say) and need not hold it in memory.
  bool keep_file = false;
};

enum class CallStatus {
  Replied,     // the service answered; see success and archive
  NoBus,       // no session bus to talk to
  NoService,   // the bus knows no such service, or could not start it
  NoReply,     // the call timed out, or the service went away without answering
  BadReply,    // an answer that breaks the contract (wrong types, unreadable archive, success without one)
};

struct CallOutcome {
  CallStatus status = CallStatus::NoReply;
  bool success = false;                // the service's flag (Replied only)
  std::optional<std::string> archive;  // the archive bytes, present exactly when success is YES
  service::UniqueFd archive_file;      // with keep_file instead: the memory file holding them
  std::string error;                   // what went wrong, for everything but Replied
};

// Calls findImportableResultsWithDataCompletion once and waits for its reply. Never throws.
CallOutcome find_importable_results(const CallOptions& options = {});

const char* describe(CallStatus status);

}  // namespace orvia::client
