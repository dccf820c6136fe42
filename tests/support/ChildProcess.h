#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

namespace RetraTest {

// A program the test starts and owns: its standard output and error go to a log file, its
// standard input is /dev/null, and it is stopped and reaped when the object is destroyed. The
// child also receives SIGTERM if the thread that started it ends first (a crashed test leaves
// no server behind), so start servers from the test's own thread.
//
//   RetraTest::ChildProcess nginx({"/usr/sbin/nginx", "-p", dir}, dir + "/stdout.log");
//   if (!nginx.isRunning()) ... read the log ...
//   nginx.stop();   // SIGTERM, then SIGKILL if it lingers
class ChildProcess {
 public:
  // Starts `argv[0]` (a path; PATH is not searched) in `workDir` (the current directory when
  // empty). Throws std::runtime_error when the process cannot be created or the log opened.
  ChildProcess(const std::vector<std::string>& argv, const std::string& logPath,
               const std::string& workDir = "");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  // False once the process has exited (it is reaped then).
  [[nodiscard]] bool isRunning();

  // Sends `signal`, waits up to `grace` for the process to end, then kills it (SIGKILL) and
  // reaps it. Does nothing when it has already ended.
  void stop(int signal = SIGTERM,
            std::chrono::milliseconds grace = std::chrono::milliseconds(5000));

  // Runs a shell command to completion and returns what it wrote (standard output and error
  // together). Throws std::runtime_error with the command and its output when it fails.
  static std::string run(const std::string& command);

 private:
  pid_t pid_ = -1;
};

}  // namespace RetraTest
