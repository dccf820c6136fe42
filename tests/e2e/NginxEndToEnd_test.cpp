// Fetches from a real nginx on the loopback interface: plain and TLS transfers on both address
// families, verification and pinned keys, authentication, error statuses, downloads to a file, and
// host names resolved by the library's own resolver.

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <regex>
#include <string>

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "dnsr/support/Dnsmasq.h"
#include "engine/support/EngineFixture.h"
#include "support/NginxServer.h"
#include "support/TempDir.h"

namespace {

using Retra::Response;
using RetraTest::NginxServer;

class NginxFetchTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override { rootIs(""); }

  [[nodiscard]] static Retra::Request unverified(Retra::Request r, const std::string& pin = "") {
    r.sslVerifyPeerIs(false);
    r.pinnedPublicKeyIs(pin);
    return r;
  }

  // A failed handshake: no HTTP status, libcurl's own text for `code`.
  static void expectTlsFailure(const Orb::Ptr<Response>& r, CURLcode code) {
    SCOPED_TRACE(r->uri());
    EXPECT_EQ(r->lastError(), Retra::errCurlOther);
    EXPECT_EQ(r->lastErrorMessage(), curl_easy_strerror(code));
    EXPECT_EQ(r->statusCode(), 0);
    EXPECT_EQ(r->body(), "");
  }

  NginxServer nginx_;
};

// Everything a first fetch of /small.txt publishes: result, headers, body, lengths, counters,
// timers and stamps.
TEST_F(NginxFetchTest, FetchPublishesEveryAttributeOnBothAddressesWithAndWithoutTls) {
  const std::string urls[] = {nginx_.httpUrl("/small.txt"), nginx_.httpUrl6("/small.txt"),
                              nginx_.httpsUrl("/small.txt"),
                              "https://[::1]:" + std::to_string(nginx_.tlsPort()) + "/small.txt"};
  const Orb::Seconds before = now();

  auto responses = fetchAll({request(urls[0]), request(urls[1]), unverified(request(urls[2])),
                             unverified(request(urls[3]))});

  for (size_t i = 0; i < responses.size(); ++i) {
    const Orb::Ptr<Response>& r = responses[i];
    const bool tls = i >= 2;
    SCOPED_TRACE(urls[i]);
    EXPECT_EQ(r->lastError(), Retra::errNone) << r->lastErrorMessage();
    EXPECT_EQ(r->statusCode(), 200);
    EXPECT_EQ(r->body(), NginxServer::smallText());
    EXPECT_EQ(r->effectiveUrl(), urls[i]);
    EXPECT_EQ(r->contentType(), "text/plain");
    EXPECT_EQ(r->contentLengthDownload(), 1024);
    EXPECT_EQ(r->scheme(), tls ? Retra::https : Retra::http);
    EXPECT_EQ(r->port(), tls ? nginx_.tlsPort() : nginx_.port());
    EXPECT_EQ(r->sslVerifyPeer(), !tls);
    EXPECT_TRUE(r->resolved());
    EXPECT_EQ(r->numRequest(), 1u);
    EXPECT_EQ(r->requestState(), Retra::stateFinished);
    // Header values lose the one blank after the colon and keep every later colon.
    EXPECT_EQ(r->header("Content-Length"), "1024");
    EXPECT_TRUE(std::regex_search(r->header("Date").str(),
                                  std::regex("^[A-Z][a-z]{2}, .* [0-9]{2}:[0-9]{2}:[0-9]{2} GMT$")))
        << r->header("Date");

    const Orb::Ptr<Retra::RequestCounter> counter = r->counter();
    EXPECT_EQ(counter->bytesDownload(), 1024u);
    EXPECT_EQ(counter->bytesUpload(), 0u);
    EXPECT_EQ(counter->numConnect(), 1u);
    EXPECT_EQ(counter->numRedirect(), 0u);
    EXPECT_EQ(counter->numFinish(), 2u);  // transfer completed, then its machine dropped
    EXPECT_GT(counter->bytesHeaderDownload(), 0u);
    EXPECT_GT(counter->bytesRequestUpload(), 0u);
    EXPECT_GT(counter->speedDownload(), 0.0);

    const Orb::Ptr<Retra::RequestTimer> timer = r->timer();
    EXPECT_GT(timer->connect(), 0.0);
    EXPECT_GE(timer->request(), timer->connect());
    EXPECT_GE(timer->total(), timer->request());
    EXPECT_EQ(timer->sslHandshake() > 0.0, tls);
    // Names are resolved before libcurl runs, so libcurl's lookup time is never recorded.
    EXPECT_EQ(timer->hostLookup(), 0.0);

    EXPECT_GE(r->lastUpdateTime(), before);
    EXPECT_LE(r->lastUpdateTime(), now());
    EXPECT_EQ(r->lastChangeTime(), r->lastUpdateTime());  // a first fetch is a change
  }
}

// Verification is on by default and refuses the self-signed certificate; switched off, it
// also skips the name check. A pinned key must match the server's whatever verification says.
TEST_F(NginxFetchTest, TlsVerificationAndPinnedKeysDecideTheHandshake) {
  const std::string url = nginx_.httpsUrl("/small.txt");

  auto responses =
      fetchAll({request(url), unverified(request(nginx_.httpsWrongNameUrl("/small.txt"))),
                unverified(request(url + "?pin"), nginx_.serverPin()),
                unverified(request(url + "?other"), nginx_.otherPin())});

  expectTlsFailure(responses[0], CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_EQ(responses[1]->statusCode(), 200) << responses[1]->lastErrorMessage();
  EXPECT_EQ(responses[2]->statusCode(), 200) << responses[2]->lastErrorMessage();
  EXPECT_EQ(responses[2]->pinnedPublicKey(), nginx_.serverPin());
  expectTlsFailure(responses[3], CURLE_SSL_PINNEDPUBKEYNOTMATCH);
}

TEST_F(NginxFetchTest, StatusesAuthenticationAndFilesFollowTheRequest) {
  RetraTest::TempDir out("retra-e2e-out");
  auto basic = [&](const std::string& query, Retra::HttpAuthenticationType type,
                   const std::string& password) {
    Retra::Request r = request(nginx_.httpUrl("/basic/secret.txt?" + query));
    r.authTypeIs(type);
    r.usernameIs(NginxServer::kUser);
    r.passwordIs(password);
    return r;
  };
  auto toFile = [&](const std::string& path, const std::string& file) {
    Retra::Request r = request(nginx_.httpUrl(path));
    r.outputPathIs(out.path(file));
    return r;
  };
  out.write("small.txt", std::string(5000, 'o'));  // an older, longer file is replaced

  auto responses = fetchAll({basic("right", Retra::authBasic, NginxServer::kPassword),
                             basic("wrong", Retra::authBasic, "not the password"),
                             basic("none", Retra::authNone, NginxServer::kPassword),
                             request(nginx_.httpUrl("/status/404")),
                             toFile("/large.bin", "large.bin"), toFile("/small.txt", "small.txt"),
                             toFile("/small.txt?missing", "missing/small.txt")});

  EXPECT_EQ(responses[0]->statusCode(), 200);
  EXPECT_EQ(responses[0]->lastError(), Retra::errNone);
  EXPECT_EQ(responses[0]->body(), "secret\n");
  const int failedStatus[] = {401, 401, 404};
  for (size_t i = 1; i <= 3; ++i) {
    SCOPED_TRACE(responses[i]->uri());
    EXPECT_EQ(responses[i]->statusCode(), failedStatus[i - 1]);
    EXPECT_EQ(responses[i]->lastError(), Retra::errHttpStatusCode);
    EXPECT_EQ(responses[i]->lastErrorMessage(), "");
    EXPECT_EQ(responses[i]->body(), "");  // the transfer ends before the error page
  }

  const Orb::Ptr<Response>& large = responses[4];
  EXPECT_EQ(large->lastError(), Retra::errNone) << large->lastErrorMessage();
  EXPECT_EQ(large->body(), "");
  EXPECT_EQ(large->contentType(), "application/octet-stream");
  EXPECT_EQ(large->counter()->bytesDownload(), nginx_.largeSize());
  EXPECT_EQ(out.read("large.bin"), std::string(nginx_.largeSize(), '\0'));
  EXPECT_EQ(out.read("small.txt"), NginxServer::smallText());

  const Orb::Ptr<Response>& failed = responses[6];
  EXPECT_EQ(failed->lastError(), Retra::errFile);
  EXPECT_EQ(failed->lastErrorMessage(), std::strerror(ENOENT));
  EXPECT_EQ(failed->statusCode(), 200);  // the headers had arrived when writing failed
  struct stat info {};
  EXPECT_NE(::stat(out.path("missing").c_str(), &info), 0);
}

// libcurl connects to exactly the addresses the resolver found, asking a dnsmasq of the test's
// own: nginx listens on 127.0.0.1 and ::1 only.
class ResolverFetchTest : public NginxFetchTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dns_.isRunning()) << dns_.log();
    rootIs(dns_.server());
  }
  [[nodiscard]] std::string urlOn(const std::string& host) const {
    return "http://" + host + ":" + std::to_string(nginx_.port()) + "/small.txt";
  }

  DnsrTest::Dnsmasq dns_{"127.0.0.1 web.test\n::1 web6.test\n127.0.0.2 elsewhere.test\n"};
};

TEST_F(ResolverFetchTest, NamesReachTheAddressesTheResolverFound) {
  auto responses = fetchAll({request(urlOn("web.test")), request(urlOn("web6.test")),
                             request(urlOn("elsewhere.test")), request(urlOn("missing.test"))});

  const Orb::Ptr<Response>& v4 = responses[0];
  EXPECT_EQ(v4->statusCode(), 200) << v4->lastErrorMessage();
  EXPECT_EQ(v4->body(), NginxServer::smallText());
  EXPECT_EQ(v4->host(), "web.test");
  EXPECT_EQ(v4->ipAddress().size(), 1u);
  EXPECT_TRUE(v4->ipAddress(Ipkit::IpAddr("127.0.0.1")));
  EXPECT_TRUE(v4->ip6Address().empty());
  EXPECT_EQ(v4->effectiveUrl(), urlOn("web.test"));

  const Orb::Ptr<Response>& v6 = responses[1];
  EXPECT_EQ(v6->statusCode(), 200) << v6->lastErrorMessage();
  EXPECT_TRUE(v6->ipAddress().empty());
  EXPECT_TRUE(v6->ip6Address(Ipkit::Ip6Addr("::1")));

  const Orb::Ptr<Response>& elsewhere = responses[2];
  EXPECT_TRUE(elsewhere->ipAddress(Ipkit::IpAddr("127.0.0.2")));
  EXPECT_EQ(elsewhere->lastError(), Retra::errConnRefused) << describe(elsewhere->requestKey());

  const Orb::Ptr<Response>& missing = responses[3];
  EXPECT_EQ(missing->lastError(), Retra::errDnsLookup);
  EXPECT_EQ(missing->statusCode(), 0);
  EXPECT_TRUE(missing->ipAddress().empty() && missing->ip6Address().empty());
  EXPECT_EQ(missing->counter()->numConnect(), 0u);  // nothing was handed to libcurl
}

}  // namespace
