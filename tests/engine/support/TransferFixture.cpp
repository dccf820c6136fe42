#include "engine/support/TransferFixture.h"

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"

namespace EngineTest {

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

}  // namespace EngineTest
