#include "retra/RetraBenchHost.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <utility>

#include "Orb/ActivityManager.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestDir.h"
#include "Retra/model/Response.h"
#include "Retra/model/ResponseDir.h"
#include "common/BenchPlan.h"
#include "retra/ResponseOutcome.h"

namespace RetraBench {
namespace {

// The loop runs in slices this long so that the time limit is looked at while all is quiet.
constexpr Orb::Seconds kSlice = 1.0;
// Beyond the requests' own limit, the host waits this long before it gives up.
constexpr double kGraceSeconds = 30;

// A started engine keeps itself alive on purpose; holding it until exit tells leak checkers
// that it is still in use.
void retainUntilExit(const Orb::Ptr<Retra::RetraSm>& engine) {
  static auto* engines = new std::vector<Orb::Ptr<Retra::RetraSm>>;
  engines->push_back(engine);
}

}  // namespace

RetraBenchHost::RetraBenchHost(const BenchOptions& options) : options_(options), tally_(options) {
  report_.program = options.program;
  report_.requests = options.count;
  report_.kept = options.keep;
}

RetraBenchHost::~RetraBenchHost() = default;

int RetraBenchHost::run() {
  start();
  writeRequests();
  loop();
  report_.seconds = lastFinish_ - firstWrite_;
  report_.failures = tally_.failures() + (options_.count - tally_.finished());
  report_.bytes = tally_.bytes();
  if (!options_.keep) stop();
  return finishRun(options_, tally_, report_);
}

void RetraBenchHost::start() {
  const double begin = monotonicSeconds();
  if (!options_.outputDir.empty()) std::filesystem::create_directories(options_.outputDir);
  root_ = Orb::allocate<Retra::Root>("retra");
  keys_.reserve(options_.count);
  index_.reserve(options_.count);
  finished_.resize(options_.count);
  finishWatch_ = Retra::FetchFinishWatch::FetchFinishWatchIs(
      root_->retraResponse(),
      [this](const Retra::Response& response) { handleFinished(response); });
  report_.startSeconds = monotonicSeconds() - begin;
}

void RetraBenchHost::writeRequests() {
  const Orb::Ptr<Retra::RequestDir> requests = root_->retraRequest();
  const Orb::Ptr<Retra::ResponseDir> responses = root_->retraResponse();
  firstWrite_ = monotonicSeconds();
  for (size_t i = 0; i < options_.count; ++i) {
    const Retra::RequestKey key(Retra::GET, Orb::String(requestUrl(options_, i)));
    keys_.push_back(key);
    index_.emplace(key, i);
    Retra::Request request(key);
    request.timeoutConnectIs(static_cast<uint16_t>(options_.timeoutSeconds));
    request.timeoutRequestIs(static_cast<uint16_t>(options_.timeoutSeconds));
    if (!options_.outputDir.empty()) request.outputPathIs(Orb::String(outputPath(options_, i)));
    // Taken in at once: the response exists when this returns, finished already if it failed.
    requests->requestIs(request);
    if (!responses->response(key)) {
      finished_[i] = true;
      finishedQueue_.push_back(Outcome{i, 0, false, "no response in the directory", 0, -1});
      ++finishedCount_;
      lastFinish_ = monotonicSeconds();
    }
  }
}

void RetraBenchHost::handleFinished(const Retra::Response& response) {
  const auto it = index_.find(response.requestKey());
  if (it == index_.end() || finished_[it->second]) return;  // a refresh, with --keep
  finished_[it->second] = true;
  finishedQueue_.push_back(responseOutcome(it->second, response));
  if (++finishedCount_ == options_.count) lastFinish_ = monotonicSeconds();
}

void RetraBenchHost::loop() {
  Orb::ActivityManager* manager = Orb::activityManager();
  const double giveUpAt = firstWrite_ + options_.timeoutSeconds + kGraceSeconds;
  takeFinished();
  while (!tally_.allFinished()) {
    (void)manager->runUntil([this] { return !finishedQueue_.empty(); }, kSlice);
    takeFinished();
    if (monotonicSeconds() > giveUpAt) {
      std::cerr << options_.program << ": " << options_.count - tally_.finished()
                << " requests did not finish in time\n";
      lastFinish_ = monotonicSeconds();
      break;
    }
  }
}

// Checks what finished since the last turn and, without --keep, withdraws the request. Done
// between turns, never inside a notification.
void RetraBenchHost::takeFinished() {
  const Orb::Ptr<Retra::RequestDir> requests = root_->retraRequest();
  // Both vectors keep their capacity from turn to turn.
  std::vector<Outcome>& finished = finishedTaken_;
  finished.clear();
  finished.swap(finishedQueue_);
  for (const Outcome& outcome : finished) {
    tally_.record(outcome);
    if (!options_.keep && outcome.index < keys_.size()) {
      (void)requests->requestDel(keys_[outcome.index]);
    }
  }
}

void RetraBenchHost::stop() {
  const double begin = monotonicSeconds();
  finishWatch_ = nullptr;
  if (Orb::Ptr<Retra::RetraSm> engine = root_->retraSm()) {
    engine->shutdown();
    retainUntilExit(engine);
  }
  root_ = nullptr;
  Orb::ActivityManager* manager = Orb::activityManager();
  (void)manager->runUntil([manager] { return manager->liveHandles() == 0; }, 2.0);
  report_.teardownSeconds = monotonicSeconds() - begin;
}

}  // namespace RetraBench
