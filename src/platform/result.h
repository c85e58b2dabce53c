// Failures are values: a Result holds either a value or an Error that names the check that failed.
#pragma once

#include <string>
#include <utility>
#include <variant>

namespace orvia {

struct Error {
  std::string message;  // names the failed check, with the offset or object index where it applies
};

template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : v_(std::move(value)) {}
  Result(Error error) : v_(std::move(error)) {}

  bool ok() const { return v_.index() == 0; }
  explicit operator bool() const { return ok(); }
  T& value() & { return std::get<0>(v_); }
  const T& value() const& { return std::get<0>(v_); }
  T&& value() && { return std::get<0>(std::move(v_)); }
  T* operator->() { return &value(); }
  T& operator*() { return value(); }
  const Error& error() const { return std::get<1>(v_); }

 private:
  std::variant<T, Error> v_;
};

}  // namespace orvia
