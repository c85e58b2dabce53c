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

const ImportLookups::EntryIndex& ImportLookups::entryIndex(const Ref<Array>& list, std::string_view field) {
  std::string key = std::to_string(reinterpret_cast<std::uintptr_t>(list.get())) + "/" + std::string(field);
  auto [it, inserted] = entry_indexes_.try_emplace(std::move(key));
  EntryIndex& index = it->second;
  if (!inserted) return index;
  index.list = list;
  const auto& items = list->items();
  index.first.reserve(items.size());
  for (std::size_t i = 0; i < items.size(); ++i) {
    const Dictionary* entry = as_dict(items[i].get());
    if (!entry) {
      if (index.first_non_dictionary == SIZE_MAX) index.first_non_dictionary = i;
      continue;
    }
    if (auto text = entry_value_text(entry->get(field))) index.first.try_emplace(std::move(*text), i);
  }
  return index;
}

std::optional<std::string> entry_value_text(const Object* value) {
  if (const String* s = as_string(value)) return s->str();
  // Our choice: an id stored as a number matches by its decimal text, the text its sidebar
  // identifier was formed from.
  if (const Number* n = as_number(value)) {
    if (n->is_bool() || n->is_real()) return std::nullopt;
    return n->type() == Number::Type::Unsigned ? std::to_string(n->uint_value()) : std::to_string(n->int_value());
  }
  return std::nullopt;
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
