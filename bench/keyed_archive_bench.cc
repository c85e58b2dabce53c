// Keyed archives of about a million objects, shaped like the reply (album nodes holding media
// dictionaries): encoding and decoding throughput, and libplist reading and writing the same bytes.
//
//   keyed_archive_bench                      the Google Benchmark table (MB/s of archive bytes)
//   keyed_archive_bench --peak=encode|decode|libplist-read
//                                             one operation in a fresh process, printing its peak
//                                             memory (VmHWM) against the archive size
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include <plist/plist.h>

#include "platform/keyed_archive.h"
#include "platform/plist.h"

namespace orvia {
namespace {

// One media dictionary in the newer form: 24 keys, nested records, about 45 archived objects.
Ref<Object> media(int i) {
  auto user = mutable_dict({{"pk", str(std::to_string(1000 + i % 97))},
                            {"username", str("user" + std::to_string(i % 97))},
                            {"full_name", str("Full Name " + std::to_string(i % 97))},
                            {"profile_pic_url", str("https://pics.example/u/" + std::to_string(i % 97) + ".jpg")},
                            {"is_private", boolean(false)}});
  auto candidates = array({mutable_dict({{"width", num(640)}, {"height", num(640)},
                                         {"url", str("https://media.example/s/" + std::to_string(i) + ".jpg")}}),
                           mutable_dict({{"width", num(320)}, {"height", num(320)},
                                         {"url", str("https://media.example/l/" + std::to_string(i) + ".jpg")}})});
  std::string id = std::to_string(900000000 + i) + "_" + std::to_string(1000 + i % 97);
  auto caption = mutable_dict({{"pk", str(std::to_string(7000000 + i))}, {"user_id", str(std::to_string(1000 + i % 97))},
                               {"text", str("Caption number " + std::to_string(i) + " #tag")}, {"type", num(1)},
                               {"created_at", str(std::to_string(1400000000 + i))},
                               {"created_at_utc", str(std::to_string(1400000000 + i))}, {"content_type", str("comment")},
                               {"status", str("Active")}, {"bit_flags", num(0)}, {"user", user},
                               {"did_report_as_spam", boolean(false)}, {"media_id", str(std::to_string(900000000 + i))},
                               {"caption_is_edited", boolean(false)}});
  return mutable_dict({{"taken_at", str(std::to_string(1400000000 + i))}, {"id", str(id)},
                       {"pk", str(std::to_string(900000000 + i))}, {"device_timestamp", str(std::to_string(1400000000 + i))},
                       {"media_type", num(1)}, {"code", str(std::string("C").append(std::to_string(i)))}, {"filter_type", num(0)},
                       {"image_versions2", mutable_dict({{"candidates", candidates}})}, {"original_width", num(640)},
                       {"original_height", num(640)}, {"user", user}, {"caption", caption},
                       {"like_count", num(i % 500)}, {"has_liked", boolean(i % 3 == 0)}, {"likers", mutable_array()},
                       {"comment_likes_enabled", boolean(false)}, {"comment_threading_enabled", boolean(false)},
                       {"has_more_comments", boolean(false)}, {"max_num_visible_preview_comments", num(0)},
                       {"preview_comments", mutable_array()}, {"comment_count", num(i % 40)},
                       {"photo_of_you", boolean(false)}, {"can_viewer_save", boolean(true)},
                       {"converted_from_orvia4", boolean(true)}});
}

Ref<Object> million_object_graph() {
  auto albums = mutable_array();
  const int kMedia = 24000;  // about 42 archived objects each
  for (int a = 0; a < kMedia / 100; ++a) {
    auto items = mutable_array();
    for (int i = 0; i < 100; ++i) items->push_back(media(a * 100 + i));
    albums->push_back(mutable_dict({{"albumName", str("Album " + std::to_string(a))}, {"items", items}}));
  }
  return albums;
}

const std::string& archive_bytes() {
  static const std::string bytes = [] {
    Heap heap;
    HeapScope scope(heap);
    return archive_root(million_object_graph().get());
  }();
  return bytes;
}

std::size_t archive_object_count() {
  static const std::size_t n = [] {
    Heap heap;
    HeapScope scope(heap);
    auto plist = read_binary_plist(archive_bytes());
    return as_array(as_dict(plist.value().get())->get("$objects"))->size();
  }();
  return n;
}

void BM_Encode(benchmark::State& state) {
  Heap heap;
  HeapScope scope(heap);
  Ref<Object> graph = million_object_graph();
  std::size_t size = 0;
  for (auto _ : state) {
    std::string bytes = archive_root(graph.get());
    size = bytes.size();
    benchmark::DoNotOptimize(bytes);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
  state.counters["objects"] = static_cast<double>(archive_object_count());
  state.counters["archive_MB"] = static_cast<double>(size) / 1e6;
}

void BM_Decode(benchmark::State& state) {
  const std::string& bytes = archive_bytes();
  for (auto _ : state) {
    Heap heap;
    HeapScope scope(heap);
    auto root = unarchive(bytes);
    benchmark::DoNotOptimize(root);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void BM_PlistReadOurs(benchmark::State& state) {
  const std::string& bytes = archive_bytes();
  for (auto _ : state) {
    Heap heap;
    HeapScope scope(heap);
    auto root = read_binary_plist(bytes);
    benchmark::DoNotOptimize(root);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void BM_PlistWriteOurs(benchmark::State& state) {
  Heap heap;
  HeapScope scope(heap);
  Ref<Object> plist = read_binary_plist(archive_bytes()).value();
  std::size_t size = 0;
  for (auto _ : state) {
    auto out = write_binary_plist(plist.get());
    size = out->size();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void BM_LibplistRead(benchmark::State& state) {
  const std::string& bytes = archive_bytes();
  for (auto _ : state) {
    plist_t p = nullptr;
    plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &p);
    benchmark::DoNotOptimize(p);
    plist_free(p);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void BM_LibplistWrite(benchmark::State& state) {
  const std::string& bytes = archive_bytes();
  plist_t p = nullptr;
  plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &p);
  uint32_t len = 0;
  for (auto _ : state) {
    char* out = nullptr;
    plist_to_bin(p, &out, &len);
    benchmark::DoNotOptimize(out);
    free(out);
  }
  plist_free(p);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}

BENCHMARK(BM_Encode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlistReadOurs)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlistWriteOurs)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LibplistRead)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LibplistWrite)->Unit(benchmark::kMillisecond);

long peak_kb() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  return 0;
}

int peak_mode(const std::string& mode) {
  // The archive is made in a child of this measurement: write it to a file first, then re-run.
  const char* path = "/tmp/orvia-keyed-archive-bench.bin";
  if (mode == "prepare") {
    std::ofstream(path, std::ios::binary) << archive_bytes();
    return 0;
  }
  std::ifstream in(path, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (bytes.empty()) {
    std::fprintf(stderr, "run with --peak=prepare first\n");
    return 1;
  }
  long before = peak_kb();
  if (mode == "decode") {
    Heap heap;
    HeapScope scope(heap);
    auto root = unarchive(bytes);
    if (!root) return 1;
  } else if (mode == "encode") {
    Heap heap;
    HeapScope scope(heap);
    auto root = unarchive(bytes);
    long graph = peak_kb();
    std::string again = archive_root(root.value().get());
    std::printf("graph in memory: %ld MB; ", (graph - before) / 1024);
  } else if (mode == "libplist-read") {
    plist_t p = nullptr;
    plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &p);
    plist_free(p);
  }
  std::printf("%s: archive %.1f MB, peak above start %ld MB (%.2fx the archive)\n", mode.c_str(),
              static_cast<double>(bytes.size()) / 1e6, (peak_kb() - before) / 1024,
              static_cast<double>(peak_kb() - before) * 1024.0 / static_cast<double>(bytes.size()));
  return 0;
}

}  // namespace
}  // namespace orvia

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--peak=", 7) == 0) return orvia::peak_mode(argv[i] + 7);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
