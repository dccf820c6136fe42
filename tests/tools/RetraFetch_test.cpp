// The built retra-fetch program against real loopback servers: what it writes on standard
// output and standard error, --json, --watch, files, name servers and exit statuses.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <sstream>
#include <string>
#include <vector>

#include "dnsr/support/Dnsmasq.h"
#include "retra-fetch/ResponseJson.h"
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
  NginxServer nginx(3 << 20);
  RetraTest::TempDir dir("retra-fetch-files");
  const std::string small = nginx.httpUrl("/small.txt");
  const std::string redirect = nginx.httpUrl("/redirect/1");
  const std::string missing = nginx.httpUrl("/status/404");

  const FetchRun plain = runFetch({"-m", kLimit, missing, small, redirect});
  const FetchRun json = runFetch({"--json", "-m", kLimit, small});
  const FetchRun include = runFetch({"-i", "--stats", "-m", kLimit, small});
  const FetchRun verbose = runFetch({"-v", "-m", kLimit, small});
  const FetchRun silent = runFetch({"-s", "-m", kLimit, small});
  const FetchRun one =
      runFetch({"-o", dir.path("big.bin"), "-m", kLimit, nginx.httpUrl("/large.bin")});
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

  ASSERT_EQ(json.exitCode, 0) << json.err;
  const Json r = Json::parse(json.out);  // one object: more lines would not parse
  EXPECT_EQ(r["requestKey"], (Json{{"method", "GET"}, {"uri", small}}));
  EXPECT_EQ(r["requestState"], "stateFinished");
  EXPECT_EQ(r["body"], NginxServer::smallText());

  ASSERT_EQ(include.exitCode, 0) << include.err;
  EXPECT_TRUE(include.out.starts_with("HTTP 200\n") &&
              contains(include.out, "\nContent-Length: 1024\n"))
      << include.out;
  EXPECT_TRUE(include.out.ends_with("\n\n" + NginxServer::smallText()));
  std::istringstream bytesRow(include.err.substr(include.err.find("  bytesDownload ")));
  std::string name, fetch, all;
  bytesRow >> name >> fetch >> all;
  EXPECT_EQ(name + " " + fetch + " " + all, "bytesDownload 1024 1024") << include.err;

  EXPECT_TRUE(contains(verbose.err, "curl_request_hdr=GET /small.txt HTTP/1.1")) << verbose.err;
  EXPECT_EQ(silent.err, "");
  EXPECT_EQ(silent.out, NginxServer::smallText());

  ASSERT_EQ(one.exitCode, 0) << one.err;
  EXPECT_EQ(one.out, "");
  EXPECT_EQ(dir.read("big.bin"), std::string(3 << 20, '\0'));
  ASSERT_EQ(many.exitCode, 0) << many.err;
  EXPECT_EQ(dir.read("many/small.txt"), NginxServer::smallText());
  EXPECT_EQ(dir.read("many/1"), NginxServer::smallText());
}

TEST(RetraFetchTest, HostNamesResolveThroughTheGivenDnsServers) {
  LoopbackHttpServer server;
  server.routeIs("/", LoopbackHttpServer::answer(200, "ok"));
  DnsrTest::Dnsmasq dns("127.0.0.1 web.test\n");
  ASSERT_TRUE(dns.isRunning()) << dns.log();
  const std::string port = std::to_string(server.port());

  const FetchRun run = runFetch(
      {"--json", "--dns-servers", dns.server(), "-m", kLimit, "http://web.test:" + port + "/"});
  const FetchRun missing =
      runFetch({"--dns-servers", dns.server(), "-m", kLimit, "http://nowhere.test:" + port + "/"});

  ASSERT_EQ(run.exitCode, 0) << run.err;
  const Json object = Json::parse(run.out);
  EXPECT_EQ(object["host"], "web.test");
  EXPECT_EQ(object["ipAddress"], (Json{"127.0.0.1"}));
  EXPECT_EQ(missing.exitCode, 13) << missing.err;  // errDnsLookup
}

TEST(RetraFetchTest, WatchWithCountReportsEveryFetchUntilTheCount) {
  LoopbackHttpServer server;
  server.routeIs("/tick", LoopbackHttpServer::answer(200, "tick"));
  const std::string url = server.url("/tick");

  const FetchRun json =
      runFetch({"--watch", "--refresh", "0", "--count", "3", "--json", "-m", kLimit, url});
  const FetchRun plain = runFetch({"--watch", "--refresh", "0", "--count", "2", "-m", kLimit, url});

  ASSERT_EQ(json.exitCode, 0) << json.err;
  std::vector<Json> fetches;
  for (const std::string& line : linesOf(json.out)) fetches.push_back(Json::parse(line));
  ASSERT_EQ(fetches.size(), 3u) << json.out;
  for (size_t i = 0; i < fetches.size(); ++i) {
    EXPECT_EQ(fetches[i]["body"], "tick");                           // each fetch starts afresh
    EXPECT_EQ(fetches[i]["numRequest"], i + 1);                      // one more dispatch per fetch
    EXPECT_EQ(fetches[i]["counter"]["bytesDownload"], 4 * (i + 1));  // adds up
    // A fetch builds a new state machine, which always counts as a change.
    EXPECT_EQ(fetches[i]["lastChangeTime"], fetches[i]["lastUpdateTime"]);
  }
  // Each summary line tells its own fetch's share.
  for (const std::string& line : linesOf(json.err))
    EXPECT_TRUE(line.starts_with("GET " + url + " -> 200, 4 bytes, ")) << line;
  EXPECT_TRUE(json.err.ends_with("[fetch 3]\n"));
  EXPECT_EQ(plain.exitCode, 0) << plain.err;
  EXPECT_EQ(plain.out, "ticktick");  // every fetch's body as it finishes
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
