// The system's format strings: "%@" takes an object's description text ("(null)" for nil), "%li",
// "%ld", "%lu", "%d", "%i", "%u" take integers, "%p" an address, "%%" is a percent sign. Arguments are
// consumed in order; a missing argument formats as "(null)" / 0.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "platform/object.h"

namespace orvia {

class FormatArg {
 public:
  FormatArg(const Object* obj) : kind_(Kind::Object), obj_(obj) {}
  template <class T>
  FormatArg(const Ref<T>& obj) : kind_(Kind::Object), obj_(obj.get()) {}
  FormatArg(std::nullptr_t) : kind_(Kind::Object), obj_(nullptr) {}
  FormatArg(std::string_view text) : kind_(Kind::Text), text_(text) {}
  FormatArg(const std::string& text) : kind_(Kind::Text), text_(text) {}
  FormatArg(const char* text) : kind_(Kind::Text), text_(text) {}
  FormatArg(std::int64_t v) : kind_(Kind::Int), int_(v) {}
  FormatArg(int v) : kind_(Kind::Int), int_(v) {}
  FormatArg(long long v) : kind_(Kind::Int), int_(static_cast<std::int64_t>(v)) {}
  FormatArg(std::uint64_t v) : kind_(Kind::Int), int_(static_cast<std::int64_t>(v)) {}
  FormatArg(unsigned v) : kind_(Kind::Int), int_(v) {}
  FormatArg(const void* p) : kind_(Kind::Pointer), ptr_(p) {}

  enum class Kind { Object, Text, Int, Pointer };
  Kind kind() const { return kind_; }
  const Object* object() const { return obj_; }
  std::string_view text() const { return text_; }
  std::int64_t integer() const { return int_; }
  const void* pointer() const { return ptr_; }

 private:
  Kind kind_;
  const Object* obj_ = nullptr;
  std::string_view text_;
  std::int64_t int_ = 0;
  const void* ptr_ = nullptr;
};

std::string format(std::string_view fmt, std::initializer_list<FormatArg> args);

}  // namespace orvia
