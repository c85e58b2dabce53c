// An album's media as the reply carries them: a mutable list of converted media dictionaries that is
// filled while the reply is archived, one stored record at a time, so that the media of a large store
// are never all in memory at once. Archived it is an ordinary NSMutableArray.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "legacy/entities.h"
#include "platform/keyed_archive.h"
#include "platform/value.h"

namespace orvia {

class AlbumMediaList final : public Record {
 public:
  explicit AlbumMediaList(Ref<ImageList> album) : album_(std::move(album)) {}

  std::span<const std::string_view> class_chain() const override;
  // Reads and converts the album's members in the relationship's order, each handed to the archiver
  // and dropped once written.
  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder&) override {}  // decoding makes a plain NSMutableArray instead
  std::string description() const override;

  // The whole list at once.
  Ref<Array> materialize() const;

 protected:
  void drop_refs() override { album_ = nullptr; }

 private:
  // Reads and converts the members on this thread, handing each to `take`.
  void convert_each(const std::function<void(const Ref<Object>&)>& take) const;

  Ref<ImageList> album_;
};

}  // namespace orvia
