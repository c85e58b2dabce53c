#include "support/gnustep_peer.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/value.h"
#include "support/support.h"

extern char** environ;

namespace fs = std::filesystem;
using nlohmann::json;

namespace orvia::test {
namespace {

fs::path peer_program() {
  if (const char* env = std::getenv("ORVIA_GNUSTEP_PEER"); env && *env) return env;
  return fs::path(ORVIA_BINARY_DIR) / "tests" / "gnustep" / "gnustep-peer";
}

struct SpawnActions {
  posix_spawn_file_actions_t actions;
  SpawnActions() { posix_spawn_file_actions_init(&actions); }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
};

// Runs the peer with its output in files of `dir`; an Error unless it exits with status 0.
Result<std::string> run_peer(const std::vector<std::string>& args, const fs::path& dir) {
  const std::string program = peer_program().string();
  const std::string out_path = (dir / "stdout").string();
  const std::string err_path = (dir / "stderr").string();
  SpawnActions fa;
  posix_spawn_file_actions_addopen(&fa.actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa.actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&fa.actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (int rc = posix_spawn(&pid, program.c_str(), &fa.actions, nullptr, argv.data(), environ); rc != 0) {
    return Error{"cannot start " + program + ": " + std::strerror(rc)};
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return Error{std::string("waitpid: ") + std::strerror(errno)};
  }
  std::string out, err;
  try {
    out = read_file(out_path);
    err = read_file(err_path);
  } catch (const std::exception& e) {
    return Error{e.what()};
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return Error{"gnustep-peer failed (status " + std::to_string(status) + "): " + err};
  }
  return out;
}

json real_json(double d) {
  if (std::isnan(d)) return {{"$real", "nan"}};
  if (std::isinf(d)) return {{"$real", d > 0 ? "inf" : "-inf"}};
  return {{"$real", d}};
}

std::string hex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

// The JSON of a value without identity; nothing for containers and records.
std::optional<json> leaf_json(const Object* o) {
  if (!o) return json(nullptr);
  switch (o->kind()) {
    case ObjectKind::String: {
      const auto* s = static_cast<const String*>(o);
      if (s->is_mutable()) return json{{"$mstring", s->str()}};
      return json(s->str());
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
    case ObjectKind::Date: {
      double t = static_cast<const Date*>(o)->time();
      json r = real_json(t);
      return json{{"$date", r["$real"]}};
    }
    case ObjectKind::Data: {
      const auto* d = static_cast<const Data*>(o);
      return json{{d->is_mutable() ? "$mdata" : "$data", hex(d->bytes())}};
    }
    case ObjectKind::Null: return json{{"$null", true}};
    default: return std::nullopt;
  }
}

std::string text_of_json(const json& j) { return j.dump(-1, ' ', false, json::error_handler_t::replace); }

// Gathers the keys a record writes.
class CollectingEncoder final : public KeyedEncoder {
 public:
  struct Field {
    std::string key;
    const Object* obj;  // for objects
    json scalar;        // for integers, booleans and doubles
    bool is_scalar;
  };
  std::vector<Field> fields;

  void encode_object(std::string_view key, const Object* obj) override {
    fields.push_back({std::string(key), obj, nullptr, false});
  }
  void encode_int64(std::string_view key, std::int64_t value) override {
    fields.push_back({std::string(key), nullptr, json(value), true});
  }
  void encode_bool(std::string_view key, bool value) override {
    fields.push_back({std::string(key), nullptr, json(value), true});
  }
  void encode_double(std::string_view key, double value) override {
    fields.push_back({std::string(key), nullptr, real_json(value), true});
  }
  void encode_object_stream(std::string_view key, const std::function<void(const ObjectSink&)>& produce) override {
    auto list = make<Array>(false);  // gathered whole: the peer's records are small
    produce(ObjectSinkOf([&](const Ref<Object>& item) { list->push_back(item); }));
    fields.push_back({std::string(key), list.get(), nullptr, false});
    lists_.push_back(std::move(list));
  }

 private:
  std::vector<Ref<Array>> lists_;
};

enum class Place { Top, Items, Entries, Pairs, Record };

struct Child {
  Child(std::string k, const Object* o, int pair_side = 0) : key(std::move(k)), obj(o), side(pair_side) {}
  Child(std::string k, json value) : key(std::move(k)), scalar(std::move(value)) {}
  std::string key;             // entry or record key
  const Object* obj = nullptr;
  std::optional<json> scalar;  // already made (a record's integer, boolean or double)
  int side = 0;                // in a pair: 0 key, 1 value
};

struct Frame {
  json node;
  Place place = Place::Top;
  bool is_set = false;
  std::vector<Child> children;
  std::size_t next = 0;
};

void put(Frame& f, const Child& c, json value) {
  switch (f.place) {
    case Place::Top: f.node = std::move(value); break;
    case Place::Items: f.node["$items"].push_back(std::move(value)); break;
    case Place::Entries: f.node["$entries"][c.key] = std::move(value); break;
    case Place::Record: f.node[c.key] = std::move(value); break;
    case Place::Pairs:
      if (c.side == 0) f.node["$pairs"].push_back(json::array({std::move(value)}));
      else f.node["$pairs"].back().push_back(std::move(value));
      break;
  }
}

void sort_items_by_text(json& items) {
  std::vector<std::pair<std::string, json>> keyed;
  for (json& item : items) keyed.emplace_back(text_of_json(item), std::move(item));
  std::stable_sort(keyed.begin(), keyed.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  items = json::array();
  for (auto& [text, item] : keyed) items.push_back(std::move(item));
}

Frame open(const Object* o, std::int64_t id) {
  Frame f;
  f.node = {{"$id", id}, {"$class", std::string(o->class_name())}};
  if (const Array* a = as_array(o)) {
    f.place = Place::Items;
    f.node["$items"] = json::array();
    for (const Ref<Object>& item : a->items()) f.children.emplace_back(std::string(), item.get());
  } else if (const Set* s = as_set(o)) {
    f.place = Place::Items;
    f.is_set = true;
    f.node["$items"] = json::array();
    for (const Ref<Object>& item : s->items()) f.children.emplace_back(std::string(), item.get());
  } else if (const Dictionary* d = as_dict(o)) {
    bool all_strings = std::all_of(d->entries().begin(), d->entries().end(),
                                   [](const Dictionary::Entry& e) { return as_string(e.first.get()) != nullptr; });
    if (all_strings) {
      f.place = Place::Entries;
      f.node["$entries"] = json::object();
      for (const auto& [k, v] : d->entries()) f.children.emplace_back(as_string(k.get())->str(), v.get());
      std::stable_sort(f.children.begin(), f.children.end(),
                       [](const Child& a, const Child& b) { return a.key < b.key; });
    } else {
      f.place = Place::Pairs;
      f.node["$pairs"] = json::array();
      std::vector<std::pair<std::string, const Dictionary::Entry*>> order;
      for (const auto& e : d->entries()) {
        std::optional<json> key = leaf_json(e.first.get());
        order.emplace_back(key ? text_of_json(*key) : std::string(), &e);
      }
      std::stable_sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
      for (const auto& [text, e] : order) {
        f.children.emplace_back(std::string(), e->first.get(), 0);
        f.children.emplace_back(std::string(), e->second.get(), 1);
      }
    }
  } else if (const auto* g = dynamic_cast<const GenericRecord*>(o)) {
    f.place = Place::Record;
    for (const GenericRecord::Field& field : g->fields()) f.children.emplace_back(field.key, field.value.get());
  } else if (const auto* r = dynamic_cast<const Record*>(o)) {
    f.place = Place::Record;
    CollectingEncoder coder;
    r->encode_with_coder(coder);
    for (CollectingEncoder::Field& field : coder.fields) {
      if (field.is_scalar) f.children.emplace_back(field.key, std::move(field.scalar));
      else f.children.emplace_back(field.key, field.obj);
    }
  }
  if (f.place == Place::Record) {
    std::stable_sort(f.children.begin(), f.children.end(), [](const Child& a, const Child& b) { return a.key < b.key; });
  }
  return f;
}

}  // namespace

bool gnustep_available() { return access(peer_program().c_str(), X_OK) == 0; }

Result<json> decode_with_gnustep(std::string_view archive) {
  try {
    TempDir dir;
    write_file(dir / "archive", std::string(archive));
    Result<std::string> out = run_peer({"decode", (dir / "archive").string()}, dir.path());
    if (!out) return out.error();
    json dump = json::parse(out.value());
    sort_set_members(dump);
    return dump;
  } catch (const std::exception& e) {
    return Error{std::string("decode_with_gnustep: ") + e.what()};
  }
}

Result<std::string> encode_with_gnustep(const json& graph, ArchiveFormat format) {
  try {
    TempDir dir;
    write_file(dir / "graph.json", graph.dump());
    std::vector<std::string> args = {"encode"};
    if (format == ArchiveFormat::Xml) args.push_back("--xml");
    args.push_back((dir / "graph.json").string());
    args.push_back((dir / "archive").string());
    Result<std::string> out = run_peer(args, dir.path());
    if (!out) return out.error();
    return read_file(dir / "archive");
  } catch (const std::exception& e) {
    return Error{std::string("encode_with_gnustep: ") + e.what()};
  }
}

json dump_like_gnustep(const Object* root) {
  std::unordered_map<const Object*, std::int64_t> ids;
  std::int64_t next_id = 1;
  std::vector<Frame> stack(1);
  stack.back().children.emplace_back(std::string(), root);
  for (;;) {
    Frame& f = stack.back();
    if (f.next == f.children.size()) {
      if (f.is_set) sort_items_by_text(f.node["$items"]);
      json done = std::move(f.node);
      stack.pop_back();
      if (stack.empty()) return done;
      Frame& parent = stack.back();
      put(parent, parent.children[parent.next - 1], std::move(done));
      continue;
    }
    const Child& c = f.children[f.next++];
    if (c.scalar) {
      put(f, c, *c.scalar);
      continue;
    }
    if (std::optional<json> leaf = leaf_json(c.obj)) {
      put(f, c, std::move(*leaf));
      continue;
    }
    if (auto it = ids.find(c.obj); it != ids.end()) {
      put(f, c, json{{"$ref", it->second}});
      continue;
    }
    ids.emplace(c.obj, next_id);
    Frame child = open(c.obj, next_id++);
    stack.push_back(std::move(child));  // f and c are not used after this
  }
}

void sort_set_members(json& dump) {
  std::vector<json*> todo{&dump};
  while (!todo.empty()) {
    json* j = todo.back();
    todo.pop_back();
    if (j->is_object()) {
      auto cls = j->find("$class");
      auto items = j->find("$items");
      if (cls != j->end() && items != j->end() && items->is_array() &&
          (*cls == "NSSet" || *cls == "NSMutableSet")) {
        sort_items_by_text(*items);
      }
      for (auto& [key, value] : j->items()) todo.push_back(&value);
    } else if (j->is_array()) {
      for (json& value : *j) todo.push_back(&value);
    }
  }
}

std::string json_text(const json& dump) { return dump.dump(1, ' ', false, json::error_handler_t::replace); }

}  // namespace orvia::test
