#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Retra/remote/WireMessage.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace ServiceTest {

// A retrad process on a socket and a request store in a temporary directory, started by the
// test and stopped (or killed) by it. The constructor returns once the service answers.
class ServiceProcess {
 public:
  explicit ServiceProcess(std::vector<std::string> extraArgs = {});
  ~ServiceProcess();

  [[nodiscard]] const std::string& socketPath() const { return socket_; }
  [[nodiscard]] std::string log() const;
  [[nodiscard]] pid_t pid() const { return process_->pid(); }
  [[nodiscard]] bool isRunning() const { return process_->isRunning(); }
  // kill -9, then a new process on the same socket and store.
  void killAndRestart();
  // Bytes the service has written so far (its sockets and files), from /proc.
  [[nodiscard]] uint64_t bytesWritten() const;

 private:
  void start();

  RetraTest::TempDir dir_;
  std::string socket_;
  std::vector<std::string> args_;
  std::unique_ptr<RetraTest::ChildProcess> process_;
  int starts_ = 0;
};

// A client that speaks the protocol by hand over a blocking socket, for what the client library
// never sends: bad frames, clients of other uids, many connections.
class RawClient {
 public:
  explicit RawClient(const std::string& socketPath);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  void sendFrame(std::string_view payload);
  void sendBytes(std::string_view bytes);
  // The next message, or nothing when the service closed the connection or `seconds` passed.
  std::optional<Retra::Wire::Message> next(double seconds = 10);
  // The next reply, skipping other messages (listings are gathered into `listing`).
  std::optional<Retra::Wire::Message> nextReply(double seconds = 10);
  // hello, then the welcome's uid (or nothing when refused).
  std::optional<uint32_t> handshake();
  [[nodiscard]] int descriptor() const { return fd_; }

 private:
  int fd_ = -1;
  std::string buffer_;
  std::string frame_;

 public:
  std::vector<Retra::Wire::ListedRequest> listing;
};

}  // namespace ServiceTest
