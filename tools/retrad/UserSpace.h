#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Orb/Clock.h"
#include "Orb/HashMap.h"
#include "Orb/Ptr.h"
#include "Retra/engine/ParkedResponseRecovery.h"
#include "Retra/engine/Root.h"
#include "Retra/model/RequestKey.h"

namespace Retrad {

class ClientSession;
class ResponseFeed;

// Everything the service keeps for one uid: its own `Retra::Root` (directories, engine and
// resolver), the recovery of its parked responses, a feed per response, and who watches what.
// Nothing in one user space is reachable from another's: one user's requests, credentials,
// bodies and counters never reach another user's watchers, and each uid has its own engine and
// connections.
//
// Changes go out at the end of the loop turn they happened in, in the order they happened, with
// one exception: a response's `stateFinished` goes after the other changes of that turn (the
// engine stamps the update time only once it sees the state), so a watcher never sees a fetch
// finished before the rest of it.
//
// Ownership: the service holds one user space per uid; sessions are not owned and take
// themselves out (`sessionGone`) when they close.
class UserSpace {
 public:
  // `snapshot` asks for the response's whole snapshot, made when the turn's changes go out.
  enum class Change { plain, state, finished, snapshot };

  explicit UserSpace(uint32_t uid);
  ~UserSpace();
  UserSpace(const UserSpace&) = delete;
  UserSpace& operator=(const UserSpace&) = delete;

  [[nodiscard]] uint32_t uid() const noexcept { return uid_; }
  [[nodiscard]] const Orb::Ptr<Retra::Root>& root() const noexcept { return root_; }

  // Writes or withdraws a request; `owner` is the session an ephemeral request belongs to (null
  // for a stored one).
  void requestIs(const Retra::Request& request, ClientSession* owner);
  void requestDel(const Retra::RequestKey& key);
  [[nodiscard]] bool isEphemeral(const Retra::RequestKey& key) const {
    return ephemeralOwner_.contains(key);
  }

  // A session watching every response of the uid, or the one of `key`. The snapshots go out at
  // once; `synced(id)` follows them.
  void watchAll(ClientSession* session, uint64_t id);
  void watchKey(ClientSession* session, uint64_t id, const Retra::RequestKey& key);
  void sessionGone(ClientSession* session);

  [[nodiscard]] bool isWatched(const Retra::RequestKey& key) const;
  // Queues a change message of `key`'s response for its watchers (none for a snapshot).
  void publish(const Retra::RequestKey& key, std::string message, Change kind = Change::plain);

  // Stops the engine; the user space is dropped after.
  void shutdown();

 private:
  class DirectoryWatch;
  class TurnEnd;
  struct Queued {
    Retra::RequestKey key;
    std::string message;
    Change kind;
  };

  void handleResponse(const Retra::RequestKey& key);
  void flush();
  void deliver(const Retra::RequestKey& key, const std::string& message);

  uint32_t uid_;
  Orb::Ptr<Retra::Root> root_;
  Orb::Ptr<Retra::ParkedResponseRecovery> recovery_;
  Orb::Ptr<DirectoryWatch> directoryWatch_;
  Orb::Ptr<TurnEnd> turnEnd_;
  Orb::HashMap<Retra::RequestKey, Orb::Ptr<ResponseFeed>> feeds_;
  std::vector<ClientSession*> watchingAll_;
  Orb::HashMap<Retra::RequestKey, std::vector<ClientSession*>> watchingKey_;
  Orb::HashMap<Retra::RequestKey, ClientSession*> ephemeralOwner_;
  std::vector<Queued> queued_;
};

}  // namespace Retrad
