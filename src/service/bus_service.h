// The importer's front on the session bus: owns the name, offers the one method, and sends one reply per
// call. Calls arrive on the thread that runs the service (the bus thread); the reply may come later from
// any thread, and the bus thread sends it.
//
// Every call is answered exactly once: the first reply wins and later ones are logged and dropped; a
// handler that throws, or that lets go of its reply callback without calling it, answers (NO, nil).
//
// Idle exit: when no call is outstanding and none has arrived for the idle time, the service releases
// its name, answers any call that reached it before the release, and returns; the bus starts a new
// instance for the next call.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "service/memfd.h"

namespace orvia::service {

struct BusServiceOptions {
  // Zero: never leave on idle.
  std::chrono::milliseconds idle_exit = std::chrono::seconds(60);
  // The bus to serve; empty: the session bus (DBUS_SESSION_BUS_ADDRESS).
  std::string bus_address;
  // How long the service keeps its own handle on a reply's memory file after sending it. The last
  // holder to close the file frees its pages, which takes a while for a large archive: kept, the file
  // is freed by the service on a background thread, and the caller's close returns at once. Only
  // files of kKeptFrom bytes or more are kept: a smaller one is freed in under a millisecond.
  std::chrono::milliseconds reply_kept = std::chrono::seconds(5);
  static constexpr off_t kKeptFrom = off_t{4} << 20;
};

// A call's reply, from any thread: (success, archive or null), whose bytes are copied before it
// returns; or a success whose archive is already in a sealed memory file (see memfd.h), sent as it is.
// A success always carries an archive: a success with null is sent as (NO, nil).
class BusReply {
 public:
  using Bytes = std::function<void(bool success, const std::string* archive_or_null)>;
  using File = std::function<void(UniqueFd sealed_archive)>;
  BusReply() = default;
  BusReply(Bytes bytes, File file) : bytes_(std::move(bytes)), file_(std::move(file)) {}
  void operator()(bool success, const std::string* archive_or_null) const { bytes_(success, archive_or_null); }
  void operator()(UniqueFd sealed_archive) const { file_(std::move(sealed_archive)); }

 private:
  Bytes bytes_;
  File file_;
};
// Called on the bus thread for every call, with that call's reply callback.
using RequestHandler = std::function<void(BusReply reply)>;

class BusService {
 public:
  BusService(BusServiceOptions options, RequestHandler handler);
  ~BusService();
  BusService(const BusService&) = delete;
  BusService& operator=(const BusService&) = delete;

  // Connects, offers the method, takes the name and serves until idle exit or stop(). Returns 0 after
  // an idle exit or stop(), 1 when the bus cannot be reached, the name is taken, or the bus goes away.
  int run();
  // Any thread: leave as on idle exit, as soon as no call is outstanding.
  void stop();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

inline int run_bus_service(const BusServiceOptions& options, RequestHandler handler) {
  return BusService(options, std::move(handler)).run();
}

}  // namespace orvia::service
