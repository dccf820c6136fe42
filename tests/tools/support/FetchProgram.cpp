#include "tools/support/FetchProgram.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <thread>

#include "support/TempDir.h"

extern char** environ;

namespace ToolTest {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

std::vector<std::string> FetchRun::outLines() const {
  return linesOf(out);
}

std::vector<std::string> FetchRun::errLines() const {
  return linesOf(err);
}

FetchRun runFetch(const std::vector<std::string>& args, std::chrono::seconds limit) {
  RetraTest::TempDir dir("retra-fetch-run");
  const std::string outPath = dir.path("stdout");
  const std::string errPath = dir.path("stderr");

  std::vector<std::string> argv{RETRA_FETCH_PROGRAM};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> pointers;
  for (std::string& arg : argv) pointers.push_back(arg.data());
  pointers.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw std::runtime_error(std::string("cannot start ") + RETRA_FETCH_PROGRAM);

  FetchRun run;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      status = -1;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (status != -1 && WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
  run.out = dir.read("stdout");
  run.err = dir.read("stderr");
  return run;
}

}  // namespace ToolTest
