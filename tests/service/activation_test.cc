// The built orvia4-importer, started by a private dbus-daemon on the first call, as a session bus does.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>

#include <cerrno>
#include <sdbus-c++/sdbus-c++.h>
#include <thread>
#include <vector>

#include "client/import_client.h"
#include "service/bus_names.h"
#include "service/memfd.h"
#include "support/private_bus.h"
#include "support/support.h"

namespace orvia::service {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::PrivateBus;
using test::PrivateBusOptions;

constexpr auto kPatience = 30s;

client::CallOutcome call() {
  client::CallOptions options;
  options.timeout = kPatience;
  return client::find_importable_results(options);  // DBUS_SESSION_BUS_ADDRESS is the private bus
}

// A services folder whose .service file starts the built program with extra arguments.
fs::path services_with_args(const test::TempDir& dir, const std::string& args) {
  fs::path services = dir / "services";
  test::write_file(services / (std::string(kBusName) + ".service"),
                   "[D-BUS Service]\nName=" + std::string(kBusName) +
                       "\nExec=\"" + test::built_program("orvia4-importer").string() + "\" " + args + "\n");
  return services;
}

std::string environment_of(pid_t pid) {
  std::string env = fmt::format("\n{}", test::read_file(fmt::format("/proc/{}/environ", pid)));
  for (char& c : env) {
    if (c == '\0') c = '\n';
  }
  return env;
}

bool wait_for_exit(pid_t pid) {
  for (auto until = std::chrono::steady_clock::now() + kPatience; std::chrono::steady_clock::now() < until;) {
    if (::kill(pid, 0) != 0 && errno == ESRCH) return true;
    std::this_thread::sleep_for(20ms);
  }
  return false;
}

TEST(Activation, FirstCallStartsTheServiceWhichLeavesWhenIdleAndTheNextCallStartsAnotherWithTheBusEnvironment) {
  test::TempDir dir;
  PrivateBusOptions options;
  options.service_dirs = {services_with_args(dir, "--idle-exit 1")};
  options.environment = {{"HOME", (dir / "first-home").string()}};  // no legacy installation: (NO, nil)
  PrivateBus bus(options);
  ASSERT_FALSE(bus.name_has_owner(kBusName));

  client::CallOutcome outcome = call();
  ASSERT_EQ(outcome.status, client::CallStatus::Replied) << outcome.error << "\n" << bus.daemon_log();
  EXPECT_FALSE(outcome.success);
  EXPECT_FALSE(outcome.archive);
  auto pid = bus.name_owner_pid(kBusName);
  ASSERT_TRUE(pid);
  EXPECT_NE(environment_of(*pid).find("\nHOME=" + (dir / "first-home").string() + "\n"), std::string::npos);

  // Two calls on one connection: two replies from the same instance, each (NO, empty sealed file).
  auto connection = sdbus::createSessionBusConnection();
  auto proxy = sdbus::createProxy(*connection, kBusName, kObjectPath);
  for (int i = 0; i < 2; ++i) {
    bool success = true;
    sdbus::UnixFd fd;
    proxy->callMethod(kMethodName).onInterface(kInterfaceName).withTimeout(kPatience).storeResultsTo(success, fd);
    EXPECT_FALSE(success);
    EXPECT_EQ(::fcntl(fd.get(), F_GET_SEALS), reply_seals());
    auto bytes = read_whole_fd(fd.get(), 1024);
    ASSERT_TRUE(bytes.ok());
    EXPECT_EQ(bytes.value(), "");
  }
  EXPECT_EQ(bus.name_owner_pid(kBusName), pid);
  proxy.reset();
  connection.reset();

  ASSERT_TRUE(bus.update_activation_environment({{"HOME", (dir / "second-home").string()}}));
  ASSERT_TRUE(bus.wait_for_name(kBusName, false)) << "the service should leave after a second without calls";
  EXPECT_TRUE(wait_for_exit(*pid));

  outcome = call();
  ASSERT_EQ(outcome.status, client::CallStatus::Replied) << outcome.error;
  auto second = bus.name_owner_pid(kBusName);
  ASSERT_TRUE(second);
  EXPECT_NE(environment_of(*second).find("\nHOME=" + (dir / "second-home").string() + "\n"), std::string::npos);
}

TEST(ServiceProgram, ParsesItsOptionsAndEndsWithFailureWithoutABus) {
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* output;  // expected in stdout
    const char* error;   // expected in stderr
  };
  const std::vector<Case> cases = {
      {{"--help"}, 0, "--idle-exit", ""},
      {{"--version"}, 0, "orvia4-importer 1.0", ""},
      {{"--idle-exit", "-1"}, 2, "", ""},
      {{"--idle-exit", "soon"}, 2, "", ""},
      {{"--bogus"}, 2, "", ""},
      {{}, 1, "", "bus failure"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {test::built_program("orvia4-importer").string()};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    SCOPED_TRACE(testing::PrintToString(c.args));
    test::ProgramRun run = test::run_program(argv, {{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/orvia-bus"}});
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_NE(run.out.find(c.output), std::string::npos) << run.out;
    EXPECT_NE(run.err.find(c.error), std::string::npos) << run.err;
  }
}

}  // namespace
}  // namespace orvia::service
