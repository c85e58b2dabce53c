// Binary property lists: reading any bytes, and for what reads, writing it back and reading that
// again must give an equal value tree; a second write must give the same bytes as the first.
#include <cstdint>
#include <string>

#include "fuzz_common.h"
#include "platform/description.h"
#include "platform/plist.h"
#include "platform/value.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvia::fuzz::quiet_log();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace orvia;
  fuzz::with_heap([&] {
    Result<Ref<Object>> read = read_binary_plist(fuzz::bytes_of(data, size));
    if (!read.ok()) return;
    const Object* root = read.value().get();
    (void)description(root);
    Result<std::string> written = write_binary_plist(root);
    if (!written.ok()) return;  // holds something a property list cannot (a UID's stand-in is fine)
    Result<Ref<Object>> again = read_binary_plist(written.value());
    if (!again.ok()) fuzz::fail("written property list does not read back", again.error().message);
    if (!deep_equal(root, again.value().get())) fuzz::fail("property list changed through a write and a read");
    Result<std::string> rewritten = write_binary_plist(again.value().get());
    if (!rewritten.ok()) fuzz::fail("a property list read back cannot be written", rewritten.error().message);
    if (rewritten.value() != written.value()) fuzz::fail("writing a property list read back gives other bytes");
  });
  return 0;
}
