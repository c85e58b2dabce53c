// XML property lists (through libplist): reading any bytes; what reads must write as a binary property
// list that reads back equal, and must write as XML again.
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
    Result<Ref<Object>> read = read_xml_plist(fuzz::bytes_of(data, size));
    if (!read.ok()) return;
    const Object* root = read.value().get();
    (void)description(root);
    Result<std::string> binary = write_binary_plist(root);
    if (binary.ok()) {
      Result<Ref<Object>> again = read_binary_plist(binary.value());
      if (!again.ok()) fuzz::fail("binary form of an XML property list does not read back", again.error().message);
      if (!deep_equal(root, again.value().get())) fuzz::fail("XML property list changed through the binary form");
    }
    Result<std::string> xml = write_xml_plist(root);
    if (xml.ok()) {
      Result<Ref<Object>> again = read_xml_plist(xml.value());
      if (!again.ok()) fuzz::fail("written XML property list does not read back", again.error().message);
    }
  });
  return 0;
}
