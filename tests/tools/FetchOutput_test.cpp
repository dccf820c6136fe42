// The texts retra-fetch writes: summary line, statistics table, header block, progress line.

#include "retra-fetch/FetchOutput.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

namespace {

RetraFetch::FetchReport report() {
  RetraFetch::FetchReport r;
  r.method = Retra::GET;
  r.uri = "http://127.0.0.1:8080/a";
  r.statusCode = 200;
  r.bytes = 1024;
  r.seconds = 0.0042;
  return r;
}

TEST(FetchOutputTest, SummaryLineTellsStatusOrErrorSizeAndTime) {
  using Report = RetraFetch::FetchReport;
  const std::pair<std::function<void(Report&)>, const char*> cases[] = {
      {[](Report&) {}, "200, 1024 bytes, 0.004 s"},
      {[](Report& r) { r.fetch = 3; }, "200, 1024 bytes, 0.004 s [fetch 3]"},
      {[](Report& r) { r.expectedBytes = 4096; }, "200 incomplete, 1024 of 4096 bytes, 0.004 s"},
      {[](Report& r) { r.expectedBytes = 1024; }, "200, 1024 bytes, 0.004 s"},
      {[](Report& r) { r.statusCode = 100, r.bytes = 0; }, "100 incomplete, 0 bytes, 0.004 s"},
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
    Report r = report();
    change(r);
    EXPECT_EQ(RetraFetch::summaryLine(r),
              std::string("GET http://127.0.0.1:8080/a -> ") + expected + "\n");
  }
  Report post = report();
  post.method = Retra::POST;
  EXPECT_TRUE(RetraFetch::summaryLine(post).starts_with("POST "));
}

TEST(FetchOutputTest, StatsTableShowsTheFetchAndTheTotalPerRow) {
  RetraFetch::FetchReport r = report();
  r.timers = {{"connect", 0.25, 0.75, true, true}};
  r.counters = {{"numConnect", 1, 3, true, false}, {"speedDownload", 2048.5, 2048.5, false, false}};
  EXPECT_EQ(RetraFetch::statsTable(r),
            "  timer (seconds)            this fetch    all fetches\n"
            "  connect                      0.250000       0.750000\n"
            "  counter                    this fetch    all fetches\n"
            "  numConnect                          1              3\n"
            "  speedDownload                  2048.5              -\n");
}

TEST(FetchOutputTest, HeaderBlockListsHeadersThenABlankLine) {
  RetraFetch::FetchReport r = report();
  r.headers = {{"Content-Length", "2"}, {"Content-Type", "text/plain"}};
  EXPECT_EQ(RetraFetch::headerBlock(r),
            "HTTP 200\nContent-Length: 2\nContent-Type: text/plain\n\n");
}

TEST(FetchOutputTest, ProgressLineUsesBinaryUnits) {
  EXPECT_EQ(RetraFetch::progressLine(1, 3, 512), "1/3 done, 512 B received");
  EXPECT_EQ(RetraFetch::sizeText(1023), "1023 B");
  EXPECT_EQ(RetraFetch::sizeText(1024), "1.0 KiB");
  EXPECT_EQ(RetraFetch::sizeText(13 * 1024 * 1024 + 512 * 1024), "13.5 MiB");
  EXPECT_EQ(RetraFetch::sizeText(uint64_t(3) << 40), "3.0 TiB");
  EXPECT_EQ(RetraFetch::sizeText(uint64_t(5000) << 40), "5000.0 TiB");
}

}  // namespace
