// The engine's life cycle: construction, start, notification switch, stop and destruction.

#include "Retra/engine/RetraSm.h"

#include <curl/curl.h>

#include <cstdlib>
#include <limits>
#include <new>
#include <vector>

#include "Orb/Exception.h"
#include "Retra/engine/CurlBridge.h"
#include "Retra/engine/CurlGlobalData.h"
#include "Retra/engine/CurlSocketData.h"
#include "Retra/internal/LibTrace.h"
#include "Retra/request/CurlCallbackData.h"
#include "Retra/request/RequestSm.h"

namespace Retra {

Orb::Ptr<RetraSm> RetraSm::RetraSmIs(
    const Orb::Ptr<RequestDir>& requestDir, const Orb::Ptr<ResponseDir>& responseDir,
    const Orb::Ptr<Dnsr::ResolutionRequestDir>& resolutionRequestDir,
    const Orb::Ptr<Dnsr::ResolutionRecordDir>& resolutionRecordDir,
    const Orb::Ptr<Orb::Clock>& refreshClock, const Orb::Ptr<Orb::Clock>& timeoutClock) {
  Orb::Ptr<RetraSm> sm = Orb::allocate<RetraSm>(requestDir, responseDir, resolutionRequestDir,
                                                resolutionRecordDir, refreshClock, timeoutClock);
  if (!sm) Orb::throwRangeException("null ValidPtr");
  sm->hasNotificationActiveIs(true);
  return sm;
}

RetraSm::RetraSm(const Orb::Ptr<RequestDir>& requestDir, const Orb::Ptr<ResponseDir>& responseDir,
                 const Orb::Ptr<Dnsr::ResolutionRequestDir>& resolutionRequestDir,
                 const Orb::Ptr<Dnsr::ResolutionRecordDir>& resolutionRecordDir,
                 const Orb::Ptr<Orb::Clock>& refreshClock,
                 const Orb::Ptr<Orb::Clock>& timeoutClock) {
  if (!requestDir || !responseDir || !resolutionRequestDir || !resolutionRecordDir ||
      !refreshClock || !timeoutClock) {
    Orb::throwRangeException("null ValidPtr");
  }
  // Each reactor replays what it finds as it connects; requests wait for the start below.
  retraRequestIs(requestDir);
  retraResponseIs(responseDir);
  dnsrRecordIs(resolutionRecordDir);
  refreshClockIs(refreshClock);
  timeoutClockIs(timeoutClock);
  dnsrRequestIs(resolutionRequestDir);
  retraResponse_->onResponseImmediate();
  dnsrRecord_->onRecordImmediate();
  handleInitialized();
}

RetraSm::~RetraSm() {
  shutdown();
  // Reactors first, each cut off from the engine, so that no late callback reaches it.
  socketFdDelAll();
  socketDelAll();
  retraResponseReactorDelAll();
  dnsrRecordReactorDelAll();
  requestSmDelAll();
  if (retraRequest_) retraRequest_->engineIs(nullptr);
  if (retraResponse_) retraResponse_->engineIs(nullptr);
  if (dnsrRecord_) dnsrRecord_->engineIs(nullptr);
  if (refreshClock_) refreshClock_->engineIs(nullptr);
  if (timeoutClock_) timeoutClock_->engineIs(nullptr);
  retraRequest_ = nullptr;
  retraResponse_ = nullptr;
  dnsrRecord_ = nullptr;
  refreshClock_ = nullptr;
  timeoutClock_ = nullptr;
  dnsrRequest_ = nullptr;
  retraCurlDelAll();
  curlHandleDelAll();
  const std::vector<void*> records(liveCurlData_.begin(), liveCurlData_.end());
  for (void* record : records) curlDataFree(record);
  for (CurlSocketData* record : socketData_) {
    record->~CurlSocketData();
    std::free(record);
  }
}

void RetraSm::handleInitialized() {
  if (initialized_) return;
  RETRA_TRACE(2, "handleInitialized");
  refreshClock_->timeMinIs(std::numeric_limits<double>::infinity());

  CURLM* multi = curl_multi_init();
  if (!multi) {
    RETRA_TRACE(1, "Failed to initialize libcurl multi handle");
    return;
  }
  void* memory = std::calloc(1, sizeof(CurlGlobalData));
  if (!memory) {
    // The multi handle is not rolled back: a failed start is final.
    RETRA_TRACE(1, "Failed to alloc memory for curl global data");
    return;
  }
  auto* global = new (memory) CurlGlobalData();
  curlGlobalIs(global);

  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, 4L);
  curl_multi_setopt(multi, CURLMOPT_PIPELINING, 0L);
  curl_multi_setopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, 100L);
  // The record's reference to the engine is never given back: a started engine lives on.
  global->retraSm = this;
  curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, curlSockCb);
  curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, global);
  curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, curlTimerCallback);
  curl_multi_setopt(multi, CURLMOPT_TIMERDATA, global);

  curlMultiHandleIs(multi);
  initializedIs(true);

  RETRA_TRACE(3, "Handling requests waiting in the request directory");
  std::vector<RequestKey> waiting;
  for (const auto& [key, request] : retraRequest_->directory()->request()) waiting.push_back(key);
  for (const RequestKey& key : waiting) handleRequest(key);
}

void RetraSm::hasNotificationActiveIs(bool active) {
  if (active == hasNotificationActive_) return;
  hasNotificationActive_ = active;
  // Re-registering replays, as a new connection would.
  if (retraRequest_) retraRequest_->isRegisteredNotifieeIs(active);
  if (retraResponse_) retraResponse_->isRegisteredNotifieeIs(active);
  if (dnsrRecord_) dnsrRecord_->isRegisteredNotifieeIs(active);
  std::vector<Orb::Ptr<OrbRetraResponseReactor>> responseReactors;
  for (const auto& [key, reactor] : retraResponseReactor_) responseReactors.push_back(reactor);
  for (const auto& reactor : responseReactors) reactor->isRegisteredNotifieeIs(active);
  std::vector<Orb::Ptr<OrbDnsrRecordReactor>> recordReactors;
  for (const auto& [name, reactor] : dnsrRecordReactor_) recordReactors.push_back(reactor);
  for (const auto& reactor : recordReactors) reactor->isRegisteredNotifieeIs(active);
  if (refreshClock_) refreshClock_->isRegisteredNotifieeIs(active);
  if (timeoutClock_) timeoutClock_->isRegisteredNotifieeIs(active);
  std::vector<Orb::Ptr<OrbSocketFd>> socketReactors;
  for (const auto& [s, reactor] : socketFd_) socketReactors.push_back(reactor);
  for (const auto& reactor : socketReactors) reactor->isRegisteredNotifieeIs(active);
}

void RetraSm::shutdown() {
  if (!initialized_) return;
  RETRA_TRACE(2, "Shutting down Retra state machine");
  const Orb::Ptr<RequestDir> requests = retraRequest_->directory();
  std::vector<RequestKey> keys;
  for (const auto& [key, request] : requests->request()) keys.push_back(key);
  for (const RequestKey& key : keys) (void)requests->requestDel(key);

  // From a client's reactor inside a transfer callback, libcurl still runs on both records: they
  // go once it has returned.
  if (curlMultiHandle_) {
    whenOutOfCurl([multi = static_cast<CURLM*>(curlMultiHandle_)] { curl_multi_cleanup(multi); });
    curlMultiHandleIs(nullptr);
  }
  // The attribute keeps the freed record's address: nothing reads it any more.
  if (curlGlobal_) whenOutOfCurl([global = curlGlobal_] { std::free(global); });
  initializedIs(false);
}

const Orb::TypeNode* RetraSm::staticTypeNode() {
  static const auto* node = new Orb::TypeNode(
      "Retra::RetraSm", Orb::TypeNode::Kind::entity,
      ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, RETRA_RETRA_SM_ATTRIBUTES));
  return node;
}

}  // namespace Retra
