#pragma once

#include <functional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Dnsr/ResolutionRecord.h"
#include "Dnsr/ResolutionRecordDir.h"
#include "Dnsr/ResolutionRequestDir.h"
#include "Orb/Attribute.h"
#include "Orb/Clock.h"
#include "Orb/FileDescriptor.h"
#include "Orb/HashMap.h"
#include "Orb/Name.h"
#include "Orb/Notifiee.h"
#include "Orb/NotifieeList.h"
#include "Orb/Ptr.h"
#include "Orb/PtrInterface.h"
#include "Orb/String.h"
#include "Orb/TypeNode.h"
#include "Retra/model/RequestDir.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"
#include "Retra/model/ResponseDir.h"
#include "Retra/request/RequestSm.h"

// The attributes of `RetraSm`, in declaration order (numbered from 258), then its operations of
// the generic interface.
#define RETRA_RETRA_SM_ATTRIBUTES(X)                                                              \
  X(HELD, retraRequest, Orb::Ptr<OrbRetraRequest>, onRetraRequest)                                \
  X(HELD, retraResponse, Orb::Ptr<OrbRetraResponse>, onRetraResponse)                             \
  X(COLLECTION, retraCurl, RequestKey, void*, retraCurlIs, retraCurlDel, retraCurlDelAll,         \
    onRetraCurl, onRetraCurlImmediate)                                                            \
  X(DIRECTORY, requestSm, RequestKey, Orb::Ptr<RequestSm>, onRequestSm, onRequestSmImmediate)     \
  X(HELD, dnsrRequest, Orb::Ptr<Dnsr::ResolutionRequestDir>, onDnsrRequest)                       \
  X(HELD, dnsrRecord, Orb::Ptr<OrbDnsrRecord>, onDnsrRecord)                                      \
  X(DIRECTORY, retraResponseReactor, RequestKey, Orb::Ptr<OrbRetraResponseReactor>,               \
    onRetraResponseReactor, onRetraResponseReactorImmediate)                                      \
  X(DIRECTORY, dnsrRecordReactor, Orb::Name, Orb::Ptr<OrbDnsrRecordReactor>, onDnsrRecordReactor, \
    onDnsrRecordReactorImmediate)                                                                 \
  X(HELD, refreshClock, Orb::Ptr<OrbRefreshClock>, onRefreshClock)                                \
  X(HELD, timeoutClock, Orb::Ptr<OrbTimeoutClock>, onTimeoutClock)                                \
  X(DIRECTORY, socket, int, Orb::Ptr<Orb::FileDescriptor>, onSocket, onSocketImmediate)           \
  X(DIRECTORY, socketFd, int, Orb::Ptr<OrbSocketFd>, onSocketFd, onSocketFdImmediate)             \
  X(COLLECTION, curlHandle, void*, RequestKey, curlHandleIs, curlHandleDel, curlHandleDelAll,     \
    onCurlHandle, onCurlHandleImmediate)                                                          \
  X(SCALAR, curlMultiHandle, void*, curlMultiHandleIs, onCurlMultiHandle, nullptr)                \
  X(SCALAR, curlGlobal, void*, curlGlobalIs, onCurlGlobal, nullptr)                               \
  X(SCALAR, initialized, bool, initializedIs, onInitialized, false)                               \
  X(OPERATION, doResetRequest, void)                                                              \
  X(OPERATION, shutdown, void)

namespace Retra {

struct CurlCallbackData;
struct CurlSocketData;

// The fetch engine (type "Retra::RetraSm"): turns the requests of a `RequestDir` into libcurl
// transfers and publishes their outcome in the `Response`s of a `ResponseDir`. It asks the
// resolver service for host names (a `Dnsr::ResolutionRequestDir` it writes, a
// `Dnsr::ResolutionRecordDir` it watches) and bridges libcurl's multi socket interface to the
// activity loop (socket watches as `Orb::FileDescriptor`s, libcurl's timer as the wake time of
// the timeout clock). `Root` builds one; everything runs on the activity loop's thread.
//
//   auto sm = Retra::RetraSm::RetraSmIs(requests, responses, dnsrRequests, dnsrRecords,
//                                       Orb::activityManager()->clock(),
//                                       Orb::activityManager()->clock());
//   requests->requestIs(Retra::Request(Retra::RequestKey(Retra::GET, "http://127.0.0.1:80/")));
//   responses->response(key)->requestState();   // stateDispatchReady
//   sm->shutdown();                             // the host stops transfers and libcurl
//
// Life cycle. Construction connects the reactors and starts the engine at once
// (`handleInitialized`): libcurl's multi handle, then one intake pass per request already
// waiting. A started engine holds a reference to itself through its libcurl callback record
// (`curlGlobal`) that is never given back, so it is never destroyed: `shutdown()` deletes every
// request, cleans libcurl up and leaves the engine allocated but idle.
//
// Reactors. `retraRequest`, `retraResponse` and `dnsrRecord` watch the three directories,
// `refreshClock` and `timeoutClock` the clocks; one `retraResponseReactor` per response, one
// `dnsrRecordReactor` per resolver record and one `socketFd` per socket libcurl watches. The
// engine owns them; each holds a plain back pointer to the engine. `hasNotificationActiveIs`
// switches all of them on or off together.
//
// Notification. Each mutator below notifies `RetraSm::NotifieeConst` observers only on a real
// change: scalars with `on<Name>()`, collections with `on<Name>(key)` then
// `on<Name>Immediate()`.
class RetraSm : public Orb::PtrInterface {
 public:
  class OrbRetraRequest;
  class OrbRetraResponse;
  class OrbRetraResponseReactor;
  class OrbDnsrRecord;
  class OrbDnsrRecordReactor;
  class OrbRefreshClock;
  class OrbTimeoutClock;
  class OrbSocketFd;

  class NotifieeConst : public Orb::BaseNotifiee<RetraSm> {
   public:
    RETRA_RETRA_SM_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, RETRA_RETRA_SM_ATTRIBUTES);

  using RequestSmMap = Orb::HashMap<RequestKey, Orb::Ptr<RequestSm>>;
  using SocketMap = Orb::HashMap<int, Orb::Ptr<Orb::FileDescriptor>>;

  // Builds and starts an engine over the six objects and switches its notification on. A null
  // argument, or no engine, raises the range exception "null ValidPtr".
  [[nodiscard]] static Orb::Ptr<RetraSm> RetraSmIs(
      const Orb::Ptr<RequestDir>& requestDir, const Orb::Ptr<ResponseDir>& responseDir,
      const Orb::Ptr<Dnsr::ResolutionRequestDir>& resolutionRequestDir,
      const Orb::Ptr<Dnsr::ResolutionRecordDir>& resolutionRecordDir,
      const Orb::Ptr<Orb::Clock>& refreshClock, const Orb::Ptr<Orb::Clock>& timeoutClock);

  // Connects the reactors, catches up with the responses and resolver records present, then
  // starts (`handleInitialized`). Prefer `RetraSmIs` or `Orb::allocate`.
  RetraSm(const Orb::Ptr<RequestDir>& requestDir, const Orb::Ptr<ResponseDir>& responseDir,
          const Orb::Ptr<Dnsr::ResolutionRequestDir>& resolutionRequestDir,
          const Orb::Ptr<Dnsr::ResolutionRecordDir>& resolutionRecordDir,
          const Orb::Ptr<Orb::Clock>& refreshClock, const Orb::Ptr<Orb::Clock>& timeoutClock);
  RetraSm(const RetraSm&) = delete;
  RetraSm& operator=(const RetraSm&) = delete;

  // ---- Life cycle (RetraSm.cpp)

  // Start: disarms the refresh clock, creates and configures the libcurl multi handle and the
  // callback record, sets `initialized`, then takes in every request already waiting. Does
  // nothing once started. A libcurl failure is traced and leaves the engine idle for good.
  void handleInitialized();
  // Whether the reactors receive notifications; on from construction.
  [[nodiscard]] bool hasNotificationActive() const noexcept { return hasNotificationActive_; }
  void hasNotificationActiveIs(bool active);
  // Stop: deletes every request from the request directory (each withdrawal goes through
  // `handleRequest`), cleans the multi handle up, frees the callback record and clears
  // `initialized`. Does nothing unless started.
  void shutdown();

  // ---- Attributes

  RETRA_RETRA_SM_ATTRIBUTES(ORB_ENTITY_ACCESSORS)

  // Each replaces the reactor (or the directory) when given another object, connects the new
  // reactor (which replays what it finds) and notifies.
  void retraRequestIs(const Orb::Ptr<RequestDir>& requestDir);
  void retraResponseIs(const Orb::Ptr<ResponseDir>& responseDir);
  void dnsrRequestIs(const Orb::Ptr<Dnsr::ResolutionRequestDir>& resolutionRequestDir);
  void dnsrRecordIs(const Orb::Ptr<Dnsr::ResolutionRecordDir>& resolutionRecordDir);
  void refreshClockIs(const Orb::Ptr<Orb::Clock>& clock);
  void timeoutClockIs(const Orb::Ptr<Orb::Clock>& clock);

  // One state machine per accepted request. `requestSmIs` inserts or replaces (releasing the
  // previous machine before the new one is stored); a null machine deletes. `requestSmDel`
  // returns the removed machine, or null.
  [[nodiscard]] const RequestSmMap& requestSm() const noexcept { return requestSm_; }
  [[nodiscard]] Orb::Ptr<RequestSm> requestSm(const RequestKey& key) const;
  void requestSmIs(const RequestKey& key, const Orb::Ptr<RequestSm>& sm);
  Orb::Ptr<RequestSm> requestSmDel(const RequestKey& key);
  void requestSmDelAll();

  // One reactor per response, keyed by the response's key. `retraResponseReactorIs` creates the
  // reactor unless its key has one, and returns it; a null response raises the range exception.
  [[nodiscard]] const Orb::HashMap<RequestKey, Orb::Ptr<OrbRetraResponseReactor>>&
  retraResponseReactor() const noexcept {
    return retraResponseReactor_;
  }
  [[nodiscard]] Orb::Ptr<OrbRetraResponseReactor> retraResponseReactor(const RequestKey& key) const;
  Orb::Ptr<OrbRetraResponseReactor> retraResponseReactorIs(
      const Orb::Ptr<const Response>& response);
  void retraResponseReactorDel(const RequestKey& key);
  void retraResponseReactorDelAll();

  // One reactor per resolver record, keyed by the record's name; as above.
  [[nodiscard]] const Orb::HashMap<Orb::Name, Orb::Ptr<OrbDnsrRecordReactor>>& dnsrRecordReactor()
      const noexcept {
    return dnsrRecordReactor_;
  }
  [[nodiscard]] Orb::Ptr<OrbDnsrRecordReactor> dnsrRecordReactor(const Orb::Name& name) const;
  Orb::Ptr<OrbDnsrRecordReactor> dnsrRecordReactorIs(
      const Orb::Ptr<const Dnsr::ResolutionRecord>& record);
  void dnsrRecordReactorDel(const Orb::Name& name);
  void dnsrRecordReactorDelAll();

  // The sockets libcurl asked to watch, each with its readiness reactor (CurlBridge.cpp).
  // `socketIs` stores the object (null removes) and creates the socket's reactor; `socketDel`
  // returns the removed object, or null.
  [[nodiscard]] const SocketMap& socket() const noexcept { return socket_; }
  [[nodiscard]] Orb::Ptr<Orb::FileDescriptor> socket(int s) const;
  void socketIs(int s, const Orb::Ptr<Orb::FileDescriptor>& fileDescriptor);
  Orb::Ptr<Orb::FileDescriptor> socketDel(int s);
  void socketDelAll();
  [[nodiscard]] const Orb::HashMap<int, Orb::Ptr<OrbSocketFd>>& socketFd() const noexcept {
    return socketFd_;
  }
  [[nodiscard]] Orb::Ptr<OrbSocketFd> socketFd(int s) const;
  void socketFdIs(int s, const Orb::Ptr<Orb::FileDescriptor>& fileDescriptor);
  void socketFdDel(int s);
  void socketFdDelAll();
  // A zero-filled socket record holding `fileDescriptor`, for libcurl's socket callback; the
  // engine keeps every such record and never frees it.
  [[nodiscard]] CurlSocketData* socketDataNew(const Orb::Ptr<Orb::FileDescriptor>& fileDescriptor);

  // ---- Socket and timer bridge (CurlBridge.cpp)

  // A watched socket is ready: lets libcurl act on it, then collects finished transfers.
  void handleSocketEv(int fd);
  // libcurl's wake time has come: lets libcurl act on its timeouts, then collects.
  void handleTimeout();
  // Sets libcurl's one wake time (absolute seconds) on the timeout clock.
  void nudgeTimeoutClock(const double& deadline);
  // Whether the engine is inside libcurl (a `CurlCallScope` lives).
  [[nodiscard]] bool isInsideCurl() const noexcept { return insideCurl_ > 0; }
  // Runs `action`, which releases libcurl objects or adds an easy handle, at once; while the
  // engine is inside libcurl, once libcurl has returned (actions run in the order given).
  template <class Action>
  void whenOutOfCurl(Action&& action) {
    if (insideCurl_ == 0) {
      action();
      return;
    }
    outOfCurl_.emplace_back(std::forward<Action>(action));
  }
  // Completes every transfer libcurl reports finished, in libcurl's order: the response is raised
  // to at least `stateRecvHeader`, the result code goes into the record, the request's machine
  // harvests (`doCurlGetInfo`) and tears down (`doCurlShutdown`), and the record is released
  // (TransferCompletion.cpp).
  void doCurlReadInfo();

  // ---- Request intake (RequestIntake.cpp)

  // Takes in, re-takes or withdraws the request under `key`, whichever the request directory
  // says; the outcome is visible in the key's response.
  void handleRequest(const RequestKey& key);
  // Builds the key's state machine over its response, gives it the key's callback record and
  // stores it (releasing any previous one); counts one more fetch and arms the refresh scan.
  void doBuildRequestSm(const RequestKey& key);
  // Returns the key's response to `stateNotInit` and drops its state machine, so that the
  // refresh scan takes the request in again.
  void doResetRequest(const RequestKey& key);
  // Frees a callback record the engine allocated, once its transfer is torn down (once libcurl
  // has returned, when inside it); a record the engine did not allocate, or has freed already,
  // is left alone.
  void curlDataFree(void* record);

  // ---- Host resolution (HostResolution.cpp)

  // Adds the record's addresses to the response (addresses are only ever added).
  void hostResolutionIs(Response& response, const Dnsr::ResolutionRecord& record);

  // ---- Refresh (RefreshScan.cpp)

  // The refresh scan over all requests, in the request directory's order: the first response
  // found in `stateNotInit` is taken in again and the scan ends there, re-arming the clock for
  // now (one restart per wake-up); ready responses are dispatched; finished ones whose
  // `timeoutRefresh` has run out since `lastUpdateTime` are taken in again. The clock is then
  // armed for the earliest refresh deadline still ahead, if any.
  void handleRefreshTimer();
  // Sets the refresh clock's wake time.
  void nudgeRefreshClock(const double& t);

  [[nodiscard]] Orb::NotifieeList& notifiees() const noexcept { return notifiees_; }
  [[nodiscard]] static const Orb::TypeNode* staticTypeNode();

 protected:
  // Stops (`shutdown`), then removes every reactor and empties every collection. Runs only for
  // an engine whose start stopped before it took its own reference.
  ~RetraSm() override;

 private:
  friend class CurlCallScope;

  [[nodiscard]] CurlCallbackData* curlDataNew();
  // Requests with a state machine: the engine's count of transfers set up or running.
  [[nodiscard]] size_t numRunningRequests() const noexcept { return requestSm_.size(); }

  mutable Orb::NotifieeList notifiees_;
  bool hasNotificationActive_ = true;
  RETRA_RETRA_SM_ATTRIBUTES(ORB_ENTITY_MEMBERS)
  RequestSmMap requestSm_;
  Orb::HashMap<RequestKey, Orb::Ptr<OrbRetraResponseReactor>> retraResponseReactor_;
  Orb::HashMap<Orb::Name, Orb::Ptr<OrbDnsrRecordReactor>> dnsrRecordReactor_;
  SocketMap socket_;
  Orb::HashMap<int, Orb::Ptr<OrbSocketFd>> socketFd_;
  // Callback records allocated and not yet freed.
  std::unordered_set<void*> liveCurlData_;
  // Every socket record handed to libcurl: never freed, as libcurl abandons them on removal.
  std::vector<CurlSocketData*> socketData_;
  // Open CurlCallScopes, and the work waiting for the last of them to end.
  int insideCurl_ = 0;
  std::vector<std::function<void()>> outOfCurl_;
};

}  // namespace Retra

// The nested reactors' definitions.
#include "Retra/engine/EngineReactors.h"
