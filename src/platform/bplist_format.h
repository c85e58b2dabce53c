// The bplist00 layout, shared by the property-list codec and the keyed archiver.
//
//   "bplist00" | objects | offset table | trailer (32 bytes)
//   trailer: 6 unused bytes, offsetIntSize, objectRefSize, numObjects (u64 BE), topObject (u64 BE),
//            offsetTableOffset (u64 BE)
//   markers: 0x00 null, 0x08 false, 0x09 true, 0x1n integer of 2^n bytes (1-4 bytes unsigned, 8 signed,
//            16 = the low 8 of a 128-bit value), 0x22/0x23 real of 4/8 bytes, 0x33 date (8-byte real,
//            seconds since 2001), 0x4n data, 0x5n ASCII string, 0x6n UTF-16BE string (count in units),
//            0x7n UTF-8 string, 0x8n UID of n+1 bytes, 0xAn array, 0xCn set, 0xDn dictionary (key refs,
//            then value refs). A count of 15 or more: low nibble 0xF, then an integer object.
//
// BPlistView reads objects in place without building anything; every offset, count and reference is
// checked against the buffer when it is read. BPlistBuilder numbers objects as they are added and
// writes them with the smallest offset and reference sizes the counts allow.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/prefault.h"
#include "platform/result.h"

namespace orvia::bplist {

namespace detail {
// A big-endian unsigned number of n bytes (the sizes the format uses: 1, 2, 4, 8, or any up to 8).
inline std::uint64_t be(const unsigned char* p, unsigned n) {
  switch (n) {
    case 1:
      return p[0];
    case 2:
      return (std::uint64_t(p[0]) << 8) | p[1];
    case 4: {
      std::uint32_t v;
      std::memcpy(&v, p, 4);
      return __builtin_bswap32(v);
    }
    case 8: {
      std::uint64_t v;
      std::memcpy(&v, p, 8);
      return __builtin_bswap64(v);
    }
    default: {
      std::uint64_t v = 0;
      for (unsigned i = 0; i < n; ++i) v = (v << 8) | p[i];
      return v;
    }
  }
}
// The same for n of 1 to 8 where at least 8 bytes can be read from p: one load, whatever n is. Inside a
// property list this holds for every offset and reference, which the 32-byte trailer follows.
inline std::uint64_t be_padded(const unsigned char* p, unsigned n) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return __builtin_bswap64(v) >> (64 - 8 * n);
}
}  // namespace detail

// A 64-bit hash of bytes, eight at a time: the builder's table of strings and the archive lookups'
// index of keys.
inline std::uint64_t hash_bytes(std::string_view s) {
  std::uint64_t h = 0x9e3779b97f4a7c15ull ^ s.size();
  std::size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) {
    std::uint64_t w;
    std::memcpy(&w, s.data() + i, 8);
    h = (h ^ w) * 0xff51afd7ed558ccdull;
    h ^= h >> 32;
  }
  // The last bytes as a little-endian number, read with fixed-size loads: a copy of a variable size is
  // a call whose bytes, read back at once, stall.
  const std::size_t r = s.size() - i;
  std::uint64_t tail = 0;
  if constexpr (std::endian::native == std::endian::little) {
    const char* p = s.data();
    if (r > 0 && s.size() >= 8) {
      std::memcpy(&tail, p + s.size() - 8, 8);  // overlaps the words above: their bytes shifted out
      tail >>= (8 - r) * 8;
    } else if (r >= 4) {
      std::uint32_t a, b;
      std::memcpy(&a, p, 4);
      std::memcpy(&b, p + r - 4, 4);
      tail = a | (std::uint64_t{b} << ((r - 4) * 8));
    } else if (r >= 2) {
      std::uint16_t a, b;
      std::memcpy(&a, p, 2);
      std::memcpy(&b, p + r - 2, 2);
      tail = a | (std::uint64_t{b} << ((r - 2) * 8));
    } else if (r == 1) {
      tail = static_cast<unsigned char>(p[0]);
    }
  } else {
    std::memcpy(&tail, s.data() + i, r);
  }
  h = (h ^ tail) * 0xc4ceb9fe1a85ec53ull;
  return h ^ (h >> 29);
}

// True when every byte is below 0x80; eight bytes at a time (the last ones overlapping), since every
// string of an archive is checked.
inline bool is_ascii(std::string_view s) {
  const char* p = s.data();
  const std::size_t n = s.size();
  std::uint64_t high = 0;
  if (n >= 8) {
    std::uint64_t w;
    for (std::size_t i = 0; i + 8 <= n; i += 8) {
      std::memcpy(&w, p + i, 8);
      high |= w;
    }
    std::memcpy(&w, p + n - 8, 8);
    high |= w;
  } else if (n >= 4) {
    std::uint32_t a, b;
    std::memcpy(&a, p, 4);
    std::memcpy(&b, p + n - 4, 4);
    high = a | b;
  } else {
    for (std::size_t i = 0; i < n; ++i) high |= static_cast<unsigned char>(p[i]);
  }
  return (high & 0x8080808080808080ull) == 0;
}

enum class Type : std::uint8_t { Null, Bool, Int, Real, Date, Data, AsciiString, Utf16String, Utf8String, Uid, Array, Set, Dict };

struct Item {
  Type type;
  bool flag = false;         // Bool: the value; Int: true when 16-byte; Real: true when 4-byte float
  std::uint64_t count = 0;   // Data/strings: bytes or UTF-16 units; containers: entries (dict: pairs)
  std::uint64_t pos = 0;     // where the payload starts
  std::uint64_t scalar = 0;  // Int: the value's bits (two's complement); Uid: the value; Real/Date: double bits
};

class View {
 public:
  // Checks the header, the trailer and every entry of the offset table.
  static Result<View> open(std::string_view bytes);

  std::uint64_t size() const { return num_objects_; }
  std::uint64_t top() const { return top_; }
  std::string_view bytes() const { return bytes_; }

  // Parses the object's marker and checks that its payload lies inside the object area.
  Result<Item> item(std::uint64_t index) const;
  // The same into `it`, without the error: false when item() would give one. For loops over many
  // objects, where an item kept in a local stays in registers.
  bool item_into(std::uint64_t index, Item& it) const;
  // Quick readings of the commonest objects (checked against the buffer); nothing for any other object,
  // which item() then reads.
  std::optional<std::uint64_t> uid_at(std::uint64_t index) const;        // a UID's value
  std::optional<std::string_view> ascii_at(std::uint64_t index) const;   // an ASCII-marked string's bytes
  // The i-th reference of a container's payload (dict: keys are 0..count-1, values count..2count-1).
  // Checked: a reference beyond the object count is an error.
  Result<std::uint64_t> ref(const Item& container, std::uint64_t i) const;
  // Unchecked variant for callers that validated the object count against every reference already.
  std::uint64_t ref_unchecked(const Item& container, std::uint64_t i) const;
  std::uint64_t ref_unchecked_at(std::uint64_t payload_pos, std::uint64_t i) const;  // the same, by the payload's position

  std::string_view raw(const Item& it) const {  // payload bytes of Data and strings
    std::uint64_t unit = it.type == Type::Utf16String ? 2 : 1;
    return bytes_.substr(it.pos, it.count * unit);
  }
  // The string as UTF-8 (ASCII strings as Latin-1, UTF-16 with unpaired surrogates as U+FFFD).
  std::string text(const Item& it) const;
  // True when the item is a string equal to the ASCII/UTF-8 text.
  bool text_equals(const Item& it, std::string_view text) const;
  double real(const Item& it) const;

 private:
  std::string_view bytes_;
  std::uint64_t num_objects_ = 0, top_ = 0, table_ = 0;
  std::uint8_t offset_size_ = 0, ref_size_ = 0;
  std::uint64_t object_end_ = 0;  // objects lie in [8, object_end_)
  Result<Item> item_slow(std::uint64_t index) const;  // item() of any object
  bool quick_item(std::uint64_t index, Item& it) const;  // item() of the commonest objects; false for others
  std::uint64_t offset(std::uint64_t index) const {
    return detail::be_padded(reinterpret_cast<const unsigned char*>(bytes_.data() + table_ + index * offset_size_),
                             offset_size_);
  }
};

// The quick readings are inline: unarchiving calls them for nearly every object it meets. So is
// item() for strings, UIDs, small containers and integers of up to 8 bytes, giving exactly the item
// item_slow() would; every other object, and every error, is item_slow()'s.
[[gnu::always_inline]] inline bool View::quick_item(std::uint64_t index, Item& it) const {
  if (index >= num_objects_) return false;
  const std::uint64_t o = offset(index);
  const auto* b = reinterpret_cast<const unsigned char*>(bytes_.data());
  const std::uint64_t room = object_end_ - o - 1;  // bytes after the marker (offsets lie below object_end_)
  const unsigned marker = b[o], hi = marker >> 4, lo = marker & 0xf;
  it = Item{};
  switch (hi) {
    case 0x1:
      if (lo <= 3 && (1u << lo) <= room) {
        it.type = Type::Int;
        it.pos = o + 1;
        it.scalar = detail::be(b + o + 1, 1u << lo);
        return true;
      }
      return false;
    case 0x5:
    case 0x6:
    case 0x7: {
      const Type type = hi == 0x5 ? Type::AsciiString : hi == 0x6 ? Type::Utf16String : Type::Utf8String;
      const unsigned unit = hi == 0x6 ? 2 : 1;
      if (lo != 0xf) {
        if (std::uint64_t{lo} * unit > room) return false;
        it.type = type;
        it.count = lo;
        it.pos = o + 1;
        return true;
      }
      // A longer string: its count follows as an integer of 1 to 8 bytes.
      if (room < 1) return false;
      const unsigned m = b[o + 1];
      if ((m >> 4) != 1 || (m & 0xf) > 3) return false;
      const unsigned n = 1u << (m & 0xf);
      if (n > room - 1) return false;
      const std::uint64_t count = detail::be(b + o + 2, n);
      const std::uint64_t left = room - 1 - n;
      if (count > left / unit) return false;
      it.type = type;
      it.count = count;
      it.pos = o + 2 + n;
      return true;
    }
    case 0x8:
      if (lo < 8 && lo + 1u <= room) {
        it.type = Type::Uid;
        it.scalar = detail::be_padded(b + o + 1, lo + 1);
        return true;
      }
      return false;
    case 0xA:
    case 0xC:
    case 0xD:
      if (lo != 0xf && std::uint64_t{lo} * (hi == 0xD ? 2u * ref_size_ : ref_size_) <= room) {
        it.type = hi == 0xA ? Type::Array : hi == 0xC ? Type::Set : Type::Dict;
        it.count = lo;
        it.pos = o + 1;
        return true;
      }
      return false;
    default:
      return false;
  }
}

[[gnu::always_inline]] inline Result<Item> View::item(std::uint64_t index) const {
  Item it;
  if (quick_item(index, it)) return it;
  return item_slow(index);
}

[[gnu::always_inline]] inline bool View::item_into(std::uint64_t index, Item& it) const {
  if (quick_item(index, it)) return true;
  Result<Item> slow = item_slow(index);
  if (!slow) return false;
  it = slow.value();
  return true;
}

inline std::optional<std::uint64_t> View::uid_at(std::uint64_t index) const {
  if (index >= num_objects_) return std::nullopt;
  const std::uint64_t o = offset(index);
  const auto* b = reinterpret_cast<const unsigned char*>(bytes_.data());
  const unsigned marker = b[o];
  const unsigned n = (marker & 0xf) + 1;
  if ((marker >> 4) != 0x8 || n > 8 || n > object_end_ - o - 1) return std::nullopt;
  return detail::be_padded(b + o + 1, n);
}

inline std::optional<std::string_view> View::ascii_at(std::uint64_t index) const {
  if (index >= num_objects_) return std::nullopt;
  const std::uint64_t o = offset(index);
  const unsigned marker = static_cast<unsigned char>(bytes_[o]);
  const unsigned count = marker & 0xf;
  if ((marker >> 4) != 0x5 || count == 0xf || count > object_end_ - o - 1) return std::nullopt;
  return std::string_view(bytes_.data() + o + 1, count);  // inside the buffer: checked above
}

inline std::uint64_t View::ref_unchecked(const Item& c, std::uint64_t i) const { return ref_unchecked_at(c.pos, i); }

inline std::uint64_t View::ref_unchecked_at(std::uint64_t pos, std::uint64_t i) const {
  return detail::be_padded(reinterpret_cast<const unsigned char*>(bytes_.data() + pos + i * ref_size_), ref_size_);
}

// Appends UTF-16BE code units of UTF-8 text; returns false when the text is pure ASCII (nothing added).
bool utf8_to_utf16be(std::string_view utf8, std::string& out, std::uint64_t& units);
void utf16be_to_utf8(std::string_view be, std::string& out);

class Builder {
 public:
  Builder();
  // Reserves an index whose content is set later (containers, so that they precede their children).
  std::uint32_t reserve();
  // Scalars; equal values share one object. Strings and data are copied, so the caller's bytes may
  // go away once added.
  std::uint32_t add_string(std::string_view utf8);
  // Starts loading what add_string(utf8) will look at first, so that a caller about to add several
  // strings waits for memory once rather than once per string. Changes nothing. Gives the string's
  // hash, which add_string may be handed so as not to work it out again.
  std::uint64_t prefetch_string(std::string_view utf8) const {
    const std::uint64_t hash = hash_bytes(utf8);
    prefetch(&strings_.slots[static_cast<std::uint32_t>(hash) & (strings_.slots.size() - 1)]);
    return hash;
  }
  // add_string(utf8), given hash_bytes(utf8).
  std::uint32_t add_string(std::string_view utf8, std::uint64_t hash);
  std::uint32_t add_int(std::int64_t v);
  std::uint32_t add_uint(std::uint64_t v);
  std::uint32_t add_real(double v);
  std::uint32_t add_bool(bool v);
  std::uint32_t add_date(double v);
  std::uint32_t add_data(std::string_view bytes);
  std::uint32_t add_uid(std::uint64_t v);
  std::uint32_t add_null();
  // Containers at a reserved (or new) index; refs are indices of this builder.
  void set_array(std::uint32_t index, const std::uint32_t* refs, std::size_t n, bool is_set = false);
  void set_dict(std::uint32_t index, const std::uint32_t* keys, const std::uint32_t* values, std::size_t n);
  // References several arrays hold alike (the keys of dictionaries of one shape): kept once by the
  // builder, each such array reads the same copy instead of one of its own.
  const std::uint32_t* share_refs(const std::uint32_t* refs, std::size_t n);
  void set_shared_array(std::uint32_t index, const std::uint32_t* shared, std::size_t n);
  // add_uid gives each value below this one object; larger values get one per call.
  static constexpr std::uint64_t kUniqueUids = std::uint64_t{1} << 26;
  std::size_t object_count() const { return objects_.size(); }
  // Receives a file's bytes in order, in pieces.
  class Sink {
   public:
    virtual ~Sink() = default;
    // The file's size, once, before any piece: when the writer knows it up front (one thread), or
    // when the sink wants it (two threads otherwise size each run as they encode it, so that the first
    // pieces leave before the last runs are sized).
    virtual void expect(std::uint64_t total_size) { (void)total_size; }
    virtual bool wants_size() const { return false; }
    virtual bool put(std::string_view piece) = 0;                      // false stops the writing
    // Called once the whole file has been handed over (never when the writing stopped), before the
    // builder's memory is given back: a sink that passes the file on does it here, and the receiver
    // need not wait for that memory to be given back.
    virtual void finished() {}
  };
  // How a file is written: the defaults suit every caller; tests set them to reach every path.
  struct WriteOptions {
    // 0: two threads for a large file on a machine with more than one core (one otherwise); 1 or 2.
    unsigned threads = 0;
    // With two threads, objects are encoded in runs of this many, each into a buffer of its own
    // unless its bytes exceed max_buffered, in which case it is written straight to the sink.
    std::size_t run_objects = std::size_t{1} << 16;
    std::size_t max_buffered = std::size_t{8} << 20;
  };
  // The whole file, with `top` as the top object.
  std::string write(std::uint32_t top) const;
  // The same bytes handed to `sink` in pieces of about a megabyte, so the file need not be in memory
  // beside the builder. False when the sink stopped it.
  bool write_to(std::uint32_t top, Sink& sink) const { return write_to(top, sink, WriteOptions{}); }
  bool write_to(std::uint32_t top, Sink& sink, const WriteOptions& options) const;
  // write_to for a builder written once: its memory goes back to the system as soon as the bytes made
  // from it are handed on, so that a sink holding the file in memory reuses those pages rather than
  // taking new ones. The builder is empty afterwards, whether or not the writing finished.
  bool drain_to(std::uint32_t top, Sink& sink) { return drain_to(top, sink, WriteOptions{}); }
  bool drain_to(std::uint32_t top, Sink& sink, const WriteOptions& options);

 private:
  // One object in 8 bytes: type (4 bits), flag (1), wide (1), count (10), payload (48). Scalars keep
  // their value in the low 58 bits, or, when wide, the address of 8 bytes holding it. Strings, data and
  // containers keep the address of their bytes (strings, data) or refs (containers; dicts: keys then
  // values) and their count, which, when wide, lies in the 8 bytes before that address. Addresses of
  // this process fit in 48 bits on the 64-bit machines it runs on.
  class Obj {
   public:
    static Obj scalar(Type type, bool flag, std::uint64_t value, const char* boxed) {
      return Obj{head(type, flag, boxed != nullptr) |
                 (boxed ? reinterpret_cast<std::uint64_t>(boxed) : value)};
    }
    // `p` points at the bytes or refs; with wide(count) there are 8 bytes before it for the count.
    static Obj counted(Type type, bool flag, const char* p, std::uint64_t count) {
      const bool w = wide(count);
      if (w) std::memcpy(const_cast<char*>(p) - 8, &count, 8);
      return Obj{head(type, flag, w) | (w ? 0 : count << kCountShift) | reinterpret_cast<std::uint64_t>(p)};
    }
    static bool wide(std::uint64_t count) { return count > kMaxCount; }
    static bool fits(std::uint64_t value) { return value < (std::uint64_t{1} << 58); }
    Type type() const { return static_cast<Type>(w_ >> 60); }
    bool flag() const { return (w_ >> 59) & 1; }
    bool is_wide() const { return (w_ >> 58) & 1; }
    const char* ptr() const { return reinterpret_cast<const char*>(w_ & kPayload); }
    std::uint64_t value() const {  // scalars
      if (!is_wide()) return w_ & ((std::uint64_t{1} << 58) - 1);
      std::uint64_t v;
      std::memcpy(&v, ptr(), 8);
      return v;
    }
    std::uint64_t n() const {  // strings, data, containers
      if (!is_wide()) return (w_ >> kCountShift) & kMaxCount;
      std::uint64_t v;
      std::memcpy(&v, ptr() - 8, 8);
      return v;
    }
    std::string_view bytes() const { return {ptr(), static_cast<std::size_t>(n())}; }
    const std::uint32_t* refs() const { return reinterpret_cast<const std::uint32_t*>(ptr()); }

   private:
    static constexpr unsigned kCountShift = 48;
    static constexpr std::uint64_t kMaxCount = 1023, kPayload = (std::uint64_t{1} << kCountShift) - 1;
    static std::uint64_t head(Type type, bool flag, bool wide) {
      return (std::uint64_t(type) << 60) | (std::uint64_t{flag} << 59) | (std::uint64_t{wide} << 58);
    }
    explicit Obj(std::uint64_t w) : w_(w) {}
    std::uint64_t w_;
  };
  static_assert(sizeof(void*) == 8 && sizeof(Obj) == 8);
  // Objects in blocks that never move: no copying as it grows, and no room held beyond one block.
  class Objects {
   public:
    Obj& operator[](std::size_t i) { return reinterpret_cast<Obj*>(blocks_[i >> kShift].get())[i & kMask]; }
    const Obj& operator[](std::size_t i) const {
      return reinterpret_cast<const Obj*>(blocks_[i >> kShift].get())[i & kMask];
    }
    std::size_t size() const { return size_; }
    std::uint32_t push(const Obj& o);
    // Gives back the blocks that hold only objects below `end`; those objects are not read again.
    void release_below(std::size_t end);

   private:
    static constexpr unsigned kShift = 17;
    static constexpr std::size_t kMask = (std::size_t{1} << kShift) - 1;
    std::vector<ResidentBlock> blocks_;  // one resident block per (kMask + 1) objects
    std::size_t size_ = 0;
  };
  // Owns the bytes of strings and data and the references of containers (large blocks, never moved),
  // each allocation for one object, its owner.
  class Arena {
   public:
    char* allocate(std::size_t size, std::size_t align, std::uint32_t owner);
    std::string_view copy(std::string_view bytes, std::uint32_t owner);
    // Gives back the blocks whose owners are all below `end`; their bytes are not read again.
    void release_below(std::uint32_t end);

   private:
    struct Block {
      ResidentBlock bytes;
      std::uint32_t last_owner = 0;  // the highest owner of anything in it
    };
    struct Large {
      std::unique_ptr<char[]> bytes;
      std::uint32_t owner = 0;
    };
    std::vector<Block> blocks_;
    std::vector<Large> large_;
    std::size_t released_ = 0;  // blocks_[0, released_) are all given back
    char* next_ = nullptr;
    std::size_t left_ = 0;
  };
  // Open-addressing table of byte strings already added (strings and data apart): slot -> index + 1.
  struct BytesTable {
    struct Slot {
      std::uint32_t index_plus_one = 0;
      std::uint32_t hash = 0;  // the low 32 bits of the bytes' hash: the slot, and compared first
    };
    std::vector<Slot, PrefaultAllocator<Slot>> slots = std::vector<Slot, PrefaultAllocator<Slot>>(64);
    std::size_t used = 0;
  };
  std::uint32_t add_bytes(BytesTable& table, std::string_view bytes, std::uint64_t hash, Type type, bool ascii);
  std::uint32_t push(Obj o);
  Obj scalar(Type type, bool flag, std::uint64_t bits);  // its value boxed in the arena when too wide
  std::uint64_t encoded_size(const Obj& o, unsigned ref_size) const;
  // Objects [begin, end) encoded at p, which has room for all of them; the end of what was written.
  char* encode_objects(std::size_t begin, std::size_t end, unsigned ref_size, char* p) const;
  // Objects [begin, end) handed to a piece writer; objects larger than its buffer go in several pieces.
  template <class Writer>
  void stream_objects(std::size_t begin, std::size_t end, unsigned ref_size, Writer& w) const;
  // Offset-table entries of objects [begin, end), the first object lying at `offset` (advanced past
  // the last); written at p, or handed to a piece writer. `sizes`, when given, holds the objects'
  // encoded sizes, worked out before (the objects themselves may be gone).
  char* encode_offsets(std::size_t begin, std::size_t end, std::uint64_t& offset, unsigned offset_size,
                       unsigned ref_size, const std::uint32_t* sizes, char* p) const;
  template <class Writer>
  void stream_offsets(std::size_t begin, std::size_t end, std::uint64_t offset, unsigned offset_size,
                      unsigned ref_size, const std::uint32_t* sizes, Writer& w) const;
  bool write_any(std::uint32_t top, Sink& sink, const WriteOptions& options, Builder* drain) const;
  bool write_serial(std::uint32_t top, Sink& sink, unsigned ref_size) const;
  // With `drain`, the builder's memory is given back as the pieces made from it are handed on.
  bool write_parallel(std::uint32_t top, Sink& sink, unsigned ref_size, const WriteOptions& options,
                      Builder* drain) const;
  // The bytes by which equal values are found: a string's UTF-8. A non-ASCII string's own bytes are
  // its UTF-16BE form (what is written), with its UTF-8 bytes stored before them.
  static std::string_view utf8_of(const Obj& o);
  void set_container(std::uint32_t index, Type type, const std::uint32_t* first, const std::uint32_t* second,
                     std::size_t n);
  Objects objects_;
  Arena arena_;
  BytesTable strings_, datas_;
  // Open-addressing table of scalars already added, by their 64-bit pattern: pattern -> index.
  struct ScalarTable {
    struct Slot {
      std::uint64_t bits = 0;
      std::uint32_t index_plus_one = 0;
    };
    std::vector<Slot, PrefaultAllocator<Slot>> slots = std::vector<Slot, PrefaultAllocator<Slot>>(64);
    std::size_t used = 0;
  };
  std::uint32_t add_scalar(ScalarTable& table, Type type, std::uint8_t flag, std::uint64_t bits);
  ScalarTable ints_, reals_, dates_, uints_;
  // Small integers (type codes, sizes, counts) by value, index + 1: most integers of an archive are
  // among them, and the table of all integers is large and cold.
  static constexpr std::int64_t kSmallInts = 1024;
  std::uint32_t small_ints_[kSmallInts] = {};
  std::vector<std::uint32_t, PrefaultAllocator<std::uint32_t>> uids_;  // uid value -> index + 1
  std::vector<std::unique_ptr<std::uint32_t[]>> shared_refs_;        // what share_refs keeps
  std::uint32_t bools_[2] = {0, 0}, null_ = 0;
};

}  // namespace orvia::bplist
