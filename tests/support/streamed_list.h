// A list whose items reach the archiver through a stream, as album media do: objects, or graphs that
// the archiver writes without their objects. Archiving one against the same items as objects shows
// whether a graph is written exactly as its objects are.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/flat_graph.h"
#include "platform/keyed_archive.h"

namespace orvia::test {

class StreamedList final : public Record {
 public:
  struct Item {
    Ref<Object> object;
    const FlatGraph* graph = nullptr;  // when set: this graph's `root`
    FlatGraph::Node root = FlatGraph::kNone;
  };
  std::vector<Item> items;
  int depth = 0;  // wrapped in this many more lists before the stream

  static constexpr std::string_view kChain[] = {"NSMutableArray", "NSArray", "NSObject"};
  std::span<const std::string_view> class_chain() const override { return kChain; }
  void encode_with_coder(KeyedEncoder& coder) const override {
    coder.encode_object_stream("NS.objects", [this](const KeyedEncoder::ObjectSink& sink) {
      for (const Item& item : items) {
        if (item.graph) {
          sink.graph(*item.graph, item.root);
        } else {
          sink(item.object);
        }
      }
    });
  }
  void init_with_coder(KeyedDecoder&) override {}
};

// The archive of a streamed list of `items`, below `depth` plain lists.
inline std::string archive_streamed(std::vector<StreamedList::Item> items, int depth = 0) {
  auto list = make<StreamedList>();
  list->items = std::move(items);
  Ref<Object> root = list;
  for (int i = 0; i < depth; ++i) root = make<Array>(std::vector<Ref<Object>>{root}, false);
  return archive_root(root.get());
}

}  // namespace orvia::test
