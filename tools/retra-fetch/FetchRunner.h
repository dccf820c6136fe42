#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <ostream>
#include <unordered_map>
#include <vector>

#include "Orb/Ptr.h"
#include "Orb/Seconds.h"
#include "Retra/engine/ParkedResponseRecovery.h"
#include "Retra/engine/Root.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"
#include "Retra/model/ResponseDir.h"
#include "retra-fetch/FetchOptions.h"
#include "retra-fetch/FetchReport.h"

namespace RetraFetch {

// The host program behind retra-fetch: it brings the library up (`Retra::Root`), writes one
// `Retra::Request` per URL, runs the activity loop until every request has finished (or, when
// watching, until each has been fetched --count times, or for ever), stops the engine
// (`RetraSm::shutdown()`) and returns the exit status.
//
// Output: bodies go to `out` in the order of the URLs (as each one's turn comes), or to files;
// with --json `out` receives one JSON line per fetch instead. `err` receives a summary line
// per fetch as it finishes, the --stats table, and, when `terminal` says `err` is a terminal, a
// progress line redrawn in place while transfers run.
//
//   RetraFetch::FetchRunner runner(line.options, std::cout, std::cerr, isatty(2));
//   return runner.run();
//
// Reports are taken from a response the moment it reaches stateFinished, because a refresh may
// reset it before the loop turn ends. The runner's observers join the response directory after
// the engine's, so they see a finished response after the engine has stamped its times.
class FetchRunner {
 public:
  FetchRunner(FetchOptions options, std::ostream& out, std::ostream& err, bool terminal);
  ~FetchRunner();
  FetchRunner(const FetchRunner&) = delete;
  FetchRunner& operator=(const FetchRunner&) = delete;

  // Runs everything once; see ExitCode.h for the result. Throws std::runtime_error when the
  // output directory cannot be made.
  [[nodiscard]] int run();

 private:
  class DirectoryWatch;
  class ResponseWatch;

  // One URL: its request, the observer of its response and what has been reported so far.
  struct Slot {
    Retra::RequestKey key;
    Orb::Ptr<ResponseWatch> watch;
    StatsSnapshot before;  // counter and timer values after the last reported fetch
    unsigned fetches = 0;
    uint64_t bytesReported = 0;
    bool done = false;
    bool unfinished = false;  // gave up waiting for it
    Retra::Error firstError = Retra::errNone;
    std::optional<FetchReport> pendingBody;  // first report, waiting for its turn on `out`
  };

  void start();
  void loop();
  void stop();

  // From the observers.
  void handleResponse(const Retra::RequestKey& key);
  void handleFinished(size_t index, const Retra::Response& response);

  // How long the resolver's latest look-up of the response's host took; 0 for an address.
  [[nodiscard]] double resolveSecondsOf(const Retra::Response& response) const;
  void flushReports();
  void writeBody(const FetchReport& report);
  void drawProgress(bool force);
  void clearProgress();
  void giveUpIfLate();
  [[nodiscard]] bool allDone() const;
  [[nodiscard]] uint64_t bytesReceived() const;
  [[nodiscard]] int exitStatus() const;

  FetchOptions options_;
  std::ostream& out_;
  std::ostream& err_;
  bool showProgress_;
  Orb::Ptr<Retra::Root> root_;
  // Restarts responses a change of their host's addresses left parked (in watch mode a DNS
  // outage would otherwise stop their refreshes).
  Orb::Ptr<Retra::ParkedResponseRecovery> recovery_;
  Orb::Ptr<DirectoryWatch> directoryWatch_;
  std::vector<Slot> slots_;
  std::unordered_map<Retra::RequestKey, size_t> index_;
  std::deque<FetchReport> reports_;  // finished, not yet written
  size_t nextBody_ = 0;
  std::optional<int> firstFailureSeen_;  // when watching: the first failed fetch in time
  std::optional<Orb::Seconds> giveUpAfter_;
  std::chrono::steady_clock::time_point started_;
  std::chrono::steady_clock::time_point progressDrawn_;
  bool progressShown_ = false;
};

}  // namespace RetraFetch
