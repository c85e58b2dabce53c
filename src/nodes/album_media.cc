#include "nodes/album_media.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/description.h"
#include "platform/log.h"

namespace orvia {
namespace {

// One converted record with the heap that owns what its conversion made: a damaged stored record may
// hold cycles, which the heap cuts when it ends.
struct Converted {
  std::unique_ptr<Heap> heap;
  Ref<Dictionary> media;  // released before its heap ends
};
using Batch = std::vector<Converted>;

// Reads and converts an album's members on a worker thread while the archiver writes the ones before:
// decoding the stored records is most of an import's work, and it runs beside the writing. The worker
// stays a bounded number of records ahead. Only the worker touches the store meanwhile; the records
// are handed over through the queue, after which only the archiving thread uses them.
class MediaPrefetch {
 public:
  explicit MediaPrefetch(const ImageList& album) : worker_([this, &album] { run(album); }) {}
  ~MediaPrefetch() {
    {
      std::lock_guard lock(mutex_);
      stop_ = true;
    }
    changed_.notify_all();
    worker_.join();
  }
  MediaPrefetch(const MediaPrefetch&) = delete;
  MediaPrefetch& operator=(const MediaPrefetch&) = delete;

  // The next records in the relationship's order; nothing once all were handed out.
  std::optional<Batch> next() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return !ready_.empty() || done_; });
    if (ready_.empty()) return std::nullopt;
    Batch batch = std::move(ready_.front());
    ready_.pop_front();
    changed_.notify_all();
    return batch;
  }
  // Records written and no longer needed: freed by the worker, where they were made (memory goes back
  // to the allocator it came from without the two threads contending for it).
  void recycle(Batch&& spent) {
    std::lock_guard lock(mutex_);
    spent_.push_back(std::move(spent));
    changed_.notify_all();
  }

 private:
  static constexpr std::size_t kBatch = 16;
  static constexpr std::size_t kBatchesAhead = 8;

  void run(const ImageList& album) {
    Batch batch;
    std::deque<Batch> spent;
    auto hand_over = [&] {
      {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return ready_.size() < kBatchesAhead || stop_; });
        if (stop_) return false;
        ready_.push_back(std::move(batch));
        batch = Batch();
        spent.swap(spent_);
        changed_.notify_all();
      }
      spent.clear();  // outside the lock
      return true;
    };
    try {
      bool going = true;
      album.enumerateImages([&](const ImageItemRow& row) {
        Converted c;
        c.heap = std::make_unique<Heap>();
        {
          HeapScope scope(*c.heap);
          c.media = row.convertedDictionary();
        }
        batch.push_back(std::move(c));
        if (batch.size() == kBatch) going = hand_over();
        return going;
      });
      if (going && !batch.empty()) hand_over();
    } catch (const std::exception& e) {
      NSLog("Reading the media of %@ stopped: %@", album.objectURI(), std::string(e.what()));
    }
    std::lock_guard lock(mutex_);
    done_ = true;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Batch> ready_, spent_;
  bool done_ = false, stop_ = false;
  std::thread worker_;  // last: starts once the members above exist
};

}  // namespace

std::span<const std::string_view> AlbumMediaList::class_chain() const {
  static constexpr std::string_view kChain[] = {"NSMutableArray", "NSArray", "NSObject"};
  return kChain;
}

void AlbumMediaList::encode_with_coder(KeyedEncoder& coder) const {
  coder.encode_object_stream("NS.objects", [this](const KeyedEncoder::ObjectSink& sink) {
    if (!album_) return;
    Heap* heap = Heap::current();
    if (!heap) {  // nothing would own what the worker makes: converted here, one at a time
      album_->enumerateImages([&](const ImageItemRow& row) {
        sink(row.convertedDictionary());
        return true;
      });
      return;
    }
    MediaPrefetch prefetch(*album_);
    while (std::optional<Batch> batch = prefetch.next()) {
      for (Converted& c : *batch) {
        sink(c.media);
        // Still held (the archiver writes deep parts of it at the end): it lives on with the request.
        if (c.media->ref_count() > 1) {
          heap->adopt(*c.heap);
          c.media = nullptr;
        }
      }
      prefetch.recycle(std::move(*batch));
    }
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
