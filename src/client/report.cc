#include "client/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/value.h"

namespace orvia::client {
namespace {

// Deeper levels print at this indentation (the depth still shows where it matters).
constexpr std::size_t kMaxIndent = 64;
// Repeated objects print in full while the output of repeats stays under this many values plus three
// times the values printed once; past that a repeat prints as a reference (bounds hostile sharing).
constexpr std::uint64_t kRepeatAllowance = 1'000'000;

std::string json_string(std::string_view s) {
  return nlohmann::json(std::string(s)).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string base64(std::string_view bytes) {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    std::uint32_t v = (std::uint8_t(bytes[i]) << 16) | (std::uint8_t(bytes[i + 1]) << 8) | std::uint8_t(bytes[i + 2]);
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  if (std::size_t rest = bytes.size() - i) {
    std::uint32_t v = std::uint8_t(bytes[i]) << 16;
    if (rest == 2) v |= std::uint8_t(bytes[i + 1]) << 8;
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::string real_text(double d) {
  if (std::isnan(d)) return "\"nan\"";
  if (std::isinf(d)) return d > 0 ? "\"inf\"" : "\"-inf\"";
  return fmt::format("{}", d);
}

std::string number_text(const Number& n) {
  switch (n.type()) {
    case Number::Type::Boolean: return n.bool_value() ? "true" : "false";
    case Number::Type::Signed: return std::to_string(n.int_value());
    case Number::Type::Unsigned: return std::to_string(n.uint_value());
    case Number::Type::Real: return real_text(n.real_value());
  }
  return "null";
}

// A dictionary key as JSON needs it: strings as they are, numbers as their text, anything else by class.
std::string key_text(const Object* key) {
  if (const String* s = as_string(key)) return s->str();
  if (const Number* n = as_number(key)) return number_text(*n);
  if (!key) return "null";
  return fmt::format("<{}>", key->class_name());
}

class JsonWriter {
 public:
  JsonWriter(std::ostream& out, bool pretty) : out_(out), pretty_(pretty) {}

  void write(const Object* root) {
    value(root, false);
    while (!stack_.empty()) {
      Frame& f = stack_.back();
      std::string key;
      const Object* child = nullptr;
      if (!next_child(f, key, child)) {
        close(f);
        continue;
      }
      if (!f.empty) out_ << ',';
      f.empty = false;
      bool repeat = f.repeat;
      bool keyed = f.keyed;
      newline(stack_.size());
      if (keyed) out_ << json_string(key) << (pretty_ ? ": " : ":");
      value(child, repeat);  // may push a frame: f is not used after this
    }
    if (pretty_) out_ << '\n';
  }

 private:
  struct Frame {
    const Object* obj;
    std::size_t next = 0;
    bool keyed;   // an object's members rather than an array's elements
    bool repeat;  // inside an object printed before
    bool empty = true;
  };

  void newline(std::size_t depth) {
    if (!pretty_) return;
    out_ << '\n';
    for (std::size_t i = 0, n = std::min(depth, kMaxIndent); i < n; ++i) out_ << "  ";
  }

  void value(const Object* o, bool repeat) {
    ++(repeat ? repeated_ : printed_);
    if (!o) {
      out_ << "null";
      return;
    }
    switch (o->kind()) {
      case ObjectKind::String: out_ << json_string(static_cast<const String*>(o)->str()); return;
      case ObjectKind::Number: out_ << number_text(*static_cast<const Number*>(o)); return;
      case ObjectKind::Date:
        out_ << (pretty_ ? "{\"$date\": " : "{\"$date\":") << real_text(static_cast<const Date*>(o)->time()) << '}';
        return;
      case ObjectKind::Data:
        out_ << (pretty_ ? "{\"$data\": \"" : "{\"$data\":\"") << base64(static_cast<const Data*>(o)->bytes()) << "\"}";
        return;
      case ObjectKind::Null: out_ << "null"; return;
      default: break;
    }
    bool seen = shown_.count(o) > 0;
    if (on_path_.count(o) || (seen && repeated_ > 3 * printed_ + kRepeatAllowance)) {
      out_ << (pretty_ ? "{\"$ref\": " : "{\"$ref\":") << json_string(std::string(o->class_name()) + " already shown")
           << '}';
      return;
    }
    shown_.insert(o);
    on_path_.insert(o);
    Frame f{o, 0, true, repeat || seen};
    switch (o->kind()) {
      case ObjectKind::Array: out_ << '['; f.keyed = false; break;
      case ObjectKind::Set: out_ << (pretty_ ? "{\"$set\": [" : "{\"$set\":["); f.keyed = false; break;
      case ObjectKind::Dictionary: out_ << '{'; break;
      default:  // a record: its class first
        out_ << '{';
        newline(stack_.size() + 1);
        out_ << (pretty_ ? "\"$class\": " : "\"$class\":") << json_string(o->class_name());
        f.empty = false;
        break;
    }
    stack_.push_back(f);
  }

  bool next_child(Frame& f, std::string& key, const Object*& child) {
    switch (f.obj->kind()) {
      case ObjectKind::Array: {
        const auto& items = static_cast<const Array*>(f.obj)->items();
        if (f.next >= items.size()) return false;
        child = items[f.next++].get();
        return true;
      }
      case ObjectKind::Set: {
        const auto& items = static_cast<const Set*>(f.obj)->items();
        if (f.next >= items.size()) return false;
        child = items[f.next++].get();
        return true;
      }
      case ObjectKind::Dictionary: {
        const auto& entries = static_cast<const Dictionary*>(f.obj)->entries();
        if (f.next >= entries.size()) return false;
        const auto& e = entries[f.next++];
        key = key_text(e.first.get());
        child = e.second.get();
        return true;
      }
      default: {
        const auto* rec = dynamic_cast<const GenericRecord*>(f.obj);
        if (!rec || f.next >= rec->fields().size()) return false;
        const auto& field = rec->fields()[f.next++];
        key = field.key;
        child = field.value.get();
        return true;
      }
    }
  }

  void close(const Frame& f) {
    const Object* o = f.obj;
    bool empty = f.empty;
    stack_.pop_back();
    on_path_.erase(o);
    if (!empty) newline(stack_.size());
    out_ << (o->kind() == ObjectKind::Array ? "]" : o->kind() == ObjectKind::Set ? "]}" : "}");
  }

  std::ostream& out_;
  bool pretty_;
  std::vector<Frame> stack_;
  std::unordered_set<const Object*> on_path_, shown_;
  std::uint64_t printed_ = 0, repeated_ = 0;
};

// ---- The readable report ----

const GenericRecord* as_record(const Object* o) {
  return o && o->kind() == ObjectKind::Record ? dynamic_cast<const GenericRecord*>(o) : nullptr;
}

const Object* field(const GenericRecord* r, std::string_view key) { return r ? r->get(key) : nullptr; }

std::string text_field(const GenericRecord* r, std::string_view key, std::string_view fallback = "") {
  const Object* v = field(r, key);
  if (const String* s = as_string(v)) return s->str();
  if (const Number* n = as_number(v)) return number_text(*n);
  return std::string(fallback);
}

std::int64_t int_field(const GenericRecord* r, std::string_view key) {
  const Number* n = as_number(field(r, key));
  return n ? n->int_value() : 0;
}

// One line per control character would break the layout: show them escaped.
std::string printable(std::string s) {
  std::string out;
  for (char c : s) {
    if (static_cast<unsigned char>(c) < 0x20) {
      out += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    } else {
      out += c;
    }
  }
  return out;
}

std::string plural(std::uint64_t n, std::string_view one, std::string_view many) {
  return fmt::format("{} {}", n, n == 1 ? one : many);
}

std::string_view leaf_kind(std::string_view cls) {
  if (cls == "MQImporterNodeTag") return "tag";
  if (cls == "MQImporterNodeLocation") return "location";
  if (cls == "MQImporterNodeAlbum") return "album";
  if (cls == "MQImporterNodeFriend") return "friend";
  if (cls == "MQImporterNodeBlacklist") return "blocked user";
  if (cls == "MQImporterNodeStatistics") return "statistics database";
  return "entry";
}

const Array* children_of(const GenericRecord* r) { return as_array(field(r, "children")); }

std::string node_line(const Object* node) {
  const GenericRecord* r = as_record(node);
  if (!r) return node ? fmt::format("<{}>", node->class_name()) : "(nil)";
  std::string_view cls = r->class_name();
  if (cls == "MQImporterNodeFolder" || children_of(r)) {
    const Array* kids = children_of(r);
    return fmt::format("{}/ ({})", printable(text_field(r, "title", "(untitled)")),
                       plural(kids ? kids->size() : 0, "entry", "entries"));
  }
  if (cls == "MQImporterNodeTag") {
    return fmt::format("#{} (count {})", printable(text_field(r, "tagName", "?")), int_field(r, "tagCount"));
  }
  if (cls == "MQImporterNodeLocation") {
    return fmt::format("{} ({}, {})", printable(text_field(r, "name", "(unnamed)")),
                       text_field(r, "latitude", "?"), text_field(r, "longitude", "?"));
  }
  if (cls == "MQImporterNodeAlbum") {
    const Array* items = as_array(field(r, "items"));
    return fmt::format("{} ({})", printable(text_field(r, "albumName", "(untitled)")),
                       plural(items ? items->size() : 0, "item", "items"));
  }
  if (cls == "MQImporterNodeFriend") {
    return fmt::format("@{} (uid {}, {} media)", printable(text_field(r, "username", "?")),
                       printable(text_field(r, "uid", "?")), int_field(r, "mediaCount"));
  }
  if (cls == "MQImporterNodeBlacklist") {
    return fmt::format("{} (uid {})", printable(text_field(r, "username", "?")), printable(text_field(r, "uid", "?")));
  }
  if (cls == "MQImporterNodeStatistics") return printable(text_field(r, "path", "(no path)"));
  std::string id = text_field(r, "identifier");
  if (id.empty()) return fmt::format("<{}>", cls);
  return fmt::format("<{}> {}", cls, printable(id));
}

class ReportWriter {
 public:
  explicit ReportWriter(std::ostream& out) : out_(out) {}

  void category(std::string_view name, const Object* root) {
    const GenericRecord* r = as_record(root);
    if (!r) {
      out_ << "  " << name << ": " << (root ? fmt::format("<{}>", root->class_name()) : "none") << '\n';
      return;
    }
    // A category's top is a root folder: its own line is the category heading.
    out_ << "  " << name << ": " << counts(r) << '\n';
    const Array* kids = children_of(r);
    if (!kids) {
      if (r->class_name() != "MQImporterNodeFolder") out_ << "    " << node_line(r) << '\n';
      return;
    }
    tree(r, 2);
  }

 private:
  struct Frame {
    const GenericRecord* folder;
    std::size_t next = 0;
  };

  // Counts of one category: folders below the top, entries by kind, and album items. Remembered per top
  // node, so the album tree that every result shares is counted once.
  std::string counts(const GenericRecord* top) {
    auto cached = counts_.find(top);
    if (cached != counts_.end()) return cached->second;
    return counts_[top] = count(top);
  }

  std::string count(const GenericRecord* top) {
    std::uint64_t folders = 0, leaves = 0, items = 0;
    std::string_view kind;
    bool mixed = false;
    std::unordered_set<const Object*> seen{top};
    std::vector<const GenericRecord*> todo{top};
    while (!todo.empty()) {
      const GenericRecord* r = todo.back();
      todo.pop_back();
      const Array* kids = children_of(r);
      if (!kids) continue;
      for (const auto& k : kids->items()) {
        if (!seen.insert(k.get()).second) continue;
        const GenericRecord* kr = as_record(k.get());
        if (kr && (kr->class_name() == "MQImporterNodeFolder" || children_of(kr))) {
          ++folders;
          todo.push_back(kr);
          continue;
        }
        ++leaves;
        std::string_view lk = kr ? leaf_kind(kr->class_name()) : "entry";
        if (kind.empty()) kind = lk;
        mixed = mixed || kind != lk;
        if (const Array* it = kr ? as_array(field(kr, "items")) : nullptr) items += it->size();
      }
    }
    if (folders == 0 && leaves == 0) return "empty";
    std::string noun = mixed || kind.empty() ? "entry" : std::string(kind);
    std::string text = plural(folders, "folder", "folders") + ", " +
                       plural(leaves, noun, noun == "entry" ? "entries" : noun == "statistics database" ? noun : noun + "s");
    if (items > 0) text += ", " + plural(items, "album item", "album items");
    return text;
  }

  void line(std::size_t depth, const std::string& text) {
    if (depth > kMaxIndent) {
      for (std::size_t i = 0; i < kMaxIndent; ++i) out_ << "  ";
      out_ << '[' << depth << "] ";
    } else {
      for (std::size_t i = 0; i < depth; ++i) out_ << "  ";
    }
    out_ << text << '\n';
  }

  // The folder's entries, depth first, without recursion. A node met again inside the same category
  // (a damaged archive that shares or loops) prints once in full and then as a reference; trees shared
  // between categories or results (the album tree) print in full each time while repeats stay within a
  // bound of the distinct output.
  void tree(const GenericRecord* top, std::size_t depth0) {
    std::unordered_set<const Object*> shown{top};
    ever_shown_.insert(top);
    std::vector<Frame> stack{{top}};
    while (!stack.empty()) {
      Frame& f = stack.back();
      const Array* kids = children_of(f.folder);
      if (!kids || f.next >= kids->size()) {
        stack.pop_back();
        continue;
      }
      const Object* child = kids->at(f.next++).get();
      std::size_t depth = depth0 + stack.size() - 1;
      bool repeat = !ever_shown_.insert(child).second;
      ++(repeat ? repeated_ : printed_);
      if (!shown.insert(child).second || (repeat && repeated_ > 3 * printed_ + kRepeatAllowance)) {
        line(depth, node_line(child) + " (already shown)");
        continue;
      }
      line(depth, node_line(child));
      const GenericRecord* r = as_record(child);
      if (r && children_of(r)) stack.push_back({r});  // f is not used after this
    }
  }

  std::ostream& out_;
  std::unordered_map<const Object*, std::string> counts_;
  std::unordered_set<const Object*> ever_shown_;
  std::uint64_t printed_ = 0, repeated_ = 0;
};

}  // namespace

void write_json(std::ostream& out, const Object* root, bool pretty) { JsonWriter(out, pretty).write(root); }

std::string to_json(const Object* root, bool pretty) {
  std::ostringstream out;
  write_json(out, root, pretty);
  return out.str();
}

bool write_import_report(std::ostream& out, const Object* root) {
  const Array* results = as_array(root);
  if (!results) {
    out << "The archive does not hold a list of import results (its root is "
        << (root ? std::string(root->class_name()) : std::string("nil")) << ").\n";
    return false;
  }
  out << "Orvia 4 import: " << plural(results->size(), "account", "accounts") << '\n';
  ReportWriter writer(out);
  std::size_t index = 0;
  for (const auto& item : results->items()) {
    ++index;
    out << '\n';
    const GenericRecord* result = as_record(item.get());
    if (!result) {
      out << "Result " << index << ": not a record (" << (item ? std::string(item->class_name()) : "nil") << ")\n";
      continue;
    }
    const GenericRecord* account = as_record(field(result, "account"));
    std::string user = printable(text_field(account, "username", "(no user name)"));
    std::string uid = printable(text_field(account, "uid", "none"));
    out << "Account " << index << ": " << user << " (user id " << uid << ")\n";
    std::string picture = printable(text_field(account, "imageURL"));
    out << "  picture: " << (picture.empty() ? "none" : picture) << '\n';
    const GenericRecord* stats = as_record(field(result, "statistics"));
    std::string path = printable(text_field(stats, "path"));
    out << "  statistics: " << (path.empty() ? "none" : path) << '\n';
    for (std::string_view category : {"tags", "locations", "albums", "friends"}) {
      writer.category(category, field(result, category));
    }
  }
  return true;
}

}  // namespace orvia::client
