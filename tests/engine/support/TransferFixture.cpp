#include "engine/support/TransferFixture.h"

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Orb/ActivityManager.h"

namespace EngineTest {

size_t countEndingWith(const TraceCapture& trace, unsigned level, const std::string& suffix) {
  size_t count = 0;
  for (const auto& line : trace.lines()) {
    count += line.level == level && line.message.ends_with(suffix) ? 1 : 0;
  }
  return count;
}

Retra::Request TransferFixture::requestOf(const std::string& uri, Retra::Method method,
                                          const std::string& body) {
  Retra::Request request(Retra::RequestKey(method, Orb::String(uri)));
  request.bodyIs(Orb::String(body));
  return request;
}

bool TransferFixture::finished(const Retra::RequestKey& key, Orb::Seconds timeout) {
  return runUntil(
      [&] {
        const Orb::Ptr<Retra::Response> response = this->response(key);
        return response && response->finished();
      },
      timeout);
}

void TransferFixture::releasedTo(const Retra::RequestKey& key, const std::string& ip4,
                                 const std::string& ip6) {
  const Orb::Ptr<Retra::Response> response = this->response(key);
  if (!ip4.empty()) response->ipAddressIs(Ipkit::IpAddr(ip4.c_str()), true);
  if (!ip6.empty()) response->ip6AddressIs(Ipkit::Ip6Addr(ip6.c_str()), true);
  response->resolvedIs(true);
  response->requestStateIs(Retra::stateDispatchReady);
}

RetraTest::LoopbackHttpServer::Received TransferFixture::receivedFor(
    const std::string& target) const {
  for (const auto& received : server_.requests()) {
    if (received.target == target) return received;
  }
  return {};
}

void DirectoryFixture::TearDown() {
  for (const auto& engine : engines_) {
    engine->shutdown();
    retain(engine);
  }
  EXPECT_TRUE(runDry());
}

Orb::Ptr<Retra::RetraSm> DirectoryFixture::engineIs() {
  auto clock = Orb::activityManager()->clock();
  engines_.push_back(
      Retra::RetraSm::RetraSmIs(requests_, responses_, dnsrRequests_, dnsrRecords_, clock, clock));
  return engines_.back();
}

Retra::RequestKey DirectoryFixture::requestIs(const char* uri) {
  const Retra::RequestKey key(Retra::GET, uri);
  requests_->requestIs(Retra::Request(key));
  return key;
}

}  // namespace EngineTest
