// A fetch's report is its share of the response's statistics, which add up over fetches.

#include "retra-fetch/FetchReport.h"

#include <gtest/gtest.h>

#include "Orb/Ptr.h"

namespace {

const RetraFetch::StatRow* row(const std::vector<RetraFetch::StatRow>& rows, const char* name) {
  for (const auto& r : rows) {
    if (r.name == name) return &r;
  }
  return nullptr;
}

TEST(FetchReportTest, SecondFetchReportsOnlyItsOwnShare) {
  auto response =
      Orb::allocate<Retra::Response>(Retra::RequestKey(Retra::PUT, "http://127.0.0.1:1/x"));
  auto counter = response->counterIs();
  auto timer = response->timerIs();
  counter->bytesDownloadInc(100);
  counter->numConnectInc(1);
  counter->speedDownloadIs(1000);
  timer->totalInc(0.5);
  timer->connectInc(0.125);
  response->statusCodeIs(201);
  response->headerIs("Server", "test");
  response->headerIs("Content-Type", "text/plain");
  response->bodyIs("first");
  response->contentLengthDownloadIs(100);

  const RetraFetch::FetchReport first = RetraFetch::reportOf(*response, {});
  EXPECT_EQ(first.method, Retra::PUT);
  EXPECT_EQ(first.uri, "http://127.0.0.1:1/x");
  EXPECT_EQ(first.statusCode, 201);
  EXPECT_EQ(first.error, Retra::errNone);
  EXPECT_EQ(first.bytes, 100u);
  EXPECT_DOUBLE_EQ(first.seconds, 0.5);
  EXPECT_EQ(first.expectedBytes, 100);
  EXPECT_EQ(first.body, "first");
  EXPECT_EQ(first.headers, (std::vector<std::pair<std::string, std::string>>{
                               {"Content-Type", "text/plain"}, {"Server", "test"}}));
  EXPECT_EQ(first.timers.size(), 6u);
  EXPECT_EQ(first.counters.size(), 9u);

  const RetraFetch::StatsSnapshot afterFirst = RetraFetch::snapshotOf(*response);
  counter->bytesDownloadInc(50);
  counter->speedDownloadIs(400);
  timer->totalInc(0.25);
  response->lastErrorIs(Retra::errTimeout);
  response->lastErrorMessageIs("Timeout was reached");
  const RetraFetch::FetchReport second = RetraFetch::reportOf(*response, afterFirst);
  EXPECT_EQ(second.bytes, 50u);
  EXPECT_DOUBLE_EQ(second.seconds, 0.25);
  EXPECT_EQ(second.error, Retra::errTimeout);
  EXPECT_EQ(second.errorMessage, "Timeout was reached");

  const RetraFetch::StatRow* connects = row(second.counters, "numConnect");
  ASSERT_NE(connects, nullptr);
  EXPECT_EQ(connects->fetch, 0);  // no new connection in the second fetch
  EXPECT_EQ(connects->all, 1);
  const RetraFetch::StatRow* speed = row(second.counters, "speedDownload");
  ASSERT_NE(speed, nullptr);
  EXPECT_FALSE(speed->summed);
  EXPECT_EQ(speed->fetch, 400);  // the last fetch's speed, not a difference
  const RetraFetch::StatRow* connect = row(second.timers, "connect");
  ASSERT_NE(connect, nullptr);
  EXPECT_TRUE(connect->seconds);
  EXPECT_DOUBLE_EQ(connect->fetch, 0);
  EXPECT_DOUBLE_EQ(connect->all, 0.125);
}

TEST(FetchReportTest, ResponseWithoutStatisticsReportsZeros) {
  auto response = Orb::allocate<Retra::Response>(Retra::RequestKey(Retra::GET, "ftp://h/"));
  response->lastErrorIs(Retra::errUnsupportedScheme);
  const RetraFetch::FetchReport report = RetraFetch::reportOf(*response, {});
  EXPECT_EQ(report.bytes, 0u);
  EXPECT_EQ(report.seconds, 0);
  EXPECT_EQ(report.error, Retra::errUnsupportedScheme);
  EXPECT_EQ(report.expectedBytes, -1);
  ASSERT_EQ(report.counters.size(), 9u);
  for (const auto& r : report.counters) EXPECT_EQ(r.all, 0) << r.name;
}

}  // namespace
