// The texts retra-fetch writes: summary line, statistics table, header block, progress line.

#include "retra-fetch/FetchOutput.h"

#include <gtest/gtest.h>

#include <string>

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
  EXPECT_EQ(RetraFetch::summaryLine(report()),
            "GET http://127.0.0.1:8080/a -> 200, 1024 bytes, 0.004 s\n");

  RetraFetch::FetchReport notFound = report();
  notFound.statusCode = 404;
  notFound.error = Retra::errHttpStatusCode;
  notFound.bytes = 0;
  EXPECT_EQ(RetraFetch::summaryLine(notFound),
            "GET http://127.0.0.1:8080/a -> 404 errHttpStatusCode, 0 bytes, 0.004 s\n");

  RetraFetch::FetchReport tls = report();
  tls.method = Retra::POST;
  tls.statusCode = 0;
  tls.error = Retra::errCurlOther;
  tls.errorMessage = "SSL peer certificate or SSH remote key was not OK";
  tls.bytes = 0;
  tls.seconds = 1.5;
  EXPECT_EQ(RetraFetch::summaryLine(tls),
            "POST http://127.0.0.1:8080/a -> errCurlOther: SSL peer certificate or SSH remote key "
            "was not OK, 0 bytes, 1.500 s\n");

  RetraFetch::FetchReport again = report();
  again.fetch = 3;
  EXPECT_EQ(RetraFetch::summaryLine(again),
            "GET http://127.0.0.1:8080/a -> 200, 1024 bytes, 0.004 s [fetch 3]\n");

  RetraFetch::FetchReport cut = report();
  cut.expectedBytes = 4096;
  EXPECT_EQ(RetraFetch::summaryLine(cut),
            "GET http://127.0.0.1:8080/a -> 200 incomplete, 1024 of 4096 bytes, 0.004 s\n");
  cut.expectedBytes = 1024;
  EXPECT_EQ(RetraFetch::summaryLine(cut),
            "GET http://127.0.0.1:8080/a -> 200, 1024 bytes, 0.004 s\n");
  RetraFetch::FetchReport interim = report();
  interim.statusCode = 100;
  interim.bytes = 0;
  EXPECT_EQ(RetraFetch::summaryLine(interim),
            "GET http://127.0.0.1:8080/a -> 100 incomplete, 0 bytes, 0.004 s\n");
  notFound.expectedBytes = 153;  // an error page the library did not take: no note
  EXPECT_EQ(RetraFetch::summaryLine(notFound),
            "GET http://127.0.0.1:8080/a -> 404 errHttpStatusCode, 0 bytes, 0.004 s\n");

  RetraFetch::FetchReport nothing = report();
  nothing.statusCode = 0;
  EXPECT_EQ(RetraFetch::summaryLine(nothing),
            "GET http://127.0.0.1:8080/a -> no status, 1024 bytes, 0.004 s\n");
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
