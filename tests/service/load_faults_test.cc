// The built orvia4-importer under load and under faults, started by a private dbus-daemon for a
// generated installation of the old client: many clients at once, many requests one after another,
// callers that leave before their reply, and the service killed in the middle of a request. Nothing here
// asserts a time: speed is the benchmarks' business.
#include <gtest/gtest.h>
#include <signal.h>

#include <climits>
#include <fstream>
#include <future>
#include <sdbus-c++/sdbus-c++.h>

#include "client/import_client.h"
#include "legacy/core_data_wrapper.h"
#include "service/bus_names.h"
#include "service/import_request.h"
#include "support/private_bus.h"

namespace orvia::service {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// An installation of the old client made by the sample generator, and a bus whose services see HOME
// there (and `environment` besides).
struct SampleHome {
  explicit SampleHome(const std::string& profile)
      : run(test::run_program({test::built_program("orvia4-sample-home").string(), home(), "--profile", profile, "--quiet"})) {}
  std::string home() const { return (dir / "home").string(); }
  fs::path store() const { return MQCoreDataWrapper::storePathForHome(home()); }
  test::PrivateBusOptions serving(std::map<std::string, std::string> environment = {}) const {
    environment["HOME"] = home();
    return {.environment = environment};
  }
  test::TempDir dir;
  test::ProgramRun run;
};

// "VmHWM" (the most resident memory the process has ever had) or "VmRSS" (resident now), in KiB.
long memory_of(pid_t pid, const std::string& key) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  long value = -1;
  for (std::string word; status >> word;)
    if (word == key + ":" && status >> value) break;
  return value;
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
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec))
    if (fs::read_symlink(entry.path(), ec) == fs::canonical(file, ec)) return true;
  return false;
}

bool wait_until(const std::function<bool()>& condition) {
  for (auto until = std::chrono::steady_clock::now() + 30s; std::chrono::steady_clock::now() < until;
       std::this_thread::sleep_for(2ms))
    if (condition()) return true;
  return condition();
}

client::CallOutcome call() { return client::find_importable_results(); }

// The first reply, which every later one must equal, and the instance that gave it.
void first_reply(const test::PrivateBus& bus, std::string& reference, std::optional<pid_t>& pid) {
  client::CallOutcome first = call();
  ASSERT_EQ(first.status, client::CallStatus::Replied) << first.error << "\n" << bus.daemon_log();
  ASSERT_TRUE(first.success && first.archive);
  reference = *first.archive;
  pid = bus.name_owner_pid(kBusName);
  ASSERT_TRUE(pid);
}

// The service logs a second reply to one call, or a call dropped without a reply, where activated
// services write: the daemon's log must hold neither.
void expect_every_call_answered_once(const test::PrivateBus& bus) {
  for (const char* line : {"a second reply is dropped", "request ended without a reply"})
    EXPECT_EQ(bus.daemon_log().find(line), std::string::npos) << bus.daemon_log();
}

TEST(ServiceLoad, ClientsAtOnceThenAThousandInTurnAreEachAnsweredOnceWithOneArchiveInBoundedMemory) {
  SampleHome sample("demo");
  ASSERT_EQ(sample.run.status, 0) << sample.run.err;
  // jemalloc keeps freed pages resident for a while and gives them back along a curve over that time, so
  // resident memory climbs for the first seconds of steady requests: this test is about what the service
  // keeps, so its allocator gives pages back at once.
  test::PrivateBus bus(sample.serving({{"MALLOC_CONF", "dirty_decay_ms:0,muzzy_decay_ms:0"}}));
  // Started without a request (StartServiceByName), so that its memory before any import can be read.
  std::uint32_t started = 0;
  auto connection = sdbus::createSessionBusConnectionWithAddress(bus.address());
  sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus")
      ->callMethod("StartServiceByName").onInterface("org.freedesktop.DBus")
      .withArguments(std::string(kBusName), std::uint32_t{0}).withTimeout(30s).storeResultsTo(started);
  auto started_pid = bus.name_owner_pid(kBusName);
  ASSERT_TRUE(started_pid);
  const long start_peak = memory_of(*started_pid, "VmHWM");
  std::string reference;
  std::optional<pid_t> pid;
  ASSERT_NO_FATAL_FAILURE(first_reply(bus, reference, pid));
  EXPECT_EQ(pid, started_pid);
  const long one_request = std::max(0L, memory_of(*pid, "VmHWM") - start_peak);

  // Twenty clients at once, a connection of their own for every request.
  constexpr int kClients = 20, kPerClient = 25;
  std::vector<std::string> failures(kClients);  // each client's first
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      for (int i = 0; i < kPerClient; ++i) {
        client::CallOutcome reply = call();
        if (failures[c].empty() && !(reply.status == client::CallStatus::Replied && reply.success && reply.archive == reference))
          failures[c] = std::string(client::describe(reply.status)) + " " + reply.error;
      }
    });
  }
  for (auto& t : clients) t.join();
  EXPECT_EQ(failures, std::vector<std::string>(kClients));
  // Requests are imported one after another on the main queue; at most the stores of the waiting ones are
  // being opened meanwhile. So the peak under load stays well within what twenty requests running side by
  // side would need; the slack covers thread stacks and per-thread malloc arenas.
  if (kMemoryBoundsApply) {
    EXPECT_LE(memory_of(*pid, "VmHWM"), start_peak + kClients * one_request + 8 * 1024);
  }

  // Then a thousand in turn. Resident memory is read every 50 requests: the highest reading of requests 100
  // to 300 (the first ones settle the allocator's pools, SQLite's and ICU's caches and the class registries)
  // against the lowest of requests 800 to 1000. Resident memory moves by a few hundred KiB with where the
  // allocator places things, with no trend; the slack absorbs that, while a leak of 4 KiB per request (2 MB
  // over the 500 requests between the windows) still shows.
  long settled_kib = 0, final_kib = LONG_MAX;
  int same = 0;
  for (int i = 1; i <= 1000; ++i) {
    client::CallOutcome reply = call();
    ASSERT_EQ(reply.status, client::CallStatus::Replied) << "request " << i << ": " << reply.error;
    same += reply.success && reply.archive == reference;
    if (i % 50 == 0 && i >= 100 && i <= 300) settled_kib = std::max(settled_kib, memory_of(*pid, "VmRSS"));
    if (i % 50 == 0 && i >= 800) final_kib = std::min(final_kib, memory_of(*pid, "VmRSS"));
  }
  EXPECT_EQ(same, 1000);
  EXPECT_EQ(bus.name_owner_pid(kBusName), pid) << "one instance serves the whole load";
  expect_every_call_answered_once(bus);
  if (kMemoryBoundsApply) {
    EXPECT_LE(final_kib, settled_kib + 1536) << "resident KiB, requests 100-300 against 800-1000";
  }
}

// A caller that sends the request on a connection of its own and closes it before the reply has come,
// as a client that quits or crashes does.
struct LeavingCaller {
  explicit LeavingCaller(const std::string& address)
      : connection(sdbus::createSessionBusConnectionWithAddress(address)),
        proxy(sdbus::createProxy(*connection, kBusName, kObjectPath)) {
    proxy->callMethodAsync(kMethodName).onInterface(kInterfaceName).uponReplyInvoke([](const sdbus::Error*, bool, sdbus::UnixFd) {});
  }
  void leave() { proxy.reset(), connection.reset(); }
  std::unique_ptr<sdbus::IConnection> connection;
  std::unique_ptr<sdbus::IProxy> proxy;
};

TEST(ServiceFaults, EveryRouteGivesOneReplyCallersThatLeaveDisturbNobodyAndAKilledServiceIsStartedAgain) {
  SampleHome sample("typical");  // requests long enough to leave or kill in the middle of one
  ASSERT_EQ(sample.run.status, 0) << sample.run.err;
  const test::TreeSnapshot before = test::snapshot_tree(sample.home());
  test::PrivateBus bus(sample.serving());
  std::string reference;
  std::optional<pid_t> pid;
  ASSERT_NO_FATAL_FAILURE(first_reply(bus, reference, pid));

  // Album media are converted on a worker while the archive is written; every route gives one archive:
  // through the bus, in this process, and streamed to a file by the command (which fails on a file that
  // cannot be made).
  ImportOutcome in_process = run_direct_import(sample.home());
  EXPECT_TRUE(in_process.success && in_process.archive == reference);
  test::TempDir dir;
  auto stream_to = [&](const fs::path& file) {
    return test::run_program({test::built_program("orvia4-import").string(), "--direct", "--home", sample.home(),
                              "--format", "none", "--archive-out", file.string()}).status;
  };
  EXPECT_EQ(stream_to(dir / "reply.archive"), 0);
  EXPECT_TRUE(test::read_file(dir / "reply.archive") == reference);
  EXPECT_EQ(stream_to(dir / "missing" / "reply.archive"), 4);
  ASSERT_TRUE(wait_until([&] { return !has_open(*pid, sample.store()); })) << "the store stays open after a request";

  // One caller whose request is being imported when it leaves, well-behaved clients waiting meanwhile, and
  // more callers that leave while their requests are still queued.
  LeavingCaller running(bus.address());
  ASSERT_TRUE(wait_until([&] { return has_open(*pid, sample.store()); })) << "the request did not start";
  std::vector<std::future<client::CallOutcome>> clients;
  for (int i = 0; i < 3; ++i) clients.push_back(std::async(std::launch::async, call));
  for (int i = 0; i < 4; ++i) LeavingCaller(bus.address()).leave();
  running.leave();
  for (auto& c : clients) {
    client::CallOutcome reply = c.get();
    ASSERT_EQ(reply.status, client::CallStatus::Replied) << reply.error << "\n" << bus.daemon_log();
    EXPECT_TRUE(reply.success && reply.archive == reference);
  }
  EXPECT_EQ(bus.name_owner_pid(kBusName), pid) << "the same instance serves on";
  expect_every_call_answered_once(bus);

  // Killed in the middle of a request: that caller gets no reply, the next call a new instance.
  ASSERT_TRUE(wait_until([&] { return !has_open(*pid, sample.store()); }));
  auto victim = std::async(std::launch::async, call);
  ASSERT_TRUE(wait_until([&] { return has_open(*pid, sample.store()); })) << "the request did not start";
  ASSERT_EQ(::kill(*pid, SIGKILL), 0);
  EXPECT_EQ(victim.get().status, client::CallStatus::NoReply);
  ASSERT_TRUE(bus.wait_for_name(kBusName, false));
  client::CallOutcome again = call();
  ASSERT_EQ(again.status, client::CallStatus::Replied) << again.error << "\n" << bus.daemon_log();
  EXPECT_TRUE(again.success && again.archive == reference);
  EXPECT_NE(bus.name_owner_pid(kBusName).value_or(*pid), *pid) << "a new instance";
  EXPECT_EQ(test::snapshot_tree(sample.home()), before) << "the legacy files are unchanged";
}

}  // namespace
}  // namespace orvia::service
