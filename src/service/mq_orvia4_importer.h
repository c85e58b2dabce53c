// The import driver: one per request. It checks that the old client was set up for this user, opens
// its store in the background, and on the main queue collects one result per legacy account with a
// user id (the account's sidebar categories, blocked users, account record and statistics node), then
// sets the shared album tree on every result and completes.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "nodes/importer_context.h"
#include "records/records.h"

namespace orvia {

class OutlineFolderModel;

inline constexpr std::string_view kLegacyBundleID = "com.brenvik.velmora";
inline constexpr std::string_view kAlbumPseudoUser = "*--*albums*--*";

// How much of the archive builder's memory a run on the store at `store_path` makes resident ahead,
// while a core is idle (see PreparedBlocks).
std::size_t prepared_archive_bytes(const std::string& store_path);
inline constexpr std::string_view kUserBlacklistKey = "kUserBlacklistKey";

class MQOrvia4Importer final : public Record {
 public:
  // Called once per run that reaches an end: (NO, nil) or (YES, the results).
  using Completion = std::function<void(bool success, Ref<Array> results)>;

  static Ref<MQOrvia4Importer> init();
  // An importer that reads the legacy installation below `home` instead of the user's home folder.
  static Ref<MQOrvia4Importer> initWithHome(std::string home);

  // Completes at once, on the calling thread, with (NO, nil) when there is no legacy installation;
  // otherwise later, from the main queue. Our choice: a store that cannot be attached completes with
  // (NO, nil) too, so that every request is answered.
  void importDataWithCompletion(Completion completion);

  // One account's result from its sidebar model: the categories' folder trees (its own albums left
  // out, since the shared album tree replaces them), blocked users, account record and statistics node.
  Ref<MQImporterNodeResult> resultForAccount(const Ref<Account>& account, const OutlineFolderModel& model,
                                             const Ref<MQUserDefaultsWrapper>& defaults,
                                             const Ref<MQCoreDataWrapper>& store,
                                             const std::shared_ptr<ImportLookups>& lookups) const;
  // The shared album tree (with its media) that every result carries.
  static Ref<Object> sharedAlbumTree(const OutlineFolderModel& album_model, const Ref<MQUserDefaultsWrapper>& defaults,
                                     const Ref<MQCoreDataWrapper>& store,
                                     const std::shared_ptr<ImportLookups>& lookups);

  Ref<MQImporterNodeFolder> blackListsWithContext(MQImporterContext& context) const;
  Ref<MQImporterAccount> accountWithAccount(const Account& account, MQImporterContext& context) const;
  Ref<MQImporterNodeStatistics> statisticsNodeWithAccount(const Account& account, MQImporterContext& context) const;

  std::span<const std::string_view> class_chain() const override;
  void encode_with_coder(KeyedEncoder&) const override {}  // never archived
  void init_with_coder(KeyedDecoder&) override {}

 private:
  void continueImport(const Ref<MQUserDefaultsWrapper>& defaults, const Ref<MQCoreDataWrapper>& store,
                      const Completion& completion);
  std::string home_;  // empty: the user's home folder
};

}  // namespace orvia
