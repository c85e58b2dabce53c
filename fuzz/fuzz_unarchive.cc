// The keyed unarchiver with the record and sidebar classes registered: any bytes decode or fail; what
// decodes prints its description, archives again, and that archive must decode and archive once more.
#include <cstdint>
#include <string>

#include "fuzz_common.h"
#include "outline/outline_folder_item.h"
#include "platform/description.h"
#include "platform/keyed_archive.h"
#include "records/records.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvia::fuzz::quiet_log();
  orvia::register_record_classes();
  orvia::register_outline_classes();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace orvia;
  fuzz::with_heap([&] {
    Result<Ref<Object>> root = unarchive(fuzz::bytes_of(data, size));
    if (!root.ok()) return;
    (void)description(root.value().get());
    std::string archived = archive_root(root.value());
    Result<Ref<Object>> again = unarchive(archived);
    if (!again.ok()) fuzz::fail("a re-archived object graph does not decode", again.error().message);
    (void)description(again.value().get());
    (void)archive_root(again.value());
  });
  return 0;
}
