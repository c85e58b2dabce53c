// Shared by the fuzz targets: one object heap per input, a quiet log, and checks that stop the run.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/log.h"
#include "platform/object.h"

namespace orvia::fuzz {

inline std::string_view bytes_of(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Runs `body` with a new heap current, so that everything made for one input, cycles included, is
// freed before the next input (LeakSanitizer sees what a heap could not free).
template <class Body>
void with_heap(Body&& body) {
  Heap heap;
  HeapScope scope(heap);
  body();
}

// A broken invariant: report it and abort, which the fuzzer records as a crash.
[[noreturn]] inline void fail(std::string_view what, std::string_view detail = {}) {
  std::string line = "fuzz check failed: ";
  line.append(what);
  if (!detail.empty()) line.append(": ").append(detail);
  line += '\n';
  std::fputs(line.c_str(), stderr);
  std::abort();
}

// Millions of inputs would otherwise each print their "undecodable ..." line.
inline void quiet_log() { set_log_to_stderr(false); }

}  // namespace orvia::fuzz
