// The built orvia4-importer under load and under faults, started by a private dbus-daemon for a
// generated installation of the old client: many clients at once, many requests one after another,
// callers that leave before their reply, and the service killed in the middle of a request. Figures
// (requests, concurrency, memory, time) are printed on "load:" lines; nothing here asserts a time.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <sdbus-c++/sdbus-c++.h>
#include <sstream>
#include <thread>
#include <vector>

#include "client/import_client.h"
#include "service/bus_names.h"
#include "service/import_request.h"
#include "support/private_bus.h"
#include "support/support.h"

namespace orvia::service {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::PrivateBus;
using test::PrivateBusOptions;

// ---- helpers ------------------------------------------------------------------------------------------

// An installation of the old client made by the sample generator in a temporary home folder.
struct SampleHome {
  explicit SampleHome(const std::string& profile) {
    test::ProgramRun run =
        test::run_program({test::built_program("orvia4-sample-home").string(), home(), "--profile", profile, "--quiet"});
    if (run.status != 0) error = "orvia4-sample-home (target orvia4-sample-home) failed: " + run.err;
  }
  std::string home() const { return (dir / "home").string(); }
  // The Core Data store of the installation.
  fs::path store() const {
    return dir / "home/Library/Containers/com.brenvik.velmora/Data/Library/Application Support/Velmora/InstaGramStore.db";
  }
  test::TempDir dir;
  std::string error;
};

struct ProcessMemory {
  long peak_kib = -1;      // VmHWM: the most resident memory the process has ever had
  long resident_kib = -1;  // VmRSS: resident now
};

ProcessMemory memory_of(pid_t pid) {
  ProcessMemory memory;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    std::istringstream fields(line);
    std::string key;
    long value = -1;
    fields >> key >> value;
    if (key == "VmHWM:") memory.peak_kib = value;
    if (key == "VmRSS:") memory.resident_kib = value;
  }
  return memory;
}

// Under AddressSanitizer freed memory waits in a quarantine of up to 256 MB before it is reused, so
// resident memory grows with every request by design: the memory bounds hold only for normal builds.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kMemoryBoundsApply = false;
#else
constexpr bool kMemoryBoundsApply = true;
#endif

// Whether the process has `file` open: the service holds the store open while a request reads it.
bool has_open(pid_t pid, const fs::path& file) {
  std::error_code ec;
  const fs::path wanted = fs::canonical(file, ec);
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec)) {
    std::error_code link_ec;
    if (fs::read_symlink(entry.path(), link_ec) == wanted) return true;
  }
  return false;
}

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 30s) {
  for (auto until = Clock::now() + timeout; Clock::now() < until; std::this_thread::sleep_for(2ms)) {
    if (condition()) return true;
  }
  return condition();
}

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

client::CallOutcome call() { return client::find_importable_results(); }

// org.freedesktop.DBus.StartServiceByName: the bus starts the service without a request, so that its
// memory before any import can be read. The pid of the started service.
std::optional<pid_t> start_service_without_request(const PrivateBus& bus) {
  try {
    auto connection = sdbus::createSessionBusConnectionWithAddress(bus.address());
    auto proxy = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    std::uint32_t result = 0;
    proxy->callMethod("StartServiceByName")
        .onInterface("org.freedesktop.DBus")
        .withArguments(std::string(kBusName), std::uint32_t{0})
        .withTimeout(30s)
        .storeResultsTo(result);
  } catch (const sdbus::Error& e) {
    ADD_FAILURE() << e.getName() << ": " << e.getMessage() << "\n" << bus.daemon_log();
    return std::nullopt;
  }
  return bus.name_owner_pid(kBusName);
}

// A caller that sends the request on a connection of its own and closes that connection before the
// reply has come, as a client that quits or crashes does.
class LeavingCaller {
 public:
  explicit LeavingCaller(const std::string& address)
      : connection_(sdbus::createSessionBusConnectionWithAddress(address)),
        proxy_(sdbus::createProxy(*connection_, kBusName, kObjectPath)) {
    // Written out at once on an idle connection; at the latest, closing flushes it.
    proxy_->callMethodAsync(kMethodName)
        .onInterface(kInterfaceName)
        .uponReplyInvoke([](const sdbus::Error*, bool, sdbus::UnixFd) {});
  }
  // Closes the connection; the reply, when it comes, has nobody to go to.
  void leave() {
    proxy_.reset();
    connection_.reset();
  }

 private:
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
};

// The service logs a second reply to one call, or a call dropped without a reply; the daemon's log
// (which is where activated services write) must hold neither.
void expect_every_call_answered_once(const PrivateBus& bus) {
  const std::string log = bus.daemon_log();
  EXPECT_EQ(log.find("a second reply is dropped"), std::string::npos) << log;
  EXPECT_EQ(log.find("request ended without a reply"), std::string::npos) << log;
}

#define REQUIRE_SAMPLE(home) ASSERT_TRUE((home).error.empty()) << (home).error

// A bus whose services see HOME at the sample installation, and `environment` besides.
PrivateBusOptions serving(const SampleHome& sample, std::map<std::string, std::string> environment = {}) {
  PrivateBusOptions options;
  options.environment = std::move(environment);
  options.environment["HOME"] = sample.home();
  return options;
}

// The first reply, which every later one must equal, the instance that gave it and how long it took.
void first_reply(const PrivateBus& bus, std::string& reference, std::optional<pid_t>& pid, double* took = nullptr) {
  const auto start = Clock::now();
  client::CallOutcome first = call();
  if (took) *took = seconds_since(start);
  ASSERT_EQ(first.status, client::CallStatus::Replied) << first.error << "\n" << bus.daemon_log();
  ASSERT_TRUE(first.success && first.archive);
  reference = *first.archive;
  pid = bus.name_owner_pid(kBusName);
  ASSERT_TRUE(pid);
}

// ---- load --------------------------------------------------------------------------------------------

TEST(ServiceLoad, ClientsAtOnceThenAThousandInTurnAreEachAnsweredOnceWithOneArchiveInBoundedMemory) {
  SampleHome sample("demo");
  REQUIRE_SAMPLE(sample);
  // jemalloc keeps freed pages resident for a while (ten seconds by default) and gives them back along a
  // curve over that time, so resident memory climbs for the first seconds of steady requests, more on a
  // slow machine: this test is about what the service keeps, so its allocator gives pages back at once.
  PrivateBus bus(serving(sample, {{"MALLOC_CONF", "dirty_decay_ms:0,muzzy_decay_ms:0"}}));

  auto started_pid = start_service_without_request(bus);
  ASSERT_TRUE(started_pid);
  const ProcessMemory started = memory_of(*started_pid);
  std::string reference;
  std::optional<pid_t> pid;
  ASSERT_NO_FATAL_FAILURE(first_reply(bus, reference, pid));
  EXPECT_EQ(pid, started_pid);
  const ProcessMemory after_one = memory_of(*pid);

  constexpr int kClients = 20;
  constexpr int kPerClient = 25;
  std::atomic<int> same = 0;
  std::vector<std::string> failures(kClients);  // each client's first
  auto start = Clock::now();
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      for (int i = 0; i < kPerClient; ++i) {
        client::CallOutcome reply = call();  // a connection of its own for every request
        const bool ok = reply.status == client::CallStatus::Replied && reply.success && reply.archive == reference;
        same += ok;
        if (!ok && failures[c].empty()) failures[c] = std::string(client::describe(reply.status)) + " " + reply.error;
      }
    });
  }
  for (auto& t : clients) t.join();
  const double concurrent_time = seconds_since(start);
  const ProcessMemory after_load = memory_of(*pid);
  EXPECT_EQ(same.load(), kClients * kPerClient);
  for (int c = 0; c < kClients; ++c) EXPECT_EQ(failures[c], "") << "client " << c;

  // Requests are imported one after another on the main queue; at most the stores of the waiting ones
  // are being opened meanwhile. So the peak under load stays well within what twenty requests running
  // side by side would need. The slack covers thread stacks and per-thread malloc arenas.
  const long one_request = std::max(0L, after_one.peak_kib - started.peak_kib);
  const long bound_kib = started.peak_kib + kClients * one_request + 8 * 1024;
  if (kMemoryBoundsApply) {
    EXPECT_LE(after_load.peak_kib, bound_kib);
  }

  // Then a thousand in turn. Resident memory is read every 50 requests: the highest reading of requests
  // 100 to 300 (the first ones settle the allocator's pools, SQLite's and ICU's caches and the class
  // registries) against the lowest of requests 800 to 1000.
  long settled_kib = 0, final_kib = LONG_MAX;
  same = 0;
  start = Clock::now();
  for (int i = 1; i <= 1000; ++i) {
    client::CallOutcome reply = call();
    ASSERT_EQ(reply.status, client::CallStatus::Replied) << "request " << i << ": " << reply.error;
    same += reply.success && reply.archive == reference;
    if (i % 50 == 0 && i >= 100 && i <= 300) settled_kib = std::max(settled_kib, memory_of(*pid).resident_kib);
    if (i % 50 == 0 && i >= 800) final_kib = std::min(final_kib, memory_of(*pid).resident_kib);
  }
  const double sequential_time = seconds_since(start);
  EXPECT_EQ(same.load(), 1000);
  EXPECT_EQ(bus.name_owner_pid(kBusName), pid) << "one instance serves the whole load";
  expect_every_call_answered_once(bus);

  // Once settled, each request must give back what it took. Resident memory still moves up or down
  // by a few hundred KiB with where the allocator places things, with no trend over thousands of
  // requests; comparing the highest early reading with the lowest late one, with slack beyond those
  // moves, absorbs that, while a leak of 4 KiB per request (2 MB over the 500 requests between the
  // windows) still shows.
  if (kMemoryBoundsApply) {
    EXPECT_LE(final_kib, settled_kib + 1536)
        << "highest of requests 100-300: " << settled_kib << " KiB, lowest of 800-1000: " << final_kib << " KiB";
  }
  std::cout << "load: demo home, " << kClients * kPerClient << " requests from " << kClients
            << " concurrent clients in " << concurrent_time << " s, then 1000 in turn in " << sequential_time
            << " s\nload: service peak (VmHWM) at start " << started.peak_kib << " KiB, after one request "
            << after_one.peak_kib << " KiB, after the clients " << after_load.peak_kib << " KiB (bound " << bound_kib
            << "); resident (VmRSS) highest of requests 100-300 in turn " << settled_kib << " KiB, lowest of 800-1000 "
            << final_kib << " KiB\n";
}

// ---- faults ------------------------------------------------------------------------------------------

TEST(ServiceFaults, EveryRouteGivesOneReplyCallersThatLeaveDisturbNobodyAndAKilledServiceIsStartedAgain) {
  SampleHome sample("typical");  // requests long enough to leave or kill in the middle of one
  REQUIRE_SAMPLE(sample);
  const test::TreeSnapshot before = test::snapshot_tree(sample.home());
  PrivateBus bus(serving(sample));
  std::string reference;
  std::optional<pid_t> pid;
  double first_time = 0;
  ASSERT_NO_FATAL_FAILURE(first_reply(bus, reference, pid, &first_time));
  const ProcessMemory typical = memory_of(*pid);

  // Album media are converted on a worker while the archive is written; every route gives one archive:
  // through the bus, in this process, and streamed to a file by the command.
  ImportOutcome in_process = run_direct_import(sample.home());
  ASSERT_TRUE(in_process.success && in_process.archive);
  EXPECT_TRUE(*in_process.archive == reference);
  test::TempDir dir;
  auto stream_to = [&](const fs::path& file) {
    return test::run_program({test::built_program("orvia4-import").string(), "--direct", "--home", sample.home(),
                              "--format", "none", "--archive-out", file.string()});
  };
  test::ProgramRun streamed = stream_to(dir / "reply.archive");
  ASSERT_EQ(streamed.status, 0) << streamed.err;
  EXPECT_TRUE(test::read_file(dir / "reply.archive") == reference);
  EXPECT_EQ(stream_to(dir / "missing" / "reply.archive").status, 4) << "a file that cannot be made";
  ASSERT_TRUE(wait_until([&] { return !has_open(*pid, sample.store()); })) << "the store stays open after a request";

  // One caller whose request is being imported when it leaves, well-behaved clients waiting meanwhile,
  // and more callers that leave while their requests are still queued.
  auto start = Clock::now();
  LeavingCaller running(bus.address());
  ASSERT_TRUE(wait_until([&] { return has_open(*pid, sample.store()); })) << "the request did not start";
  constexpr int kClients = 3;
  constexpr int kQueuedLeavers = 4;
  std::vector<std::future<client::CallOutcome>> clients;
  for (int i = 0; i < kClients; ++i) clients.push_back(std::async(std::launch::async, call));
  for (int i = 0; i < kQueuedLeavers; ++i) LeavingCaller(bus.address()).leave();
  running.leave();
  for (auto& c : clients) {
    client::CallOutcome reply = c.get();
    ASSERT_EQ(reply.status, client::CallStatus::Replied) << reply.error << "\n" << bus.daemon_log();
    EXPECT_TRUE(reply.success);
    EXPECT_EQ(reply.archive, reference);
  }
  const double leavers_time = seconds_since(start);
  EXPECT_EQ(bus.name_owner_pid(kBusName), pid) << "the same instance serves on";
  expect_every_call_answered_once(bus);

  // Killed in the middle of a request: that caller gets no reply, the next call a new instance.
  ASSERT_TRUE(wait_until([&] { return !has_open(*pid, sample.store()); }));
  auto victim = std::async(std::launch::async, call);
  ASSERT_TRUE(wait_until([&] { return has_open(*pid, sample.store()); })) << "the request did not start";
  ASSERT_EQ(::kill(*pid, SIGKILL), 0);
  client::CallOutcome lost = victim.get();
  EXPECT_EQ(lost.status, client::CallStatus::NoReply) << lost.error;
  ASSERT_TRUE(bus.wait_for_name(kBusName, false));

  start = Clock::now();
  client::CallOutcome again = call();
  const double again_time = seconds_since(start);
  ASSERT_EQ(again.status, client::CallStatus::Replied) << again.error << "\n" << bus.daemon_log();
  EXPECT_TRUE(again.success);
  EXPECT_EQ(again.archive, reference);
  auto second = bus.name_owner_pid(kBusName);
  ASSERT_TRUE(second);
  EXPECT_NE(*second, *pid) << "a new instance";
  EXPECT_EQ(test::snapshot_tree(sample.home()), before) << "the legacy files are unchanged";
  std::cout << "load: typical home, one request (activation included) " << first_time << " s, service peak "
            << typical.peak_kib << " KiB; " << kClients << " clients served while " << 1 + kQueuedLeavers
            << " callers left before their replies (one mid-request), in " << leavers_time
            << " s; killed mid-request, the next call started a new instance and was answered in " << again_time
            << " s\n";
}

}  // namespace
}  // namespace orvia::service
