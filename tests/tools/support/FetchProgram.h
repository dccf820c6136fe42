#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace ToolTest {

// What one run of the built retra-fetch program did.
struct FetchRun {
  int exitCode = -1;  // -1 when it did not exit by itself (killed at the time limit)
  std::string out;    // standard output
  std::string err;    // standard error

  // The lines of `out` / `err`, without their newlines.
  [[nodiscard]] std::vector<std::string> outLines() const;
  [[nodiscard]] std::vector<std::string> errLines() const;
};

// Runs retra-fetch with `args` (program name excluded), standard input from /dev/null and both
// outputs captured, and waits for it; after `limit` it is killed.
//
//   ToolTest::FetchRun run = ToolTest::runFetch({"--json", nginx.httpUrl("/small.txt")});
//   EXPECT_EQ(run.exitCode, 0);
[[nodiscard]] FetchRun runFetch(const std::vector<std::string>& args,
                                std::chrono::seconds limit = std::chrono::seconds(120));

// The lines of `text`, split at newlines; a last line without one counts too.
[[nodiscard]] std::vector<std::string> linesOf(const std::string& text);

}  // namespace ToolTest
