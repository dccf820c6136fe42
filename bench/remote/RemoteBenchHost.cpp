#include "remote/RemoteBenchHost.h"

#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "Orb/ActivityManager.h"
#include "Retra/model/FetchFinishWatch.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestDir.h"
#include "Retra/model/Response.h"
#include "Retra/model/ResponseDir.h"
#include "common/BenchPlan.h"
#include "retra/ResponseOutcome.h"

namespace RetraBench {
namespace {

constexpr Orb::Seconds kSlice = 1.0;
constexpr double kGraceSeconds = 30;
constexpr Orb::Seconds kConnectLimit = 10.0;

}  // namespace

RemoteBenchHost::RemoteBenchHost(const BenchOptions& options) : options_(options), tally_(options) {
  report_.program = options.program;
  report_.requests = options.count;
  report_.kept = options.keep;
}

RemoteBenchHost::~RemoteBenchHost() = default;

int RemoteBenchHost::run() {
  start();
  writeRequests();
  loop();
  report_.seconds = lastFinish_ - firstWrite_;
  report_.failures = tally_.failures() + (options_.count - tally_.finished());
  report_.bytes = tally_.bytes();
  report_.serviceRssGrowthKib = service_->residentKib() - serviceKibBefore_;
  stop();
  return finishRun(options_, tally_, report_);
}

void RemoteBenchHost::start() {
  const double begin = monotonicSeconds();
  if (!options_.outputDir.empty()) std::filesystem::create_directories(options_.outputDir);
  service_ = std::make_unique<BenchService>(options_.retrad);
  Retra::RemoteRoot::Options remote;
  remote.socketPath = service_->socketPath();
  remote.clientName = options_.program;
  remote.reconnect = false;
  root_ = Orb::allocate<Retra::RemoteRoot>("retra", remote);
  root_->writeHandlerIs(
      [this](const Retra::RequestKey& key, Retra::Wire::ReplyCode code, const std::string& text) {
        if (code == Retra::Wire::ReplyCode::ok) return;
        const auto it = indexOf_.find(key);
        tally_.record(Outcome{it == indexOf_.end() ? options_.count : it->second, 0, false,
                              "refused by the service: " + text, 0, -1});
        if (++finishedCount_ == options_.count) lastFinish_ = monotonicSeconds();
      });
  finishWatch_ = Retra::FetchFinishWatch::FetchFinishWatchIs(
      root_->retraResponse(),
      [this](const Retra::Response& response) { handleFinished(response); });
  (void)Orb::activityManager()->runUntil(
      [this] { return root_->synced() || !root_->connectError().empty(); }, kConnectLimit);
  if (!root_->synced()) {
    throw std::runtime_error("no connection to the service: " + root_->connectError().str());
  }
  keys_.reserve(options_.count);
  finished_.assign(options_.count, false);
  report_.startSeconds = monotonicSeconds() - begin;
}

void RemoteBenchHost::writeRequests() {
  const Orb::Ptr<Retra::RequestDir> requests = root_->retraRequest();
  serviceKibBefore_ = service_->residentKib();
  firstWrite_ = monotonicSeconds();
  for (size_t i = 0; i < options_.count; ++i) {
    const Retra::RequestKey key(Retra::GET, Orb::String(requestUrl(options_, i)));
    keys_.push_back(key);
    indexOf_.insert_or_assign(key, i);
    Retra::Request request(key);
    request.timeoutConnectIs(static_cast<uint16_t>(options_.timeoutSeconds));
    request.timeoutRequestIs(static_cast<uint16_t>(options_.timeoutSeconds));
    if (!options_.outputDir.empty()) request.outputPathIs(Orb::String(outputPath(options_, i)));
    requests->requestIs(request);  // sent at once; the response comes with its snapshot
  }
}

void RemoteBenchHost::handleFinished(const Retra::Response& response) {
  const auto it = indexOf_.find(response.requestKey());
  if (it == indexOf_.end() || finished_[it->second]) return;
  finished_[it->second] = true;
  finishedQueue_.push_back(it->second);
  if (++finishedCount_ == options_.count) lastFinish_ = monotonicSeconds();
}

void RemoteBenchHost::loop() {
  Orb::ActivityManager* manager = Orb::activityManager();
  const double giveUpAt = firstWrite_ + options_.timeoutSeconds + kGraceSeconds;
  while (!tally_.allFinished()) {
    (void)manager->runUntil(
        [this] { return !finishedQueue_.empty() || !root_->connectError().empty(); }, kSlice);
    takeFinished();
    const bool lost = !root_->connectError().empty();
    if (lost || monotonicSeconds() > giveUpAt) {
      std::cerr << options_.program << ": " << options_.count - tally_.finished()
                << " requests did not finish"
                << (lost ? ": " + root_->connectError().str() : std::string(" in time")) << "\n";
      lastFinish_ = monotonicSeconds();
      break;
    }
  }
}

// Checks what finished since the last turn from the mirror.
void RemoteBenchHost::takeFinished() {
  const Orb::Ptr<Retra::ResponseDir> responses = root_->retraResponse();
  finishedTaken_.clear();
  finishedTaken_.swap(finishedQueue_);
  for (size_t index : finishedTaken_) {
    if (const Orb::Ptr<Retra::Response> response = responses->response(keys_[index])) {
      tally_.record(responseOutcome(index, *response));
    } else {
      tally_.record(Outcome{index, 0, false, "gone from the mirror", 0, -1});
    }
  }
}

void RemoteBenchHost::stop() {
  const double begin = monotonicSeconds();
  finishWatch_ = nullptr;
  root_->close();
  root_ = nullptr;
  Orb::ActivityManager* manager = Orb::activityManager();
  (void)manager->runUntil([manager] { return manager->liveHandles() == 0; }, 2.0);
  report_.serviceCpuSeconds = service_->stop();
  report_.teardownSeconds = monotonicSeconds() - begin;
}

}  // namespace RetraBench
