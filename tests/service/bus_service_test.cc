// The bus front in this process, on a private dbus-daemon that activates nothing: the tests own the
// handler, so they decide when and how each call is answered.
#include "service/bus_service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <sdbus-c++/sdbus-c++.h>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "client/import_client.h"
#include "platform/log.h"
#include "service/bus_names.h"
#include "service/memfd.h"
#include "support/private_bus.h"

namespace orvia::service {
namespace {

using namespace std::chrono_literals;
using test::PrivateBus;
using test::PrivateBusOptions;

constexpr auto kPatience = 30s;

// Runs a BusService on its own thread, as the service program does.
class ServiceThread {
 public:
  ServiceThread(const std::string& address, RequestHandler handler, std::chrono::milliseconds idle = 0ms,
                std::chrono::milliseconds reply_kept = 5s)
      : service_(BusServiceOptions{idle, address, reply_kept}, std::move(handler)) {
    result_ = std::async(std::launch::async, [this] { return service_.run(); });
  }
  ~ServiceThread() {
    service_.stop();
    if (result_.valid()) result_.wait();
  }
  void stop() { service_.stop(); }
  // The exit status of run(), or -1 when it is still running after the wait.
  int wait(std::chrono::milliseconds timeout = kPatience) {
    if (result_.wait_for(timeout) != std::future_status::ready) return -1;
    return result_.get();
  }

 private:
  BusService service_;
  std::future<int> result_;
};

class BusServiceTest : public testing::Test {
 protected:
  PrivateBus bus_{test::options_without_services()};

  client::CallOutcome call() {
    client::CallOptions options;
    options.bus_address = bus_.address();
    options.timeout = kPatience;
    return client::find_importable_results(options);
  }
  void wait_until_serving() { ASSERT_TRUE(bus_.wait_for_name(kBusName, true)) << bus_.daemon_log(); }
};

TEST_F(BusServiceTest, RepliesReachTheirOwnCallersWhateverTheOrder) {
  constexpr int kClients = 6;
  std::mutex m;
  std::condition_variable cv;
  std::vector<BusReply> held;
  std::set<std::thread::id> handler_threads;
  ServiceThread service(bus_.address(), [&](BusReply reply) {
    std::lock_guard lock(m);
    handler_threads.insert(std::this_thread::get_id());
    held.push_back(std::move(reply));
    cv.notify_all();
  });
  wait_until_serving();

  std::vector<std::future<client::CallOutcome>> clients;
  for (int i = 0; i < kClients; ++i) clients.push_back(std::async(std::launch::async, [this] { return call(); }));
  {
    std::unique_lock lock(m);
    ASSERT_TRUE(cv.wait_for(lock, kPatience, [&] { return held.size() == kClients; }));
  }
  // Answer from another thread, last call first, each with its own archive.
  std::thread([&] {
    for (int i = kClients - 1; i >= 0; --i) {
      std::string archive = "reply-" + std::to_string(i);
      held[i](true, &archive);
    }
  }).join();

  std::multiset<std::string> got;
  for (auto& c : clients) {
    client::CallOutcome outcome = c.get();
    ASSERT_EQ(outcome.status, client::CallStatus::Replied) << outcome.error;
    EXPECT_TRUE(outcome.success);
    got.insert(outcome.archive.value_or("(nil)"));
  }
  std::multiset<std::string> expected;
  for (int i = 0; i < kClients; ++i) expected.insert("reply-" + std::to_string(i));
  EXPECT_EQ(got, expected);
  EXPECT_EQ(handler_threads.size(), 1u);
  EXPECT_EQ(handler_threads.count(std::this_thread::get_id()), 0u);
}

// Descriptors of this process open on the same file as `fd`, other than `fd` itself.
int other_handles_on(int fd) {
  struct stat target {};
  if (::fstat(fd, &target) != 0) return -1;
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int other = std::atoi(entry.path().filename().c_str());
    struct stat st {};
    if (other != fd && ::fstat(other, &st) == 0 && st.st_dev == target.st_dev && st.st_ino == target.st_ino) ++count;
  }
  return count;
}

// Whether every other handle on the file has gone within `timeout`.
bool others_let_go(int fd, std::chrono::milliseconds timeout) {
  for (const auto deadline = std::chrono::steady_clock::now() + timeout;
       other_handles_on(fd) != 0 && std::chrono::steady_clock::now() < deadline;)
    std::this_thread::sleep_for(10ms);
  return other_handles_on(fd) == 0;
}

TEST_F(BusServiceTest, LargeArchiveArrivesAsASealedMemoryFileIntact) {
  std::string archive(8 << 20, '\0');
  for (std::size_t i = 0; i < archive.size(); ++i) archive[i] = static_cast<char>((i * 131) >> 3);
  const std::string small(BusServiceOptions::kKeptFrom - 1, 's');
  // The service keeps its own handle on a large file a while after replying, then lets go of it; a
  // smaller one is the caller's alone at once.
  std::atomic<int> calls = 0;
  ServiceThread service(bus_.address(), [&](BusReply reply) { reply(true, calls++ == 0 ? &archive : &small); }, 0ms,
                        3s);
  wait_until_serving();

  auto connection = sdbus::createSessionBusConnectionWithAddress(bus_.address());
  auto proxy = sdbus::createProxy(*connection, kBusName, kObjectPath);
  bool success = false;
  sdbus::UnixFd fd, small_fd;
  proxy->callMethod(kMethodName).onInterface(kInterfaceName).withTimeout(kPatience).storeResultsTo(success, fd);
  EXPECT_TRUE(success);
  ASSERT_GE(fd.get(), 0);
  EXPECT_EQ(::fcntl(fd.get(), F_GET_SEALS), reply_seals());
  auto bytes = read_whole_fd(fd.get(), std::size_t{1} << 30);
  ASSERT_TRUE(bytes.ok()) << bytes.error().message;
  EXPECT_TRUE(bytes.value() == archive);
  EXPECT_EQ(other_handles_on(fd.get()), 1) << "the service's own handle, kept after the reply";
  EXPECT_TRUE(others_let_go(fd.get(), kPatience)) << "the service lets go of it once its time is up";

  proxy->callMethod(kMethodName).onInterface(kInterfaceName).withTimeout(kPatience).storeResultsTo(success, small_fd);
  EXPECT_TRUE(success);
  ASSERT_GE(small_fd.get(), 0);
  EXPECT_EQ(::lseek(small_fd.get(), 0, SEEK_END), static_cast<off_t>(small.size()));
  // The service's handle goes as soon as its thread has sent the reply, which on a busy machine may be
  // a moment after the reply arrived here: well within the 3 s a large file is kept.
  EXPECT_TRUE(others_let_go(small_fd.get(), 1s)) << "a small file is not kept";
}

TEST_F(BusServiceTest, EveryCallIsAnsweredExactlyOnceWhateverTheHandlerDoesThenTheServiceLeavesWhenIdle) {
  struct Case {
    const char* name;
    std::function<void(BusReply)> handler;
    bool success;
    std::optional<std::string> archive;
    const char* log;
  };
  const std::string first = "first";
  const std::vector<Case> cases = {
      {"throws", [](BusReply) { throw std::runtime_error("boom"); }, false, std::nullopt,
       "request handler failed: boom"},
      {"forgets to reply", [](BusReply) {}, false, std::nullopt, "request ended without a reply; answering NO"},
      {"replies twice", [&](BusReply r) { r(true, &first); r(false, nullptr); }, true, "first",
       "request already answered; a second reply is dropped"},
      {"throws after replying", [&](BusReply r) { r(true, &first); throw std::runtime_error("late"); }, true,
       "first", "request already answered; a second reply is dropped"},
      {"success without archive", [](BusReply r) { r(true, nullptr); }, false, std::nullopt,
       "a successful reply without an archive; answering NO"},
      {"replies later from a thread",
       [](BusReply r) {
         std::thread([r] {
           std::this_thread::sleep_for(50ms);
           std::string a = "later";
           r(true, &a);
         }).detach();
       },
       true, "later", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    {
      ServiceThread service(bus_.address(), c.handler, 300ms);
      wait_until_serving();
      client::CallOutcome outcome = call();
      ASSERT_EQ(outcome.status, client::CallStatus::Replied) << outcome.error;
      EXPECT_EQ(outcome.success, c.success);
      EXPECT_EQ(outcome.archive, c.archive);
      EXPECT_EQ(service.wait(), 0);  // returns by itself once idle
    }
    if (c.log) {
      EXPECT_TRUE(log.contains(c.log)) << testing::PrintToString(log.lines());
    }
    ASSERT_TRUE(bus_.wait_for_name(kBusName, false));
  }
}

TEST_F(BusServiceTest, StopWaitsForOutstandingCallsAndASecondInstanceCannotTakeTheName) {
  std::promise<BusReply> arrived;
  ServiceThread service(bus_.address(), [&](BusReply reply) { arrived.set_value(std::move(reply)); });
  wait_until_serving();
  auto client = std::async(std::launch::async, [this] { return call(); });
  auto arrival = arrived.get_future();
  ASSERT_EQ(arrival.wait_for(kPatience), std::future_status::ready);
  BusReply reply = arrival.get();
  {
    BusService second(BusServiceOptions{0ms, bus_.address()}, [](BusReply) {});
    EXPECT_EQ(second.run(), 1);
  }

  service.stop();
  // With a call outstanding the service keeps its name; it cannot leave before answering.
  EXPECT_TRUE(bus_.name_has_owner(kBusName));
  std::string archive = "answered before leaving";
  reply(true, &archive);

  client::CallOutcome outcome = client.get();
  ASSERT_EQ(outcome.status, client::CallStatus::Replied) << outcome.error;
  EXPECT_EQ(outcome.archive, archive);
  EXPECT_EQ(service.wait(), 0);
  EXPECT_FALSE(bus_.name_has_owner(kBusName));
}

}  // namespace
}  // namespace orvia::service
