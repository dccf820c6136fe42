// Reading a retra-fetch command line: what each option does to the requests, and the usage
// errors, each naming its option.

#include "retra-fetch/FetchOptions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using RetraFetch::CommandLine;

CommandLine parse(std::vector<std::string> args) {
  args.insert(args.begin(), "retra-fetch");
  return RetraFetch::parseCommandLine(args);
}

RetraFetch::FetchOptions options(std::vector<std::string> args) {
  const CommandLine line = parse(args);
  EXPECT_EQ(line.outcome, CommandLine::Outcome::run) << line.message;
  return line.options;
}

// The one request for `args` followed by "http://h/".
Retra::Request onlyRequest(std::vector<std::string> args) {
  args.push_back("http://h/");
  const auto requests = RetraFetch::requestsFor(options(args));
  EXPECT_EQ(requests.size(), 1u);
  return requests.empty() ? Retra::Request() : requests.front();
}

TEST(FetchOptionsTest, EachOptionSetsItsPartOfTheRequest) {
  const auto plain = RetraFetch::requestsFor(options({"http://127.0.0.1:1/a", "https://h:2/b"}));
  ASSERT_EQ(plain.size(), 2u);
  EXPECT_EQ(plain[1].requestKey(), Retra::RequestKey(Retra::GET, "https://h:2/b"));
  EXPECT_TRUE(plain[0] == Retra::Request(plain[0].requestKey()));  // the library's defaults

  const Retra::Request post = onlyRequest(
      {"-d", "a=1", "-d", "b=2", "-H", "X-One:  first", "--header", "Accept:text/plain"});
  EXPECT_EQ(post.method(), Retra::POST);  // -d alone means POST
  EXPECT_EQ(post.body(), "a=1&b=2");      // several -d joined with '&'
  EXPECT_EQ(post.header("X-One"), "first");
  EXPECT_EQ(post.header("Accept"), "text/plain");
  EXPECT_EQ(post.header().size(), 2u);
  EXPECT_EQ(onlyRequest({"-X", "put", "-d", "x"}).method(), Retra::PUT);

  const Retra::Request basic = onlyRequest({"-u", "ann:pa:ss"});
  EXPECT_EQ(basic.authType(), Retra::authBasic);
  EXPECT_EQ(basic.username(), "ann");
  EXPECT_EQ(basic.password(), "pa:ss");  // split at the first colon
  EXPECT_EQ(onlyRequest({"-u", "a:b", "--digest"}).authType(), Retra::authDigest);
  const Retra::Request tls = onlyRequest({"-k", "--pinnedpubkey", "sha256//AAAA", "-v", "-o", "o"});
  EXPECT_FALSE(tls.sslVerifyPeer());
  EXPECT_EQ(tls.pinnedPublicKey(), "sha256//AAAA");
  EXPECT_TRUE(tls.debug());
  EXPECT_EQ(tls.outputPath(), "o");
  EXPECT_TRUE(onlyRequest({"-o", "-"}).outputPath().empty());  // "-": standard output

  // -m bounds the connect time-out too; fractions round up to whole seconds; 0 is no limit.
  const std::tuple<std::vector<std::string>, int, int> timeouts[] = {
      {{"--connect-timeout", "5", "-m", "20"}, 5, 20}, {{"-m", "0.2"}, 1, 1}, {{"-m", "0"}, 0, 0}};
  for (const auto& [args, connect, request] : timeouts) {
    const Retra::Request r = onlyRequest(args);
    EXPECT_EQ(r.timeoutConnect(), connect) << args.at(1);
    EXPECT_EQ(r.timeoutRequest(), request) << args.at(1);
  }
  EXPECT_EQ(onlyRequest({"--refresh", "2.5"}).timeoutRefresh(), 3u);

  EXPECT_EQ(RetraFetch::outputPathsFor(options(
                {"--output-dir", "/tmp/d", "http://h/a/page.html?x=1", "http://h/b/page.html",
                 "http://h/", "http://h/c/page.html#top", "http://h:8/plain"})),
            (std::vector<std::string>{"/tmp/d/page.html", "/tmp/d/page-2.html", "/tmp/d/index.html",
                                      "/tmp/d/page-3.html", "/tmp/d/plain"}));
}

TEST(FetchOptionsTest, UsageErrorsNameTheOptionAndTheValue) {
  const std::pair<std::vector<std::string>, std::string> errors[] = {
      {{"-X", "FETCH"},
       "-X/--request: unknown method 'FETCH' (one of OPTIONS, GET, HEAD, POST, PUT, DELETE, "
       "TRACE, CONNECT, PATCH)"},
      {{"-H", "NoColon"}, "-H/--header: 'NoColon' has no colon (expected 'Name: value')"},
      {{"-o", "f", "http://h/1"},
       "-o/--output names one file but 2 URLs were given; use --output-dir"},
      {{"-m", "ten"}, "-m/--max-time: 'ten' is not a number of seconds"},
      {{"--connect-timeout", "-1"}, "--connect-timeout: '-1' is not a number of seconds"},
      {{"--watch", "--count", "0"}, "--count: '0' is not a positive whole number"},
      {{"-u", "nopassword"}, "-u/--user: 'nopassword' is not USER:PASSWORD"},
      {{"-X", "PATCH", "-d", "x"},
       "-d/--data: the library sends a body with POST and PUT only, not with PATCH"},
      {{"--dns-servers", "not-an-address"},
       "--dns-servers: 'not-an-address' is not a comma-separated list of address[:port]"},
      {{"http://h/"}, "URL 'http://h/' is given twice (a URL is fetched once per method)"},
      // CLI11's own checks name the option too.
      {{"--count", "2"}, "--count requires --watch"},
      {{"--digest"}, "--digest requires --user"},
      {{"--frobnicate"}, "--frobnicate"}};
  for (auto [args, message] : errors) {
    args.push_back("http://h/");
    const CommandLine line = parse(args);
    EXPECT_EQ(line.outcome, CommandLine::Outcome::usageError) << message;
    EXPECT_NE(line.message.find(message), std::string::npos) << line.message;
  }
  const CommandLine help = parse({"--help"});
  EXPECT_EQ(help.outcome, CommandLine::Outcome::exit);
  EXPECT_NE(help.message.find("24  errConnRefused"), std::string::npos);
}

}  // namespace
