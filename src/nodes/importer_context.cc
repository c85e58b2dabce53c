#include "nodes/importer_context.h"

namespace orvia {

const std::optional<std::vector<Ref<ImageList>>>& ImportLookups::albums(const MQCoreDataWrapper& store) {
  if (!albums_fetched_) {
    albums_fetched_ = true;
    albums_ = store.currentAlbums();
    if (albums_) {
      album_index_.reserve(albums_->size());
      for (std::size_t i = 0; i < albums_->size(); ++i)
        album_index_.try_emplace("ff-" + (*albums_)[i]->objectURI(), i);  // the first in fetch order wins
    }
  }
  return albums_;
}

ImageList* ImportLookups::albumForIdentifier(const MQCoreDataWrapper& store, std::string_view identifier) {
  const auto& list = albums(store);
  if (!list) return nullptr;
  auto it = album_index_.find(std::string(identifier));
  return it == album_index_.end() ? nullptr : (*list)[it->second].get();
}

const std::vector<Ref<Friend>>& ImportLookups::friends(const MQCoreDataWrapper& store, const Account* account) {
  const std::int64_t key = account ? account->primaryKey() : -1;
  auto [it, inserted] = friends_.try_emplace(key);
  if (inserted) {
    it->second.list = store.currentFriendsInAccount(account);
    it->second.index.reserve(it->second.list.size());
    for (std::size_t i = 0; i < it->second.list.size(); ++i)
      it->second.index.try_emplace("fa-" + it->second.list[i]->objectURI(), i);
  }
  return it->second.list;
}

Friend* ImportLookups::friendForIdentifier(const MQCoreDataWrapper& store, const Account* account,
                                           std::string_view identifier) {
  friends(store, account);
  FriendList& f = friends_[account ? account->primaryKey() : -1];
  auto it = f.index.find(std::string(identifier));
  return it == f.index.end() ? nullptr : f.list[it->second].get();
}

Ref<MQImporterContext> MQImporterContext::contextWithDefaults(Ref<MQUserDefaultsWrapper> defaults,
                                                              Ref<Account> account,
                                                              Ref<MQCoreDataWrapper> coreDataWrapper) {
  return contextWithDefaults(std::move(defaults), std::move(account), std::move(coreDataWrapper),
                             std::make_shared<ImportLookups>());
}

Ref<MQImporterContext> MQImporterContext::contextWithDefaults(Ref<MQUserDefaultsWrapper> defaults,
                                                              Ref<Account> account,
                                                              Ref<MQCoreDataWrapper> coreDataWrapper,
                                                              std::shared_ptr<ImportLookups> lookups) {
  auto context = make<MQImporterContext>();
  context->userDefaults = std::move(defaults);
  context->account = std::move(account);
  context->coreDataWrapper = std::move(coreDataWrapper);
  context->lookups_ = lookups ? std::move(lookups) : std::make_shared<ImportLookups>();
  return context;
}

void MQImporterContext::storeMessage(std::string text) {
  if (!messages) messages = mutable_array();
  messages->push_back(make<String>(std::move(text)));
}

std::span<const std::string_view> MQImporterContext::class_chain() const {
  static constexpr std::string_view kChain[] = {"MQImporterContext", "NSObject"};
  return kChain;
}

void MQImporterContext::drop_refs() {
  userDefaults = nullptr;
  account = nullptr;
  coreDataWrapper = nullptr;
  messages = nullptr;
  lookups_.reset();
}

}  // namespace orvia
