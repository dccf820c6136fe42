#include "support/FaultAnswers.h"

#include <gtest/gtest.h>

#include "harness/support/BlockingFetch.h"

namespace {

using HarnessTest::BlockingFetch;
using RetraTest::FaultAnswers;
using RetraTest::LoopbackHttpServer;
using std::chrono::milliseconds;

TEST(FaultAnswersTest, EachFaultFailsTheWayLibcurlReportsIt) {
  LoopbackHttpServer server;
  server.routeIs("/silent", FaultAnswers::silence(server));
  server.routeIs("/cut", FaultAnswers::cutBody("only part", 100));
  std::string answer = LoopbackHttpServer::bytesOf({200, {}, "dripped"});
  server.routeIs("/drip-fast", FaultAnswers::drip(server, answer, milliseconds(1)));
  server.routeIs("/drip-slow", FaultAnswers::drip(server, answer, milliseconds(200)));
  server.routeIs("/garbage", FaultAnswers::notHttp());
  server.routeIs("/long-header", FaultAnswers::longHeaderLine(200 * 1024));
  server.routeIs("/many-headers", FaultAnswers::manyHeaderLines(2000));
  server.routeIs("/chunked", FaultAnswers::chunked({"first ", "", "second ", "third"}));
  server.routeIs("/odd", FaultAnswers::oddHeaderLines());
  server.routeIs("/no-colon", FaultAnswers::headerLineWithoutColon());

  EXPECT_EQ(HarnessTest::fetchCode(FaultAnswers::refusingUrl("/x")), CURLE_COULDNT_CONNECT);

  BlockingFetch silent(server.url("/silent"));
  silent.option(CURLOPT_TIMEOUT_MS, 300L);
  EXPECT_EQ(silent.perform(), CURLE_OPERATION_TIMEDOUT);

  BlockingFetch cut(server.url("/cut"));
  EXPECT_EQ(cut.perform(), CURLE_PARTIAL_FILE);
  EXPECT_EQ(cut.body(), "only part");

  BlockingFetch fast(server.url("/drip-fast"));
  EXPECT_EQ(fast.perform(), CURLE_OK);
  EXPECT_EQ(fast.body(), "dripped");
  BlockingFetch slow(server.url("/drip-slow"));
  slow.option(CURLOPT_TIMEOUT_MS, 300L);
  EXPECT_EQ(slow.perform(), CURLE_OPERATION_TIMEDOUT);

  EXPECT_EQ(HarnessTest::fetchCode(server.url("/garbage")), CURLE_UNSUPPORTED_PROTOCOL);
  EXPECT_EQ(HarnessTest::fetchCode(server.url("/long-header")), CURLE_OUT_OF_MEMORY);

  BlockingFetch many(server.url("/many-headers"));
  EXPECT_EQ(many.perform(), CURLE_OK);
  EXPECT_NE(many.headers().find("X-Header-1999: value 1999\r\n"), std::string::npos);
  EXPECT_EQ(many.body(), "ok");

  BlockingFetch chunked(server.url("/chunked"));
  EXPECT_EQ(chunked.perform(), CURLE_OK);
  EXPECT_EQ(chunked.body(), "first second third");
  EXPECT_NE(chunked.headers().find("X-Trailer: done"), std::string::npos);

  BlockingFetch odd(server.url("/odd"));
  EXPECT_EQ(odd.perform(), CURLE_OK);
  EXPECT_EQ(odd.body(), "odd but readable");
  EXPECT_NE(odd.headers().find(FaultAnswers::oddHeaderBlock()), std::string::npos) << odd.headers();
  EXPECT_EQ(HarnessTest::fetchCode(server.url("/no-colon")), CURLE_WEIRD_SERVER_REPLY);
}

}  // namespace
