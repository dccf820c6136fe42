// Servers that refuse, stall, cut the body short or write unusual header lines, and what the
// library makes of each.

#include <gtest/gtest.h>

#include <string>

#include "e2e/support/FetchFixture.h"
#include "support/FaultAnswers.h"
#include "support/LoopbackHttpServer.h"

namespace {

using Retra::Response;
using RetraTest::FaultAnswers;
using RetraTest::LoopbackHttpServer;

class FaultFetchTest : public E2eTest::FetchFixture {
 protected:
  void SetUp() override { rootIs(""); }

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
  EXPECT_EQ(odd->header("X-Folded"), "first part");
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

}  // namespace
