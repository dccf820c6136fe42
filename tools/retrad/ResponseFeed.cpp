#include "retrad/ResponseFeed.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Retra/remote/ResponseStream.h"
#include "Retra/remote/WireProtocol.h"
#include "retrad/UserSpace.h"

namespace Retrad {

class ResponseFeed::ResponseWatch : public Retra::Response::NotifieeConst {
 public:
  using ForwardedNotifiee = Retra::Response::NotifieeConst;
  explicit ResponseWatch(ResponseFeed* feed) : feed_(feed) {}
  RETRA_RESPONSE_ATTRIBUTES(ORB_NOTIFIEE_FORWARDERS)

 private:
  void attributeChanged(Orb::AttributeId attribute) { feed_->attributeChanged(attribute); }
  template <class K>
  void memberChanged(Orb::AttributeId attribute, const K& key) {
    feed_->memberChanged(attribute, key);
  }
  ResponseFeed* feed_;
};

class ResponseFeed::CounterWatch : public Retra::RequestCounter::NotifieeConst {
 public:
  using ForwardedNotifiee = Retra::RequestCounter::NotifieeConst;
  explicit CounterWatch(ResponseFeed* feed) : feed_(feed) {}
  RETRA_REQUEST_COUNTER_ATTRIBUTES(ORB_NOTIFIEE_FORWARDERS)

 private:
  void attributeChanged(Orb::AttributeId attribute) {
    feed_->childChanged(Retra::Response::Attr::counter, attribute);
  }
  ResponseFeed* feed_;
};

class ResponseFeed::TimerWatch : public Retra::RequestTimer::NotifieeConst {
 public:
  using ForwardedNotifiee = Retra::RequestTimer::NotifieeConst;
  explicit TimerWatch(ResponseFeed* feed) : feed_(feed) {}
  RETRA_REQUEST_TIMER_ATTRIBUTES(ORB_NOTIFIEE_FORWARDERS)

 private:
  void attributeChanged(Orb::AttributeId attribute) {
    feed_->childChanged(Retra::Response::Attr::timer, attribute);
  }
  ResponseFeed* feed_;
};

ResponseFeed::ResponseFeed(UserSpace* space, const Orb::Ptr<Retra::Response>& response)
    : space_(space), response_(response), bodySeen_(response->body()) {
  responseWatch_ = Orb::allocate<ResponseWatch>(this);
  responseWatch_->notifierIs(response_);
  watchChildren();
}

ResponseFeed::~ResponseFeed() {
  detach();
}

void ResponseFeed::detach() {
  if (responseWatch_) responseWatch_->notifierIs(nullptr);
  if (counterWatch_) counterWatch_->notifierIs(nullptr);
  if (timerWatch_) timerWatch_->notifierIs(nullptr);
}

void ResponseFeed::watchChildren() {
  if (auto counter = response_->counter()) {
    if (!counterWatch_) counterWatch_ = Orb::allocate<CounterWatch>(this);
    counterWatch_->notifierIs(counter);
  }
  if (auto timer = response_->timer()) {
    if (!timerWatch_) timerWatch_ = Orb::allocate<TimerWatch>(this);
    timerWatch_->notifierIs(timer);
  }
}

bool ResponseFeed::watched() const {
  return space_->isWatched(response_->requestKey());
}

std::vector<std::string> ResponseFeed::snapshot() const {
  const Orb::String& body = response_->body();
  const bool bodyFits = body.size() <= Retra::Wire::bodyPieceBytes;
  std::vector<std::string> messages{Retra::Wire::encodeSnapshot(*response_, bodyFits)};
  if (bodyFits) return messages;
  for (size_t at = 0; at < body.size(); at += Retra::Wire::bodyPieceBytes) {
    messages.push_back(Retra::Wire::encodeBodyPiece(
        *response_, at, std::min(body.size(), at + Retra::Wire::bodyPieceBytes)));
  }
  messages.push_back(Retra::Wire::encodeScalarChange(*response_, Retra::Wire::responseTarget,
                                                     Retra::Response::Attr::requestState));
  return messages;
}

void ResponseFeed::attributeChanged(Orb::AttributeId attribute) {
  using Attr = Retra::Response::Attr;
  if (attribute == Attr::body) return bodyChanged();
  if (attribute == Attr::counter || attribute == Attr::timer) {
    // A child came or went: watchers get the whole response again.
    watchChildren();
    if (watched()) space_->publish(response_->requestKey(), {}, UserSpace::Change::snapshot);
    return;
  }
  if (!watched()) return;
  UserSpace::Change kind = UserSpace::Change::plain;
  if (attribute == Attr::requestState) {
    kind = response_->finished() ? UserSpace::Change::finished : UserSpace::Change::state;
  }
  space_->publish(
      response_->requestKey(),
      Retra::Wire::encodeScalarChange(*response_, Retra::Wire::responseTarget, attribute), kind);
}

template <class K>
void ResponseFeed::memberChanged(Orb::AttributeId attribute, const K& key) {
  if (!watched()) return;
  space_->publish(response_->requestKey(),
                  Retra::Wire::encodeMemberChange(*response_, attribute, key));
}

void ResponseFeed::childChanged(Orb::AttributeId child, Orb::AttributeId attribute) {
  if (!watched()) return;
  space_->publish(response_->requestKey(),
                  Retra::Wire::encodeScalarChange(*response_, child, attribute));
}

void ResponseFeed::bodyChanged() {
  const Orb::String body = response_->body();
  const Orb::String seen = std::exchange(bodySeen_, body);
  if (!watched()) return;
  // The engine appends to a body or empties it: an append travels as the bytes appended, any
  // other change as the new body, in pieces.
  const bool appended = body.size() > seen.size() && !seen.view().empty() &&
                        std::memcmp(body.charPtr(), seen.charPtr(), seen.size()) == 0;
  size_t at = appended ? seen.size() : 0;
  bool replace = !appended;
  do {
    const size_t to = std::min(body.size(), at + Retra::Wire::bodyPieceBytes);
    space_->publish(response_->requestKey(),
                    Retra::Wire::encodeBodyPiece(*response_, at, to, replace));
    replace = false;
    at = to;
  } while (at < body.size());
}

}  // namespace Retrad
