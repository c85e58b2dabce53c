// Media records as the old client stored them (keyed archives of its dictionaries, made by the sample
// generator for the heavy profile), converted to the newer form: the conversion is the largest single
// share of an import's work, run once per stored record.
//
//   media_conversion_bench       the Google Benchmark table (records per second)
#include <benchmark/benchmark.h>

#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "legacy/media_conversion.h"
#include "platform/flat_graph.h"
#include "platform/keyed_archive.h"
#include "platform/object.h"
#include "tools/sample_plan.h"

namespace orvia {
namespace {

const std::vector<std::string>& records() {
  static const std::vector<std::string> made = [] {
    tools::SampleOptions options;
    options.profile = tools::Profile::Heavy;
    options.scale = 0.05;
    const tools::Plan plan = tools::make_plan(options);
    std::vector<std::string> out;
    for (const tools::MediaPlan& item : plan.media) {
      Heap heap;
      HeapScope scope(heap);
      out.push_back(archive_root(tools::media_record(plan, item).get()));
    }
    return out;
  }();
  return made;
}

// The graph of each record's conversion, read through the lookup (what the import does for every
// well-formed record).
// Argument: how many records are converted in turn (a few hundred stay in the cache, as the import's
// window of records just read does; all of them do not).
void BM_ConvertByLookup(benchmark::State& state) {
  const std::span<const std::string> in(records().data(), std::min<std::size_t>(records().size(), state.range(0)));
  FlatGraph graph;
  FlatGraph::Node root;
  std::size_t bytes = 0;
  for (auto _ : state) {
    for (const std::string& r : in) {
      benchmark::DoNotOptimize(convertedGraphByLookup(r, graph, root));
      bytes += r.size();
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * in.size()));
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

// The check alone that a record passes before its values are read through the lookup (about half
// of converting it).
void BM_LookupCheck(benchmark::State& state) {
  const std::span<const std::string> in(records().data(), std::min<std::size_t>(records().size(), state.range(0)));
  for (auto _ : state) {
    for (const std::string& r : in) {
      KeyedArchiveLookup lookup(r);
      benchmark::DoNotOptimize(lookup.usable());
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * in.size()));
}

// The same records decoded whole and converted from their objects (what a record the lookup cannot
// read takes).
void BM_ConvertDecodedWhole(benchmark::State& state) {
  const std::span<const std::string> in(records().data(), std::min<std::size_t>(records().size(), state.range(0)));
  for (auto _ : state) {
    for (const std::string& r : in) {
      Heap heap;
      HeapScope scope(heap);
      auto decoded = decode_media_record(r);
      if (decoded.ok()) benchmark::DoNotOptimize(convertedDictionary(decoded.value().get()));
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * in.size()));
}

// The converted graphs of every record archived in one list, as an album's media are streamed into
// the reply: the archiver's share of the work (the archive is built, not written).
class GraphList final : public Record {
 public:
  std::vector<FlatGraph> graphs;
  std::vector<FlatGraph::Node> roots;
  static constexpr std::string_view kChain[] = {"NSMutableArray", "NSArray", "NSObject"};
  std::span<const std::string_view> class_chain() const override { return kChain; }
  void encode_with_coder(KeyedEncoder& coder) const override {
    coder.encode_object_stream("NS.objects", [this](const KeyedEncoder::ObjectSink& sink) {
      for (std::size_t i = 0; i < graphs.size(); ++i) sink.graph(graphs[i], roots[i]);
    });
  }
  void init_with_coder(KeyedDecoder&) override {}
};

void BM_ArchiveConvertedGraphs(benchmark::State& state) {
  auto list = make<GraphList>();
  for (const std::string& r : records()) {
    FlatGraph graph;
    FlatGraph::Node root;
    if (!convertedGraphByLookup(r, graph, root)) continue;
    list->graphs.push_back(std::move(graph));
    list->roots.push_back(root);
  }
  for (auto _ : state) benchmark::DoNotOptimize(build_archive(list.get()));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * list->graphs.size()));
}

BENCHMARK(BM_ConvertByLookup)->Arg(256)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LookupCheck)->Arg(256)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConvertDecodedWhole)->Arg(256)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ArchiveConvertedGraphs)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace orvia

BENCHMARK_MAIN();
