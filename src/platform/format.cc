#include "platform/format.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>

#include "platform/description.h"
#include "platform/value.h"

namespace orvia {
namespace {

// Widths and precisions above this make the conversion malformed (it is then copied as written).
constexpr unsigned kMaxWidth = 4096;

std::string pointer_text(const void* p) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%" PRIxPTR, reinterpret_cast<std::uintptr_t>(p));
  return buf;
}

// The integer an argument stands for: a number object gives its value, an address its bits, anything
// else 0.
std::int64_t integer_of(const FormatArg* arg) {
  if (!arg) return 0;
  switch (arg->kind()) {
    case FormatArg::Kind::Int:
      return arg->integer();
    case FormatArg::Kind::Pointer:
      return static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(arg->pointer()));
    case FormatArg::Kind::Object:
      if (const Number* n = as_number(arg->object())) return n->int_value();
      return 0;
    case FormatArg::Kind::Text:
      return 0;
  }
  return 0;
}

std::string object_text(const FormatArg* arg) {
  if (!arg) return "(null)";
  switch (arg->kind()) {
    case FormatArg::Kind::Object:
      return arg->object() ? description(arg->object()) : "(null)";
    case FormatArg::Kind::Text:
      return std::string(arg->text());
    case FormatArg::Kind::Int:
      return std::to_string(arg->integer());
    case FormatArg::Kind::Pointer:
      return pointer_text(arg->pointer());
  }
  return "(null)";
}

const void* address_of(const FormatArg* arg) {
  if (!arg) return nullptr;
  switch (arg->kind()) {
    case FormatArg::Kind::Object:
      return arg->object();
    case FormatArg::Kind::Text:
      return arg->text().data();
    case FormatArg::Kind::Int:
      return reinterpret_cast<const void*>(static_cast<std::uintptr_t>(arg->integer()));
    case FormatArg::Kind::Pointer:
      return arg->pointer();
  }
  return nullptr;
}

struct FieldFormat {
  std::string flags;
  unsigned width = 0;
  bool has_precision = false;
  unsigned precision = 0;
};

void pad(std::string& out, std::string text, const FieldFormat& field) {
  if (text.size() < field.width) {
    std::string fill(field.width - text.size(), ' ');
    if (field.flags.find('-') != std::string::npos) {
      text += fill;
    } else {
      text.insert(0, fill);
    }
  }
  out += text;
}

void append_integer(std::string& out, char conv, std::int64_t v, const FieldFormat& field) {
  // Every integer conversion prints the argument's full 64-bit value, whatever its length modifier.
  const bool is_signed = conv == 'd' || conv == 'i';
  std::string f = "%";
  for (char flag : field.flags) {
    // Only the flags that C defines for the conversion: '+' and ' ' for signed, '#' for x, X and o.
    if ((flag == '+' || flag == ' ') && !is_signed) continue;
    if (flag == '#' && (is_signed || conv == 'u')) continue;
    f += flag;
  }
  if (field.width) f += std::to_string(field.width);
  if (field.has_precision) {
    f += '.';
    f += std::to_string(field.precision);
  }
  f += "ll";
  f += conv;
  char buf[kMaxWidth * 2 + 64];
  int n = is_signed ? std::snprintf(buf, sizeof buf, f.c_str(), static_cast<long long>(v))
                     : std::snprintf(buf, sizeof buf, f.c_str(), static_cast<unsigned long long>(v));
  if (n > 0) out.append(buf, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof buf - 1));
}

bool read_number(std::string_view fmt, std::size_t& i, unsigned& value) {
  value = 0;
  while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9') {
    value = value * 10 + static_cast<unsigned>(fmt[i] - '0');
    if (value > kMaxWidth) return false;
    ++i;
  }
  return true;
}

}  // namespace

std::string format(std::string_view fmt, std::initializer_list<FormatArg> args) {
  std::string out;
  out.reserve(fmt.size() + 16 * args.size());
  const FormatArg* next = args.begin();
  auto take = [&]() -> const FormatArg* { return next == args.end() ? nullptr : next++; };

  std::size_t i = 0;
  while (i < fmt.size()) {
    char c = fmt[i];
    if (c != '%') {
      std::size_t end = fmt.find('%', i);
      if (end == std::string_view::npos) end = fmt.size();
      out.append(fmt.substr(i, end - i));
      i = end;
      continue;
    }
    const std::size_t start = i++;
    FieldFormat field;
    for (; i < fmt.size() && std::string_view("-+ 0#").find(fmt[i]) != std::string_view::npos; ++i) {
      if (field.flags.find(fmt[i]) == std::string::npos) field.flags += fmt[i];
    }
    bool ok = read_number(fmt, i, field.width);
    if (ok && i < fmt.size() && fmt[i] == '.') {
      ++i;
      field.has_precision = true;
      ok = read_number(fmt, i, field.precision);
    }
    while (ok && i < fmt.size() && std::string_view("hlqjzt").find(fmt[i]) != std::string_view::npos) ++i;
    if (!ok || i >= fmt.size()) {
      // A conversion cut short by the end of the text, or with an absurd width: copied as written.
      out.append(fmt.substr(start, ok ? fmt.size() - start : i - start));
      continue;
    }
    const char conv = fmt[i++];
    switch (conv) {
      case '%':
        out += '%';
        break;
      case '@':
        pad(out, object_text(take()), field);
        break;
      case 'p':
        pad(out, pointer_text(address_of(take())), field);
        break;
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        append_integer(out, conv, integer_of(take()), field);
        break;
      default:
        // Conversions the system's format strings do not use are copied as written and take no argument.
        out.append(fmt.substr(start, i - start));
        break;
    }
  }
  return out;
}

}  // namespace orvia
