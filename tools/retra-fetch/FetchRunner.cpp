#include "retra-fetch/FetchRunner.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "Dnsr/ResolutionRecordDir.h"
#include "Orb/ActivityManager.h"
#include "Orb/Trace.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/model/RequestDir.h"
#include "retra-fetch/ExitCode.h"
#include "retra-fetch/FetchOutput.h"
#include "retra-fetch/ResponseJson.h"

namespace RetraFetch {
namespace {

// Loop turns run in slices this long, so the progress line and the time limit are looked at
// while transfers are quiet.
constexpr Orb::Seconds kSlice = 0.1;
constexpr auto kProgressInterval = std::chrono::milliseconds(100);
// Beyond its own time-outs a request gets this long (name resolution, scheduling) before the
// tool stops waiting for it.
constexpr Orb::Seconds kGraceSeconds = 30;

// A started engine keeps itself alive on purpose and is never destroyed; keeping a pointer to
// it until the process exits tells leak checkers that it is still in use.
void retainUntilExit(const Orb::Ptr<Retra::RetraSm>& engine) {
  static auto* engines = new std::vector<Orb::Ptr<Retra::RetraSm>>;
  engines->push_back(engine);
}

uint64_t fileSize(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

}  // namespace

// Hears of responses as they appear in the response directory.
class FetchRunner::DirectoryWatch : public Retra::ResponseDir::NotifieeConst {
 public:
  explicit DirectoryWatch(FetchRunner* runner) : runner_(runner) {}
  void onResponse(const Retra::RequestKey& key) override { runner_->handleResponse(key); }

 private:
  FetchRunner* runner_;
};

// Hears of one response reaching stateFinished.
class FetchRunner::ResponseWatch : public Retra::Response::NotifieeConst {
 public:
  ResponseWatch(FetchRunner* runner, size_t index) : runner_(runner), index_(index) {}
  void onRequestState() override {
    const Retra::Response* response = notifierPtr();
    if (response && response->finished()) runner_->handleFinished(index_, *response);
  }

 private:
  FetchRunner* runner_;
  size_t index_;
};

FetchRunner::FetchRunner(FetchOptions options, std::ostream& out, std::ostream& err, bool terminal)
    : options_(std::move(options)),
      out_(out),
      err_(err),
      showProgress_(terminal && !options_.silent && !options_.verbose) {}

FetchRunner::~FetchRunner() = default;

int FetchRunner::run() {
  start();
  loop();
  stop();
  return exitStatus();
}

void FetchRunner::start() {
  if (!options_.outputDir.empty()) {
    std::error_code error;
    std::filesystem::create_directories(options_.outputDir, error);
    if (error) {
      throw std::runtime_error("--output-dir: cannot make '" + options_.outputDir +
                               "': " + error.message());
    }
  }
  // The resolver reads its servers when the root builds it.
  if (options_.dnsServers) ::setenv("DNSR_SERVERS", options_.dnsServers->c_str(), 1);
  if (options_.verbose) {
    std::string traces = "RetraLib/0-5";
    if (const char* more = std::getenv("ORB_TRACE"); more && *more)
      traces += std::string(",") + more;
    Orb::TraceHandle::configurationIs(traces);
  }

  root_ = Orb::allocate<Retra::Root>("retra");
  recovery_ = Retra::ParkedResponseRecovery::ParkedResponseRecoveryIs(root_->retraSm());
  directoryWatch_ = Orb::allocate<DirectoryWatch>(this);
  directoryWatch_->notifierIs(root_->retraResponse());

  const std::vector<Retra::Request> requests = requestsFor(options_);
  slots_.resize(requests.size());
  Orb::Seconds longest = 0;
  bool unlimited = false;
  for (size_t i = 0; i < requests.size(); ++i) {
    slots_[i].key = requests[i].requestKey();
    index_.emplace(slots_[i].key, i);
    const Orb::Seconds limit = std::max(requests[i].timeoutConnect(), requests[i].timeoutRequest());
    unlimited = unlimited || limit == 0;
    longest = std::max(longest, limit);
  }
  if (!options_.watch && !unlimited) giveUpAfter_ = longest + kGraceSeconds;
  started_ = std::chrono::steady_clock::now();
  progressDrawn_ = started_;
  // Each request is taken in at once; a response that fails there is finished already.
  for (const Retra::Request& request : requests) root_->retraRequest()->requestIs(request);
}

void FetchRunner::loop() {
  Orb::ActivityManager* manager = Orb::activityManager();
  while (!allDone()) {
    (void)manager->runUntil([this] { return !reports_.empty() || allDone(); }, kSlice);
    flushReports();
    if (allDone()) break;
    drawProgress(false);
    giveUpIfLate();
  }
  flushReports();
  clearProgress();
}

void FetchRunner::stop() {
  for (Slot& slot : slots_) {
    if (slot.watch) slot.watch->notifierIs(static_cast<const Retra::Response*>(nullptr));
  }
  directoryWatch_->notifierIs(static_cast<const Retra::ResponseDir*>(nullptr));
  if (Orb::Ptr<Retra::RetraSm> engine = root_->retraSm()) {
    engine->shutdown();
    retainUntilExit(engine);
  }
  recovery_ = nullptr;
  root_ = nullptr;
  Orb::ActivityManager* manager = Orb::activityManager();
  (void)manager->runUntil([manager] { return manager->liveHandles() == 0; }, 2.0);
}

void FetchRunner::handleResponse(const Retra::RequestKey& key) {
  auto it = index_.find(key);
  if (it == index_.end()) return;
  Slot& slot = slots_[it->second];
  Orb::Ptr<Retra::Response> response = root_->retraResponse()->response(key);
  if (!response) {
    slot.watch = nullptr;
    return;
  }
  if (slot.watch && slot.watch->notifierPtr() == response.ptr()) return;
  slot.watch = Orb::allocate<ResponseWatch>(this, it->second);
  slot.watch->notifierIs(response);
}

void FetchRunner::handleFinished(size_t index, const Retra::Response& response) {
  Slot& slot = slots_[index];
  ++slot.fetches;
  const bool wanted =
      options_.watch ? !options_.count || slot.fetches <= *options_.count : slot.fetches == 1;
  if (!wanted) return;
  FetchReport report = reportOf(response, slot.before, resolveSecondsOf(response));
  report.index = index;
  report.fetch = slot.fetches;
  if (options_.json) {
    nlohmann::ordered_json object = responseJson(response);
    object["timer"]["resolve"] = report.resolveSeconds;
    report.json = jsonLine(object);
  }
  slot.before = snapshotOf(response);
  slot.bytesReported += report.bytes;
  if (slot.fetches == 1) slot.firstError = report.error;
  if (!options_.watch || (options_.count && slot.fetches >= *options_.count)) slot.done = true;
  reports_.push_back(std::move(report));
}

double FetchRunner::resolveSecondsOf(const Retra::Response& response) const {
  // An address needs no look-up: its host stays empty.
  if (response.host().empty() || !root_->dnsrRecord()) return 0;
  const Orb::Ptr<const Dnsr::ResolutionRecord> record =
      std::as_const(*root_->dnsrRecord()).record(Orb::Name(response.host()));
  return record ? record->lastLookupDuration() : 0;
}

void FetchRunner::flushReports() {
  while (!reports_.empty()) {
    FetchReport report = std::move(reports_.front());
    reports_.pop_front();
    clearProgress();
    if (report.error != Retra::errNone && !firstFailureSeen_) {
      firstFailureSeen_ = exitCodeFor(report.error);
    }
    if (options_.json) {
      out_ << report.json << std::flush;
    } else if (options_.watch) {
      writeBody(report);
    } else {
      slots_[report.index].pendingBody = report;
    }
    if (!options_.silent) {
      err_ << summaryLine(report);
      if (options_.stats) err_ << statsTable(report);
      err_ << std::flush;
    }
  }
  // Without watching, bodies follow the order of the URLs; one given up on has none.
  while (nextBody_ < slots_.size() &&
         (slots_[nextBody_].pendingBody || slots_[nextBody_].unfinished)) {
    Slot& slot = slots_[nextBody_++];
    if (slot.pendingBody) writeBody(*slot.pendingBody);
    slot.pendingBody.reset();
  }
}

void FetchRunner::writeBody(const FetchReport& report) {
  if (!report.outputPath.empty()) return;
  if (options_.include) out_ << headerBlock(report);
  out_ << report.body << std::flush;
}

void FetchRunner::drawProgress(bool force) {
  if (!showProgress_) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && now - progressDrawn_ < kProgressInterval) return;
  progressDrawn_ = now;
  const size_t done = static_cast<size_t>(std::count_if(
      slots_.begin(), slots_.end(), [](const Slot& slot) { return slot.fetches > 0; }));
  err_ << "\r" << progressLine(done, slots_.size(), bytesReceived()) << "\x1b[K" << std::flush;
  progressShown_ = true;
}

void FetchRunner::clearProgress() {
  if (!progressShown_) return;
  err_ << "\r\x1b[K" << std::flush;
  progressShown_ = false;
}

void FetchRunner::giveUpIfLate() {
  if (!giveUpAfter_) return;
  const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - started_;
  if (waited.count() <= *giveUpAfter_) return;
  clearProgress();
  for (Slot& slot : slots_) {
    if (slot.done) continue;
    slot.done = true;
    slot.unfinished = true;
    if (!options_.silent) {
      err_ << Retra::stringValue(slot.key.method()) << " " << slot.key.uri()
           << " -> did not finish within " << *giveUpAfter_ << " s\n";
    }
  }
  err_ << std::flush;
  flushReports();
}

bool FetchRunner::allDone() const {
  return std::all_of(slots_.begin(), slots_.end(), [](const Slot& slot) { return slot.done; });
}

uint64_t FetchRunner::bytesReceived() const {
  uint64_t bytes = 0;
  for (const Slot& slot : slots_) {
    bytes += slot.bytesReported;
    const Retra::Response* response = slot.watch ? slot.watch->notifierPtr() : nullptr;
    if (!response || response->finished()) continue;
    bytes += response->outputPath().empty() ? response->body().size()
                                            : fileSize(response->outputPath().str());
  }
  return bytes;
}

int FetchRunner::exitStatus() const {
  if (options_.watch) return firstFailureSeen_.value_or(exitOk);
  for (const Slot& slot : slots_) {
    if (slot.unfinished) return exitUnfinished;
    if (slot.firstError != Retra::errNone) return exitCodeFor(slot.firstError);
  }
  return exitOk;
}

}  // namespace RetraFetch
