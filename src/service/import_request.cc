#include "service/import_request.h"

#include <atomic>
#include <chrono>
#include <memory>

#include "platform/keyed_archive.h"
#include "platform/log.h"
#include "platform/queue.h"
#include "service/mq_orvia4_importer.h"

namespace orvia::service {

void handle_import_request(ImportReply reply) {
  // A new driver for this request alone; the completion archives the results and replies once.
  auto replied = std::make_shared<std::atomic<bool>>(false);
  auto completion = [reply, replied](bool success, Ref<Array> results) {
    if (replied->exchange(true)) return;
    if (!success) {
      reply(false, std::nullopt);
      return;
    }
    MemfdSink sink;
    const bool written = archive_root_to(results.get(), sink);
    Result<UniqueFd> sealed = sink.seal();  // carries the sink's error when a piece could not be written
    if (!written || !sealed.ok()) {
      NSLog("cannot pass the archive: %@", sealed.ok() ? std::string("incomplete") : sealed.error().message);
      reply(false, std::nullopt);
      return;
    }
    reply(true, std::move(sealed.value()));
  };
  try {
    MQOrvia4Importer::init()->importDataWithCompletion(completion);
  } catch (const std::exception& e) {
    NSLog("import failed: %@", std::string(e.what()));
    completion(false, nullptr);
  }
}

namespace {

ImportOutcome run_direct(const std::string& home, bplist::Builder::Sink* sink, bool* written) {
  auto outcome = std::make_shared<ImportOutcome>();
  auto done = std::make_shared<std::atomic<bool>>(false);
  auto completion = [outcome, done, sink, written](bool success, Ref<Array> results) {
    if (done->load()) return;
    outcome->success = success;
    if (success && sink) {
      *written = archive_root_to(results.get(), *sink);
    } else if (success) {
      outcome->archive = archive_root(results.get());
    }
    done->store(true);
  };
  {
    Ref<MQOrvia4Importer> importer = home.empty() ? MQOrvia4Importer::init() : MQOrvia4Importer::initWithHome(home);
    importer->importDataWithCompletion(completion);
  }
  // This thread serves the main queue until the run has answered.
  while (!done->load()) MainQueue::shared().drain(std::chrono::milliseconds(20));
  return std::move(*outcome);
}

}  // namespace

ImportOutcome run_direct_import(const std::string& home) { return run_direct(home, nullptr, nullptr); }

ImportOutcome run_direct_import(const std::string& home, bplist::Builder::Sink& sink, bool& written) {
  written = false;
  return run_direct(home, &sink, &written);
}

}  // namespace orvia::service
