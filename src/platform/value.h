// Foundation values: string, number (signed, unsigned, real, boolean), date, data, array, dictionary,
// set, NSNull. Each remembers whether it is the mutable variant, because that decides the class name
// under which it is archived. Property lists and keyed archives decode into these; records hold them.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/object.h"

namespace orvia {

class String final : public Object {
 public:
  explicit String(std::string utf8, bool is_mutable = false)
      : Object(ObjectKind::String), value_(std::move(utf8)), mutable_(is_mutable) {}
  std::string_view class_name() const override { return mutable_ ? "NSMutableString" : "NSString"; }
  const std::string& str() const { return value_; }
  std::string& mutable_str() { return value_; }
  bool is_mutable() const { return mutable_; }

 private:
  std::string value_;  // UTF-8
  bool mutable_;
};

class Number final : public Object {
 public:
  enum class Type : std::uint8_t { Signed, Unsigned, Real, Boolean };

  static Ref<Number> from_int(std::int64_t v);
  static Ref<Number> from_uint(std::uint64_t v);  // kept signed when it fits, as CF does
  static Ref<Number> from_real(double v);
  static Ref<Number> from_bool(bool v);  // one shared object for each of YES and NO

  std::string_view class_name() const override { return "NSNumber"; }
  Type type() const { return type_; }
  bool is_bool() const { return type_ == Type::Boolean; }
  bool is_real() const { return type_ == Type::Real; }
  bool is_integer() const { return type_ == Type::Signed || type_ == Type::Unsigned; }

  std::int64_t int_value() const;   // reals truncate toward zero, booleans 0/1
  std::uint64_t uint_value() const;
  double real_value() const;
  bool bool_value() const { return int_value() != 0 || (type_ == Type::Real && real_value() != 0); }
  std::uint64_t raw_bits() const { return bits_; }

 private:
  Number(Type t, std::uint64_t bits) : Object(ObjectKind::Number), type_(t), bits_(bits) {}
  Type type_;
  std::uint64_t bits_;  // int64/uint64 bit pattern, or the double's bits
};

class Date final : public Object {
 public:
  // Seconds since 2001-01-01 00:00:00 UTC, kept exactly.
  explicit Date(double since_2001) : Object(ObjectKind::Date), time_(since_2001) {}
  std::string_view class_name() const override { return "NSDate"; }
  double time() const { return time_; }
  void set_time(double since_2001) { time_ = since_2001; }

 private:
  double time_;
};

class Data final : public Object {
 public:
  explicit Data(std::string bytes, bool is_mutable = false)
      : Object(ObjectKind::Data), bytes_(std::move(bytes)), mutable_(is_mutable) {}
  std::string_view class_name() const override { return mutable_ ? "NSMutableData" : "NSData"; }
  const std::string& bytes() const { return bytes_; }
  std::string& mutable_bytes() { return bytes_; }
  bool is_mutable() const { return mutable_; }

 private:
  std::string bytes_;
  bool mutable_;
};

class Null final : public Object {
 public:
  static Ref<Null> shared();  // NSNull is a singleton
  std::string_view class_name() const override { return "NSNull"; }

 private:
  Null() : Object(ObjectKind::Null) {}
};

class Array final : public Object {
 public:
  explicit Array(bool is_mutable = false) : Object(ObjectKind::Array, true), mutable_(is_mutable) {}
  Array(std::vector<Ref<Object>> items, bool is_mutable)
      : Object(ObjectKind::Array, true), items_(std::move(items)), mutable_(is_mutable) {}
  std::string_view class_name() const override { return mutable_ ? "NSMutableArray" : "NSArray"; }
  bool is_mutable() const { return mutable_; }

  std::size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  const Ref<Object>& at(std::size_t i) const { return items_[i]; }
  const std::vector<Ref<Object>>& items() const { return items_; }
  std::vector<Ref<Object>>& mutable_items() { return items_; }
  void push_back(Ref<Object> o) { items_.push_back(std::move(o)); }

 protected:
  void drop_refs() override { std::vector<Ref<Object>>().swap(items_); }

 private:
  std::vector<Ref<Object>> items_;
  bool mutable_;
};

class Set final : public Object {
 public:
  explicit Set(bool is_mutable = false) : Object(ObjectKind::Set, true), mutable_(is_mutable) {}
  std::string_view class_name() const override { return mutable_ ? "NSMutableSet" : "NSSet"; }
  bool is_mutable() const { return mutable_; }
  const std::vector<Ref<Object>>& items() const { return items_; }
  std::vector<Ref<Object>>& mutable_items() { return items_; }

 protected:
  void drop_refs() override { std::vector<Ref<Object>>().swap(items_); }

 private:
  std::vector<Ref<Object>> items_;
  bool mutable_;
};

// Keeps entries in the order in which they were added (a file's order). Keys are usually strings;
// archives may hold other keys (numbers), which are kept but found only by identity-free string lookup
// when they are strings.
class Dictionary final : public Object {
 public:
  using Entry = std::pair<Ref<Object>, Ref<Object>>;

  explicit Dictionary(bool is_mutable = false) : Object(ObjectKind::Dictionary, true), mutable_(is_mutable) {}
  ~Dictionary() override;
  std::string_view class_name() const override {
    return mutable_ ? "NSMutableDictionary" : "NSDictionary";
  }
  bool is_mutable() const { return mutable_; }

  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  const std::vector<Entry>& entries() const { return entries_; }

  // The value under a string key, or null.
  Object* get(std::string_view key) const;
  // Sets the value under a string key: replaces an existing entry in place, or appends.
  void set(std::string_view key, Ref<Object> value);
  void set(Ref<Object> key, Ref<Object> value);
  // Appends without looking for an existing key (decoders that already know keys are distinct, or that
  // keep a file's duplicates).
  void append(Ref<Object> key, Ref<Object> value);
  void reserve(std::size_t n) { entries_.reserve(n); }
  bool remove(std::string_view key);

 protected:
  void drop_refs() override;

 private:
  using Index = std::unordered_map<std::string_view, std::size_t>;
  std::ptrdiff_t find(std::string_view key) const;
  const Index* build_index() const;
  void drop_index();

  std::vector<Entry> entries_;
  // Built on demand for larger dictionaries: string key -> position of its first entry. Threads that
  // only read may ask for it at once (a request's helper threads read the request's preferences): the
  // first index made is kept and the others are dropped.
  mutable std::atomic<Index*> index_{nullptr};
  bool mutable_;
};

// Convenience constructors.
Ref<String> str(std::string_view utf8);
Ref<String> mutable_str(std::string_view utf8);
Ref<Number> num(std::int64_t v);
Ref<Number> real(double v);
Ref<Number> boolean(bool v);
Ref<Date> date(double since_2001);
Ref<Data> data(std::string_view bytes);
Ref<Array> array(std::initializer_list<Ref<Object>> items = {});
Ref<Array> mutable_array(std::initializer_list<Ref<Object>> items = {});
Ref<Dictionary> dict(std::initializer_list<std::pair<std::string_view, Ref<Object>>> entries = {});
Ref<Dictionary> mutable_dict(std::initializer_list<std::pair<std::string_view, Ref<Object>>> entries = {});

// Typed views: null when the object is absent or of another kind.
inline String* as_string(const Object* o) {
  return o && o->kind() == ObjectKind::String ? static_cast<String*>(const_cast<Object*>(o)) : nullptr;
}
inline Number* as_number(const Object* o) {
  return o && o->kind() == ObjectKind::Number ? static_cast<Number*>(const_cast<Object*>(o)) : nullptr;
}
inline Date* as_date(const Object* o) {
  return o && o->kind() == ObjectKind::Date ? static_cast<Date*>(const_cast<Object*>(o)) : nullptr;
}
inline Data* as_data(const Object* o) {
  return o && o->kind() == ObjectKind::Data ? static_cast<Data*>(const_cast<Object*>(o)) : nullptr;
}
inline Array* as_array(const Object* o) {
  return o && o->kind() == ObjectKind::Array ? static_cast<Array*>(const_cast<Object*>(o)) : nullptr;
}
inline Dictionary* as_dict(const Object* o) {
  return o && o->kind() == ObjectKind::Dictionary ? static_cast<Dictionary*>(const_cast<Object*>(o)) : nullptr;
}
inline Set* as_set(const Object* o) {
  return o && o->kind() == ObjectKind::Set ? static_cast<Set*>(const_cast<Object*>(o)) : nullptr;
}
inline bool is_null(const Object* o) { return o && o->kind() == ObjectKind::Null; }

// The string's text when the object is a string, else empty.
inline std::string_view text_of(const Object* o) {
  const String* s = as_string(o);
  return s ? std::string_view(s->str()) : std::string_view();
}

// Structural equality of value trees (strings, numbers by type and value, dates, data, containers
// element by element, records by identity). Iterative, and safe on cycles (a pair of objects already
// being compared counts as equal).
bool deep_equal(const Object* a, const Object* b);

}  // namespace orvia
