#include "platform/value.h"

#include <cmath>
#include <cstring>
#include <set>
#include <vector>

namespace orvia {
namespace {

std::uint64_t double_bits(double v) {
  std::uint64_t b;
  std::memcpy(&b, &v, sizeof b);
  return b;
}
double bits_double(std::uint64_t b) {
  double v;
  std::memcpy(&v, &b, sizeof v);
  return v;
}

constexpr std::size_t kIndexThreshold = 12;

}  // namespace

Ref<Number> Number::from_int(std::int64_t v) {
  return Ref<Number>(new Number(Type::Signed, static_cast<std::uint64_t>(v)));
}
Ref<Number> Number::from_uint(std::uint64_t v) {
  if (v <= static_cast<std::uint64_t>(INT64_MAX)) return from_int(static_cast<std::int64_t>(v));
  return Ref<Number>(new Number(Type::Unsigned, v));
}
Ref<Number> Number::from_real(double v) { return Ref<Number>(new Number(Type::Real, double_bits(v))); }
Ref<Number> Number::from_bool(bool v) {
  // Process-wide and never freed, like the platform's boolean constants.
  static Number* const yes = immortal(new Number(Type::Boolean, 1));
  static Number* const no = immortal(new Number(Type::Boolean, 0));
  return Ref<Number>(v ? yes : no);
}

std::int64_t Number::int_value() const {
  switch (type_) {
    case Type::Real: {
      double d = real_value();
      if (std::isnan(d)) return 0;
      if (d >= 9.2233720368547758e18) return INT64_MAX;
      if (d <= -9.2233720368547758e18) return INT64_MIN;
      return static_cast<std::int64_t>(d);
    }
    default:
      return static_cast<std::int64_t>(bits_);
  }
}
std::uint64_t Number::uint_value() const {
  if (type_ == Type::Real) return static_cast<std::uint64_t>(int_value());
  return bits_;
}
double Number::real_value() const {
  switch (type_) {
    case Type::Real:
      return bits_double(bits_);
    case Type::Unsigned:
      return static_cast<double>(bits_);
    default:
      return static_cast<double>(static_cast<std::int64_t>(bits_));
  }
}

Ref<Null> Null::shared() {
  static Null* const null = immortal(new Null());
  return Ref<Null>(null);
}

std::ptrdiff_t Dictionary::find(std::string_view key) const {
  if (entries_.size() >= kIndexThreshold) {
    const Index* index = index_.load(std::memory_order_acquire);
    if (!index) index = build_index();
    auto it = index->find(key);
    return it == index->end() ? -1 : static_cast<std::ptrdiff_t>(it->second);
  }
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    const String* s = as_string(entries_[i].first.get());
    if (s && s->str() == key) return static_cast<std::ptrdiff_t>(i);
  }
  return -1;
}

const Dictionary::Index* Dictionary::build_index() const {
  auto index = std::make_unique<Index>();
  index->reserve(entries_.size());
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (const String* s = as_string(entries_[i].first.get())) index->emplace(s->str(), i);
  }
  Index* first = nullptr;
  if (index_.compare_exchange_strong(first, index.get(), std::memory_order_acq_rel)) return index.release();
  return first;  // another reader's, made meanwhile
}

void Dictionary::drop_index() { delete index_.exchange(nullptr, std::memory_order_acq_rel); }

Dictionary::~Dictionary() { drop_index(); }

Object* Dictionary::get(std::string_view key) const {
  std::ptrdiff_t i = find(key);
  return i < 0 ? nullptr : entries_[static_cast<std::size_t>(i)].second.get();
}

void Dictionary::set(std::string_view key, Ref<Object> value) {
  std::ptrdiff_t i = find(key);
  if (i >= 0) {
    entries_[static_cast<std::size_t>(i)].second = std::move(value);
    return;
  }
  append(str(key), std::move(value));
}

void Dictionary::set(Ref<Object> key, Ref<Object> value) {
  if (const String* s = as_string(key.get())) {
    std::ptrdiff_t i = find(s->str());
    if (i >= 0) {
      entries_[static_cast<std::size_t>(i)].second = std::move(value);
      return;
    }
  }
  append(std::move(key), std::move(value));
}

void Dictionary::append(Ref<Object> key, Ref<Object> value) {
  entries_.emplace_back(std::move(key), std::move(value));
  if (Index* index = index_.load(std::memory_order_relaxed)) {  // a change: this thread alone uses it
    // Vector growth moves the Ref objects but not the strings they point at, so views stay valid.
    if (const String* s = as_string(entries_.back().first.get())) index->emplace(s->str(), entries_.size() - 1);
  }
}

bool Dictionary::remove(std::string_view key) {
  std::ptrdiff_t i = find(key);
  if (i < 0) return false;
  entries_.erase(entries_.begin() + i);
  drop_index();
  return true;
}

void Dictionary::drop_refs() {
  drop_index();
  std::vector<Entry>().swap(entries_);
}

Ref<String> str(std::string_view utf8) { return make<String>(std::string(utf8)); }
Ref<String> mutable_str(std::string_view utf8) { return make<String>(std::string(utf8), true); }
Ref<Number> num(std::int64_t v) { return Number::from_int(v); }
Ref<Number> real(double v) { return Number::from_real(v); }
Ref<Number> boolean(bool v) { return Number::from_bool(v); }
Ref<Date> date(double since_2001) { return make<Date>(since_2001); }
Ref<Data> data(std::string_view bytes) { return make<Data>(std::string(bytes)); }

Ref<Array> array(std::initializer_list<Ref<Object>> items) {
  return make<Array>(std::vector<Ref<Object>>(items), false);
}
Ref<Array> mutable_array(std::initializer_list<Ref<Object>> items) {
  return make<Array>(std::vector<Ref<Object>>(items), true);
}
Ref<Dictionary> dict(std::initializer_list<std::pair<std::string_view, Ref<Object>>> entries) {
  auto d = make<Dictionary>(false);
  for (const auto& [k, v] : entries) d->set(k, v);
  return d;
}
Ref<Dictionary> mutable_dict(std::initializer_list<std::pair<std::string_view, Ref<Object>>> entries) {
  auto d = make<Dictionary>(true);
  for (const auto& [k, v] : entries) d->set(k, v);
  return d;
}

namespace {
// Reals compare by value, except that NaN equals NaN (as NSNumber compares them): a value holding NaN
// is equal to itself and to its copy through a file.
bool same_real(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }
}  // namespace

bool deep_equal(const Object* a, const Object* b) {
  std::vector<std::pair<const Object*, const Object*>> work{{a, b}};
  std::set<std::pair<const Object*, const Object*>> seen;
  while (!work.empty()) {
    auto [x, y] = work.back();
    work.pop_back();
    if (x == y) continue;
    if (!x || !y || x->kind() != y->kind()) return false;
    switch (x->kind()) {
      case ObjectKind::String:
        if (as_string(x)->str() != as_string(y)->str()) return false;
        break;
      case ObjectKind::Number: {
        const Number* m = as_number(x);
        const Number* n = as_number(y);
        if (m->is_bool() != n->is_bool()) return false;
        if (m->is_real() || n->is_real()) {
          if (!same_real(m->real_value(), n->real_value())) return false;
        } else if (m->raw_bits() != n->raw_bits() || m->type() != n->type()) {
          return false;
        }
        break;
      }
      case ObjectKind::Date:
        if (!same_real(as_date(x)->time(), as_date(y)->time())) return false;
        break;
      case ObjectKind::Data:
        if (as_data(x)->bytes() != as_data(y)->bytes()) return false;
        break;
      case ObjectKind::Null:
        break;
      case ObjectKind::Array:
      case ObjectKind::Set: {
        const auto& p = x->kind() == ObjectKind::Array ? as_array(x)->items() : as_set(x)->items();
        const auto& q = y->kind() == ObjectKind::Array ? as_array(y)->items() : as_set(y)->items();
        if (p.size() != q.size()) return false;
        if (!seen.emplace(x, y).second) break;
        for (std::size_t i = 0; i < p.size(); ++i) work.emplace_back(p[i].get(), q[i].get());
        break;
      }
      case ObjectKind::Dictionary: {
        const auto& p = as_dict(x)->entries();
        const auto& q = as_dict(y)->entries();
        if (p.size() != q.size()) return false;
        if (!seen.emplace(x, y).second) break;
        for (std::size_t i = 0; i < p.size(); ++i) {
          work.emplace_back(p[i].first.get(), q[i].first.get());
          work.emplace_back(p[i].second.get(), q[i].second.get());
        }
        break;
      }
      case ObjectKind::Record:
        return false;  // records compare by identity, and x != y here
    }
  }
  return true;
}

}  // namespace orvia
