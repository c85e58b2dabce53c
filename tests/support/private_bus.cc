#include "support/private_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace fs = std::filesystem;

namespace orvia::test {
namespace {

using Clock = std::chrono::steady_clock;

// The environment of this process with `extra` set on top, as execve wants it.
class Environment {
 public:
  explicit Environment(const std::map<std::string, std::string>& extra) {
    for (char** e = environ; *e; ++e) {
      std::string entry(*e);
      std::string key = entry.substr(0, entry.find('='));
      if (!extra.count(key)) entries_.push_back(entry);
    }
    for (const auto& [k, v] : extra) entries_.push_back(k + "=" + v);
    for (auto& e : entries_) pointers_.push_back(e.data());
    pointers_.push_back(nullptr);
  }
  char** get() { return pointers_.data(); }

 private:
  std::vector<std::string> entries_;
  std::vector<char*> pointers_;
};

struct Argv {
  explicit Argv(const std::vector<std::string>& args) : args_(args) {
    for (auto& a : args_) pointers_.push_back(a.data());
    pointers_.push_back(nullptr);
  }
  char** get() { return pointers_.data(); }

 private:
  std::vector<std::string> args_;
  std::vector<char*> pointers_;
};

void close_fd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

int exit_status(int wstatus) {
  if (WIFEXITED(wstatus)) return WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) return 128 + WTERMSIG(wstatus);
  return -1;
}

std::string xml_escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      default: out += c;
    }
  }
  return out;
}

}  // namespace

fs::path built_services_dir() { return fs::path(ORVIA_BINARY_DIR) / "share" / "dbus-1" / "services"; }

ProgramRun run_program(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                       const std::string& input, std::chrono::milliseconds timeout) {
  ProgramRun run;
  if (argv.empty()) return run;
  int in[2], out[2], err[2];
  if (::pipe2(in, O_CLOEXEC) != 0) return run;
  if (::pipe2(out, O_CLOEXEC) != 0) {
    ::close(in[0]), ::close(in[1]);
    return run;
  }
  if (::pipe2(err, O_CLOEXEC) != 0) {
    ::close(in[0]), ::close(in[1]), ::close(out[0]), ::close(out[1]);
    return run;
  }
  // Everything the child needs is built before fork: after it, only exec-safe calls.
  Environment environment(env);
  Argv args(argv);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(in[0], 0);
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    ::execvpe(args.get()[0], args.get(), environment.get());
    ::_exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  if (pid < 0) {
    ::close(in[1]), ::close(out[0]), ::close(err[0]);
    return run;
  }
  int in_fd = in[1], out_fd = out[0], err_fd = err[0];
  ::fcntl(in_fd, F_SETFL, O_NONBLOCK);
  std::size_t written = 0;
  if (input.empty()) close_fd(in_fd);
  const auto deadline = Clock::now() + timeout;
  bool killed = false;
  while (out_fd >= 0 || err_fd >= 0) {
    pollfd fds[3] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}, {in_fd, POLLOUT, 0}};
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      if (!killed) ::kill(pid, SIGKILL);
      killed = true;
      left = 1000;
    }
    int r = ::poll(fds, 3, static_cast<int>(left));
    if (r < 0 && errno != EINTR) break;
    char buf[65536];
    for (int i = 0; i < 2; ++i) {
      int& fd = i == 0 ? out_fd : err_fd;
      if (fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      ssize_t n = ::read(fd, buf, sizeof buf);
      if (n > 0) {
        (i == 0 ? run.out : run.err).append(buf, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close_fd(fd);
      }
    }
    if (in_fd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
      ssize_t n = ::write(in_fd, input.data() + written, input.size() - written);
      if (n > 0) written += static_cast<std::size_t>(n);
      if (n < 0 && errno != EAGAIN && errno != EINTR) close_fd(in_fd);
      if (written == input.size()) close_fd(in_fd);
    }
    if (killed && Clock::now() > deadline + std::chrono::seconds(5)) break;  // output held by a grandchild
  }
  close_fd(in_fd);
  close_fd(out_fd);
  close_fd(err_fd);
  int wstatus = 0;
  while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  run.status = exit_status(wstatus);
  return run;
}

PrivateBus::PrivateBus(PrivateBusOptions options) {
  fs::path config = dir_ / "session.conf";
  {
    std::ofstream conf(config);
    conf << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
            " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
            "<busconfig>\n"
            "  <type>session</type>\n"
            "  <listen>unix:tmpdir="
         << xml_escape(dir_.path().string())
         << "</listen>\n"
            "  <auth>EXTERNAL</auth>\n";
    for (const auto& d : options.service_dirs) conf << "  <servicedir>" << xml_escape(d.string()) << "</servicedir>\n";
    conf << "  <policy context=\"default\">\n"
            "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
            "    <allow eavesdrop=\"true\"/>\n"
            "    <allow own=\"*\"/>\n"
            "  </policy>\n"
            "</busconfig>\n";
    if (!conf) throw std::runtime_error("cannot write " + config.string());
  }

  int address_pipe[2];
  if (::pipe2(address_pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::string log_path = (dir_ / "daemon.log").string();
  int log_fd = ::open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  Environment environment(options.environment);
  Argv args({"dbus-daemon", "--config-file=" + config.string(), "--nofork", "--nopidfile", "--print-address=3"});
  pid_t pid = ::fork();
  if (pid == 0) {
    if (address_pipe[1] == 3) {
      ::fcntl(3, F_SETFD, 0);  // already in place: only close-on-exec must go
    } else {
      ::dup2(address_pipe[1], 3);  // dup2 clears close-on-exec on the copy
    }
    if (log_fd >= 0) {
      ::dup2(log_fd, 1);
      ::dup2(log_fd, 2);
    }
    int null_fd = ::open("/dev/null", O_RDONLY);
    if (null_fd >= 0) ::dup2(null_fd, 0);
    ::execvpe(args.get()[0], args.get(), environment.get());
    ::_exit(127);
  }
  ::close(address_pipe[1]);
  if (log_fd >= 0) ::close(log_fd);
  if (pid < 0) {
    ::close(address_pipe[0]);
    throw std::runtime_error("fork failed");
  }
  daemon_ = pid;

  // The daemon prints its address once it listens.
  std::string line;
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  while (line.find('\n') == std::string::npos && Clock::now() < deadline) {
    pollfd p{address_pipe[0], POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    char buf[512];
    ssize_t n = ::read(address_pipe[0], buf, sizeof buf);
    if (n <= 0) break;
    line.append(buf, static_cast<std::size_t>(n));
  }
  ::close(address_pipe[0]);
  if (line.find('\n') == std::string::npos) {
    std::string log = daemon_log();
    ::kill(daemon_, SIGKILL);
    ::waitpid(daemon_, nullptr, 0);
    daemon_ = -1;
    throw std::runtime_error("dbus-daemon did not start: " + log);
  }
  address_ = line.substr(0, line.find('\n'));

  if (const char* prev = std::getenv("DBUS_SESSION_BUS_ADDRESS")) previous_address_ = prev;
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
  if (previous_address_) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", previous_address_->c_str(), 1);
  } else {
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }
  if (daemon_ > 0) {
    ::kill(daemon_, SIGTERM);
    int wstatus;
    while (::waitpid(daemon_, &wstatus, 0) < 0 && errno == EINTR) {
    }
  }
}

std::string PrivateBus::daemon_log() const {
  std::ifstream in(dir_ / "daemon.log");
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string PrivateBus::call_bus(const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {"dbus-send", "--bus=" + address_, "--print-reply", "--dest=org.freedesktop.DBus",
                                   "/org/freedesktop/DBus"};
  argv.insert(argv.end(), args.begin(), args.end());
  ProgramRun run = run_program(argv, {}, {}, std::chrono::seconds(30));
  return run.status == 0 ? run.out : std::string();
}

bool PrivateBus::update_activation_environment(const std::map<std::string, std::string>& env) const {
  // dbus-send separates dictionary entries by commas, so values must not hold any.
  std::string dict = "dict:string:string:";
  bool first = true;
  for (const auto& [k, v] : env) {
    if (k.find(',') != std::string::npos || v.find(',') != std::string::npos) return false;
    dict += (first ? "" : ",") + k + "," + v;
    first = false;
  }
  ProgramRun run = run_program({"dbus-send", "--bus=" + address_, "--print-reply", "--dest=org.freedesktop.DBus",
                                "/org/freedesktop/DBus", "org.freedesktop.DBus.UpdateActivationEnvironment", dict});
  return run.status == 0;
}

bool PrivateBus::name_has_owner(const std::string& name) const {
  std::string reply = call_bus({"org.freedesktop.DBus.NameHasOwner", "string:" + name});
  return reply.find("boolean true") != std::string::npos;
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
