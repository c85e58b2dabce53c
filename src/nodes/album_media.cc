#include "nodes/album_media.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "legacy/media_conversion.h"
#include "platform/description.h"
#include "platform/log.h"
#include "platform/queue.h"

namespace orvia {
namespace {

// One member of an album: its row as read from the store, then its converted form with the heap that
// owns what the conversion made (a damaged stored record may hold cycles, cut when the heap ends). An
// album's members end with a marker, so that the end of an album is known before the next one's.
struct Member {
  std::size_t place = 0;  // the album's place in the plan
  bool end = false;       // the marker after the album's last member
  std::string bytes;
  bool has_dictionary = false;
  std::int64_t entity = 0, primary_key = 0;
  bool converted = false;
  bool converted_by_worker = false;
  std::unique_ptr<Heap> heap;
  Ref<Dictionary> media;    // released before its heap ends
  FlatGraph graph;          // the converted form without objects, when it could be read so (media null)
  FlatGraph::Node root = FlatGraph::kNone;
  std::string unreadable;   // why the stored record could not be read, logged in the members' order
};

// Reads the albums of a plan on a worker thread, in the plan's order and without stopping at the end
// of an album (a list of another plan moves it to that plan), and converts the members on both
// threads: the worker converts whenever enough members wait, the archiving thread converts the first
// unclaimed member whenever the one it needs next is not ready yet, instead of waiting. Decoding the
// stored records is most of an import's work, so it is shared between the cores while the archive is
// written.
//
// Members are claimed for conversion in the order they were read (the claimed ones are always the
// first of the window); the archiving thread takes them in that order and logs unreadable records
// then, so the log keeps the store's order. Only the worker touches the store. At most kWindow members
// are in memory (and as many spent ones, kept by the worker to read rows into); each thread frees the
// objects it made of the spent ones (so memory goes back to the arena of the allocator it came from).
// One per archiving run, so one worker reads the store whatever lists the archive holds.
class MediaReader {
 public:
  MediaReader() = default;
  ~MediaReader() {
    {
      std::lock_guard lock(mutex_);
      stop_ = true;
    }
    worker_cv_.notify_one();
    if (worker_.joinable()) worker_.join();
  }
  MediaReader(const MediaReader&) = delete;
  MediaReader& operator=(const MediaReader&) = delete;

  // Makes the album at `place` in `plan` the one whose members next() hands out.
  void open(const std::shared_ptr<const MediaPlan>& plan, std::size_t place) {
    std::unique_lock lock = take_lock();
    if (current_) spent_.push_back(std::move(current_));
    open_ = place;
    const bool same_plan = plan == (wanted_ != kNone ? wanted_plan_ : plan_);
    // Members of albums before this one were never asked for: dropped (read again if ever asked).
    while (same_plan && !window_.empty() && window_.front()->place < place) pop_front();
    const bool ready = same_plan && (window_.empty() ? started_ && reading_ == place && wanted_ == kNone
                                                     : window_.front()->place == place);
    if (!ready) {  // the worker is past this album, or elsewhere: it drops what it read and reads this one
      while (!window_.empty()) pop_front();
      wanted_plan_ = plan;
      wanted_ = place;
      wake_worker();
    }
    if (!started_) {
      started_ = true;
      worker_ = std::thread([this] {
        name_this_thread("orvia-media");
        run();
      });
    }
  }

  // The next member of the open album, converted; null at its end. Valid until the next call.
  Member* next() {
    // What this thread converted, it frees: memory goes back to the allocator's arena it came from
    // without taking the lock of the other thread's arena (the two threads would contend for it).
    if (current_ && !current_->converted_by_worker) {
      current_->media = nullptr;
      current_->heap.reset();
    }
    std::unique_lock lock = take_lock();
    if (current_) spent_.push_back(std::move(current_));
    for (;;) {
      if (!window_.empty()) {
        Member* front = window_.front().get();
        // The album's end (another album's member cannot come first: the end marker comes before it).
        if (front->end || front->place != open_) {
          if (front->place == open_) pop_front();
          return nullptr;
        }
        if (front->converted) {
          current_ = std::move(window_.front());
          window_.pop_front();
          --claimed_;
          wake_worker();
          return current_.get();
        }
        // Not ready: rather than wait, this thread converts the first member nobody has claimed yet
        // (the one it needs, or one the worker would convert next).
        if (convert_one(lock)) continue;
      }
      wait_for_change(lock, main_cv_, main_waiting_);
    }
  }

 private:
  static constexpr std::size_t kWindow = 256;
  static constexpr std::size_t kReadAhead = 8;  // unclaimed members the worker keeps ready to share
  static constexpr std::size_t kNone = SIZE_MAX;
  static constexpr std::size_t kKeptBytes = std::size_t{64} << 10, kKeptNodes = 4096;
  static constexpr int kSpins = 64, kWaitSpins = 4000;  // pauses: about 2 and 20-40 microseconds

  void wake_worker() {
    changes_.fetch_add(1, std::memory_order_release);
    if (worker_waiting_) worker_cv_.notify_one();
  }
  void wake_main() {
    changes_.fetch_add(1, std::memory_order_release);
    if (main_waiting_) main_cv_.notify_one();
  }
  // The lock, taken after a short spin: it is held for a few instructions at a time, and a thread
  // that sleeps on it pays a round trip through the kernel.
  std::unique_lock<std::mutex> take_lock() {
    std::unique_lock lock(mutex_, std::defer_lock);
    for (int i = 0; i < kSpins; ++i) {
      if (lock.try_lock()) return lock;
      spin_pause();
    }
    lock.lock();
    return lock;
  }
  // Waits until the other thread changes something: first spinning without the lock for about as long
  // as a conversion takes, then asleep on `cv` with `waiting` set.
  void wait_for_change(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, bool& waiting) {
    const std::uint64_t seen = changes_.load(std::memory_order_acquire);
    lock.unlock();
    for (int i = 0; i < kWaitSpins && changes_.load(std::memory_order_acquire) == seen; ++i) spin_pause();
    lock = take_lock();
    if (changes_.load(std::memory_order_acquire) != seen || stop_) return;
    waiting = true;
    cv.wait(lock);
    waiting = false;
  }
  static void spin_pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
  }
  // Drops the first member of the window (it may still be being converted by the worker, which will
  // mark it done before freeing it with the spent ones).
  void pop_front() {
    if (claimed_ > 0) --claimed_;
    spent_.push_back(std::move(window_.front()));
    window_.pop_front();
  }
  std::size_t unclaimed() const { return window_.size() - claimed_; }
  // Claims the first unclaimed member (end markers need no conversion and are passed over); null if none.
  Member* claim() {
    while (claimed_ < window_.size()) {
      Member* m = window_[claimed_++].get();
      if (!m->converted) return m;
    }
    return nullptr;
  }
  // Converts a claimed member with the lock let go meanwhile.
  void convert_claimed(std::unique_lock<std::mutex>& lock, Member* m) {
    m->converted_by_worker = std::this_thread::get_id() == worker_.get_id();
    lock.unlock();
    try {
      convert(*m);
    } catch (const std::exception& e) {  // out of memory, say: the member is written as nil
      m->media = nullptr;
      m->graph.clear();
      m->unreadable = e.what();
    }
    lock = take_lock();
    m->converted = true;
    wake_main();
  }
  bool convert_one(std::unique_lock<std::mutex>& lock) {
    Member* m = claim();
    if (!m) return false;
    convert_claimed(lock, m);
    return true;
  }

  void convert(Member& m) const {
    const std::string_view bytes(m.bytes);
    m.heap = std::make_unique<Heap>();
    HeapScope scope(*m.heap);
    m.media = convertedMediaFromArchive(m.has_dictionary ? &bytes : nullptr, &m.unreadable, m.graph, m.root);
  }

  // Keeps spent members for the next rows read, with the room their bytes and graph took (most
  // records are alike), instead of freeing them and making new ones. Only the worker calls it.
  void recycle(std::deque<std::unique_ptr<Member>>& spent) {
    for (std::unique_ptr<Member>& m : spent) {
      m->media = nullptr;
      m->heap.reset();
      // An unusually large record's room is not kept.
      if (pool_.size() >= kWindow || m->bytes.capacity() > kKeptBytes || m->graph.size() > kKeptNodes) continue;
      m->graph.clear();
      m->root = FlatGraph::kNone;
      m->unreadable.clear();
      m->end = m->has_dictionary = m->converted = m->converted_by_worker = false;
      pool_.push_back(std::move(m));
    }
    spent.clear();
  }
  std::unique_ptr<Member> new_member() {
    if (pool_.empty()) return std::make_unique<Member>();
    std::unique_ptr<Member> m = std::move(pool_.back());
    pool_.pop_back();
    return m;
  }

  void run() {
    std::deque<std::unique_ptr<Member>> spent;
    std::unique_lock lock(mutex_);
    for (;;) {
      spent.swap(spent_);
      if (!spent.empty()) {
        lock.unlock();
        recycle(spent);
        lock.lock();
        continue;
      }
      if (stop_) return;
      if (wanted_ != kNone) {
        plan_ = std::move(wanted_plan_);
        reading_ = wanted_;
        wanted_ = kNone;
      }
      if (plan_ && reading_ < plan_->size()) {
        const std::size_t place = reading_;
        Ref<ImageList> album = plan_->album(place);
        lock.unlock();
        read_album(place, album, spent);
        // The last album read: the store's page cache is not needed any more (the archive is at its
        // largest from here on), and would be filled again if an album were asked for anew.
        if (place + 1 == plan_->size() && album) album->context()->release_cache();
        lock.lock();
        if (wanted_ == kNone && reading_ == place) reading_ = place + 1;
        continue;
      }
      // Nothing more to read: convert what waits, else sleep until asked for an album again.
      if (!convert_one(lock)) wait_for_change(lock, worker_cv_, worker_waiting_);
    }
  }

  // Reads the album's rows into the window, then its end marker, unless told to stop or to read
  // another album meanwhile.
  void read_album(std::size_t place, const Ref<ImageList>& album, std::deque<std::unique_ptr<Member>>& spent) {
    auto leaving = [&] { return stop_ || wanted_ != kNone; };
    try {
      album->enumerateImages([&](const ImageItemRow& row) {
        std::unique_ptr<Member> m = new_member();
        m->place = place;
        m->bytes.assign(row.dictionary);
        m->has_dictionary = row.has_dictionary;
        m->entity = row.entity;
        m->primary_key = row.primary_key;
        std::unique_lock lock = take_lock();
        while (window_.size() >= kWindow && !leaving()) {
          if (!convert_one(lock)) wait_for_change(lock, worker_cv_, worker_waiting_);
        }
        if (leaving()) return false;
        window_.push_back(std::move(m));
        wake_main();
        while (unclaimed() > kReadAhead && convert_one(lock)) {
        }
        spent.swap(spent_);
        lock.unlock();
        recycle(spent);
        return true;
      });
    } catch (const std::exception& e) {
      NSLog("Reading the media of %@ stopped: %@", album->objectURI(), std::string(e.what()));
    }
    std::lock_guard lock(mutex_);
    if (leaving()) return;
    auto marker = std::make_unique<Member>();
    marker->place = place;
    marker->end = true;
    marker->converted = true;
    window_.push_back(std::move(marker));
    wake_main();
  }

  std::shared_ptr<const MediaPlan> plan_, wanted_plan_;  // the plan read; the one to read next when asked
  std::mutex mutex_;
  std::condition_variable main_cv_, worker_cv_;
  std::deque<std::unique_ptr<Member>> window_, spent_;  // window_: read, not yet taken, in order
  std::unique_ptr<Member> current_;                     // the member handed out last
  std::vector<std::unique_ptr<Member>> pool_;           // spent members to read rows into (the worker's)
  std::size_t claimed_ = 0;                             // the first claimed_ members of the window are claimed
  std::size_t open_ = kNone, reading_ = 0, wanted_ = kNone;
  bool started_ = false, stop_ = false, main_waiting_ = false, worker_waiting_ = false;
  std::atomic<std::uint64_t> changes_{0};  // counts changes the other thread may wait for
  std::thread worker_;
};

}  // namespace

std::size_t MediaPlan::add(Ref<ImageList> album) {
  std::lock_guard lock(mutex_);
  albums_.push_back(std::move(album));
  return albums_.size() - 1;
}

std::size_t MediaPlan::size() const {
  std::lock_guard lock(mutex_);
  return albums_.size();
}

Ref<ImageList> MediaPlan::album(std::size_t place) const {
  std::lock_guard lock(mutex_);
  return albums_[place];
}

AlbumMediaList::AlbumMediaList(Ref<ImageList> album)
    : AlbumMediaList(std::move(album), std::make_shared<MediaPlan>()) {}

AlbumMediaList::AlbumMediaList(Ref<ImageList> album, std::shared_ptr<MediaPlan> plan)
    : album_(std::move(album)), plan_(std::move(plan)) {
  if (album_) place_ = plan_->add(album_);
}

std::span<const std::string_view> AlbumMediaList::class_chain() const {
  static constexpr std::string_view kChain[] = {"NSMutableArray", "NSArray", "NSObject"};
  return kChain;
}

void AlbumMediaList::encode_with_coder(KeyedEncoder& coder) const {
  coder.encode_object_stream("NS.objects", [this, &coder](const KeyedEncoder::ObjectSink& sink) {
    if (!album_) return;
    Heap* heap = Heap::current();
    if (!heap) {  // nothing would own what the worker makes: converted here, one at a time
      convert_each([&sink](const Ref<Object>& media) { sink(media); });
      return;
    }
    // One reader per archiving run (one worker touching the store), shared by every list it writes.
    static const char kReaderKey = 0;
    auto reader = std::static_pointer_cast<MediaReader>(
        coder.run_state(&kReaderKey, [] { return std::make_shared<MediaReader>(); }));
    reader->open(plan_, place_);
    while (Member* m = reader->next()) {
      if (!m->unreadable.empty())
        NSLog("Unreadable media record %@: %@", album_->context()->object_uri(m->entity, m->primary_key),
              m->unreadable);
      if (m->media || m->graph.empty()) {
        sink(m->media);
      } else {
        sink.graph(m->graph, m->root);
        continue;
      }
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
