// The bus front in this process, on a private dbus-daemon that activates nothing: the tests own the
// handler, so they decide when and how each call is answered.
#include "service/bus_service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <condition_variable>
#include <future>
#include <sdbus-c++/sdbus-c++.h>
#include <set>
#include <thread>

#include "client/import_client.h"
#include "platform/log.h"
#include "service/bus_names.h"
#include "service/memfd.h"
#include "support/private_bus.h"

namespace orvia::service {
namespace {

using namespace std::chrono_literals;
constexpr auto kPatience = 30s;

// Runs a BusService on its own thread, as the service program does.
class ServiceThread {
 public:
  ServiceThread(const std::string& address, RequestHandler handler, std::chrono::milliseconds idle = 0ms,
                std::chrono::milliseconds reply_kept = 5s)
      : service_(BusServiceOptions{idle, address, reply_kept}, std::move(handler)),
        result_(std::async(std::launch::async, [this] { return service_.run(); })) {}
  ~ServiceThread() {
    service_.stop();
    if (result_.valid()) result_.wait();
  }
  void stop() { service_.stop(); }
  // The exit status of run(), or -1 when it is still running after the wait.
  int wait() { return result_.wait_for(kPatience) == std::future_status::ready ? result_.get() : -1; }

 private:
  BusService service_;
  std::future<int> result_;
};

class BusServiceTest : public testing::Test {
 protected:
  test::PrivateBus bus_{test::options_without_services()};
  client::CallOutcome call() { return client::find_importable_results({.timeout = kPatience, .bus_address = bus_.address()}); }
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
  // Answered from another thread, last call first, each with its own archive.
  std::thread([&] {
    for (int i = kClients - 1; i >= 0; --i) {
      std::string archive = "reply-" + std::to_string(i);
      held[i](true, &archive);
    }
  }).join();
  std::multiset<std::string> got, expected;
  for (int i = 0; i < kClients; ++i) {
    client::CallOutcome outcome = clients[i].get();
    got.insert(std::string(client::describe(outcome.status)) + " " + std::to_string(outcome.success) + " " +
               outcome.archive.value_or("(nil)"));
    expected.insert(std::string(client::describe(client::CallStatus::Replied)) + " 1 reply-" + std::to_string(i));
  }
  EXPECT_EQ(got, expected);
  EXPECT_EQ(handler_threads.size(), 1u);
  EXPECT_EQ(handler_threads.count(std::this_thread::get_id()), 0u);
}

// Descriptors of this process open on the same file as `fd`, other than `fd` itself, once they have not
// changed for `settle` (or `patience` has passed).
int other_handles_on(int fd, std::chrono::milliseconds patience = 0ms) {
  struct stat target {};
  ::fstat(fd, &target);
  int count = 0;
  for (auto deadline = std::chrono::steady_clock::now() + patience;; std::this_thread::sleep_for(10ms)) {
    count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      const int other = std::atoi(entry.path().filename().c_str());
      struct stat st {};
      count += other != fd && ::fstat(other, &st) == 0 && st.st_dev == target.st_dev && st.st_ino == target.st_ino;
    }
    if (count == 0 || std::chrono::steady_clock::now() >= deadline) return count;
  }
}

TEST_F(BusServiceTest, LargeArchiveArrivesAsASealedMemoryFileIntact) {
  std::string archive(8 << 20, '\0');
  for (std::size_t i = 0; i < archive.size(); ++i) archive[i] = static_cast<char>((i * 131) >> 3);
  const std::string small(BusServiceOptions::kKeptFrom - 1, 's');
  // The service keeps its own handle on a large file a while after replying (3 s here), then lets go of
  // it; a smaller one is the caller's alone at once.
  std::atomic<int> calls = 0;
  ServiceThread service(bus_.address(), [&](BusReply reply) { reply(true, calls++ == 0 ? &archive : &small); }, 0ms, 3s);
  wait_until_serving();
  auto connection = sdbus::createSessionBusConnectionWithAddress(bus_.address());
  auto proxy = sdbus::createProxy(*connection, kBusName, kObjectPath);
  bool success = false;
  sdbus::UnixFd fd, small_fd;
  proxy->callMethod(kMethodName).onInterface(kInterfaceName).withTimeout(kPatience).storeResultsTo(success, fd);
  EXPECT_TRUE(success);
  EXPECT_EQ(::fcntl(fd.get(), F_GET_SEALS), reply_seals());
  auto bytes = read_whole_fd(fd.get(), std::size_t{1} << 30);
  ASSERT_TRUE(bytes.ok()) << bytes.error().message;
  EXPECT_TRUE(bytes.value() == archive);
  EXPECT_EQ(other_handles_on(fd.get()), 1) << "the service's own handle, kept after the reply";
  EXPECT_EQ(other_handles_on(fd.get(), kPatience), 0) << "the service lets go of it once its time is up";
  proxy->callMethod(kMethodName).onInterface(kInterfaceName).withTimeout(kPatience).storeResultsTo(success, small_fd);
  EXPECT_EQ(std::to_string(success) + " " + std::to_string(::lseek(small_fd.get(), 0, SEEK_END)), "1 " + std::to_string(small.size()));
  // The service's handle goes as soon as its thread has sent the reply, which on a busy machine may be a
  // moment after the reply arrived here: well within the 3 s a large file is kept.
  EXPECT_EQ(other_handles_on(small_fd.get(), 1s), 0) << "a small file is not kept";
}

TEST_F(BusServiceTest, EveryCallIsAnsweredExactlyOnceWhateverTheHandlerDoesThenTheServiceLeavesWhenIdle) {
  const std::string first = "first";
  const std::string twice = "request already answered; a second reply is dropped";
  const std::vector<std::tuple<const char*, std::function<void(BusReply)>, std::string, std::string>> cases = {
      {"throws", [](BusReply) { throw std::runtime_error("boom"); }, "0 nil", "request handler failed: boom"},
      {"forgets to reply", [](BusReply) {}, "0 nil", "request ended without a reply; answering NO"},
      {"replies twice", [&](BusReply r) { r(true, &first); r(false, nullptr); }, "1 first", twice},
      {"throws after replying", [&](BusReply r) { r(true, &first); throw std::runtime_error("late"); }, "1 first", twice},
      {"success without archive", [](BusReply r) { r(true, nullptr); }, "0 nil",
       "a successful reply without an archive; answering NO"},
      {"replies later from a thread", [](BusReply r) {
         std::thread([r] {
           std::this_thread::sleep_for(50ms);
           std::string a = "later";
           r(true, &a);
         }).detach();
       }, "1 later", ""},
  };
  for (const auto& [name, handler, reply, line] : cases) {
    SCOPED_TRACE(name);
    LogCapture log;
    {
      ServiceThread service(bus_.address(), handler, 300ms);
      wait_until_serving();
      client::CallOutcome outcome = call();
      ASSERT_EQ(outcome.status, client::CallStatus::Replied) << outcome.error;
      EXPECT_EQ(std::to_string(outcome.success) + " " + outcome.archive.value_or("nil"), reply);
      EXPECT_EQ(service.wait(), 0);  // returns by itself once idle
    }
    EXPECT_TRUE(line.empty() || log.contains(line)) << testing::PrintToString(log.lines());
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
  EXPECT_EQ(BusService(BusServiceOptions{0ms, bus_.address()}, [](BusReply) {}).run(), 1);
  service.stop();
  EXPECT_TRUE(bus_.name_has_owner(kBusName)) << "with a call outstanding the service cannot leave";
  std::string archive = "answered before leaving";
  reply(true, &archive);
  EXPECT_EQ(client.get().archive, archive);
  EXPECT_EQ(service.wait(), 0);
  EXPECT_FALSE(bus_.name_has_owner(kBusName));
}

}  // namespace
}  // namespace orvia::service
