// The conversion of a stored media record: the bytes stand for the store's `dictionary` attribute.
// Decoding fails or gives a dictionary, which converts (a failure converts as an empty record); the
// converted record is printed and archived, as the reply carries it.
#include <cstdint>
#include <string>

#include "fuzz_common.h"
#include "legacy/media_conversion.h"
#include "platform/description.h"
#include "platform/keyed_archive.h"
#include "outline/outline_folder_item.h"
#include "records/records.h"

namespace {

// A one-item list whose item reaches the archiver through a stream, as album media do.
class StreamedOne final : public orvia::Record {
 public:
  orvia::Ref<orvia::Object> object;
  const orvia::FlatGraph* graph = nullptr;
  orvia::FlatGraph::Node root = orvia::FlatGraph::kNone;
  static constexpr std::string_view kChain[] = {"NSMutableArray", "NSArray", "NSObject"};
  std::span<const std::string_view> class_chain() const override { return kChain; }
  void encode_with_coder(orvia::KeyedEncoder& coder) const override {
    coder.encode_object_stream("NS.objects", [this](const orvia::KeyedEncoder::ObjectSink& sink) {
      if (graph) {
        sink.graph(*graph, root);
      } else {
        sink(object);
      }
    });
  }
  void init_with_coder(orvia::KeyedDecoder&) override {}
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvia::fuzz::quiet_log();
  // As the service has them while it converts media.
  orvia::register_record_classes();
  orvia::register_outline_classes();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace orvia;
  fuzz::with_heap([&] {
    std::string_view bytes = fuzz::bytes_of(data, size);
    Result<Ref<Dictionary>> stored = decode_media_record(bytes);
    Ref<Dictionary> converted = convertedDictionary(stored.ok() ? stored.value().get() : nullptr);
    if (!converted) fuzz::fail("convertedDictionary gave nil");
    (void)description(converted.get());
    std::string archived = archive_root(converted.get());
    if (!unarchive(archived).ok()) fuzz::fail("a converted record does not archive");
    // Reading only the values taken gives the very same record (sharing included) or declines.
    if (std::optional<Ref<Dictionary>> quick = convertedDictionaryByLookup(bytes)) {
      if (!stored.ok()) fuzz::fail("the lookup read an archive that does not decode");
      if (archive_root(quick->get()) != archived) fuzz::fail("the lookup converted differently");
    }
    // The entry point the album builder uses (decoding again, logging a failure).
    (void)convertedDictionaryFromArchive(&bytes, "x-coredata://fuzz/ImageItem/p1");
    // The album lists' form: a graph, where it can be read so, is written as the converted objects are.
    FlatGraph graph;
    FlatGraph::Node root;
    std::string unreadable;
    if (!convertedMediaFromArchive(&bytes, &unreadable, graph, root)) {
      auto as_graph = make<StreamedOne>(), as_object = make<StreamedOne>();
      as_graph->graph = &graph;
      as_graph->root = root;
      as_object->object = converted;
      if (archive_root(as_graph.get()) != archive_root(as_object.get())) fuzz::fail("the graph was written differently");
    }
  });
  return 0;
}
