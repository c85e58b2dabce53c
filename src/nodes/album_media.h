// An album's media as the reply carries them: a mutable list of converted media dictionaries that is
// filled while the reply is archived, one stored record at a time, so that the media of a large store
// are never all in memory at once. Archived it is an ordinary NSMutableArray.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "legacy/entities.h"
#include "platform/keyed_archive.h"
#include "platform/value.h"

namespace orvia {

// The albums whose media one reply carries, in the order their lists were made: the order of a walk
// of the sidebar, which is the order the archiver meets them in. While the reply is archived, a worker
// reads and converts the members of these albums in this order, ahead of the archiver and across the
// ends of albums; a list asked for out of this order is read when asked.
class MediaPlan {
 public:
  // Adds an album; its place in the plan.
  std::size_t add(Ref<ImageList> album);
  std::size_t size() const;
  Ref<ImageList> album(std::size_t place) const;

 private:
  mutable std::mutex mutex_;
  std::vector<Ref<ImageList>> albums_;
};

class AlbumMediaList final : public Record {
 public:
  // A list read on its own (a plan of one album).
  explicit AlbumMediaList(Ref<ImageList> album);
  // A list whose album takes the next place in `plan`.
  AlbumMediaList(Ref<ImageList> album, std::shared_ptr<MediaPlan> plan);

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
  std::shared_ptr<MediaPlan> plan_;
  std::size_t place_ = 0;
};

}  // namespace orvia
