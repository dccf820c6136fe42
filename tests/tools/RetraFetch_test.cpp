// The built retra-fetch program against real loopback servers: what it writes on standard
// output and standard error, --json, --watch, files, credentials, TLS pins, and exit statuses.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "dnsr/support/Dnsmasq.h"
#include "support/FaultAnswers.h"
#include "support/HttpbinServer.h"
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
                     [&](const std::string& line) { return line.rfind(start, 0) == 0; });
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The blank-separated words of the first line of `text` that starts with `start`.
std::vector<std::string> wordsOfLine(const std::string& text, const std::string& start) {
  for (const std::string& line : ToolTest::linesOf(text)) {
    if (line.rfind(start, 0) != 0) continue;
    std::vector<std::string> words;
    std::istringstream in(line);
    for (std::string word; in >> word;) words.push_back(word);
    return words;
  }
  return {};
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
  EXPECT_TRUE(hasLineStartingWith(lines, "GET " + missing + " -> 404 errHttpStatusCode, "))
      << run.err;
  EXPECT_EQ(run.exitCode, 23);  // errHttpStatusCode
}

TEST(RetraFetchTest, JsonIsOneObjectPerFetchWithEveryAttributeMatchingTheFetch) {
  NginxServer nginx;
  const std::string url = nginx.httpUrl("/small.txt");

  const FetchRun run = runFetch({"--json", "-m", kLimit, "-H", "X-Probe: 1", url});

  ASSERT_EQ(run.exitCode, 0) << run.err;
  const std::vector<Json> objects = jsonLines(run);
  ASSERT_EQ(objects.size(), 1u) << run.out;
  const Json& r = objects[0];
  EXPECT_EQ(keysOf(r), (std::vector<std::string>{"requestKey",
                                                 "method",
                                                 "uri",
                                                 "requestState",
                                                 "authType",
                                                 "username",
                                                 "password",
                                                 "sslVerifyPeer",
                                                 "pinnedPublicKey",
                                                 "outputPath",
                                                 "timeoutConnect",
                                                 "timeoutRequest",
                                                 "timeoutRefresh",
                                                 "debug",
                                                 "finished",
                                                 "scheme",
                                                 "statusCode",
                                                 "effectiveUrl",
                                                 "lastError",
                                                 "lastErrorMessage",
                                                 "lastUpdateTime",
                                                 "lastChangeTime",
                                                 "requestheader",
                                                 "header",
                                                 "body",
                                                 "contentType",
                                                 "contentLengthUpload",
                                                 "contentLengthDownload",
                                                 "counter",
                                                 "timer",
                                                 "numRequest",
                                                 "resolved",
                                                 "host",
                                                 "ipAddress",
                                                 "ip6Address",
                                                 "port"}));
  EXPECT_EQ(r["requestKey"], (Json{{"method", "GET"}, {"uri", url}}));
  EXPECT_EQ(r["method"], "GET");
  EXPECT_EQ(r["uri"], url);
  EXPECT_EQ(r["requestState"], "stateFinished");
  EXPECT_EQ(r["finished"], true);
  EXPECT_EQ(r["authType"], "authNone");
  EXPECT_EQ(r["sslVerifyPeer"], true);
  EXPECT_EQ(r["timeoutConnect"], 20);
  EXPECT_EQ(r["timeoutRequest"], 20);
  EXPECT_EQ(r["timeoutRefresh"], 1800);
  EXPECT_EQ(r["debug"], false);
  EXPECT_EQ(r["scheme"], "http");
  EXPECT_EQ(r["statusCode"], 200);
  EXPECT_EQ(r["effectiveUrl"], url);
  EXPECT_EQ(r["lastError"], "errNone");
  EXPECT_EQ(r["lastErrorMessage"], "");
  EXPECT_GT(r["lastUpdateTime"].get<double>(), 0.0);
  EXPECT_EQ(r["requestheader"]["X-Probe"], "1");
  EXPECT_EQ(r["header"]["Content-Length"], "1024");
  EXPECT_EQ(r["body"], NginxServer::smallText());
  EXPECT_EQ(r["contentType"], "text/plain");
  EXPECT_EQ(r["contentLengthDownload"], 1024);
  EXPECT_EQ(r["counter"]["bytesDownload"], 1024);
  EXPECT_GE(r["counter"]["numConnect"].get<int>(), 1);
  EXPECT_GE(r["counter"]["numFinish"].get<int>(), 1);
  EXPECT_GT(r["counter"]["bytesHeaderDownload"].get<int>(), 0);
  EXPECT_GT(r["timer"]["total"].get<double>(), 0.0);
  EXPECT_EQ(r["timer"]["hostLookup"], 0.0);  // the library resolves before libcurl runs
  EXPECT_EQ(r["numRequest"], 1);
  // An address in the URL needs no resolution: no host name, no resolved addresses.
  EXPECT_EQ(r["resolved"], true);
  EXPECT_EQ(r["host"], "");
  EXPECT_EQ(r["ipAddress"], Json::array());
  EXPECT_EQ(r["port"], nginx.port());
  // The summary still goes to standard error.
  EXPECT_TRUE(hasLineStartingWith(run.errLines(), "GET " + url + " -> 200, 1024 bytes, "));
}

TEST(RetraFetchTest, HostNamesResolveThroughTheGivenDnsServers) {
  NginxServer nginx;
  DnsrTest::Dnsmasq dns("127.0.0.1 web.test\n");
  ASSERT_TRUE(dns.isRunning()) << dns.log();
  const std::string url = "http://web.test:" + std::to_string(nginx.port()) + "/small.txt";

  const FetchRun run = runFetch({"--json", "--dns-servers", dns.server(), "-m", kLimit, url});

  ASSERT_EQ(run.exitCode, 0) << run.err;
  const std::vector<Json> objects = jsonLines(run);
  ASSERT_EQ(objects.size(), 1u);
  EXPECT_EQ(objects[0]["body"], NginxServer::smallText());
  EXPECT_EQ(objects[0]["resolved"], true);
  EXPECT_EQ(objects[0]["host"], "web.test");
  EXPECT_EQ(objects[0]["ipAddress"], (Json{"127.0.0.1"}));
  EXPECT_EQ(objects[0]["ip6Address"], Json::array());

  const std::string unknown = "http://nowhere.test:" + std::to_string(nginx.port()) + "/";
  const FetchRun missing = runFetch({"--dns-servers", dns.server(), "-m", kLimit, unknown});
  EXPECT_EQ(missing.exitCode, 13) << missing.err;  // errDnsLookup
  EXPECT_TRUE(hasLineStartingWith(missing.errLines(), "GET " + unknown + " -> errDnsLookup"));
}

TEST(RetraFetchTest, JsonCarriesABinaryBodyAsBase64) {
  RetraTest::LoopbackHttpServer server;
  server.routeIs(
      "/bin",
      {200, {{"Content-Type", "application/octet-stream"}}, std::string("\xff\xfe\x00\x01", 4)});

  const FetchRun run = runFetch({"--json", "-m", kLimit, server.url("/bin")});

  ASSERT_EQ(run.exitCode, 0) << run.err;
  const std::vector<Json> objects = jsonLines(run);
  ASSERT_EQ(objects.size(), 1u);
  EXPECT_FALSE(objects[0].contains("body"));
  EXPECT_EQ(objects[0]["bodyBase64"], "//4AAQ==");
  EXPECT_EQ(objects[0]["contentType"], "application/octet-stream");
}

TEST(RetraFetchTest, WatchWithCountReportsEveryFetchUntilTheCount) {
  RetraTest::LoopbackHttpServer server;
  server.routeIs("/tick", {200, {}, "tick"});
  const std::string url = server.url("/tick");

  const FetchRun json =
      runFetch({"--watch", "--refresh", "0", "--count", "3", "--json", "-m", kLimit, url});

  ASSERT_EQ(json.exitCode, 0) << json.err;
  const std::vector<Json> fetches = jsonLines(json);
  ASSERT_EQ(fetches.size(), 3u) << json.out;
  for (size_t i = 0; i < fetches.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(fetches[i]["statusCode"], 200);
    EXPECT_EQ(fetches[i]["body"], "tick");
    EXPECT_EQ(fetches[i]["numRequest"], i + 1);                      // one more dispatch per fetch
    EXPECT_EQ(fetches[i]["counter"]["bytesDownload"], 4 * (i + 1));  // adds up
  }
  const auto lines = json.errLines();
  ASSERT_EQ(lines.size(), 3u) << json.err;
  EXPECT_TRUE(hasLineStartingWith(lines, "GET " + url + " -> 200, 4 bytes, "));
  EXPECT_TRUE(contains(lines[1], "[fetch 2]"));
  EXPECT_TRUE(contains(lines[2], "[fetch 3]"));
  EXPECT_GE(server.requests().size(), 3u);

  // Without --json every fetch's body is written as it finishes.
  const FetchRun plain = runFetch({"--watch", "--refresh", "0", "--count", "2", "-m", kLimit, url});
  EXPECT_EQ(plain.exitCode, 0) << plain.err;
  EXPECT_EQ(plain.out, "ticktick");
}

TEST(RetraFetchTest, ExitStatusNamesTheFirstFailedFetch) {
  RetraTest::LoopbackHttpServer server;
  server.routeIs("/ok", {200, {}, "ok"});
  server.routeIs("/silent", RetraTest::FaultAnswers::silence(server));
  server.routeIs("/gone", {410, {}, "gone"});
  const std::string refused = RetraTest::FaultAnswers::refusingUrl();

  const FetchRun refusedRun = runFetch({"-m", kLimit, refused});
  EXPECT_EQ(refusedRun.exitCode, 24) << refusedRun.err;  // errConnRefused
  EXPECT_TRUE(hasLineStartingWith(refusedRun.errLines(), "GET " + refused + " -> errConnRefused"));

  const FetchRun timeout = runFetch({"-m", "1", server.url("/silent")});
  EXPECT_EQ(timeout.exitCode, 14) << timeout.err;  // errTimeout

  const FetchRun scheme = runFetch({"ftp://127.0.0.1/file"});
  EXPECT_EQ(scheme.exitCode, 12) << scheme.err;  // errUnsupportedScheme

  // Several failures: the first in the order of the URLs counts, whatever finished first.
  const FetchRun mixed = runFetch({"-m", kLimit, server.url("/ok"), server.url("/gone"), refused});
  EXPECT_EQ(mixed.exitCode, 23) << mixed.err;  // the 410
  EXPECT_EQ(mixed.out, "ok");
  EXPECT_EQ(mixed.errLines().size(), 3u);
}

TEST(RetraFetchTest, BodiesGoToFilesWithOutputAndOutputDir) {
  NginxServer nginx(3 << 20);
  RetraTest::TempDir dir("retra-fetch-files");

  const FetchRun one =
      runFetch({"-o", dir.path("big.bin"), "-m", kLimit, nginx.httpUrl("/large.bin")});
  ASSERT_EQ(one.exitCode, 0) << one.err;
  EXPECT_EQ(one.out, "");
  EXPECT_EQ(fileContents(dir.path("big.bin")), std::string(3 << 20, '\0'));
  EXPECT_TRUE(contains(one.err, "-> 200, 3145728 bytes, ")) << one.err;

  const FetchRun many = runFetch({"--output-dir", dir.path("many"), "-m", kLimit,
                                  nginx.httpUrl("/small.txt"), nginx.httpUrl("/redirect/1")});
  ASSERT_EQ(many.exitCode, 0) << many.err;
  EXPECT_EQ(many.out, "");
  EXPECT_EQ(fileContents(dir.path("many/small.txt")), NginxServer::smallText());
  EXPECT_EQ(fileContents(dir.path("many/1")), NginxServer::smallText());
}

TEST(RetraFetchTest, MethodBodyHeadersAndUserAgentReachTheServer) {
  RetraTest::LoopbackHttpServer server;
  server.routeIs("/echo", {200, {}, "ok"});
  RetraTest::TempDir dir("retra-fetch-body");
  const std::string file = dir.write("body.json", "{\"n\": 1}");

  const FetchRun post =
      runFetch({"-d", "a=1", "-H", "X-Test: yes", "-m", kLimit, server.url("/echo")});
  const FetchRun put = runFetch({"-X", "PUT", "--data", "@" + file, "-H", "User-Agent: probe/2",
                                 "-m", kLimit, server.url("/echo")});

  EXPECT_EQ(post.exitCode, 0) << post.err;
  EXPECT_EQ(put.exitCode, 0) << put.err;
  const auto received = server.requests();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[0].method, "POST");
  EXPECT_EQ(received[0].body, "a=1");
  EXPECT_EQ(received[0].headers.at("x-test"), "yes");
  EXPECT_EQ(received[0].headers.at("user-agent"), "Mozilla/5.0 Retra/1.0.0");
  EXPECT_EQ(received[1].method, "PUT");
  EXPECT_EQ(received[1].body, "{\"n\": 1}");
  EXPECT_EQ(received[1].headers.at("user-agent"), "probe/2");
}

TEST(RetraFetchTest, CredentialsAnswerBasicAndDigestChallenges) {
  NginxServer nginx;
  const std::string secret = nginx.httpUrl("/basic/secret.txt");
  const FetchRun without = runFetch({"-m", kLimit, secret});
  EXPECT_EQ(without.exitCode, 23) << without.err;
  EXPECT_TRUE(
      hasLineStartingWith(without.errLines(), "GET " + secret + " -> 401 errHttpStatusCode"));

  const FetchRun basic = runFetch({"-u", "user:passwd", "-m", kLimit, secret});
  EXPECT_EQ(basic.exitCode, 0) << basic.err;
  EXPECT_TRUE(hasLineStartingWith(basic.errLines(), "GET " + secret + " -> 200, "));

  RetraTest::HttpbinServer httpbin;
  const FetchRun digest =
      runFetch({"-u", "ann:pw", "--digest", "-m", kLimit, httpbin.url("/digest-auth/auth/ann/pw")});
  EXPECT_EQ(digest.exitCode, 0) << digest.err;
  EXPECT_EQ(Json::parse(digest.out)["authenticated"], true);
}

TEST(RetraFetchTest, HttpsChecksTheServersPinnedKey) {
  NginxServer nginx;
  const std::string url = nginx.httpsUrl("/small.txt");

  const FetchRun pinned =
      runFetch({"-k", "--pinnedpubkey", nginx.certificates().serverPin(), "-m", kLimit, url});
  EXPECT_EQ(pinned.exitCode, 0) << pinned.err;
  EXPECT_EQ(pinned.out, NginxServer::smallText());

  const FetchRun wrongPin =
      runFetch({"-k", "--pinnedpubkey", nginx.certificates().otherPin(), "-m", kLimit, url});
  EXPECT_EQ(wrongPin.exitCode, 25) << wrongPin.err;  // errCurlOther, with libcurl's message
  EXPECT_TRUE(hasLineStartingWith(wrongPin.errLines(), "GET " + url + " -> errCurlOther: "));

  // The test CA is in no system store.
  const FetchRun untrusted = runFetch({"-m", kLimit, url});
  EXPECT_EQ(untrusted.exitCode, 25) << untrusted.err;
}

TEST(RetraFetchTest, IncludeStatsVerboseAndSilentShapeTheOutput) {
  NginxServer nginx;
  const std::string url = nginx.httpUrl("/small.txt");

  const FetchRun include = runFetch({"-i", "--stats", "-m", kLimit, url});
  ASSERT_EQ(include.exitCode, 0) << include.err;
  EXPECT_EQ(include.out.rfind("HTTP 200\n", 0), 0u) << include.out;
  EXPECT_TRUE(contains(include.out, "\nContent-Length: 1024\n"));
  EXPECT_TRUE(contains(include.out, "\n\n" + NginxServer::smallText()));
  EXPECT_TRUE(contains(include.err, "timer (seconds)"));
  EXPECT_EQ(wordsOfLine(include.err, "  bytesDownload "),
            (std::vector<std::string>{"bytesDownload", "1024", "1024"}))
      << include.err;

  const FetchRun verbose = runFetch({"-v", "-m", kLimit, url});
  EXPECT_EQ(verbose.exitCode, 0) << verbose.err;
  EXPECT_TRUE(contains(verbose.err, "curl_request_hdr=GET /small.txt HTTP/1.1")) << verbose.err;
  EXPECT_TRUE(contains(verbose.err, "RetraLib"));

  const FetchRun silent = runFetch({"-s", "-m", kLimit, url});
  EXPECT_EQ(silent.exitCode, 0);
  EXPECT_EQ(silent.err, "");
  EXPECT_EQ(silent.out, NginxServer::smallText());
}

TEST(RetraFetchTest, UsageErrorsExitWithTwoAndNameTheOption) {
  struct Case {
    std::vector<std::string> args;
    std::string named;
  };
  const std::vector<Case> cases = {
      {{"-X", "FETCH", "http://127.0.0.1:1/"}, "-X/--request: unknown method 'FETCH'"},
      {{"-H", "NoColon", "http://127.0.0.1:1/"}, "-H/--header: 'NoColon' has no colon"},
      {{"-o", "f", "http://127.0.0.1:1/a", "http://127.0.0.1:1/b"}, "-o/--output names one file"},
      {{"-m", "ten", "http://127.0.0.1:1/"}, "-m/--max-time: 'ten' is not a number"},
      {{"--watch", "--count", "-2", "http://127.0.0.1:1/"}, "--count"},
      {{"--no-such-option", "http://127.0.0.1:1/"}, "--no-such-option"},
      {{}, "url is required"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.named);
    const FetchRun run = runFetch(c.args);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("retra-fetch: ", 0), 0u) << run.err;
    EXPECT_TRUE(contains(run.err, c.named)) << run.err;
    EXPECT_TRUE(contains(run.err, "Try 'retra-fetch --help'"));
  }
}

}  // namespace
