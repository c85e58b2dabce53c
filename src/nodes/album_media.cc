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

// One member of the album: its row as read from the store, then its converted form with the heap that
// owns what the conversion made (a damaged stored record may hold cycles, cut when the heap ends).
struct Member {
  std::string bytes;
  bool has_dictionary = false;
  std::int64_t entity = 0, primary_key = 0;
  bool converted = false;
  std::unique_ptr<Heap> heap;
  Ref<Dictionary> media;    // released before its heap ends
  std::string unreadable;   // why the stored record could not be read, logged in the members' order
};

// Reads an album's members on a worker thread, and converts them on both threads: the worker reads
// ahead and converts when enough members wait; the archiving thread converts whenever the next member
// it needs is not ready yet, instead of waiting. Decoding the stored records is most of an import's
// work, so it is shared between the cores while the archive is written.
//
// Members are converted in the order they were read, by whichever thread claims them; the archiving
// thread takes them in that order and logs unreadable records then, so the log keeps the store's
// order. Only the worker touches the store. At most kWindow members are in memory; the worker also
// frees the spent ones (memory goes back to the allocator it mostly came from).
class MediaPipeline {
 public:
  MediaPipeline(const ImageList& album, const CoreDataStore* store)
      : store_(store), worker_([this, &album] { run(album); }) {}
  ~MediaPipeline() {
    {
      std::lock_guard lock(mutex_);
      stop_ = true;
    }
    changed_.notify_all();
    worker_.join();
  }
  MediaPipeline(const MediaPipeline&) = delete;
  MediaPipeline& operator=(const MediaPipeline&) = delete;

  // The next member, converted; null once all were handed out. Valid until the next call.
  Member* next() {
    std::unique_lock lock(mutex_);
    if (current_) {
      spent_.push_back(std::move(current_));
      changed_.notify_all();
    }
    for (;;) {
      if (!window_.empty() && window_.front()->converted) {
        current_ = std::move(window_.front());
        window_.pop_front();
        ++taken_;
        changed_.notify_all();
        return current_.get();
      }
      if (window_.empty() && reading_done_) return nullptr;
      if (!convert_one(lock)) changed_.wait(lock);
    }
  }

 private:
  static constexpr std::size_t kWindow = 256;
  static constexpr std::size_t kReadAhead = 8;  // unclaimed members the worker keeps ready to share

  // Claims the oldest unclaimed member and converts it (the lock is let go meanwhile); false if none.
  bool convert_one(std::unique_lock<std::mutex>& lock) {
    if (claimed_ >= taken_ + window_.size()) return false;
    Member* m = window_[claimed_ - taken_].get();  // stays put: only its owner's pop moves it, after conversion
    ++claimed_;
    lock.unlock();
    try {
      convert(*m);
    } catch (const std::exception& e) {  // out of memory, say: the member is written as nil
      m->media = nullptr;
      m->unreadable = e.what();
    }
    lock.lock();
    m->converted = true;
    changed_.notify_all();
    return true;
  }

  void convert(Member& m) const {
    ImageItemRow row;
    row.store = store_;
    row.entity = m.entity;
    row.primary_key = m.primary_key;
    row.has_dictionary = m.has_dictionary;
    row.dictionary = m.bytes;
    m.heap = std::make_unique<Heap>();
    HeapScope scope(*m.heap);
    m.media = row.convertedDictionary(&m.unreadable);
  }

  void run(const ImageList& album) {
    std::deque<std::unique_ptr<Member>> spent;
    try {
      album.enumerateImages([&](const ImageItemRow& row) {
        auto m = std::make_unique<Member>();
        m->bytes.assign(row.dictionary);
        m->has_dictionary = row.has_dictionary;
        m->entity = row.entity;
        m->primary_key = row.primary_key;
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return window_.size() < kWindow || stop_; });
        if (stop_) return false;
        window_.push_back(std::move(m));
        changed_.notify_all();
        while (claimed_ + kReadAhead < taken_ + window_.size()) convert_one(lock);
        spent.swap(spent_);
        lock.unlock();
        spent.clear();
        return true;
      });
    } catch (const std::exception& e) {
      NSLog("Reading the media of %@ stopped: %@", album.objectURI(), std::string(e.what()));
    }
    std::unique_lock lock(mutex_);
    reading_done_ = true;
    changed_.notify_all();
    while (!stop_ && convert_one(lock)) {
    }
  }

  const CoreDataStore* store_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::unique_ptr<Member>> window_, spent_;  // window_: read, not yet taken, in order
  std::unique_ptr<Member> current_;                     // the member handed out last
  std::uint64_t taken_ = 0, claimed_ = 0;               // counts since the start, in reading order
  bool reading_done_ = false, stop_ = false;
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
      convert_each(sink);
      return;
    }
    MediaPipeline pipeline(*album_, album_->context().get());
    while (Member* m = pipeline.next()) {
      if (!m->unreadable.empty())
        NSLog("Unreadable media record %@: %@", album_->context()->object_uri(m->entity, m->primary_key), m->unreadable);
      sink(m->media);
      // Still held (the archiver writes deep parts of it at the end): it lives on with the request.
      if (m->media && m->media->ref_count() > 1) {
        heap->adopt(*m->heap);
        m->media = nullptr;
      }
    }
  });
}

void AlbumMediaList::convert_each(const std::function<void(const Ref<Object>&)>& take) const {
  if (!album_) return;
  album_->enumerateImages([&](const ImageItemRow& row) {
    take(row.convertedDictionary());
    return true;
  });
}

Ref<Array> AlbumMediaList::materialize() const {
  auto items = mutable_array();
  convert_each([&](const Ref<Object>& media) { items->push_back(media); });
  return items;
}

std::string AlbumMediaList::description() const { return orvia::description(materialize().get()); }

}  // namespace orvia
