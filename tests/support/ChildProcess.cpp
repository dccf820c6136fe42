#include "support/ChildProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace RetraTest {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& logPath,
                           const std::string& workDir) {
  // Everything the child needs is prepared before the fork: after it, only async-signal-safe
  // calls.
  std::vector<char*> args;
  for (const auto& word : argv) args.push_back(const_cast<char*>(word.c_str()));
  args.push_back(nullptr);
  const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (log < 0 || devNull < 0) throw std::runtime_error("cannot open " + logPath);
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(126);
    if (!workDir.empty() && ::chdir(workDir.c_str()) != 0) ::_exit(126);
    ::dup2(devNull, STDIN_FILENO);
    ::dup2(log, STDOUT_FILENO);
    ::dup2(log, STDERR_FILENO);
    ::close_range(3, ~0U, 0);  // no test socket or pipe lives on in the child
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::close(log);
  ::close(devNull);
  if (pid_ < 0) throw std::runtime_error("cannot fork for " + argv.at(0));
}

ChildProcess::~ChildProcess() {
  stop();
}

bool ChildProcess::isRunning() {
  if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) != 0) pid_ = -1;
  return pid_ > 0;
}

void ChildProcess::stop(int signal, std::chrono::milliseconds grace) {
  if (!isRunning()) return;
  ::kill(pid_, signal);
  const auto deadline = std::chrono::steady_clock::now() + grace;
  while (isRunning()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::string ChildProcess::run(const std::string& command) {
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (!pipe) throw std::runtime_error("cannot run " + command);
  std::string output;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
  if (::pclose(pipe) != 0) throw std::runtime_error("`" + command + "` failed:\n" + output);
  return output;
}

}  // namespace RetraTest
