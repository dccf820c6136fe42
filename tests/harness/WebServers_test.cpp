#include <gtest/gtest.h>

#include "harness/support/Fetch.h"
#include "support/FreePort.h"
#include "support/HttpbinServer.h"
#include "support/NginxServer.h"

namespace {

using HarnessTest::fetch;
using RetraTest::NginxServer;

TEST(NginxServerTest, ServesHttpAndHttpsVerifiedOnlyAgainstItsCaNameAndPin) {
  uint16_t port;
  {
    NginxServer nginx;
    port = nginx.port();
    const auto& pki = nginx.certificates();
    EXPECT_EQ(fetch(nginx.httpUrl6("/small.txt")).body, NginxServer::smallText());
    EXPECT_EQ(fetch(nginx.httpUrl("/redirect/1")).status, 302);
    auto tls = [&](const std::string& url, const char* pin = nullptr) {
      return fetch(url,
                   [&](CURL* easy) {
                     curl_easy_setopt(easy, CURLOPT_CAINFO, pki.caCert().c_str());
                     curl_easy_setopt(easy, CURLOPT_PINNEDPUBLICKEY, pin);
                   })
          .code;
    };
    EXPECT_EQ(tls(nginx.httpsLocalhostUrl("/small.txt"), pki.serverPin().c_str()), CURLE_OK);
    EXPECT_EQ(tls(nginx.httpsUrl("/small.txt"), pki.otherPin().c_str()),
              CURLE_SSL_PINNEDPUBKEYNOTMATCH);
    EXPECT_EQ(tls(nginx.httpsWrongNameUrl("/")), CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(tls(nginx.httpsSelfSignedUrl("/")), CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(fetch(nginx.httpsUrl("/")).code, CURLE_PEER_FAILED_VERIFICATION);  // not a system CA
  }
  EXPECT_FALSE(RetraTest::FreePort::accepts(port)) << "nginx outlived its fixture";
}

TEST(HttpbinServerTest, ChecksDigestAuthAndStopsWithItsFixture) {
  uint16_t port;
  {
    RetraTest::HttpbinServer httpbin;
    port = httpbin.port();
    auto digest = [&](const char* credentials) {
      return fetch(httpbin.url("/digest-auth/auth/user/passwd"),
                   [&](CURL* easy) {
                     curl_easy_setopt(easy, CURLOPT_HTTPAUTH, long(CURLAUTH_DIGEST));
                     curl_easy_setopt(easy, CURLOPT_USERPWD, credentials);
                   })
          .status;
    };
    EXPECT_EQ(digest("user:passwd"), 200);
    EXPECT_EQ(digest("user:wrong"), 401);
  }
  EXPECT_FALSE(RetraTest::FreePort::accepts(port)) << "httpbin outlived its fixture";
}

}  // namespace
