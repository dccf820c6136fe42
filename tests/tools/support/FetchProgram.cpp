#include "tools/support/FetchProgram.h"

#include <sys/wait.h>

#include <cstdlib>
#include <sstream>

#include "support/TempDir.h"

namespace ToolTest {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Through the shell, each argument single-quoted; timeout(1) kills it after two minutes.
FetchRun runFetch(const std::vector<std::string>& args) {
  return runProgram(RETRA_FETCH_PROGRAM, args);
}

FetchRun runProgram(const std::string& program, const std::vector<std::string>& args) {
  RetraTest::TempDir dir("retra-fetch-run");
  std::string command = "timeout -s KILL 120 " + program;
  for (const std::string& arg : args) {
    command += " '";
    for (const char c : arg) command += c == '\'' ? std::string("'\\''") : std::string(1, c);
    command += "'";
  }
  command += " </dev/null >" + dir.path("out") + " 2>" + dir.path("err");
  const int status = std::system(command.c_str());
  const int exitCode = WIFEXITED(status) && WEXITSTATUS(status) != 137 ? WEXITSTATUS(status) : -1;
  return FetchRun{exitCode, dir.read("out"), dir.read("err")};
}

}  // namespace ToolTest
