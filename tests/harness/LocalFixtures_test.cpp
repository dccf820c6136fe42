#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>

#include "harness/support/Fetch.h"
#include "support/ChildProcess.h"
#include "support/FaultAnswers.h"
#include "support/FreePort.h"
#include "support/LoopbackHttpServer.h"
#include "support/TempDir.h"

namespace {

using HarnessTest::fetch;
using RetraTest::ChildProcess;
using RetraTest::FaultAnswers;
using RetraTest::FreePort;

TEST(TempDirTest, HoldsFilesUntilItIsDestroyed) {
  auto dir = std::make_unique<RetraTest::TempDir>("retra-check");
  const std::string path = dir->write("file.txt", "contents");
  EXPECT_EQ(dir->read("file.txt"), "contents");
  dir.reset();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ChildProcessTest, RunsCommandsAndStopsEvenAStubbornServer) {
  RetraTest::TempDir dir;
  EXPECT_EQ(ChildProcess::run({"/bin/sh", "-c", "pwd"}, dir.path()), dir.path() + "\n");
  EXPECT_THROW((void)ChildProcess::run({"/bin/sh", "-c", "exit 3"}), std::runtime_error);
  ChildProcess stubborn({"/bin/sh", "-c", "trap '' TERM; echo up; while :; do sleep 1; done"},
                        dir.path("log"));
  while (dir.read("log").empty()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  stubborn.stop(SIGTERM, std::chrono::milliseconds(50));  // killed once its grace time is over
  EXPECT_EQ(WTERMSIG(stubborn.exitStatus()), SIGKILL);
}

TEST(LoopbackHttpServerTest, AnswersRoutesOnIp6AndRecordsRequestsWhileFreePortsRefuse) {
  EXPECT_FALSE(FreePort::accepts(FreePort::onIp4AndIp6(), true));
  RetraTest::LoopbackHttpServer server(true);
  EXPECT_TRUE(FreePort::awaitListener(server.port(), true, std::chrono::milliseconds(30)));
  server.routeIs("/hello", {200, {{"X-Test", "yes"}}, "hi there"});
  auto post = [](CURL* easy) { curl_easy_setopt(easy, CURLOPT_POSTFIELDS, "a=b"); };
  EXPECT_EQ(fetch(server.url("/hello?x=1"), post).body, "hi there");
  EXPECT_EQ(fetch(server.url("/missing")).status, 404);
  const auto hello = server.requests().at(0);
  EXPECT_EQ(hello.method + " " + hello.target + " " + hello.body, "POST /hello?x=1 a=b");
}

// The silent route also shows that the server's destruction ends a handler still waiting.
TEST(FaultAnswersTest, EachFaultFailsTheWayLibcurlReportsIt) {
  RetraTest::LoopbackHttpServer server;
  server.routeIs("/silent", FaultAnswers::silence(server));
  server.routeIs("/cut", FaultAnswers::cutBody("only part", 100));
  server.routeIs("/garbage", FaultAnswers::notHttp());
  server.routeIs("/chunked", FaultAnswers::chunked({"first ", "second"}));
  auto quick = [](CURL* easy) { curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 300L); };
  EXPECT_EQ(fetch(FaultAnswers::refusingUrl("/x")).code, CURLE_COULDNT_CONNECT);
  EXPECT_EQ(fetch(server.url("/silent"), quick).code, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(fetch(server.url("/cut")).code, CURLE_PARTIAL_FILE);
  EXPECT_EQ(fetch(server.url("/garbage")).code, CURLE_UNSUPPORTED_PROTOCOL);
  EXPECT_EQ(fetch(server.url("/chunked")).body, "first second");
}

}  // namespace
