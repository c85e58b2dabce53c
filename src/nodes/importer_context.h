// The importer context: what every node builder needs while one legacy account (or the shared album
// tree) is converted — the preferences reader, the account (none for the album pass), the opened
// store, and the messages for the user about items that could not be converted.
//
// The context also carries the request's lookups: the legacy data does not change during a request,
// so each list (albums, an account's favourite friends) is fetched once and its sidebar identifiers
// ("ff-<URI>", "fa-<URI>") are indexed, which keeps the export linear in the size of the store.
// Contexts made for one request share these lookups; every context keeps its own messages.
#pragma once

#include <cstdint>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "legacy/core_data_wrapper.h"
#include "legacy/entities.h"
#include "legacy/user_defaults_wrapper.h"
#include "nodes/album_media.h"
#include "platform/keyed_archive.h"
#include "platform/value.h"

namespace orvia {

// The text under which a favourite entry's field is matched: a string as it is, an integer number by
// its decimal digits; nothing for other kinds.
std::optional<std::string> entry_value_text(const Object* value);

// Lists fetched once per request, with their sidebar identifiers indexed.
class ImportLookups {
 public:
  // All albums in the user's order, or nothing when the fetch failed.
  const std::optional<std::vector<Ref<ImageList>>>& albums(const MQCoreDataWrapper& store);
  // The first album whose "ff-" identifier equals `identifier`, or null.
  ImageList* albumForIdentifier(const MQCoreDataWrapper& store, std::string_view identifier);

  // The favourite friends of an account (null: friends of no account), in the user's order.
  const std::vector<Ref<Friend>>& friends(const MQCoreDataWrapper& store, const Account* account);
  Friend* friendForIdentifier(const MQCoreDataWrapper& store, const Account* account, std::string_view identifier);

  // An index of a per-account favourite list by the text of one field: where the first entry with a
  // given value stands, and where the first element that is not a dictionary stands. A search through
  // it answers as a walk of the list from its start would.
  struct EntryIndex {
    Ref<Array> list;  // keeps the indexed list (and so its address) alive
    std::unordered_map<std::string, std::size_t> first;
    std::size_t first_non_dictionary = SIZE_MAX;
  };
  const EntryIndex& entryIndex(const Ref<Array>& list, std::string_view field);

  // The albums whose media this request's reply carries, in the order their lists are made.
  const std::shared_ptr<MediaPlan>& mediaPlan() { return media_plan_; }

 private:
  struct FriendList {
    std::vector<Ref<Friend>> list;
    std::unordered_map<std::string, std::size_t> index;
  };
  bool albums_fetched_ = false;
  std::optional<std::vector<Ref<ImageList>>> albums_;
  std::unordered_map<std::string, std::size_t> album_index_;
  std::unordered_map<std::int64_t, FriendList> friends_;  // by account key; -1 for no account
  std::unordered_map<std::string, EntryIndex> entry_indexes_;  // by list address and field
  std::shared_ptr<MediaPlan> media_plan_ = std::make_shared<MediaPlan>();
};

class MQImporterContext final : public Record {
 public:
  Ref<MQUserDefaultsWrapper> userDefaults;
  Ref<Account> account;
  Ref<MQCoreDataWrapper> coreDataWrapper;
  Ref<Array> messages;  // absent until the first message

  // A new context holding the three, with no message list and lookups of its own.
  static Ref<MQImporterContext> contextWithDefaults(Ref<MQUserDefaultsWrapper> defaults, Ref<Account> account,
                                                    Ref<MQCoreDataWrapper> coreDataWrapper);
  // The same, sharing the lookups of one request.
  static Ref<MQImporterContext> contextWithDefaults(Ref<MQUserDefaultsWrapper> defaults, Ref<Account> account,
                                                    Ref<MQCoreDataWrapper> coreDataWrapper,
                                                    std::shared_ptr<ImportLookups> lookups);

  // Appends the text unchanged (duplicates kept); nothing goes to the log.
  void storeMessage(std::string text);

  ImportLookups& lookups() { return *lookups_; }
  // Album nodes built in this context carry their media (converted as the reply is archived). The
  // import run turns it off for
  // the accounts' own album trees, which the shared album tree replaces before the reply.
  bool convertMedia = true;

  std::span<const std::string_view> class_chain() const override;
  void encode_with_coder(KeyedEncoder&) const override {}  // never archived
  void init_with_coder(KeyedDecoder&) override {}

 protected:
  void drop_refs() override;

 private:
  std::shared_ptr<ImportLookups> lookups_;
};

}  // namespace orvia
