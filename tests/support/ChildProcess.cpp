#include "support/ChildProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace RetraTest {

namespace {

std::string commandLine(const std::vector<std::string>& argv) {
  std::string line;
  for (const auto& word : argv) line += (line.empty() ? "" : " ") + word;
  return line;
}

// Forks and execs `argv` with stdout and stderr on `outFd` and stdin on /dev/null. Everything
// the child needs is prepared before the fork: after it, only async-signal-safe calls.
pid_t spawn(const std::vector<std::string>& argv, int outFd, const std::string& workDir) {
  if (argv.empty()) throw std::invalid_argument("no program to start");
  std::vector<char*> args;
  for (const auto& word : argv) args.push_back(const_cast<char*>(word.c_str()));
  args.push_back(nullptr);
  int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (devNull < 0) throw std::runtime_error("cannot open /dev/null");
  pid_t parent = ::getpid();
  pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(126);
    if (!workDir.empty() && ::chdir(workDir.c_str()) != 0) ::_exit(126);
    ::dup2(devNull, STDIN_FILENO);
    ::dup2(outFd, STDOUT_FILENO);
    ::dup2(outFd, STDERR_FILENO);
    ::close_range(3, ~0U, 0);  // no test socket or pipe lives on in the child
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::close(devNull);
  if (pid < 0) throw std::runtime_error("cannot fork for " + commandLine(argv));
  return pid;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& logPath,
                           const std::string& workDir) {
  int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (log < 0) throw std::runtime_error("cannot open " + logPath + ": " + std::strerror(errno));
  try {
    pid_ = spawn(argv, log, workDir);
  } catch (...) {
    ::close(log);
    throw;
  }
  ::close(log);
}

ChildProcess::~ChildProcess() {
  stop();
}

bool ChildProcess::isRunning() {
  if (pid_ <= 0) return false;
  int status = 0;
  pid_t done = ::waitpid(pid_, &status, WNOHANG);
  if (done == 0) return true;
  status_ = done == pid_ ? status : -1;
  pid_ = -1;
  return false;
}

void ChildProcess::stop(int signal, std::chrono::milliseconds grace) {
  if (!isRunning()) return;
  ::kill(pid_, signal);
  auto deadline = std::chrono::steady_clock::now() + grace;
  while (isRunning()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(pid_, SIGKILL);
      int status = 0;
      ::waitpid(pid_, &status, 0);
      status_ = status;
      pid_ = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::string ChildProcess::run(const std::vector<std::string>& argv, const std::string& workDir) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  pid_t pid;
  try {
    pid = spawn(argv, pipeFds[1], workDir);
  } catch (...) {
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
    throw;
  }
  ::close(pipeFds[1]);
  std::string output;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(pipeFds[0], buffer, sizeof buffer)) != 0) {
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    output.append(buffer, size_t(n));
  }
  ::close(pipeFds[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("`" + commandLine(argv) + "` failed (wait status " +
                             std::to_string(status) + "):\n" + output);
  }
  return output;
}

}  // namespace RetraTest
