#include "platform/log.h"

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

void write_syslog(std::string_view line) {
  static std::once_flag opened;
  std::call_once(opened, [] { openlog(kSyslogIdent, LOG_PID, LOG_USER); });
  syslog(LOG_NOTICE, "%.*s", static_cast<int>(std::min<std::size_t>(line.size(), INT32_MAX)), line.data());
}

void write_stderr(std::string_view line) {
  std::string record(line);
  record += '\n';
  std::lock_guard lock(sinks().stderr_mutex);
  const char* p = record.data();
  std::size_t left = record.size();
  while (left > 0) {
    ssize_t n = ::write(STDERR_FILENO, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // nowhere to report a failing stderr
    }
    p += n;
    left -= static_cast<std::size_t>(n);
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
