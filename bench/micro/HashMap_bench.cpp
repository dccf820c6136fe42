// Orb::HashMap with string keys: insert, find and erase, at the sizes a directory reaches.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "Orb/HashMap.h"
#include "Orb/String.h"

namespace {

std::vector<Orb::String> keys(int64_t count) {
  std::vector<Orb::String> result;
  for (int64_t i = 0; i < count; ++i) {
    result.emplace_back("http://127.0.0.1:8080/1k.bin?i=" + std::to_string(i));
  }
  return result;
}

// Inserts every key into an empty map, then erases them all; per-item figures.
void BM_HashMapInsertErase(benchmark::State& state) {
  const std::vector<Orb::String> all = keys(state.range(0));
  for (auto _ : state) {
    Orb::HashMap<Orb::String, int> map;
    for (const Orb::String& key : all) map.emplace(key, 1);
    for (const Orb::String& key : all) map.erase(key);
    benchmark::DoNotOptimize(map);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_HashMapInsertErase)->Arg(1000)->Arg(100000);

void BM_HashMapFind(benchmark::State& state) {
  const std::vector<Orb::String> all = keys(state.range(0));
  Orb::HashMap<Orb::String, int> map;
  for (const Orb::String& key : all) map.emplace(key, 1);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.find(all[i]));
    if (++i == all.size()) i = 0;
  }
}
BENCHMARK(BM_HashMapFind)->Arg(1000)->Arg(100000);

void BM_HashMapFindMissing(benchmark::State& state) {
  const std::vector<Orb::String> all = keys(1000);
  Orb::HashMap<Orb::String, int> map;
  for (const Orb::String& key : all) map.emplace(key, 1);
  const Orb::String missing("http://127.0.0.1:8080/none");
  for (auto _ : state) benchmark::DoNotOptimize(map.find(missing));
}
BENCHMARK(BM_HashMapFindMissing);

}  // namespace
