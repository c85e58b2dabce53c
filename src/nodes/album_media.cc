#include "nodes/album_media.h"

#include "platform/description.h"

namespace orvia {

std::span<const std::string_view> AlbumMediaList::class_chain() const {
  static constexpr std::string_view kChain[] = {"NSMutableArray", "NSArray", "NSObject"};
  return kChain;
}

void AlbumMediaList::encode_with_coder(KeyedEncoder& coder) const {
  coder.encode_object_stream("NS.objects", [this](const KeyedEncoder::ObjectSink& sink) {
    if (!album_) return;
    album_->enumerateImages([&](const ImageItemRow& row) {
      sink(row.convertedDictionary());
      return true;
    });
  });
}

Ref<Array> AlbumMediaList::materialize() const {
  auto items = mutable_array();
  if (album_) {
    album_->enumerateImages([&](const ImageItemRow& row) {
      items->push_back(row.convertedDictionary());
      return true;
    });
  }
  return items;
}

std::string AlbumMediaList::description() const { return orvia::description(materialize().get()); }

}  // namespace orvia
