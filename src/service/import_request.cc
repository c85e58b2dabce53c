#include "service/import_request.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

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
    // The reply leaves as soon as the archive's last byte is in its memory file, before the rest of the
    // archiver's memory is given back.
    struct ReplyingSink final : bplist::Builder::Sink {
      explicit ReplyingSink(const ImportReply& r) : reply(r) {}
      void expect(std::uint64_t total_size) override { memfd.expect(total_size); }
      bool put(std::string_view piece) override { return memfd.put(piece); }
      void finished() override {
        Result<UniqueFd> sealed = memfd.seal();
        if (!sealed.ok()) {
          failure = sealed.error().message;
          return;
        }
        reply(true, std::move(sealed.value()));
        replied = true;
      }
      const ImportReply& reply;
      MemfdSink memfd;
      bool replied = false;
      std::string failure;
    } sink(reply);
    // Whether the archive was written whole shows in whether the sink replied.
    (void)archive_root_to(results.get(), sink);
    if (sink.replied) return;
    if (sink.failure.empty()) {
      Result<UniqueFd> sealed = sink.memfd.seal();  // carries the sink's error when a piece could not be written
      sink.failure = sealed.ok() ? std::string("incomplete") : sealed.error().message;
    }
    NSLog("cannot pass the archive: %@", sink.failure);
    reply(false, std::nullopt);
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
  // The archive's bytes are written on a thread of their own while the run frees its objects (the
  // built archive holds bytes only); the archiver's memory goes back on that thread as it writes.
  auto writing = std::make_shared<std::thread>();
  auto completion = [outcome, done, sink, written, writing](bool success, Ref<Array> results) {
    if (done->load()) return;
    outcome->success = success;
    if (success && sink) {
      auto built = std::make_shared<BuiltArchive>(build_archive(results.get()));
      auto write = [built, sink, written] {
        try {
          *written = built->write_to(*sink);
        } catch (const std::exception& e) {  // out of memory, say
          NSLog("cannot write the archive: %@", std::string(e.what()));
          *written = false;
        }
      };
      try {
        *writing = std::thread([write] {
          name_this_thread("orvia-write");
          write();
        });
      } catch (const std::system_error&) {  // no thread to be had: written here
        write();
      }
    } else if (success) {
      outcome->archive = archive_root(results.get());
    }
    done->store(true);
  };
  {
    Ref<MQOrvia4Importer> importer = home.empty() ? MQOrvia4Importer::init() : MQOrvia4Importer::initWithHome(home);
    importer->importDataWithCompletion(completion);
  }
  // This thread serves the main queue until the run has answered and freed what it made.
  while (!done->load()) MainQueue::shared().drain(std::chrono::milliseconds(20));
  if (writing->joinable()) writing->join();
  return std::move(*outcome);
}

}  // namespace

ImportOutcome run_direct_import(const std::string& home) { return run_direct(home, nullptr, nullptr); }

ImportOutcome run_direct_import(const std::string& home, bplist::Builder::Sink& sink, bool& written) {
  written = false;
  return run_direct(home, &sink, &written);
}

}  // namespace orvia::service
