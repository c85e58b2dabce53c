// Reference-counted objects with identity, as Foundation has them.
//
// Every value of the system (strings, numbers, containers, records) is an Object held through Ref<T>.
// Two places that refer to one object share it; archiving keeps that sharing.
//
// Lifetime:
//  - Counts are atomic, so shared immutable objects (YES, NO, NSNull) may be used from any thread;
//    everything else is used by one thread at a time and handed over through a queue.
//  - Releasing never recurses: an object whose count drops to zero is queued and destroyed by a loop,
//    so freeing a list nested 100,000 deep uses constant stack.
//  - Reference cycles (a sidebar item and its parent, an archive whose array holds itself) are cut by a
//    Heap: while a HeapScope is active on a thread, every object that can hold references registers
//    with that heap, and destroying the heap clears the references of every object still alive.
//    A request, a test or a tool run owns one heap; objects must not be used after it ends.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace orvia {

class Heap;

enum class ObjectKind : std::uint8_t {
  String,
  Number,
  Date,
  Data,
  Array,
  Dictionary,
  Set,
  Null,
  Record,  // an archivable object of a class of our own, or a generic decoded one
};

class Object {
 public:
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  ObjectKind kind() const { return kind_; }
  // The class name under which the archiver stores the object ("NSMutableArray", "MQImporterNodeFolder").
  virtual std::string_view class_name() const = 0;

  void retain() const {
    if (!immortal_) refs_.fetch_add(1, std::memory_order_relaxed);
  }
  void release() const {
    if (!immortal_ && refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy(this);
  }
  std::uint32_t ref_count() const { return refs_.load(std::memory_order_relaxed); }
  bool is_immortal() const { return immortal_; }
  // The heap that tracks the object, if any: read on that heap's thread, or while the heap cannot end.
  const Heap* heap() const { return heap_; }
  // Makes a constant live as long as the process, with its count left alone from then on: constants
  // that every thread uses (YES, NO, NSNull, keys of converted records) would otherwise bounce their
  // count's cache line between the cores on every use. Call before the object is shared.
  const Object* make_immortal() const {
    retain();
    immortal_ = true;
    return this;
  }

 protected:
  explicit Object(ObjectKind kind, bool can_hold_refs = false);
  virtual ~Object();

  // Drops every reference the object holds. Called by a dying Heap to cut cycles; after it the object
  // is an empty shell. Objects that hold references override it.
  virtual void drop_refs() {}

 private:
  friend class Heap;
  static void destroy(const Object* obj);

  mutable std::atomic<std::uint32_t> refs_{0};
  ObjectKind kind_;
  bool tracked_ = false;
  mutable bool immortal_ = false;
  // Scratch of the keyed archiver: the UID given to this object by the archiving run `archive_run_`
  // (each run takes a new number), so that finding an object's UID needs no lookup table.
  friend class ArchiveScratch;
  mutable std::uint32_t archive_run_ = 0;
  mutable std::uint32_t archive_uid_ = 0;
  // Intrusive list of the heap's tracked objects (only objects that can hold references).
  Heap* heap_ = nullptr;
  Object* heap_prev_ = nullptr;
  Object* heap_next_ = nullptr;
};

// A strong, nullable reference.
template <class T>
class Ref {
 public:
  Ref() = default;
  Ref(std::nullptr_t) {}
  Ref(T* p) : p_(p) {
    if (p_) p_->retain();
  }
  Ref(const Ref& o) : p_(o.p_) {
    if (p_) p_->retain();
  }
  Ref(Ref&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  Ref(const Ref<U>& o) : p_(o.get()) {
    if (p_) p_->retain();
  }
  template <class U>
  Ref(Ref<U>&& o) noexcept : p_(o.leak()) {}
  ~Ref() {
    if (p_) p_->release();
  }
  Ref& operator=(const Ref& o) {
    Ref(o).swap(*this);
    return *this;
  }
  Ref& operator=(Ref&& o) noexcept {
    Ref(std::move(o)).swap(*this);
    return *this;
  }
  Ref& operator=(std::nullptr_t) {
    Ref().swap(*this);
    return *this;
  }
  void swap(Ref& o) noexcept { std::swap(p_, o.p_); }

  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  // Gives up ownership without releasing.
  T* leak() { return std::exchange(p_, nullptr); }

  friend bool operator==(const Ref& a, const Ref& b) { return a.p_ == b.p_; }
  friend bool operator==(const Ref& a, std::nullptr_t) { return a.p_ == nullptr; }

 private:
  T* p_ = nullptr;
};

template <class T, class... Args>
Ref<T> make(Args&&... args) {
  return Ref<T>(new T(std::forward<Args>(args)...));
}

// A process-wide constant (see Object::make_immortal).
template <class T>
T* immortal(T* obj) {
  obj->make_immortal();
  return obj;
}
template <class T>
Ref<T> immortal(Ref<T> obj) {
  obj->make_immortal();
  return obj;
}

// Owner of the objects made while it is current; see the file comment.
class Heap {
 public:
  Heap() = default;
  Heap(const Heap&) = delete;
  Heap& operator=(const Heap&) = delete;
  // Cuts the references of every tracked object still alive, which frees cycles.
  ~Heap();

  std::size_t tracked_count() const { return count_; }
  static Heap* current();
  // A number no other heap of this process has had, even one at the same address later: 0 for none.
  // Taken when first asked for: most heaps (one per converted record) are never asked.
  std::uint64_t serial() const {
    std::uint64_t s = serial_.load(std::memory_order_acquire);
    if (s != 0) return s;
    std::uint64_t fresh = next_serial();
    return serial_.compare_exchange_strong(s, fresh, std::memory_order_acq_rel) ? fresh : s;
  }
  static std::uint64_t current_serial() { return current() ? current()->serial() : 0; }
  // Takes over every object `other` tracks (made elsewhere, now to live as long as this heap).
  void adopt(Heap& other);

 private:
  friend class Object;
  friend class HeapScope;
  void add(Object* obj);
  void remove(Object* obj);
  Object* head_ = nullptr;
  std::size_t count_ = 0;
  mutable std::atomic<std::uint64_t> serial_{0};
  static std::uint64_t next_serial();
};

// Makes a heap current on this thread for the scope's duration (scopes nest).
class HeapScope {
 public:
  explicit HeapScope(Heap& heap);
  ~HeapScope();
  HeapScope(const HeapScope&) = delete;
  HeapScope& operator=(const HeapScope&) = delete;

 private:
  Heap* previous_;
};

// Dynamic casts by kind, without RTTI cost where the kind decides.
template <class T>
T* as(const Ref<Object>& o) {
  return o ? dynamic_cast<T*>(o.get()) : nullptr;
}
template <class T>
T* as(Object* o) {
  return o ? dynamic_cast<T*>(o) : nullptr;
}

}  // namespace orvia
