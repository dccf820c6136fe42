// The built retra-fetch program against real loopback servers: what it writes on standard
// output and standard error, --watch --json, files and exit statuses.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "dnsr/support/Dnsmasq.h"
#include "support/LoopbackHttpServer.h"
#include "support/NginxServer.h"
#include "support/TempDir.h"
#include "tools/support/FetchProgram.h"

namespace {

using Json = nlohmann::ordered_json;
using RetraTest::LoopbackHttpServer;
using RetraTest::NginxServer;
using ToolTest::FetchRun;
using ToolTest::linesOf;
using ToolTest::runFetch;

// Generous enough for a loaded machine; a fetch on loopback takes milliseconds.
const std::string kLimit = "20";

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(RetraFetchTest, OutputFollowsTheOptions) {
  NginxServer nginx;
  RetraTest::TempDir dir("retra-fetch-files");
  const std::string small = nginx.httpUrl("/small.txt");
  const std::string redirect = nginx.httpUrl("/redirect/1");
  const std::string missing = nginx.httpUrl("/status/404");

  const FetchRun plain = runFetch({"-m", kLimit, missing, small, redirect});
  DnsrTest::Dnsmasq dns(DnsrTest::Dnsmasq::namesOn("127.0.0.1", 1));
  const std::string named = "http://h0.test:" + std::to_string(nginx.port()) + "/small.txt";
  const FetchRun include =
      runFetch({"-i", "--stats", "--dns-servers", dns.server(), "-m", kLimit, named});
  const FetchRun silent = runFetch({"-s", "-m", kLimit, small});
  const FetchRun many = runFetch({"--output-dir", dir.path("many"), "-m", kLimit, small, redirect});

  // The 404 has no body (the library stops at an error status); the others follow in order,
  // with one summary line each.
  EXPECT_EQ(plain.out, NginxServer::smallText() + NginxServer::smallText());
  EXPECT_EQ(linesOf(plain.err).size(), 3u) << plain.err;
  for (const std::string& line :
       {"GET " + missing + " -> 404 errHttpStatusCode, ", "GET " + small + " -> 200, 1024 bytes, ",
        "GET " + redirect + " -> 200, 1024 bytes, "}) {
    EXPECT_TRUE(contains(plain.err, line)) << plain.err;
  }
  EXPECT_EQ(plain.exitCode, 23);  // errHttpStatusCode

  ASSERT_EQ(include.exitCode, 0) << include.err;
  EXPECT_TRUE(include.out.starts_with("HTTP 200\n") &&
              contains(include.out, "\nContent-Length: 1024\n"))
      << include.out;
  EXPECT_TRUE(include.out.ends_with("\n\n" + NginxServer::smallText()));
  EXPECT_TRUE(contains(include.err, "  bytesDownload ")) << include.err;  // --stats
  // The resolver's look-up of h0.test leads the phases.
  const size_t resolve = include.err.find("\n  resolve ");
  ASSERT_NE(resolve, std::string::npos) << include.err;
  EXPECT_GT(std::stod(include.err.substr(resolve + 10)), 0.0) << include.err;

  EXPECT_EQ(silent.err, "");
  EXPECT_EQ(silent.out, NginxServer::smallText());

  ASSERT_EQ(many.exitCode, 0) << many.err;
  EXPECT_EQ(dir.read("many/small.txt"), NginxServer::smallText());
  EXPECT_EQ(dir.read("many/1"), NginxServer::smallText());
}

TEST(RetraFetchTest, WatchWithCountReportsEveryFetchUntilTheCount) {
  LoopbackHttpServer server;
  server.routeIs("/tick", LoopbackHttpServer::answer(200, "tick"));
  const std::string url = server.url("/tick");

  const FetchRun json =
      runFetch({"--watch", "--refresh", "0", "--count", "3", "--json", "-m", kLimit, url});

  ASSERT_EQ(json.exitCode, 0) << json.err;
  std::vector<Json> fetches;
  for (const std::string& line : linesOf(json.out)) fetches.push_back(Json::parse(line));
  ASSERT_EQ(fetches.size(), 3u) << json.out;
  for (size_t i = 0; i < fetches.size(); ++i) {
    EXPECT_EQ(fetches[i]["body"], "tick");                           // each fetch starts afresh
    EXPECT_EQ(fetches[i]["numRequest"], i + 1);                      // one more dispatch per fetch
    EXPECT_EQ(fetches[i]["counter"]["bytesDownload"], 4 * (i + 1));  // adds up
    EXPECT_EQ(fetches[i]["timer"]["resolve"], 0.0);                  // an address: no look-up
  }
  // Each summary line tells its own fetch's share.
  for (const std::string& line : linesOf(json.err))
    EXPECT_TRUE(line.starts_with("GET " + url + " -> 200, 4 bytes, ")) << line;
  EXPECT_TRUE(json.err.ends_with("[fetch 3]\n"));
}

TEST(RetraFetchTest, ExitStatusNamesTheFirstFailedFetchOrTheUsageError) {
  LoopbackHttpServer server;
  server.routeIs("/ok", LoopbackHttpServer::answer(200, "ok"));
  server.routeIs("/silent", server.silence());
  server.routeIs("/nothing", "");
  server.routeIs("/gone", LoopbackHttpServer::answer(410, "gone"));
  const std::string refused = LoopbackHttpServer::refusingUrl();
  const std::pair<std::vector<std::string>, int> runs[] = {
      {{"-m", kLimit, refused}, 24},                     // errConnRefused
      {{"-m", "1", server.url("/silent")}, 14},          // errTimeout
      {{"-m", kLimit, server.url("/nothing")}, 25},      // errCurlOther
      {{"ftp://127.0.0.1/file"}, 12},                    // errUnsupportedScheme
      {{"--no-such-option", "http://127.0.0.1:1/"}, 2},  // the messages: FetchOptionsTest
  };
  for (const auto& [args, exitCode] : runs) {
    const FetchRun run = runFetch(args);
    EXPECT_EQ(run.exitCode, exitCode) << run.err;
    EXPECT_TRUE(exitCode != 2 || (run.err.starts_with("retra-fetch: ") &&
                                  contains(run.err, "Try 'retra-fetch --help'")))
        << run.err;
  }

  // Several failures: the first in the order of the URLs counts, whatever finished first.
  const FetchRun mixed = runFetch({"-m", kLimit, server.url("/ok"), server.url("/gone"), refused});
  EXPECT_EQ(mixed.exitCode, 23) << mixed.err;  // the 410
  EXPECT_EQ(mixed.out, "ok");
  EXPECT_TRUE(contains(mixed.err, "GET " + refused + " -> errConnRefused"));
}

}  // namespace
