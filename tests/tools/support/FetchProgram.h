#pragma once

#include <string>
#include <vector>

namespace ToolTest {

// What one run of a built program did.
struct FetchRun {
  int exitCode = -1;  // -1 when it did not exit by itself (killed at the time limit)
  std::string out;    // standard output
  std::string err;    // standard error
};

// Runs retra-fetch with `args` (program name excluded), standard input from /dev/null and both
// outputs captured, and waits for it; after two minutes it is killed.
//
//   ToolTest::FetchRun run = ToolTest::runFetch({"--json", nginx.httpUrl("/small.txt")});
[[nodiscard]] FetchRun runFetch(const std::vector<std::string>& args);
// The same for another program (retra-ctl).
[[nodiscard]] FetchRun runProgram(const std::string& program, const std::vector<std::string>& args);

// The lines of `text`, split at newlines.
[[nodiscard]] std::vector<std::string> linesOf(const std::string& text);

}  // namespace ToolTest
