// Directory entries: adding, finding and deleting requests in a RequestDir and responses in a
// ResponseDir, with one observer on each directory as the engine has.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "Orb/Ptr.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestDir.h"
#include "Retra/model/Response.h"
#include "Retra/model/ResponseDir.h"

namespace {

std::vector<Retra::RequestKey> requestKeys(int64_t count) {
  std::vector<Retra::RequestKey> keys;
  for (int64_t i = 0; i < count; ++i) {
    keys.emplace_back(Retra::GET,
                      Orb::String("http://127.0.0.1:8080/1k.bin?i=" + std::to_string(i)));
  }
  return keys;
}

class RequestWatch : public Retra::RequestDir::NotifieeConst {
 public:
  void onRequest(const Retra::RequestKey&) override { ++calls; }
  uint64_t calls = 0;
};

class ResponseWatch : public Retra::ResponseDir::NotifieeConst {
 public:
  void onResponse(const Retra::RequestKey&) override { ++calls; }
  uint64_t calls = 0;
};

// Every key added, then every key deleted; per-entry figures.
void BM_RequestDirAddDelete(benchmark::State& state) {
  const std::vector<Retra::RequestKey> keys = requestKeys(state.range(0));
  const auto dir = Orb::allocate<Retra::RequestDir>("retraRequest");
  const auto watch = Orb::allocate<RequestWatch>();
  watch->notifierIs(dir);
  for (auto _ : state) {
    for (const Retra::RequestKey& key : keys) dir->requestIs(Retra::Request(key));
    for (const Retra::RequestKey& key : keys) benchmark::DoNotOptimize(dir->requestDel(key));
  }
  if (watch->calls != 2 * keys.size() * state.iterations()) {
    state.SkipWithError("the observer missed an entry");
  }
  watch->notifierIs(static_cast<const Retra::RequestDir*>(nullptr));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RequestDirAddDelete)->Arg(1000)->Arg(10000);

void BM_RequestDirFind(benchmark::State& state) {
  const std::vector<Retra::RequestKey> keys = requestKeys(state.range(0));
  const auto dir = Orb::allocate<Retra::RequestDir>("retraRequest");
  for (const Retra::RequestKey& key : keys) dir->requestIs(Retra::Request(key));
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(dir->request(keys[i]));
    if (++i == keys.size()) i = 0;
  }
}
BENCHMARK(BM_RequestDirFind)->Arg(1000)->Arg(100000);

void BM_ResponseDirAddDelete(benchmark::State& state) {
  const std::vector<Retra::RequestKey> keys = requestKeys(state.range(0));
  const auto dir = Orb::allocate<Retra::ResponseDir>("retraResponse");
  const auto watch = Orb::allocate<ResponseWatch>();
  watch->notifierIs(dir);
  for (auto _ : state) {
    for (const Retra::RequestKey& key : keys) benchmark::DoNotOptimize(dir->responseIs(key));
    for (const Retra::RequestKey& key : keys) benchmark::DoNotOptimize(dir->responseDel(key));
  }
  if (watch->calls != 2 * keys.size() * state.iterations()) {
    state.SkipWithError("the observer missed an entry");
  }
  watch->notifierIs(static_cast<const Retra::ResponseDir*>(nullptr));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ResponseDirAddDelete)->Arg(1000)->Arg(10000);

void BM_ResponseDirFind(benchmark::State& state) {
  const std::vector<Retra::RequestKey> keys = requestKeys(state.range(0));
  const auto dir = Orb::allocate<Retra::ResponseDir>("retraResponse");
  for (const Retra::RequestKey& key : keys) (void)dir->responseIs(key);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(dir->response(keys[i]));
    if (++i == keys.size()) i = 0;
  }
}
BENCHMARK(BM_ResponseDirFind)->Arg(1000)->Arg(100000);

}  // namespace
