#pragma once

#include <sys/types.h>

#include <string>

namespace RetraBench {

// retrad started for one benchmark run: a process of its own, listening on a socket beside its
// request store in a fresh temporary directory, so that every run starts with an empty store.
// The constructor returns once the service accepts connections; `stop()` (or the destructor)
// ends it with SIGTERM and removes the directory.
//
//   BenchService service("build/bench-bundled/tools/retrad/retrad");
//   options.socketPath = service.socketPath();
//   long before = service.residentKib();
//   ...
//   double cpu = service.stop();
class BenchService {
 public:
  explicit BenchService(const std::string& program);
  ~BenchService();
  BenchService(const BenchService&) = delete;
  BenchService& operator=(const BenchService&) = delete;

  [[nodiscard]] const std::string& socketPath() const noexcept { return socket_; }
  // The service's resident set now (VmRSS of /proc/PID/status); -1 when it cannot be read.
  [[nodiscard]] long residentKib() const;
  // Stops the service and waits for it; returns its CPU time (user + system) in seconds. The
  // service's output goes to stderr when it did not exit cleanly.
  double stop();

 private:
  [[nodiscard]] std::string log() const;

  std::string dir_;
  std::string socket_;
  pid_t pid_ = -1;
};

}  // namespace RetraBench
