#pragma once

#include <memory>
#include <vector>

#include "Orb/HashMap.h"
#include "Orb/Ptr.h"
#include "Retra/model/FetchFinishWatch.h"
#include "Retra/model/RequestKey.h"
#include "Retra/remote/RemoteRoot.h"
#include "common/BenchOptions.h"
#include "common/BenchReport.h"
#include "common/BenchTally.h"
#include "remote/BenchService.h"

namespace RetraBench {

// The benchmark's host over the service: it starts a retrad of its own (BenchService), connects
// to it with the client library (`Retra::RemoteRoot`, watching every response of its uid),
// writes all requests at once, runs the activity loop until the mirror shows every response
// finished, checks each one from the mirror, and prints the JSON line with the service's figures
// added: its resident memory growth from before the first write to the last finish, and its CPU
// time.
//
//   RetraBench::RemoteBenchHost host(options);   // options.retrad: the service program
//   return host.run();                           // 0 when every response passed
//
// Requests are never withdrawn: they stay stored in the service, which is what its memory growth
// is measured with. --keep changes nothing else.
class RemoteBenchHost {
 public:
  explicit RemoteBenchHost(const BenchOptions& options);
  ~RemoteBenchHost();
  RemoteBenchHost(const RemoteBenchHost&) = delete;
  RemoteBenchHost& operator=(const RemoteBenchHost&) = delete;

  // Runs the whole job; returns the exit status (0 all passed, 1 otherwise).
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
  std::unique_ptr<BenchService> service_;
  Orb::Ptr<Retra::RemoteRoot> root_;
  Orb::Ptr<Retra::FetchFinishWatch> finishWatch_;
  std::vector<Retra::RequestKey> keys_;
  Orb::HashMap<Retra::RequestKey, size_t> indexOf_;
  std::vector<bool> finished_;         // by index, once its fetch finished
  std::vector<size_t> finishedQueue_;  // finished on the mirror, not yet checked
  std::vector<size_t> finishedTaken_;  // being checked
  size_t finishedCount_ = 0;
  long serviceKibBefore_ = 0;
  double firstWrite_ = 0;
  double lastFinish_ = 0;
};

}  // namespace RetraBench
