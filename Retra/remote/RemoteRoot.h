#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Orb/Attribute.h"
#include "Orb/Entity.h"
#include "Orb/HashMap.h"
#include "Orb/Name.h"
#include "Orb/Notifiee.h"
#include "Orb/Ptr.h"
#include "Orb/TypeNode.h"
#include "Retra/model/RequestDir.h"
#include "Retra/model/ResponseDir.h"
#include "Retra/remote/WireMessage.h"

// The attributes of `RemoteRoot`, in declaration order (numbered from 258).
#define RETRA_REMOTE_ROOT_ATTRIBUTES(X)                                                  \
  X(HELD, retraRequest, Orb::Ptr<RequestDir>, onRetraRequest)                            \
  X(HELD, retraResponse, Orb::Ptr<ResponseDir>, onRetraResponse)                         \
  X(SCALAR, connected, bool, connectedIs, onConnected, false)                            \
  X(SCALAR, synced, bool, syncedIs, onSynced, false)                                     \
  X(SCALAR, uid, uint32_t, uidIs, onUid, 0)                                              \
  X(SCALAR, serviceVersion, Orb::String, serviceVersionIs, onServiceVersion, {})         \
  X(COUNTER, acknowledged, uint64_t, acknowledgedIs, acknowledgedInc, onAcknowledged, 0) \
  X(COUNTER, refused, uint64_t, refusedIs, refusedInc, onRefused, 0)                     \
  X(SCALAR, lastRefusal, Orb::String, lastRefusalIs, onLastRefusal, {})                  \
  X(SCALAR, connectError, Orb::String, connectErrorIs, onConnectError, {})

namespace Retra {

// The library as a service (`retrad`) runs it, seen from another process: a connection that
// gives the host the same `RequestDir` and `ResponseDir` a `Root` does (entity type
// "Retra::RemoteRoot"). A host written against `Root` runs against the service by changing the
// line that creates it:
//
//   auto root = Orb::allocate<Retra::RemoteRoot>("retra");   // was Orb::allocate<Retra::Root>
//   root->retraRequest()->requestIs(Retra::Request(key));     // sent to the service
//   auto watch = Retra::FetchFinishWatch::FetchFinishWatchIs(root->retraResponse(), report);
//   Orb::activityManager()->runUntil(...);
//
// Requests: a request written into `retraRequest()` (or deleted from it) is sent to the service
// as soon as the connection is up; each write is answered, counted in `acknowledged` or in
// `refused` with the service's reason in `lastRefusal` (and told to the write handler). With
// `Options::ephemeral` the requests are the connection's own: the service withdraws them when
// it closes, and this side writes them again after each reconnection. The request directory
// holds what this host wrote, not what other clients of the same uid wrote.
//
// Responses: `retraResponse()` mirrors the service's responses of this uid (all of them, or the
// one of `Options::watchKey`): each is created with the service's snapshot and then changed
// attribute by attribute through its own mutators, so observers get the same notifications
// (`onResponse(key)`, `onRequestState`, `onBody`, `onHeader(name)`, the counter's and timer's)
// as observers of a `Root`'s responses, in the order the changes happened, and never
// `stateFinished` before the rest of that fetch. `synced` turns true once the mirror holds every
// response the watch covers.
//
// Connection: created disconnected; it connects on the next loop turn and, with
// `Options::reconnect`, again half a second after a failure or a restart of the service, then
// re-synchronises the mirror (responses gone meanwhile are removed, the others refreshed from
// their snapshots). `connected` follows the connection, `connectError` says why it is down; `uid`
// is the uid the service sees and `serviceVersion` its version, both from its welcome.
//
// Ownership: the remote root holds both directories (their parent). It is driven by the
// activity loop; it starts no thread. `close()` (or the last reference going) disconnects.
class RemoteRoot : public Orb::Entity {
 public:
  class NotifieeConst : public Orb::BaseNotifiee<RemoteRoot> {
   public:
    RETRA_REMOTE_ROOT_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, RETRA_REMOTE_ROOT_ATTRIBUTES);

  struct Options {
    std::string socketPath = defaultSocketPath();
    std::string clientName = "retra-client";
    bool ephemeral = false;
    bool watchEverything = true;  // else only `watchKey`'s response, or none for a null key
    RequestKey watchKey;
    bool reconnect = true;
  };

  // The socket of the service: $RETRA_SOCKET when set, else the per-user instance's
  // $XDG_RUNTIME_DIR/retra/retrad.sock (/run/user/UID/... without XDG_RUNTIME_DIR).
  [[nodiscard]] static std::string defaultSocketPath();

  RemoteRoot(const Orb::Name& name, Options options);

  RETRA_REMOTE_ROOT_ATTRIBUTES(ORB_ENTITY_ACCESSORS)

  using ReplyHandler = std::function<void(Wire::ReplyCode code, const std::string& text)>;
  using ListHandler = std::function<void(Wire::ReplyCode code, const std::string& text,
                                         const std::vector<Wire::ListedRequest>& listing)>;
  using WriteHandler =
      std::function<void(const RequestKey& key, Wire::ReplyCode code, const std::string& text)>;

  // Commands beyond the directories. Each handler is called once, from the loop, with the
  // service's reply; commands given while disconnected wait for the connection, or are answered
  // `unavailable` when it fails without `reconnect`.
  // ping: the reply's text is the service's version ("retrad 1.0.0").
  void ping(ReplyHandler handler);
  // Fetches the key's request again now (its response starts over).
  void reset(const RequestKey& key, ReplyHandler handler);
  // Withdraws the key's request, whoever of this uid wrote it (`notFound` when there is none).
  void withdraw(const RequestKey& key, ReplyHandler handler);
  // This uid's requests with their state; with `allUsers` every uid's (uid 0 only).
  void list(bool allUsers, ListHandler handler);
  // Told of the reply to each write and withdrawal from the request directory.
  void writeHandlerIs(WriteHandler handler) { writeHandler_ = std::move(handler); }

  // Disconnects for good; waiting commands are answered `unavailable`.
  void close();

  [[nodiscard]] static const Orb::TypeNode* staticTypeNode();
  [[nodiscard]] const Orb::TypeNode* typeNode() const override { return staticTypeNode(); }

 protected:
  ~RemoteRoot() override;

 private:
  class Link;
  class RequestWatch;
  class RetryTimer;

  void connect();
  void handleWelcome(const Wire::Message& message);
  void handleMessage(const Wire::Message& message);
  void handleReply(const Wire::Message& message);
  void handleDisconnected(const std::string& why);
  void handleRequest(const RequestKey& key);
  void sendRequestChange(const RequestKey& key);
  uint64_t sendCommand(const std::string& payload);
  void failWaitingCommands(const std::string& why);
  // Sends a command built by `encode(id)` once connected, its reply going to `handler`.
  void command(std::function<std::string(uint64_t)> encode, ReplyHandler handler);

  Options options_;
  Orb::Ptr<Link> link_;
  Orb::Ptr<RequestWatch> requestWatch_;
  Orb::Ptr<RetryTimer> retry_;
  bool closed_ = false;
  bool welcomed_ = false;
  uint64_t nextId_ = 1;
  uint64_t watchId_ = 0;
  // Commands sent and not yet answered, by id; a list gathers its listing until the reply.
  struct WaitingList {
    ListHandler handler;
    std::vector<Wire::ListedRequest> listing;
  };
  Orb::HashMap<uint64_t, ReplyHandler> waiting_;
  Orb::HashMap<uint64_t, WaitingList> waitingLists_;
  Orb::HashMap<uint64_t, RequestKey> waitingWrites_;
  // Commands given before the connection was up, in order.
  std::vector<std::function<void()>> deferred_;
  // Keys written or withdrawn while disconnected, sent on connection.
  std::vector<RequestKey> unsent_;
  // Keys the current watch's snapshots brought, until it is synced.
  Orb::HashMap<RequestKey, bool> resyncSeen_;
  WriteHandler writeHandler_;
  RETRA_REMOTE_ROOT_ATTRIBUTES(ORB_ENTITY_MEMBERS)
};

}  // namespace Retra
