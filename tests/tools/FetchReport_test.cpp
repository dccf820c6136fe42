// A fetch's report is its share of the response's statistics, which add up over fetches, and
// the texts retra-fetch writes from it: summary line, statistics table, header block, progress.

#include "retra-fetch/FetchReport.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "Orb/Ptr.h"
#include "retra-fetch/FetchOutput.h"

namespace {

TEST(FetchReportTest, SecondFetchReportsOnlyItsOwnShare) {
  auto response =
      Orb::allocate<Retra::Response>(Retra::RequestKey(Retra::PUT, "http://127.0.0.1:1/x"));
  auto counter = response->counterIs();
  counter->bytesDownloadInc(100);
  counter->numConnectInc(1);
  counter->speedDownloadIs(1000);
  response->timerIs()->totalInc(0.5);
  response->timerIs()->connectInc(0.125);
  response->headerIs("Server", "test");
  response->headerIs("Content-Type", "text/plain");
  response->bodyIs("first");
  response->contentLengthDownloadIs(100);

  const RetraFetch::FetchReport first = RetraFetch::reportOf(*response, {});
  EXPECT_EQ(first.bytes, 100u);
  EXPECT_EQ(first.expectedBytes, 100);
  EXPECT_EQ(first.body, "first");
  EXPECT_EQ(first.headers, (std::vector<std::pair<std::string, std::string>>{
                               {"Content-Type", "text/plain"}, {"Server", "test"}}));

  const RetraFetch::StatsSnapshot afterFirst = RetraFetch::snapshotOf(*response);
  counter->bytesDownloadInc(50);
  counter->speedDownloadIs(400);
  response->timerIs()->totalInc(0.25);
  response->lastErrorIs(Retra::errTimeout);
  response->lastErrorMessageIs("Timeout was reached");
  const RetraFetch::FetchReport second = RetraFetch::reportOf(*response, afterFirst, 0.002);
  EXPECT_EQ(second.bytes, 50u);
  EXPECT_DOUBLE_EQ(second.seconds, 0.25);
  EXPECT_EQ(second.error, Retra::errTimeout);
  EXPECT_EQ(second.errorMessage, "Timeout was reached");
  // Per row: this fetch's share and the total; a speed is the last fetch's, not a difference.
  std::vector<std::string> rows;
  for (const auto& r : second.timers)
    rows.push_back(r.name + " " + std::to_string(r.fetch) + " " + std::to_string(r.all) +
                   (r.seconds ? " s" : ""));
  for (const auto& r : second.counters)
    rows.push_back(r.name + " " + std::to_string(r.fetch) + " " + std::to_string(r.all) +
                   (r.summed ? "" : " last"));
  EXPECT_EQ(rows.size(), 16u);
  EXPECT_EQ(rows[0], "resolve 0.002000 0.002000 s");  // the resolver's, ahead of the phases
  EXPECT_FALSE(second.timers[0].summed);
  EXPECT_EQ(rows[2], "connect 0.000000 0.125000 s");
  EXPECT_EQ(rows[7], "numConnect 0.000000 1.000000");
  EXPECT_EQ(rows[10], "speedDownload 400.000000 400.000000 last");
}

TEST(FetchOutputTest, TextsTellStatusOrErrorSizeTimeAndStatistics) {
  using Report = RetraFetch::FetchReport;
  Report base;
  base.method = Retra::GET;
  base.uri = "http://127.0.0.1:8080/a";
  base.statusCode = 200;
  base.bytes = 1024;
  base.seconds = 0.0042;
  const std::pair<std::function<void(Report&)>, const char*> cases[] = {
      {[](Report&) {}, "200, 1024 bytes, 0.004 s"},
      {[](Report& r) { r.fetch = 3; }, "200, 1024 bytes, 0.004 s [fetch 3]"},
      {[](Report& r) { r.expectedBytes = 4096; }, "200 incomplete, 1024 of 4096 bytes, 0.004 s"},
      {[](Report& r) { r.statusCode = 0; }, "no status, 1024 bytes, 0.004 s"},
      // An error page the library did not take gets no note.
      {[](Report& r) {
         r.statusCode = 404, r.error = Retra::errHttpStatusCode, r.bytes = 0;
         r.expectedBytes = 153;
       },
       "404 errHttpStatusCode, 0 bytes, 0.004 s"},
      {[](Report& r) {
         r.statusCode = 0, r.error = Retra::errCurlOther, r.bytes = 0, r.seconds = 1.5;
         r.errorMessage = "SSL peer certificate or SSH remote key was not OK";
       },
       "errCurlOther: SSL peer certificate or SSH remote key was not OK, 0 bytes, 1.500 s"},
  };
  for (const auto& [change, expected] : cases) {
    Report r = base;
    change(r);
    EXPECT_EQ(RetraFetch::summaryLine(r),
              std::string("GET http://127.0.0.1:8080/a -> ") + expected + "\n");
  }

  Report r = base;
  r.timers = {{"connect", 0.25, 0.75, true, true}};
  r.counters = {{"numConnect", 1, 3, true, false}, {"speedDownload", 2048.5, 2048.5, false, false}};
  EXPECT_EQ(RetraFetch::statsTable(r),
            "  timer (seconds)            this fetch    all fetches\n"
            "  connect                      0.250000       0.750000\n"
            "  counter                    this fetch    all fetches\n"
            "  numConnect                          1              3\n"
            "  speedDownload                  2048.5              -\n");
  EXPECT_EQ(RetraFetch::progressLine(1, 3, 512), "1/3 done, 512 B received");
  EXPECT_EQ(RetraFetch::sizeText(27 << 19), "13.5 MiB");
}

}  // namespace
