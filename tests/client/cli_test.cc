// The built orvia4-import against a private bus: answered by the built service (activated on demand) or
// by a bus front inside the test that replies what each case needs.
#include <gtest/gtest.h>

#include <future>

#include "client/report.h"
#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "sample_reply.h"
#include "service/bus_names.h"
#include "service/bus_service.h"
#include "support/private_bus.h"
#include "support/support.h"

namespace orvia::client {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using service::BusReply;
using service::BusService;
using service::BusServiceOptions;
using test::PrivateBus;
using test::PrivateBusOptions;
using test::ProgramRun;

constexpr const char* kNoLine =
    "orvia4-import: the importer answered NO: no legacy installation, no accounts or the legacy store could not "
    "be read\n";

ProgramRun import(std::vector<std::string> args, const std::map<std::string, std::string>& env = {}) {
  args.insert(args.begin(), test::built_program("orvia4-import").string());
  return test::run_program(args, env);
}

// A bus front in this process that answers every call with `handler`.
class FakeService {
 public:
  FakeService(const PrivateBus& bus, service::RequestHandler handler)
      : service_(BusServiceOptions{0ms, bus.address()}, std::move(handler)) {
    done_ = std::async(std::launch::async, [this] { return service_.run(); });
    EXPECT_TRUE(bus.wait_for_name(service::kBusName, true)) << bus.daemon_log();
  }
  ~FakeService() {
    service_.stop();
    done_.wait();
  }

 private:
  BusService service_;
  std::future<int> done_;
};

TEST(ImportCommand, ReportsUsageErrorsWithStatus2) {
  test::TempDir dir;
  test::write_file(dir / "a.archive", "x");
  const std::vector<std::vector<std::string>> errors = {
      {"--bogus"},
      {"--format", "xml"},
      {"--home", "/tmp"},  // --home belongs to --direct
      {"--decode", (dir / "missing").string()},
      {"--decode", (dir / "a.archive").string(), "--direct"},
      {"--timeout", "0"},
  };
  for (const auto& args : errors) EXPECT_EQ(import(args).status, 2) << testing::PrintToString(args);
  ProgramRun help = import({"--help"}), version = import({"--version"});
  EXPECT_EQ(help.status + version.status, 0);
  EXPECT_NE(help.out.find("Exit status: 0 the import succeeded; 1 the service answered NO"), std::string::npos) << help.out;
  EXPECT_EQ(version.out, "orvia4-import 1.0\n");
}

TEST(ImportCommand, ServiceThatAnswersNoGivesStatus1AndNoArchiveFile) {
  // The built service, activated with an empty home folder: no legacy installation, so it answers NO.
  test::TempDir dir;
  PrivateBusOptions options;
  options.environment = {{"HOME", dir.path().string()}};
  PrivateBus bus(options);
  const std::string file = (dir / "reply.archive").string(), home = dir.path().string();
  // Through the service and directly; printed, or passed (streamed) straight to the file.
  const std::vector<std::vector<std::string>> runs = {
      {"--archive-out", file},
      {"--format", "none", "--archive-out", file},
      {"--direct", "--home", home},
      {"--direct", "--home", home, "--format", "none", "--archive-out", file},
  };
  for (const auto& args : runs) {
    SCOPED_TRACE(testing::PrintToString(args));
    ProgramRun run = import(args);
    EXPECT_EQ(run.status, 1) << run.err << bus.daemon_log();
    EXPECT_EQ(run.err, kNoLine);
    EXPECT_EQ(run.out, "");
    EXPECT_FALSE(fs::exists(file));
  }
}

TEST(ImportCommand, NoReplyGivesStatus3) {
  {
    PrivateBus bus(test::options_without_services());  // nothing to activate
    ProgramRun run = import({});
    EXPECT_EQ(run.status, 3);
    EXPECT_NE(run.err.find("the importer service is not available"), std::string::npos) << run.err;

    // A service that never answers: the call times out.
    std::promise<BusReply> held;
    FakeService fake(bus, [&](BusReply reply) { held.set_value(std::move(reply)); });
    run = import({"--timeout", "0.5"});
    EXPECT_EQ(run.status, 3);
    EXPECT_NE(run.err.find("no reply from the importer service"), std::string::npos) << run.err;
    held.get_future().get()(false, nullptr);  // the service leaves only once every call is answered
  }
  ProgramRun no_bus = import({}, {{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/orvia-bus"}});
  EXPECT_EQ(no_bus.status, 3);
  EXPECT_NE(no_bus.err.find("no session bus"), std::string::npos) << no_bus.err;
}

TEST(ImportCommand, PrintsTheReplyAsATreeOrJsonAndSavesItByteForByte) {
  const std::string archive = archive_root(test::sample_results().get());
  PrivateBus bus(test::options_without_services());
  FakeService fake(bus, [&](BusReply reply) { reply(true, &archive); });
  test::TempDir dir;
  const std::string saved = (dir / "reply.archive").string();

  ProgramRun tree = import({"--archive-out", saved});
  EXPECT_EQ(tree.status, 0) << tree.err;
  EXPECT_EQ(tree.out, test::sample_report());
  EXPECT_TRUE(test::read_file(saved) == archive);
  // Nothing printed: the reply's memory file is copied straight to the file.
  const std::string passed = (dir / "passed.archive").string();
  ProgramRun none = import({"--format", "none", "--archive-out", passed});
  EXPECT_EQ(none.status, 0) << none.err;
  EXPECT_EQ(none.out, "");
  EXPECT_TRUE(test::read_file(passed) == archive);
  EXPECT_EQ(import({"--format", "none", "--archive-out", (dir / "no" / "such.archive").string()}).status, 4);

  // JSON: the reply's records as the JSON writer gives them, the shared album tree in full each time.
  ProgramRun json = import({"--format", "json"});
  EXPECT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(json.out, to_json(test::sample_results().get(), true));

  // A saved reply decodes the same way without any service.
  ProgramRun decoded = import({"--decode", saved});
  EXPECT_EQ(decoded.status, 0) << decoded.err;
  EXPECT_EQ(decoded.out, json.out);
  ProgramRun decoded_tree = import({"--decode", saved, "--format", "tree"});
  EXPECT_EQ(decoded_tree.out, test::sample_report());
}

TEST(ImportCommand, ArchivesThatCannotBeDecodedGiveStatus4) {
  const std::string garbage = "bplist00 but not really";
  PrivateBus bus(test::options_without_services());
  FakeService fake(bus, [&](BusReply reply) { reply(true, &garbage); });
  test::TempDir dir;

  ProgramRun run = import({"--archive-out", (dir / "reply.archive").string()});
  EXPECT_EQ(run.status, 4);
  EXPECT_NE(run.err.find("the archive could not be decoded"), std::string::npos) << run.err;
  EXPECT_EQ(test::read_file(dir / "reply.archive"), garbage);  // kept exactly as received

  // A property list that is no keyed archive, and an archive whose root is no list of results.
  test::write_file(dir / "plain.plist", write_binary_plist(dict({{"a", num(1)}}).get()).value());
  EXPECT_EQ(import({"--decode", (dir / "plain.plist").string()}).status, 4);
  test::write_file(dir / "string.archive", archive_root(str("just text").get()));
  ProgramRun text = import({"--decode", (dir / "string.archive").string()});
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.out, "\"just text\"\n");
  EXPECT_EQ(import({"--decode", (dir / "string.archive").string(), "--format", "tree"}).status, 4);
}

}  // namespace
}  // namespace orvia::client
