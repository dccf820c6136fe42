// Servers that refuse, reset, stall, drip, cut the body short, send no HTTP, oversized or
// unusual headers or endless redirects: what the library makes of each.

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>

#include "engine/support/EngineFixture.h"
#include "support/LoopbackHttpServer.h"
#include "support/TimeScale.h"

namespace {

using Retra::Response;
using RetraTest::LoopbackHttpServer;

class FaultFetchTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override { rootIs(""); }

  // A request that gives up after `seconds` (stretched under a slow checker), connecting
  // included.
  [[nodiscard]] static Retra::Request impatient(const std::string& uri, unsigned seconds = 1) {
    Retra::Request r = request(uri);
    r.timeoutConnectIs(RetraTest::scaledSeconds(1));
    r.timeoutRequestIs(RetraTest::scaledSeconds(seconds));
    return r;
  }

  LoopbackHttpServer server_;
};

TEST_F(FaultFetchTest, BrokenConnectionsAreClassified) {
  server_.routeIs("/silent", server_.silence());
  server_.routeIs("/cut", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nfirst part");
  server_.routeIs("/nothing", "");
  server_.routeIs("/odd-status", LoopbackHttpServer::answer(799, "odd"));
  server_.routeIs("/not-http", "SSH-2.0-OpenSSH_9.2\r\n\r\nnot http");
  server_.routeIs("/reset", [](int socket, const std::string&) {
    const linger abort{1, 0};  // closing now resets the connection
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  });
  struct Case {
    Retra::Request request;
    Retra::Error error;
    std::string message;
  };
  const Case cases[] = {
      // A refusal or a reset is seen when it happens, not when a time-out runs out.
      {impatient(LoopbackHttpServer::refusingUrl(), 2), Retra::errConnRefused, ""},
      {impatient(server_.url("/reset"), 2), Retra::errCurlOther,
       curl_easy_strerror(CURLE_RECV_ERROR)},
      {impatient(server_.url("/silent"), 2), Retra::errTimeout, ""},
      {request(server_.url("/nothing")), Retra::errCurlOther,
       curl_easy_strerror(CURLE_GOT_NOTHING)},
      // A status above the range is an error, and is not stored.
      {request(server_.url("/odd-status")), Retra::errHttpStatusCode, ""},
      // No status line at all: libcurl refuses the bytes as an HTTP/0.9 answer.
      {request(server_.url("/not-http")), Retra::errCurlOther,
       curl_easy_strerror(CURLE_UNSUPPORTED_PROTOCOL)},
  };
  std::vector<Retra::Request> requests;
  for (const Case& c : cases) requests.push_back(c.request);
  requests.push_back(request(server_.url("/cut")));

  auto responses = fetchAll(requests);

  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].request.uri());
    EXPECT_EQ(responses[i]->lastError(), cases[i].error);
    EXPECT_EQ(responses[i]->lastErrorMessage(), cases[i].message);
    EXPECT_EQ(responses[i]->statusCode(), 0);
    EXPECT_EQ(responses[i]->body(), "");
  }
  // Once an HTTP status has arrived, libcurl's own verdict on the transfer is not consulted:
  // the short body is kept and no error is reported.
  const Orb::Ptr<Response>& cut = responses.back();
  EXPECT_EQ(cut->statusCode(), 200);
  EXPECT_EQ(cut->lastError(), Retra::errNone);
  EXPECT_EQ(cut->body(), "first part");
  EXPECT_EQ(cut->contentLengthDownload(), 100);
  EXPECT_EQ(cut->counter()->bytesDownload(), 10u);
}

// One leading character is skipped for a blank, five for a tab (the codes 9 to 13 all count as
// white space), none beyond; colons after the first stay in the value, also in a status line
// whose reason phrase holds one. Lines without a value are not stored.
TEST_F(FaultFetchTest, UnusualHeaderLinesAreStoredByTheHeaderRule) {
  server_.routeIs("/odd",
                  "HTTP/1.1 200 Ready: yes\r\nX-No-Space:tight\r\nX-Trailing-Spaces: value   \r\n"
                  "X-Folded: first part\r\n  continued part\r\nX-Twice: one\r\nX-Twice: two\r\n"
                  "X-Empty:\r\nX-Tab:\tabcdefg\r\nX-Two-Blanks:  two\r\n"
                  "X-Where: http://127.0.0.1:8080/x\r\nContent-Length: 2\r\n\r\nok");

  Orb::Ptr<Response> odd = fetch(request(server_.url("/odd")));

  EXPECT_EQ(odd->statusCode(), 200);
  EXPECT_EQ(odd->body(), "ok");
  // libcurl 8 joins a folded continuation to its line; 7.88 hands the continuation over apart.
  const bool joinsFolded = curl_version_info(CURLVERSION_NOW)->version_num >= 0x080000;
  const std::pair<const char*, const char*> headers[] = {
      {"HTTP/1.1 200 Ready", "yes"},
      {"X-No-Space", "tight"},
      {"X-Trailing-Spaces", "value   "},
      {"X-Folded", joinsFolded ? "first part continued part" : "first part"},
      {"X-Twice", "two"},  // the later line wins
      {"X-Tab", "efg"},
      {"X-Two-Blanks", " two"},
      {"X-Where", "http://127.0.0.1:8080/x"},
      {"Content-Length", "2"}};
  for (const auto& [name, value] : headers) EXPECT_EQ(odd->header(name), value) << name;
  EXPECT_EQ(odd->header().size(), std::size(headers));
}

// The total time-out cuts a dripping answer short. Before the status line is complete there is
// no HTTP status, so libcurl's time-out is reported; once a status has arrived, it is kept,
// with no error, and the body holds what came in time.
TEST_F(FaultFetchTest, DrippingAnswersAreCutByTheRequestTimeout) {
  // The pace stretches with the time-out (under a slow checker), so the drip still outlasts it.
  const auto every = [](int ms) {
    return std::chrono::milliseconds(std::lround(ms * RetraTest::timeScale()));
  };
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\n";
  const std::string body(50, 'x');
  server_.routeIs("/status-line", server_.drip("", head + body, every(400)));
  server_.routeIs("/body", server_.drip(head, body, every(200)));

  auto responses =
      fetchAll({impatient(server_.url("/status-line")), impatient(server_.url("/body"))});

  const Orb::Ptr<Response>& inStatusLine = responses[0];
  EXPECT_EQ(inStatusLine->lastError(), Retra::errTimeout) << inStatusLine->lastErrorMessage();
  EXPECT_EQ(inStatusLine->statusCode(), 0);
  EXPECT_TRUE(inStatusLine->header().empty());

  const Orb::Ptr<Response>& inBody = responses[1];
  EXPECT_EQ(inBody->statusCode(), 200);
  EXPECT_EQ(inBody->lastError(), Retra::errNone) << inBody->lastErrorMessage();
  EXPECT_EQ(inBody->contentLengthDownload(), 50);
  EXPECT_FALSE(inBody->body().empty());
  EXPECT_EQ(inBody->body().str(), std::string(std::min<size_t>(inBody->body().size(), 49), 'x'));
  EXPECT_EQ(inBody->counter()->bytesDownload(), inBody->body().size());
  // Once when the transfer completed, once when the engine dropped the request's state machine.
  EXPECT_EQ(inBody->counter()->numFinish(), 2u);
}

TEST_F(FaultFetchTest, OversizedAndChunkedAnswersFollowTheOutcomeRule) {
  const std::string ok = "Content-Length: 2\r\n";
  // libcurl rejects a header line over its limit (100 KiB).
  server_.routeIs("/long-line", "HTTP/1.1 200 OK\r\n" + ok +
                                    "X-Long: " + std::string(200 * 1024, 'a') + "\r\n\r\nok");
  std::string many = "HTTP/1.1 200 OK\r\n" + ok;
  for (int i = 0; i < 2000; ++i) many += "X-Header-" + std::to_string(i) + ": value\r\n";
  server_.routeIs("/many-lines", many + "\r\nok");
  server_.routeIs("/chunked",
                  "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n6\r\nfirst,\r\n"
                  "1388\r\n" +
                      std::string(5000, 'c') + "\r\n0\r\nX-Trailer: done\r\n\r\n");

  auto responses =
      fetchAll({request(server_.url("/long-line")), request(server_.url("/many-lines")),
                request(server_.url("/chunked"))});

  // The status had arrived before the oversized line ended the transfer.
  const Orb::Ptr<Response>& longLine = responses[0];
  EXPECT_EQ(longLine->statusCode(), 200);
  EXPECT_EQ(longLine->lastError(), Retra::errNone) << longLine->lastErrorMessage();
  EXPECT_EQ(longLine->header().count(Orb::String("X-Long")), 0u);
  EXPECT_EQ(longLine->body(), "");

  const Orb::Ptr<Response>& manyLines = responses[1];
  EXPECT_EQ(manyLines->lastError(), Retra::errNone) << manyLines->lastErrorMessage();
  EXPECT_EQ(manyLines->body(), "ok");
  EXPECT_EQ(manyLines->header("X-Header-1999"), "value");
  EXPECT_EQ(manyLines->header().size(), 2001u);

  // The body is the chunks joined; the trailer reaches the header map like any header line.
  const Orb::Ptr<Response>& chunked = responses[2];
  const std::string joined = "first," + std::string(5000, 'c');
  EXPECT_EQ(chunked->lastError(), Retra::errNone) << chunked->lastErrorMessage();
  EXPECT_EQ(chunked->body().str(), joined);
  EXPECT_EQ(chunked->counter()->bytesDownload(), joined.size());
  EXPECT_EQ(chunked->contentLengthDownload(), -1);
  EXPECT_EQ(chunked->header("X-Trailer"), "done");
}

// A chain of exactly 64 redirects is followed to its end; one more and libcurl stops at the
// last 302, which is a status below 400: no error. The headers of every answer of the chain
// land in one map.
TEST_F(FaultFetchTest, RedirectChainsAreFollowedUpToSixtyFour) {
  server_.routeIs("/countdown", LoopbackHttpServer::redirectCountdown());

  auto responses = fetchAll(
      {request(server_.url("/countdown?left=64")), request(server_.url("/countdown?left=65"))});

  const Orb::Ptr<Response>& atLimit = responses[0];
  EXPECT_EQ(atLimit->statusCode(), 200);
  EXPECT_EQ(atLimit->lastError(), Retra::errNone);
  EXPECT_EQ(atLimit->body(), "end");
  EXPECT_EQ(atLimit->counter()->numRedirect(), 64u);
  EXPECT_EQ(atLimit->effectiveUrl(), server_.url("/countdown?left=0"));
  EXPECT_EQ(atLimit->header("Location"), "/countdown?left=0");

  const Orb::Ptr<Response>& overLimit = responses[1];
  EXPECT_EQ(overLimit->statusCode(), 302);
  EXPECT_EQ(overLimit->lastError(), Retra::errNone);
  EXPECT_EQ(overLimit->body(), "");
  EXPECT_EQ(overLimit->counter()->numRedirect(), 64u);
  EXPECT_EQ(overLimit->effectiveUrl(), server_.url("/countdown?left=1"));
  EXPECT_EQ(server_.requests().size(), 65u + 65u);  // the 66th answer was never asked for
}

}  // namespace
