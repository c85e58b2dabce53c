#include "legacy/core_data_wrapper.h"

#include <filesystem>

#include "platform/home.h"
#include "platform/log.h"
#include "platform/queue.h"

namespace orvia {

std::string MQCoreDataWrapper::storePathForHome(const std::string& home) {
  return home + "/Library/Containers/com.brenvik.velmora/Data/Library/Application Support/Velmora/InstaGramStore.db";
}

std::span<const std::string_view> MQCoreDataWrapper::class_chain() const {
  static constexpr std::string_view kChain[] = {"MQCoreDataWrapper", "NSObject"};
  return kChain;
}

void MQCoreDataWrapper::drop_refs() {
  std::lock_guard<std::mutex> lock(mutex_);
  context_.reset();
  defaults_ = nullptr;
}

Ref<MQCoreDataWrapper> MQCoreDataWrapper::initWithCompletionBlock(Completion completion,
                                                                  Ref<MQUserDefaultsWrapper> defaults,
                                                                  Completion failure) {
  return start(std::string(), std::move(completion), std::move(defaults), std::move(failure));
}

Ref<MQCoreDataWrapper> MQCoreDataWrapper::initWithStorePath(std::string path, Completion completion,
                                                            Ref<MQUserDefaultsWrapper> defaults, Completion failure) {
  return start(std::move(path), std::move(completion), std::move(defaults), std::move(failure));
}

Ref<MQCoreDataWrapper> MQCoreDataWrapper::start(std::string path, Completion completion,
                                                Ref<MQUserDefaultsWrapper> defaults, Completion failure) {
  Ref<MQCoreDataWrapper> wrapper(new MQCoreDataWrapper(std::move(defaults)));
  // The task's state lives in one shared box so that the task can hand all of it to the main queue.
  struct Task {
    std::string path;
    Ref<MQCoreDataWrapper> wrapper;
    Completion completion, failure;
  };
  auto task = std::make_shared<Task>(Task{std::move(path), wrapper, std::move(completion), std::move(failure)});
  dispatch_background([task] {
    const std::string path =
        task->path.empty() ? storePathForHome(home_directory()) : task->path;  // the home folder as of now
    CoreDataStore::OpenError error;
    auto store = CoreDataStore::open(path, &error);
    Completion next;
    if (store.ok()) {
      task->wrapper->setManagedObjectContext(std::move(store.value()));
      next = std::move(task->completion);
    } else {
      const std::string name = std::filesystem::path(path).filename().string();
      Ref<Dictionary> details = dict({{"NSFilePath", str(path)},
                                      {"NSSQLiteErrorDomain", num(error.sqlite_code)},
                                      {"reason", str(error.reason)}});
      NSLog("Failed to initalize persistent store: %@\n%@",
            "The file \xE2\x80\x9C" + name + "\xE2\x80\x9D couldn\xE2\x80\x99t be opened.", details);
      next = std::move(task->failure);
    }
    if (next) {
      // Runs the block on the main queue and releases everything the task holds there, after it.
      MainQueue::shared().sync([&task, &next] {
        next();
        next = nullptr;
        task->completion = nullptr;
        task->failure = nullptr;
        task->wrapper = nullptr;
      });
    } else {
      // Nothing to run: release on the main queue without waiting for it.
      MainQueue::shared().async([held = std::make_shared<Task>(std::move(*task))]() mutable { held.reset(); });
    }
  });
  return wrapper;
}

StoreContext MQCoreDataWrapper::managedObjectContext() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return context_;
}

void MQCoreDataWrapper::setManagedObjectContext(StoreContext context) {
  std::lock_guard<std::mutex> lock(mutex_);
  context_ = std::move(context);
}

Ref<MQUserDefaultsWrapper> MQCoreDataWrapper::defaultsData() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return defaults_;
}

void MQCoreDataWrapper::setDefaultsData(Ref<MQUserDefaultsWrapper> defaults) {
  std::lock_guard<std::mutex> lock(mutex_);
  defaults_ = std::move(defaults);
}

std::optional<std::vector<Ref<Account>>> MQCoreDataWrapper::currentAccounts() const {
  return Account::accountsInContext(managedObjectContext());
}

std::optional<std::vector<Ref<ImageList>>> MQCoreDataWrapper::currentAlbums() const {
  Ref<MQUserDefaultsWrapper> defaults = defaultsData();
  std::int64_t order = defaults ? legacy_integer_value(defaults->valueForKey("WZAlbumsOrderIndex").get()) : 0;
  return ImageList::albumsInContext(managedObjectContext(), order);
}

std::vector<Ref<Friend>> MQCoreDataWrapper::currentFriendsInAccount(const Account* account) const {
  Ref<MQUserDefaultsWrapper> defaults = defaultsData();
  return Friend::favouriteUsersForAccount(account, defaults.get(), managedObjectContext());
}

}  // namespace orvia
