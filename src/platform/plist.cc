#include "platform/plist.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>
#include <plist/plist.h>

#include "platform/bplist_format.h"
#include "platform/prefault.h"
#include "platform/xml_nesting.h"

namespace orvia {
namespace {

using bplist::Item;
using bplist::Type;

// Text from libplist as a string value. libplist passes ill-formed UTF-8 through; strings hold
// well-formed UTF-8, so those bytes read as U+FFFD, as the binary reader reads them.
Ref<String> string_from_libplist(std::string s) {
  std::string utf16;
  std::uint64_t units = 0;
  if (!bplist::utf8_to_utf16be(s, utf16, units)) return make<String>(std::move(s));  // ASCII
  std::string repaired;
  bplist::utf16be_to_utf8(utf16, repaired);
  return make<String>(std::move(repaired));
}

// A UID outside a keyed archive is read the way the XML form writes it: {"CF$UID": n}.
Ref<Object> uid_dictionary(std::uint64_t v) {
  static String* const key = immortal(str("CF$UID")).get();  // one immutable key for every such dictionary
  auto d = make<Dictionary>(false);
  d->reserve(1);
  d->append(Ref<Object>(key), Number::from_uint(v));
  return d;
}

Ref<Object> scalar_object(const bplist::View& view, const Item& it) {
  switch (it.type) {
    case Type::Null:
      return Null::shared();
    case Type::Bool:
      return Number::from_bool(it.flag);
    case Type::Int:
      if (it.flag) return Number::from_uint(it.scalar);  // 16-byte: the low 8 bytes, unsigned
      return Number::from_int(static_cast<std::int64_t>(it.scalar));
    case Type::Real:
      return Number::from_real(view.real(it));
    case Type::Date:
      return make<Date>(view.real(it));
    case Type::Data: {
      const std::string_view raw = view.raw(it);
      std::string bytes;
      if (raw.size() >= kPrefaultMinimum) {  // a large block (a sidebar's archive) made resident in one call
        bytes.reserve(raw.size());
        prefault(bytes.data(), raw.size());
      }
      bytes.append(raw);
      return make<Data>(std::move(bytes));
    }
    case Type::AsciiString:
    case Type::Utf16String:
    case Type::Utf8String:
      return make<String>(view.text(it));
    case Type::Uid:
      return uid_dictionary(it.scalar);
    default:
      return nullptr;
  }
}

bool is_container(Type t) { return t == Type::Array || t == Type::Set || t == Type::Dict; }

}  // namespace

Result<Ref<Object>> read_binary_plist(std::string_view bytes) {
  auto opened = bplist::View::open(bytes);
  if (!opened) return opened.error();
  const bplist::View& view = opened.value();

  // Iterative walk. Objects the file shares are built once; a container reached again while it is
  // still being filled holds itself, which a property list cannot express.
  enum : std::uint8_t { kUnseen, kFilling, kDone };
  std::vector<std::uint8_t> state(view.size(), kUnseen);
  // Objects by index, not owned: a container is owned by its frame while it is filled, then by its
  // parent, which takes it over from `finished` (so reading costs no reference counting per object).
  std::vector<Object*> built(view.size(), nullptr);
  struct Frame {
    std::uint64_t index;
    Item item;
    std::uint64_t next = 0;
    Ref<Object> owner;
    Ref<Object> pending_key;  // a dictionary's key, resolved while its value is being built
  };
  std::vector<Frame> stack;
  Ref<Object> finished;  // the container completed last, until its parent takes it

  // Resolves object `index`: builds scalars at once, starts containers (returns false then).
  auto resolve = [&](std::uint64_t index, Ref<Object>& out) -> Result<bool> {
    if (state[index] == kDone) {
      if (finished.get() == built[index]) {
        out = std::move(finished);
      } else {
        out = Ref<Object>(built[index]);
      }
      return true;
    }
    if (state[index] == kFilling) return Error{fmt::format("bplist: container {} holds itself", index)};
    auto it = view.item(index);
    if (!it) return it.error();
    if (!is_container(it->type)) {
      out = scalar_object(view, it.value());
      built[index] = out.get();
      state[index] = kDone;
      return true;
    }
    // Sized for the entries the file lists (bounded by the file: each takes at least one byte).
    Ref<Object> container;
    const std::size_t entries = static_cast<std::size_t>(it->count);
    if (it->type == Type::Dict) {
      auto d = make<Dictionary>(false);
      d->reserve(entries);
      container = std::move(d);
    } else if (it->type == Type::Set) {
      auto set = make<Set>(false);
      set->mutable_items().reserve(entries);
      container = std::move(set);
    } else {
      auto a = make<Array>(false);
      a->mutable_items().reserve(entries);
      container = std::move(a);
    }
    built[index] = container.get();
    state[index] = kFilling;
    stack.push_back(Frame{index, it.value(), 0, std::move(container), nullptr});
    return false;
  };

  Ref<Object> root;
  {
    auto r = resolve(view.top(), root);
    if (!r) return r.error();
  }
  while (!stack.empty()) {
    Frame& f = stack.back();
    Object* container = f.owner.get();
    if (f.next == f.item.count) {
      state[f.index] = kDone;
      finished = std::move(f.owner);
      stack.pop_back();
      continue;
    }
    if (f.item.type == Type::Dict) {
      auto kref = view.ref(f.item, f.next);
      if (!kref) return kref.error();
      auto vref = view.ref(f.item, f.item.count + f.next);
      if (!vref) return vref.error();
      const std::size_t at = stack.size() - 1;  // `f` moves when a child container is started
      Ref<Object> key, value;
      if (f.pending_key) {
        key = std::move(f.pending_key);
      } else {
        auto rk = resolve(kref.value(), key);
        if (!rk) return rk.error();
        if (!rk.value()) continue;  // the key is a container being built first
      }
      auto rv = resolve(vref.value(), value);
      if (!rv) return rv.error();
      if (!rv.value()) {  // the value is built first; the key waits in its frame
        stack[at].pending_key = std::move(key);
        continue;
      }
      if (!as_string(key.get())) return Error{fmt::format("bplist: dictionary {} has a key that is not a string", f.index)};
      static_cast<Dictionary*>(container)->append(std::move(key), std::move(value));
      ++stack[stack.size() - 1].next;
    } else {
      auto ref = view.ref(f.item, f.next);
      if (!ref) return ref.error();
      Ref<Object> child;
      auto rc = resolve(ref.value(), child);
      if (!rc) return rc.error();
      if (!rc.value()) continue;
      if (f.item.type == Type::Set) {
        static_cast<Set*>(container)->mutable_items().push_back(std::move(child));
      } else {
        static_cast<Array*>(container)->push_back(std::move(child));
      }
      ++f.next;
    }
  }
  if (!root) root = std::move(finished);  // the top object is a container
  return root;
}

Result<std::string> write_binary_plist(const Object* root) {
  if (!root) return Error{"plist: nil cannot be written"};
  bplist::Builder b;
  // Containers are written once even when shared; a container inside itself cannot be written.
  std::unordered_map<const Object*, std::uint32_t> done;
  std::unordered_map<const Object*, bool> filling;
  struct Frame {
    const Object* obj;
    std::uint32_t index;
    std::size_t next = 0;
    std::vector<std::uint32_t> keys, values;
  };
  std::vector<Frame> stack;

  auto add = [&](const Object* o, std::uint32_t& out) -> Result<bool> {
    if (!o) return Error{"plist: nil inside a container"};
    switch (o->kind()) {
      case ObjectKind::String:
        out = b.add_string(as_string(o)->str());
        return true;
      case ObjectKind::Number: {
        const Number* n = as_number(o);
        switch (n->type()) {
          case Number::Type::Boolean:
            out = b.add_bool(n->bool_value());
            break;
          case Number::Type::Real:
            out = b.add_real(n->real_value());
            break;
          case Number::Type::Unsigned:
            out = b.add_uint(n->uint_value());
            break;
          case Number::Type::Signed:
            out = b.add_int(n->int_value());
            break;
        }
        return true;
      }
      case ObjectKind::Date:
        out = b.add_date(as_date(o)->time());
        return true;
      case ObjectKind::Data:
        out = b.add_data(as_data(o)->bytes());
        return true;
      case ObjectKind::Null:
        return Error{"plist: NSNull cannot be written in a property list"};
      case ObjectKind::Record:
        return Error{fmt::format("plist: a {} cannot be written in a property list", o->class_name())};
      default: {
        if (auto it = done.find(o); it != done.end()) {
          out = it->second;
          return true;
        }
        if (filling.count(o)) return Error{"plist: a container holds itself"};
        filling[o] = true;
        out = b.reserve();
        stack.push_back(Frame{o, out, 0, {}, {}});
        return false;
      }
    }
  };

  std::uint32_t top = 0;
  if (auto r = add(root, top); !r) return r.error();
  while (!stack.empty()) {
    Frame& f = stack.back();
    const Object* o = f.obj;
    std::size_t n = 0;
    if (const Array* a = as_array(o)) n = a->size();
    if (const Set* s = as_set(o)) n = s->items().size();
    if (const Dictionary* d = as_dict(o)) n = d->size();
    if (f.next == n) {
      if (const Dictionary* d = as_dict(o)) {
        (void)d;
        b.set_dict(f.index, f.keys.data(), f.values.data(), f.keys.size());
      } else {
        b.set_array(f.index, f.keys.data(), f.keys.size(), o->kind() == ObjectKind::Set);
      }
      done[o] = f.index;
      filling.erase(o);
      stack.pop_back();
      continue;
    }
    std::uint32_t ref = 0;
    if (const Dictionary* d = as_dict(o)) {
      // Keys are strings; write key and value of one entry before moving on.
      const auto& e = d->entries()[f.next];
      if (f.keys.size() == f.next) {
        if (!as_string(e.first.get())) return Error{"plist: dictionary key is not a string"};
        f.keys.push_back(b.add_string(as_string(e.first.get())->str()));
      }
      auto r = add(e.second.get(), ref);
      if (!r) return r.error();
      if (!r.value()) continue;
      Frame& g = stack[&f - stack.data()];
      g.values.push_back(ref);
      ++g.next;
    } else {
      const auto& items = o->kind() == ObjectKind::Array ? as_array(o)->items() : as_set(o)->items();
      std::size_t pos = &f - stack.data();
      auto r = add(items[f.next].get(), ref);
      if (!r) return r.error();
      if (!r.value()) continue;
      stack[pos].keys.push_back(ref);
      ++stack[pos].next;
    }
  }
  return b.write(top);
}

// ---------------------------------------------------------------------------------------------------
// XML through libplist

namespace {

struct PlistFree {
  void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

struct MallocFree {
  void operator()(char* p) const { free(p); }
};

// libplist trees from XML are trees (no sharing), but can be deep: walk with a stack.
Result<Ref<Object>> from_libplist(plist_t root) {
  struct Frame {
    plist_t node;
    Ref<Object> obj;
    uint32_t next = 0;
    uint32_t size = 0;
    plist_dict_iter iter = nullptr;
  };
  auto leaf = [](plist_t n) -> Ref<Object> {
    switch (plist_get_node_type(n)) {
      case PLIST_BOOLEAN: {
        uint8_t v = 0;
        plist_get_bool_val(n, &v);
        return Number::from_bool(v != 0);
      }
      case PLIST_UINT: {
        uint64_t v = 0;
        plist_get_uint_val(n, &v);
        // libplist keeps negative integers in the same node, marked by a length of 16 bytes.
        uint64_t len = 0;
        const char* raw = plist_get_data_ptr(n, &len);
        (void)raw;
        return Number::from_int(static_cast<int64_t>(v));
      }
      case PLIST_REAL: {
        double v = 0;
        plist_get_real_val(n, &v);
        return Number::from_real(v);
      }
      case PLIST_STRING: {
        // By pointer and length: plist_get_string_val asserts (ending the process) when the text holds
        // a NUL byte. The text ends at the NUL, as libplist writes it (what follows is not kept).
        uint64_t len = 0;
        const char* s = plist_get_string_ptr(n, &len);
        return string_from_libplist(s ? std::string(s, strnlen(s, len)) : std::string());
      }
      case PLIST_DATA: {
        char* d = nullptr;
        uint64_t len = 0;
        plist_get_data_val(n, &d, &len);
        std::unique_ptr<char, MallocFree> own(d);
        return make<Data>(std::string(d ? d : "", d ? len : 0));
      }
      case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(n, &sec, &usec);
        return make<Date>(static_cast<double>(sec) + static_cast<double>(usec) / 1e6);
      }
      case PLIST_UID: {
        uint64_t v = 0;
        plist_get_uid_val(n, &v);
        return uid_dictionary(v);
      }
      default:
        return nullptr;
    }
  };
  auto start = [&](plist_t n, std::vector<Frame>& stack) -> Ref<Object> {
    plist_type t = plist_get_node_type(n);
    if (t == PLIST_ARRAY) {
      auto a = make<Array>(false);
      stack.push_back(Frame{n, a, 0, plist_array_get_size(n)});
      return a;
    }
    if (t == PLIST_DICT) {
      auto d = make<Dictionary>(false);
      Frame f{n, d, 0, plist_dict_get_size(n)};
      plist_dict_new_iter(n, &f.iter);
      stack.push_back(f);
      return d;
    }
    return leaf(n);
  };
  std::vector<Frame> stack;
  Ref<Object> top = start(root, stack);
  if (!top) return Error{"plist: unsupported value in XML"};
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (f.next >= f.size) {
      if (f.iter) free(f.iter);
      stack.pop_back();
      continue;
    }
    ++f.next;
    if (plist_get_node_type(f.node) == PLIST_ARRAY) {
      plist_t child = plist_array_get_item(f.node, f.next - 1);
      Array* a = static_cast<Array*>(f.obj.get());
      Ref<Object> c = start(child, stack);
      if (!c) return Error{"plist: unsupported value in XML"};
      a->push_back(std::move(c));
    } else {
      char* key = nullptr;
      plist_t child = nullptr;
      plist_dict_next_item(f.node, f.iter, &key, &child);
      std::unique_ptr<char, MallocFree> own(key);
      if (!child) continue;
      Dictionary* d = static_cast<Dictionary*>(f.obj.get());
      Ref<Object> c = start(child, stack);
      if (!c) return Error{"plist: unsupported value in XML"};
      d->append(string_from_libplist(key ? key : ""), std::move(c));
    }
  }
  return top;
}

}  // namespace

Result<Ref<Object>> read_xml_plist(std::string_view bytes) {
  if (bytes.size() > UINT32_MAX) return Error{"plist: XML too large"};
  // libplist frees its trees recursively: a deeper text would end the process on a full stack.
  if (xml_nesting_exceeds(bytes)) return Error{"plist: XML nested deeper than the reader takes"};
  plist_t root = nullptr;
  plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  if (!root) return Error{"plist: not a well-formed XML property list"};
  PlistPtr own(root);
  return from_libplist(root);
}

Result<std::string> write_xml_plist(const Object* root) {
  // Through our binary form, then libplist's converter: one writer of our own to keep right.
  auto bin = write_binary_plist(root);
  if (!bin) return bin.error();
  plist_t p = nullptr;
  plist_from_bin(bin->data(), static_cast<uint32_t>(bin->size()), &p);
  if (!p) return Error{"plist: libplist could not read the binary form"};
  PlistPtr own(p);
  char* xml = nullptr;
  uint32_t len = 0;
  plist_to_xml(p, &xml, &len);
  if (!xml) return Error{"plist: libplist could not write XML"};
  std::unique_ptr<char, MallocFree> xml_own(xml);
  return std::string(xml, len);
}

Result<Ref<Object>> read_property_list(std::string_view bytes) {
  if (bytes.size() >= 8 && bytes.substr(0, 6) == "bplist") return read_binary_plist(bytes);
  std::string_view rest = bytes;
  if (rest.substr(0, 3) == "\xEF\xBB\xBF") rest.remove_prefix(3);
  while (!rest.empty() && (rest[0] == ' ' || rest[0] == '\n' || rest[0] == '\r' || rest[0] == '\t')) rest.remove_prefix(1);
  if (rest.substr(0, 5) == "<?xml" || rest.substr(0, 6) == "<plist" || rest.substr(0, 9) == "<!DOCTYPE")
    return read_xml_plist(bytes);
  return Error{"plist: neither a binary nor an XML property list"};
}

Result<Ref<Object>> read_property_list_file(const std::string& path) {
  struct File {
    int fd;
    ~File() {
      if (fd >= 0) ::close(fd);
    }
  } file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  const int fd = file.fd;
  if (fd < 0) return Error{fmt::format("plist: cannot open {}", path)};
  // A regular file is read at once into a block of its size, made resident in one call rather than
  // page by page (a preferences file can be tens of megabytes); anything else, or a file that grew
  // meanwhile, is read on to its end.
  std::unique_ptr<char[]> block;
  std::size_t capacity = 0, done = 0;
  struct stat st {};
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
    capacity = static_cast<std::size_t>(st.st_size);
    block = std::make_unique_for_overwrite<char[]>(capacity);
    if (capacity >= kPrefaultMinimum) prefault(block.get(), capacity);
  }
  for (;;) {
    if (done == capacity) {
      // Full: the end is looked for in a small buffer first, so that a file read whole is not copied
      // into a larger block only to find that nothing follows.
      char more[4096];
      const ssize_t n = ::read(fd, more, sizeof more);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return Error{fmt::format("plist: cannot read {}", path)};
      if (n == 0) break;
      capacity = done + static_cast<std::size_t>(n) + std::max<std::size_t>(65536, done / 2);
      auto grown = std::make_unique_for_overwrite<char[]>(capacity);
      if (done) std::memcpy(grown.get(), block.get(), done);
      std::memcpy(grown.get() + done, more, static_cast<std::size_t>(n));
      block = std::move(grown);
      done += static_cast<std::size_t>(n);
      continue;
    }
    const ssize_t n = ::read(fd, block.get() + done, capacity - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Error{fmt::format("plist: cannot read {}", path)};
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  return read_property_list(std::string_view(block.get(), done));
}

}  // namespace orvia
