#include <benchmark/benchmark.h>

#include "data/oak_map_string_to_val.h"

namespace tsm {
namespace {

void BM_OakMapSetAt(benchmark::State& state) {
  COakMapStringToVal map;
  map.InitHashTable(1009);
  const CString key(L"ORD-000000123");
  int32_t i = 0;
  for (auto _ : state) map.SetAt(key, ++i);
}
BENCHMARK(BM_OakMapSetAt);

void BM_OakMapLookup(benchmark::State& state) {
  COakMapStringToVal map;
  map.InitHashTable(1009);
  for (int i = 0; i < 500; ++i) map.SetAt(CString::Formatted(L"ORD-%09d", i), i);
  const CString key(L"ORD-000000123");
  int32_t value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.Lookup(key, value));
  }
}
BENCHMARK(BM_OakMapLookup);

}  // namespace
}  // namespace tsm
