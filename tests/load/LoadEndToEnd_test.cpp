// Many requests at once: tens of thousands of fetches over fifty host names from one nginx,
// written in waves while earlier ones run, some withdrawn and some changed on the way. Every
// request that stays gets exactly one finished answer whose counters add up, and withdrawing
// everything gives the memory back.
//
// The request count is RETRA_LOAD_REQUESTS, by default kDefaultRequests, or kSanitizerRequests
// under AddressSanitizer, which slows every allocation down; the memory bound is not checked
// there (the sanitizer holds freed memory back on purpose and keeps its own heap).

#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "Orb/ActivityManager.h"
#include "Orb/Ptr.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/engine/Root.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"
#include "dnsr/support/Dnsmasq.h"
#include "engine/support/EngineFixture.h"
#include "support/NginxServer.h"

#if defined(__SANITIZE_ADDRESS__)
#define RETRA_LOAD_UNDER_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RETRA_LOAD_UNDER_SANITIZER 1
#endif
#endif

namespace {

using Retra::Response;
using RetraTest::NginxServer;
using Clock = std::chrono::steady_clock;

constexpr size_t kDefaultRequests = 20000;
constexpr size_t kSanitizerRequests = 2000;
constexpr int kHosts = 50;
constexpr size_t kWaves = 20;
// Of every kEvery requests of a wave, one is withdrawn and one changed while the wave runs.
constexpr size_t kEvery = 20;
// A changed request asks for the first bytes only.
constexpr size_t kRangeBytes = 10;
// Sizes of the files served, one per request in turn.
constexpr size_t kFileSizes[] = {1, 700, 1500, 4000};
// Heap a request may leave behind for good once withdrawn: the engine keeps an entry per key in
// its transfer-record map and one per easy handle in its handle map (they are replaced when the
// key is fetched again, never deleted): about 0.6 KiB per request as measured, the test's own
// list of keys included; twice that is allowed. A response that stayed alive would leave several
// KiB (its body, headers, counters).
constexpr size_t kKeptPerRequest = 1024;
// Heap that may grow once, whatever the count: libcurl's connection cache, the resolver's
// records, hash tables that keep their bucket arrays.
constexpr size_t kKeptFixed = size_t(2) << 20;

constexpr bool underSanitizer() {
#ifdef RETRA_LOAD_UNDER_SANITIZER
  return true;
#else
  return false;
#endif
}

size_t requestCount() {
  if (const char* text = std::getenv("RETRA_LOAD_REQUESTS")) {
    const size_t count = std::strtoul(text, nullptr, 10);
    if (count > 0) return count;
  }
  return underSanitizer() ? kSanitizerRequests : kDefaultRequests;
}

// The process's memory: heap bytes in use (what the program holds, whatever the allocator keeps
// around it) and resident bytes (after free heap pages went back to the system).
struct Memory {
  size_t heap = 0;
  size_t resident = 0;
};

Memory memoryNow() {
  ::malloc_trim(0);
  const struct mallinfo2 info = ::mallinfo2();
  std::ifstream statm("/proc/self/statm");
  size_t pages = 0, resident = 0;
  statm >> pages >> resident;
  return {info.uordblks + info.hblkhd, resident * size_t(::sysconf(_SC_PAGESIZE))};
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// "127.0.0.1 h0.test h1.test ...": every name on nginx's address.
std::string hostsFile() {
  std::string line = "127.0.0.1";
  for (int i = 0; i < kHosts; ++i) line += " h" + std::to_string(i) + ".test";
  return line + "\n";
}

// Printable bytes that differ from file to file and place to place.
std::string contentOfSize(size_t size) {
  std::string content(size, ' ');
  for (size_t i = 0; i < size; ++i) content[i] = char('a' + (i * 7 + size) % 26);
  return content;
}

enum class Fate { kept, withdrawn, changed };

struct Planned {
  Retra::RequestKey key;
  size_t file = 0;  // index into kFileSizes
  Fate fate = Fate::kept;
  uint64_t bytesBeforeChange = 0;  // what the first fetch had counted when the change came
  bool changedUnfinished = false;
  bool withdrawnUnfinished = false;
};

class LoadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dns_.isRunning()) << dns_.log();
    for (size_t i = 0; i < std::size(kFileSizes); ++i) {
      contents_.push_back(contentOfSize(kFileSizes[i]));
      std::ofstream(nginx_.root() + "/" + fileName(i)) << contents_.back();
    }
    ::setenv("DNSR_SERVERS", dns_.server().c_str(), 1);
    root_ = Orb::allocate<Retra::Root>("retra");
    engine_ = root_->retraSm();
  }

  void TearDown() override {
    if (engine_) {
      engine_->shutdown();
      EngineTest::retain(engine_);
    }
    engine_ = nullptr;
    root_ = nullptr;
    ::unsetenv("DNSR_SERVERS");
    EXPECT_TRUE(EngineTest::runDry()) << Orb::activityManager()->liveHandles() << " handles left";
  }

  static std::string fileName(size_t file) {
    return "load-" + std::to_string(kFileSizes[file]) + ".txt";
  }

  // Request n for `file`, on host name n % kHosts, or on nginx's address literal.
  [[nodiscard]] Retra::Request requestFor(size_t n, size_t file, bool onLiteral = false) const {
    const std::string host = onLiteral ? "127.0.0.1" : "h" + std::to_string(n % kHosts) + ".test";
    const std::string uri = "http://" + host + ":" + std::to_string(nginx_.port()) + "/" +
                            fileName(file) + "?n=" + std::to_string(n);
    return Retra::Request(Retra::RequestKey(Retra::GET, Orb::String(uri)));
  }

  [[nodiscard]] Orb::Ptr<Response> response(const Retra::RequestKey& key) const {
    return root_->retraResponse()->response(key);
  }

  [[nodiscard]] size_t finishedCount() const {
    size_t finished = 0;
    for (const auto& [key, r] : root_->retraResponse()->response()) finished += r->finished();
    return finished;
  }

  DnsrTest::Dnsmasq dns_{hostsFile(), /*ttl=*/3600};
  NginxServer nginx_;
  std::vector<std::string> contents_;
  Orb::Ptr<Retra::Root> root_;
  Orb::Ptr<Retra::RetraSm> engine_;
};

TEST_F(LoadTest, WavesOfRequestsAllEndRightAndWithdrawingThemGivesTheHeapBack) {
  const size_t total = requestCount();
  const double hangLimit = 120.0 + double(total) / 50.0;

  // Warm up every host, libcurl's connections and the allocator, then measure from there.
  std::vector<Retra::RequestKey> warmUp;
  for (size_t n = 0; n < kHosts; ++n) {
    warmUp.push_back(requestFor(total + n, 0).requestKey());
    root_->retraRequest()->requestIs(requestFor(total + n, 0));
  }
  ASSERT_TRUE(EngineTest::runUntil([&] { return finishedCount() == warmUp.size(); }, hangLimit));
  for (const Retra::RequestKey& key : warmUp) (void)root_->retraRequest()->requestDel(key);
  EngineTest::runUntil([] { return false; }, 0.2);
  const Memory baseline = memoryNow();

  const Clock::time_point start = Clock::now();
  std::vector<Planned> planned;
  planned.reserve(total);
  const size_t perWave = std::max<size_t>(1, total / kWaves);
  for (size_t first = 0; first < total; first += perWave) {
    const size_t last = std::min(total, first + perWave);
    for (size_t n = first; n < last; ++n) {
      Planned p;
      p.file = n % std::size(kFileSizes);
      p.fate = n % kEvery == 3 ? Fate::withdrawn : n % kEvery == 11 ? Fate::changed : Fate::kept;
      // Requests to be withdrawn go to the address literal: withdrawing a running request on a
      // host name drops the host's resolver record, and the record's return knocks the host's
      // other responses back to dispatch (see the disabled life-cycle test).
      const Retra::Request r = requestFor(n, p.file, p.fate == Fate::withdrawn);
      p.key = r.requestKey();
      root_->retraRequest()->requestIs(r);
      planned.push_back(p);
    }
    // Let the wave get going, up to its first answer arriving: most of it is still under way
    // when some of it is changed and withdrawn.
    ASSERT_TRUE(EngineTest::runUntil(
        [&] {
          for (size_t n = first; n < last; ++n) {
            Orb::Ptr<Response> r = response(planned[n].key);
            if (r && r->requestState() >= Retra::stateRecvHeader) return true;
          }
          return false;
        },
        hangLimit));
    for (size_t n = first; n < last; ++n) {
      Planned& p = planned[n];
      if (p.fate != Fate::changed) continue;
      Orb::Ptr<Response> r = response(p.key);
      ASSERT_TRUE(r) << p.key.uri();
      p.changedUnfinished = !r->finished();
      p.bytesBeforeChange = r->counter()->bytesDownload();
      Retra::Request changed = root_->retraRequest()->request(p.key);
      changed.headerIs("Range", "bytes=0-" + std::to_string(kRangeBytes - 1));
      root_->retraRequest()->requestIs(changed);
    }
    for (size_t n = first; n < last; ++n) {
      Planned& p = planned[n];
      if (p.fate != Fate::withdrawn) continue;
      Orb::Ptr<Response> r = response(p.key);
      p.withdrawnUnfinished = r && !r->finished();
      (void)root_->retraRequest()->requestDel(p.key);
    }
  }
  const double writing = secondsSince(start);
  const bool allDone = EngineTest::runUntil(
      [&] { return finishedCount() == root_->retraResponse()->response().size(); }, hangLimit);
  const double finishing = secondsSince(start);
  if (!allDone) {
    size_t shown = 0;
    for (const Planned& p : planned) {
      Orb::Ptr<Response> r = response(p.key);
      if (r && !r->finished() && ++shown <= 10) {
        ADD_FAILURE() << p.key.uri() << " fate=" << int(p.fate) << " state=" << r->requestState()
                      << " numRequest=" << r->numRequest() << " resolved=" << r->resolved()
                      << " addresses=" << r->ipAddress().size()
                      << " sm=" << bool(engine_->requestSm(p.key))
                      << " record=" << bool(root_->dnsrRecord()->record(Orb::Name(r->host())))
                      << " resolverRequest=" << root_->dnsrRequest()->request(r->host());
      }
    }
  }
  ASSERT_TRUE(allDone) << finishedCount() << " of " << root_->retraResponse()->response().size()
                       << " finished";
  const Memory peak = memoryNow();

  size_t kept = 0, changed = 0, withdrawn = 0, changedMidFlight = 0, withdrawnMidFlight = 0;
  size_t wrong = 0;
  for (const Planned& p : planned) {
    Orb::Ptr<Response> r = response(p.key);
    if (p.fate == Fate::withdrawn) {
      ++withdrawn;
      withdrawnMidFlight += p.withdrawnUnfinished;
      if (r) ++wrong;
      EXPECT_FALSE(r) << p.key.uri() << " was withdrawn but has a response";
      continue;
    }
    const std::string& content = contents_[p.file];
    const bool isChanged = p.fate == Fate::changed;
    const std::string body = isChanged ? content.substr(0, kRangeBytes) : content;
    // A fetch counts its bytes when it completes; one torn down by the change counts none.
    const uint64_t bytes = (isChanged ? p.bytesBeforeChange : 0) + body.size();
    const uint32_t fetches = isChanged ? 2 : 1;
    // A completed fetch is counted finished twice: when it completes and when the engine drops
    // its state machine; a fetch torn down by the change once.
    const uint32_t finishes = isChanged && p.changedUnfinished ? 3 : 2 * fetches;
    const bool right = r && r->finished() && r->lastError() == Retra::errNone &&
                       r->statusCode() == (isChanged ? 206 : 200) && r->body().str() == body &&
                       r->numRequest() == fetches && r->counter()->numFinish() == finishes &&
                       r->counter()->bytesDownload() == bytes;
    if (!right && ++wrong <= 5) {
      ADD_FAILURE() << p.key.uri() << (isChanged ? " (changed)" : "") << ": "
                    << (r ? "state=" + std::to_string(r->requestState()) +
                                " error=" + std::to_string(r->lastError()) +
                                " status=" + std::to_string(r->statusCode()) +
                                " body=" + std::to_string(r->body().size()) +
                                " numRequest=" + std::to_string(r->numRequest()) +
                                " numFinish=" + std::to_string(r->counter()->numFinish()) +
                                " bytes=" + std::to_string(r->counter()->bytesDownload()) +
                                " (want " + std::to_string(bytes) + ")"
                          : std::string("no response"));
    }
    ++(isChanged ? changed : kept);
    changedMidFlight += isChanged && p.changedUnfinished;
  }
  EXPECT_EQ(wrong, 0u) << "requests whose outcome is wrong";
  EXPECT_EQ(root_->retraResponse()->response().size(), kept + changed);
  // The fates the test meant to exercise did happen on the way, not only after the fact.
  EXPECT_GT(changedMidFlight, 0u);
  EXPECT_GT(withdrawnMidFlight, 0u);

  for (const Planned& p : planned) (void)root_->retraRequest()->requestDel(p.key);
  EngineTest::runUntil([] { return false; }, 0.5);
  EXPECT_TRUE(root_->retraResponse()->response().empty());
  EXPECT_TRUE(engine_->requestSm().empty());
  EXPECT_TRUE(engine_->retraResponseReactor().empty());
  const Memory after = memoryNow();

  const auto mib = [](size_t bytes) { return double(bytes) / double(1 << 20); };
  std::cout << "[ load     ] " << total << " requests (" << kept << " kept, " << changed
            << " changed, " << changedMidFlight << " of them in flight, " << withdrawn
            << " withdrawn, " << withdrawnMidFlight << " of them in flight): written in " << writing
            << " s, all finished after " << finishing << " s\n"
            << "[ load     ] heap in use / resident MiB: " << mib(baseline.heap) << " / "
            << mib(baseline.resident) << " at start, " << mib(peak.heap) << " / "
            << mib(peak.resident) << " with every response held, " << mib(after.heap) << " / "
            << mib(after.resident) << " after withdrawing all; engine maps left: retraCurl "
            << engine_->retraCurl().size() << ", curlHandle " << engine_->curlHandle().size()
            << std::endl;
  if (!underSanitizer()) {
    const size_t allowed = kKeptFixed + total * kKeptPerRequest;
    EXPECT_LE(after.heap, baseline.heap + allowed)
        << "kept " << mib(after.heap - std::min(after.heap, baseline.heap)) << " MiB of "
        << mib(peak.heap - baseline.heap) << " MiB grown at the peak";
  }
}

}  // namespace
