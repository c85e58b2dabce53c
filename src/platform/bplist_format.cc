#include "platform/bplist_format.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <functional>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "platform/prefault.h"
#include "platform/queue.h"

namespace orvia::bplist {
namespace {

using detail::be;

constexpr std::size_t kTrailer = 32;

inline double bits_to_double(std::uint64_t b) {
  double d;
  std::memcpy(&d, &b, sizeof d);
  return d;
}
inline std::uint64_t double_to_bits(double d) {
  std::uint64_t b;
  std::memcpy(&b, &d, sizeof b);
  return b;
}

unsigned size_for(std::uint64_t max_value) {
  if (max_value <= 0xff) return 1;
  if (max_value <= 0xffff) return 2;
  if (max_value <= 0xffffffffull) return 4;
  return 8;
}

void append_utf8(std::string& out, std::uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xc0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xe0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3f)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
  } else {
    out.push_back(static_cast<char>(0xf0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3f)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3f)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
  }
}

// The code point of the well-formed UTF-8 sequence at s[i], advancing i past it; U+FFFD for an
// ill-formed one, advancing past its maximal valid prefix (at least one byte), as Unicode recommends.
// Overlong forms, surrogates and values above U+10FFFF are ill-formed.
std::uint32_t next_utf8(std::string_view s, std::size_t& i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = byte(i);
  if (c < 0x80) {
    ++i;
    return c;
  }
  std::size_t len;
  std::uint32_t cp;
  unsigned char lo = 0x80, hi = 0xbf;  // bounds of the second byte
  if (c >= 0xc2 && c <= 0xdf) {
    len = 2, cp = c & 0x1f;
  } else if (c >= 0xe0 && c <= 0xef) {
    len = 3, cp = c & 0x0f;
    if (c == 0xe0) lo = 0xa0;
    if (c == 0xed) hi = 0x9f;
  } else if (c >= 0xf0 && c <= 0xf4) {
    len = 4, cp = c & 0x07;
    if (c == 0xf0) lo = 0x90;
    if (c == 0xf4) hi = 0x8f;
  } else {
    ++i;
    return 0xfffd;
  }
  std::size_t k = 1;
  for (; k < len; ++k) {
    if (i + k >= s.size()) break;
    const unsigned char b = byte(i + k);
    if (k == 1 ? (b < lo || b > hi) : (b < 0x80 || b > 0xbf)) break;
    cp = (cp << 6) | (b & 0x3f);
  }
  i += k;
  return k == len ? cp : 0xfffd;
}

bool valid_utf8(std::string_view s) {
  for (std::size_t i = 0; i < s.size();) {
    if (static_cast<unsigned char>(s[i]) < 0x80) {
      ++i;
    } else if (next_utf8(s, i) == 0xfffd) {
      return false;  // or a real U+FFFD, which rebuilding leaves as it is
    }
  }
  return true;
}

}  // namespace

void utf16be_to_utf8(std::string_view be16, std::string& out) {
  const auto* p = reinterpret_cast<const unsigned char*>(be16.data());
  std::size_t n = be16.size() / 2;
  out.reserve(out.size() + n);
  for (std::size_t i = 0; i < n; ++i) {
    std::uint32_t u = (p[2 * i] << 8) | p[2 * i + 1];
    if (u >= 0xd800 && u <= 0xdbff && i + 1 < n) {
      std::uint32_t lo = (p[2 * i + 2] << 8) | p[2 * i + 3];
      if (lo >= 0xdc00 && lo <= 0xdfff) {
        append_utf8(out, 0x10000 + ((u - 0xd800) << 10) + (lo - 0xdc00));
        ++i;
        continue;
      }
    }
    if (u >= 0xd800 && u <= 0xdfff) u = 0xfffd;
    append_utf8(out, u);
  }
}

bool utf8_to_utf16be(std::string_view s, std::string& out, std::uint64_t& units) {
  std::size_t i = 0;
  while (i < s.size() && static_cast<unsigned char>(s[i]) < 0x80) ++i;
  if (i == s.size()) return false;
  units = 0;
  auto put = [&](std::uint32_t u) {
    out.push_back(static_cast<char>(u >> 8));
    out.push_back(static_cast<char>(u & 0xff));
    ++units;
  };
  for (i = 0; i < s.size();) {
    std::uint32_t cp = next_utf8(s, i);
    if (cp >= 0x10000) {
      cp -= 0x10000;
      put(0xd800 + (cp >> 10));
      put(0xdc00 + (cp & 0x3ff));
    } else {
      put(cp);
    }
  }
  return true;
}

// ---------------------------------------------------------------------------------------------------
// View

namespace {
// The first entry of an offset table of n entries of N bytes that lies outside [8, end); n when none.
template <unsigned N>
std::uint64_t first_offset_outside(const unsigned char* table, std::uint64_t n, std::uint64_t end) {
  for (std::uint64_t i = 0; i < n; ++i) {
    const std::uint64_t o = be(table + i * N, N);
    if (o < 8 || o >= end) return i;
  }
  return n;
}
}  // namespace

Result<View> View::open(std::string_view bytes) {
  if (bytes.size() < 8 + 1 + kTrailer) return Error{"bplist: file too short"};
  if (bytes.substr(0, 6) != "bplist") return Error{"bplist: missing bplist magic"};
  const auto* t = reinterpret_cast<const unsigned char*>(bytes.data() + bytes.size() - kTrailer);
  View v;
  v.bytes_ = bytes;
  v.offset_size_ = t[6];
  v.ref_size_ = t[7];
  v.num_objects_ = be(t + 8, 8);
  v.top_ = be(t + 16, 8);
  v.table_ = be(t + 24, 8);
  auto valid_size = [](unsigned s) { return s == 1 || s == 2 || s == 4 || s == 8; };
  if (!valid_size(v.offset_size_)) return Error{fmt::format("bplist: offset size {} invalid", v.offset_size_)};
  if (!valid_size(v.ref_size_)) return Error{fmt::format("bplist: reference size {} invalid", v.ref_size_)};
  if (v.num_objects_ < 1) return Error{"bplist: no objects"};
  if (v.top_ >= v.num_objects_) return Error{"bplist: top object beyond the object count"};
  std::uint64_t limit = bytes.size() - kTrailer;
  if (v.table_ < 9 || v.table_ > limit) return Error{"bplist: offset table outside the file"};
  if (v.num_objects_ > (limit - v.table_) / v.offset_size_) return Error{"bplist: object count exceeds the offset table"};
  if (v.ref_size_ < 8 && v.num_objects_ - 1 > (1ull << (8 * v.ref_size_)) - 1)
    return Error{"bplist: reference size too small for the object count"};
  v.object_end_ = v.table_;
  const auto* table = reinterpret_cast<const unsigned char*>(bytes.data() + v.table_);
  std::uint64_t bad;
  switch (v.offset_size_) {  // one loop per entry size, so that reading an entry is one load
    case 1: bad = first_offset_outside<1>(table, v.num_objects_, v.object_end_); break;
    case 2: bad = first_offset_outside<2>(table, v.num_objects_, v.object_end_); break;
    case 4: bad = first_offset_outside<4>(table, v.num_objects_, v.object_end_); break;
    default: bad = first_offset_outside<8>(table, v.num_objects_, v.object_end_); break;
  }
  if (bad < v.num_objects_) return Error{fmt::format("bplist: offset of object {} outside the object area", bad)};
  return v;
}

Result<Item> View::item_slow(std::uint64_t index) const {
  if (index >= num_objects_) return Error{fmt::format("bplist: reference {} beyond the object count", index)};
  std::uint64_t o = offset(index);
  const auto* b = reinterpret_cast<const unsigned char*>(bytes_.data());
  const std::uint64_t end = object_end_;
  unsigned marker = b[o];
  unsigned hi = marker >> 4, lo = marker & 0xf;
  Item it{};
  auto need = [&](std::uint64_t from, std::uint64_t n) { return from <= end && n <= end - from; };
  auto read_count = [&](std::uint64_t& pos) -> bool {
    if (lo != 0xf) {
      it.count = lo;
      pos = o + 1;
      return true;
    }
    if (!need(o + 1, 1)) return false;
    unsigned m = b[o + 1];
    if ((m >> 4) != 1 || (m & 0xf) > 3) return false;
    unsigned n = 1u << (m & 0xf);
    if (!need(o + 2, n)) return false;
    it.count = be(b + o + 2, n);
    pos = o + 2 + n;
    return true;
  };
  switch (hi) {
    case 0x0:
      if (marker == 0x00) {
        it.type = Type::Null;
      } else if (marker == 0x08 || marker == 0x09) {
        it.type = Type::Bool;
        it.flag = marker == 0x09;
      } else {
        return Error{fmt::format("bplist: object {} has unknown marker 0x{:02x}", index, marker)};
      }
      return it;
    case 0x1: {
      if (lo > 4) return Error{fmt::format("bplist: object {} integer of 2^{} bytes", index, lo)};
      unsigned n = 1u << lo;
      if (!need(o + 1, n)) return Error{fmt::format("bplist: object {} integer truncated", index)};
      it.type = Type::Int;
      it.pos = o + 1;
      if (n == 16) {
        it.flag = true;
        it.scalar = be(b + o + 9, 8);
      } else {
        it.scalar = be(b + o + 1, n);
      }
      return it;
    }
    case 0x2: {
      if (lo != 2 && lo != 3) return Error{fmt::format("bplist: object {} real of 2^{} bytes", index, lo)};
      unsigned n = 1u << lo;
      if (!need(o + 1, n)) return Error{fmt::format("bplist: object {} real truncated", index)};
      it.type = Type::Real;
      if (n == 4) {
        std::uint32_t f32 = static_cast<std::uint32_t>(be(b + o + 1, 4));
        float f;
        std::memcpy(&f, &f32, 4);
        it.scalar = double_to_bits(static_cast<double>(f));
        it.flag = true;
      } else {
        it.scalar = be(b + o + 1, 8);
      }
      return it;
    }
    case 0x3:
      if (marker != 0x33 || !need(o + 1, 8)) return Error{fmt::format("bplist: object {} bad date", index)};
      it.type = Type::Date;
      it.scalar = be(b + o + 1, 8);
      return it;
    case 0x4:
    case 0x5:
    case 0x6:
    case 0x7: {
      std::uint64_t pos;
      if (!read_count(pos)) return Error{fmt::format("bplist: object {} has a bad count", index)};
      std::uint64_t unit = hi == 0x6 ? 2 : 1;
      if (it.count > end || !need(pos, it.count * unit))
        return Error{fmt::format("bplist: object {} runs past the object area", index)};
      it.type = hi == 0x4 ? Type::Data : hi == 0x5 ? Type::AsciiString : hi == 0x6 ? Type::Utf16String : Type::Utf8String;
      it.pos = pos;
      return it;
    }
    case 0x8: {
      unsigned n = lo + 1;
      if (!need(o + 1, n)) return Error{fmt::format("bplist: object {} UID truncated", index)};
      it.type = Type::Uid;
      it.scalar = be(b + o + 1, n > 8 ? 8 : n);
      return it;
    }
    case 0xA:
    case 0xC:
    case 0xD: {
      std::uint64_t pos;
      if (!read_count(pos)) return Error{fmt::format("bplist: object {} has a bad count", index)};
      std::uint64_t per = hi == 0xD ? 2ull * ref_size_ : ref_size_;
      if (it.count > end || !need(pos, it.count * per))
        return Error{fmt::format("bplist: object {} runs past the object area", index)};
      it.type = hi == 0xA ? Type::Array : hi == 0xC ? Type::Set : Type::Dict;
      it.pos = pos;
      return it;
    }
    default:
      return Error{fmt::format("bplist: object {} has unknown marker 0x{:02x}", index, marker)};
  }
}

Result<std::uint64_t> View::ref(const Item& c, std::uint64_t i) const {
  std::uint64_t r = ref_unchecked(c, i);
  if (r >= num_objects_) return Error{fmt::format("bplist: reference {} beyond the object count", r)};
  return r;
}

std::string View::text(const Item& it) const {
  std::string out;
  std::string_view raw_bytes = raw(it);
  switch (it.type) {
    case Type::AsciiString: {
      if (is_ascii(raw_bytes)) {
        out.assign(raw_bytes);
        break;
      }
      out.reserve(raw_bytes.size() + 8);
      for (unsigned char c : raw_bytes) append_utf8(out, c);  // bytes above 0x7f read as Latin-1
      break;
    }
    case Type::Utf16String:
      utf16be_to_utf8(raw_bytes, out);
      break;
    case Type::Utf8String:
      if (valid_utf8(raw_bytes)) {
        out.assign(raw_bytes);
        break;
      }
      // Strings hold well-formed UTF-8: ill-formed bytes read as U+FFFD, as unpaired surrogates do.
      for (std::size_t i = 0; i < raw_bytes.size();) append_utf8(out, next_utf8(raw_bytes, i));
      break;
    default:
      break;
  }
  return out;
}

bool View::text_equals(const Item& it, std::string_view s) const {
  if (it.type == Type::AsciiString || it.type == Type::Utf8String) {
    std::string_view r = raw(it);
    if (r == s) return it.type == Type::Utf8String || is_ascii(r);
    return false;
  }
  if (it.type == Type::Utf16String) return text(it) == s;
  return false;
}

double View::real(const Item& it) const { return bits_to_double(it.scalar); }

// ---------------------------------------------------------------------------------------------------
// Builder

Builder::Builder() = default;

std::uint32_t Builder::Objects::push(const Obj& o) {
  static_assert((kMask + 1) * sizeof(Obj) == kResidentBlock);
  if ((size_ >> kShift) == blocks_.size()) blocks_.push_back(resident_block());
  (*this)[size_] = o;
  return static_cast<std::uint32_t>(size_++);
}

void Builder::Objects::release_below(std::size_t end) {
  for (std::size_t b = 0; b < blocks_.size() && ((b + 1) << kShift) <= end; ++b) give_back(blocks_[b]);
}

char* Builder::Arena::allocate(std::size_t size, std::size_t align, std::uint32_t owner) {
  constexpr std::size_t kBlock = kResidentBlock;
  if (size > kBlock / 4) {  // a block of its own; the current block stays open
    large_.push_back(Large{std::make_unique_for_overwrite<char[]>(size), owner});
    prefault(large_.back().bytes.get(), size);
    return large_.back().bytes.get();
  }
  std::size_t pad = next_ ? (align - reinterpret_cast<std::uintptr_t>(next_) % align) % align : 0;
  if (!next_ || pad + size > left_) {
    blocks_.push_back(Block{resident_block(), owner});
    next_ = reinterpret_cast<char*>(blocks_.back().bytes.get());
    left_ = kBlock;
    pad = 0;
  }
  blocks_.back().last_owner = std::max(blocks_.back().last_owner, owner);
  char* p = next_ + pad;
  next_ = p + size;
  left_ -= pad + size;
  return p;
}

std::string_view Builder::Arena::copy(std::string_view bytes, std::uint32_t owner) {
  if (bytes.empty()) return {};
  char* p = allocate(bytes.size(), 1, owner);
  std::memcpy(p, bytes.data(), bytes.size());
  return {p, bytes.size()};
}

void Builder::Arena::release_below(std::uint32_t end) {
  // Mostly in order, as blocks fill in the order objects are added; a block that also holds the bytes
  // of an object not yet written waits for a later call.
  while (released_ < blocks_.size() && !blocks_[released_].bytes) ++released_;
  for (std::size_t b = released_; b < blocks_.size(); ++b) {
    if (blocks_[b].bytes && blocks_[b].last_owner < end) give_back(blocks_[b].bytes);
  }
  for (Large& large : large_) {
    if (large.bytes && large.owner < end) large.bytes.reset();
  }
}

std::string_view Builder::utf8_of(const Obj& o) {
  if (o.flag() || o.type() == Type::Data) return o.bytes();
  const char* size_at = o.ptr() - (o.is_wide() ? 16 : 8);  // before the units' count, when it is wide
  std::uint64_t size = 0;
  std::memcpy(&size, size_at, 8);
  return {size_at - size, static_cast<std::size_t>(size)};
}

std::uint32_t Builder::push(Obj o) { return objects_.push(o); }

Builder::Obj Builder::scalar(Type type, bool flag, std::uint64_t bits) {
  if (Obj::fits(bits)) return Obj::scalar(type, flag, bits, nullptr);
  char* box = arena_.allocate(8, 8, static_cast<std::uint32_t>(objects_.size()));  // owned by the object pushed next
  std::memcpy(box, &bits, 8);
  return Obj::scalar(type, flag, 0, box);
}

std::uint32_t Builder::reserve() { return push(scalar(Type::Null, 0, 0)); }

namespace {

// Doubles an open-addressing table (linear probing, a power-of-two size) before it gets more than
// three quarters full; `place` gives a slot's home position.
template <class Slots, class Place>
void grow_if_full(Slots& slots, std::size_t used, Place place) {
  if ((used + 1) * 4 <= slots.size() * 3) return;
  Slots grown(slots.size() * 2);
  const std::size_t mask = grown.size() - 1;
  for (const auto& slot : slots) {
    if (!slot.index_plus_one) continue;
    std::size_t i = place(slot) & mask;
    while (grown[i].index_plus_one) i = (i + 1) & mask;
    grown[i] = slot;
  }
  slots.swap(grown);
}

}  // namespace

std::uint32_t Builder::add_bytes(BytesTable& t, std::string_view bytes, std::uint64_t hash, Type type, bool ascii) {
  using Slot = BytesTable::Slot;
  grow_if_full(t.slots, t.used, [](const Slot& slot) { return std::size_t{slot.hash}; });
  const std::size_t mask = t.slots.size() - 1;
  // The low 32 bits of the hash place the slot and are kept in it, so growing needs no rehashing.
  const auto tag = static_cast<std::uint32_t>(hash);
  std::size_t i = tag & mask;
  while (std::uint32_t v = t.slots[i].index_plus_one) {
    if (t.slots[i].hash == tag && utf8_of(objects_[v - 1]) == bytes) return v - 1;
    i = (i + 1) & mask;
  }
  // The object about to be pushed owns what is stored for it.
  const auto owner = static_cast<std::uint32_t>(objects_.size());
  const char* at = nullptr;
  std::uint64_t n = bytes.size();
  if (type == Type::Utf8String && !ascii) {
    // Written as UTF-16BE: converted once here, so that sizing and writing read the object alone and
    // copy. The UTF-8 bytes (for finding equal strings) and their size go before the units (and the
    // units' count, when it is wide).
    std::string units;
    std::uint64_t count = 0;
    utf8_to_utf16be(bytes, units, count);
    const std::uint64_t size = bytes.size();
    n = units.size();
    const std::size_t head = 8 + (Obj::wide(n) ? 8 : 0);
    char* p = arena_.allocate(bytes.size() + head + units.size(), 1, owner);
    std::memcpy(p, bytes.data(), bytes.size());
    std::memcpy(p + bytes.size(), &size, 8);
    std::memcpy(p + bytes.size() + head, units.data(), units.size());
    at = p + bytes.size() + head;
  } else if (Obj::wide(n)) {
    char* p = arena_.allocate(8 + n, 1, owner);
    std::memcpy(p + 8, bytes.data(), n);
    at = p + 8;
  } else {
    at = arena_.copy(bytes, owner).data();
  }
  std::uint32_t index = push(Obj::counted(type, ascii, at, n));
  t.slots[i] = Slot{index + 1, tag};
  ++t.used;
  return index;
}

std::uint32_t Builder::add_string(std::string_view s) {
  return add_bytes(strings_, s, hash_bytes(s), Type::Utf8String, is_ascii(s));
}

std::uint32_t Builder::add_string(std::string_view s, std::uint64_t hash) {
  return add_bytes(strings_, s, hash, Type::Utf8String, is_ascii(s));
}

std::uint32_t Builder::add_data(std::string_view d) { return add_bytes(datas_, d, hash_bytes(d), Type::Data, false); }

std::uint32_t Builder::add_scalar(ScalarTable& t, Type type, std::uint8_t flag, std::uint64_t bits) {
  using Slot = ScalarTable::Slot;
  auto place = [](std::uint64_t x) {  // a 64-bit mix: patterns of nearby numbers spread over the table
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    return static_cast<std::size_t>(x);
  };
  grow_if_full(t.slots, t.used, [&](const Slot& slot) { return place(slot.bits); });
  const std::size_t mask = t.slots.size() - 1;
  std::size_t i = place(bits) & mask;
  while (std::uint32_t v = t.slots[i].index_plus_one) {
    if (t.slots[i].bits == bits) return v - 1;
    i = (i + 1) & mask;
  }
  const std::uint32_t index = push(scalar(type, flag, bits));
  t.slots[i] = Slot{bits, index + 1};
  ++t.used;
  return index;
}

std::uint32_t Builder::add_int(std::int64_t v) {
  if (v >= 0 && v < kSmallInts) {
    std::uint32_t& slot = small_ints_[v];
    if (!slot) slot = add_scalar(ints_, Type::Int, 0, static_cast<std::uint64_t>(v)) + 1;
    return slot - 1;
  }
  return add_scalar(ints_, Type::Int, 0, static_cast<std::uint64_t>(v));
}

std::uint32_t Builder::add_uint(std::uint64_t v) {
  if (v <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return add_int(static_cast<std::int64_t>(v));
  return add_scalar(uints_, Type::Int, 1, v);
}

std::uint32_t Builder::add_real(double v) { return add_scalar(reals_, Type::Real, 0, double_to_bits(v)); }

std::uint32_t Builder::add_date(double v) { return add_scalar(dates_, Type::Date, 0, double_to_bits(v)); }

std::uint32_t Builder::add_bool(bool v) {
  std::uint32_t& slot = bools_[v ? 1 : 0];
  if (!slot) slot = push(scalar(Type::Bool, static_cast<std::uint8_t>(v), 0)) + 1;
  return slot - 1;
}

std::uint32_t Builder::add_null() {
  if (!null_) null_ = push(scalar(Type::Null, 0, 0)) + 1;
  return null_ - 1;
}

std::uint32_t Builder::add_uid(std::uint64_t v) {
  if (v < kUniqueUids) {
    if (uids_.size() <= v) uids_.resize(std::max<std::size_t>(v + 1, uids_.size() * 2), 0);
    if (!uids_[v]) uids_[v] = push(scalar(Type::Uid, 0, v)) + 1;
    return uids_[v] - 1;
  }
  return push(scalar(Type::Uid, 0, v));
}

void Builder::set_container(std::uint32_t index, Type type, const std::uint32_t* first, const std::uint32_t* second,
                            std::size_t n) {
  const std::size_t total = second ? 2 * n : n;
  const std::size_t head = Obj::wide(n) ? 8 : 0;  // room for the count
  auto* refs = reinterpret_cast<std::uint32_t*>(
      arena_.allocate(head + total * sizeof(std::uint32_t), alignof(std::uint32_t), index) + head);
  if (n) std::memcpy(refs, first, n * sizeof(std::uint32_t));
  if (second && n) std::memcpy(refs + n, second, n * sizeof(std::uint32_t));
  objects_[index] = Obj::counted(type, false, reinterpret_cast<const char*>(refs), n);
}

void Builder::set_array(std::uint32_t index, const std::uint32_t* refs, std::size_t n, bool is_set) {
  set_container(index, is_set ? Type::Set : Type::Array, refs, nullptr, n);
}

void Builder::set_dict(std::uint32_t index, const std::uint32_t* keys, const std::uint32_t* values, std::size_t n) {
  set_container(index, Type::Dict, keys, values, n);
}

const std::uint32_t* Builder::share_refs(const std::uint32_t* refs, std::size_t n) {
  // Two units before the refs leave room for the count of an array whose count is wide (set_shared_array
  // writes it there).
  auto copy = std::make_unique_for_overwrite<std::uint32_t[]>(n + 2);
  if (n) std::memcpy(copy.get() + 2, refs, n * sizeof(std::uint32_t));
  shared_refs_.push_back(std::move(copy));
  return shared_refs_.back().get() + 2;
}

void Builder::set_shared_array(std::uint32_t index, const std::uint32_t* shared, std::size_t n) {
  objects_[index] = Obj::counted(Type::Array, false, reinterpret_cast<const char*>(shared), n);
}

namespace {

std::uint64_t count_header_size(std::uint64_t n) { return n < 15 ? 1 : 2 + size_for(n); }

}  // namespace

std::uint64_t Builder::encoded_size(const Obj& o, unsigned ref_size) const {
  switch (o.type()) {
    case Type::Null:
    case Type::Bool:
      return 1;
    case Type::Int:
      if (o.flag()) return 17;
      if (static_cast<std::int64_t>(o.value()) < 0) return 9;
      return 1 + size_for(o.value());
    case Type::Real:
    case Type::Date:
      return 9;
    case Type::Data:
      return count_header_size(o.n()) + o.n();
    case Type::Utf8String:
    case Type::AsciiString:
    case Type::Utf16String: {
      return count_header_size(o.flag() ? o.n() : o.n() / 2) + o.n();  // UTF-16 when not ASCII
    }
    case Type::Uid:
      return 1 + size_for(o.value());
    case Type::Array:
    case Type::Set:
      return count_header_size(o.n()) + o.n() * ref_size;
    case Type::Dict:
      return count_header_size(o.n()) + 2 * o.n() * ref_size;
  }
  return 1;
}

namespace {

// Big-endian integers of 1, 2, 4 or 8 bytes at a cursor.
inline char* store_be(char* p, std::uint64_t v, unsigned n) {
  switch (n) {
    case 1: *p = static_cast<char>(v); return p + 1;
    case 2: {
      const std::uint16_t x = __builtin_bswap16(static_cast<std::uint16_t>(v));
      std::memcpy(p, &x, 2);
      return p + 2;
    }
    case 4: {
      const std::uint32_t x = __builtin_bswap32(static_cast<std::uint32_t>(v));
      std::memcpy(p, &x, 4);
      return p + 4;
    }
    default: {
      const std::uint64_t x = __builtin_bswap64(v);
      std::memcpy(p, &x, 8);
      return p + 8;
    }
  }
}

inline unsigned log2_size(unsigned s) { return s == 1 ? 0 : s == 2 ? 1 : s == 4 ? 2 : 3; }

inline char* store_marker_count(char* p, unsigned hi, std::uint64_t n) {
  if (n < 15) {
    *p++ = static_cast<char>((hi << 4) | n);
    return p;
  }
  *p++ = static_cast<char>((hi << 4) | 0xf);
  const unsigned s = size_for(n);
  *p++ = static_cast<char>(0x10 | log2_size(s));
  return store_be(p, n, s);
}

template <unsigned RefSize>
char* store_refs(char* p, const std::uint32_t* refs, std::uint64_t n) {
  for (std::uint64_t k = 0; k < n; ++k) p = store_be(p, refs[k], RefSize);
  return p;
}

}  // namespace

namespace {

// Collects pieces in a buffer and hands them on a megabyte at a time. For a large file the sink gets
// them on a thread of their own, so that making the next piece overlaps handing on (writing to a file
// or a memory file) the last one; the sink still gets every piece in order, one call at a time.
class PieceWriter {
 public:
  static constexpr std::size_t kCapacity = 1 << 20;
  PieceWriter(Builder::Sink& sink, bool in_background)
      : sink_(sink), buffer_(std::make_unique_for_overwrite<char[]>(kCapacity)) {
    if (in_background) {
      spare_ = std::make_unique_for_overwrite<char[]>(kCapacity);
      thread_ = std::thread([this] {
        name_this_thread("orvia-write");
        hand_on();
      });
    }
  }
  ~PieceWriter() { stop(); }
  PieceWriter(const PieceWriter&) = delete;
  PieceWriter& operator=(const PieceWriter&) = delete;

  // Room for n <= kCapacity bytes; commit() says where the writing ended.
  char* room(std::size_t n) {
    if (used_ + n > kCapacity) flush();
    return buffer_.get() + used_;
  }
  void commit(const char* end) { used_ = static_cast<std::size_t>(end - buffer_.get()); }
  // Bytes too large for the buffer, handed on directly (after everything before them).
  void put_direct(std::string_view bytes) {
    flush();
    drain();
    if (ok() && !bytes.empty() && !sink_.put(bytes)) failed_ = true;
  }
  bool finish() {
    flush();
    stop();
    return ok();
  }
  bool ok() const { return !failed_; }

 private:
  void flush() {
    if (!used_) return;
    if (!thread_.joinable()) {
      if (ok() && !sink_.put(std::string_view(buffer_.get(), used_))) failed_ = true;
      used_ = 0;
      return;
    }
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return spare_ != nullptr; });  // the last piece was handed on
    pending_ = std::move(buffer_);
    pending_size_ = used_;
    buffer_ = std::move(spare_);
    used_ = 0;
    changed_.notify_all();
  }
  // Waits until every piece given to the thread has been handed on.
  void drain() {
    if (!thread_.joinable()) return;
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return spare_ != nullptr; });
  }
  void stop() {
    if (!thread_.joinable()) return;
    drain();
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  void hand_on() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [&] { return pending_ != nullptr || stopping_; });
      if (!pending_) return;
      std::unique_ptr<char[]> piece = std::move(pending_);
      const std::size_t size = pending_size_;
      lock.unlock();
      if (ok() && !sink_.put(std::string_view(piece.get(), size))) failed_ = true;
      lock.lock();
      spare_ = std::move(piece);
      changed_.notify_all();
    }
  }

  Builder::Sink& sink_;
  std::unique_ptr<char[]> buffer_;  // being filled
  std::size_t used_ = 0;
  std::atomic<bool> failed_{false};
  // With a thread: the piece it hands on (null when none), and the buffer to fill next.
  std::mutex mutex_;
  std::condition_variable changed_;
  std::unique_ptr<char[]> pending_, spare_;
  std::size_t pending_size_ = 0;
  bool stopping_ = false;
  std::thread thread_;  // last: starts once the members above exist
};

class StringSink final : public Builder::Sink {
 public:
  explicit StringSink(std::string& out) : out_(out) {}
  bool wants_size() const override { return true; }  // one allocation rather than growing by copies
  void expect(std::uint64_t total) override { out_.reserve(total); }
  bool put(std::string_view piece) override {
    out_.append(piece);
    return true;
  }

 private:
  std::string& out_;
};

}  // namespace

std::string Builder::write(std::uint32_t top) const {
  std::string out;
  StringSink sink(out);
  write_to(top, sink);
  return out;
}

namespace {

inline char* store_refs_any(char* at, const std::uint32_t* refs, std::uint64_t n, unsigned ref_size) {
  switch (ref_size) {
    case 1: return store_refs<1>(at, refs, n);
    case 2: return store_refs<2>(at, refs, n);
    default: return store_refs<4>(at, refs, n);
  }
}

}  // namespace

char* Builder::encode_objects(std::size_t begin, std::size_t end, unsigned ref_size, char* p) const {
  for (std::size_t i = begin; i < end; ++i) {
    const Obj& o = objects_[i];
    switch (o.type()) {
      case Type::Null:
        *p++ = 0x00;
        break;
      case Type::Bool:
        *p++ = static_cast<char>(o.flag() ? 0x09 : 0x08);
        break;
      case Type::Int:
        if (o.flag()) {  // unsigned beyond the signed range: 16 bytes, high half zero
          *p++ = 0x14;
          p = store_be(p, 0, 8);
          p = store_be(p, o.value(), 8);
        } else if (static_cast<std::int64_t>(o.value()) < 0) {
          *p++ = 0x13;
          p = store_be(p, o.value(), 8);
        } else {
          const unsigned s = size_for(o.value());
          *p++ = static_cast<char>(0x10 | log2_size(s));
          p = store_be(p, o.value(), s);
        }
        break;
      case Type::Real:
        *p++ = 0x23;
        p = store_be(p, o.value(), 8);
        break;
      case Type::Date:
        *p++ = 0x33;
        p = store_be(p, o.value(), 8);
        break;
      case Type::Data:
      case Type::Utf8String:
      case Type::AsciiString:
      case Type::Utf16String: {
        const bool is_data = o.type() == Type::Data;
        std::string_view bytes = o.bytes();
        p = store_marker_count(p, is_data ? 0x4 : o.flag() ? 0x5 : 0x6, is_data || o.flag() ? bytes.size() : bytes.size() / 2);
        if (!bytes.empty()) std::memcpy(p, bytes.data(), bytes.size());
        p += bytes.size();
        break;
      }
      case Type::Uid: {
        const unsigned s = size_for(o.value());
        *p++ = static_cast<char>(0x80 | (s - 1));
        p = store_be(p, o.value(), s);
        break;
      }
      case Type::Array:
      case Type::Set:
      case Type::Dict: {
        const Type t = o.type();
        p = store_marker_count(p, t == Type::Array ? 0xA : t == Type::Set ? 0xC : 0xD, o.n());
        const std::uint64_t n = t == Type::Dict ? 2 * o.n() : o.n();
        p = store_refs_any(p, o.refs(), n, ref_size);
        break;
      }
    }
  }
  return p;
}

template <class Writer>
void Builder::stream_objects(std::size_t begin, std::size_t end, unsigned ref_size, Writer& w) const {
  for (std::size_t i = begin; i < end && w.ok(); ++i) {
    const Obj& o = objects_[i];
    const std::uint64_t size = encoded_size(o, ref_size);
    if (size <= Writer::kCapacity) {
      char* p = w.room(size);
      w.commit(encode_objects(i, i + 1, ref_size, p));
      continue;
    }
    // Larger than a piece: the header, then the bytes or references in pieces.
    char* p = w.room(32);
    const Type t = o.type();
    if (t == Type::Array || t == Type::Set || t == Type::Dict) {
      w.commit(store_marker_count(p, t == Type::Array ? 0xA : t == Type::Set ? 0xC : 0xD, o.n()));
      const std::uint64_t n = t == Type::Dict ? 2 * o.n() : o.n();
      const auto* refs = o.refs();
      const std::uint64_t per_piece = Writer::kCapacity / ref_size;
      for (std::uint64_t k = 0; k < n; k += per_piece) {
        const std::uint64_t m = std::min(per_piece, n - k);
        char* q = w.room(m * ref_size);
        w.commit(store_refs_any(q, refs + k, m, ref_size));
      }
    } else {
      const bool is_data = t == Type::Data;
      std::string_view bytes = o.bytes();
      w.commit(store_marker_count(p, is_data ? 0x4 : o.flag() ? 0x5 : 0x6, is_data || o.flag() ? bytes.size() : bytes.size() / 2));
      w.put_direct(bytes);
    }
  }
}

char* Builder::encode_offsets(std::size_t begin, std::size_t end, std::uint64_t& offset, unsigned offset_size,
                              unsigned ref_size, const std::uint32_t* sizes, char* p) const {
  for (std::size_t i = begin; i < end; ++i) {
    p = store_be(p, offset, offset_size);
    offset += sizes ? sizes[i - begin] : encoded_size(objects_[i], ref_size);
  }
  return p;
}

template <class Writer>
void Builder::stream_offsets(std::size_t begin, std::size_t end, std::uint64_t offset, unsigned offset_size,
                             unsigned ref_size, const std::uint32_t* sizes, Writer& w) const {
  const std::size_t per_piece = Writer::kCapacity / offset_size;
  for (std::size_t i = begin; i < end && w.ok(); i += per_piece) {
    const std::size_t last = std::min(end, i + per_piece);
    w.commit(encode_offsets(i, last, offset, offset_size, ref_size, sizes ? sizes + (i - begin) : nullptr,
                            w.room((last - i) * offset_size)));
  }
}

namespace {

// The 32-byte trailer.
char* store_trailer(char* p, unsigned offset_size, unsigned ref_size, std::uint64_t count, std::uint64_t top,
                    std::uint64_t table) {
  std::memset(p, 0, 6);
  p += 6;
  *p++ = static_cast<char>(offset_size);
  *p++ = static_cast<char>(ref_size);
  p = store_be(p, count, 8);
  p = store_be(p, top, 8);
  return store_be(p, table, 8);
}

// Runs `work` on the calling thread and on one helper thread, and returns when both are done. An
// exception on either (out of memory) is thrown again here once both have stopped.
void on_two_threads(const std::function<void()>& work) {
  std::exception_ptr helper_error;
  std::thread helper([&] {
    name_this_thread("orvia-encode");
    try {
      work();
    } catch (...) {
      helper_error = std::current_exception();
    }
  });
  std::exception_ptr own_error;
  try {
    work();
  } catch (...) {
    own_error = std::current_exception();
  }
  helper.join();
  if (own_error) std::rethrow_exception(own_error);
  if (helper_error) std::rethrow_exception(helper_error);
}

// Makes pieces 0..n-1 of a file on two threads and hands them to the sink in order, one call at a
// time, whichever thread finished them. `size(c)` is piece c's byte count; `fill(c, out)` writes a
// piece into a buffer; a piece larger than `max_buffered` is instead written by `stream(c, sink)`
// straight to the sink once every piece before it has been handed on. At most kAhead pieces wait in
// buffers, so memory stays a few pieces whatever the file's size. `handed(c)`, when given, is called
// once piece c is handed on, one call at a time and in order.
class OrderedPieces {
 public:
  static constexpr std::size_t kAhead = 4;
  using Size = std::function<std::size_t(std::size_t)>;
  using Fill = std::function<void(std::size_t, char*)>;
  using Stream = std::function<bool(std::size_t, Builder::Sink&)>;
  using Handed = std::function<void(std::size_t)>;

  OrderedPieces(std::size_t n, Builder::Sink& sink, std::size_t max_buffered, Size size, Fill fill, Stream stream,
                Handed handed)
      : n_(n), sink_(sink), max_buffered_(max_buffered), size_(std::move(size)), fill_(std::move(fill)),
        stream_(std::move(stream)), handed_fn_(std::move(handed)), ready_(n, 0), sizes_(n, 0) {}

  bool run() {
    on_two_threads([this] { work(); });
    return !failed_ && handed_ == n_;
  }

 private:
  struct Buffer {
    std::unique_ptr<char[]> bytes;
    std::size_t capacity = 0;
  };

  void work() {
    std::unique_lock lock(mutex_);
    try {
      for (;;) {
        changed_.wait(lock, [&] { return failed_ || next_ >= n_ || next_ < handed_ + kAhead; });
        if (failed_ || next_ >= n_) return;
        const std::size_t c = next_++;
        lock.unlock();
        const std::size_t bytes = size_(c);  // worked out once, by the thread that makes the piece
        lock.lock();
        sizes_[c] = bytes;
        if (bytes > max_buffered_) {
          changed_.wait(lock, [&] { return failed_ || (handed_ == c && !handing_); });
          if (failed_) return;
          handing_ = true;
          lock.unlock();
          const bool ok = stream_(c, sink_);
          if (ok && handed_fn_) handed_fn_(c);
          lock.lock();
          handing_ = false;
          if (!ok) failed_ = true;
          handed_ = c + 1;
          changed_.notify_all();
        } else {
          Buffer& b = buffers_[c % kAhead];  // free: piece c - kAhead was handed on
          lock.unlock();
          if (b.capacity < bytes) {
            b.bytes.reset();
            b.bytes = std::make_unique_for_overwrite<char[]>(bytes);
            b.capacity = bytes;
          }
          fill_(c, b.bytes.get());
          lock.lock();
          ready_[c] = 1;
        }
        hand_on(lock);
      }
    } catch (...) {
      if (!lock.owns_lock()) lock.lock();
      failed_ = true;
      changed_.notify_all();
      throw;
    }
  }

  // Hands on the pieces that are ready, in order, unless the other thread is doing so.
  void hand_on(std::unique_lock<std::mutex>& lock) {
    if (handing_) return;
    handing_ = true;
    while (!failed_ && handed_ < n_ && ready_[handed_]) {
      const std::size_t c = handed_;
      lock.unlock();
      const bool ok = sink_.put(std::string_view(buffers_[c % kAhead].bytes.get(), sizes_[c]));
      if (ok && handed_fn_) handed_fn_(c);
      lock.lock();
      if (!ok) failed_ = true;
      handed_ = c + 1;
      changed_.notify_all();
    }
    handing_ = false;
    changed_.notify_all();
  }

  const std::size_t n_;
  Builder::Sink& sink_;
  const std::size_t max_buffered_;
  Size size_;
  Fill fill_;
  Stream stream_;
  Handed handed_fn_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<unsigned char> ready_;  // piece made and waiting in its buffer
  std::vector<std::size_t> sizes_;    // each piece's size, once worked out
  Buffer buffers_[kAhead];
  std::size_t next_ = 0;    // the next piece to make
  std::size_t handed_ = 0;  // pieces handed on so far
  bool handing_ = false;    // a thread is handing pieces on
  bool failed_ = false;
};

// Runs `each(c)` for c in [0, n) on two threads.
void for_each_on_two_threads(std::size_t n, const std::function<void(std::size_t)>& each) {
  std::atomic<std::size_t> next{0};
  on_two_threads([&] {
    for (std::size_t c; (c = next.fetch_add(1, std::memory_order_relaxed)) < n;) each(c);
  });
}

}  // namespace

bool Builder::write_to(std::uint32_t top, Sink& sink, const WriteOptions& options) const {
  return write_any(top, sink, options, nullptr);
}

namespace {

// Frees a table, its pages given back to the system at once: the allocator would keep them a while,
// and the sink that takes the file in memory can use them.
template <class Vector>
void free_now(Vector& v) {
  give_back_pages(v.data(), v.size() * sizeof(typename Vector::value_type));
  Vector().swap(v);
}

}  // namespace

bool Builder::drain_to(std::uint32_t top, Sink& sink, const WriteOptions& options) {
  // The tables that find equal values are not needed for writing.
  for (BytesTable* t : {&strings_, &datas_}) {
    free_now(t->slots);
    t->used = 0;
  }
  for (ScalarTable* t : {&ints_, &reals_, &dates_, &uints_}) {
    free_now(t->slots);
    t->used = 0;
  }
  free_now(uids_);
  const bool whole = write_any(top, sink, options, this);
  *this = Builder();
  return whole;
}

bool Builder::write_any(std::uint32_t top, Sink& sink, const WriteOptions& options, Builder* drain) const {
  const std::uint64_t count = objects_.size();
  // As Apple's reader demands: the reference size must hold the object count itself.
  const unsigned ref_size = size_for(count);
  const std::size_t run = std::max<std::size_t>(options.run_objects, 1);
  const bool two = options.threads == 2 ||
                   (options.threads == 0 && count >= 4 * run && std::thread::hardware_concurrency() > 1);
  const bool whole = two && count > run ? write_parallel(top, sink, ref_size, options, drain)
                                        : write_serial(top, sink, ref_size);
  if (whole) sink.finished();
  return whole;
}

bool Builder::write_serial(std::uint32_t top, Sink& sink, unsigned ref_size) const {
  const std::uint64_t count = objects_.size();
  // First the exact size, so that offsets need not be kept: the offset table is written from the same
  // sizes again.
  std::uint64_t objects_end = 8;
  for (std::uint64_t i = 0; i < count; ++i) objects_end += encoded_size(objects_[i], ref_size);
  const unsigned offset_size = size_for(objects_end);
  const std::uint64_t total = objects_end + count * offset_size + 32;
  sink.expect(total);
  PieceWriter w(sink, total > 8 * PieceWriter::kCapacity);
  char* p = w.room(8);
  std::memcpy(p, "bplist00", 8);
  w.commit(p + 8);
  stream_objects(0, count, ref_size, w);
  stream_offsets(0, count, 8, offset_size, ref_size, nullptr, w);
  p = w.room(32);
  w.commit(store_trailer(p, offset_size, ref_size, count, top, objects_end));
  return w.finish();
}

// A large file on two threads: the objects are taken in runs whose sizes are summed first (so every
// run knows where it starts), then encoded side by side, and the offset table likewise; the sink
// still gets the bytes in order.
bool Builder::write_parallel(std::uint32_t top, Sink& sink, unsigned ref_size, const WriteOptions& options,
                             Builder* drain) const {
  const std::size_t count = objects_.size();
  const std::size_t run = std::max<std::size_t>(options.run_objects, 1);
  const std::size_t runs = (count + run - 1) / run;
  auto run_begin = [&](std::size_t r) { return r * run; };
  auto run_end = [&](std::size_t r) { return std::min(count, (r + 1) * run); };
  // The objects' offsets are needed only for the table that follows them: each run is sized by the
  // thread that encodes it, and the first bytes leave at once. Only a sink that asks for the file's
  // size before its first piece waits for every run to be sized.
  const bool sized_first = sink.wants_size();
  // A builder that is drained keeps each run's encoded sizes (4 bytes an object) as the run is sized,
  // so that the run's objects (8 bytes each) go back once its bytes are handed on rather than after
  // the whole file: the sink that holds the file in memory takes their pages meanwhile. The offset
  // table is worked out from those sizes, since a large container's count lies in the arena, whose
  // blocks go back as their runs are handed on. (Sized first, every run holds its sizes at once; a
  // run with an object of 4 GB or more keeps its objects and their bytes.)
  const bool record_sizes = drain != nullptr;
  std::vector<std::unique_ptr<std::uint32_t[]>> sizes(record_sizes ? runs : 0);
  // Each run's bytes, then (summed) the byte offset of each run; start[runs]: the end of the objects.
  std::vector<std::uint64_t> start(runs + 1);
  auto size_run = [&](std::size_t r) {
    std::uint64_t bytes = 0;
    std::unique_ptr<std::uint32_t[]> kept;
    if (record_sizes) kept = std::make_unique_for_overwrite<std::uint32_t[]>(run_end(r) - run_begin(r));
    for (std::size_t i = run_begin(r); i < run_end(r); ++i) {
      const std::uint64_t size = encoded_size(objects_[i], ref_size);
      if (kept) {
        if (size > std::numeric_limits<std::uint32_t>::max()) kept.reset();
        else kept[i - run_begin(r)] = static_cast<std::uint32_t>(size);
      }
      bytes += size;
    }
    if (record_sizes) sizes[r] = std::move(kept);
    start[r + 1] = bytes;
    return static_cast<std::size_t>(bytes);
  };
  auto sum_starts = [&] {
    start[0] = 8;
    for (std::size_t r = 0; r < runs; ++r) start[r + 1] += start[r];
  };
  if (sized_first) {
    for_each_on_two_threads(runs, [&](std::size_t r) { size_run(r); });
    sum_starts();
    sink.expect(start[runs] + count * size_for(start[runs]) + 32);
  }
  if (!sink.put("bplist00")) return false;

  const std::size_t max_buffered = std::max<std::size_t>(options.max_buffered, 1);
  std::size_t objects_released = 0;  // runs [0, objects_released) have given their objects back
  OrderedPieces objects(
      runs, sink, max_buffered,
      [&](std::size_t r) {
        return sized_first ? static_cast<std::size_t>(start[r + 1] - start[r]) : size_run(r);
      },
      [&](std::size_t r, char* out) { encode_objects(run_begin(r), run_end(r), ref_size, out); },
      [&](std::size_t r, Sink& s) {
        PieceWriter w(s, false);
        stream_objects(run_begin(r), run_end(r), ref_size, w);
        return w.finish();
      },
      // Once a run is handed on and its sizes are kept (the runs before it alike), neither its objects
      // nor the arena's bytes they own (strings, data, references, large counts) are read again.
      [&](std::size_t r) {
        if (!drain || objects_released != r || !sizes[r]) return;
        drain->arena_.release_below(static_cast<std::uint32_t>(run_end(r)));
        drain->objects_.release_below(run_end(r));
        objects_released = r + 1;
      });
  if (!objects.run()) return false;
  if (!sized_first) sum_starts();
  const std::uint64_t objects_end = start[runs];
  const unsigned offset_size = size_for(objects_end);
  auto sizes_of = [&](std::size_t r) -> const std::uint32_t* { return record_sizes ? sizes[r].get() : nullptr; };

  OrderedPieces table(
      runs, sink, max_buffered, [&](std::size_t r) { return (run_end(r) - run_begin(r)) * offset_size; },
      [&](std::size_t r, char* out) {
        std::uint64_t offset = start[r];
        encode_offsets(run_begin(r), run_end(r), offset, offset_size, ref_size, sizes_of(r), out);
      },
      [&](std::size_t r, Sink& s) {
        PieceWriter w(s, false);
        stream_offsets(run_begin(r), run_end(r), start[r], offset_size, ref_size, sizes_of(r), w);
        return w.finish();
      },
      [&](std::size_t r) {
        if (!drain) return;
        drain->objects_.release_below(run_end(r));
        if (record_sizes) sizes[r].reset();
      });
  if (!table.run()) return false;
  char trailer[32];
  store_trailer(trailer, offset_size, ref_size, count, top, objects_end);
  return sink.put(std::string_view(trailer, sizeof trailer));
}

}  // namespace orvia::bplist
