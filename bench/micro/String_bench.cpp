// Orb::String building (concatenation, number formatting) and hashing.

#include <benchmark/benchmark.h>

#include <string>

#include "Orb/String.h"
#include "Orb/ValueText.h"

namespace {

void BM_StringConcatenation(benchmark::State& state) {
  const Orb::String left(std::string(static_cast<size_t>(state.range(0)), 'a'));
  const Orb::String right("?i=12345");
  for (auto _ : state) {
    Orb::String joined = left + right;
    benchmark::DoNotOptimize(joined);
  }
  state.SetBytesProcessed(state.iterations() * (state.range(0) + 8));
}
BENCHMARK(BM_StringConcatenation)->Arg(16)->Arg(256)->Arg(16384);

// The body of a response grows by one concatenation per chunk: n chunks of 16 KiB.
void BM_StringGrownByChunks(benchmark::State& state) {
  const Orb::String chunk(std::string(16384, 'x'));
  for (auto _ : state) {
    Orb::String body;
    for (int64_t i = 0; i < state.range(0); ++i) body = body + chunk;
    benchmark::DoNotOptimize(body);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0) * 16384);
}
BENCHMARK(BM_StringGrownByChunks)->Arg(8)->Arg(64)->Arg(640);

void BM_StringFromNumber(benchmark::State& state) {
  unsigned long long n = 1;
  for (auto _ : state) {
    Orb::String text = Orb::valueToStrep(n);
    benchmark::DoNotOptimize(text);
    n = n * 7 + 3;
  }
}
BENCHMARK(BM_StringFromNumber);

void BM_StringFormat(benchmark::State& state) {
  unsigned n = 0;
  for (auto _ : state) {
    Orb::String text = Orb::format("http://127.0.0.1:8080/1k.bin?i=%u", n++);
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_StringFormat);

void BM_StringFromStdString(benchmark::State& state) {
  const std::string source = "http://127.0.0.1:8080/1k.bin?i=12345";
  for (auto _ : state) {
    Orb::String text(source);
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_StringFromStdString);

void BM_StringHash(benchmark::State& state) {
  const Orb::String text(std::string(static_cast<size_t>(state.range(0)), 'h'));
  for (auto _ : state) benchmark::DoNotOptimize(text.hash());
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_StringHash)->Arg(16)->Arg(48)->Arg(1024);

void BM_StringCopy(benchmark::State& state) {
  const Orb::String text("http://127.0.0.1:8080/1k.bin?i=12345");
  for (auto _ : state) {
    Orb::String copy = text;
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_StringCopy);

}  // namespace
