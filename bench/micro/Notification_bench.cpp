// Notification of one attribute change to 0, 1 and 10 observers: the path every state change
// of a response takes.

#include <benchmark/benchmark.h>

#include <vector>

#include "Orb/Ptr.h"
#include "Retra/model/Response.h"

namespace {

class StatusWatch : public Retra::Response::NotifieeConst {
 public:
  void onStatusCode() override { ++calls; }
  uint64_t calls = 0;
};

void BM_AttributeChangeNotified(benchmark::State& state) {
  const auto response =
      Orb::allocate<Retra::Response>(Retra::RequestKey(Retra::GET, "http://127.0.0.1/a"));
  std::vector<Orb::Ptr<StatusWatch>> watches;
  for (int64_t i = 0; i < state.range(0); ++i) {
    watches.push_back(Orb::allocate<StatusWatch>());
    watches.back()->notifierIs(response);
  }
  uint16_t status = 200;
  for (auto _ : state) {
    status = status == 200 ? 404 : 200;  // a change every time: an equal value notifies nobody
    response->statusCodeIs(status);
  }
  uint64_t calls = 0;
  for (const auto& watch : watches) calls += watch->calls;
  if (calls != static_cast<uint64_t>(state.iterations()) * watches.size()) {
    state.SkipWithError("an observer missed a change");
  }
  for (const auto& watch : watches) {
    watch->notifierIs(static_cast<const Retra::Response*>(nullptr));
  }
}
BENCHMARK(BM_AttributeChangeNotified)->Arg(0)->Arg(1)->Arg(10);

// An unchanged value: the setter's early exit.
void BM_AttributeUnchanged(benchmark::State& state) {
  const auto response =
      Orb::allocate<Retra::Response>(Retra::RequestKey(Retra::GET, "http://127.0.0.1/a"));
  const auto watch = Orb::allocate<StatusWatch>();
  watch->notifierIs(response);
  response->statusCodeIs(200);
  for (auto _ : state) {
    response->statusCodeIs(200);
    benchmark::ClobberMemory();
  }
  if (watch->calls != 1) state.SkipWithError("an unchanged value was notified");
  watch->notifierIs(static_cast<const Retra::Response*>(nullptr));
}
BENCHMARK(BM_AttributeUnchanged);

}  // namespace
