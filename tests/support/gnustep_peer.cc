#include "support/gnustep_peer.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/value.h"
#include "support/private_bus.h"
#include "support/support.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace orvia::test {
namespace {

fs::path peer_program() {
  if (const char* env = std::getenv("ORVIA_GNUSTEP_PEER"); env && *env) return env;
  return fs::path(ORVIA_BINARY_DIR) / "tests" / "gnustep" / "gnustep-peer";
}

json real_json(double d) {
  if (std::isnan(d)) return {{"$real", "nan"}};
  if (std::isinf(d)) return {{"$real", d > 0 ? "inf" : "-inf"}};
  return {{"$real", d}};
}

std::string text_of_json(const json& j) { return j.dump(-1, ' ', false, json::error_handler_t::replace); }

std::string real_text(const json& j) {
  if (j.is_string()) return j.get<std::string>();
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.17g", j.get<double>());
  return buf;
}

// The peer's form of a graph: every scalar as tagged text (see peer/peer.h), and back.
json tagged(const json& j) {
  if (j.is_boolean()) return {{"$bool", j.get<bool>() ? "true" : "false"}};
  if (j.is_number_unsigned()) return {{"$int", std::to_string(j.get<std::uint64_t>())}};
  if (j.is_number_integer()) return {{"$int", std::to_string(j.get<std::int64_t>())}};
  if (j.is_number_float()) return {{"$real", real_text(j)}};
  if (!j.is_structured()) return j;
  json out = j;
  for (auto& [key, value] : out.items())
    value = (key == "$real" || key == "$date") && j.is_object() ? json(real_text(value)) : tagged(value);
  return out;
}

void untag(json& j) {
  if (j.is_object() && j.size() == 1 && j.begin().value().is_string()) {
    const std::string key = j.begin().key(), text = j.begin().value();
    if (key == "$int") j = text[0] == '-' ? json(std::stoll(text)) : json(std::stoull(text));
    if (key == "$bool") j = text == "true";
    if (key == "$null") j = {{"$null", true}};
    if (key == "$real" || key == "$date") j = {{key, real_json(std::strtod(text.c_str(), nullptr))["$real"]}};
    if (!j.is_object() || j.size() != 1 || key != j.begin().key() || !j.begin().value().is_string()) return;
  }
  if (j.is_structured())
    for (auto& [key, value] : j.items()) untag(value);
}

std::string hex(const std::string& bytes) {
  std::string out;
  for (unsigned char c : bytes) out += "0123456789abcdef"[c >> 4], out += "0123456789abcdef"[c & 15];
  return out;
}

// The JSON of a value without identity; nothing for containers and records.
std::optional<json> leaf_json(const Object* o) {
  if (!o) return json(nullptr);
  switch (o->kind()) {
    case ObjectKind::String: {
      const auto* s = static_cast<const String*>(o);
      return s->is_mutable() ? json{{"$mstring", s->str()}} : json(s->str());
    }
    case ObjectKind::Number: {
      const auto* n = static_cast<const Number*>(o);
      switch (n->type()) {
        case Number::Type::Boolean: return json(n->bool_value());
        case Number::Type::Real: return real_json(n->real_value());
        case Number::Type::Unsigned: return json(n->uint_value());
        case Number::Type::Signed: return json(n->int_value());
      }
      return json(n->int_value());
    }
    case ObjectKind::Date: return json{{"$date", real_json(static_cast<const Date*>(o)->time())["$real"]}};
    case ObjectKind::Data: {
      const auto* d = static_cast<const Data*>(o);
      return json{{d->is_mutable() ? "$mdata" : "$data", hex(d->bytes())}};
    }
    case ObjectKind::Null: return json{{"$null", true}};
    default: return std::nullopt;
  }
}

// Gathers the keys a record writes: objects, or integers, booleans and doubles as JSON.
class CollectingEncoder final : public KeyedEncoder {
 public:
  std::vector<std::pair<std::string, std::variant<const Object*, json>>> fields;

  void encode_object(std::string_view key, const Object* obj) override { fields.emplace_back(key, obj); }
  void encode_int64(std::string_view key, std::int64_t value) override { fields.emplace_back(key, json(value)); }
  void encode_bool(std::string_view key, bool value) override { fields.emplace_back(key, json(value)); }
  void encode_double(std::string_view key, double value) override { fields.emplace_back(key, real_json(value)); }
  void encode_object_stream(std::string_view key, const std::function<void(const ObjectSink&)>& produce) override {
    auto list = make<Array>(false);  // gathered whole: the peer's records are small
    produce(ObjectSinkOf([&](const Ref<Object>& item) { list->push_back(item); }));
    fields.emplace_back(key, list.get());
    lists_.push_back(std::move(list));
  }

 private:
  std::vector<Ref<Array>> lists_;
};

void sort_items_by_text(json& items) {
  std::stable_sort(items.begin(), items.end(),
                   [](const json& a, const json& b) { return text_of_json(a) < text_of_json(b); });
}

class Dumper {
 public:
  json dump(const Object* o) {
    if (std::optional<json> leaf = leaf_json(o)) return *leaf;
    if (auto it = ids_.find(o); it != ids_.end()) return {{"$ref", it->second}};
    const std::int64_t id = static_cast<std::int64_t>(ids_.size()) + 1;
    ids_.emplace(o, id);
    json out = {{"$id", id}, {"$class", std::string(o->class_name())}};
    if (as_array(o) || as_set(o)) {
      out["$items"] = json::array();
      for (const Ref<Object>& item : as_array(o) ? as_array(o)->items() : as_set(o)->items())
        out["$items"].push_back(dump(item.get()));
      if (as_set(o)) sort_items_by_text(out["$items"]);
    } else if (const Dictionary* d = as_dict(o)) {
      // String keys: entries in byte order of the keys; else pairs in order of the keys' JSON text.
      const bool strings = std::all_of(d->entries().begin(), d->entries().end(),
                                       [](const Dictionary::Entry& e) { return as_string(e.first.get()) != nullptr; });
      std::vector<std::pair<std::string, const Dictionary::Entry*>> order;
      for (const auto& e : d->entries())
        order.emplace_back(strings ? as_string(e.first.get())->str() : text_of_json(leaf_json(e.first.get()).value_or(json())), &e);
      std::stable_sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
      out[strings ? "$entries" : "$pairs"] = strings ? json::object() : json::array();
      for (const auto& [text, e] : order) {
        if (strings) {
          out["$entries"][text] = dump(e->second.get());
        } else {
          json key = dump(e->first.get());
          out["$pairs"].push_back({std::move(key), dump(e->second.get())});
        }
      }
    } else if (const auto* r = dynamic_cast<const Record*>(o)) {
      CollectingEncoder coder;
      if (const auto* g = dynamic_cast<const GenericRecord*>(o)) {
        for (const GenericRecord::Field& f : g->fields()) coder.fields.emplace_back(f.key, f.value.get());
      } else {
        r->encode_with_coder(coder);
      }
      std::stable_sort(coder.fields.begin(), coder.fields.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
      for (auto& [key, value] : coder.fields)
        out[key] = value.index() == 0 ? dump(std::get<0>(value)) : std::get<1>(value);
    }
    return out;
  }

 private:
  std::unordered_map<const Object*, std::int64_t> ids_;
};

// Runs the peer; its output, or an Error with its message unless it exits with status 0.
Result<std::string> run_peer(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {peer_program().string()};
  argv.insert(argv.end(), args.begin(), args.end());
  ProgramRun run = run_program(argv);
  if (run.status != 0) return Error{"gnustep-peer failed (status " + std::to_string(run.status) + "): " + run.err};
  return run.out;
}

}  // namespace

bool gnustep_available() { return access(peer_program().c_str(), X_OK) == 0; }

Result<json> decode_with_gnustep(std::string_view archive) {
  try {
    TempDir dir;
    write_file(dir / "archive", std::string(archive));
    Result<std::string> out = run_peer({"decode", (dir / "archive").string()});
    if (!out) return out.error();
    json dump = json::parse(out.value()).at(0);
    untag(dump);
    sort_set_members(dump);
    return dump;
  } catch (const std::exception& e) {
    return Error{std::string("decode_with_gnustep: ") + e.what()};
  }
}

Result<std::string> encode_with_gnustep(const json& graph, ArchiveFormat format) {
  try {
    TempDir dir;
    write_file(dir / "graph.json", tagged(graph).dump());
    std::vector<std::string> args = {"encode", (dir / "graph.json").string(), (dir / "archive").string()};
    if (format == ArchiveFormat::Xml) args.insert(args.begin() + 1, "--xml");
    Result<std::string> out = run_peer(args);
    if (!out) return out.error();
    return read_file(dir / "archive");
  } catch (const std::exception& e) {
    return Error{std::string("encode_with_gnustep: ") + e.what()};
  }
}

json dump_like_gnustep(const Object* root) { return Dumper().dump(root); }

void sort_set_members(json& dump) {
  if (dump.is_object() && (dump.value("$class", "") == "NSSet" || dump.value("$class", "") == "NSMutableSet") &&
      dump.contains("$items"))
    sort_items_by_text(dump["$items"]);
  if (dump.is_structured())
    for (auto& [key, value] : dump.items()) sort_set_members(value);
}

std::string json_text(const json& dump) { return dump.dump(1, ' ', false, json::error_handler_t::replace); }

}  // namespace orvia::test
