// A private session bus for tests: a real dbus-daemon with its own socket and configuration, whose
// services folders hold the .service files to activate (by default the build tree's, which start the
// built orvia4-importer). While it exists, DBUS_SESSION_BUS_ADDRESS points at it in this process, so
// clients and the programs that tests run talk to it.
//
// Activated services inherit the daemon's environment: pass `environment` (HOME at a sample
// installation, say) to set it for every service the bus starts, or change it later with
// update_activation_environment().
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "support/support.h"

namespace orvia::test {

// The build tree's folder of generated .service files.
std::filesystem::path built_services_dir();

struct PrivateBusOptions {
  std::vector<std::filesystem::path> service_dirs = {built_services_dir()};
  // Set for the daemon, and so for every service that it starts.
  std::map<std::string, std::string> environment;
};

// Options for a bus that starts no services (tests that serve the name themselves).
inline PrivateBusOptions options_without_services() {
  PrivateBusOptions options;
  options.service_dirs.clear();
  return options;
}

class PrivateBus {
 public:
  // Starts the daemon and waits until it listens; throws std::runtime_error when it cannot.
  explicit PrivateBus(PrivateBusOptions options = {});
  // Stops the daemon; services it started lose the bus and end. Restores DBUS_SESSION_BUS_ADDRESS.
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& address() const { return address_; }
  // The daemon's own messages (activation, failures to start a service).
  std::string daemon_log() const;

  // org.freedesktop.DBus.UpdateActivationEnvironment: services started from now on see these too.
  bool update_activation_environment(const std::map<std::string, std::string>& env) const;
  bool name_has_owner(const std::string& name) const;
  // The process id of the name's owner, if it has one.
  std::optional<pid_t> name_owner_pid(const std::string& name) const;
  // Waits until the name is owned (or released); false when that did not happen within the time.
  bool wait_for_name(const std::string& name, bool owned,
                     std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

 private:
  std::string call_bus(const std::vector<std::string>& args) const;

  TempDir dir_;
  pid_t daemon_ = -1;
  std::string address_;
  std::optional<std::string> previous_address_;
};

// A finished program run.
struct ProgramRun {
  int status = -1;  // exit status; 128 + signal when killed by one; -1 when it could not start
  std::string out;
  std::string err;
};

// Runs a program (argv[0] is a path or a name on PATH) with extra environment variables and optional
// standard input, waits for it (killing it after `timeout`), and returns what it printed.
ProgramRun run_program(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env = {},
                       const std::string& input = {},
                       std::chrono::milliseconds timeout = std::chrono::seconds(120));

}  // namespace orvia::test
