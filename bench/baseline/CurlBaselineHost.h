#pragma once

#include <curl/curl.h>
#include <uv.h>

#include <cstdio>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "common/BenchOptions.h"
#include "common/BenchReport.h"
#include "common/BenchTally.h"

namespace RetraBench {

// The same job as retra-bench done by a plain libcurl program: libcurl's multi socket interface
// driven by a libuv loop (one uv_poll per socket libcurl asks about, one uv_timer for libcurl's
// timer), with the multi options and the easy options the library sets, in the same order and
// with the same values. Each body grows in a std::string (amortised appends) or goes to a file
// through stdio, as the library's does. With --window it keeps at most that many easy handles
// in the multi handle and adds the next as one finishes (every request is still configured at
// once), which shows what libcurl's own per-handle costs are at large counts.
//
//   RetraBench::CurlBaselineHost host(options);
//   return host.run();   // 0 when every transfer passed
//
// Without --keep a finished transfer's body is freed at once and everything is cleaned up at
// the end; with --keep every body stays until the process exits, and `run()` exits the process
// after printing.
//
// Ownership: the host owns its transfers (each with its easy handle until it finishes), its
// socket watches (freed in their close callbacks) and the loop.
class CurlBaselineHost {
 public:
  explicit CurlBaselineHost(const BenchOptions& options);
  ~CurlBaselineHost();
  CurlBaselineHost(const CurlBaselineHost&) = delete;
  CurlBaselineHost& operator=(const CurlBaselineHost&) = delete;

  // Runs the whole job; returns the exit status (0 all passed, 1 otherwise). With --keep it
  // exits the process instead of returning.
  [[nodiscard]] int run();

 private:
  struct Transfer {
    CurlBaselineHost* host = nullptr;
    size_t index = 0;
    CURL* easy = nullptr;
    std::string body;
    FILE* file = nullptr;
    bool writeFailed = false;
  };
  struct SocketWatch {
    uv_poll_t poll;
    curl_socket_t fd;
    CurlBaselineHost* host;
  };

  static int onSocket(CURL* easy, curl_socket_t fd, int what, void* hostPtr, void* watchPtr);
  static int onTimer(CURLM* multi, long timeoutMs, void* hostPtr);
  static void onPoll(uv_poll_t* poll, int status, int events);
  static void onTimeout(uv_timer_t* timer);
  static void onGiveUp(uv_timer_t* timer);
  static void onWatchClosed(uv_handle_t* handle);
  static size_t onHeader(char* data, size_t size, size_t count, void* transferPtr);
  static size_t onBody(char* data, size_t size, size_t count, void* transferPtr);

  void start();
  void writeRequests();
  void addWaiting();
  void configure(Transfer& transfer, const std::string& url);
  [[nodiscard]] curl_slist* pinnedAddresses(const std::string& url);
  void readInfo();
  void stop();

  const BenchOptions& options_;
  BenchTally tally_;
  BenchReport report_;
  uv_loop_t loop_{};
  uv_timer_t timer_{};
  uv_timer_t giveUp_{};
  CURLM* multi_ = nullptr;
  std::vector<Transfer> transfers_;
  std::unordered_set<SocketWatch*> watches_;
  std::unordered_map<std::string, curl_slist*> pinned_;  // "host:port" -> CURLOPT_RESOLVE list
  size_t running_ = 0;                                   // transfers not finished yet
  size_t inMulti_ = 0;                                   // of those, the ones in the multi handle
  size_t nextToAdd_ = 0;  // the first transfer not yet handed to the multi handle
  double firstWrite_ = 0;
  double lastFinish_ = 0;
  bool gaveUp_ = false;
};

}  // namespace RetraBench
