// retra-ctl as a user runs it: the real program against a real retrad on a temporary socket,
// fetching from a loopback server. Requests go in and out, survive a restart of the service,
// are shown whole and watched as they finish; usage errors and a missing service have their
// own exit statuses.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "service/support/ServiceProcess.h"
#include "support/ChildProcess.h"
#include "support/LoopbackHttpServer.h"
#include "support/TempDir.h"
#include "support/TimeScale.h"
#include "tools/support/FetchProgram.h"

namespace {

using Json = nlohmann::json;
using RetraTest::LoopbackHttpServer;
using ToolTest::FetchRun;
using ToolTest::linesOf;

class RetraCtlTest : public ::testing::Test {
 protected:
  RetraCtlTest() {
    server.routeIs("/a", LoopbackHttpServer::answer(200, "alpha"));
    server.routeIs("/gone", LoopbackHttpServer::answer(410, "gone"));
  }

  FetchRun ctl(std::vector<std::string> args) {
    args.insert(args.begin(), {"--socket", service.socketPath()});
    return ToolTest::runProgram(RETRA_CTL_PROGRAM, args);
  }

  // Polls `done` until it holds; false after half a minute (stretched under valgrind).
  template <class Predicate>
  static bool eventually(Predicate done) {
    for (unsigned i = 0; i < 50 * RetraTest::scaledSeconds(30); ++i) {
      if (done()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  // The listed requests once `count` of them have finished.
  std::vector<Json> finishedListing(size_t count) {
    std::vector<Json> listing;
    const bool done = eventually([&] {
      listing.clear();
      size_t finished = 0;
      for (const std::string& line : linesOf(ctl({"list", "--json"}).out)) {
        listing.push_back(Json::parse(line));
        finished += listing.back()["state"] == "stateFinished";
      }
      return finished == count;
    });
    EXPECT_TRUE(done) << service.log();
    return listing;
  }

  LoopbackHttpServer server;
  ServiceTest::ServiceProcess service;
};

TEST_F(RetraCtlTest, RequestsGoInAreShownResetWithdrawnAndSurviveARestart) {
  const FetchRun added = ctl({"add", server.url("/a"), "-H", "X-Test: yes", "--refresh", "3600"});
  ASSERT_EQ(added.exitCode, 0) << added.err;
  ASSERT_EQ(ctl({"add", server.url("/gone"), "--refresh", "3600"}).exitCode, 0);
  std::vector<Json> listing = finishedListing(2);
  ASSERT_EQ(listing.size(), 2u);

  // The text listing: method, URI, state, status, error, time of the last update.
  const std::string text = ctl({"list"}).out;
  EXPECT_NE(text.find("GET " + server.url("/a") + "  stateFinished  200  errNone  20"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("GET " + server.url("/gone") + "  stateFinished  410  errHttpStatusCode"),
            std::string::npos)
      << text;

  // show --json is the response whole, as retra-fetch --json prints it; the status follows the
  // response's error as retra-fetch's does.
  const FetchRun shown = ctl({"show", "--json", server.url("/a")});
  ASSERT_EQ(shown.exitCode, 0) << shown.err;
  const Json response = Json::parse(shown.out);
  EXPECT_EQ(response["statusCode"], 200);
  EXPECT_EQ(response["body"], "alpha");
  EXPECT_EQ(response["requestheader"]["X-Test"], "yes");
  EXPECT_EQ(response["timeoutRefresh"], 3600);
  const FetchRun gone = ctl({"show", server.url("/gone")});
  EXPECT_EQ(gone.exitCode, 23) << gone.err;  // errHttpStatusCode
  EXPECT_NE(gone.out.find("\nstatusCode: 410\n"), std::string::npos) << gone.out;
  EXPECT_TRUE(ctl({"show", server.url("/a")})
                  .out.ends_with("\nport: " + std::to_string(server.port()) + "\n\nalpha"));

  // reset fetches at once, well before the refresh period.
  const size_t fetched = server.requests().size();
  ASSERT_EQ(ctl({"reset", server.url("/a")}).exitCode, 0);
  EXPECT_TRUE(eventually([&] { return server.requests().size() == fetched + 1; }));

  // The requests are the service's: killed and started again, it has them and fetches them.
  service.killAndRestart();
  listing = finishedListing(2);
  EXPECT_EQ(listing.size(), 2u);

  const FetchRun deleted = ctl({"del", server.url("/a")});
  EXPECT_EQ(deleted.exitCode, 0) << deleted.err;
  listing = finishedListing(1);
  ASSERT_EQ(listing.size(), 1u);
  EXPECT_EQ(listing[0]["uri"], server.url("/gone"));
  const FetchRun again = ctl({"del", server.url("/a")});
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_EQ(again.err, "retra-ctl: no request GET " + server.url("/a") + "\n");
  EXPECT_EQ(ctl({"show", "-X", "POST", server.url("/gone")}).exitCode, 1);

  const FetchRun ping = ctl({"ping"});
  EXPECT_EQ(ping.out, "retrad 1.0.0 at " + service.socketPath() + ", serving uid " +
                          std::to_string(::getuid()) + "\n");
}

TEST_F(RetraCtlTest, UsageErrorsAndAMissingServiceHaveTheirStatusesAndSayWhatToDo) {
  const std::vector<std::string> usage[] = {{},
                                            {"add"},
                                            {"frobnicate"},
                                            {"add", "-X", "FETCH", "http://h/"},
                                            {"add", "-o", "-", "http://h/"},
                                            {"watch", "--count", "0"}};
  for (const auto& args : usage) {
    const FetchRun run = ctl(args);
    EXPECT_EQ(run.exitCode, 2) << run.err;
    EXPECT_TRUE(run.err.starts_with("retra-ctl: ")) << run.err;
  }
  RetraTest::TempDir empty("retra-ctl");
  const FetchRun none = ToolTest::runProgram(
      RETRA_CTL_PROGRAM, {"--socket", empty.path("retrad.sock"), "add", server.url("/a")});
  EXPECT_EQ(none.exitCode, 4);
  EXPECT_NE(none.err.find("no service at " + empty.path("retrad.sock")), std::string::npos);
  EXPECT_NE(none.err.find("'retrad &' or 'systemctl --user start retrad.socket'"),
            std::string::npos)
      << none.err;
}

TEST_F(RetraCtlTest, WatchPrintsALinePerFinishedFetch) {
  RetraTest::TempDir dir("retra-ctl-watch");
  RetraTest::ChildProcess watch(
      {RETRA_CTL_PROGRAM, "--socket", service.socketPath(), "watch", "--count", "3"},
      dir.path("watch.log"));
  ASSERT_EQ(ctl({"add", server.url("/a")}).exitCode, 0);
  // Reported once whether the watch saw it finish or found it finished.
  ASSERT_TRUE(eventually([&] { return linesOf(dir.read("watch.log")).size() == 1; }));
  ASSERT_EQ(ctl({"reset", server.url("/a")}).exitCode, 0);
  ASSERT_EQ(ctl({"add", "-d", "x=1", server.url("/gone")}).exitCode, 0);
  ASSERT_TRUE(eventually([&] { return !watch.isRunning(); })) << dir.read("watch.log");

  std::vector<std::string> lines = linesOf(dir.read("watch.log"));
  ASSERT_EQ(lines.size(), 3u) << dir.read("watch.log");
  std::sort(lines.begin() + 1, lines.end());  // the last two may finish in either order
  EXPECT_EQ(lines[0], "GET " + server.url("/a") + " -> 200, 5 bytes [fetch 1]");
  EXPECT_EQ(lines[1], "GET " + server.url("/a") + " -> 200, 5 bytes [fetch 2]");
  EXPECT_EQ(lines[2],
            "POST " + server.url("/gone") + " -> 410 errHttpStatusCode, 0 bytes [fetch 1]");
}

}  // namespace
