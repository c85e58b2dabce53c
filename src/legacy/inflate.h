// Raw DEFLATE (RFC 1951, no zlib or gzip wrapper) decoding, for the compressed object model that a
// Core Data store keeps in Z_MODELCACHE. Small and careful rather than fast: the input is a few
// kilobytes. Every length, distance and code is checked; the output is bounded.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/result.h"

namespace orvia {

// The decompressed bytes, or an Error naming the failed check and the input offset. Output beyond
// `max_output` bytes is an error (a bomb), not a truncation.
Result<std::string> inflate_raw(std::string_view compressed, std::size_t max_output = 64u << 20);

}  // namespace orvia
