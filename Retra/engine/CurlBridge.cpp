// The bridge between libcurl's multi socket interface and the activity loop: socket watches,
// libcurl's timer, and the calls back into libcurl when either fires.

#include "Retra/engine/CurlBridge.h"

#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

#include "Orb/Exception.h"
#include "Orb/Seconds.h"
#include "Retra/engine/CurlCallScope.h"
#include "Retra/engine/CurlGlobalData.h"
#include "Retra/engine/CurlSocketData.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/internal/LibTrace.h"

namespace Retra {

namespace {

// libcurl's `what`, by number, as traced.
const char* actionName(int what) {
  static const char* const names[] = {"None", "IN", "OUT", "INOUT", "REMOVE"};
  return what >= 0 && what < 5 ? names[what] : "unknown";
}

// Which readiness the object watches: IN readable only, OUT writable only, anything else
// (INOUT included) neither.
void curlSetSock(curl_socket_t s, int what, const Orb::Ptr<Orb::FileDescriptor>& fileDescriptor) {
  RETRA_TRACE(4, "set socket fd=" << s << " action=" << actionName(what));
  fileDescriptor->notifyOnReadableIs(what == CURL_POLL_IN);
  fileDescriptor->notifyOnWritableIs(what == CURL_POLL_OUT);
}

// A socket libcurl has not asked about before: a file descriptor object, its watch, its record
// in libcurl and its entry in the engine.
void curlAddSock(RetraSm& engine, curl_socket_t s, int what) {
  RETRA_TRACE(4, "new socket fd=" << s << " action=" << actionName(what));
  Orb::Ptr<Orb::FileDescriptor> fileDescriptor = Orb::allocate<Orb::FileDescriptor>(Orb::Name());
  if (!fileDescriptor) Orb::throwRangeException("null ValidPtr");
  fileDescriptor->descriptorIs(s);
  fileDescriptor->nonBlockingIs(true);
  curlSetSock(s, what, fileDescriptor);
  CurlSocketData* record = engine.socketDataNew(fileDescriptor);
  curl_multi_assign(static_cast<CURLM*>(engine.curlMultiHandle()), s, record);
  engine.socketIs(s, fileDescriptor);
}

}  // namespace

// ---- libcurl's callbacks

int curlSockCb(CURL*, curl_socket_t s, int what, void* userp, void* socketp) {
  RETRA_TRACE(4, "socket callback fd=" << s << " action=" << actionName(what));
  RetraSm& engine = *static_cast<CurlGlobalData*>(userp)->retraSm;
  auto* record = static_cast<CurlSocketData*>(socketp);
  if (what == CURL_POLL_REMOVE) {
    // The record is abandoned, not freed: the engine keeps it.
    if (record && record->fileDescriptor) {
      record->fileDescriptor->descriptorIs(-1);
      (void)engine.socketDel(s);
    }
    return 0;
  }
  if (!record) {
    curlAddSock(engine, s, what);
    return 0;
  }
  curlSetSock(s, what, record->fileDescriptor);
  return 0;
}

void curlTimerCb(CURLM*, long timeoutMs, void* userp) {
  auto* global = static_cast<CurlGlobalData*>(userp);
  RETRA_ASSERT(global);
  const double delay = static_cast<double>(timeoutMs) / 1000.0;
  RETRA_TRACE(4, "new curl event timeout=" << timeoutMs << " milliseconds");
  const double deadline = Orb::System::currentTime() + delay;
  global->retraSm->nudgeTimeoutClock(deadline);
}

int curlTimerCallback(CURLM* multi, long timeoutMs, void* userp) {
  curlTimerCb(multi, timeoutMs, userp);
  return 0;
}

const char* mcodeString(int code) {
  switch (code) {
    case -1:
      return "CURLM_CALL_MULTI_PERFORM";
    case 1:
      return "CURLM_BAD_HANDLE";
    case 2:
      return "CURLM_BAD_EASY_HANDLE";
    case 3:
      return "CURLM_OUT_OF_MEMORY";
    case 4:
      return "CURLM_INTERNAL_ERROR";
    case 6:
      return "CURLM_UNKNOWN_OPTION";
    case 8:
      return "CURLM_LAST";
    default:
      return "CURLM_unknown";
  }
}

// ---- The engine's side

void RetraSm::handleSocketEv(int fd) {
  RETRA_TRACE(2, "handleSocketEv"
                     << " on fd=" << fd);
  const Orb::Ptr<RetraSm> self(this);  // a client's reactor may drop its Root meanwhile
  int running = 0;
  CURLMcode rc;
  {
    CurlCallScope inside(*this);
    rc = curl_multi_socket_action(static_cast<CURLM*>(curlMultiHandle_), fd, 0, &running);
  }
  // A socket libcurl has already forgotten is no error.
  if (rc == CURLM_OK || rc == CURLM_BAD_SOCKET) {
    doCurlReadInfo();
    return;
  }
  RETRA_TRACE(1, "handleSocketEv"
                     << " error on fd=" << fd << " error=" << mcodeString(rc));
}

void RetraSm::handleTimeout() {
  RETRA_TRACE(2, "void Retra::RetraSm::handleTimeout()");
  if (!curlMultiHandle_) return;
  const Orb::Ptr<RetraSm> self(this);  // a client's reactor may drop its Root meanwhile
  int running = 0;
  CURLMcode rc;
  {
    CurlCallScope inside(*this);
    rc = curl_multi_socket_action(static_cast<CURLM*>(curlMultiHandle_), CURL_SOCKET_TIMEOUT, 0,
                                  &running);
  }
  if (rc != CURLM_OK && rc != CURLM_BAD_SOCKET) {
    RETRA_TRACE(1, "curl_multi_socket_action error=" << mcodeString(rc));
    return;
  }
  doCurlReadInfo();
}

void RetraSm::nudgeTimeoutClock(const double& deadline) {
  RETRA_TRACE(9, "nudgeTimeoutClock"
                     << " setting curl timeout clock to: " << deadline);
  timeoutClock_->timeMinIs(deadline);
}

// ---- socket and socketFd

Orb::Ptr<Orb::FileDescriptor> RetraSm::socket(int s) const {
  auto it = socket_.find(s);
  return it == socket_.end() ? nullptr : it->second;
}

void RetraSm::socketIs(int s, const Orb::Ptr<Orb::FileDescriptor>& fileDescriptor) {
  if (!fileDescriptor) {
    (void)socketDel(s);
    return;
  }
  auto it = socket_.find(s);
  if (it != socket_.end() && it->second == fileDescriptor) return;
  socket_.insert_or_assign(s, fileDescriptor);
  socketFdIs(s, fileDescriptor);
  Orb::notifyMember(*this, &NotifieeConst::onSocket, &NotifieeConst::onSocketImmediate, s);
}

Orb::Ptr<Orb::FileDescriptor> RetraSm::socketDel(int s) {
  auto it = socket_.find(s);
  if (it == socket_.end()) return nullptr;
  Orb::Ptr<Orb::FileDescriptor> removed = std::move(it->second);
  socket_.erase(it);
  socketFdDel(s);
  Orb::notifyMember(*this, &NotifieeConst::onSocket, &NotifieeConst::onSocketImmediate, s);
  return removed;
}

void RetraSm::socketDelAll() {
  std::vector<int> sockets;
  for (const auto& [s, fileDescriptor] : socket_) sockets.push_back(s);
  for (int s : sockets) (void)socketDel(s);
}

Orb::Ptr<RetraSm::OrbSocketFd> RetraSm::socketFd(int s) const {
  auto it = socketFd_.find(s);
  return it == socketFd_.end() ? nullptr : it->second;
}

void RetraSm::socketFdIs(int s, const Orb::Ptr<Orb::FileDescriptor>& fileDescriptor) {
  auto it = socketFd_.find(s);
  if (it != socketFd_.end() && it->second->notifierPtr() == fileDescriptor.ptr()) return;
  auto reactor = Orb::allocate<OrbSocketFd>(this, s);
  Orb::Ptr<OrbSocketFd> old;
  if (it != socketFd_.end())
    old = std::exchange(it->second, reactor);
  else
    socketFd_.emplace(s, reactor);
  if (old) old->engineIs(nullptr);
  old = nullptr;
  if (!hasNotificationActive_) reactor->isRegisteredNotifieeIs(false);
  reactor->notifierIs(fileDescriptor);
  Orb::notifyMember(*this, &NotifieeConst::onSocketFd, &NotifieeConst::onSocketFdImmediate, s);
}

void RetraSm::socketFdDel(int s) {
  auto it = socketFd_.find(s);
  if (it == socketFd_.end()) return;
  Orb::Ptr<OrbSocketFd> removed = std::move(it->second);
  socketFd_.erase(it);
  removed->engineIs(nullptr);
  removed = nullptr;
  Orb::notifyMember(*this, &NotifieeConst::onSocketFd, &NotifieeConst::onSocketFdImmediate, s);
}

void RetraSm::socketFdDelAll() {
  std::vector<int> sockets;
  for (const auto& [s, reactor] : socketFd_) sockets.push_back(s);
  for (int s : sockets) socketFdDel(s);
}

CurlSocketData* RetraSm::socketDataNew(const Orb::Ptr<Orb::FileDescriptor>& fileDescriptor) {
  // As libcurl's own records go, the allocation is not tested for null.
  auto* record = new (std::calloc(1, sizeof(CurlSocketData))) CurlSocketData();
  record->fileDescriptor = fileDescriptor;
  socketData_.push_back(record);
  return record;
}

}  // namespace Retra
