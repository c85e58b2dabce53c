#include "platform/object.h"

#include <atomic>

#include <vector>

namespace orvia {
namespace {

thread_local Heap* t_current_heap = nullptr;

// Objects whose count reached zero while a destruction loop was running on this thread.
struct DestroyQueue {
  std::vector<const Object*> pending;
  bool draining = false;
};
thread_local DestroyQueue t_destroy_queue;

}  // namespace

Object::Object(ObjectKind kind, bool can_hold_refs) : kind_(kind) {
  if (can_hold_refs) {
    if (Heap* heap = t_current_heap) heap->add(this);
  }
}

Object::~Object() {
  if (heap_) heap_->remove(this);
}

void Object::destroy(const Object* obj) {
  DestroyQueue& q = t_destroy_queue;
  if (q.draining) {
    q.pending.push_back(obj);
    return;
  }
  q.draining = true;
  delete obj;  // members release their references; zeros land in the queue
  while (!q.pending.empty()) {
    const Object* next = q.pending.back();
    q.pending.pop_back();
    delete next;
  }
  q.draining = false;
  if (q.pending.capacity() > 4096) q.pending.shrink_to_fit();
}

void Heap::add(Object* obj) {
  obj->heap_ = this;
  obj->heap_prev_ = nullptr;
  obj->heap_next_ = head_;
  if (head_) head_->heap_prev_ = obj;
  head_ = obj;
  ++count_;
}

void Heap::remove(Object* obj) {
  if (obj->heap_prev_) {
    obj->heap_prev_->heap_next_ = obj->heap_next_;
  } else {
    head_ = obj->heap_next_;
  }
  if (obj->heap_next_) obj->heap_next_->heap_prev_ = obj->heap_prev_;
  obj->heap_ = nullptr;
  obj->heap_prev_ = obj->heap_next_ = nullptr;
  --count_;
}

Heap::~Heap() {
  // Take each survivor off the list, hold it while its references are cut, then let it go. Cutting can
  // free other tracked objects, which unlink themselves, so always restart from the head.
  while (head_) {
    Ref<Object> keep(head_);
    remove(head_);
    keep->drop_refs();
  }
}

Heap* Heap::current() { return t_current_heap; }

std::uint64_t Heap::next_serial() {
  static std::atomic<std::uint64_t> serials{0};
  return serials.fetch_add(1, std::memory_order_relaxed) + 1;
}

void Heap::adopt(Heap& other) {
  if (&other == this || !other.head_) return;
  Object* last = nullptr;
  for (Object* o = other.head_; o; o = o->heap_next_) {
    o->heap_ = this;
    last = o;
  }
  last->heap_next_ = head_;
  if (head_) head_->heap_prev_ = last;
  head_ = other.head_;
  count_ += other.count_;
  other.head_ = nullptr;
  other.count_ = 0;
}

HeapScope::HeapScope(Heap& heap) : previous_(t_current_heap) { t_current_heap = &heap; }
HeapScope::~HeapScope() { t_current_heap = previous_; }

}  // namespace orvia
