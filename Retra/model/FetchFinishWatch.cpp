#include "Retra/model/FetchFinishWatch.h"

#include <utility>
#include <vector>

#include "Orb/Exception.h"

namespace Retra {

namespace {

// Whether `response` holds a finished fetch: the engine stamps `lastUpdateTime` when a fetch
// ends. A fetch cut short, its request withdrawn or replaced, turns `stateFinished` unstamped.
bool fetchFinished(const Response& response) {
  return response.finished() && response.lastUpdateTime() > 0;
}

}  // namespace

// Follows one response and passes each turn to `stateFinished` on to the watch.
class FetchFinishWatch::ResponseReactor : public Response::NotifieeConst {
 public:
  explicit ResponseReactor(FetchFinishWatch* watch) : watch_(watch) {}
  void released() { watch_ = nullptr; }

  void onRequestState() override {
    const Response* response = notifierPtr();
    if (!watch_ || isTearingDown() || !response || !fetchFinished(*response)) return;
    Orb::Ptr<ResponseReactor> hold(this);  // the handler may delete the response
    watch_->handleFinished(*response);
  }

 private:
  FetchFinishWatch* watch_;
};

Orb::Ptr<FetchFinishWatch> FetchFinishWatch::FetchFinishWatchIs(const Orb::Ptr<ResponseDir>& dir,
                                                                FinishHandler onFinish) {
  if (!dir) Orb::throwRangeException("null ValidPtr");
  Orb::Ptr<FetchFinishWatch> watch = Orb::allocate<FetchFinishWatch>(std::move(onFinish));
  watch->notifierIs(dir);  // replays the responses already there
  return watch;
}

FetchFinishWatch::FetchFinishWatch(FinishHandler onFinish) : onFinish_(std::move(onFinish)) {}

FetchFinishWatch::~FetchFinishWatch() {
  for (auto& [key, reactor] : reactors_) {
    reactor->released();
    reactor->notifierIs(static_cast<const Response*>(nullptr));
  }
}

void FetchFinishWatch::onResponse(const RequestKey& key) {
  const ResponseDir* dir = notifierPtr();
  Orb::Ptr<Response> response;
  if (dir) response = dir->response(key);
  auto it = reactors_.find(key);
  if (it != reactors_.end() && it->second->notifierPtr() == response.ptr()) return;
  if (it != reactors_.end()) {
    it->second->released();
    it->second->notifierIs(static_cast<const Response*>(nullptr));
    reactors_.erase(it);
  }
  if (!response) return;
  auto reactor = Orb::allocate<ResponseReactor>(this);
  reactor->notifierIs(response);
  reactors_.emplace(key, reactor);
  if (fetchFinished(*response)) handleFinished(*response);
}

void FetchFinishWatch::onNotifierConnected() {
  const ResponseDir* dir = notifierPtr();
  std::vector<RequestKey> keys;
  for (const auto& [key, reactor] : reactors_) keys.push_back(key);
  if (dir) {
    for (const auto& [key, response] : dir->response()) keys.push_back(key);
  }
  // Each key brings its reactor in line with the directory, reporting the finished ones found.
  Orb::Ptr<FetchFinishWatch> hold(this);
  for (const RequestKey& key : keys) onResponse(key);
}

void FetchFinishWatch::handleFinished(const Response& response) {
  Orb::Ptr<FetchFinishWatch> hold(this);  // the handler may drop the watch
  onFinish_(response);
}

}  // namespace Retra
