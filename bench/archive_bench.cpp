// The keyed-archive codec on the message the service sends most: a report of
// 100 size records, an array of 100 dictionaries each holding an index path
// under "QXIndexPath" and a size record under "QXFileSizeItem" (about 300
// archived objects). The codec must encode and decode it in well under 50 us.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "platform/archive/BinaryPlist.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/Foundation.h"

#ifdef QX_BENCH_LIBPLIST
#include <plist/plist.h>
#endif

namespace {

using namespace qx;

// A size record with the two keys of the service's size item.
class BenchSizeItem final : public Object {
  QX_DECLARE_CLASS()

 public:
  BenchSizeItem(int64_t size, bool busy) : size_(size), busy_(busy) {}
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder) {
    int64_t size = coder.decodeIntegerForKey("size");
    bool busy = coder.decodeBoolForKey("busy");
    if (coder.hasFailed()) return nullptr;
    return std::make_shared<BenchSizeItem>(size, busy);
  }
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeInteger(size_, "size");
    coder.encodeBool(busy_, "busy");
  }

 private:
  int64_t size_;
  bool busy_;
};

QX_DEFINE_CLASS(BenchSizeItem, "QXFileSizeItem", Object)

// `depth` is the length of each index path: 1 gives about 300 archived
// objects; 2 or more add one data object per path.
ArrayPtr sizeReport(std::size_t depth) {
  static const StringPtr pathKey = str("QXIndexPath");
  static const StringPtr itemKey = str("QXFileSizeItem");
  auto updates = MutableArray::make(100);
  for (uint64_t i = 0; i < 100; ++i) {
    std::vector<uint64_t> indexes(depth, 3);
    indexes.back() = i;
    auto update =
        Dictionary::make({{pathKey, IndexPath::make(std::move(indexes))},
                          {itemKey, std::make_shared<BenchSizeItem>(
                                        static_cast<int64_t>(i * 4096 + 17), i % 3 == 0)}});
    updates->addObject(update);
  }
  return Array::make(updates->objects());
}

const ClassSet& reportClasses() {
  static const ClassSet classes{&Array::classInfo(),  &Dictionary::classInfo(),
                                &String::classInfo(), &IndexPath::classInfo(),
                                &Data::classInfo(),   &BenchSizeItem::classInfo()};
  return classes;
}

void setUp() {
  static bool done = [] {
    registerFoundationClasses();
    ClassRegistry::registerClass(BenchSizeItem::classInfo(), &BenchSizeItem::initWithCoder);
    return true;
  }();
  (void)done;
}

void BM_EncodeSizeReport(benchmark::State& state) {
  setUp();
  auto report = sizeReport(static_cast<std::size_t>(state.range(0)));
  std::size_t bytes = 0;
  for (auto _ : state) {
    DataPtr data = KeyedArchiver::archivedDataWithRootObject(report);
    bytes = data->length();
    benchmark::DoNotOptimize(data);
  }
  state.counters["archive_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_EncodeSizeReport)->Arg(1)->Arg(3)->Unit(benchmark::kMicrosecond);

void BM_DecodeSizeReport(benchmark::State& state) {
  setUp();
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(
      sizeReport(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    ObjectPtr object = KeyedUnarchiver::unarchiveObjectWithData(*data);
    if (!object) state.SkipWithError("decoding failed");
    benchmark::DoNotOptimize(object);
  }
}
BENCHMARK(BM_DecodeSizeReport)->Arg(1)->Arg(3)->Unit(benchmark::kMicrosecond);

void BM_DecodeSizeReportRestricted(benchmark::State& state) {
  setUp();
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(
      sizeReport(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    ObjectPtr object = KeyedUnarchiver::unarchivedObjectOfClasses(reportClasses(), *data);
    if (!object) state.SkipWithError("decoding failed");
    benchmark::DoNotOptimize(object);
  }
}
BENCHMARK(BM_DecodeSizeReportRestricted)->Arg(1)->Arg(3)->Unit(benchmark::kMicrosecond);

// Encode, restricted decode and freeing in turn, as one report costs the
// worker and its client together (and as compare-codec times it).
void BM_RoundTripSizeReport(benchmark::State& state) {
  setUp();
  auto report = sizeReport(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    DataPtr data = KeyedArchiver::archivedDataWithRootObject(report);
    ObjectPtr object = KeyedUnarchiver::unarchivedObjectOfClasses(reportClasses(), *data);
    if (!object) state.SkipWithError("decoding failed");
    benchmark::DoNotOptimize(object);
  }
}
BENCHMARK(BM_RoundTripSizeReport)->Arg(3)->Unit(benchmark::kMicrosecond);

// The same decode with the decoded objects freed outside the timed region, in
// batches of 64: how much of the decode is the making of the objects alone.
void BM_DecodeSizeReportWithoutFreeing(benchmark::State& state) {
  setUp();
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(
      sizeReport(static_cast<std::size_t>(state.range(0))));
  std::vector<ObjectPtr> results;
  results.reserve(64);
  for (auto _ : state) {
    results.push_back(KeyedUnarchiver::unarchiveObjectWithData(*data));
    if (!results.back()) state.SkipWithError("decoding failed");
    if (results.size() == 64) {
      state.PauseTiming();
      results.clear();
      state.ResumeTiming();
    }
  }
}
BENCHMARK(BM_DecodeSizeReportWithoutFreeing)->Arg(1)->Arg(3)->Unit(benchmark::kMicrosecond);

// The property-list layer alone: reading the archive's binary plist.
void BM_ParsePlistOfSizeReport(benchmark::State& state) {
  setUp();
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(
      sizeReport(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    auto plist = BinaryPlist::parse(data->span());
    if (!plist) state.SkipWithError("parsing failed");
    benchmark::DoNotOptimize(plist);
  }
  state.counters["plist_values"] = static_cast<double>(BinaryPlist::parse(data->span())->size());
}
BENCHMARK(BM_ParsePlistOfSizeReport)->Arg(1)->Arg(3)->Unit(benchmark::kMicrosecond);

#ifdef QX_BENCH_LIBPLIST
// libplist on the same bytes: reading them into its tree and writing the tree
// back, which is the least a keyed archiver on top of it would do.
void BM_LibplistReadWriteSizeReport(benchmark::State& state) {
  setUp();
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(
      sizeReport(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    plist_t root = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(data->data()),
                   static_cast<uint32_t>(data->length()), &root);
    char* out = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &out, &length);
    benchmark::DoNotOptimize(out);
    free(out);
    plist_free(root);
  }
}
BENCHMARK(BM_LibplistReadWriteSizeReport)->Arg(1)->Arg(3)->Unit(benchmark::kMicrosecond);
#endif

}  // namespace

BENCHMARK_MAIN();
