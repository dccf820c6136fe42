#pragma once

#include <ares.h>

#include <chrono>

#include "Dnsr/internal/LookupAnswer.h"
#include "Orb/PtrInterface.h"
#include "Orb/String.h"

namespace Dnsr::internal {

// One look-up of one host name. The hosts file is read first; when it knows the name, its
// addresses are the answer. Otherwise an A and an AAAA query go out together (`ares_search`,
// so the resolv.conf search list applies) and the answer is complete once both have returned.
//
// The listener hears of completion once (possibly from inside `start()`). c-ares holds a
// reference to the look-up for each query in flight, so a late callback always finds it alive;
// after `cancel()` or `expire()` those callbacks are ignored.
class HostLookup : public Orb::PtrInterface {
 public:
  class Listener {
   public:
    // `lookup` is complete; its answer is ready. Runs inside c-ares: record it and return.
    virtual void onLookupDone(HostLookup* lookup) = 0;

   protected:
    ~Listener() = default;
  };

  HostLookup(const Orb::String& host, Listener* listener) : host_(host), listener_(listener) {}

  [[nodiscard]] const Orb::String& host() const noexcept { return host_; }

  // Starts the look-up on `channel`.
  void start(ares_channel channel);
  // Forgets the listener: the look-up will no longer report.
  void cancel() noexcept { listener_ = nullptr; }
  // Gives up on the queries still out, when the look-up has run past its deadline: their
  // families fail with ARES_ETIMEOUT and the listener hears of completion now; their late
  // answers are ignored. Does nothing to a look-up that is done.
  void expire();
  [[nodiscard]] bool isCancelled() const noexcept { return listener_ == nullptr; }

  [[nodiscard]] bool isDone() const noexcept { return started_ && pending_ == 0; }
  // The answer, with when the look-up started and how long it took; meaningful once done.
  [[nodiscard]] const LookupAnswer& answer() const noexcept { return answer_; }
  [[nodiscard]] bool isFromHostsFile() const noexcept { return fromHostsFile_; }

 private:
  struct Query;

  static void onAnswer(void* arg, int status, int timeouts, unsigned char* reply, int length);
  void hostsFileRead(ares_channel channel);
  void answered(int type, int status, const unsigned char* reply, int length);
  void finished();

  Orb::String host_;
  Listener* listener_;
  LookupAnswer answer_;
  std::chrono::steady_clock::time_point startedAt_;  // the wall clock may step meanwhile
  int pending_ = 0;
  bool started_ = false;
  bool ipAnswered_ = false;
  bool ip6Answered_ = false;
  bool fromHostsFile_ = false;
};

}  // namespace Dnsr::internal
