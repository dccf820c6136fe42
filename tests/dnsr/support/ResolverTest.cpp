#include "dnsr/support/ResolverTest.h"

#include <algorithm>
#include <vector>

#include "Dnsr/ResolutionError.h"
#include "Orb/ActivityManager.h"
#include "support/TimeScale.h"

namespace DnsrTest {

void ResolverTest::TearDown() {
  service_ = nullptr;
  EXPECT_TRUE(runUntil([] { return Orb::activityManager()->liveHandles() == 0; }, 5.0 * RetraTest::timeScale()));
}

void ResolverTest::serviceIs(const std::string& servers) {
  const Dnsr::DnsrConfig config{Dnsr::NameServer::listOf(servers), 0.3 * RetraTest::timeScale(), 1, 0.1};
  service_ = Dnsr::DnsrSm::DnsrSmIs(records_, requests_, config);
}

bool ResolverTest::runUntil(const std::function<bool()>& done, Orb::Seconds timeout) {
  return Orb::activityManager()->runUntil(done, timeout * RetraTest::timeScale());
}

std::string ResolverTest::state(std::string_view host) const {
  auto record = Orb::Ptr<const Dnsr::ResolutionRecordDir>(records_)->record(host);
  if (!record) return "none";
  std::vector<std::string> addresses;
  for (const auto& [address, present] : record->ipAddress())
    if (present) addresses.push_back(address.str().str());
  for (const auto& [address, present] : record->ip6Address())
    if (present) addresses.push_back(address.str().str());
  std::sort(addresses.begin(), addresses.end());
  std::string text = record->valid() ? "valid " : "invalid ";
  text += Dnsr::resolutionErrorType().stringValue(record->lastError()).str();
  for (const std::string& address : addresses) text += " " + address;
  return text;
}

}  // namespace DnsrTest
