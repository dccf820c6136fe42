#include "support/NginxServer.h"

#include <gtest/gtest.h>

#include <fstream>

#include "harness/support/BlockingFetch.h"
#include "support/FreePort.h"

namespace {

using HarnessTest::BlockingFetch;
using RetraTest::NginxServer;

TEST(NginxServerTest, ServesContentRedirectsAndAuthOnIp4AndIp6) {
  const uint64_t largeSize = 5u << 20;
  uint16_t port;
  {
    NginxServer nginx(largeSize);
    port = nginx.port();
    for (const std::string& url : {nginx.httpUrl("/small.txt"), nginx.httpUrl6("/small.txt")}) {
      BlockingFetch small(url);
      EXPECT_EQ(small.perform(), CURLE_OK) << url;
      EXPECT_EQ(small.status(), 200);
      EXPECT_EQ(small.body(), NginxServer::smallText());
      EXPECT_EQ(small.body().size(), 1024u);
      EXPECT_NE(small.headers().find("Content-Type: text/plain"), std::string::npos);
      // Keep-alive: a second transfer on the handle reuses the connection.
      EXPECT_EQ(small.perform(), CURLE_OK);
      long newConnections = -1;
      curl_easy_getinfo(small.easy(), CURLINFO_NUM_CONNECTS, &newConnections);
      EXPECT_EQ(newConnections, 0);
    }

    BlockingFetch large(nginx.httpUrl("/large.bin"));
    EXPECT_EQ(large.perform(), CURLE_OK);
    EXPECT_EQ(large.body().size(), largeSize);
    EXPECT_EQ(nginx.largeSize(), largeSize);

    BlockingFetch missing(nginx.httpUrl("/status/404")), failing(nginx.httpUrl6("/status/500"));
    EXPECT_EQ(missing.perform(), CURLE_OK);
    EXPECT_EQ(missing.status(), 404);
    EXPECT_EQ(failing.perform(), CURLE_OK);
    EXPECT_EQ(failing.status(), 500);

    BlockingFetch chain(nginx.httpUrl("/redirect/3"));
    chain.option(CURLOPT_FOLLOWLOCATION, 1L);
    EXPECT_EQ(chain.perform(), CURLE_OK);
    EXPECT_EQ(chain.status(), 200);
    EXPECT_EQ(chain.body(), NginxServer::smallText());
    long redirects = 0;
    curl_easy_getinfo(chain.easy(), CURLINFO_REDIRECT_COUNT, &redirects);
    EXPECT_EQ(redirects, 3);
    BlockingFetch unfollowed(nginx.httpUrl("/redirect/1"));
    EXPECT_EQ(unfollowed.perform(), CURLE_OK);
    EXPECT_EQ(unfollowed.status(), 302);
    EXPECT_NE(unfollowed.headers().find("Location: /small.txt"), std::string::npos);
    BlockingFetch loop(nginx.httpUrl("/loop"));
    loop.option(CURLOPT_FOLLOWLOCATION, 1L).option(CURLOPT_MAXREDIRS, 5L);
    EXPECT_EQ(loop.perform(), CURLE_TOO_MANY_REDIRECTS);

    BlockingFetch anonymous(nginx.httpUrl("/basic/secret.txt"));
    EXPECT_EQ(anonymous.perform(), CURLE_OK);
    EXPECT_EQ(anonymous.status(), 401);
    BlockingFetch wrongPassword(nginx.httpUrl("/basic/secret.txt"));
    wrongPassword.option(CURLOPT_USERPWD, "user:wrong");
    EXPECT_EQ(wrongPassword.perform(), CURLE_OK);
    EXPECT_EQ(wrongPassword.status(), 401);
    BlockingFetch user(nginx.httpUrl6("/basic/secret.txt"));
    user.option(CURLOPT_USERNAME, NginxServer::kUser)
        .option(CURLOPT_PASSWORD, NginxServer::kPassword);
    EXPECT_EQ(user.perform(), CURLE_OK);
    EXPECT_EQ(user.status(), 200);
    EXPECT_EQ(user.body(), "secret\n");

    // Files added by a test are served.
    std::ofstream(nginx.root() + "/added.txt") << "added";
    BlockingFetch added(nginx.httpUrl("/added.txt"));
    EXPECT_EQ(added.perform(), CURLE_OK);
    EXPECT_EQ(added.body(), "added");
    EXPECT_EQ(nginx.errorLog().find("[emerg]"), std::string::npos) << nginx.errorLog();
  }
  EXPECT_FALSE(RetraTest::FreePort::accepts(port)) << "nginx outlived its fixture";
}

TEST(NginxServerTest, HttpsVerifiesOnlyAgainstItsCaNameAndPin) {
  NginxServer nginx;
  const auto& pki = nginx.certificates();
  auto fetchTls = [&](const std::string& url, const char* pin = nullptr) {
    BlockingFetch fetch(url);
    fetch.option(CURLOPT_CAINFO, pki.caCert().c_str());
    if (pin) fetch.option(CURLOPT_PINNEDPUBLICKEY, pin);
    CURLcode code = fetch.perform();
    if (code == CURLE_OK) {
      EXPECT_EQ(fetch.body(), NginxServer::smallText()) << url;
    }
    return code;
  };
  EXPECT_EQ(fetchTls(nginx.httpsUrl("/small.txt")), CURLE_OK);
  EXPECT_EQ(fetchTls(nginx.httpsLocalhostUrl("/small.txt")), CURLE_OK);
  EXPECT_EQ(fetchTls("https://[::1]:" + std::to_string(nginx.tlsPort()) + "/small.txt"), CURLE_OK);
  EXPECT_EQ(fetchTls(nginx.httpsUrl("/small.txt"), pki.serverPin().c_str()), CURLE_OK);
  EXPECT_EQ(fetchTls(nginx.httpsUrl("/small.txt"), pki.otherPin().c_str()),
            CURLE_SSL_PINNEDPUBKEYNOTMATCH);
  EXPECT_EQ(fetchTls(nginx.httpsWrongNameUrl("/small.txt")), CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_EQ(fetchTls(nginx.httpsSelfSignedUrl("/small.txt")), CURLE_PEER_FAILED_VERIFICATION);
  // The system's trust store knows nothing of the test CA.
  EXPECT_EQ(HarnessTest::fetchCode(nginx.httpsUrl("/small.txt")), CURLE_PEER_FAILED_VERIFICATION);

  BlockingFetch secret(nginx.httpsUrl("/basic/secret.txt"));
  secret.option(CURLOPT_CAINFO, pki.caCert().c_str()).option(CURLOPT_USERPWD, "user:passwd");
  EXPECT_EQ(secret.perform(), CURLE_OK);
  EXPECT_EQ(secret.body(), "secret\n");
}

}  // namespace
