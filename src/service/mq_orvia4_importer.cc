#include "service/mq_orvia4_importer.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "legacy/core_data_wrapper.h"
#include "nodes/folder_export.h"
#include "outline/outline_folder_model.h"
#include "platform/format.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/prefault.h"
#include "service/sidebar_models.h"

namespace orvia {

Ref<MQOrvia4Importer> MQOrvia4Importer::init() { return make<MQOrvia4Importer>(); }

Ref<MQOrvia4Importer> MQOrvia4Importer::initWithHome(std::string home) {
  auto importer = make<MQOrvia4Importer>();
  importer->home_ = std::move(home);
  return importer;
}

std::span<const std::string_view> MQOrvia4Importer::class_chain() const {
  static constexpr std::string_view kChain[] = {"MQOrvia4Importer", "NSObject"};
  return kChain;
}

// What the archive builder will take for sure, made resident while a core is idle: half the store's
// size (its media make an archive of about 0.6 times that, which the builder holds about 1.6 times
// over), and never more than 128 MB, so that a store of few media wastes little.
std::size_t prepared_archive_bytes(const std::string& store_path) {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(store_path, error);
  if (error) return 0;
  return static_cast<std::size_t>(std::min<std::uintmax_t>(size / 2, std::uintmax_t{128} << 20));
}

void MQOrvia4Importer::importDataWithCompletion(Completion completion) {
  auto prepared = std::make_shared<PreparedBlocks>(
      prepared_archive_bytes(MQCoreDataWrapper::storePathForHome(home_.empty() ? home_directory() : home_)));
  Ref<MQUserDefaultsWrapper> defaults = home_.empty() ? MQUserDefaultsWrapper::initWithBundleID(kLegacyBundleID)
                                                      : MQUserDefaultsWrapper::initWithBundleID(kLegacyBundleID, home_);
  if (!defaults->hasExistingOrviaInstall()) {
    completion(false, nullptr);
    return;
  }
  // The continuation holds the completion, the reader, this driver and the store object of this very
  // run; the store object is reached through a shared slot, since attaching may finish before
  // initWithCompletionBlock has returned it.
  auto store_slot = std::make_shared<Ref<MQCoreDataWrapper>>();
  auto settle = std::make_shared<std::mutex>();
  Ref<MQOrvia4Importer> self(this);
  auto continuation = [self, defaults, completion, store_slot, settle, prepared] {
    Ref<MQCoreDataWrapper> store;
    {
      std::lock_guard lock(*settle);
      store = *store_slot;
    }
    self->continueImport(defaults, store, completion);
  };
  auto failure = [completion, prepared] { completion(false, nullptr); };
  std::lock_guard lock(*settle);
  Ref<MQCoreDataWrapper> store =
      home_.empty() ? MQCoreDataWrapper::initWithCompletionBlock(continuation, defaults, failure)
                    : MQCoreDataWrapper::initWithStorePath(MQCoreDataWrapper::storePathForHome(home_), continuation,
                                                           defaults, failure);
  *store_slot = store;
}

void MQOrvia4Importer::continueImport(const Ref<MQUserDefaultsWrapper>& defaults, const Ref<MQCoreDataWrapper>& store,
                                      const Completion& completion) {
  // Everything this run makes belongs to this heap, which cuts the cycles of the sidebar trees when
  // the run ends (after the completion has archived the results).
  Heap heap;
  HeapScope scope(heap);
  MQUserDefaultsWrapper::Snapshot snapshot(*defaults);
  register_record_classes();
  register_outline_classes();

  auto accounts = store ? store->currentAccounts() : std::nullopt;
  if (!accounts || accounts->empty()) {
    completion(false, nullptr);
    return;
  }
  // The models load ahead on a helper thread, in this order: each account's, then the shared albums'.
  std::vector<Ref<Object>> userids;
  std::vector<SidebarModelLoader::Request> requests;
  for (const Ref<Account>& account : *accounts) {
    userids.push_back(account->userid());
    if (userids.back()) requests.push_back({userids.back(), true});
  }
  requests.push_back({str(kAlbumPseudoUser), false});
  SidebarModelLoader models(std::move(requests), defaults);
  std::size_t next_model = 0;

  auto lookups = std::make_shared<ImportLookups>();
  auto results = mutable_array();
  for (std::size_t i = 0; i < accounts->size(); ++i) {
    const Ref<Account>& account = (*accounts)[i];
    if (!userids[i]) {
      NSLog("invalid account: %@", account);
      continue;
    }
    Ref<OutlineFolderModel> model = models.take(next_model++);
    results->push_back(resultForAccount(account, *model, defaults, store, lookups));
  }
  Ref<OutlineFolderModel> album_model = models.take(next_model);
  Ref<Object> albums = sharedAlbumTree(*album_model, defaults, store, lookups);
  for (const Ref<Object>& r : results->items()) static_cast<MQImporterNodeResult*>(r.get())->albums = albums;
  completion(true, make<Array>(results->items(), false));
}

Ref<MQImporterNodeResult> MQOrvia4Importer::resultForAccount(const Ref<Account>& account,
                                                             const OutlineFolderModel& model,
                                                             const Ref<MQUserDefaultsWrapper>& defaults,
                                                             const Ref<MQCoreDataWrapper>& store,
                                                             const std::shared_ptr<ImportLookups>& lookups) const {
  Ref<MQImporterContext> context = MQImporterContext::contextWithDefaults(defaults, account, store, lookups);
  context->convertMedia = false;  // the shared album tree replaces this account's own
  Ref<MQImporterNodeResult> result = folderTreeWithContext(model, *context);
  result->blacklist = blackListsWithContext(*context);
  result->account = accountWithAccount(*account, *context);
  result->statistics = statisticsNodeWithAccount(*account, *context);
  return result;
}

Ref<Object> MQOrvia4Importer::sharedAlbumTree(const OutlineFolderModel& album_model,
                                              const Ref<MQUserDefaultsWrapper>& defaults,
                                              const Ref<MQCoreDataWrapper>& store,
                                              const std::shared_ptr<ImportLookups>& lookups) {
  Ref<MQImporterContext> album_context = MQImporterContext::contextWithDefaults(defaults, nullptr, store, lookups);
  return folderTreeWithContext(album_model, *album_context)->albums;
}

Ref<MQImporterNodeFolder> MQOrvia4Importer::blackListsWithContext(MQImporterContext& context) const {
  Ref<Object> value = context.userDefaults ? context.userDefaults->valueForKey(kUserBlacklistKey) : nullptr;
  const Dictionary* blocked = as_dict(value.get());
  if (!blocked) return nullptr;
  auto folder = make<MQImporterNodeFolder>();
  folder->title = str("Blacklist");
  folder->contentsType = MQImporterNodeTypeBlacklist;
  folder->type = MQImporterNodeTypeFolder;
  folder->identifier = str("blacklist");
  folder->isRoot = true;
  std::vector<Ref<Object>> children;
  children.reserve(blocked->size());
  for (const auto& [key, name] : blocked->entries()) {  // in the dictionary's own order
    auto node = make<MQImporterNodeBlacklist>();
    node->username = name;
    node->userid = key;  // the key as stored, a string
    node->type = MQImporterNodeTypeBlacklist;
    node->identifier = str(format("%@", {key}));
    children.push_back(node);
  }
  folder->children = make<Array>(std::move(children), false);
  return folder;
}

Ref<MQImporterAccount> MQOrvia4Importer::accountWithAccount(const Account& account, MQImporterContext& context) const {
  auto record = make<MQImporterAccount>();
  record->username = account.username();
  record->userid = account.userid();
  // Our choice: a picture address stored as anything but text is left out, since the client's
  // record holds text there.
  Ref<Object> picture = account.imageURLWithDefaults(context.userDefaults.get());
  if (as_string(picture.get())) record->imageURLString = std::move(picture);
  return record;
}

Ref<MQImporterNodeStatistics> MQOrvia4Importer::statisticsNodeWithAccount(const Account& account,
                                                                          MQImporterContext& context) const {
  if (!context.userDefaults) return nullptr;
  Ref<String> path = context.userDefaults->statisticsPathWithAccountID(account.userid().get());
  if (!path) return nullptr;
  auto node = make<MQImporterNodeStatistics>();
  node->type = MQImporterNodeTypeStatistics;
  node->identifier = account.userid();
  node->path = path;
  node->isRoot = true;
  return node;
}

}  // namespace orvia
