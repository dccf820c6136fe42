#include "remote/BenchService.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace RetraBench {
namespace {

constexpr auto kStartLimit = std::chrono::seconds(10);

bool accepts(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected =
      fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  if (fd >= 0) ::close(fd);
  return connected;
}

}  // namespace

BenchService::BenchService(const std::string& program) {
  std::string pattern = std::filesystem::temp_directory_path() / "retra-bench-retrad.XXXXXX";
  if (!::mkdtemp(pattern.data())) {
    throw std::runtime_error("mkdtemp: " + std::string(std::strerror(errno)));
  }
  dir_ = pattern;
  socket_ = dir_ + "/retrad.sock";
  const std::string state = dir_ + "/requests.db";
  const std::string logPath = dir_ + "/retrad.log";
  std::vector<const char*> argv{program.c_str(), "--socket",    socket_.c_str(),
                                "--state",       state.c_str(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, logPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  const int failed = ::posix_spawn(&pid_, program.c_str(), &actions, nullptr,
                                   const_cast<char* const*>(argv.data()), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed) {
    pid_ = -1;
    stop();
    throw std::runtime_error("cannot start " + program + ": " + std::strerror(failed));
  }
  const auto giveUpAt = std::chrono::steady_clock::now() + kStartLimit;
  while (!accepts(socket_)) {
    int status = 0;
    const bool exited = ::waitpid(pid_, &status, WNOHANG) == pid_;
    if (exited || std::chrono::steady_clock::now() > giveUpAt) {
      if (exited) pid_ = -1;
      const std::string output = log();
      stop();
      throw std::runtime_error(program + " did not start listening: " + output);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

BenchService::~BenchService() {
  stop();
}

long BenchService::residentKib() const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  std::string field;
  long kib = -1;
  while (status >> field) {
    if (field == "VmRSS:" && status >> kib) return kib;
  }
  return -1;
}

double BenchService::stop() {
  double cpuSeconds = 0;
  if (pid_ >= 0) {
    ::kill(pid_, SIGTERM);
    int status = 0;
    rusage usage{};
    while (::wait4(pid_, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::cerr << "retrad: " << log();
    cpuSeconds = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                 double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  }
  if (!dir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
    dir_.clear();
  }
  return cpuSeconds;
}

std::string BenchService::log() const {
  std::ifstream in(dir_ + "/retrad.log");
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace RetraBench
