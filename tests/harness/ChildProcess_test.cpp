#include "support/ChildProcess.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <stdexcept>
#include <thread>

#include "support/TempDir.h"

namespace {

using RetraTest::ChildProcess;

TEST(ChildProcessTest, RunsToCompletionAndStopsServers) {
  RetraTest::TempDir dir;
  EXPECT_EQ(ChildProcess::run({"/bin/sh", "-c", "pwd; echo oops >&2"}, dir.path()),
            dir.path() + "\noops\n");
  try {
    (void)ChildProcess::run({"/bin/sh", "-c", "echo why; exit 3"});
    ADD_FAILURE() << "a failing command must throw";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("why"), std::string::npos) << e.what();
  }
  EXPECT_THROW((void)ChildProcess::run({"/nonexistent/program"}), std::runtime_error);

  ChildProcess sleeper({"/bin/sh", "-c", "echo started; exec sleep 60"}, dir.path("log"));
  EXPECT_GT(sleeper.pid(), 0);
  EXPECT_TRUE(sleeper.isRunning());
  while (dir.read("log").empty()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  sleeper.stop();
  EXPECT_FALSE(sleeper.isRunning());
  ASSERT_TRUE(WIFSIGNALED(sleeper.exitStatus()));
  EXPECT_EQ(WTERMSIG(sleeper.exitStatus()), SIGTERM);
  EXPECT_EQ(dir.read("log"), "started\n");

  // A process that ignores SIGTERM is killed once its grace time is over.
  ChildProcess stubborn({"/bin/sh", "-c", "trap '' TERM; echo ready; while :; do sleep 1; done"},
                        dir.path("stubborn"));
  while (dir.read("stubborn").empty()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  stubborn.stop(SIGTERM, std::chrono::milliseconds(50));
  ASSERT_TRUE(WIFSIGNALED(stubborn.exitStatus()));
  EXPECT_EQ(WTERMSIG(stubborn.exitStatus()), SIGKILL);
}

}  // namespace
