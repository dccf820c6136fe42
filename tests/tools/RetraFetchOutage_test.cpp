// retra-fetch --watch through a DNS outage: the name server is gone for ten seconds while
// twenty URLs on four names are refreshed every two seconds. Records that were valid stay
// valid, so fetches go on, and none is dispatched twice or left parked.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>

#include "dnsr/support/Dnsmasq.h"
#include "support/NginxServer.h"
#include "tools/support/FetchProgram.h"

namespace {

constexpr int kHosts = 4;
constexpr int kUrls = 20;
constexpr int kCount = 12;  // fetches of each URL: about 24 s, the outage in the middle

TEST(RetraFetchOutageTest, FetchesGoOnThroughANameServerOutage) {
  DnsrTest::Dnsmasq dns(DnsrTest::Dnsmasq::namesOn("127.0.0.1", kHosts), /*ttl=*/1);
  ASSERT_TRUE(dns.isRunning()) << dns.log();
  RetraTest::NginxServer nginx;
  std::vector<std::string> args = {"--watch",       "--json", "--refresh",   "2",
                                   "--count",       std::to_string(kCount),  "-m",
                                   "10",            "--dns-servers",         dns.server()};
  for (int i = 0; i < kUrls; ++i) {
    args.push_back("http://h" + std::to_string(i % kHosts) + ".test:" +
                   std::to_string(nginx.port()) + "/small.txt?" + std::to_string(i));
  }

  // Look-ups give up within the outage: the records' refreshes fail while they are valid.
  ::setenv("RES_OPTIONS", "timeout:1 attempts:1", 1);
  ToolTest::FetchRun run;
  std::thread fetching([&] { run = ToolTest::runFetch(args); });
  std::this_thread::sleep_for(std::chrono::seconds(6));
  dns.stop();
  std::this_thread::sleep_for(std::chrono::seconds(10));
  EXPECT_TRUE(dns.restarted());
  fetching.join();
  ::unsetenv("RES_OPTIONS");

  EXPECT_EQ(run.exitCode, 0) << run.err;
  std::map<std::string, int> fetchesOf;
  for (const std::string& line : ToolTest::linesOf(run.out)) {
    const nlohmann::json fetch = nlohmann::json::parse(line);
    EXPECT_EQ(fetch["lastError"], "errNone") << line.substr(0, 300);
    ++fetchesOf[fetch["uri"].get<std::string>()];
  }
  EXPECT_EQ(fetchesOf.size(), size_t(kUrls));
  for (const auto& [uri, count] : fetchesOf) EXPECT_EQ(count, kCount) << uri;
}

}  // namespace
