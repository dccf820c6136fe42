#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Orb/Attribute.h"
#include "Orb/Ptr.h"
#include "Orb/PtrInterface.h"
#include "Retra/model/Response.h"

namespace Retrad {

class UserSpace;

// Turns every change of one response (and of its counter and timer) into change messages, in
// the order the changes happen, for the user space to hand to the watchers. Messages are only
// encoded while someone watches the response; the body is followed either way, so that a
// growing body travels as the bytes appended to it.
//
// Ownership: the user space holds one feed per response and drops it when the response goes;
// the feed holds its observers, which hold the response.
class ResponseFeed : public Orb::PtrInterface {
 public:
  ResponseFeed(UserSpace* space, const Orb::Ptr<Retra::Response>& response);

  // Every message a new watcher needs: the snapshot, then the body in pieces when it is large.
  [[nodiscard]] std::vector<std::string> snapshot() const;
  [[nodiscard]] const Orb::Ptr<Retra::Response>& response() const noexcept { return response_; }
  // Stops listening; the user space calls it before dropping the feed.
  void detach();

 protected:
  ~ResponseFeed() override;

 private:
  class ResponseWatch;
  class CounterWatch;
  class TimerWatch;

  void attributeChanged(Orb::AttributeId attribute);
  template <class K>
  void memberChanged(Orb::AttributeId attribute, const K& key);
  void childChanged(Orb::AttributeId child, Orb::AttributeId attribute);
  void bodyChanged();
  void watchChildren();
  [[nodiscard]] bool watched() const;

  UserSpace* space_;
  Orb::Ptr<Retra::Response> response_;
  Orb::Ptr<ResponseWatch> responseWatch_;
  Orb::Ptr<CounterWatch> counterWatch_;
  Orb::Ptr<TimerWatch> timerWatch_;
  Orb::String bodySeen_;  // the body as the watchers have it
};

}  // namespace Retrad
