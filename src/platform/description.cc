#include "platform/description.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/value.h"

namespace orvia {
namespace {

// A container walk stops once its text is this long and ends the text with "...": nesting is printed
// with indents that grow with depth, so a deep or widely shared value would otherwise print gigabytes.
constexpr std::size_t kMaxContainerText = std::size_t{4} << 20;
constexpr std::string_view kTruncated = "...";

std::string address_form(const Object* obj) {
  char buf[64];
  std::snprintf(buf, sizeof buf, ": %p>", static_cast<const void*>(obj));
  std::string out = "<";
  out += obj->class_name();
  out += buf;
  return out;
}

// Next code point of UTF-8 text. A byte that does not start a well-formed sequence stands for U+FFFD
// and is skipped alone. Surrogates in three-byte form are taken as the lone UTF-16 units they encode.
char32_t next_code_point(std::string_view s, std::size_t& i) {
  auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char b0 = byte(i);
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  std::size_t len = 0;
  char32_t cp = 0;
  char32_t min = 0;
  if ((b0 & 0xE0) == 0xC0) {
    len = 2, cp = b0 & 0x1F, min = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    len = 3, cp = b0 & 0x0F, min = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    len = 4, cp = b0 & 0x07, min = 0x10000;
  } else {
    ++i;
    return 0xFFFD;
  }
  if (i + len > s.size()) {
    ++i;
    return 0xFFFD;
  }
  for (std::size_t k = 1; k < len; ++k) {
    unsigned char b = byte(i + k);
    if ((b & 0xC0) != 0x80) {
      ++i;
      return 0xFFFD;
    }
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF) {
    ++i;
    return 0xFFFD;
  }
  i += len;
  return cp;
}

template <class Fn>
void for_each_utf16_unit(std::string_view s, Fn&& fn) {
  std::size_t i = 0;
  while (i < s.size()) {
    char32_t cp = next_code_point(s, i);
    if (cp >= 0x10000) {
      cp -= 0x10000;
      fn(static_cast<char16_t>(0xD800 + (cp >> 10)));
      fn(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      fn(static_cast<char16_t>(cp));
    }
  }
}

bool is_plain(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alnum) return false;
  }
  return true;
}

// A key or leaf value as containers print it: bare when plain alphanumeric ASCII, else quoted.
void append_quoted(std::string& out, std::string_view text) {
  if (is_plain(text)) {
    out += text;
    return;
  }
  out += '"';
  for_each_utf16_unit(text, [&](char16_t u) {
    switch (u) {
      case u'"':
        out += "\\\"";
        return;
      case u'\\':
        out += "\\\\";
        return;
      case u'\n':
        out += "\\n";
        return;
      // Tab and carriage return keep their usual escapes; other control characters take the \U form.
      case u'\t':
        out += "\\t";
        return;
      case u'\r':
        out += "\\r";
        return;
      default:
        break;
    }
    if (u >= 0x20 && u < 0x7F) {
      out += static_cast<char>(u);
    } else {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\U%04x", static_cast<unsigned>(u));
      out += buf;
    }
  });
  out += '"';
}

std::string number_text(const Number& n) {
  char buf[40];
  switch (n.type()) {
    case Number::Type::Boolean:
      return n.bool_value() ? "1" : "0";
    case Number::Type::Signed:
      std::snprintf(buf, sizeof buf, "%" PRId64, n.int_value());
      break;
    case Number::Type::Unsigned:
      std::snprintf(buf, sizeof buf, "%" PRIu64, n.uint_value());
      break;
    case Number::Type::Real:
      std::snprintf(buf, sizeof buf, "%.16g", n.real_value());
      break;
  }
  return buf;
}

// Proleptic Gregorian calendar day from days since 1970-01-01 (H. Hinnant's civil_from_days).
void civil_from_days(std::int64_t z, std::int64_t& y, unsigned& m, unsigned& d) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  y = static_cast<std::int64_t>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  if (m <= 2) ++y;
}

std::string date_text(double since_2001) {
  // 2001-01-01 is 978307200 s after 1970-01-01. Times whose year has more than 17 digits, and non-finite
  // times, print as their seconds since 2001 instead of a calendar date.
  constexpr double kLimit = 1e16;
  char buf[96];
  if (!std::isfinite(since_2001) || std::fabs(since_2001) > kLimit) {
    std::snprintf(buf, sizeof buf, "%.16g", since_2001);
    return buf;
  }
  // Fractional seconds are dropped toward the past, so -0.5 is the last second of 2000.
  const auto secs = static_cast<std::int64_t>(std::floor(since_2001)) + 978307200;
  std::int64_t days = secs / 86400;
  std::int64_t rem = secs % 86400;
  if (rem < 0) {
    rem += 86400;
    --days;
  }
  std::int64_t y;
  unsigned m, d;
  civil_from_days(days, y, m, d);
  const auto hh = static_cast<int>(rem / 3600);
  const auto mm = static_cast<int>(rem / 60 % 60);
  const auto ss = static_cast<int>(rem % 60);
  // Years before 1 are astronomical (0 is 1 BC) with a minus sign.
  if (y < 0) {
    std::snprintf(buf, sizeof buf, "-%04" PRId64 "-%02u-%02u %02d:%02d:%02d +0000", -y, m, d, hh, mm, ss);
  } else {
    std::snprintf(buf, sizeof buf, "%04" PRId64 "-%02u-%02u %02d:%02d:%02d +0000", y, m, d, hh, mm, ss);
  }
  return buf;
}

std::string data_text(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 + bytes.size() * 2 + bytes.size() / 4);
  out += '<';
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0 && i % 4 == 0) out += ' ';
    auto b = static_cast<unsigned char>(bytes[i]);
    out += kHex[b >> 4];
    out += kHex[b & 0xF];
  }
  out += '>';
  return out;
}

bool is_container(const Object* obj) {
  if (!obj) return false;
  auto k = obj->kind();
  return k == ObjectKind::Array || k == ObjectKind::Dictionary || k == ObjectKind::Set;
}

// Description of anything that is not a container.
std::string leaf_text(const Object* obj) {
  if (!obj) return "(null)";
  switch (obj->kind()) {
    case ObjectKind::String:
      return as_string(obj)->str();
    case ObjectKind::Number:
      return number_text(*as_number(obj));
    case ObjectKind::Date:
      return date_text(as_date(obj)->time());
    case ObjectKind::Data:
      return data_text(as_data(obj)->bytes());
    case ObjectKind::Null:
      return "<null>";
    case ObjectKind::Record:
      return static_cast<const Record*>(obj)->description();
    default:
      return address_form(obj);
  }
}

std::u16string utf16(std::string_view s) {
  std::u16string out;
  out.reserve(s.size());
  for_each_utf16_unit(s, [&](char16_t u) { out += u; });
  return out;
}

// Entry order of a dictionary: by key (UTF-16 units, as NSString compares) when every key is a string,
// else as stored.
std::vector<std::size_t> entry_order(const Dictionary& d) {
  const auto& entries = d.entries();
  std::vector<std::size_t> order(entries.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  bool all_strings = std::all_of(entries.begin(), entries.end(),
                                 [](const Dictionary::Entry& e) { return as_string(e.first.get()) != nullptr; });
  if (!all_strings || entries.size() < 2) return order;
  std::vector<std::u16string> keys;
  keys.reserve(entries.size());
  for (const auto& e : entries) keys.push_back(utf16(as_string(e.first.get())->str()));
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return keys[a] < keys[b]; });
  return order;
}

struct Frame {
  const Object* obj = nullptr;
  std::size_t level = 0;
  std::size_t next = 0;
  std::size_t count = 0;
  std::vector<std::size_t> order;  // dictionaries: entry positions in print order
};

class Printer {
 public:
  std::string run(const Object* root) {
    open(root, 0);
    while (!stack_.empty() && out_.size() <= kMaxContainerText) step();
    if (out_.size() > kMaxContainerText) {
      out_.resize(kMaxContainerText);
      out_ += kTruncated;
    }
    return std::move(out_);
  }

 private:
  void indent(std::size_t level) { out_.append(level * 4, ' '); }

  const std::vector<Ref<Object>>& items(const Object* obj) {
    return obj->kind() == ObjectKind::Array ? as_array(obj)->items() : as_set(obj)->items();
  }

  // Prints a value at a nesting level: containers start a frame (their first line carries their own
  // indent), leaves print quoted. A container already open further out (a cycle) prints its address.
  void value(const Object* obj, std::size_t level) {
    if (is_container(obj) && !open_.count(obj)) {
      open(obj, level);
      return;
    }
    if (obj && obj->kind() == ObjectKind::Data) {
      out_ += data_text(as_data(obj)->bytes());  // data prints bare
      return;
    }
    append_quoted(out_, is_container(obj) ? address_form(obj) : leaf_text(obj));
  }

  void open(const Object* obj, std::size_t level) {
    indent(level);
    Frame f;
    f.obj = obj;
    f.level = level;
    switch (obj->kind()) {
      case ObjectKind::Dictionary:
        out_ += "{\n";
        f.order = entry_order(*as_dict(obj));
        f.count = f.order.size();
        break;
      case ObjectKind::Set:
        out_ += "{(";
        f.count = items(obj).size();
        break;
      default:
        out_ += '(';
        f.count = items(obj).size();
        break;
    }
    open_.insert(obj);
    stack_.push_back(std::move(f));
  }

  void step() {
    Frame& f = stack_.back();
    const Object* obj = f.obj;
    const std::size_t level = f.level;
    if (obj->kind() == ObjectKind::Dictionary) {
      if (f.next > 0) out_ += ";\n";
      if (f.next == f.count) {
        indent(level);
        out_ += '}';
        close();
        return;
      }
      const auto& e = as_dict(obj)->entries()[f.order[f.next++]];
      indent(level + 1);
      const Object* key = e.first.get();
      // A container used as a key prints as its address, which keeps the walk flat.
      append_quoted(out_, is_container(key) ? address_form(key) : leaf_text(key));
      out_ += " = ";
      value(e.second.get(), level + 1);  // may push a frame; `f` is not used after this
      return;
    }
    if (f.next == f.count) {
      out_ += '\n';
      indent(level);
      out_ += obj->kind() == ObjectKind::Set ? ")}" : ")";
      close();
      return;
    }
    out_ += f.next > 0 ? ",\n" : "\n";
    const Object* item = items(obj)[f.next++].get();
    indent(level + 1);
    value(item, level + 1);
  }

  void close() {
    open_.erase(stack_.back().obj);
    stack_.pop_back();
  }

  std::string out_;
  std::vector<Frame> stack_;
  std::unordered_set<const Object*> open_;
};

}  // namespace

std::string description(const Object* obj) {
  if (is_container(obj)) return Printer().run(obj);
  return leaf_text(obj);
}

std::string Record::description() const { return address_form(this); }

}  // namespace orvia
