// The system log: one line per event, with no levels, to syslog (identifier
// "com.brenvik.Orvia4Importer") and to stderr. Tests capture the lines.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/format.h"

namespace orvia {

void log_line(std::string_view line);

// NSLog: formats with the system's format strings ("%@", "%li", "%p") and writes one line.
template <class... Args>
void NSLog(std::string_view fmt, const Args&... args) {
  log_line(format(fmt, {FormatArg(args)...}));
}

// Collects every line logged (from any thread) while it exists; capture scopes may nest.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::vector<std::string> lines() const;
  bool contains(std::string_view line) const;
  void clear();

 private:
  struct State;
  State* state_;
};

// While one exists, the lines this thread logs are appended to `lines` instead of being written: work
// done ahead on a helper thread keeps its lines until the thread that waits for the work writes them
// (with write_held), where they would have come had the work been done in turn. Holds nest.
class LogHold {
 public:
  explicit LogHold(std::vector<std::string>& lines);
  ~LogHold();
  LogHold(const LogHold&) = delete;
  LogHold& operator=(const LogHold&) = delete;

 private:
  std::vector<std::string>* previous_;
};

// Writes held lines in their order (on the calling thread, under any hold it has) and empties the list.
void write_held(std::vector<std::string>& lines);

// Turns the stderr copy off (a quiet tool) or on; syslog always receives the line.
void set_log_to_stderr(bool enabled);

}  // namespace orvia
