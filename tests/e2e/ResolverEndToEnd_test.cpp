// Host names in request URIs resolved by the library's own resolver, asking a dnsmasq of the
// test's own: libcurl connects to exactly the addresses the resolver found.

#include <gtest/gtest.h>

#include <string>

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "dnsr/support/Dnsmasq.h"
#include "e2e/support/FetchFixture.h"
#include "support/NginxServer.h"

namespace {

using Retra::Response;
using RetraTest::NginxServer;

class ResolverFetchTest : public E2eTest::FetchFixture {
 protected:
  // Names only this dnsmasq knows: the system resolver could not find them.
  DnsrTest::Dnsmasq dns_{
      "127.0.0.1 web.test\n"
      "::1 web6.test\n"
      "127.0.0.2 elsewhere.test\n"};
  NginxServer nginx_;

  void SetUp() override {
    ASSERT_TRUE(dns_.isRunning()) << dns_.log();
    rootIs(dns_.server());
  }

  [[nodiscard]] std::string urlOn(const std::string& host) const {
    return "http://" + host + ":" + std::to_string(nginx_.port()) + "/small.txt";
  }
};

TEST_F(ResolverFetchTest, NameResolvedByTheLibraryReachesTheServerAtThatAddress) {
  auto responses = fetchAll(
      {request(urlOn("web.test")), request(urlOn("web6.test")), request(urlOn("elsewhere.test"))});

  const Orb::Ptr<Response>& v4 = responses[0];
  EXPECT_EQ(v4->lastError(), Retra::errNone) << v4->lastErrorMessage();
  EXPECT_EQ(v4->statusCode(), 200);
  EXPECT_EQ(v4->body(), NginxServer::smallText());
  EXPECT_EQ(v4->host(), "web.test");
  EXPECT_TRUE(v4->resolved());
  EXPECT_EQ(v4->ipAddress().size(), 1u);
  EXPECT_TRUE(v4->ipAddress(Ipkit::IpAddr("127.0.0.1")));
  EXPECT_TRUE(v4->ip6Address().empty());
  EXPECT_EQ(v4->effectiveUrl(), urlOn("web.test"));

  const Orb::Ptr<Response>& v6 = responses[1];
  EXPECT_EQ(v6->lastError(), Retra::errNone) << v6->lastErrorMessage();
  EXPECT_EQ(v6->statusCode(), 200);
  EXPECT_TRUE(v6->ipAddress().empty());
  EXPECT_TRUE(v6->ip6Address(Ipkit::Ip6Addr("::1")));

  // nginx listens on 127.0.0.1 and ::1 only; libcurl goes where the resolver said, not
  // anywhere else.
  const Orb::Ptr<Response>& elsewhere = responses[2];
  EXPECT_TRUE(elsewhere->ipAddress(Ipkit::IpAddr("127.0.0.2")));
  EXPECT_EQ(elsewhere->lastError(), Retra::errConnRefused) << describe(elsewhere->requestKey());
  EXPECT_EQ(elsewhere->statusCode(), 0);
}

TEST_F(ResolverFetchTest, UnknownNameEndsInDnsLookupError) {
  Orb::Ptr<Response> r = fetch(request(urlOn("missing.test")));

  EXPECT_EQ(r->lastError(), Retra::errDnsLookup);
  EXPECT_EQ(r->statusCode(), 0);
  EXPECT_EQ(r->host(), "missing.test");
  EXPECT_TRUE(r->ipAddress().empty());
  EXPECT_TRUE(r->ip6Address().empty());
  // Nothing was transferred, and nothing was handed to libcurl.
  EXPECT_EQ(r->counter()->numConnect(), 0u);
}

}  // namespace
