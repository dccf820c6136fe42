// The built retra-fetch program against real loopback servers: what it writes on standard
// output and standard error, --json, --watch, files, name servers and exit statuses.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "dnsr/support/Dnsmasq.h"
#include "retra-fetch/ResponseJson.h"
#include "support/FaultAnswers.h"
#include "support/LoopbackHttpServer.h"
#include "support/NginxServer.h"
#include "support/TempDir.h"
#include "tools/support/FetchProgram.h"

namespace {

using Json = nlohmann::ordered_json;
using RetraTest::NginxServer;
using ToolTest::FetchRun;
using ToolTest::runFetch;

// Generous enough for a loaded machine; a fetch on loopback takes milliseconds.
const std::string kLimit = "20";

bool hasLineStartingWith(const std::vector<std::string>& lines, const std::string& start) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& line) { return line.starts_with(start); });
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::vector<Json> jsonLines(const FetchRun& run) {
  std::vector<Json> objects;
  for (const std::string& line : run.outLines()) objects.push_back(Json::parse(line));
  return objects;
}

std::vector<std::string> keysOf(const Json& object) {
  std::vector<std::string> keys;
  for (const auto& item : object.items()) keys.push_back(item.key());
  return keys;
}

std::string fileContents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

TEST(RetraFetchTest, SeveralUrlsGiveBodiesInOrderAndOneSummaryLineEach) {
  NginxServer nginx;
  const std::string small = nginx.httpUrl("/small.txt");
  const std::string redirect = nginx.httpUrl("/redirect/3");
  const std::string missing = nginx.httpUrl("/status/404");

  const FetchRun run = runFetch({"-m", kLimit, missing, small, redirect});

  // The 404 has no body (the library stops at an error status); the others follow in order.
  EXPECT_EQ(run.out, NginxServer::smallText() + NginxServer::smallText());
  const auto lines = run.errLines();
  EXPECT_EQ(lines.size(), 3u) << run.err;
  EXPECT_TRUE(hasLineStartingWith(lines, "GET " + small + " -> 200, 1024 bytes, ")) << run.err;
  EXPECT_TRUE(hasLineStartingWith(lines, "GET " + redirect + " -> 200, ")) << run.err;
  EXPECT_TRUE(hasLineStartingWith(lines, "GET " + missing + " -> 404 errHttpStatusCode, "));
  EXPECT_EQ(run.exitCode, 23);  // errHttpStatusCode
}

TEST(RetraFetchTest, JsonIsOneObjectPerFetchWithTheOptionsAndTheResult) {
  NginxServer nginx;
  const std::string url = nginx.httpUrl("/small.txt");

  const FetchRun run = runFetch({"--json", "-m", kLimit, "-H", "X-Probe: 1", url});

  ASSERT_EQ(run.exitCode, 0) << run.err;
  const std::vector<Json> objects = jsonLines(run);
  ASSERT_EQ(objects.size(), 1u) << run.out;
  const Json& r = objects[0];
  auto fresh = Orb::allocate<Retra::Response>(Retra::RequestKey(Retra::GET, "http://h/"));
  EXPECT_EQ(keysOf(r), keysOf(RetraFetch::responseJson(*fresh)));  // every attribute, in order
  EXPECT_EQ(r["requestKey"], (Json{{"method", "GET"}, {"uri", url}}));
  EXPECT_EQ(r["requestState"], "stateFinished");
  EXPECT_EQ(r["timeoutConnect"], 20);
  EXPECT_EQ(r["timeoutRequest"], 20);
  EXPECT_EQ(r["statusCode"], 200);
  EXPECT_EQ(r["lastError"], "errNone");
  EXPECT_GT(r["lastUpdateTime"].get<double>(), 0.0);
  EXPECT_EQ(r["requestheader"]["X-Probe"], "1");
  EXPECT_EQ(r["header"]["Content-Length"], "1024");
  EXPECT_EQ(r["body"], NginxServer::smallText());
  EXPECT_EQ(r["counter"]["bytesDownload"], 1024);
  EXPECT_GT(r["timer"]["total"].get<double>(), 0.0);
  EXPECT_EQ(r["port"], nginx.port());
  // The summary still goes to standard error.
  EXPECT_TRUE(hasLineStartingWith(run.errLines(), "GET " + url + " -> 200, 1024 bytes, "));
}

TEST(RetraFetchTest, HostNamesResolveThroughTheGivenDnsServers) {
  NginxServer nginx;
  DnsrTest::Dnsmasq dns("127.0.0.1 web.test\n");
  ASSERT_TRUE(dns.isRunning()) << dns.log();
  const std::string port = std::to_string(nginx.port());

  const FetchRun run = runFetch({"--json", "--dns-servers", dns.server(), "-m", kLimit,
                                 "http://web.test:" + port + "/small.txt"});
  const FetchRun missing =
      runFetch({"--dns-servers", dns.server(), "-m", kLimit, "http://nowhere.test:" + port + "/"});

  ASSERT_EQ(run.exitCode, 0) << run.err;
  const std::vector<Json> objects = jsonLines(run);
  ASSERT_EQ(objects.size(), 1u);
  EXPECT_EQ(objects[0]["host"], "web.test");
  EXPECT_EQ(objects[0]["ipAddress"], (Json{"127.0.0.1"}));
  EXPECT_EQ(missing.exitCode, 13) << missing.err;  // errDnsLookup
  EXPECT_TRUE(contains(missing.err, " -> errDnsLookup"));
}

TEST(RetraFetchTest, WatchWithCountReportsEveryFetchUntilTheCount) {
  RetraTest::LoopbackHttpServer server;
  server.routeIs("/tick", {200, {}, "tick"});
  const std::string url = server.url("/tick");

  const FetchRun json =
      runFetch({"--watch", "--refresh", "0", "--count", "3", "--json", "-m", kLimit, url});
  const FetchRun plain = runFetch({"--watch", "--refresh", "0", "--count", "2", "-m", kLimit, url});

  ASSERT_EQ(json.exitCode, 0) << json.err;
  const std::vector<Json> fetches = jsonLines(json);
  ASSERT_EQ(fetches.size(), 3u) << json.out;
  for (size_t i = 0; i < fetches.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(fetches[i]["body"], "tick");
    EXPECT_EQ(fetches[i]["numRequest"], i + 1);                      // one more dispatch per fetch
    EXPECT_EQ(fetches[i]["counter"]["bytesDownload"], 4 * (i + 1));  // adds up
  }
  const auto lines = json.errLines();
  ASSERT_EQ(lines.size(), 3u) << json.err;
  EXPECT_TRUE(lines[0].starts_with("GET " + url + " -> 200, 4 bytes, "));
  EXPECT_TRUE(contains(lines[2], "[fetch 3]"));
  // Without --json every fetch's body is written as it finishes.
  EXPECT_EQ(plain.exitCode, 0) << plain.err;
  EXPECT_EQ(plain.out, "ticktick");
}

TEST(RetraFetchTest, ExitStatusNamesTheFirstFailedFetch) {
  RetraTest::LoopbackHttpServer server;
  server.routeIs("/ok", {200, {}, "ok"});
  server.routeIs("/silent", RetraTest::FaultAnswers::silence(server));
  server.routeIs("/nothing", [](int, const RetraTest::LoopbackHttpServer::Received&) {});
  server.routeIs("/gone", {410, {}, "gone"});
  const std::string refused = RetraTest::FaultAnswers::refusingUrl();

  const std::pair<std::vector<std::string>, int> runs[] = {
      {{"-m", kLimit, refused}, 24},                 // errConnRefused
      {{"-m", "1", server.url("/silent")}, 14},      // errTimeout
      {{"-m", kLimit, server.url("/nothing")}, 25},  // errCurlOther
      {{"ftp://127.0.0.1/file"}, 12},                // errUnsupportedScheme
  };
  for (const auto& [args, exitCode] : runs) {
    const FetchRun run = runFetch(args);
    EXPECT_EQ(run.exitCode, exitCode) << run.err;
  }

  // Several failures: the first in the order of the URLs counts, whatever finished first.
  const FetchRun mixed = runFetch({"-m", kLimit, server.url("/ok"), server.url("/gone"), refused});
  EXPECT_EQ(mixed.exitCode, 23) << mixed.err;  // the 410
  EXPECT_EQ(mixed.out, "ok");
  EXPECT_TRUE(hasLineStartingWith(mixed.errLines(), "GET " + refused + " -> errConnRefused"));
}

TEST(RetraFetchTest, BodiesGoToFilesWithOutputAndOutputDir) {
  NginxServer nginx(3 << 20);
  RetraTest::TempDir dir("retra-fetch-files");

  const FetchRun one =
      runFetch({"-o", dir.path("big.bin"), "-m", kLimit, nginx.httpUrl("/large.bin")});
  const FetchRun many = runFetch({"--output-dir", dir.path("many"), "-m", kLimit,
                                  nginx.httpUrl("/small.txt"), nginx.httpUrl("/redirect/1")});

  ASSERT_EQ(one.exitCode, 0) << one.err;
  EXPECT_EQ(one.out, "");
  EXPECT_EQ(fileContents(dir.path("big.bin")), std::string(3 << 20, '\0'));
  EXPECT_TRUE(contains(one.err, "-> 200, 3145728 bytes, ")) << one.err;
  ASSERT_EQ(many.exitCode, 0) << many.err;
  EXPECT_EQ(many.out, "");
  EXPECT_EQ(fileContents(dir.path("many/small.txt")), NginxServer::smallText());
  EXPECT_EQ(fileContents(dir.path("many/1")), NginxServer::smallText());
}

TEST(RetraFetchTest, IncludeStatsVerboseAndSilentShapeTheOutput) {
  NginxServer nginx;
  const std::string url = nginx.httpUrl("/small.txt");

  const FetchRun include = runFetch({"-i", "--stats", "-m", kLimit, url});
  const FetchRun verbose = runFetch({"-v", "-m", kLimit, url});
  const FetchRun silent = runFetch({"-s", "-m", kLimit, url});

  ASSERT_EQ(include.exitCode, 0) << include.err;
  EXPECT_TRUE(include.out.starts_with("HTTP 200\n")) << include.out;
  EXPECT_TRUE(contains(include.out, "\nContent-Length: 1024\n"));
  EXPECT_TRUE(contains(include.out, "\n\n" + NginxServer::smallText()));
  EXPECT_TRUE(contains(include.err, "timer (seconds)"));
  const size_t row = include.err.find("  bytesDownload ");
  ASSERT_NE(row, std::string::npos) << include.err;
  std::istringstream bytesRow(include.err.substr(row));
  std::string name, fetch, all;
  bytesRow >> name >> fetch >> all;
  EXPECT_EQ(fetch + " " + all, "1024 1024") << include.err;

  EXPECT_EQ(verbose.exitCode, 0) << verbose.err;
  EXPECT_TRUE(contains(verbose.err, "curl_request_hdr=GET /small.txt HTTP/1.1")) << verbose.err;
  EXPECT_TRUE(contains(verbose.err, "RetraLib"));

  EXPECT_EQ(silent.exitCode, 0);
  EXPECT_EQ(silent.err, "");
  EXPECT_EQ(silent.out, NginxServer::smallText());
}

TEST(RetraFetchTest, UsageErrorsExitWithTwoAndNameTheOption) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"-X", "FETCH", "http://127.0.0.1:1/"}, "-X/--request: unknown method 'FETCH'"},
      {{"--no-such-option", "http://127.0.0.1:1/"}, "--no-such-option"},
      {{"--dns-servers", "127.0.0.1:53,dns.test", "http://127.0.0.1:1/"},
       "--dns-servers: '127.0.0.1:53,dns.test'"},
      {{}, "url is required"},
  };
  for (const auto& [args, named] : cases) {
    SCOPED_TRACE(named);
    const FetchRun run = runFetch(args);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(run.err.starts_with("retra-fetch: ")) << run.err;
    EXPECT_TRUE(contains(run.err, named)) << run.err;
    EXPECT_TRUE(contains(run.err, "Try 'retra-fetch --help'"));
  }
}

}  // namespace
