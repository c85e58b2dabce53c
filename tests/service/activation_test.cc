// The built orvia4-importer, started by a private dbus-daemon on the first call, as a session bus does,
// and its command line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <sdbus-c++/sdbus-c++.h>
#include <thread>

#include "client/import_client.h"
#include "service/bus_names.h"
#include "service/memfd.h"
#include "support/private_bus.h"

namespace orvia::service {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Whether the process sees HOME at `home`.
bool sees_home(std::optional<pid_t> pid, const fs::path& home) {
  std::string env = "\n" + test::read_file("/proc/" + std::to_string(pid.value_or(0)) + "/environ");
  std::replace(env.begin(), env.end(), '\0', '\n');
  return env.find("\nHOME=" + home.string() + "\n") != std::string::npos;
}

TEST(Activation, FirstCallStartsTheServiceWhichLeavesWhenIdleAndTheNextCallStartsAnotherWithTheBusEnvironment) {
  test::TempDir dir;
  test::write_file(dir / "services" / (std::string(kBusName) + ".service"),
                   "[D-BUS Service]\nName=" + std::string(kBusName) + "\nExec=\"" +
                       test::built_program("orvia4-importer").string() + "\" --idle-exit 1\n");
  test::PrivateBus bus({.service_dirs = {dir / "services"}, .environment = {{"HOME", (dir / "first").string()}}});
  ASSERT_FALSE(bus.name_has_owner(kBusName));
  client::CallOptions options;
  options.timeout = 30s;
  // No legacy installation: (NO, an empty sealed file), twice on one connection from the same instance.
  client::CallOutcome outcome = client::find_importable_results(options);
  ASSERT_EQ(outcome.status, client::CallStatus::Replied) << outcome.error << "\n" << bus.daemon_log();
  EXPECT_FALSE(outcome.success || outcome.archive);
  const auto pid = bus.name_owner_pid(kBusName);
  EXPECT_TRUE(sees_home(pid, dir / "first"));
  auto connection = sdbus::createSessionBusConnection();
  auto proxy = sdbus::createProxy(*connection, kBusName, kObjectPath);
  for (int i = 0; i < 2; ++i) {
    bool success = true;
    sdbus::UnixFd fd;
    proxy->callMethod(kMethodName).onInterface(kInterfaceName).withTimeout(30s).storeResultsTo(success, fd);
    EXPECT_EQ(std::to_string(success) + " " + std::to_string(::fcntl(fd.get(), F_GET_SEALS) == reply_seals()) + " [" +
                  read_whole_fd(fd.get(), 1024).value() + "]",
              "0 1 []");
  }
  EXPECT_EQ(bus.name_owner_pid(kBusName), pid);
  proxy.reset();
  connection.reset();
  // A second without calls: it leaves, and the next call starts one that sees the changed environment.
  ASSERT_TRUE(bus.update_activation_environment({{"HOME", (dir / "second").string()}}));
  ASSERT_TRUE(bus.wait_for_name(kBusName, false)) << "the service should leave after a second without calls";
  for (int i = 0; i < 1500 && ::kill(*pid, 0) == 0; ++i) std::this_thread::sleep_for(20ms);
  EXPECT_NE(::kill(*pid, 0), 0) << "the first instance has ended";
  EXPECT_EQ(client::find_importable_results(options).status, client::CallStatus::Replied);
  EXPECT_TRUE(sees_home(bus.name_owner_pid(kBusName), dir / "second"));
}

TEST(ServiceProgram, ParsesItsOptionsAndEndsWithFailureWithoutABus) {
  const std::vector<std::tuple<std::vector<std::string>, int, const char*, const char*>> cases = {
      {{"--help"}, 0, "--idle-exit", ""},  {{"--version"}, 0, "orvia4-importer 1.0", ""},
      {{"--idle-exit", "-1"}, 2, "", ""},  {{"--idle-exit", "soon"}, 2, "", ""},
      {{"--bogus"}, 2, "", ""},            {{}, 1, "", "bus failure"},
  };
  for (const auto& [args, status, out, err] : cases) {
    std::vector<std::string> argv = {test::built_program("orvia4-importer").string()};
    argv.insert(argv.end(), args.begin(), args.end());
    test::ProgramRun run = test::run_program(argv, {{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/orvia-bus"}});
    EXPECT_EQ(run.status, status) << testing::PrintToString(args) << run.err;
    EXPECT_TRUE(run.out.find(out) != std::string::npos && run.err.find(err) != std::string::npos) << run.out << run.err;
  }
}

}  // namespace
}  // namespace orvia::service
