#pragma once

#include <unordered_map>
#include <vector>

#include "Orb/Ptr.h"
#include "Retra/engine/Root.h"
#include "Retra/model/FetchFinishWatch.h"
#include "Retra/model/RequestKey.h"
#include "common/BenchOptions.h"
#include "common/BenchReport.h"
#include "common/BenchTally.h"

namespace RetraBench {

// The benchmark's host over the public library API. It brings the library up (`Retra::Root`),
// writes all requests into the request directory at once, runs the activity loop until every
// response has finished once, checks each one, and prints the JSON line.
//
//   RetraBench::RetraBenchHost host(options);
//   return host.run();   // 0 when every response passed
//
// Without --keep a host that is done with a response withdraws its request (the library then
// drops the response), and the library is taken down at the end. With --keep nothing is
// withdrawn: every response stays in the response directory until the process exits, and
// `run()` leaves the process at once after printing (the process's exit frees everything).
//
// Responses are observed through one `Retra::FetchFinishWatch`; each response's figures are
// taken in its first finish notification itself, because a refresh could reset the response
// before the loop turn ends.
class RetraBenchHost {
 public:
  explicit RetraBenchHost(const BenchOptions& options);
  ~RetraBenchHost();
  RetraBenchHost(const RetraBenchHost&) = delete;
  RetraBenchHost& operator=(const RetraBenchHost&) = delete;

  // Runs the whole job; returns the exit status (0 all passed, 1 otherwise). With --keep it
  // does not return on success or failure: it exits the process.
  [[nodiscard]] int run();

 private:
  void start();
  void writeRequests();
  void loop();
  void takeFinished();
  void stop();
  void handleFinished(const Retra::Response& response);

  const BenchOptions& options_;
  BenchTally tally_;
  BenchReport report_;
  Orb::Ptr<Retra::Root> root_;
  std::vector<Retra::RequestKey> keys_;
  std::unordered_map<Retra::RequestKey, size_t> index_;
  std::vector<bool> finished_;  // by index: counted already
  Orb::Ptr<Retra::FetchFinishWatch> finishWatch_;
  std::vector<Outcome> finishedQueue_;  // finished, not yet checked
  std::vector<Outcome> finishedTaken_;  // being checked
  size_t finishedCount_ = 0;
  double firstWrite_ = 0;
  double lastFinish_ = 0;
};

}  // namespace RetraBench
