#include "platform/keyed_archive.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>
#include <deque>
#include <mutex>
#include <system_error>

#include <fmt/format.h>
#include <plist/plist.h>

#include "platform/bplist_format.h"
#include "platform/queue.h"
#include "platform/xml_nesting.h"

namespace orvia {
namespace {

using bplist::Item;
using bplist::Type;

// Archiving and unarchiving recurse into nested objects up to this depth, which keeps the order of
// "$objects" the one Apple's archiver produces for ordinary graphs; deeper objects are queued and
// handled by a loop, so no input can exhaust the stack.
constexpr int kInlineDepth = 96;

enum class Builtin : std::uint8_t { None, Array, MutableArray, Dict, MutableDict, Set, MutableSet, String, MutableString, Data, MutableData, Date, Null };

struct BuiltinName {
  std::string_view name;
  Builtin kind;
};
constexpr BuiltinName kBuiltins[] = {
    {"NSArray", Builtin::Array},           {"NSMutableArray", Builtin::MutableArray},
    {"NSDictionary", Builtin::Dict},       {"NSMutableDictionary", Builtin::MutableDict},
    {"NSSet", Builtin::Set},               {"NSMutableSet", Builtin::MutableSet},
    {"NSString", Builtin::String},         {"NSMutableString", Builtin::MutableString},
    {"NSData", Builtin::Data},             {"NSMutableData", Builtin::MutableData},
    {"NSDate", Builtin::Date},             {"NSNull", Builtin::Null},
};

Builtin builtin_for(std::string_view name) {
  for (const auto& b : kBuiltins)
    if (b.name == name) return b.kind;
  return Builtin::None;
}

// "$classes" chains of the Foundation classes, as Apple writes them.
std::span<const std::string_view> foundation_chain(std::string_view name) {
  static constexpr std::string_view kArray[] = {"NSArray", "NSObject"};
  static constexpr std::string_view kMArray[] = {"NSMutableArray", "NSArray", "NSObject"};
  static constexpr std::string_view kDict[] = {"NSDictionary", "NSObject"};
  static constexpr std::string_view kMDict[] = {"NSMutableDictionary", "NSDictionary", "NSObject"};
  static constexpr std::string_view kSet[] = {"NSSet", "NSObject"};
  static constexpr std::string_view kMSet[] = {"NSMutableSet", "NSSet", "NSObject"};
  static constexpr std::string_view kMString[] = {"NSMutableString", "NSString", "NSObject"};
  static constexpr std::string_view kMData[] = {"NSMutableData", "NSData", "NSObject"};
  static constexpr std::string_view kDate[] = {"NSDate", "NSObject"};
  static constexpr std::string_view kNull[] = {"NSNull", "NSObject"};
  switch (builtin_for(name)) {
    case Builtin::Array: return kArray;
    case Builtin::MutableArray: return kMArray;
    case Builtin::Dict: return kDict;
    case Builtin::MutableDict: return kMDict;
    case Builtin::Set: return kSet;
    case Builtin::MutableSet: return kMSet;
    case Builtin::MutableString: return kMString;
    case Builtin::MutableData: return kMData;
    case Builtin::Date: return kDate;
    case Builtin::Null: return kNull;
    default: return {};
  }
}

// Immutable strings, numbers and immutable data are stored in place in "$objects" (no class record).
bool is_plain(const Object* o) {
  switch (o->kind()) {
    case ObjectKind::Number: return true;
    case ObjectKind::String: return !static_cast<const String*>(o)->is_mutable();
    case ObjectKind::Data: return !static_cast<const Data*>(o)->is_mutable();
    default: return false;
  }
}

// Open-addressing map from object address to UID.
class PtrMap {
 public:
  PtrMap() : slots_(16) {}
  // Returns the slot's value (UINT32_MAX when inserted new).
  std::uint32_t* find_or_insert(const Object* key, bool& inserted) {
    if ((size_ + 1) * 4 > slots_.size() * 3) grow();
    std::size_t mask = slots_.size() - 1;
    std::size_t i = hash(key) & mask;
    while (slots_[i].key && slots_[i].key != key) i = (i + 1) & mask;
    inserted = !slots_[i].key;
    if (inserted) {
      slots_[i].key = key;
      ++size_;
    }
    return &slots_[i].value;
  }

 private:
  struct Slot {
    const Object* key = nullptr;
    std::uint32_t value = 0;
  };
  static std::size_t hash(const Object* p) {
    auto x = reinterpret_cast<std::uintptr_t>(p);
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    return static_cast<std::size_t>(x);
  }
  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    size_ = 0;
    for (const Slot& s : old) {
      if (!s.key) continue;
      bool ins;
      *find_or_insert(s.key, ins) = s.value;
    }
  }
  std::vector<Slot> slots_;
  std::size_t size_ = 0;
};

}  // namespace

// The archiver keeps an object's UID in the object itself. Objects are used by one thread at a time,
// except the process-wide constants, whose UIDs go through a table.
class ArchiveScratch {
 public:
  static std::uint32_t next_run() {
    static std::atomic<std::uint32_t> runs{0};
    std::uint32_t r = runs.fetch_add(1, std::memory_order_relaxed) + 1;
    return r ? r : runs.fetch_add(1, std::memory_order_relaxed) + 1;  // 0 means "never archived"
  }
  static bool shared_constant(const Object* o) {
    return o->kind() == ObjectKind::Null || (o->kind() == ObjectKind::Number && static_cast<const Number*>(o)->is_bool());
  }
  // Gives `o` the UID `uid` in this run; false when it already has one.
  static bool claim(const Object* o, std::uint32_t run, std::uint32_t uid, PtrMap& shared) {
    if (shared_constant(o)) {
      bool inserted;
      std::uint32_t* slot = shared.find_or_insert(o, inserted);
      if (inserted) *slot = uid;
      return inserted;
    }
    if (o->archive_run_ == run) return false;
    o->archive_run_ = run;
    o->archive_uid_ = uid;
    return true;
  }
  static bool claimed(const Object* o, std::uint32_t run) { return o->archive_run_ == run; }
  static std::uint32_t uid(const Object* o, std::uint32_t run, PtrMap& shared) {
    if (shared_constant(o)) {
      bool inserted;
      return *shared.find_or_insert(o, inserted);
    }
    return o->archive_uid_;
  }
};

namespace {

// ---------------------------------------------------------------------------------------------------

// Loads ahead what a record will write: run through its encode_with_coder, it prefetches each object
// the record names and keeps them for a further pass. It writes nothing and hands no list over.
class FieldPrefetcher final : public KeyedEncoder {
 public:
  explicit FieldPrefetcher(std::vector<const Object*>& fields) : fields_(fields) {}
  void encode_object(std::string_view, const Object* obj) override {
    if (!obj) return;
    prefetch(obj);
    fields_.push_back(obj);
  }
  void encode_int64(std::string_view, std::int64_t) override {}
  void encode_bool(std::string_view, bool) override {}
  void encode_double(std::string_view, double) override {}
  void encode_object_stream(std::string_view, const std::function<void(const ObjectSink&)>&) override {}

 private:
  std::vector<const Object*>& fields_;
};

class Archiver final : public KeyedEncoder {
 public:
  std::string run(const Object* root, std::string_view top_key) {
    const std::uint32_t top = build(root, top_key);
    return b_.write(top);
  }
  // The builder, which holds bytes only (all but a little of an archiver's memory), taken away.
  std::unique_ptr<bplist::Builder> take_builder() { return std::make_unique<bplist::Builder>(std::move(b_)); }

  // Adds every object of the archive to the builder; the top object's index.
  std::uint32_t build(const Object* root, std::string_view top_key) {
    const std::uint32_t top = b_.reserve();
    entries_.push_back(b_.add_string("$null"));
    const std::uint32_t root_uid = uid_of(root);
    while (!deferred_.empty()) {
      auto [obj, index] = deferred_.back();
      deferred_.pop_back();
      depth_ = 1;
      encode_entry(obj, index);
      depth_ = 0;
    }
    end_run_states();  // every object is in the builder: what the run kept for its objects can go
    const std::uint32_t objects = b_.reserve();
    b_.set_array(objects, entries_.data(), entries_.size());
    const std::uint32_t top_dict = b_.reserve();
    std::uint32_t tk = b_.add_string(top_key), tv = b_.add_uid(root_uid);
    b_.set_dict(top_dict, &tk, &tv, 1);
    const std::uint32_t keys[] = {b_.add_string("$version"), b_.add_string("$archiver"), b_.add_string("$top"),
                                  b_.add_string("$objects")};
    const std::uint32_t values[] = {b_.add_int(100000), b_.add_string("NSKeyedArchiver"), top_dict, objects};
    b_.set_dict(top, keys, values, 4);
    return top;
  }

  void encode_object(std::string_view key, const Object* obj) override {
    std::uint32_t uid = uid_of(obj);
    Frame& f = frame();
    f.keys.push_back(key_index(key));
    f.values.push_back(b_.add_uid(uid));
  }
  void encode_int64(std::string_view key, std::int64_t v) override {
    Frame& f = frame();
    f.keys.push_back(key_index(key));
    f.values.push_back(b_.add_int(v));
  }
  void encode_bool(std::string_view key, bool v) override {
    Frame& f = frame();
    f.keys.push_back(key_index(key));
    f.values.push_back(b_.add_bool(v));
  }
  void encode_double(std::string_view key, double v) override {
    Frame& f = frame();
    f.keys.push_back(key_index(key));
    f.values.push_back(b_.add_real(v));
  }
  void encode_object_stream(std::string_view key, const std::function<void(const ObjectSink&)>& produce) override {
    Indices refs;
    produce(StreamSink(*this, refs));
    const std::uint32_t a = b_.reserve();
    b_.set_array(a, refs.data(), refs.size());
    Frame& f = frame();
    f.keys.push_back(key_index(key));
    f.values.push_back(a);
  }

 private:
  // A reused list of bplist indices whose appending is inlined: the archiver appends one per
  // reference it writes, and the standard vector's out-of-line append showed in every profile.
  class Indices {
   public:
    [[gnu::always_inline]] void push_back(std::uint32_t v) {
      if (size_ == capacity_) [[unlikely]] grow();
      data_[size_++] = v;
    }
    void clear() { size_ = 0; }
    const std::uint32_t* data() const { return data_.get(); }
    std::size_t size() const { return size_; }

   private:
    [[gnu::noinline]] void grow() {
      const std::size_t capacity = capacity_ ? 2 * capacity_ : 16;
      auto grown = std::make_unique_for_overwrite<std::uint32_t[]>(capacity);
      if (size_) std::memcpy(grown.get(), data_.get(), size_ * sizeof(std::uint32_t));
      data_ = std::move(grown);
      capacity_ = capacity;
    }
    std::unique_ptr<std::uint32_t[]> data_;
    std::size_t size_ = 0, capacity_ = 0;
  };
  struct Frame {
    Indices keys, values;
    Indices refs, more_refs;  // a container's element references, reused
  };

  // Takes the items of a streamed list: objects, and graphs written as their objects would be.
  class StreamSink final : public ObjectSink {
   public:
    StreamSink(Archiver& archiver, Indices& refs) : a_(archiver), refs_(refs) {}
    void operator()(const Ref<Object>& item) const override {
      const std::size_t deferred = a_.deferred_.size();
      refs_.push_back(a_.b_.add_uid(a_.uid_of(item.get())));
      // Parts of it lying deep are written at the end: the object stays until then.
      if (a_.deferred_.size() != deferred) a_.kept_.push_back(item);
    }
    void graph(const FlatGraph& graph, FlatGraph::Node root) const override {
      // Written in place only when nothing in it could be left for the end (deep parts are written
      // last, from their objects) and nothing it holds could go away before then.
      if (a_.in_graph_ || !graph.only_constants() || a_.depth_ + graph.container_count() > kInlineDepth) {
        (*this)(graph.materialize(root));
        return;
      }
      refs_.push_back(a_.b_.add_uid(a_.uid_of_graph(graph, root)));
    }

   private:
    Archiver& a_;
    Indices& refs_;
  };

  // A graph's root UID, its nodes given UIDs and entries as uid_of and encode_entry give them to the
  // same objects.
  std::uint32_t uid_of_graph(const FlatGraph& graph, FlatGraph::Node root) {
    in_graph_ = true;
    graph_uids_.assign(graph.size(), kNoUid);
    graph_hashes_.resize(graph.size());
    // The strings' bytes, then the builder's table slots they will look at, loaded ahead in two passes
    // (as prefetch_strings does for a dictionary of objects); the strings' hashes are kept for adding them.
    for (std::size_t n = 0; n < graph.size(); ++n)
      if (graph.node(n).kind == FlatGraph::Kind::String) prefetch(graph.node(n).text.data());
    for (std::size_t n = 0; n < graph.size(); ++n)
      if (graph.node(n).kind == FlatGraph::Kind::String) graph_hashes_[n] = b_.prefetch_string(graph.node(n).text);
    const std::uint32_t uid = uid_of_node(graph, root);
    in_graph_ = false;
    return uid;
  }

  static constexpr std::uint32_t kNoUid = UINT32_MAX;

  std::uint32_t uid_of_node(const FlatGraph& graph, FlatGraph::Node n) {
    if (FlatGraph::is_existing(n)) return uid_of_constant(graph.existing_object(n));
    const FlatGraph::Data& d = graph.node(n);
    std::uint32_t& slot = graph_uids_[n];
    if (slot != kNoUid) return slot;
    const std::uint32_t uid = static_cast<std::uint32_t>(entries_.size());
    slot = uid;
    switch (d.kind) {
      case FlatGraph::Kind::String:
        entries_.push_back(b_.add_string(d.text, graph_hashes_[n]));
        return uid;
      case FlatGraph::Kind::Number:
        entries_.push_back(d.number_type == Number::Type::Real       ? b_.add_real(std::bit_cast<double>(d.bits))
                           : d.number_type == Number::Type::Unsigned ? b_.add_uint(d.bits)
                                                                     : b_.add_int(static_cast<std::int64_t>(d.bits)));
        return uid;
      default:
        break;
    }
    const std::uint32_t index = b_.reserve();
    entries_.push_back(index);
    ++depth_;
    encode_graph_entry(graph, n, index);
    --depth_;
    return uid;
  }

  void encode_graph_entry(const FlatGraph& graph, FlatGraph::Node n, std::uint32_t index) {
    const FlatGraph::Data& d = graph.node(n);
    Frame& f0 = frame();
    f0.keys.clear();
    f0.values.clear();
    if (d.kind == FlatGraph::Kind::Array) {
      Indices& refs = frame().refs;
      refs.clear();
      for (std::uint32_t e = d.first; e != FlatGraph::kNone; e = graph.edge(e).next)
        refs.push_back(b_.add_uid(uid_of_node(graph, graph.edge(e).value)));
      const std::uint32_t a = b_.reserve();
      b_.set_array(a, refs.data(), refs.size());
      Frame& f = frame();
      f.keys.push_back(constant(ns_objects_, "NS.objects"));
      f.values.push_back(a);
    } else {
      Frame& scratch = frame();
      Indices& krefs = scratch.refs;
      Indices& vrefs = scratch.more_refs;
      krefs.clear();
      vrefs.clear();
      const SharedKeys* shared = known_keys(graph, d);
      if (!shared) {
        bool shareable = true;
        for (std::uint32_t e = d.first; e != FlatGraph::kNone; e = graph.edge(e).next) {
          const std::uint32_t uid = uid_of_node(graph, graph.edge(e).key);
          shareable = shareable && uid < bplist::Builder::kUniqueUids;
          krefs.push_back(b_.add_uid(uid));
        }
        if (shareable) shared = remember_keys(krefs);
      }
      for (std::uint32_t e = d.first; e != FlatGraph::kNone; e = graph.edge(e).next)
        vrefs.push_back(b_.add_uid(uid_of_node(graph, graph.edge(e).value)));
      if (shared) {
        dictionary_fields(shared->refs, vrefs);
      } else {
        dictionary_fields(krefs, vrefs);
      }
    }
    finish_entry(index, class_uid(graph.class_name(n), nullptr));
  }

  // The UID of an object a graph refers to (written in place, the graph holds constants only): the
  // same few are met in every graph, and are found by address before asking the object itself.
  std::uint32_t uid_of_constant(const Object* o) {
    KnownConstant& known = known_constants_[(reinterpret_cast<std::uintptr_t>(o) >> 4) % known_constants_.size()];
    if (known.object == o && o) return known.uid;
    const std::uint32_t uid = uid_of(o);
    known = {o, uid};
    return uid;
  }
  struct KnownConstant {
    const Object* object = nullptr;
    std::uint32_t uid = 0;
  };

  // Graphs of one conversion make dictionaries of a few shapes, each with the same constant keys in
  // the same order: their key references are worked out once and the arrays share them. A later
  // dictionary of a known shape needs no lookups for its keys, which have UIDs already and make no
  // objects (so its other objects are numbered as they would be).
  struct SharedKeys {
    std::vector<const Object*> keys;
    const std::uint32_t* refs = nullptr;
  };
  static constexpr std::size_t kMaxShapes = 256;  // beyond this many, dictionaries make their own arrays

  // The shape of a dictionary whose keys are all existing strings, when it is known; null otherwise
  // (its keys, if shareable, are then remembered by remember_keys once worked out).
  const SharedKeys* known_keys(const FlatGraph& graph, const FlatGraph::Data& d) {
    shape_.clear();
    pending_shape_ = false;
    if (d.count == 0) return nullptr;
    std::uint64_t h = d.count;
    for (std::uint32_t e = d.first; e != FlatGraph::kNone; e = graph.edge(e).next) {
      const FlatGraph::Node k = graph.edge(e).key;
      if (!FlatGraph::is_existing(k)) return nullptr;
      const Object* o = graph.existing_object(k);
      shape_.push_back(o);
      h = (h ^ reinterpret_cast<std::uintptr_t>(o)) * 0x9e3779b97f4a7c15ull;
    }
    shape_hash_ = h ^ (h >> 29);
    auto it = shapes_.find(shape_hash_);
    if (it == shapes_.end()) {
      // Only strings, which are written in place and make nothing else (the objects themselves are
      // read for a new shape only).
      pending_shape_ = shapes_.size() < kMaxShapes &&
                       std::all_of(shape_.begin(), shape_.end(), [](const Object* o) { return o && o->kind() == ObjectKind::String; });
      return nullptr;
    }
    const SharedKeys& known = shared_keys_[it->second];
    return known.keys == shape_ ? &known : nullptr;  // another shape with the same hash: not shared
  }

  const SharedKeys* remember_keys(const Indices& krefs) {
    if (!pending_shape_) return nullptr;
    pending_shape_ = false;
    shapes_.emplace(shape_hash_, shared_keys_.size());
    shared_keys_.push_back(SharedKeys{shape_, b_.share_refs(krefs.data(), krefs.size())});
    return &shared_keys_.back();
  }

  // A dictionary's fields, from the UID references of its keys and of its values.
  void dictionary_fields(const Indices& krefs, const Indices& vrefs) {
    const std::uint32_t ka = b_.reserve();
    b_.set_array(ka, krefs.data(), krefs.size());
    fields_with_keys(ka, vrefs);
  }
  // The same with keys that the builder keeps for several dictionaries (share_refs), one per value.
  void dictionary_fields(const std::uint32_t* shared_keys, const Indices& vrefs) {
    const std::uint32_t ka = b_.reserve();
    b_.set_shared_array(ka, shared_keys, vrefs.size());
    fields_with_keys(ka, vrefs);
  }
  // The values' array, then the two arrays as the entry's fields.
  void fields_with_keys(std::uint32_t ka, const Indices& vrefs) {
    const std::uint32_t va = b_.reserve();
    b_.set_array(va, vrefs.data(), vrefs.size());
    Frame& f = frame();
    f.keys.push_back(constant(ns_keys_, "NS.keys"));
    f.values.push_back(ka);
    f.keys.push_back(constant(ns_objects_, "NS.objects"));
    f.values.push_back(va);
  }

  // The "$class" field, then the entry at `index` made of the frame's fields.
  void finish_entry(std::uint32_t index, std::uint32_t cls) {
    Frame& f = frame();
    f.keys.push_back(constant(class_key_, "$class"));
    f.values.push_back(b_.add_uid(cls));
    b_.set_dict(index, f.keys.data(), f.values.data(), f.keys.size());
  }

  Frame& frame() {
    while (frames_.size() <= static_cast<std::size_t>(depth_)) frames_.push_back(std::make_unique<Frame>());
    return *frames_[depth_];
  }

  // The bplist index of a fixed text, added when first used (as add_string would number it).
  std::uint32_t constant(std::uint32_t& slot, std::string_view text) {
    if (slot == UINT32_MAX) slot = b_.add_string(text);
    return slot;
  }

  std::uint32_t key_index(std::string_view key) {
    // Records name their fields with the same few literals: a key met lately at the same address is
    // found without hashing it (its text is compared, since a caller's temporary may reuse an address).
    RecentKey& recent = recent_keys_[(reinterpret_cast<std::uintptr_t>(key.data()) >> 3) % recent_keys_.size()];
    if (recent.data == key.data() && recent.text == key) return recent.index;
    const std::uint32_t index = stored_key_index(key);
    recent.data = key.data();
    recent.text = keys_.find(key)->first;
    recent.index = index;
    return index;
  }
  std::uint32_t stored_key_index(std::string_view key) {
    if (auto it = keys_.find(key); it != keys_.end()) return it->second;
    // Keys are copied once, so callers may pass temporaries; a user key starting with "$" gets one more.
    std::string stored;
    if (!key.empty() && key[0] == '$') stored.push_back('$');
    stored.append(key);
    owned_.push_back(std::move(stored));
    std::uint32_t index = b_.add_string(owned_.back());
    keys_.emplace(std::string_view(owned_.back()).substr(!key.empty() && key[0] == '$' ? 1 : 0), index);
    return index;
  }

  std::uint32_t uid_of(const Object* o) {
    if (!o) return 0;
    const std::uint32_t uid = static_cast<std::uint32_t>(entries_.size());
    if (!ArchiveScratch::claim(o, run_, uid, uids_)) return ArchiveScratch::uid(o, run_, uids_);
    if (is_plain(o)) {
      entries_.push_back(plain_index(o));
      return uid;
    }
    const std::uint32_t index = b_.reserve();
    entries_.push_back(index);
    if (depth_ < kInlineDepth) {
      ++depth_;
      encode_entry(o, index);
      --depth_;
    } else {
      deferred_.emplace_back(o, index);
    }
    return uid;
  }

  // The string values of a dictionary about to be added: the values, then their bytes, then the
  // builder's table slots are loaded in three passes, so that each pass waits for memory about once
  // instead of once per entry.
  template <class Entries>
  void prefetch_strings(const Entries& entries) {
    for (const auto& e : entries) prefetch(e.second.get());
    for (const auto& e : entries) {
      const Object* o = e.second.get();
      if (o && o->kind() == ObjectKind::String) prefetch(static_cast<const String*>(o)->str().data());
    }
    for (const auto& e : entries) {
      const Object* o = e.second.get();
      if (o && o->kind() == ObjectKind::String && !ArchiveScratch::claimed(o, run_))
        b_.prefetch_string(static_cast<const String*>(o)->str());
    }
  }

  // The objects that records among items [first, end) still to be written will write, then the bytes
  // of those that are strings, then the builder's table slots for them, each loaded in a pass of its
  // own (a tree's nodes were made long before they are written, and are far apart in memory).
  void prefetch_fields(const std::vector<Ref<Object>>& items, std::size_t first, std::size_t end) {
    fields_.clear();
    FieldPrefetcher prefetcher(fields_);
    for (std::size_t i = first; i < end; ++i) {
      const Object* o = items[i].get();
      if (o && o->kind() == ObjectKind::Record && !ArchiveScratch::claimed(o, run_))
        static_cast<const Record*>(o)->encode_with_coder(prefetcher);
    }
    for (const Object* o : fields_)
      if (o->kind() == ObjectKind::String) prefetch(static_cast<const String*>(o)->str().data());
    for (const Object* o : fields_)
      if (o->kind() == ObjectKind::String && !ArchiveScratch::claimed(o, run_))
        b_.prefetch_string(static_cast<const String*>(o)->str());
  }

  std::uint32_t plain_index(const Object* o) {
    switch (o->kind()) {
      case ObjectKind::String:
        return b_.add_string(static_cast<const String*>(o)->str());
      case ObjectKind::Data:
        return b_.add_data(static_cast<const Data*>(o)->bytes());
      default: {
        const Number* n = static_cast<const Number*>(o);
        switch (n->type()) {
          case Number::Type::Boolean: return b_.add_bool(n->bool_value());
          case Number::Type::Real: return b_.add_real(n->real_value());
          case Number::Type::Unsigned: return b_.add_uint(n->uint_value());
          case Number::Type::Signed: return b_.add_int(n->int_value());
        }
        return 0;
      }
    }
  }

  // Writes the UIDs of a list of objects as one bplist array.
  std::uint32_t uid_array(const std::vector<Ref<Object>>& items) {
    Indices& refs = frame().refs;  // frames stay put; deeper objects use deeper ones
    refs.clear();
    // Items are taken sixteen at a time: the headers of the next sixteen are loaded ahead (each is
    // read first, to find whether it has a UID yet), and the fields of these before they are written.
    constexpr std::size_t kAhead = 16;
    for (std::size_t i = 0; i < std::min(items.size(), kAhead); ++i) prefetch(items[i].get());
    for (std::size_t first = 0; first < items.size(); first += kAhead) {
      const std::size_t end = std::min(items.size(), first + kAhead);
      for (std::size_t i = end; i < std::min(items.size(), end + kAhead); ++i) prefetch(items[i].get());
      prefetch_fields(items, first, end);
      for (std::size_t i = first; i < end; ++i) refs.push_back(b_.add_uid(uid_of(items[i].get())));
    }
    std::uint32_t a = b_.reserve();
    b_.set_array(a, refs.data(), refs.size());
    return a;
  }

  void encode_entry(const Object* o, std::uint32_t index) {
    Frame& f0 = frame();
    f0.keys.clear();
    f0.values.clear();
    switch (o->kind()) {
      case ObjectKind::Array:
      case ObjectKind::Set: {
        const auto& items = o->kind() == ObjectKind::Array ? static_cast<const Array*>(o)->items()
                                                           : static_cast<const Set*>(o)->items();
        std::uint32_t a = uid_array(items);
        Frame& f = frame();
        f.keys.push_back(constant(ns_objects_, "NS.objects"));
        f.values.push_back(a);
        break;
      }
      case ObjectKind::Dictionary: {
        // All keys first, then all values, as Apple's archiver orders them.
        const auto& entries = static_cast<const Dictionary*>(o)->entries();
        Frame& scratch = frame();  // frames stay put; deeper objects use deeper ones
        Indices& krefs = scratch.refs;
        Indices& vrefs = scratch.more_refs;
        krefs.clear();
        vrefs.clear();
        prefetch_strings(entries);
        for (const auto& e : entries) krefs.push_back(b_.add_uid(uid_of(e.first.get())));
        for (const auto& e : entries) vrefs.push_back(b_.add_uid(uid_of(e.second.get())));
        dictionary_fields(krefs, vrefs);
        break;
      }
      case ObjectKind::Date:
        encode_double("NS.time", static_cast<const Date*>(o)->time());
        break;
      case ObjectKind::String: {
        Frame& f = frame();
        f.keys.push_back(constant(ns_string_, "NS.string"));
        f.values.push_back(b_.add_string(static_cast<const String*>(o)->str()));
        break;
      }
      case ObjectKind::Data: {
        Frame& f = frame();
        f.keys.push_back(constant(ns_data_, "NS.data"));
        f.values.push_back(b_.add_data(static_cast<const Data*>(o)->bytes()));
        break;
      }
      case ObjectKind::Null:
        break;
      case ObjectKind::Record:
        static_cast<const Record*>(o)->encode_with_coder(*this);
        break;
      case ObjectKind::Number:
        break;  // plain, never here
    }
    finish_entry(index, class_uid(o->class_name(), o));
  }

  // The UID of a class record; `o` (an object of the class, or null for a Foundation class) gives a
  // record class its chain.
  std::uint32_t class_uid(std::string_view name, const Object* o) {
    for (const RecentClass& r : recent_classes_)
      if (!r.name.empty() && r.name == name) return r.uid;
    std::uint32_t uid = known_class_uid(o, name);
    RecentClass& slot = recent_classes_[recent_next_++ % recent_classes_.size()];
    slot.name.assign(name);
    slot.uid = uid;
    return uid;
  }

  std::uint32_t known_class_uid(const Object* o, std::string_view name) {
    if (auto it = classes_.find(name); it != classes_.end()) return it->second;
    std::span<const std::string_view> chain = o && o->kind() == ObjectKind::Record
                                                  ? static_cast<const Record*>(o)->class_chain()
                                                  : foundation_chain(name);
    const std::uint32_t uid = static_cast<std::uint32_t>(entries_.size());
    const std::uint32_t index = b_.reserve();
    entries_.push_back(index);
    std::vector<std::uint32_t> names;
    for (std::string_view n : chain) names.push_back(b_.add_string(n));
    std::vector<std::uint32_t> keys{b_.add_string("$classname")}, values{b_.add_string(name)};
    if (!names.empty()) {
      std::uint32_t a = b_.reserve();
      b_.set_array(a, names.data(), names.size());
      keys.push_back(b_.add_string("$classes"));
      values.push_back(a);
    }
    b_.set_dict(index, keys.data(), values.data(), keys.size());
    classes_.emplace(std::string(name), uid);  // the object may be gone before the archive is done
    return uid;
  }

  bplist::Builder b_;
  const std::uint32_t run_ = ArchiveScratch::next_run();
  PtrMap uids_;  // for objects that several threads share (YES, NO, NSNull), which keep no scratch
  std::vector<std::uint32_t> entries_;  // UID -> bplist index of its "$objects" entry
  std::vector<std::pair<const Object*, std::uint32_t>> deferred_;
  std::vector<std::unique_ptr<Frame>> frames_;
  int depth_ = 0;
  std::unordered_map<std::string_view, std::uint32_t> keys_;
  struct RecentKey {
    const char* data = nullptr;  // the address the key was last passed at
    std::string_view text;       // its text, as keys_ holds it
    std::uint32_t index = 0;
  };
  std::array<RecentKey, 64> recent_keys_;
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  std::unordered_map<std::string, std::uint32_t, TextHash, std::equal_to<>> classes_;
  // The classes met last: most objects are of a handful of classes, and comparing a name with a few
  // is quicker than hashing it for the table.
  struct RecentClass {
    std::string name;  // empty: unused
    std::uint32_t uid = 0;
  };
  std::array<RecentClass, 4> recent_classes_;
  unsigned recent_next_ = 0;
  std::deque<std::string> owned_;
  std::vector<Ref<Object>> kept_;  // streamed objects with parts still to write
  std::vector<std::uint32_t> graph_uids_;  // node -> UID, for the graph being written
  std::vector<std::uint64_t> graph_hashes_;  // node -> its string's hash, for the graph being written
  std::vector<const Object*> fields_;      // what prefetch_fields found, reused
  std::array<KnownConstant, 256> known_constants_{};
  std::deque<SharedKeys> shared_keys_;     // the dictionary shapes met in graphs (a deque: entries stay put)
  std::unordered_map<std::uint64_t, std::size_t> shapes_;  // a shape's hash -> its entry
  std::vector<const Object*> shape_;       // the keys of the dictionary being written
  std::uint64_t shape_hash_ = 0;
  bool pending_shape_ = false;             // shape_ is new and may be remembered
  bool in_graph_ = false;
  std::uint32_t ns_objects_ = UINT32_MAX, ns_keys_ = UINT32_MAX, ns_string_ = UINT32_MAX, ns_data_ = UINT32_MAX,
                class_key_ = UINT32_MAX;
};

}  // namespace

// ---------------------------------------------------------------------------------------------------

class KeyedUnarchiverImpl final : public KeyedDecoder {
 public:
  KeyedUnarchiverImpl(const bplist::View& view, const ClassRegistry& registry) : v_(view), registry_(registry) {}
  ~KeyedUnarchiverImpl() {
    decoded_.clear();
    classes_.clear();
    pending_.clear();
    // The tables of a large archive are not kept.
    if (state_.capacity() <= 4096 && frames_.size() <= 128) spare() = std::move(scratch_);
  }
  KeyedUnarchiverImpl(const KeyedUnarchiverImpl&) = delete;
  KeyedUnarchiverImpl& operator=(const KeyedUnarchiverImpl&) = delete;

  Result<std::vector<std::pair<std::string, Ref<Object>>>> run() {
    auto tops = open_archive();
    if (!tops) return tops.error();
    std::vector<std::pair<std::string, Ref<Object>>> out;
    for (std::uint64_t i = 0; i < tops->count && error_.empty(); ++i) {
      auto k = v_.ref(tops.value(), i);
      auto val = v_.ref(tops.value(), tops->count + i);
      if (!k || !val) return Error{"archive: $top reference out of range"};
      auto ki = v_.item(k.value());
      auto vi = v_.item(val.value());
      if (!ki) return ki.error();
      if (!vi) return vi.error();
      if (vi->type != Type::Uid) return Error{"archive: $top value is not a UID"};
      Ref<Object> obj = decode_uid(vi->scalar, 0);
      drain();
      out.emplace_back(v_.text(ki.value()), std::move(obj));
    }
    if (!error_.empty()) return Error{error_};
    return out;
  }

  // Finds "$objects" and "$top"; the "$top" dictionary.
  Result<Item> open_archive() {
    auto top = v_.item(v_.top());
    if (!top) return top.error();
    if (top->type != Type::Dict) return Error{"archive: top level is not a dictionary"};
    std::uint64_t objects_ref = UINT64_MAX, top_ref = UINT64_MAX;
    for (std::uint64_t i = 0; i < top->count; ++i) {
      auto k = v_.ref(top.value(), i);
      auto val = v_.ref(top.value(), top->count + i);
      if (!k || !val) return Error{"archive: top-level reference out of range"};
      auto ki = v_.item(k.value());
      if (!ki) return ki.error();
      if (v_.text_equals(ki.value(), "$objects")) objects_ref = val.value();
      if (v_.text_equals(ki.value(), "$top")) top_ref = val.value();
    }
    if (objects_ref == UINT64_MAX) return Error{"archive: no $objects"};
    if (top_ref == UINT64_MAX) return Error{"archive: no $top"};
    auto objects = v_.item(objects_ref);
    if (!objects) return objects.error();
    if (objects->type != Type::Array) return Error{"archive: $objects is not an array"};
    objects_ = objects.value();
    state_.assign(objects_.count, 0);
    decoded_.resize(objects_.count);

    auto tops = v_.item(top_ref);
    if (!tops) return tops.error();
    if (tops->type != Type::Dict) return Error{"archive: $top is not a dictionary"};
    return tops.value();
  }

  // ---- Lookups that decode only what they reach.
  // They answer exactly as the unarchived root dictionary would, provided unarchiving would succeed
  // and nothing on the way is decoded differently when reached alone. So they are offered only for
  // archives that pass a check of every object against the same rules, holding Foundation values only
  // (no records, whose decoding could depend on anything), with a dictionary root.

  bool open_for_lookup() {
    auto tops = open_archive();
    if (!tops) return false;
    const std::uint64_t count = objects_.count;
    std::vector<std::uint8_t>& roles = scratch_->key_roles;  // by bplist object: its role as a key
    roles.assign(v_.size(), kRoleUnseen);
    std::vector<std::uint8_t>& kinds = scratch_->kinds;
    kinds.assign(count, kValue);
    std::vector<std::uint64_t>& targets = scratch_->targets;   // must be nil, a value or an object record
    std::vector<LookupRecord>& records = scratch_->records;
    targets.clear();
    // Read only for entries found to be records, each set whole when found: not cleared here.
    if (records.size() < count) records.resize(count);
    scratch_->key_index.dict = 0;
    auto note_target = [&](const Item& it) {
      if (it.type == Type::Uid) targets.push_back(it.scalar);
    };
    std::vector<std::uint64_t>& elements = scratch_->elements;  // list entries: UIDs, or kInline
    // Plain strings' bytes, by UID. Those of short strings are not checked for ASCII here (most are
    // never read): readers check the few they use.
    std::vector<std::string_view>& texts = scratch_->texts;
    elements.clear();
    texts.assign(count, std::string_view());
    const std::uint64_t object_count = v_.size();
    // A list's item, as the few fields the check reads.
    struct ListItem {
      bool present = false;
      Type type = Type::Null;
      std::uint64_t pos = 0, count = 0;
    };
    auto note_list = [&](const ListItem& list, std::uint32_t& first) {
      if (!list.present) return true;
      if (list.type != Type::Array) return false;
      first = static_cast<std::uint32_t>(elements.size());
      // Sized once and filled through pointers (a list is as long as its item says, which lies in the
      // file); the targets end where the last UID was noted.
      const std::uint64_t n = list.count;
      elements.resize(first + n);
      std::size_t noted = targets.size();
      targets.resize(noted + n);
      std::uint64_t* const element = elements.data() + first;
      std::uint64_t* const target = targets.data();
      for (std::uint64_t i = 0; i < n; ++i) {
        const std::uint64_t r = v_.ref_unchecked_at(list.pos, i);
        if (r >= object_count) return false;
        if (std::optional<std::uint64_t> uid = v_.uid_at(r)) {
          target[noted++] = *uid;
          element[i] = *uid;
          continue;
        }
        Item e;
        if (!v_.item_into(r, e)) return false;
        if (e.type == Type::Uid) target[noted++] = e.scalar;
        element[i] = e.type == Type::Uid ? e.scalar : kInline;
      }
      targets.resize(noted);
      return true;
    };
    for (std::uint64_t uid = 1; uid < count; ++uid) {
      const std::uint64_t ref = v_.ref_unchecked(objects_, uid);
      if (ref >= object_count) return false;
      if (std::optional<std::string_view> text = v_.ascii_at(ref)) {  // most entries: short strings
        if (*text == "$null") {
          kinds[uid] = kNil;
        } else {
          texts[uid] = *text;
        }
        continue;
      }
      Item d;
      if (!v_.item_into(ref, d)) return false;
      switch (d.type) {
        case Type::Array:
        case Type::Set:
        case Type::Uid:
          return false;  // an entry unarchiving refuses when reached
        case Type::Dict:
          break;
        case Type::Null:
          kinds[uid] = kNil;
          continue;
        case Type::AsciiString:
        case Type::Utf8String:
          if (v_.raw(d) == "$null") {
            kinds[uid] = kNil;
          } else if (bplist::is_ascii(v_.raw(d))) {
            texts[uid] = v_.raw(d);
          }
          continue;
        default:
          continue;  // other values
      }
      // The fields as load_fields reads them, each key's role worked out once per key object (the
      // few keys of an archive are shared by all its records).
      bool has_cls = false;
      Type cls_type = Type::Null;
      std::uint64_t cls_uid = 0;
      ListItem keys, objects;
      bool is_class = false;
      for (std::uint64_t i = 0; i < d.count; ++i) {
        const std::uint64_t k_ref = v_.ref_unchecked(d, i), v_ref = v_.ref_unchecked(d, d.count + i);
        if (k_ref >= object_count || v_ref >= object_count) return false;
        std::uint8_t role = roles[k_ref];
        if (role == kRoleUnseen) role = roles[k_ref] = key_role(k_ref);
        if (role == kRoleBad) return false;
        Item value;
        if (!v_.item_into(v_ref, value)) return false;
        switch (role) {
          case kRoleClassName: is_class = true; break;
          case kRoleClass:
            if (!has_cls) {
              has_cls = true;
              cls_type = value.type;
              cls_uid = value.scalar;
            }
            break;
          case kRoleKeys:
            if (!keys.present) keys = ListItem{true, value.type, value.pos, value.count};
            break;
          case kRoleObjects:
            if (!objects.present) objects = ListItem{true, value.type, value.pos, value.count};
            break;
          case kRoleTarget: note_target(value); break;  // each read by the Foundation class that has it
          default: break;
        }
      }
      if (is_class) {
        kinds[uid] = kClass;
        continue;
      }
      if (!has_cls || cls_type != Type::Uid) return false;
      kinds[uid] = kRecord;
      LookupRecord& rec = records[uid];
      rec = LookupRecord{};
      rec.cls = cls_uid;
      rec.has_keys = keys.present;
      rec.has_objects = objects.present;
      if (!note_list(keys, rec.first_key) || !note_list(objects, rec.first_object)) return false;
      rec.key_count = keys.count;
      rec.object_count = objects.count;
    }
    for (std::uint64_t t : targets)
      if (t >= count || kinds[t] == kClass) return false;
    // Each record's class: a class record of a Foundation class (read once per class record).
    std::vector<std::uint8_t>& builtins = scratch_->class_builtins;
    builtins.assign(count, kUnknownClass);
    for (std::uint64_t uid = 1; uid < count; ++uid) {
      if (kinds[uid] != kRecord) continue;
      LookupRecord& rec = records[uid];
      const std::uint64_t c = rec.cls;
      if (c >= count || kinds[c] != kClass) return false;
      if (builtins[c] == kUnknownClass) {
        const Builtin found = foundation_class(c);
        if (found == Builtin::None) return false;
        builtins[c] = static_cast<std::uint8_t>(found);
      }
      rec.builtin = static_cast<Builtin>(builtins[c]);
      // Arrays and sets written in the "NS.object.N" form are read by other rules: not here.
      const Builtin b = rec.builtin;
      if ((b == Builtin::Array || b == Builtin::MutableArray || b == Builtin::Set || b == Builtin::MutableSet) &&
          !rec.has_objects)
        return false;
    }
    // "$top": every value a UID that unarchiving accepts; the root a dictionary.
    root_uid_ = 0;
    bool root_seen = false;  // the first "root" counts, as for unarchive
    for (std::uint64_t i = 0; i < tops->count; ++i) {
      auto k = v_.ref(tops.value(), i);
      auto val = v_.ref(tops.value(), tops->count + i);
      if (!k || !val) return false;
      auto ki = v_.item(k.value());
      auto vi = v_.item(val.value());
      if (!ki || !vi || vi->type != Type::Uid) return false;
      if (vi->scalar >= count || kinds[vi->scalar] == kClass) return false;
      if (!root_seen && v_.text(ki.value()) == "root") {
        root_seen = true;
        root_uid_ = vi->scalar;
      }
    }
    if (!root_uid_ || kinds[root_uid_] != kRecord) return false;
    const Builtin root = records[root_uid_].builtin;
    return (root == Builtin::Dict || root == Builtin::MutableDict) && error_.empty();
  }

  // What a key means to the check in open_for_lookup, read as load_fields reads keys.
  enum : std::uint8_t { kRoleUnseen, kRoleBad, kRoleNone, kRoleClassName, kRoleClass, kRoleKeys, kRoleObjects, kRoleTarget };
  std::uint8_t key_role(std::uint64_t k) {
    std::string_view key;
    std::string converted;
    if (std::optional<std::string_view> quick = v_.ascii_at(k); quick && bplist::is_ascii(*quick)) {
      key = *quick;
    } else {
      auto ki = v_.item(k);
      if (!ki) return kRoleBad;
      if ((ki->type == Type::AsciiString || ki->type == Type::Utf8String) && bplist::is_ascii(v_.raw(ki.value()))) {
        key = v_.raw(ki.value());
      } else if (ki->type == Type::AsciiString || ki->type == Type::Utf8String || ki->type == Type::Utf16String) {
        converted = v_.text(ki.value());
        key = converted;
      } else {
        return kRoleBad;  // not a string
      }
    }
    if (key.size() >= 2 && key[0] == '$' && key[1] == '$') key.remove_prefix(1);
    if (key == "$classname") return kRoleClassName;
    if (key == "$class") return kRoleClass;
    if (key == "NS.keys") return kRoleKeys;
    if (key == "NS.objects") return kRoleObjects;
    if (key == "NS.string" || key == "NS.bytes" || key == "NS.data" || key == "NS.time") return kRoleTarget;
    return kRoleNone;
  }

  // The object at a key path of nested dictionaries below the root; nil when a part is missing or a
  // value on the way is not a dictionary; nothing when the lookup cannot tell.
  std::optional<Object*> lookup(std::span<const std::string_view> path) {
    std::uint64_t uid = root_uid_;
    for (std::size_t step = 0; step < path.size(); ++step) {
      if (uid == 0 || kinds()[uid] != kRecord) return nullptr;  // not a dictionary
      const Builtin b = scratch_->records[uid].builtin;
      if (b != Builtin::Dict && b != Builtin::MutableDict) return nullptr;
      const std::uint64_t found = find_entry(uid, path[step]);
      if (found == kUnsure) return std::nullopt;
      uid = found;
      if (uid == 0) return nullptr;
    }
    Ref<Object> value = decode_uid(uid, 0);
    drain();
    if (!error_.empty()) return std::nullopt;
    return value.get();  // decoded_ keeps it
  }

  // The same value, described instead of decoded: what the decoded object would be, for the plain
  // values (strings, numbers, booleans) and nil; Other for anything else.
  std::optional<KeyedArchiveLookup::Value> peek(std::span<const std::string_view> path) {
    using Value = KeyedArchiveLookup::Value;
    std::uint64_t uid = root_uid_;
    for (std::size_t step = 0; step < path.size(); ++step) {
      if (uid == 0 || kinds()[uid] != kRecord) return Value{};  // not a dictionary
      const Builtin b = scratch_->records[uid].builtin;
      if (b != Builtin::Dict && b != Builtin::MutableDict) return Value{};
      const std::uint64_t found = find_entry(uid, path[step]);
      if (found == kUnsure) return std::nullopt;
      uid = found;
      if (uid == 0) return Value{};
    }
    Value v;
    v.uid = uid;
    switch (kinds()[uid]) {
      case kNil: return Value{};
      case kValue: break;
      case kRecord: {
        v.kind = Value::Kind::Other;
        const Builtin b = scratch_->records[uid].builtin;
        v.container = b == Builtin::Dict || b == Builtin::MutableDict || b == Builtin::Array ||
                      b == Builtin::MutableArray || b == Builtin::Set || b == Builtin::MutableSet;
        return v;
      }
      default: v.kind = Value::Kind::Other; return v;
    }
    Item it;
    if (!v_.item_into(v_.ref_unchecked(objects_, uid), it)) return std::nullopt;
    switch (it.type) {
      case Type::AsciiString:
      case Type::Utf8String:
      case Type::Utf16String:
        v.kind = Value::Kind::String;
        if (scratch_->texts[uid].data() != nullptr && bplist::is_ascii(scratch_->texts[uid])) {
          v.text = scratch_->texts[uid];
        } else {
          v.converted = true;
          v.converted_text = v_.text(it);
        }
        return v;
      case Type::Int:
        v.kind = it.flag ? Value::Kind::Unsigned : Value::Kind::Signed;
        v.bits = it.scalar;
        return v;
      case Type::Real:
        v.kind = Value::Kind::Real;
        v.bits = std::bit_cast<std::uint64_t>(v_.real(it));
        return v;
      case Type::Bool:
        v.kind = Value::Kind::Bool;
        v.bits = it.flag ? 1 : 0;
        return v;
      case Type::Null:
        return Value{};
      default:
        v.kind = Value::Kind::Other;
        return v;
    }
  }

  // The UID under `key` in a dictionary record, as the decoded dictionary's first entry with that key
  // would hold it (0: none); kUnsure for entries these lookups leave to unarchiving. A plain number
  // rather than an optional, whose flag byte was read back with the value in one wide load.
  static constexpr std::uint64_t kUnsure = UINT64_MAX;
  std::uint64_t find_entry(std::uint64_t dict_uid, std::string_view key) {
    const LookupRecord& rec = scratch_->records[dict_uid];
    if (!rec.has_keys || !rec.has_objects) return 0;  // the decoded dictionary is empty
    const std::uint64_t n = std::min(rec.key_count, rec.object_count);
    if (n >= kIndexedFrom) {
      Scratch::KeyIndex& index = scratch_->key_index;
      if (index.dict != dict_uid) index_keys(dict_uid, n);
      if (index.usable) {
        const std::size_t mask = index.slots.size() - 1;
        for (std::size_t i = bplist::hash_bytes(key) & mask;; i = (i + 1) & mask) {
          const auto& [text, v] = index.slots[i];
          if (text.data() == nullptr) return 0;
          if (text == key) return v;
        }
      }
    }
    // Plain pointers, which the comparisons' calls cannot make the loop read again.
    const std::uint64_t* const keys = scratch_->elements.data() + rec.first_key;
    const std::uint64_t* const values = scratch_->elements.data() + rec.first_object;
    const std::uint8_t* const kinds = scratch_->kinds.data();
    const std::string_view* const texts = scratch_->texts.data();
    for (std::uint64_t i = 0; i < n; ++i) {
      const std::uint64_t k = keys[i], v = values[i];
      if (k == kInline || v == kInline) return kUnsure;  // written in place
      if (k == 0 || v == 0 || kinds[k] == kNil || kinds[v] == kNil) continue;  // the entry is left out
      if (kinds[k] != kValue) return kUnsure;  // an object as key (a string record, say)
      const std::string_view text = texts[k];
      if (text.data() == nullptr) {  // not a plain string: compared as unarchiving reads it
        auto key_item = v_.item(v_.ref_unchecked(objects_, k));
        if (!key_item) return kUnsure;
        if (v_.text_equals(key_item.value(), key)) return v;
        continue;
      }
      if (text == key && bplist::is_ascii(text)) return v;  // bytes beyond ASCII never equal a key (text_equals)
    }
    return 0;
  }

  // Dictionaries of this many entries are searched through an index of their keys.
  static constexpr std::uint64_t kIndexedFrom = 8;
  // Indexes the keys of a dictionary record as the search in find_entry meets them: the first entry of
  // each key wins and left-out entries are skipped. A dictionary with an entry the search stops at (a
  // value in place, an object as key, a key that is not a plain string) is left to that search.
  void index_keys(std::uint64_t dict_uid, std::uint64_t n) {
    Scratch::KeyIndex& index = scratch_->key_index;
    index.dict = dict_uid;
    index.usable = false;
    const LookupRecord& rec = scratch_->records[dict_uid];
    const std::uint64_t* const keys = scratch_->elements.data() + rec.first_key;
    const std::uint64_t* const values = scratch_->elements.data() + rec.first_object;
    const std::uint8_t* const kinds = scratch_->kinds.data();
    std::size_t size = 16;
    while (size < 2 * n) size *= 2;
    index.slots.assign(size, {std::string_view(), 0});
    const std::size_t mask = size - 1;
    for (std::uint64_t i = 0; i < n; ++i) {
      const std::uint64_t k = keys[i], v = values[i];
      if (k == kInline || v == kInline) return;
      if (k == 0 || v == 0 || kinds[k] == kNil || kinds[v] == kNil) continue;
      if (kinds[k] != kValue) return;
      const std::string_view text = scratch_->texts[k];
      if (text.data() == nullptr || !bplist::is_ascii(text)) return;
      std::size_t j = bplist::hash_bytes(text) & mask;
      while (index.slots[j].first.data() != nullptr && index.slots[j].first != text) j = (j + 1) & mask;
      if (index.slots[j].first.data() == nullptr) index.slots[j] = {text, v};
    }
    index.usable = true;
  }

  std::uint64_t root_uid() const { return root_uid_; }

  // KeyedDecoder: lookups in the object that is being filled.
  Ref<Object> decode_object(std::string_view key) override {
    const Item* it = find(key);
    return it ? value_object(*it) : nullptr;
  }
  std::int64_t decode_int64(std::string_view key) override {
    const Item* it = find(key);
    if (!it) return 0;
    switch (it->type) {
      case Type::Int: return static_cast<std::int64_t>(it->scalar);
      case Type::Bool: return it->flag ? 1 : 0;
      case Type::Real: return Number::from_real(v_.real(*it))->int_value();
      case Type::Uid: {
        Ref<Object> o = decode_uid(it->scalar, depth_);
        const Number* n = as_number(o.get());
        return n ? n->int_value() : 0;
      }
      default: return 0;
    }
  }
  bool decode_bool(std::string_view key) override {
    const Item* it = find(key);
    if (!it) return false;
    switch (it->type) {
      case Type::Bool: return it->flag;
      case Type::Int: return it->scalar != 0;
      case Type::Real: return v_.real(*it) != 0;
      case Type::Uid: {
        Ref<Object> o = decode_uid(it->scalar, depth_);
        const Number* n = as_number(o.get());
        return n ? n->bool_value() : false;
      }
      default: return false;
    }
  }
  double decode_double(std::string_view key) override {
    const Item* it = find(key);
    if (!it) return 0;
    switch (it->type) {
      case Type::Real:
      case Type::Date: return v_.real(*it);
      case Type::Int: return it->flag ? static_cast<double>(it->scalar) : static_cast<double>(static_cast<std::int64_t>(it->scalar));
      case Type::Bool: return it->flag ? 1 : 0;
      case Type::Uid: {
        Ref<Object> o = decode_uid(it->scalar, depth_);
        const Number* n = as_number(o.get());
        return n ? n->real_value() : 0;
      }
      default: return 0;
    }
  }
  bool contains_key(std::string_view key) override { return find(key) != nullptr; }

 private:
  struct Field {
    std::string_view key;  // as stored (a "$" prefix of user keys already removed)
    Item value;
  };
  struct Frame {
    std::vector<Field> fields;
    std::unique_ptr<std::deque<std::string>> owned;  // keys that were not stored as ASCII, made on demand
  };
  struct ClassInfo {
    bool ok = false;
    Builtin builtin = Builtin::None;
    ClassRegistry::Factory factory = nullptr;
    std::vector<std::string> chain;  // $classname first, then $classes without it
  };

  void fail(std::string message) {
    if (error_.empty()) error_ = std::move(message);
  }

  Frame& frame() { return frame_at(depth_); }
  Frame& frame_at(int depth) {
    while (frames_.size() <= static_cast<std::size_t>(depth)) frames_.push_back(std::make_unique<Frame>());
    return *frames_[depth];
  }

  const Item* find(std::string_view key) {
    if (depth_ <= 0) return nullptr;
    for (const Field& f : frame().fields)
      if (f.key == key) return &f.value;
    return nullptr;
  }

  // An object under a key: UIDs resolve; scalars written in place become value objects.
  Ref<Object> value_object(const Item& it) {
    switch (it.type) {
      case Type::Uid: return decode_uid(it.scalar, depth_);
      case Type::Int: return it.flag ? Number::from_uint(it.scalar) : Number::from_int(static_cast<std::int64_t>(it.scalar));
      case Type::Real: return Number::from_real(v_.real(it));
      case Type::Bool: return Number::from_bool(it.flag);
      case Type::Date: return make<Date>(v_.real(it));
      case Type::Data: return make<Data>(std::string(v_.raw(it)));
      case Type::AsciiString:
      case Type::Utf16String:
      case Type::Utf8String: return make<String>(v_.text(it));
      default: return nullptr;
    }
  }

  bool load_fields(const Item& dict, Frame& f) {
    f.fields.clear();
    if (f.owned) f.owned->clear();
    f.fields.reserve(dict.count);
    for (std::uint64_t i = 0; i < dict.count; ++i) {
      const std::uint64_t k_ref = v_.ref_unchecked(dict, i), v_ref = v_.ref_unchecked(dict, dict.count + i);
      if (k_ref >= v_.size() || v_ref >= v_.size()) {
        fail("archive: object reference out of range");
        return false;
      }
      const std::optional<std::uint64_t> k = k_ref, val = v_ref;
      std::string_view key;
      if (std::optional<std::string_view> quick = v_.ascii_at(k.value()); quick && bplist::is_ascii(*quick)) {
        key = *quick;  // the common key, read without the general parse
      } else {
        auto ki = v_.item(k.value());
        if (!ki) {
          fail(ki.error().message);
          return false;
        }
        if ((ki->type == Type::AsciiString || ki->type == Type::Utf8String) && bplist::is_ascii(v_.raw(ki.value()))) {
          key = v_.raw(ki.value());
        } else if (ki->type == Type::AsciiString || ki->type == Type::Utf8String || ki->type == Type::Utf16String) {
          // Read as string values are (Latin-1, well-formed UTF-8), so that a key archives back unchanged.
          if (!f.owned) f.owned = std::make_unique<std::deque<std::string>>();
          f.owned->push_back(v_.text(ki.value()));
          key = f.owned->back();
        } else {
          auto vi = v_.item(val.value());
          fail(vi ? fmt::format("archive: object key {} is not a string", k.value()) : vi.error().message);
          return false;
        }
      }
      Item vi;  // a local, not a result: the item is copied into the field
      if (!v_.item_into(val.value(), vi)) {
        fail(v_.item(val.value()).error().message);
        return false;
      }
      if (key.size() >= 2 && key[0] == '$' && key[1] == '$') key.remove_prefix(1);
      f.fields.push_back(Field{key, vi});
    }
    return true;
  }

  // A class record's name (its last "$classname" with a string value; empty when none) and where its
  // "$classes" list lies. `name` may point into `owned`, so a ClassRecord stays where it was made.
  struct ClassRecord {
    std::string_view name;
    std::string owned;
    std::uint64_t classes_ref = UINT64_MAX;
  };
  // False when the record cannot be read at all, with the reason in `why` when one is asked for.
  bool read_class_record(std::uint64_t uid, ClassRecord& out, std::string* why) {
    if (uid == 0 || uid >= objects_.count) {
      if (why) *why = fmt::format("archive: class reference {} out of range", uid);
      return false;
    }
    auto ref = v_.ref(objects_, uid);
    if (!ref) {
      if (why) *why = ref.error().message;
      return false;
    }
    auto ci = v_.item(ref.value());
    if (!ci || ci->type != Type::Dict) {
      if (why) *why = fmt::format("archive: class record {} is not a dictionary", uid);
      return false;
    }
    for (std::uint64_t i = 0; i < ci->count; ++i) {
      auto k = v_.ref(ci.value(), i);
      auto val = v_.ref(ci.value(), ci->count + i);
      if (!k || !val) break;
      auto ki = v_.item(k.value());
      auto vi = v_.item(val.value());
      if (!ki || !vi) break;
      if (v_.text_equals(ki.value(), "$classname") &&
          (vi->type == Type::AsciiString || vi->type == Type::Utf16String || vi->type == Type::Utf8String)) {
        const std::string_view raw = v_.raw(vi.value());
        if (vi->type != Type::Utf16String && bplist::is_ascii(raw)) {
          out.name = raw;  // what text() would give, without a copy
        } else {
          out.owned = v_.text(vi.value());
          out.name = out.owned;
        }
      } else if (v_.text_equals(ki.value(), "$classes") && vi->type == Type::Array) {
        out.classes_ref = val.value();
      }
    }
    return true;
  }

  // The Foundation class a class record names: None when class_info would fail or find another class.
  Builtin foundation_class(std::uint64_t uid) {
    ClassRecord rec;
    if (!read_class_record(uid, rec, nullptr) || rec.name.empty()) return Builtin::None;
    return builtin_for(rec.name);
  }

  const ClassInfo& class_info(std::uint64_t uid) {
    auto [it, inserted] = classes_.try_emplace(uid);
    ClassInfo& info = it->second;
    if (!inserted) return info;
    ClassRecord rec;
    std::string why;
    if (!read_class_record(uid, rec, &why)) {
      fail(std::move(why));
      return info;
    }
    // The name first: a Foundation class needs nothing more (its "$classes" are not read).
    const std::string_view name = rec.name;
    std::vector<std::string> supers;
    if (!name.empty() && builtin_for(name) == Builtin::None && rec.classes_ref != UINT64_MAX) {
      auto vi = v_.item(rec.classes_ref);
      for (std::uint64_t j = 0; vi && j < vi->count; ++j) {
        auto e = v_.ref(vi.value(), j);
        if (!e) break;
        auto ei = v_.item(e.value());
        if (ei && (ei->type == Type::AsciiString || ei->type == Type::Utf16String || ei->type == Type::Utf8String))
          supers.push_back(v_.text(ei.value()));
      }
    }
    if (name.empty()) {
      fail(fmt::format("archive: class record {} has no $classname", uid));
      return info;
    }
    info.ok = true;
    info.builtin = builtin_for(name);
    if (info.builtin != Builtin::None) return info;
    info.factory = registry_.find(name);
    // A missing "$classes" reads as the class name alone.
    info.chain.emplace_back(name);
    for (std::size_t j = 0; j < supers.size(); ++j)
      if (!(j == 0 && supers[j] == name)) info.chain.push_back(supers[j]);
    return info;
  }

  Ref<Object> decode_uid(std::uint64_t uid, int depth) {
    if (uid == 0 || !error_.empty()) return nullptr;
    if (uid >= objects_.count) {
      fail(fmt::format("archive: UID {} beyond $objects ({} entries)", uid, objects_.count));
      return nullptr;
    }
    if (state_[uid]) return decoded_[uid];
    auto ref = v_.ref(objects_, uid);
    if (!ref) {
      fail(ref.error().message);
      return nullptr;
    }
    Item it;  // a local, not a result: the item is copied on below
    if (!v_.item_into(ref.value(), it)) {
      fail(v_.item(ref.value()).error().message);
      return nullptr;
    }
    state_[uid] = 1;
    switch (it.type) {
      case Type::AsciiString:
      case Type::Utf8String:
        // A slot holding "$null" stands for nil (a conditional object that was never written).
        if (v_.raw(it) == "$null") return nullptr;
        [[fallthrough]];
      case Type::Int:
      case Type::Real:
      case Type::Bool:
      case Type::Date:
      case Type::Data:
      case Type::Utf16String:
        decoded_[uid] = value_object(it);
        return decoded_[uid];
      case Type::Null:
        return nullptr;
      case Type::Dict:
        break;
      default:
        fail(fmt::format("archive: object {} is neither a value nor an object record", uid));
        return nullptr;
    }
    // An object record: read its keys once, find its class, make the empty object, then fill it.
    // Filled at once (the keys stay in the next depth's frame), or later when it lies very deep.
    const bool now = depth < kInlineDepth;
    Frame scratch_frame;
    Frame& f = now ? frame_at(depth + 1) : scratch_frame;
    if (!load_fields(it, f)) return nullptr;
    std::uint64_t class_uid = UINT64_MAX;
    for (const Field& field : f.fields) {
      if (field.key == "$class") {
        if (field.value.type == Type::Uid) class_uid = field.value.scalar;
        break;
      }
    }
    if (class_uid == UINT64_MAX) {
      fail(fmt::format("archive: object {} has no class", uid));
      return nullptr;
    }
    const ClassInfo& info = class_info(class_uid);
    if (!info.ok) return nullptr;
    Ref<Object> shell = make_shell(info);
    decoded_[uid] = shell;
    if (now) {
      fill(shell.get(), it, info, depth + 1, /*fields_loaded=*/true);
    } else {
      pending_.push_back(Pending{shell.get(), it, &info});
    }
    return shell;
  }

  Ref<Object> make_shell(const ClassInfo& info) {
    switch (info.builtin) {
      case Builtin::Array: return make<Array>(false);
      case Builtin::MutableArray: return make<Array>(true);
      case Builtin::Dict: return make<Dictionary>(false);
      case Builtin::MutableDict: return make<Dictionary>(true);
      case Builtin::Set: return make<Set>(false);
      case Builtin::MutableSet: return make<Set>(true);
      case Builtin::String: return make<String>(std::string(), false);
      case Builtin::MutableString: return make<String>(std::string(), true);
      case Builtin::Data: return make<Data>(std::string(), false);
      case Builtin::MutableData: return make<Data>(std::string(), true);
      case Builtin::Date: return make<Date>(0.0);
      case Builtin::Null: return Null::shared();
      case Builtin::None:
        if (info.factory) {
          if (Ref<Record> r = info.factory()) return r;
        }
        return make<GenericRecord>(info.chain);
    }
    return nullptr;
  }

  // The UIDs of a bplist array under a key, decoded.
  void decode_uid_list(const Item* list, std::vector<Ref<Object>>& out, bool keep_nil) {
    if (!list) return;
    if (list->type != Type::Array) {
      fail("archive: a list of objects is not an array");
      return;
    }
    out.reserve(out.size() + list->count);
    for (std::uint64_t i = 0; i < list->count && error_.empty(); ++i) {
      auto r = v_.ref(*list, i);
      if (!r) {
        fail(r.error().message);
        return;
      }
      Ref<Object> o;
      if (std::optional<std::uint64_t> uid = v_.uid_at(r.value())) {
        o = decode_uid(*uid, depth_);  // the usual element, read without the general parse
      } else {
        auto ei = v_.item(r.value());
        if (!ei) {
          fail(ei.error().message);
          return;
        }
        o = value_object(ei.value());
      }
      if (o || keep_nil) out.push_back(std::move(o));
    }
  }

  void fill(Object* obj, const Item& record, const ClassInfo& info, int depth, bool fields_loaded = false) {
    const int saved = depth_;
    depth_ = depth;
    if (!fields_loaded && !load_fields(record, frame())) {
      depth_ = saved;
      return;
    }
    switch (info.builtin) {
      case Builtin::Array:
      case Builtin::MutableArray:
      case Builtin::Set:
      case Builtin::MutableSet: {
        std::vector<Ref<Object>> items;
        const Item* list = find("NS.objects");
        if (list) {
          Item copy = *list;
          decode_uid_list(&copy, items, false);
        } else {
          // The other form some archivers write: "NS.object.0", "NS.object.1", ...
          for (std::size_t i = 0;; ++i) {
            Ref<Object> o = decode_object(fmt::format("NS.object.{}", i));
            if (!o && !contains_key(fmt::format("NS.object.{}", i))) break;
            if (o) items.push_back(std::move(o));
          }
        }
        if (obj->kind() == ObjectKind::Array) {
          static_cast<Array*>(obj)->mutable_items() = std::move(items);
        } else {
          static_cast<Set*>(obj)->mutable_items() = std::move(items);
        }
        break;
      }
      case Builtin::Dict:
      case Builtin::MutableDict: {
        std::vector<Ref<Object>> keys, values;
        const Item* k = find("NS.keys");
        Item kcopy = k ? *k : Item{};
        const Item* vv = find("NS.objects");
        Item vcopy = vv ? *vv : Item{};
        decode_uid_list(k ? &kcopy : nullptr, keys, true);
        decode_uid_list(vv ? &vcopy : nullptr, values, true);
        auto* d = static_cast<Dictionary*>(obj);
        std::size_t n = std::min(keys.size(), values.size());
        d->reserve(n);
        for (std::size_t i = 0; i < n; ++i) {
          if (keys[i] && values[i]) d->append(std::move(keys[i]), std::move(values[i]));
        }
        break;
      }
      case Builtin::String:
      case Builtin::MutableString: {
        Ref<Object> s = decode_object("NS.string");
        if (!s) s = decode_object("NS.bytes");
        if (const String* text = as_string(s.get())) {
          static_cast<String*>(obj)->mutable_str() = text->str();
        } else if (const Data* bytes = as_data(s.get())) {
          static_cast<String*>(obj)->mutable_str() = bytes->bytes();
        }
        break;
      }
      case Builtin::Data:
      case Builtin::MutableData: {
        Ref<Object> d = decode_object("NS.data");
        if (!d) d = decode_object("NS.bytes");
        if (const Data* bytes = as_data(d.get())) static_cast<Data*>(obj)->mutable_bytes() = bytes->bytes();
        break;
      }
      case Builtin::Date:
        static_cast<Date*>(obj)->set_time(decode_double("NS.time"));
        break;
      case Builtin::Null:
        break;
      case Builtin::None:
        if (auto* g = dynamic_cast<GenericRecord*>(obj)) {
          fill_generic(g);
        } else {
          static_cast<Record*>(obj)->init_with_coder(*this);
        }
        break;
    }
    depth_ = saved;
  }

  void fill_generic(GenericRecord* g) {
    // Decoding a field fills deeper frames only, so this frame's fields stay as they are.
    for (const Field& f : frame().fields) {
      if (f.key == "$class") continue;
      bool is_inline = f.value.type != Type::Uid;
      g->fields_.push_back(GenericRecord::Field{std::string(f.key), value_object(f.value), is_inline});
    }
  }

  void drain() {
    while (!pending_.empty() && error_.empty()) {
      Pending p = pending_.back();
      pending_.pop_back();
      fill(p.obj, p.record, *p.info, 1);
    }
    pending_.clear();
  }

  struct Pending {
    Object* obj;  // kept alive by decoded_
    Item record;
    const ClassInfo* info;  // stable: std::unordered_map nodes do not move
  };

  // Tables of one unarchiving, kept per thread between calls: decoding many small archives one after
  // the other (stored media records) then allocates them once.
  enum : std::uint8_t { kValue, kRecord, kClass, kNil };
  std::vector<std::uint8_t>& kinds() { return scratch_->kinds; }
  const Item* find_in(const Frame& f, std::string_view key) const {
    for (const Field& field : f.fields)
      if (field.key == key) return &field.value;
    return nullptr;
  }
  // What lookups need of an object record, read once.
  struct LookupRecord {
    std::uint64_t cls = 0;
    Builtin builtin = Builtin::None;
    bool has_keys = false, has_objects = false;
    std::uint32_t first_key = 0, first_object = 0;  // into the lookup's list of list entries
    std::uint64_t key_count = 0, object_count = 0;
  };
  static constexpr std::uint64_t kInline = UINT64_MAX;
  static constexpr std::uint8_t kUnknownClass = 0xff;

  struct Scratch {
    std::vector<std::uint8_t> kinds;
    std::vector<std::uint8_t> key_roles;
    std::vector<std::uint64_t> targets;
    std::vector<std::uint8_t> class_builtins;
    std::vector<LookupRecord> records;
    std::vector<std::uint64_t> elements;
    std::vector<std::string_view> texts;
    std::vector<std::uint8_t> state;
    std::vector<Ref<Object>> decoded;
    std::unordered_map<std::uint64_t, ClassInfo> classes;
    std::vector<std::unique_ptr<Frame>> frames;
    std::vector<Pending> pending;
    // The keys of the large dictionary looked in last (a record's root is asked for a dozen of them).
    struct KeyIndex {
      std::uint64_t dict = 0;  // 0: none
      bool usable = false;     // false: the dictionary is searched entry by entry
      std::vector<std::pair<std::string_view, std::uint64_t>> slots;  // key -> value UID; empty: no key
    } key_index;
  };
  static std::unique_ptr<Scratch>& spare() {
    thread_local std::unique_ptr<Scratch> scratch;
    return scratch;
  }
  static std::unique_ptr<Scratch> take_scratch() {
    std::unique_ptr<Scratch> s = std::move(spare());  // empty while another unarchiving holds it
    return s ? std::move(s) : std::make_unique<Scratch>();
  }

  const bplist::View& v_;
  const ClassRegistry& registry_;
  Item objects_{};
  std::unique_ptr<Scratch> scratch_ = take_scratch();
  std::vector<std::uint8_t>& state_ = scratch_->state;
  std::vector<Ref<Object>>& decoded_ = scratch_->decoded;
  std::unordered_map<std::uint64_t, ClassInfo>& classes_ = scratch_->classes;
  std::vector<std::unique_ptr<Frame>>& frames_ = scratch_->frames;
  std::vector<Pending>& pending_ = scratch_->pending;
  int depth_ = 0;
  std::uint64_t root_uid_ = 0;
  std::string error_;
};

// ---------------------------------------------------------------------------------------------------

GenericRecord::GenericRecord(std::vector<std::string> chain) : chain_(std::move(chain)) {
  if (chain_.empty()) chain_.push_back("NSObject");
  for (const auto& c : chain_) chain_views_.push_back(c);
}

std::shared_ptr<void> KeyedEncoder::run_state(const void* key, const std::function<std::shared_ptr<void>()>& make) {
  for (const auto& [k, state] : run_states_)
    if (k == key) return state;
  run_states_.emplace_back(key, make());
  return run_states_.back().second;
}

void KeyedEncoder::end_run_states() {
  // Last made, first ended; each ends before the next is looked at.
  while (!run_states_.empty()) {
    auto state = std::move(run_states_.back().second);
    run_states_.pop_back();
    state.reset();
  }
}

void GenericRecord::encode_with_coder(KeyedEncoder& coder) const {
  for (const Field& f : fields_) {
    const Number* n = f.is_inline ? as_number(f.value.get()) : nullptr;
    if (n && n->is_bool()) {
      coder.encode_bool(f.key, n->bool_value());
    } else if (n && n->is_real()) {
      coder.encode_double(f.key, n->real_value());
    } else if (n) {
      coder.encode_int64(f.key, n->int_value());
    } else {
      coder.encode_object(f.key, f.value.get());
    }
  }
}

void GenericRecord::init_with_coder(KeyedDecoder&) {}  // the unarchiver fills generic records directly

Object* GenericRecord::get(std::string_view key) const {
  for (const Field& f : fields_)
    if (f.key == key) return f.value.get();
  return nullptr;
}

ClassRegistry& ClassRegistry::shared() {
  static ClassRegistry registry;
  return registry;
}

namespace {
std::mutex& registry_mutex() {
  static std::mutex m;
  return m;
}
}  // namespace

void ClassRegistry::add(std::string_view class_name, Factory factory) {
  std::lock_guard lock(registry_mutex());
  factories_[std::string(class_name)] = factory;
}

ClassRegistry::Factory ClassRegistry::find(std::string_view class_name) const {
  std::lock_guard lock(registry_mutex());
  auto it = factories_.find(std::string(class_name));
  return it == factories_.end() ? nullptr : it->second;
}

std::string archive_root(const Object* root, const ArchiveOptions& options) {
  Archiver archiver;
  return archiver.run(root, options.top_key);
}

bool archive_root_to(const Object* root, bplist::Builder::Sink& sink, const ArchiveOptions& options) {
  // Built first, so that the archiver's tables are gone before the bytes are written.
  return build_archive(root, options).write_to(sink);
}

BuiltArchive::BuiltArchive(std::unique_ptr<bplist::Builder> builder, std::uint32_t top)
    : builder_(std::move(builder)), top_(top) {}
BuiltArchive::BuiltArchive(BuiltArchive&&) noexcept = default;
BuiltArchive& BuiltArchive::operator=(BuiltArchive&&) noexcept = default;
BuiltArchive::~BuiltArchive() = default;

bool BuiltArchive::write_to(bplist::Builder::Sink& sink) {
  if (!builder_) return false;
  const bool whole = builder_->drain_to(top_, sink);
  builder_.reset();
  return whole;
}

BuiltArchive build_archive(const Object* root, const ArchiveOptions& options) {
  Archiver archiver;
  const std::uint32_t top = archiver.build(root, options.top_key);
  return BuiltArchive(archiver.take_builder(), top);
}

namespace {

// The XML form writes a UID as {CF$UID = n}; libplist keeps such dictionaries as they are, so turn
// them into UIDs before converting (iteratively: XML can nest deeply).
void xml_uids_to_uids(plist_t root) {
  std::vector<plist_t> stack{root};
  while (!stack.empty()) {
    plist_t node = stack.back();
    stack.pop_back();
    plist_type t = plist_get_node_type(node);
    if (t == PLIST_ARRAY) {
      uint32_t n = plist_array_get_size(node);
      for (uint32_t i = 0; i < n; ++i) {
        plist_t child = plist_array_get_item(node, i);
        plist_t uid = plist_get_node_type(child) == PLIST_DICT && plist_dict_get_size(child) == 1
                          ? plist_dict_get_item(child, "CF$UID") : nullptr;
        if (uid && plist_get_node_type(uid) == PLIST_UINT) {
          uint64_t v = 0;
          plist_get_uint_val(uid, &v);
          plist_array_set_item(node, plist_new_uid(v), i);
        } else {
          stack.push_back(child);
        }
      }
    } else if (t == PLIST_DICT) {
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      std::vector<std::pair<std::string, uint64_t>> replace;
      for (;;) {
        char* key = nullptr;
        plist_t child = nullptr;
        plist_dict_next_item(node, it, &key, &child);
        if (!child) {
          free(key);
          break;
        }
        plist_t uid = plist_get_node_type(child) == PLIST_DICT && plist_dict_get_size(child) == 1
                          ? plist_dict_get_item(child, "CF$UID") : nullptr;
        if (uid && plist_get_node_type(uid) == PLIST_UINT) {
          uint64_t v = 0;
          plist_get_uint_val(uid, &v);
          replace.emplace_back(key, v);
        } else {
          stack.push_back(child);
        }
        free(key);
      }
      free(it);
      for (const auto& [key, v] : replace) plist_dict_set_item(node, key.c_str(), plist_new_uid(v));
    }
  }
}

// XML keyed archives are converted to the binary form by libplist and read by the same code.
Result<std::string> binary_form(std::string_view bytes) {
  if (bytes.size() >= 8 && bytes.substr(0, 6) == "bplist") return std::string();
  if (bytes.size() > UINT32_MAX) return Error{"archive: too large"};
  // libplist converts and frees its trees recursively: a deeper text would end the process on a full
  // stack.
  if (xml_nesting_exceeds(bytes)) return Error{"archive: XML nested deeper than the reader takes"};
  plist_t p = nullptr;
  plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &p);
  if (!p) return Error{"archive: neither a binary nor an XML property list"};
  xml_uids_to_uids(p);
  char* bin = nullptr;
  uint32_t len = 0;
  plist_to_bin(p, &bin, &len);
  plist_free(p);
  if (!bin) return Error{"archive: the XML property list could not be converted"};
  std::string out(bin, len);
  free(bin);
  return out;
}

}  // namespace

Result<std::vector<std::pair<std::string, Ref<Object>>>> unarchive_top(std::string_view bytes,
                                                                       const ClassRegistry& registry) {
  auto bin = binary_form(bytes);
  if (!bin) return bin.error();
  std::string_view data = bin->empty() ? bytes : std::string_view(bin.value());
  auto view = bplist::View::open(data);
  if (!view) return view.error();
  KeyedUnarchiverImpl impl(view.value(), registry);
  return impl.run();
}

Result<Ref<Object>> unarchive(std::string_view bytes, const ClassRegistry& registry) {
  auto tops = unarchive_top(bytes, registry);
  if (!tops) return tops.error();
  for (auto& [key, obj] : tops.value())
    if (key == "root") return std::move(obj);
  return Error{"archive: $top has no root"};
}

struct KeyedArchiveLookup::State {
  bplist::View view;
  std::unique_ptr<KeyedUnarchiverImpl> impl;
};

KeyedArchiveLookup::KeyedArchiveLookup(std::string_view bytes, const ClassRegistry& registry) {
  if (!bytes.starts_with("bplist00")) return;  // the XML form is converted first: unarchive reads it
  auto view = bplist::View::open(bytes);
  if (!view) return;
  state_ = std::make_unique<State>(State{view.value(), nullptr});
  state_->impl = std::make_unique<KeyedUnarchiverImpl>(state_->view, registry);
  if (!state_->impl->open_for_lookup()) state_.reset();
}

KeyedArchiveLookup::~KeyedArchiveLookup() = default;

std::optional<Object*> KeyedArchiveLookup::at_path(std::initializer_list<std::string_view> path) {
  if (!state_) return std::nullopt;
  return state_->impl->lookup(std::span<const std::string_view>(path.begin(), path.size()));
}

std::optional<KeyedArchiveLookup::Value> KeyedArchiveLookup::value_at(std::initializer_list<std::string_view> path) {
  if (!state_) return std::nullopt;
  return state_->impl->peek(std::span<const std::string_view>(path.begin(), path.size()));
}

Ref<Object> copy_through_archive(const Object* obj, const ClassRegistry& registry) {
  auto copy = unarchive(archive_root(obj), registry);
  return copy ? copy.value() : nullptr;
}

}  // namespace orvia
