// orvia4-importer: the importer service. The bus starts it on the first call; it serves the session bus
// on a thread of its own, runs the imports on the main thread (the main queue), and leaves after a
// while without calls.
#include <CLI/CLI.hpp>
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

#include "platform/queue.h"
#include "service/bus_names.h"
#include "service/bus_service.h"
#include "service/import_request.h"

int main(int argc, char** argv) {
  using namespace orvia::service;

  CLI::App app{
      std::string("Answers the Orvia 4 import requests of the session bus as ") + kBusName +
          ".\nStarted by the bus on demand; not meant to be run by hand.",
      "orvia4-importer"};
  double idle_seconds = 60;
  app.add_option("--idle-exit", idle_seconds, "Leave the bus after SECONDS without requests (0: never)")
      ->option_text("SECONDS")
      ->check(CLI::Range(0.0, 1e6))
      ->capture_default_str();
  app.set_version_flag("--version", std::string("orvia4-importer ") + ORVIA_VERSION);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int rc = app.exit(e);  // prints help, version or the error
    return rc == 0 ? 0 : 2;
  }

#ifndef ORVIA_JEMALLOC
  // Imports run one at a time on the main thread; the background workers that open stores come and go
  // with the requests, and glibc would give each new one a malloc arena of its own (up to eight per
  // core) whose freed memory stays resident: memory would creep with every burst of requests. Two
  // arenas: the main thread's and one that the workers share. (jemalloc's arenas are few and return
  // their unused pages to the system by themselves.)
  mallopt(M_ARENA_MAX, 2);
#endif

  BusServiceOptions options;
  options.idle_exit = std::chrono::milliseconds(std::llround(idle_seconds * 1000));

  std::atomic<int> status{0};
  std::thread bus([&] {
    status = run_bus_service(options, [](BusReply reply) {
      handle_import_request([reply](bool success, std::optional<UniqueFd> archive) {
        if (success && archive) {
          reply(std::move(*archive));
        } else {
          reply(false, nullptr);
        }
      });
    });
    orvia::MainQueue::shared().stop();
  });
  orvia::MainQueue::shared().run();
  bus.join();
  return status;
}
