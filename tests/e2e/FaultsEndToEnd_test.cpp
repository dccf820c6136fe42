// Servers that refuse, stall, drip, cut the body short, send no HTTP, oversized or unusual
// headers or endless redirects, and a name server that never answers: what the library makes of
// each.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>

#include "Dnsr/ResolutionError.h"
#include "dnsr/support/Dnsmasq.h"
#include "e2e/support/FetchFixture.h"
#include "support/FaultAnswers.h"
#include "support/LoopbackHttpServer.h"
#include "support/TimeScale.h"

namespace {

using Retra::Response;
using RetraTest::FaultAnswers;
using RetraTest::LoopbackHttpServer;
using std::chrono::milliseconds;

class FaultFetchTest : public E2eTest::FetchFixture {
 protected:
  void SetUp() override { rootIs(""); }

  // A request that gives up after one second (stretched under a slow checker), connecting
  // included.
  [[nodiscard]] static Retra::Request impatient(const std::string& uri) {
    Retra::Request r = request(uri);
    r.timeoutConnectIs(RetraTest::scaledSeconds(1));
    r.timeoutRequestIs(RetraTest::scaledSeconds(1));
    return r;
  }

  LoopbackHttpServer server_;
};

TEST_F(FaultFetchTest, BrokenConnectionsAreClassified) {
  server_.routeIs("/silent", FaultAnswers::silence(server_));
  server_.routeIs("/cut", FaultAnswers::cutBody("first part", 100));
  Retra::Request silent = request(server_.url("/silent"));
  silent.timeoutConnectIs(1);
  silent.timeoutRequestIs(2);

  auto responses = fetchAll(
      {request(FaultAnswers::refusingUrl("/refused")), silent, request(server_.url("/cut"))});

  const Orb::Ptr<Response>& refused = responses[0];
  EXPECT_EQ(refused->lastError(), Retra::errConnRefused);
  EXPECT_EQ(refused->lastErrorMessage(), "");
  EXPECT_EQ(refused->statusCode(), 0);
  EXPECT_EQ(refused->counter()->bytesDownload(), 0u);

  const Orb::Ptr<Response>& stalled = responses[1];
  EXPECT_EQ(stalled->lastError(), Retra::errTimeout);
  EXPECT_EQ(stalled->statusCode(), 0);
  ASSERT_GE(server_.requests().size(), 1u);

  // Once an HTTP status has arrived, libcurl's own verdict on the transfer is not consulted:
  // the short body is kept and no error is reported.
  const Orb::Ptr<Response>& cut = responses[2];
  EXPECT_EQ(cut->statusCode(), 200);
  EXPECT_EQ(cut->lastError(), Retra::errNone);
  EXPECT_EQ(cut->body(), "first part");
  EXPECT_EQ(cut->contentLengthDownload(), 100);
  EXPECT_EQ(cut->counter()->bytesDownload(), 10u);
}

TEST_F(FaultFetchTest, UnusualHeaderLinesAreStoredByTheHeaderRule) {
  server_.routeIs("/odd", FaultAnswers::oddHeaderLines("odd but readable"));
  server_.routeIs("/blanks", [](int socket, const LoopbackHttpServer::Received&) {
    LoopbackHttpServer::sendAll(socket,
                                "HTTP/1.1 200 Ready: yes\r\n"
                                "X-Tab:\tabcdefg\r\n"
                                "X-Two-Blanks:  two\r\n"
                                "X-Where: http://127.0.0.1:8080/x\r\n"
                                "Content-Length: 2\r\n"
                                "Connection: close\r\n\r\nok");
  });

  auto responses = fetchAll({request(server_.url("/odd")), request(server_.url("/blanks"))});

  const Orb::Ptr<Response>& odd = responses[0];
  EXPECT_EQ(odd->statusCode(), 200);
  EXPECT_EQ(odd->body(), "odd but readable");
  EXPECT_EQ(odd->header("X-No-Space"), "tight");
  EXPECT_EQ(odd->header("X-Trailing-Spaces"), "value   ");
  // libcurl 8 joins a folded continuation to its line; 7.88 hands the continuation over apart.
  const bool joinsFolded = curl_version_info(CURLVERSION_NOW)->version_num >= 0x080000;
  EXPECT_EQ(odd->header("X-Folded"), joinsFolded ? "first part continued part" : "first part");
  EXPECT_EQ(odd->header("X-Twice"), "two");  // the later line wins
  EXPECT_EQ(odd->header("Content-Length"), "16");
  // Lines without a value are not stored: the empty header, the folded continuation (it has
  // no colon) and the status line.
  EXPECT_EQ(odd->header().count(Orb::String("X-Empty")), 0u);
  for (const auto& [name, value] : odd->header()) {
    EXPECT_EQ(name.view().find("continued"), std::string_view::npos) << name;
    EXPECT_NE(name.view().substr(0, 5), "HTTP/") << name;
  }

  // One leading character is skipped for a blank, five for a tab (the codes 9 to 13 all count
  // as white space), none beyond; colons after the first stay in the value, also in a status
  // line whose reason phrase holds one.
  const Orb::Ptr<Response>& blanks = responses[1];
  EXPECT_EQ(blanks->statusCode(), 200);
  EXPECT_EQ(blanks->body(), "ok");
  EXPECT_EQ(blanks->header("X-Tab"), "efg");
  EXPECT_EQ(blanks->header("X-Two-Blanks"), " two");
  EXPECT_EQ(blanks->header("X-Where"), "http://127.0.0.1:8080/x");
  EXPECT_EQ(blanks->header("HTTP/1.1 200 Ready"), "yes");
}

// The total time-out cuts a dripping answer short wherever it is. Before the status line is
// complete there is no HTTP status, so libcurl's time-out is reported; once a status has
// arrived, it is kept, with no error, and the body holds what came in time.
TEST_F(FaultFetchTest, DrippingAnswersAreCutByTheRequestTimeout) {
  // The pace stretches with the time-out (under a slow checker), so the drip still outlasts it.
  const auto every = [](int ms) { return milliseconds(std::lround(ms * RetraTest::timeScale())); };
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 50\r\nConnection: close\r\n\r\n";
  const std::string body(50, 'x');
  server_.routeIs("/status-line", FaultAnswers::drip(server_, head + body, every(400)));
  server_.routeIs("/header-block",
                  FaultAnswers::dripAfter(server_, "HTTP/1.1 200 OK\r\n",
                                          "X-Slow: one byte at a time\r\nContent-Length: 2\r\n"
                                          "Connection: close\r\n\r\nok",
                                          every(200)));
  server_.routeIs("/body", FaultAnswers::dripAfter(server_, head, body, every(200)));

  auto responses =
      fetchAll({impatient(server_.url("/status-line")), impatient(server_.url("/header-block")),
                impatient(server_.url("/body"))});

  const Orb::Ptr<Response>& inStatusLine = responses[0];
  EXPECT_EQ(inStatusLine->lastError(), Retra::errTimeout) << inStatusLine->lastErrorMessage();
  EXPECT_EQ(inStatusLine->statusCode(), 0);
  EXPECT_EQ(inStatusLine->body(), "");
  EXPECT_TRUE(inStatusLine->header().empty());

  const Orb::Ptr<Response>& inHeaders = responses[1];
  EXPECT_EQ(inHeaders->statusCode(), 200);
  EXPECT_EQ(inHeaders->lastError(), Retra::errNone) << inHeaders->lastErrorMessage();
  EXPECT_EQ(inHeaders->body(), "");
  EXPECT_EQ(inHeaders->header().count(Orb::String("Content-Length")), 0u);  // never arrived

  const Orb::Ptr<Response>& inBody = responses[2];
  EXPECT_EQ(inBody->statusCode(), 200);
  EXPECT_EQ(inBody->lastError(), Retra::errNone) << inBody->lastErrorMessage();
  EXPECT_EQ(inBody->contentLengthDownload(), 50);
  EXPECT_FALSE(inBody->body().empty());
  EXPECT_LT(inBody->body().size(), body.size());
  EXPECT_EQ(inBody->body().str(), std::string(inBody->body().size(), 'x'));
  EXPECT_EQ(inBody->counter()->bytesDownload(), inBody->body().size());
  // Once when the transfer completed, once when the engine dropped the request's state machine.
  EXPECT_EQ(inBody->counter()->numFinish(), 2u);
}

TEST_F(FaultFetchTest, MalformedAndOversizedAnswersFollowTheOutcomeRule) {
  constexpr size_t kLongLine = 200 * 1024;
  constexpr size_t kManyLines = 2000;
  server_.routeIs("/not-http", FaultAnswers::notHttp());
  server_.routeIs("/long-line", FaultAnswers::longHeaderLine(kLongLine));
  server_.routeIs("/many-lines", FaultAnswers::manyHeaderLines(kManyLines));
  server_.routeIs("/chunked",
                  FaultAnswers::chunked({"first,", "", "second,", std::string(5000, 'c')}));

  auto responses =
      fetchAll({request(server_.url("/not-http")), request(server_.url("/long-line")),
                request(server_.url("/many-lines")), request(server_.url("/chunked"))});

  // No status line at all: libcurl's own verdict, with its message. (It takes the bytes for an
  // HTTP/0.9 answer, which it refuses.)
  const Orb::Ptr<Response>& notHttp = responses[0];
  EXPECT_EQ(notHttp->statusCode(), 0);
  EXPECT_EQ(notHttp->lastError(), Retra::errCurlOther);
  EXPECT_EQ(notHttp->lastErrorMessage(), curl_easy_strerror(CURLE_UNSUPPORTED_PROTOCOL));
  EXPECT_EQ(notHttp->body(), "");

  // libcurl rejects a header line over its limit (100 KiB) and ends the transfer with an error;
  // the status had arrived before, so it is what the response reports.
  const Orb::Ptr<Response>& longLine = responses[1];
  EXPECT_EQ(longLine->statusCode(), 200);
  EXPECT_EQ(longLine->lastError(), Retra::errNone) << longLine->lastErrorMessage();
  EXPECT_EQ(longLine->header().count(Orb::String("X-Long")), 0u);
  EXPECT_EQ(longLine->body(), "");

  const Orb::Ptr<Response>& manyLines = responses[2];
  EXPECT_EQ(manyLines->statusCode(), 200);
  EXPECT_EQ(manyLines->lastError(), Retra::errNone) << manyLines->lastErrorMessage();
  EXPECT_EQ(manyLines->body(), "ok");
  EXPECT_EQ(manyLines->header("X-Header-0"), "value 0");
  EXPECT_EQ(manyLines->header("X-Header-1999"), "value 1999");
  EXPECT_EQ(manyLines->header().size(), kManyLines + 2);  // and Content-Length, Connection

  // The body is the chunks joined; the trailer reaches the header map like any header line.
  const Orb::Ptr<Response>& chunked = responses[3];
  const std::string joined = "first,second," + std::string(5000, 'c');
  EXPECT_EQ(chunked->statusCode(), 200);
  EXPECT_EQ(chunked->lastError(), Retra::errNone) << chunked->lastErrorMessage();
  EXPECT_EQ(chunked->body().str(), joined);
  EXPECT_EQ(chunked->counter()->bytesDownload(), joined.size());
  EXPECT_EQ(chunked->contentLengthDownload(), -1);
  EXPECT_EQ(chunked->header("Transfer-Encoding"), "chunked");
  EXPECT_EQ(chunked->header("X-Trailer"), "done");
}

// A chain of exactly 64 redirects is followed to its end; one more and libcurl stops at the
// last 302, which is a status below 400: no error.
TEST_F(FaultFetchTest, RedirectChainsAreFollowedUpToSixtyFour) {
  server_.routeIs("/countdown", FaultAnswers::redirectCountdown());

  auto responses = fetchAll({request(server_.url("/countdown?left=64"))});
  const Orb::Ptr<Response>& atLimit = responses[0];
  EXPECT_EQ(atLimit->statusCode(), 200);
  EXPECT_EQ(atLimit->lastError(), Retra::errNone);
  EXPECT_EQ(atLimit->body(), "end");
  EXPECT_EQ(atLimit->counter()->numRedirect(), 64u);
  EXPECT_EQ(atLimit->effectiveUrl(), server_.url("/countdown?left=0"));
  EXPECT_EQ(server_.requests().size(), 65u);

  responses = fetchAll({request(server_.url("/countdown?left=65"))});
  const Orb::Ptr<Response>& overLimit = responses[0];
  EXPECT_EQ(overLimit->statusCode(), 302);
  EXPECT_EQ(overLimit->lastError(), Retra::errNone);
  EXPECT_EQ(overLimit->body(), "");
  EXPECT_EQ(overLimit->counter()->numRedirect(), 64u);
  EXPECT_EQ(overLimit->effectiveUrl(), server_.url("/countdown?left=1"));
  EXPECT_EQ(overLimit->header("Location"), "/countdown?left=0");
  EXPECT_EQ(server_.requests().size(), 65u + 65u);  // the 66th answer was never asked for
}

// A name server that takes queries and never answers: the resolver gives up after its time-out
// and tries (here one second, once, set the way a host would, through RES_OPTIONS), and the
// request ends with the library's DNS error without a connection being made.
class SilentNameServerTest : public E2eTest::FetchFixture {
 protected:
  void SetUp() override {
    // c-ares 1.18 reads "retrans:" (milliseconds) and "retry:", other releases "timeout:" and
    // "attempts:": one second and one try, whichever it reads.
    ::setenv("RES_OPTIONS", "timeout:1 attempts:1 retrans:1000 retry:1", 1);
    rootIs(silent_.server());
  }
  void TearDown() override {
    FetchFixture::TearDown();
    ::unsetenv("RES_OPTIONS");
  }

  DnsrTest::SilentServer silent_;
  LoopbackHttpServer server_;
};

TEST_F(SilentNameServerTest, UnansweredLookUpEndsInDnsLookupError) {
  const std::string uri = "http://quiet.test:" + std::to_string(server_.port()) + "/";

  Orb::Ptr<Response> r = fetch(request(uri));

  EXPECT_EQ(r->lastError(), Retra::errDnsLookup);
  EXPECT_EQ(r->requestState(), Retra::stateFinished);
  EXPECT_EQ(r->statusCode(), 0);
  EXPECT_TRUE(r->ipAddress().empty());
  EXPECT_EQ(r->counter()->numConnect(), 0u);
  EXPECT_GE(silent_.queriesReceived(), 1u);
  EXPECT_EQ(server_.connections(), 0u);
  auto record = root_->dnsrRecord()->record(Orb::Name("quiet.test"));
  ASSERT_TRUE(record);
  EXPECT_FALSE(record->valid());
  EXPECT_EQ(record->lastError(), Dnsr::errTimeout);
}

}  // namespace
