// The old client's Core Data store ("InstaGramStore.db" in its container), attached in the background
// and then fetched from on the main queue: the accounts, the albums and the favourite friends of an
// account, each in the order the user chose in the old client.
//
// Attaching (initWithCompletionBlock):
//  - returns at once; on a background-priority worker (orvia::dispatch_background) the store is opened
//    read-only (see CoreDataStore), with the home folder taken when the worker runs;
//  - success: `completion` (when given) runs on the main queue through MainQueue::sync, so the
//    worker waits until it has returned. The fetches may be used from then on;
//  - failure (no store, locked, corrupt, truncated, not SQLite, no system tables): the line
//    "Failed to initalize persistent store: %@\n%@" (a description, then a detail dictionary with
//    NSFilePath, NSSQLiteErrorDomain and reason) goes to the log, `completion` is never run, and
//    `failure` (when given) runs on the main queue the same way, so that an import can answer
//    (NO, nil). Exactly one of the two runs, once.
//  - The worker lets go of the wrapper and of both blocks on the main queue (inside the block it
//    runs there), so the objects they hold are released on the thread that owns them.
//
// The request's object heap must outlive the attach (the import keeps it until it has answered).
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "legacy/entities.h"
#include "legacy/user_defaults_wrapper.h"
#include "platform/keyed_archive.h"

namespace orvia {

class MQCoreDataWrapper final : public Record {
 public:
  using Completion = std::function<void()>;

  // Where the store lies below a home folder (the bundle identifier is fixed in the path).
  static std::string storePathForHome(const std::string& home);

  static Ref<MQCoreDataWrapper> initWithCompletionBlock(Completion completion, Ref<MQUserDefaultsWrapper> defaults,
                                                        Completion failure = {});
  // The same for a store at an explicit path (tools and tests).
  static Ref<MQCoreDataWrapper> initWithStorePath(std::string path, Completion completion,
                                                  Ref<MQUserDefaultsWrapper> defaults, Completion failure = {});

  // All legacy accounts in ascending Z_PK; nothing when the fetch fails or no store is attached.
  std::optional<std::vector<Ref<Account>>> currentAccounts() const;
  // All albums in the order of "WZAlbumsOrderIndex" (ImageList::albumsInContext); nothing on failure.
  // Fetch once per request and read each album's media with ImageList::enumerateImages.
  std::optional<std::vector<Ref<ImageList>>> currentAlbums() const;
  // The favourites of `account` (null: those of no account) in the order of
  // "WZFavoriteFriendsOrderIndex"; empty on failure.
  std::vector<Ref<Friend>> currentFriendsInAccount(const Account* account) const;

  // Atomic accessors.
  StoreContext managedObjectContext() const;
  void setManagedObjectContext(StoreContext context);
  Ref<MQUserDefaultsWrapper> defaultsData() const;
  void setDefaultsData(Ref<MQUserDefaultsWrapper> defaults);

  std::span<const std::string_view> class_chain() const override;
  void encode_with_coder(KeyedEncoder&) const override {}  // never archived
  void init_with_coder(KeyedDecoder&) override {}

 private:
  explicit MQCoreDataWrapper(Ref<MQUserDefaultsWrapper> defaults) : defaults_(std::move(defaults)) {}
  static Ref<MQCoreDataWrapper> start(std::string path, Completion completion, Ref<MQUserDefaultsWrapper> defaults,
                                      Completion failure);
  void drop_refs() override;

  mutable std::mutex mutex_;
  StoreContext context_;
  Ref<MQUserDefaultsWrapper> defaults_;
};

}  // namespace orvia
