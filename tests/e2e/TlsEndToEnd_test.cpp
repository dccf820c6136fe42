// TLS against nginx: certificate verification on and off, and public key pinning.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>

#include "e2e/support/FetchFixture.h"
#include "e2e/support/TrustedCa.h"
#include "support/NginxServer.h"

namespace {

using Retra::Response;
using RetraTest::NginxServer;

class TlsFetchTest : public E2eTest::FetchFixture {
 protected:
  void SetUp() override { rootIs(""); }

  // A failed handshake: no HTTP status, libcurl's own text for `code`.
  static void expectTlsFailure(const Orb::Ptr<Response>& r, CURLcode code) {
    SCOPED_TRACE(r->uri());
    EXPECT_EQ(r->lastError(), Retra::errCurlOther);
    EXPECT_EQ(r->lastErrorMessage(), curl_easy_strerror(code));
    EXPECT_EQ(r->statusCode(), 0);
    EXPECT_EQ(r->body(), "");
  }

  static void expectSmallFile(const Orb::Ptr<Response>& r) {
    SCOPED_TRACE(r->uri());
    EXPECT_EQ(r->lastError(), Retra::errNone) << r->lastErrorMessage();
    EXPECT_EQ(r->statusCode(), 200);
    EXPECT_EQ(r->body(), NginxServer::smallText());
    EXPECT_EQ(r->scheme(), Retra::https);
    EXPECT_GT(r->timer()->sslHandshake(), 0.0);
  }

  NginxServer nginx_;
};

TEST_F(TlsFetchTest, VerificationRefusesUntrustedAndMisnamedCertificatesUnlessSwitchedOff) {
  // With the test CA trusted the misnamed certificate fails on its name alone; without, it
  // fails anyway.
  E2eTest::TrustedCa trust(nginx_.certificates().caCert());
  auto unverified = [](Retra::Request r) {
    r.sslVerifyPeerIs(false);
    return r;
  };

  auto responses = fetchAll({request(nginx_.httpsSelfSignedUrl("/small.txt")),
                             request(nginx_.httpsWrongNameUrl("/small.txt")),
                             unverified(request(nginx_.httpsSelfSignedUrl("/small.txt?anyway"))),
                             unverified(request(nginx_.httpsWrongNameUrl("/small.txt?anyway")))});

  expectTlsFailure(responses[0], CURLE_PEER_FAILED_VERIFICATION);
  expectTlsFailure(responses[1], CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_TRUE(responses[0]->sslVerifyPeer());
  expectSmallFile(responses[2]);
  expectSmallFile(responses[3]);
  EXPECT_FALSE(responses[2]->sslVerifyPeer());
}

TEST_F(TlsFetchTest, PinnedPublicKeyMustMatchTheServerKey) {
  auto pinned = [&](const std::string& query, const std::string& pin) {
    Retra::Request r = request(nginx_.httpsUrl("/small.txt?" + query));
    r.sslVerifyPeerIs(false);  // the pin alone decides
    r.pinnedPublicKeyIs(pin);
    return r;
  };

  auto responses = fetchAll({pinned("server", nginx_.certificates().serverPin()),
                             pinned("other", nginx_.certificates().otherPin())});

  expectSmallFile(responses[0]);
  EXPECT_EQ(responses[0]->pinnedPublicKey(), nginx_.certificates().serverPin());
  expectTlsFailure(responses[1], CURLE_SSL_PINNEDPUBKEYNOTMATCH);
}

}  // namespace
