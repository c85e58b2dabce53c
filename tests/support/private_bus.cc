#include "support/private_bus.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace fs = std::filesystem;

namespace orvia::test {
namespace {

using Clock = std::chrono::steady_clock;

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (std::string& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

// Starts a program with this process's environment and `env` on top; each of `files` opens a file on
// a descriptor ("&1": a copy of standard output). -1 when it cannot start.
pid_t spawn(std::vector<std::string> argv, const std::map<std::string, std::string>& env,
            const std::vector<std::pair<int, std::string>>& files) {
  std::vector<std::string> entries;
  for (char** e = environ; *e; ++e)
    if (!env.count(std::string(*e).substr(0, std::string(*e).find('=')))) entries.emplace_back(*e);
  for (const auto& [k, v] : env) entries.push_back(k + "=" + v);
  std::vector<char*> args = pointers(argv), envp = pointers(entries);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const auto& [fd, path] : files) {
    if (path == "&1") posix_spawn_file_actions_adddup2(&actions, 1, fd);
    else posix_spawn_file_actions_addopen(&actions, fd, path.c_str(), fd == 0 ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC, 0600);
  }
  pid_t pid = -1;
  if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

std::string xml_escape(const std::string& s) {
  std::string out;
  for (char c : s) out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
  return out;
}

}  // namespace

fs::path built_services_dir() { return fs::path(ORVIA_BINARY_DIR) / "share" / "dbus-1" / "services"; }

ProgramRun run_program(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                       const std::string& input, std::chrono::milliseconds timeout) {
  ProgramRun run;
  if (argv.empty()) return run;
  TempDir dir;  // the streams go through files: nothing to drain while the program runs
  write_file(dir / "in", input);
  const pid_t pid = spawn(argv, env, {{0, dir / "in"}, {1, dir / "out"}, {2, dir / "err"}});
  if (pid < 0) return run;
  const auto deadline = Clock::now() + timeout;
  int wstatus = 0;
  while (::waitpid(pid, &wstatus, WNOHANG) == 0) {
    if (Clock::now() > deadline) ::kill(pid, SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : WIFSIGNALED(wstatus) ? 128 + WTERMSIG(wstatus) : -1;
  run.out = read_file(dir / "out");
  run.err = read_file(dir / "err");
  return run;
}

PrivateBus::PrivateBus(PrivateBusOptions options) {
  std::string conf =
      "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
      " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
      "<busconfig>\n  <type>session</type>\n  <listen>unix:tmpdir=" + xml_escape(dir_.path().string()) +
      "</listen>\n  <auth>EXTERNAL</auth>\n";
  for (const auto& d : options.service_dirs) conf += "  <servicedir>" + xml_escape(d.string()) + "</servicedir>\n";
  conf += "  <policy context=\"default\">\n    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
          "    <allow eavesdrop=\"true\"/>\n    <allow own=\"*\"/>\n  </policy>\n</busconfig>\n";
  write_file(dir_ / "session.conf", conf);
  // The daemon prints its address (to a file here) once it listens.
  daemon_ = spawn({"dbus-daemon", "--config-file=" + (dir_ / "session.conf").string(), "--nofork", "--nopidfile",
                   "--print-address=3"},
                  options.environment,
                  {{0, "/dev/null"}, {1, dir_ / "daemon.log"}, {2, "&1"}, {3, dir_ / "address"}});
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  while (daemon_ > 0 && address_.find('\n') == std::string::npos && Clock::now() < deadline &&
         ::waitpid(daemon_, nullptr, WNOHANG) == 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    address_ = read_file(dir_ / "address");
  }
  if (address_.find('\n') == std::string::npos) {
    if (daemon_ > 0) ::kill(daemon_, SIGKILL), ::waitpid(daemon_, nullptr, 0);
    daemon_ = -1;
    throw std::runtime_error("dbus-daemon did not start: " + daemon_log());
  }
  address_.resize(address_.find('\n'));
  if (const char* prev = std::getenv("DBUS_SESSION_BUS_ADDRESS")) previous_address_ = prev;
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
  if (previous_address_) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", previous_address_->c_str(), 1);
  } else {
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }
  if (daemon_ > 0) ::kill(daemon_, SIGTERM), ::waitpid(daemon_, nullptr, 0);
}

std::string PrivateBus::daemon_log() const { return read_file(dir_ / "daemon.log"); }

std::string PrivateBus::call_bus(const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {"dbus-send", "--bus=" + address_, "--print-reply", "--dest=org.freedesktop.DBus",
                                   "/org/freedesktop/DBus"};
  argv.insert(argv.end(), args.begin(), args.end());
  ProgramRun run = run_program(argv, {}, {}, std::chrono::seconds(30));
  return run.status == 0 ? run.out : std::string();
}

bool PrivateBus::update_activation_environment(const std::map<std::string, std::string>& env) const {
  // dbus-send separates dictionary entries by commas, so values must not hold any.
  std::string dict;
  for (const auto& [k, v] : env) {
    if ((k + v).find(',') != std::string::npos) return false;
    dict += (dict.empty() ? "" : ",") + k + "," + v;
  }
  return !call_bus({"org.freedesktop.DBus.UpdateActivationEnvironment", "dict:string:string:" + dict}).empty();
}

bool PrivateBus::name_has_owner(const std::string& name) const {
  return call_bus({"org.freedesktop.DBus.NameHasOwner", "string:" + name}).find("boolean true") != std::string::npos;
}

std::optional<pid_t> PrivateBus::name_owner_pid(const std::string& name) const {
  std::string reply = call_bus({"org.freedesktop.DBus.GetConnectionUnixProcessID", "string:" + name});
  auto at = reply.find("uint32 ");
  if (at == std::string::npos) return std::nullopt;
  return static_cast<pid_t>(std::strtol(reply.c_str() + at + 7, nullptr, 10));
}

bool PrivateBus::wait_for_name(const std::string& name, bool owned, std::chrono::milliseconds timeout) const {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (name_has_owner(name) == owned) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

}  // namespace orvia::test
