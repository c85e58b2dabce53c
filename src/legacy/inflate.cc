#include "legacy/inflate.h"

#include <array>
#include <cstdint>
#include <vector>

namespace orvia {
namespace {

constexpr int kMaxBits = 15;        // longest Huffman code
constexpr int kMaxLengthCodes = 286;
constexpr int kMaxDistanceCodes = 30;
constexpr int kFixedLengthCodes = 288;

constexpr std::array<std::uint16_t, 29> kLengthBase = {3,  4,  5,  6,  7,  8,  9,  10, 11,  13,
                                                       15, 17, 19, 23, 27, 31, 35, 43, 51,  59,
                                                       67, 83, 99, 115, 131, 163, 195, 227, 258};
constexpr std::array<std::uint8_t, 29> kLengthExtra = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                                       2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr std::array<std::uint16_t, 30> kDistanceBase = {
    1,   2,   3,   4,   5,   7,    9,    13,   17,   25,   33,   49,   65,    97,    129,
    193, 257, 385, 513, 769, 1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
constexpr std::array<std::uint8_t, 30> kDistanceExtra = {0, 0, 0, 0, 1, 1, 2, 2,  3,  3,  4,  4,  5,  5,  6,
                                                         6, 7, 7, 8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13};
constexpr std::array<std::uint8_t, 19> kCodeLengthOrder = {16, 17, 18, 0, 8,  7, 9,  6, 10, 5,
                                                           11, 4,  12, 3, 13, 2, 14, 1, 15};

// A canonical Huffman code: how many codes have each length, and the symbols ordered by code.
struct Huffman {
  std::array<std::uint16_t, kMaxBits + 1> count{};
  std::vector<std::uint16_t> symbol;
};

// Builds the code from per-symbol lengths. Returns 0 for a complete code, a positive number for an
// incomplete one, a negative number for an over-subscribed one.
int build(Huffman& h, const std::uint8_t* lengths, int n) {
  h.count.fill(0);
  for (int s = 0; s < n; ++s) ++h.count[lengths[s]];
  if (h.count[0] == n) return 0;  // no codes: complete, but decoding anything fails
  int left = 1;
  for (int len = 1; len <= kMaxBits; ++len) {
    left <<= 1;
    left -= h.count[len];
    if (left < 0) return left;
  }
  std::array<std::uint16_t, kMaxBits + 1> offs{};
  for (int len = 1; len < kMaxBits; ++len) offs[len + 1] = offs[len] + h.count[len];
  h.symbol.assign(static_cast<std::size_t>(n), 0);
  for (int s = 0; s < n; ++s) {
    if (lengths[s] != 0) h.symbol[offs[lengths[s]]++] = static_cast<std::uint16_t>(s);
  }
  return left;
}

class Inflater {
 public:
  Inflater(std::string_view in, std::size_t max_output) : in_(in), max_(max_output) {}

  Result<std::string> run() {
    bool last = false;
    while (!last) {
      std::uint32_t v;
      if (!bits(1, v)) return fail();
      last = v != 0;
      if (!bits(2, v)) return fail();
      bool ok = false;
      switch (v) {
        case 0: ok = stored(); break;
        case 1: ok = fixed(); break;
        case 2: ok = dynamic(); break;
        default: error_ = "invalid block type 3"; break;
      }
      if (!ok) return fail();
    }
    return std::move(out_);
  }

 private:
  Error fail() const { return Error{"deflate: " + error_ + " at input offset " + std::to_string(pos_)}; }

  bool bits(int need, std::uint32_t& value) {
    std::uint64_t val = bitbuf_;
    while (bitcnt_ < need) {
      if (pos_ >= in_.size()) {
        error_ = "input ends inside a block";
        return false;
      }
      val |= static_cast<std::uint64_t>(static_cast<std::uint8_t>(in_[pos_++])) << bitcnt_;
      bitcnt_ += 8;
    }
    bitbuf_ = val >> need;
    bitcnt_ -= need;
    value = static_cast<std::uint32_t>(val & ((std::uint64_t{1} << need) - 1));
    return true;
  }

  bool room(std::size_t n) {
    if (n > max_ - out_.size()) {
      error_ = "output exceeds " + std::to_string(max_) + " bytes";
      return false;
    }
    return true;
  }

  bool stored() {
    bitbuf_ = 0;
    bitcnt_ = 0;
    if (in_.size() - pos_ < 4) {
      error_ = "stored block header cut short";
      return false;
    }
    auto byte = [&](std::size_t i) { return static_cast<unsigned>(static_cast<std::uint8_t>(in_[pos_ + i])); };
    unsigned len = byte(0) | (byte(1) << 8);
    unsigned nlen = byte(2) | (byte(3) << 8);
    if (len != (~nlen & 0xffffu)) {
      error_ = "stored block length and its complement disagree";
      return false;
    }
    pos_ += 4;
    if (in_.size() - pos_ < len) {
      error_ = "stored block cut short";
      return false;
    }
    if (!room(len)) return false;
    out_.append(in_.data() + pos_, len);
    pos_ += len;
    return true;
  }

  bool decode(const Huffman& h, int& symbol) {
    int code = 0, first = 0, index = 0;
    for (int len = 1; len <= kMaxBits; ++len) {
      std::uint32_t b;
      if (!bits(1, b)) return false;
      code |= static_cast<int>(b);
      int count = h.count[len];
      if (code - count < first) {
        symbol = h.symbol[static_cast<std::size_t>(index + (code - first))];
        return true;
      }
      index += count;
      first += count;
      first <<= 1;
      code <<= 1;
    }
    error_ = "invalid Huffman code";
    return false;
  }

  bool codes(const Huffman& lencode, const Huffman& distcode) {
    for (;;) {
      int symbol;
      if (!decode(lencode, symbol)) return false;
      if (symbol < 256) {
        if (!room(1)) return false;
        out_.push_back(static_cast<char>(symbol));
        continue;
      }
      if (symbol == 256) return true;
      symbol -= 257;
      if (symbol >= static_cast<int>(kLengthBase.size())) {
        error_ = "invalid length code";
        return false;
      }
      std::uint32_t extra;
      if (!bits(kLengthExtra[symbol], extra)) return false;
      std::size_t len = kLengthBase[symbol] + extra;
      int dsym;
      if (!decode(distcode, dsym)) return false;
      if (dsym >= static_cast<int>(kDistanceBase.size())) {
        error_ = "invalid distance code";
        return false;
      }
      if (!bits(kDistanceExtra[dsym], extra)) return false;
      std::size_t dist = kDistanceBase[dsym] + extra;
      if (dist > out_.size()) {
        error_ = "distance reaches before the start of the output";
        return false;
      }
      if (!room(len)) return false;
      std::size_t from = out_.size() - dist;
      for (std::size_t i = 0; i < len; ++i) out_.push_back(out_[from + i]);  // may overlap itself
    }
  }

  bool fixed() {
    static const auto tables = [] {
      std::array<std::uint8_t, kFixedLengthCodes + kMaxDistanceCodes> lengths{};
      int s = 0;
      for (; s < 144; ++s) lengths[s] = 8;
      for (; s < 256; ++s) lengths[s] = 9;
      for (; s < 280; ++s) lengths[s] = 7;
      for (; s < kFixedLengthCodes; ++s) lengths[s] = 8;
      for (; s < kFixedLengthCodes + kMaxDistanceCodes; ++s) lengths[s] = 5;
      std::pair<Huffman, Huffman> t;
      build(t.first, lengths.data(), kFixedLengthCodes);
      build(t.second, lengths.data() + kFixedLengthCodes, kMaxDistanceCodes);
      return t;
    }();
    return codes(tables.first, tables.second);
  }

  bool dynamic() {
    std::uint32_t v;
    if (!bits(5, v)) return false;
    int nlen = static_cast<int>(v) + 257;
    if (!bits(5, v)) return false;
    int ndist = static_cast<int>(v) + 1;
    if (!bits(4, v)) return false;
    int ncode = static_cast<int>(v) + 4;
    if (nlen > kMaxLengthCodes || ndist > kMaxDistanceCodes) {
      error_ = "too many length or distance codes";
      return false;
    }
    std::array<std::uint8_t, kMaxLengthCodes + kMaxDistanceCodes> lengths{};
    for (int i = 0; i < ncode; ++i) {
      if (!bits(3, v)) return false;
      lengths[kCodeLengthOrder[i]] = static_cast<std::uint8_t>(v);
    }
    Huffman lencode, distcode;
    if (build(lencode, lengths.data(), 19) != 0) {
      error_ = "incomplete code-length code";
      return false;
    }
    lengths.fill(0);
    int index = 0;
    while (index < nlen + ndist) {
      int symbol;
      if (!decode(lencode, symbol)) return false;
      if (symbol < 16) {
        lengths[index++] = static_cast<std::uint8_t>(symbol);
        continue;
      }
      std::uint8_t len = 0;
      int repeat;
      if (symbol == 16) {
        if (index == 0) {
          error_ = "repeat with no previous length";
          return false;
        }
        len = lengths[index - 1];
        if (!bits(2, v)) return false;
        repeat = 3 + static_cast<int>(v);
      } else if (symbol == 17) {
        if (!bits(3, v)) return false;
        repeat = 3 + static_cast<int>(v);
      } else {
        if (!bits(7, v)) return false;
        repeat = 11 + static_cast<int>(v);
      }
      if (index + repeat > nlen + ndist) {
        error_ = "too many code lengths";
        return false;
      }
      while (repeat-- > 0) lengths[index++] = len;
    }
    if (lengths[256] == 0) {
      error_ = "no end-of-block code";
      return false;
    }
    // An incomplete code is allowed only when it is a single code of length 1.
    int err = build(lencode, lengths.data(), nlen);
    if (err < 0 || (err > 0 && nlen != lencode.count[0] + lencode.count[1])) {
      error_ = "invalid literal/length code lengths";
      return false;
    }
    err = build(distcode, lengths.data() + nlen, ndist);
    if (err < 0 || (err > 0 && ndist != distcode.count[0] + distcode.count[1])) {
      error_ = "invalid distance code lengths";
      return false;
    }
    return codes(lencode, distcode);
  }

  std::string_view in_;
  std::size_t pos_ = 0;
  std::uint64_t bitbuf_ = 0;
  int bitcnt_ = 0;
  std::size_t max_;
  std::string out_;
  std::string error_;
};

}  // namespace

Result<std::string> inflate_raw(std::string_view compressed, std::size_t max_output) {
  return Inflater(compressed, max_output).run();
}

}  // namespace orvia
