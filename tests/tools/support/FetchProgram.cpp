#include "tools/support/FetchProgram.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/TempDir.h"

extern char** environ;

namespace ToolTest {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

FetchRun runFetch(const std::vector<std::string>& args) {
  RetraTest::TempDir dir("retra-fetch-run");
  std::vector<std::string> argv{RETRA_FETCH_PROGRAM};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> pointers;
  for (std::string& arg : argv) pointers.push_back(arg.data());
  pointers.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  for (const int fd : {1, 2}) {
    const std::string path = dir.path(fd == 1 ? "out" : "err");
    posix_spawn_file_actions_addopen(&actions, fd, path.c_str(), O_WRONLY | O_CREAT, 0644);
  }
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw std::runtime_error(std::string("cannot start ") + RETRA_FETCH_PROGRAM);

  FetchRun run;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) ::kill(pid, SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
  run.out = dir.read("out");
  run.err = dir.read("err");
  return run;
}

}  // namespace ToolTest
