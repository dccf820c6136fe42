// A long run: 1,000 URLs on ten host names, refreshed every second from one nginx, each fetch on
// a connection of its own. Resident memory and heap are reported every 30 seconds, and the heap
// may grow per fetch only by what the engine keeps on purpose: the per-socket record libcurl's
// socket removal abandons (with the file descriptor object it holds) and the easy-handle entries
// completion leaves in place. The run lasts RETRA_SOAK_SECONDS (default 240).

#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "Orb/ActivityManager.h"
#include "Orb/Trace.h"
#include "Retra/engine/ParkedResponseRecovery.h"
#include "dnsr/support/Dnsmasq.h"
#include "engine/support/EngineFixture.h"
#include "support/NginxServer.h"

namespace {

constexpr int kHosts = 10;
constexpr int kUrls = 1000;
constexpr Orb::Seconds kReportEvery = 30.0;
// The warm-up ahead of the measured part: connections, allocator arenas, hash tables.
constexpr Orb::Seconds kWarmUp = 30.0;
// Heap a fetch may leave behind for good (README, "Limits"): the abandoned socket record with
// its file descriptor object, and an easy-handle entry: about 310 bytes as measured.
constexpr double kBytesPerFetch = 400.0;

size_t heapNow() {
  ::malloc_trim(0);
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

size_t residentNow() {
  size_t pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * size_t(::sysconf(_SC_PAGESIZE));
}

class SoakTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dns_.isRunning()) << dns_.log();
    rootIs(dns_.server());
    Orb::TraceHandle::configurationIs("");
  }
  [[nodiscard]] uint64_t fetches() const {
    uint64_t done = 0;
    for (const auto& [key, r] : root_->retraResponse()->response()) done += r->numRequest();
    return done;
  }

  DnsrTest::Dnsmasq dns_{DnsrTest::Dnsmasq::namesOn("127.0.0.1", kHosts), /*ttl=*/1};
  RetraTest::NginxServer nginx_;
};

TEST_F(SoakTest, HeapGrowsPerFetchOnlyByWhatTheEngineKeepsOnPurpose) {
  const char* text = std::getenv("RETRA_SOAK_SECONDS");
  const Orb::Seconds duration = text ? std::atof(text) : 240.0;
  auto recovery = Retra::ParkedResponseRecovery::ParkedResponseRecoveryIs(engine_);
  for (int i = 0; i < kUrls; ++i) {
    Retra::Request r = request("http://h" + std::to_string(i % kHosts) + ".test:" +
                               std::to_string(nginx_.port()) + "/small.txt?" + std::to_string(i));
    r.timeoutRefreshIs(1);
    r.headerIs("Connection", "close");  // every fetch opens a socket of its own
    requestIs(r);
  }
  const Orb::Seconds start = now();
  EngineTest::runUntil([&] { return now() >= start + kWarmUp; }, kWarmUp + 10);
  const size_t heapAtStart = heapNow();
  const uint64_t fetchesAtStart = fetches();
  for (Orb::Seconds next = now() + kReportEvery; now() < start + duration; next += kReportEvery) {
    EngineTest::runUntil([&] { return now() >= next; }, kReportEvery + 10);
    std::printf("soak %5.0f s: %llu fetches, resident %zu KiB, heap %zu KiB\n", now() - start,
                static_cast<unsigned long long>(fetches()), residentNow() >> 10, heapNow() >> 10);
  }
  const uint64_t measured = fetches() - fetchesAtStart;
  const double perFetch = (double(heapNow()) - double(heapAtStart)) / double(measured);
  std::printf("soak: %llu fetches measured, heap growth %.1f bytes per fetch\n",
              static_cast<unsigned long long>(measured), perFetch);
  EXPECT_GT(measured, uint64_t(kUrls) * 10);
  EXPECT_LE(perFetch, kBytesPerFetch);
  size_t failed = 0;
  for (const auto& [key, r] : root_->retraResponse()->response()) {
    failed += r->finished() && r->lastError() != Retra::errNone;
  }
  EXPECT_EQ(failed, 0u);
}

}  // namespace
