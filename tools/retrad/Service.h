#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Orb/Ptr.h"
#include "retrad/ClientSession.h"
#include "retrad/ListenSocket.h"
#include "retrad/RequestStore.h"
#include "retrad/ServiceOptions.h"
#include "retrad/UserSpace.h"

namespace Retrad {

// The service: the request store, the listening socket, the sessions and a user space per uid,
// all on the activity loop (one thread, no locks).
//
// On start every stored request is written back into its uid's user space and fetched. Each
// session's batch of commands is checked, its writes and withdrawals committed to the store in
// one transaction, and only then applied and acknowledged, in the order they came; a command
// that is refused changes nothing stored.
//
//   Retrad::Service service(options);   // listens once constructed
//   Orb::activityManager()->runUntil([&] { return stopping; }, Orb::Clock::never);
//   service.shutdown();
class Service {
 public:
  explicit Service(ServiceOptions options);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Stops every engine; the service is destroyed after.
  void shutdown();

  [[nodiscard]] const ServiceOptions& options() const noexcept { return options_; }
  [[nodiscard]] std::string version() const { return "retrad 1.0.0"; }
  [[nodiscard]] size_t sessionCount() const noexcept { return sessions_.size(); }
  [[nodiscard]] const std::map<uid_t, std::unique_ptr<UserSpace>>& userSpaces() const noexcept {
    return spaces_;
  }
  // Called with each user space the service adds, before any request is written into it.
  void userSpaceAddedIs(std::function<void(UserSpace&)> added) {
    userSpaceAdded_ = std::move(added);
  }

  // For sessions: why a peer may not use this instance (empty when it may), the batch of one
  // read, and the end of a connection.
  [[nodiscard]] std::string refusalOf(const ClientSession& session) const;
  void runBatch(ClientSession& session, std::vector<ClientSession::Incoming>& batch);
  void sessionClosed(ClientSession* session, const std::string& why);

 private:
  struct Verdict {
    Retra::Wire::ReplyCode code = Retra::Wire::ReplyCode::ok;
    std::string text;
  };

  void accept(int descriptor);
  void restore();
  UserSpace& userSpace(uid_t uid);
  [[nodiscard]] Verdict checkWrite(uid_t uid, const Retra::Request& request) const;
  void storeBatch(UserSpace& space, std::vector<ClientSession::Incoming>& batch,
                  std::vector<Verdict>& verdicts);
  void list(ClientSession& session, const Retra::Wire::Message& message);

  ServiceOptions options_;
  RequestStore store_;
  std::map<uid_t, std::unique_ptr<UserSpace>> spaces_;
  std::map<ClientSession*, Orb::Ptr<ClientSession>> sessions_;
  std::unique_ptr<ListenSocket> listener_;
  std::function<void(UserSpace&)> userSpaceAdded_;
};

}  // namespace Retrad
