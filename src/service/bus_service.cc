#include "service/bus_service.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <sdbus-c++/sdbus-c++.h>
#include <unordered_map>
#include <vector>

#include "platform/log.h"
#include "platform/queue.h"
#include "service/bus_names.h"
#include "service/memfd.h"

namespace orvia::service {
namespace {

using Clock = std::chrono::steady_clock;
using CallResult = sdbus::Result<bool, sdbus::UnixFd>;

// Error sent only when not even an empty memory file can be made for a reply.
constexpr const char* kReplyFailedError = "com.brenvik.Orvia4Importer.Error.ReplyFailed";

// A reply handed over to the bus thread. fd is empty when no memory file could be made.
struct PostedReply {
  std::uint64_t call;
  bool success;
  UniqueFd fd;
};

// Replies travel from any thread to the bus thread through here; an eventfd wakes the bus thread.
class Mailbox {
 public:
  Mailbox() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  int wake_fd() const { return wake_.get(); }
  bool usable() const { return static_cast<bool>(wake_); }

  void post(PostedReply reply) {
    std::lock_guard lock(mutex_);
    if (closed_) return;  // the service has ended; nobody is left to answer
    replies_.push_back(std::move(reply));
    wake();
  }
  void wake() {
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(wake_.get(), &one, sizeof one);
  }
  std::vector<PostedReply> take() {
    std::uint64_t count;
    [[maybe_unused]] ssize_t n = ::read(wake_.get(), &count, sizeof count);
    std::lock_guard lock(mutex_);
    return std::exchange(replies_, {});
  }
  void close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
    replies_.clear();
  }

 private:
  UniqueFd wake_;
  std::mutex mutex_;
  std::vector<PostedReply> replies_;
  bool closed_ = false;
};

// One call's right to answer. The first deliver() wins; dropping the token unanswered answers NO.
class ReplyToken {
 public:
  ReplyToken(std::shared_ptr<Mailbox> mailbox, std::uint64_t call) : mailbox_(std::move(mailbox)), call_(call) {}
  ReplyToken(const ReplyToken&) = delete;
  ReplyToken& operator=(const ReplyToken&) = delete;
  ~ReplyToken() {
    if (!used_.exchange(true)) {
      log_line("request ended without a reply; answering NO");
      send(false, nullptr);
    }
  }

  void deliver(bool success, const std::string* archive) {
    if (used_.exchange(true)) {
      log_line("request already answered; a second reply is dropped");
      return;
    }
    if (success && !archive) {
      log_line("a successful reply without an archive; answering NO");
      success = false;
    }
    send(success, archive);
  }

  void deliver(UniqueFd sealed) {
    if (used_.exchange(true)) {
      log_line("request already answered; a second reply is dropped");
      return;
    }
    if (!sealed) {
      log_line("a successful reply without an archive; answering NO");
      send(false, nullptr);
      return;
    }
    mailbox_->post({call_, true, std::move(sealed)});
  }

 private:
  void send(bool success, const std::string* archive) {
    // The memory file is made here, on the replying thread, so a large archive does not hold up the bus.
    auto fd = make_sealed_memfd(success ? std::string_view(*archive) : std::string_view());
    if (!fd.ok()) {
      log_line("cannot pass the archive: " + fd.error().message);
      if (success) {
        success = false;
        fd = make_sealed_memfd({});
      }
    }
    mailbox_->post({call_, success, fd.ok() ? std::move(fd.value()) : UniqueFd()});
  }

  std::shared_ptr<Mailbox> mailbox_;
  std::uint64_t call_;
  std::atomic<bool> used_{false};
};

}  // namespace

struct BusService::Impl {
  BusServiceOptions options;
  RequestHandler handler;
  std::shared_ptr<Mailbox> mailbox = std::make_shared<Mailbox>();
  std::atomic<bool> stop_requested{false};

  // Bus thread only.
  std::unique_ptr<sdbus::IConnection> connection;
  std::unique_ptr<sdbus::IObject> object;
  std::unordered_map<std::uint64_t, CallResult> outstanding;
  std::uint64_t next_call = 1;
  Clock::time_point last_activity = Clock::now();
  std::deque<std::pair<Clock::time_point, UniqueFd>> kept_replies;  // in the order sent, so by deadline

  void on_call(CallResult&& result) {
    std::uint64_t call = next_call++;
    outstanding.emplace(call, std::move(result));
    last_activity = Clock::now();
    auto token = std::make_shared<ReplyToken>(mailbox, call);
    BusReply reply([token](bool success, const std::string* archive) { token->deliver(success, archive); },
                   [token](UniqueFd sealed) { token->deliver(std::move(sealed)); });
    token.reset();
    try {
      handler(reply);
    } catch (const std::exception& e) {
      log_line(std::string("request handler failed: ") + e.what());
      reply(false, nullptr);
    } catch (...) {
      log_line("request handler failed");
      reply(false, nullptr);
    }
  }

  void send_posted() {
    for (PostedReply& posted : mailbox->take()) {
      auto it = outstanding.find(posted.call);
      if (it == outstanding.end()) continue;
      try {
        if (posted.fd) {
          // Kept only when large (see reply_kept): a burst of small ones would each wake a background thread.
          struct stat st {};
          UniqueFd kept(::fstat(posted.fd.get(), &st) == 0 && st.st_size >= BusServiceOptions::kKeptFrom
                            ? ::fcntl(posted.fd.get(), F_DUPFD_CLOEXEC, 0)
                            : -1);  // none: the caller frees it
          it->second.returnResults(posted.success, sdbus::UnixFd(posted.fd.release(), sdbus::adopt_fd));
          if (kept) kept_replies.emplace_back(Clock::now() + options.reply_kept, std::move(kept));
        } else {
          it->second.returnError(sdbus::Error(kReplyFailedError, "the reply could not be prepared"));
        }
      } catch (const sdbus::Error& e) {
        // The caller may have gone; the call counts as answered all the same.
        log_line(std::string("cannot send a reply: ") + e.what());
      }
      outstanding.erase(it);
      last_activity = Clock::now();
    }
  }

  // Lets go of the kept replies whose time is up, closing them on a background thread.
  void release_kept_replies() {
    const Clock::time_point now = Clock::now();
    while (!kept_replies.empty() && kept_replies.front().first <= now) {
      auto fd = std::make_shared<UniqueFd>(std::move(kept_replies.front().second));
      kept_replies.pop_front();
      dispatch_background([fd] { fd->reset(); });
    }
  }

  // Milliseconds until poll must return: the bus's own timeout, the idle deadline or the next kept
  // reply's, whichever is first.
  int poll_timeout(const sdbus::IConnection::PollData& data, bool waiting_for_idle) const {
    int timeout = data.getPollTimeout();
    auto until = [&](Clock::time_point deadline) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      int ms = static_cast<int>(std::max<std::int64_t>(0, left.count()));
      timeout = timeout < 0 ? ms : std::min(timeout, ms);
    };
    if (waiting_for_idle) until(last_activity + options.idle_exit);
    if (!kept_replies.empty()) until(kept_replies.front().first);
    return timeout;
  }

  int serve() {
    bool released = false;
    for (;;) {
      while (connection->processPendingRequest()) {
      }
      send_posted();
      release_kept_replies();
      if (outstanding.empty()) {
        if (released) return 0;
        bool idle = options.idle_exit.count() > 0 && Clock::now() - last_activity >= options.idle_exit;
        if (idle || stop_requested) {
          if (idle) log_line("idle; leaving the bus");
          // Calls that reached us before the release are still served (the loop goes round once more).
          connection->releaseName(kBusName);
          released = true;
          continue;
        }
      }
      auto data = connection->getEventLoopPollData();
      pollfd fds[2] = {{data.fd, data.events, 0}, {mailbox->wake_fd(), POLLIN, 0}};
      bool waiting_for_idle = outstanding.empty() && options.idle_exit.count() > 0;
      int r = ::poll(fds, 2, poll_timeout(data, waiting_for_idle));
      if (r < 0 && errno != EINTR) {
        log_line(std::string("poll failed: ") + std::strerror(errno));
        return 1;
      }
    }
  }

  int run() {
    if (!mailbox->usable()) {
      log_line(std::string("cannot make an eventfd: ") + std::strerror(errno));
      return 1;
    }
    int status = 1;
    try {
      connection = options.bus_address.empty() ? sdbus::createSessionBusConnection()
                                               : sdbus::createSessionBusConnectionWithAddress(options.bus_address);
      // The method is in place before the name is taken, so no call can find the object missing.
      object = sdbus::createObject(*connection, kObjectPath);
      object->registerMethod(kMethodName)
          .onInterface(kInterfaceName)
          .withOutputParamNames("success", "archive")
          .implementedAs([this](CallResult&& result) { on_call(std::move(result)); });
      object->finishRegistration();
      try {
        connection->requestName(kBusName);
      } catch (const sdbus::Error& e) {
        log_line(std::string("cannot take the name ") + kBusName + " (another instance owns it?): " + e.getMessage());
        return finish(1);
      }
      last_activity = Clock::now();
      status = serve();
    } catch (const sdbus::Error& e) {
      log_line(std::string("bus failure: ") + e.what());
      status = 1;
    } catch (const std::exception& e) {
      log_line(std::string("service failure: ") + e.what());
      status = 1;
    }
    return finish(status);
  }

  int finish(int status) {
    mailbox->close();
    // Calls still outstanding (the bus went away) refer to the connection: drop them first.
    outstanding.clear();
    object.reset();
    connection.reset();  // flushes what is still queued for sending
    return status;
  }
};

BusService::BusService(BusServiceOptions options, RequestHandler handler) : impl_(std::make_shared<Impl>()) {
  impl_->options = std::move(options);
  impl_->handler = std::move(handler);
}

BusService::~BusService() = default;

int BusService::run() { return impl_->run(); }

void BusService::stop() {
  impl_->stop_requested = true;
  impl_->mailbox->wake();
}

}  // namespace orvia::service
