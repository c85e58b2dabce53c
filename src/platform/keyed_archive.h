// Keyed archives in Apple's NSKeyedArchiver format ("$archiver" NSKeyedArchiver, "$version" 100000,
// "$top" {"root": UID}, "$objects" starting with "$null", class records with "$classname"/"$classes").
//
// Records of our own classes derive from Record and write and read themselves through the keyed coder
// API (object, int64, bool, double for a key), like NSCoding. Decoding is not secure coding: whatever
// object lies under a key is taken, and an archived class that no one registered decodes as a
// GenericRecord that keeps its class names and keys.
//
// Any depth: neither archiving nor unarchiving recurses as deep as the object graph. Shared objects
// and cycles are written once and restored as one object.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/bplist_format.h"
#include "platform/flat_graph.h"
#include "platform/object.h"
#include "platform/result.h"
#include "platform/value.h"

namespace orvia {

class KeyedEncoder {
 public:
  virtual ~KeyedEncoder() = default;
  // nil is written as the null reference (UID 0).
  virtual void encode_object(std::string_view key, const Object* obj) = 0;
  void encode_object(std::string_view key, const Ref<Object>& obj) { encode_object(key, obj.get()); }
  virtual void encode_int64(std::string_view key, std::int64_t value) = 0;
  virtual void encode_bool(std::string_view key, bool value) = 0;
  virtual void encode_double(std::string_view key, double value) = 0;
  // A list of objects written in place under the key (as NS.objects is), whose objects `produce`
  // hands to the sink one at a time. Each is written when handed over and may be dropped right after,
  // so a long list of large objects never needs to be in memory at once.
  class ObjectSink {
   public:
    virtual ~ObjectSink() = default;
    virtual void operator()(const Ref<Object>& item) const = 0;
    // The same as handing over the graph's objects; a writer that can writes it without making them.
    virtual void graph(const FlatGraph& graph, FlatGraph::Node root) const { (*this)(graph.materialize(root)); }
  };
  // A sink that hands each object to a function.
  template <class F>
  class ObjectSinkOf final : public ObjectSink {
   public:
    explicit ObjectSinkOf(F f) : f_(std::move(f)) {}
    void operator()(const Ref<Object>& item) const override { f_(item); }

   private:
    F f_;
  };
  virtual void encode_object_stream(std::string_view key, const std::function<void(const ObjectSink&)>& produce) = 0;

  // State shared by the objects of one archiving run: made by `make` on the first call with `key`,
  // then the same object until the run ends (the encoder drops it when every object is written).
  std::shared_ptr<void> run_state(const void* key, const std::function<std::shared_ptr<void>()>& make);

 protected:
  void end_run_states();

 private:
  std::vector<std::pair<const void*, std::shared_ptr<void>>> run_states_;
};

class KeyedDecoder {
 public:
  virtual ~KeyedDecoder() = default;
  // The object under the key: nil when absent or the null reference. An inline scalar under the key
  // (an integer, real, boolean, string, data or date written in place) is taken as that value object.
  // The object may still be being filled when it belongs to a cycle or lies very deep.
  virtual Ref<Object> decode_object(std::string_view key) = 0;
  // 0 / NO / 0.0 when absent; a number object under the key gives its value.
  virtual std::int64_t decode_int64(std::string_view key) = 0;
  virtual bool decode_bool(std::string_view key) = 0;
  virtual double decode_double(std::string_view key) = 0;
  virtual bool contains_key(std::string_view key) = 0;
};

// An archivable object of a class of our own.
class Record : public Object {
 public:
  // Own class first, then its superclasses, ending in "NSObject", as "$classes" lists them.
  virtual std::span<const std::string_view> class_chain() const = 0;
  std::string_view class_name() const override { return class_chain().front(); }
  virtual void encode_with_coder(KeyedEncoder& coder) const = 0;
  // Called on a plainly created object.
  virtual void init_with_coder(KeyedDecoder& coder) = 0;
  // The text "%@" prints; "<ClassName: 0x55d0c0a0>" unless the class gives its own (description.cc).
  virtual std::string description() const;

 protected:
  Record() : Object(ObjectKind::Record, true) {}
};

// An object of a class that no one registered: keeps its class names and every key in archived order.
class GenericRecord final : public Record {
 public:
  struct Field {
    std::string key;
    Ref<Object> value;   // the value, or nil for the null reference
    bool is_inline;      // written in place (a scalar) rather than as an object reference
  };
  GenericRecord(std::vector<std::string> chain);
  std::span<const std::string_view> class_chain() const override { return chain_views_; }
  void encode_with_coder(KeyedEncoder& coder) const override;
  void init_with_coder(KeyedDecoder& coder) override;

  const std::vector<Field>& fields() const { return fields_; }
  std::vector<Field>& mutable_fields() { return fields_; }
  Object* get(std::string_view key) const;

 protected:
  void drop_refs() override { std::vector<Field>().swap(fields_); }

 private:
  friend class KeyedUnarchiverImpl;
  std::vector<std::string> chain_;
  std::vector<std::string_view> chain_views_;
  std::vector<Field> fields_;
};

// Maps archived class names to factories that make a plain instance.
class ClassRegistry {
 public:
  using Factory = Ref<Record> (*)();
  // The process-wide registry; modules add their classes through their own registration function.
  static ClassRegistry& shared();
  void add(std::string_view class_name, Factory factory);
  Factory find(std::string_view class_name) const;

 private:
  std::unordered_map<std::string, Factory> factories_;
};

struct ArchiveOptions {
  // Key of the root in "$top" ("root" for archivedDataWithRootObject:).
  std::string_view top_key = "root";
};

// archivedDataWithRootObject: the bytes of a binary keyed archive whose root is `root` (nil allowed).
std::string archive_root(const Object* root, const ArchiveOptions& options = {});
inline std::string archive_root(const Ref<Object>& root) { return archive_root(root.get()); }

// The same bytes handed to `sink` in pieces as they are written, so that a large archive need not be
// held in memory whole. False when the sink refused a piece.
bool archive_root_to(const Object* root, bplist::Builder::Sink& sink, const ArchiveOptions& options = {});

// An archive whose every object has been added to a property-list builder, its bytes not yet written.
// It holds bytes only, no objects: the objects it was made from may be freed before or while it is
// written, on another thread.
class BuiltArchive {
 public:
  BuiltArchive(BuiltArchive&&) noexcept;
  BuiltArchive& operator=(BuiltArchive&&) noexcept;
  ~BuiltArchive();
  // The bytes archive_root_to would hand on, handed to `sink`; false when the sink refused a piece.
  // Once: the builder's memory goes back as the bytes are handed on (see Builder::drain_to).
  bool write_to(bplist::Builder::Sink& sink);

 private:
  friend BuiltArchive build_archive(const Object* root, const ArchiveOptions& options);
  BuiltArchive(std::unique_ptr<bplist::Builder> builder, std::uint32_t top);
  std::unique_ptr<bplist::Builder> builder_;
  std::uint32_t top_ = 0;
};

// archive_root_to's first half: every object reachable from `root` added to a builder.
BuiltArchive build_archive(const Object* root, const ArchiveOptions& options = {});

// unarchiveObjectWithData: the root object (nil for an archive of nil), or an error for bytes that are
// not a well-formed keyed archive. Accepts binary and XML property lists.
Result<Ref<Object>> unarchive(std::string_view bytes, const ClassRegistry& registry = ClassRegistry::shared());

// All top-level objects of "$top" (for archives written with other top keys), in archived order.
Result<std::vector<std::pair<std::string, Ref<Object>>>> unarchive_top(
    std::string_view bytes, const ClassRegistry& registry = ClassRegistry::shared());

class KeyedUnarchiverImpl;

// Values of a keyed archive whose root is a dictionary, looked up by key path without unarchiving the
// rest: what reading a few values out of many small archives needs. Offered only where the answers are
// sure to be the ones unarchive's root dictionary would give (a well-formed binary archive of Foundation
// values; shared objects stay shared): otherwise the caller unarchives the archive whole.
class KeyedArchiveLookup {
 public:
  // The bytes must stay alive while the lookup is used.
  explicit KeyedArchiveLookup(std::string_view bytes, const ClassRegistry& registry = ClassRegistry::shared());
  ~KeyedArchiveLookup();
  KeyedArchiveLookup(const KeyedArchiveLookup&) = delete;
  KeyedArchiveLookup& operator=(const KeyedArchiveLookup&) = delete;

  bool usable() const { return state_ != nullptr; }
  // The object at a path of nested dictionaries (owned by the lookup); null when a part is missing or a
  // value on the way is not a dictionary; nothing when this lookup cannot tell.
  std::optional<Object*> at_path(std::initializer_list<std::string_view> path);

  // The same object described instead of made, for plain values: the stored object's UID (one object
  // per UID: equal UIDs decode to one object) and its value; Other for any other kind of object.
  struct Value {
    enum class Kind : std::uint8_t { Nil, String, Signed, Unsigned, Real, Bool, Other };
    Kind kind = Kind::Nil;
    std::uint64_t uid = 0;
    std::string_view text;       // String: its UTF-8 bytes, in the archive's bytes ...
    bool converted = false;      // ... unless stored in another form: then in converted_text
    std::string converted_text;
    std::uint64_t bits = 0;      // numbers: as the decoded Number keeps them; Bool: 0 or 1
    bool container = false;      // Other: a dictionary, array or set (an object, whatever it holds)
  };
  std::optional<Value> value_at(std::initializer_list<std::string_view> path);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Deep copy through an archive round trip (copyWithZone: of the records).
Ref<Object> copy_through_archive(const Object* obj, const ClassRegistry& registry = ClassRegistry::shared());

}  // namespace orvia
