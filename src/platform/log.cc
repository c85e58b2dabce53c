#include "platform/log.h"

#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <utility>

namespace orvia {

namespace {

// The lines of one capture scope.
struct CaptureSink {
  mutable std::mutex mutex;
  std::vector<std::string> lines;
};

constexpr const char* kSyslogIdent = "com.brenvik.Orvia4Importer";

// Process-wide and never destroyed, so threads that log during exit find them intact.
struct Sinks {
  std::mutex captures_mutex;
  std::vector<CaptureSink*> captures;
  std::mutex stderr_mutex;
  std::atomic<bool> to_stderr{true};
};

Sinks& sinks() {
  static Sinks* const s = new Sinks;
  return *s;
}

// The system log takes one datagram per line, and a datagram of more than about 200 KB is refused:
// longer lines (a sidebar's identifiers) go to it cut at this size, on a character boundary, ending
// in "...". Formatting the whole of a megabyte line for a send that must fail took milliseconds.
constexpr std::size_t kSyslogMaxLine = std::size_t{64} << 10;

void write_syslog(std::string_view line) {
  static std::once_flag opened;
  std::call_once(opened, [] { openlog(kSyslogIdent, LOG_PID, LOG_USER); });
  const char* more = "";
  if (line.size() > kSyslogMaxLine) {
    std::size_t cut = kSyslogMaxLine;
    while (cut > 0 && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80) --cut;  // not inside a character
    line = line.substr(0, cut);
    more = "...";
  }
  syslog(LOG_NOTICE, "%.*s%s", static_cast<int>(line.size()), line.data(), more);
}

void write_stderr(std::string_view line) {
  // The line and its newline in one call, without copying the line.
  iovec parts[2] = {{const_cast<char*>(line.data()), line.size()}, {const_cast<char*>("\n"), 1}};
  iovec* part = parts;
  int count = 2;
  std::lock_guard lock(sinks().stderr_mutex);
  while (count > 0) {
    ssize_t n = ::writev(STDERR_FILENO, part, count);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // nowhere to report a failing stderr
    }
    auto done = static_cast<std::size_t>(n);
    while (count > 0 && done >= part->iov_len) {
      done -= part->iov_len;
      ++part;
      --count;
    }
    if (count > 0) {
      part->iov_base = static_cast<char*>(part->iov_base) + done;
      part->iov_len -= done;
    }
  }
}

thread_local std::vector<std::string>* t_hold = nullptr;

}  // namespace

struct LogCapture::State : CaptureSink {};

void log_line(std::string_view line) {
  if (t_hold) {
    t_hold->emplace_back(line);
    return;
  }
  write_syslog(line);
  Sinks& s = sinks();
  if (s.to_stderr.load(std::memory_order_relaxed)) write_stderr(line);
  std::lock_guard lock(s.captures_mutex);
  for (CaptureSink* c : s.captures) {
    std::lock_guard capture_lock(c->mutex);
    c->lines.emplace_back(line);
  }
}

LogHold::LogHold(std::vector<std::string>& lines) : previous_(std::exchange(t_hold, &lines)) {}

LogHold::~LogHold() { t_hold = previous_; }

void write_held(std::vector<std::string>& lines) {
  for (const std::string& line : lines) log_line(line);
  lines.clear();
}

void set_log_to_stderr(bool enabled) { sinks().to_stderr.store(enabled, std::memory_order_relaxed); }

LogCapture::LogCapture() : state_(new State) {
  std::lock_guard lock(sinks().captures_mutex);
  sinks().captures.push_back(state_);
}

LogCapture::~LogCapture() {
  {
    std::lock_guard lock(sinks().captures_mutex);
    auto& v = sinks().captures;
    v.erase(std::remove(v.begin(), v.end(), static_cast<CaptureSink*>(state_)), v.end());
  }
  delete state_;
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(state_->mutex);
  return state_->lines;
}

bool LogCapture::contains(std::string_view line) const {
  std::lock_guard lock(state_->mutex);
  return std::find(state_->lines.begin(), state_->lines.end(), line) != state_->lines.end();
}

void LogCapture::clear() {
  std::lock_guard lock(state_->mutex);
  state_->lines.clear();
}

}  // namespace orvia
