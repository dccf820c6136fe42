#include "dnsr/support/ResolverTest.h"

#include <algorithm>

#include "Orb/ActivityManager.h"

namespace DnsrTest {

ResolverTest::ResolverTest()
    : requests_(Orb::allocate<Dnsr::ResolutionRequestDir>("dnsrRequest")),
      records_(Orb::allocate<Dnsr::ResolutionRecordDir>("dnsrRecord")) {}

void ResolverTest::TearDown() {
  service_ = nullptr;
  Orb::ActivityManager* manager = Orb::activityManager();
  manager->runUntil([&] { return manager->liveHandles() == 0; }, 5.0);
  EXPECT_EQ(manager->liveHandles(), 0u) << "the loop still holds handles";
}

Dnsr::DnsrConfig ResolverTest::quickConfig(const std::string& servers) {
  Dnsr::DnsrConfig config;
  config.servers = Dnsr::NameServer::listOf(servers);
  config.queryTimeout = 0.3;
  config.queryTries = 1;
  config.refreshFloor = 0.1;
  return config;
}

void ResolverTest::serviceIs(const Dnsr::DnsrConfig& config) {
  service_ = Dnsr::DnsrSm::DnsrSmIs(records_, requests_, config);
}

bool ResolverTest::runUntil(const std::function<bool()>& done, Orb::Seconds timeout) {
  return Orb::activityManager()->runUntil(done, timeout);
}

void ResolverTest::runFor(Orb::Seconds seconds) {
  (void)Orb::activityManager()->runUntil([] { return false; }, seconds);
}

Orb::Ptr<const Dnsr::ResolutionRecord> ResolverTest::record(const char* host) const {
  return Orb::Ptr<const Dnsr::ResolutionRecordDir>(records_)->record(host);
}

bool ResolverTest::isValid(const char* host) const {
  auto r = record(host);
  return r && r->valid();
}

bool ResolverTest::hasError(const char* host, unsigned error) const {
  auto r = record(host);
  return r && r->lastError() == error;
}

std::vector<std::string> addressesOf(const Dnsr::ResolutionRecord& record) {
  std::vector<std::string> ip, ip6;
  for (const auto& [address, present] : record.ipAddress()) {
    if (present) ip.push_back(address.str().str());
  }
  for (const auto& [address, present] : record.ip6Address()) {
    if (present) ip6.push_back(address.str().str());
  }
  std::sort(ip.begin(), ip.end());
  std::sort(ip6.begin(), ip6.end());
  ip.insert(ip.end(), ip6.begin(), ip6.end());
  return ip;
}

std::vector<std::string> ResolverTest::addresses(const char* host) const {
  auto r = record(host);
  return r ? addressesOf(*r) : std::vector<std::string>{};
}

}  // namespace DnsrTest
