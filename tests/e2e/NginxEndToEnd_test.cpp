// Fetches from a real nginx on the loopback interface: plain and verified TLS transfers on both
// address families, authentication, redirects, error statuses and downloads to a file.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "e2e/support/FetchFixture.h"
#include "e2e/support/TrustedCa.h"
#include "support/NginxServer.h"
#include "support/TempDir.h"

namespace {

using Retra::Response;
using RetraTest::NginxServer;

class NginxFetchTest : public E2eTest::FetchFixture {
 protected:
  void SetUp() override { rootIs(""); }

  // Everything a first fetch of /small.txt publishes: result, headers, body, lengths, counters,
  // timers and stamps.
  void expectSmallFile(const Orb::Ptr<Response>& response, const std::string& url, bool tls,
                       Orb::Seconds before) {
    SCOPED_TRACE(url);
    EXPECT_EQ(response->lastError(), Retra::errNone) << response->lastErrorMessage();
    EXPECT_EQ(response->statusCode(), 200);
    EXPECT_EQ(response->body(), NginxServer::smallText());
    EXPECT_EQ(response->effectiveUrl(), url);
    EXPECT_EQ(response->contentType(), "text/plain");
    EXPECT_EQ(response->contentLengthDownload(), 1024);
    EXPECT_EQ(response->scheme(), tls ? Retra::https : Retra::http);
    EXPECT_TRUE(response->resolved());
    EXPECT_EQ(response->numRequest(), 1u);

    // Header values lose the one blank after the colon and keep every later colon.
    EXPECT_EQ(response->header("Content-Type"), "text/plain");
    EXPECT_EQ(response->header("Content-Length"), "1024");
    EXPECT_TRUE(std::regex_search(response->header("Date").str(),
                                  std::regex("^[A-Z][a-z]{2}, .* [0-9]{2}:[0-9]{2}:[0-9]{2} GMT$")))
        << response->header("Date");

    Orb::Ptr<Retra::RequestCounter> counter = response->counter();
    ASSERT_TRUE(counter);
    EXPECT_EQ(counter->bytesDownload(), 1024u);
    EXPECT_EQ(counter->bytesUpload(), 0u);
    EXPECT_EQ(counter->numConnect(), 1u);
    EXPECT_EQ(counter->numRedirect(), 0u);
    EXPECT_GE(counter->numFinish(), 1u);
    EXPECT_GT(counter->bytesHeaderDownload(), 0u);
    EXPECT_GT(counter->bytesRequestUpload(), 0u);
    EXPECT_GT(counter->speedDownload(), 0.0);

    Orb::Ptr<Retra::RequestTimer> timer = response->timer();
    ASSERT_TRUE(timer);
    EXPECT_GT(timer->total(), 0.0);
    EXPECT_GT(timer->connect(), 0.0);
    EXPECT_GE(timer->request(), timer->connect());
    EXPECT_GE(timer->total(), timer->request());
    if (tls) {
      EXPECT_GT(timer->sslHandshake(), 0.0);
    } else {
      EXPECT_EQ(timer->sslHandshake(), 0.0);
    }
    // Names are resolved before libcurl runs, so libcurl's lookup time is never recorded.
    EXPECT_EQ(timer->hostLookup(), 0.0);

    EXPECT_GE(response->lastUpdateTime(), before);
    EXPECT_LE(response->lastUpdateTime(), now());
    // A first fetch always counts as a change.
    EXPECT_EQ(response->lastChangeTime(), response->lastUpdateTime());
  }
};

std::string fileContents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST_F(NginxFetchTest, SmallFileOverHttpOnBothLoopbackAddresses) {
  NginxServer nginx;
  const std::string v4 = nginx.httpUrl("/small.txt");
  const std::string v6 = nginx.httpUrl6("/small.txt");
  const Orb::Seconds before = now();

  auto responses = fetchAll({request(v4), request(v6)});

  expectSmallFile(responses[0], v4, false, before);
  expectSmallFile(responses[1], v6, false, before);
  EXPECT_EQ(responses[0]->port(), nginx.port());
  EXPECT_EQ(responses[1]->port(), nginx.port());
}

TEST_F(NginxFetchTest, SmallFileOverVerifiedHttpsOnBothLoopbackAddresses) {
  NginxServer nginx;
  E2eTest::TrustedCa trust(nginx.certificates().caCert());
  if (!trust.active()) GTEST_SKIP() << trust.reason();
  const std::string v4 = nginx.httpsUrl("/small.txt");
  const std::string v6 = "https://[::1]:" + std::to_string(nginx.tlsPort()) + "/small.txt";
  const Orb::Seconds before = now();

  // sslVerifyPeer is on by default: these succeed only because the certificate verifies.
  auto responses = fetchAll({request(v4), request(v6)});

  expectSmallFile(responses[0], v4, true, before);
  expectSmallFile(responses[1], v6, true, before);
  EXPECT_TRUE(responses[0]->sslVerifyPeer());
  EXPECT_EQ(responses[0]->port(), nginx.tlsPort());
}

TEST_F(NginxFetchTest, BasicAuthenticationSendsCredentialsOnlyWhenAsked) {
  NginxServer nginx;
  Retra::Request right = request(nginx.httpUrl("/basic/secret.txt?right"));
  right.authTypeIs(Retra::authBasic);
  right.usernameIs(NginxServer::kUser);
  right.passwordIs(NginxServer::kPassword);
  Retra::Request wrong = request(nginx.httpUrl("/basic/secret.txt?wrong"));
  wrong.authTypeIs(Retra::authBasic);
  wrong.usernameIs(NginxServer::kUser);
  wrong.passwordIs("not the password");
  Retra::Request none = request(nginx.httpUrl("/basic/secret.txt?none"));
  none.usernameIs(NginxServer::kUser);  // ignored: authType stays authNone
  none.passwordIs(NginxServer::kPassword);

  auto responses = fetchAll({right, wrong, none});

  EXPECT_EQ(responses[0]->statusCode(), 200);
  EXPECT_EQ(responses[0]->lastError(), Retra::errNone);
  EXPECT_EQ(responses[0]->body(), "secret\n");
  for (const auto& refused : {responses[1], responses[2]}) {
    SCOPED_TRACE(refused->uri());
    EXPECT_EQ(refused->statusCode(), 401);
    EXPECT_EQ(refused->lastError(), Retra::errHttpStatusCode);
    EXPECT_EQ(refused->body(), "");
  }
}

TEST_F(NginxFetchTest, RedirectsAreFollowedToTheEndOrTheLimit) {
  NginxServer nginx;
  auto responses =
      fetchAll({request(nginx.httpUrl("/redirect/3")), request(nginx.httpUrl("/loop"))});

  const Orb::Ptr<Response>& chain = responses[0];
  EXPECT_EQ(chain->statusCode(), 200);
  EXPECT_EQ(chain->lastError(), Retra::errNone);
  EXPECT_EQ(chain->counter()->numRedirect(), 3u);
  EXPECT_EQ(chain->effectiveUrl(), nginx.httpUrl("/small.txt"));
  EXPECT_EQ(chain->body(), NginxServer::smallText());
  // The headers of every answer of the chain land in one map: the last Location stays.
  EXPECT_EQ(chain->header("Location"), "/small.txt");

  // libcurl gives up after 64 redirects. The last answer was a 302, and an HTTP status below
  // 400 is not an error whatever libcurl's own result.
  const Orb::Ptr<Response>& loop = responses[1];
  EXPECT_EQ(loop->statusCode(), 302);
  EXPECT_EQ(loop->lastError(), Retra::errNone);
  EXPECT_EQ(loop->counter()->numRedirect(), 64u);
  EXPECT_EQ(loop->effectiveUrl(), nginx.httpUrl("/loop"));
}

TEST_F(NginxFetchTest, ErrorStatusesKeepTheirCode) {
  NginxServer nginx;
  auto responses =
      fetchAll({request(nginx.httpUrl("/status/404")), request(nginx.httpUrl("/status/500"))});

  EXPECT_EQ(responses[0]->statusCode(), 404);
  EXPECT_EQ(responses[1]->statusCode(), 500);
  for (const auto& failed : responses) {
    SCOPED_TRACE(failed->uri());
    EXPECT_EQ(failed->lastError(), Retra::errHttpStatusCode);
    EXPECT_EQ(failed->lastErrorMessage(), "");
    EXPECT_EQ(failed->body(), "");  // the transfer ends before the error page
  }
}

TEST_F(NginxFetchTest, OutputPathReceivesTheBodyOrReportsTheFileError) {
  NginxServer nginx(4 << 20);
  RetraTest::TempDir out("retra-e2e-out");
  Retra::Request toFile = request(nginx.httpUrl("/large.bin"));
  toFile.outputPathIs(out.path("large.bin"));
  Retra::Request toMissingDir = request(nginx.httpUrl("/small.txt"));
  toMissingDir.outputPathIs(out.path("missing/small.txt"));

  auto responses = fetchAll({toFile, toMissingDir});

  const Orb::Ptr<Response>& written = responses[0];
  EXPECT_EQ(written->statusCode(), 200);
  EXPECT_EQ(written->lastError(), Retra::errNone) << written->lastErrorMessage();
  EXPECT_EQ(written->body(), "");
  EXPECT_EQ(written->contentType(), "application/octet-stream");
  EXPECT_EQ(written->contentLengthDownload(), static_cast<long long>(nginx.largeSize()));
  EXPECT_EQ(written->counter()->bytesDownload(), nginx.largeSize());
  const std::string contents = fileContents(out.path("large.bin"));
  EXPECT_EQ(contents.size(), nginx.largeSize());
  EXPECT_TRUE(std::all_of(contents.begin(), contents.end(), [](char c) { return c == '\0'; }));

  const Orb::Ptr<Response>& failed = responses[1];
  EXPECT_EQ(failed->lastError(), Retra::errFile);
  EXPECT_EQ(failed->lastErrorMessage(), std::strerror(ENOENT));
  EXPECT_EQ(failed->statusCode(), 200);  // the headers had arrived when writing failed
  EXPECT_EQ(failed->body(), "");
  struct stat info {};
  EXPECT_NE(::stat(out.path("missing").c_str(), &info), 0);
}

}  // namespace
