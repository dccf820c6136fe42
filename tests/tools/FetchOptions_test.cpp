// Reading a retra-fetch command line: what each option does to the requests, and the usage
// errors, each naming its option.

#include "retra-fetch/FetchOptions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace {

using RetraFetch::CommandLine;
using RetraFetch::FetchOptions;

CommandLine parse(std::vector<std::string> args) {
  args.insert(args.begin(), "retra-fetch");
  return RetraFetch::parseCommandLine(args);
}

FetchOptions options(std::vector<std::string> args) {
  const CommandLine line = parse(args);
  EXPECT_EQ(line.outcome, CommandLine::Outcome::run) << line.message;
  return line.options;
}

Retra::Request onlyRequest(std::vector<std::string> args) {
  const auto requests = RetraFetch::requestsFor(options(args));
  EXPECT_EQ(requests.size(), 1u);
  return requests.empty() ? Retra::Request() : requests.front();
}

// The usage error's message, or a note that there was none.
std::string usageError(std::vector<std::string> args) {
  const CommandLine line = parse(args);
  if (line.outcome != CommandLine::Outcome::usageError) return "(no usage error)";
  return line.message;
}

TEST(FetchOptionsTest, PlainUrlsBecomeDefaultGetRequestsInOrder) {
  const auto requests =
      RetraFetch::requestsFor(options({"http://127.0.0.1:1/a", "https://127.0.0.1:2/b"}));
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].requestKey(), Retra::RequestKey(Retra::GET, "http://127.0.0.1:1/a"));
  EXPECT_EQ(requests[1].requestKey(), Retra::RequestKey(Retra::GET, "https://127.0.0.1:2/b"));
  // Nothing asked for: the library's defaults stay.
  EXPECT_TRUE(requests[0] == Retra::Request(requests[0].requestKey()));
}

TEST(FetchOptionsTest, MethodHeadersAndBodyFollowCurl) {
  Retra::Request post = onlyRequest({"-d", "a=1", "-d", "b=2", "-H", "X-One:  first", "--header",
                                     "Accept:text/plain", "http://h/"});
  EXPECT_EQ(post.method(), Retra::POST);  // -d alone means POST
  EXPECT_EQ(post.body(), "a=1&b=2");      // several -d joined with '&'
  EXPECT_EQ(post.header("X-One"), "first");
  EXPECT_EQ(post.header("Accept"), "text/plain");
  EXPECT_EQ(post.header().size(), 2u);

  EXPECT_EQ(onlyRequest({"-X", "put", "-d", "x", "http://h/"}).method(), Retra::PUT);
  EXPECT_EQ(onlyRequest({"--request", "DELETE", "http://h/"}).method(), Retra::DELETE);
  EXPECT_EQ(onlyRequest({"-X", "HEAD", "http://h/"}).method(), Retra::HEAD);
  EXPECT_EQ(onlyRequest({"-H", "X-Empty:", "http://h/"}).header("X-Empty"), "");

  RetraTest::TempDir dir;
  const std::string path = dir.write("body.bin", std::string("bin\0ary", 7));
  Retra::Request fromFile = onlyRequest({"--data", "@" + path, "http://h/"});
  EXPECT_EQ(fromFile.body(), Orb::String("bin\0ary", 7));
}

TEST(FetchOptionsTest, CredentialsTlsTracingAndOutput) {
  Retra::Request basic = onlyRequest({"-u", "ann:pa:ss", "http://h/"});
  EXPECT_EQ(basic.authType(), Retra::authBasic);
  EXPECT_EQ(basic.username(), "ann");
  EXPECT_EQ(basic.password(), "pa:ss");  // split at the first colon
  EXPECT_EQ(onlyRequest({"-u", "a:b", "--basic", "http://h/"}).authType(), Retra::authBasic);
  EXPECT_EQ(onlyRequest({"-u", "a:b", "--digest", "http://h/"}).authType(), Retra::authDigest);

  Retra::Request tls =
      onlyRequest({"-k", "--pinnedpubkey", "sha256//AAAA", "-v", "-o", "out.txt", "https://h/"});
  EXPECT_FALSE(tls.sslVerifyPeer());
  EXPECT_EQ(tls.pinnedPublicKey(), "sha256//AAAA");
  EXPECT_TRUE(tls.debug());
  EXPECT_EQ(tls.outputPath(), "out.txt");
  EXPECT_TRUE(onlyRequest({"-o", "-", "http://h/"}).outputPath().empty());  // "-": stdout
}

TEST(FetchOptionsTest, MaxTimeBoundsTheConnectTimeoutToo) {
  Retra::Request both = onlyRequest({"--connect-timeout", "5", "-m", "20", "http://h/"});
  EXPECT_EQ(both.timeoutConnect(), 5);
  EXPECT_EQ(both.timeoutRequest(), 20);

  Retra::Request capped = onlyRequest({"-m", "7", "http://h/"});
  EXPECT_EQ(capped.timeoutConnect(), 7);  // not the default 60, which would outlast -m
  EXPECT_EQ(capped.timeoutRequest(), 7);

  Retra::Request fraction = onlyRequest({"-m", "0.2", "--refresh", "2.5", "http://h/"});
  EXPECT_EQ(fraction.timeoutRequest(), 1);  // whole seconds, rounded up
  EXPECT_EQ(fraction.timeoutRefresh(), 3u);

  Retra::Request unlimited = onlyRequest({"-m", "0", "http://h/"});
  EXPECT_EQ(unlimited.timeoutConnect(), 0);
  EXPECT_EQ(unlimited.timeoutRequest(), 0);
}

TEST(FetchOptionsTest, OutputDirNamesFilesAfterTheirUrls) {
  const FetchOptions o =
      options({"--output-dir", "/tmp/d", "http://h/a/page.html?x=1", "http://h/b/page.html",
               "http://h/", "http://h/c/page.html#top", "http://h:8/plain"});
  EXPECT_EQ(RetraFetch::outputPathsFor(o),
            (std::vector<std::string>{"/tmp/d/page.html", "/tmp/d/page-2.html", "/tmp/d/index.html",
                                      "/tmp/d/page-3.html", "/tmp/d/plain"}));
  const FetchOptions withFile = options({"--output-dir", "/tmp/d/", "-o", "x.bin", "http://h/"});
  EXPECT_EQ(RetraFetch::outputPathsFor(withFile), std::vector<std::string>{"/tmp/d/x.bin"});
}

TEST(FetchOptionsTest, WatchingTakesACountAndDnsServers) {
  const FetchOptions o =
      options({"--watch", "--count", "3", "--refresh", "0", "--dns-servers",
               "127.0.0.1:5353,[::1]:53", "--json", "--stats", "-i", "-s", "http://h/"});
  EXPECT_TRUE(o.watch);
  EXPECT_EQ(o.count, 3u);
  EXPECT_EQ(o.refresh, 0u);
  EXPECT_EQ(o.dnsServers, "127.0.0.1:5353,[::1]:53");
  EXPECT_TRUE(o.json && o.stats && o.include && o.silent);
}

TEST(FetchOptionsTest, UsageErrorsNameTheOptionAndTheValue) {
  EXPECT_EQ(usageError({"-X", "FETCH", "http://h/"}),
            "-X/--request: unknown method 'FETCH' (one of OPTIONS, GET, HEAD, POST, PUT, DELETE, "
            "TRACE, CONNECT, PATCH)");
  EXPECT_EQ(usageError({"-H", "NoColon", "http://h/"}),
            "-H/--header: 'NoColon' has no colon (expected 'Name: value')");
  EXPECT_EQ(usageError({"-H", ": value", "http://h/"}),
            "-H/--header: ': value' has no valid header name before its colon");
  EXPECT_EQ(usageError({"-o", "f", "http://h/1", "http://h/2"}),
            "-o/--output names one file but 2 URLs were given; use --output-dir");
  EXPECT_EQ(usageError({"-m", "ten", "http://h/"}),
            "-m/--max-time: 'ten' is not a number of seconds");
  EXPECT_EQ(usageError({"--connect-timeout", "-1", "http://h/"}),
            "--connect-timeout: '-1' is not a number of seconds");
  EXPECT_EQ(usageError({"--connect-timeout", "70000", "http://h/"}),
            "--connect-timeout: 70000 is more than 65535 seconds");
  EXPECT_EQ(usageError({"--refresh", "nan", "http://h/"}),
            "--refresh: 'nan' is not a number of seconds");
  EXPECT_EQ(usageError({"--watch", "--count", "0", "http://h/"}),
            "--count: '0' is not a positive whole number");
  EXPECT_EQ(usageError({"-u", "nopassword", "http://h/"}),
            "-u/--user: 'nopassword' is not USER:PASSWORD");
  EXPECT_EQ(usageError({"-X", "PATCH", "-d", "x", "http://h/"}),
            "-d/--data: the library sends a body with POST and PUT only, not with PATCH");
  EXPECT_EQ(usageError({"-d", "@/nonexistent/body", "http://h/"}),
            "-d/--data: cannot read '/nonexistent/body': No such file or directory");
  EXPECT_EQ(usageError({"--dns-servers", "not-an-address", "http://h/"}),
            "--dns-servers: 'not-an-address' is not a comma-separated list of address[:port]");
  EXPECT_EQ(usageError({"http://h/", "http://h/"}),
            "URL 'http://h/' is given twice (a URL is fetched once per method)");
  // CLI11's own checks name the option too.
  EXPECT_NE(usageError({"--count", "2", "http://h/"}).find("--count requires --watch"),
            std::string::npos);
  EXPECT_NE(usageError({"--digest", "http://h/"}).find("--digest requires --user"),
            std::string::npos);
  EXPECT_NE(usageError({"-u", "a:b", "--basic", "--digest", "http://h/"}).find("excludes"),
            std::string::npos);
  EXPECT_NE(usageError({"--frobnicate", "http://h/"}).find("--frobnicate"), std::string::npos);
  EXPECT_NE(usageError({}).find("url is required"), std::string::npos);
}

TEST(FetchOptionsTest, HelpAndVersionExitWithText) {
  const CommandLine help = parse({"--help"});
  EXPECT_EQ(help.outcome, CommandLine::Outcome::exit);
  EXPECT_NE(help.message.find("--pinnedpubkey"), std::string::npos);
  EXPECT_NE(help.message.find("24  errConnRefused"), std::string::npos);
  const CommandLine version = parse({"--version"});
  EXPECT_EQ(version.outcome, CommandLine::Outcome::exit);
  EXPECT_EQ(version.message, "retra-fetch 1.0.0\n");
}

}  // namespace
