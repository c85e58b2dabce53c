#include "client/import_client.h"

#include <sys/stat.h>

#include <sdbus-c++/sdbus-c++.h>

#include <string_view>

#include "service/bus_names.h"
#include "service/memfd.h"

namespace orvia::client {
namespace {

bool starts_with(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

// Sorts a failed call by the error that the bus or sd-bus gave.
CallStatus classify(const sdbus::Error& e) {
  const std::string& name = e.getName();
  if (name == "org.freedesktop.DBus.Error.ServiceUnknown" || name == "org.freedesktop.DBus.Error.NameHasNoOwner" ||
      name == "org.freedesktop.DBus.Error.UnknownObject" || name == "org.freedesktop.DBus.Error.UnknownInterface" ||
      name == "org.freedesktop.DBus.Error.UnknownMethod" || starts_with(name, "org.freedesktop.DBus.Error.Spawn.") ||
      name == "org.freedesktop.systemd1.LoadFailed" || name == "org.freedesktop.systemd1.NoSuchUnit") {
    return CallStatus::NoService;
  }
  if (name == "org.freedesktop.DBus.Error.InvalidArgs" || name == "org.freedesktop.DBus.Error.InconsistentMessage") {
    return CallStatus::BadReply;
  }
  // NoReply, Timeout, TimedOut, Disconnected and errors that the service itself sent: no usable answer.
  return CallStatus::NoReply;
}

}  // namespace

const char* describe(CallStatus status) {
  switch (status) {
    case CallStatus::Replied: return "replied";
    case CallStatus::NoBus: return "no session bus";
    case CallStatus::NoService: return "the importer service is not available";
    case CallStatus::NoReply: return "no reply from the importer service";
    case CallStatus::BadReply: return "the importer service sent a malformed reply";
  }
  return "unknown";
}

CallOutcome find_importable_results(const CallOptions& options) {
  CallOutcome out;
  std::unique_ptr<sdbus::IConnection> connection;
  try {
    connection = options.bus_address.empty() ? sdbus::createSessionBusConnection()
                                             : sdbus::createSessionBusConnectionWithAddress(options.bus_address);
  } catch (const sdbus::Error& e) {
    out.status = CallStatus::NoBus;
    out.error = e.getMessage().empty() ? e.what() : e.getMessage();
    return out;
  } catch (const std::exception& e) {
    out.status = CallStatus::NoBus;
    out.error = e.what();
    return out;
  }

  bool success = false;
  sdbus::UnixFd fd;
  try {
    // A proxy on a borrowed connection runs no event loop thread; the call waits on this thread.
    auto proxy = sdbus::createProxy(*connection, service::kBusName, service::kObjectPath);
    proxy->callMethod(service::kMethodName)
        .onInterface(service::kInterfaceName)
        .withTimeout(std::chrono::duration_cast<std::chrono::microseconds>(options.timeout))
        .storeResultsTo(success, fd);
  } catch (const sdbus::Error& e) {
    out.status = classify(e);
    out.error = e.getName() + (e.getMessage().empty() ? "" : ": " + e.getMessage());
    return out;
  } catch (const std::exception& e) {
    out.status = CallStatus::BadReply;
    out.error = e.what();
    return out;
  }

  if (fd.get() < 0) {
    out.status = CallStatus::BadReply;
    out.error = "the reply carries no file descriptor";
    return out;
  }
  if (options.keep_file) {
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || static_cast<std::uint64_t>(st.st_size) > options.max_archive_size) {
      out.status = CallStatus::BadReply;
      out.error = "the reply's archive is not a memory file of an acceptable size";
      return out;
    }
    out.status = CallStatus::Replied;
    out.success = success;
    if (st.st_size > 0) out.archive_file = service::UniqueFd(fd.release());  // an empty file stands for nil
    if (success && !out.archive_file) {
      out.status = CallStatus::BadReply;
      out.error = "a successful reply without an archive";
    }
    return out;
  }
  auto bytes = service::read_whole_fd(fd.get(), options.max_archive_size);
  if (!bytes.ok()) {
    out.status = CallStatus::BadReply;
    out.error = bytes.error().message;
    return out;
  }
  out.status = CallStatus::Replied;
  out.success = success;
  // An empty memory file stands for nil.
  if (!bytes.value().empty()) out.archive = std::move(bytes.value());
  if (success && !out.archive) {
    out.status = CallStatus::BadReply;
    out.error = "a successful reply without an archive";
  }
  return out;
}

}  // namespace orvia::client
