#include "Dnsr/internal/LookupAnswer.h"

#include <ares.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Dnsr::internal::LookupAnswer;

const Ipkit::IpAddr a1("192.0.2.1");
const Ipkit::IpAddr a2("192.0.2.2");
const Ipkit::Ip6Addr b1("2001:db8::1");
const Ipkit::Ip6Addr b2("2001:db8::2");

LookupAnswer answerOf(int ipStatus, std::vector<Ipkit::IpAddr> ip, int ip6Status,
                      std::vector<Ipkit::Ip6Addr> ip6) {
  LookupAnswer answer;
  answer.ipStatus = ipStatus;
  answer.ip = std::move(ip);
  answer.ip6Status = ip6Status;
  answer.ip6 = std::move(ip6);
  return answer;
}

// Notes every notification of a record, in order.
class Log : public Dnsr::ResolutionRecord::NotifieeConst {
 public:
  using Dnsr::ResolutionRecord::NotifieeConst::onIp6Address;
  using Dnsr::ResolutionRecord::NotifieeConst::onIpAddress;
  void onValid() override { events.push_back("valid"); }
  void onLastError() override { events.push_back("lastError"); }
  void onIpAddress(const Ipkit::IpAddr& a) override { events.push_back(a.str().str()); }
  void onIp6Address(const Ipkit::Ip6Addr& a) override { events.push_back(a.str().str()); }
  std::vector<std::string> events;
};

TEST(LookupAnswerTest, HardFailuresOutrankMissingData) {
  EXPECT_EQ(answerOf(ARES_ENODATA, {}, ARES_ENODATA, {}).error(), Dnsr::errNoData);
  EXPECT_EQ(answerOf(ARES_ENODATA, {}, ARES_ENOTFOUND, {}).error(), Dnsr::errNoSuchName);
  EXPECT_EQ(answerOf(ARES_ENODATA, {}, ARES_ETIMEOUT, {}).error(), Dnsr::errTimeout);
  EXPECT_EQ(answerOf(ARES_EREFUSED, {}, ARES_ETIMEOUT, {}).error(), Dnsr::errRefused);
  // One family with addresses is a success, whatever happened to the other.
  EXPECT_EQ(answerOf(ARES_ETIMEOUT, {}, ARES_SUCCESS, {b1}).error(), Dnsr::errNone);
}

TEST(LookupAnswerTest, SuccessWritesAddressesThenClearsTheErrorThenValidates) {
  auto record = Orb::allocate<Dnsr::ResolutionRecord>("a.test");
  record->lastErrorIs(Dnsr::errTimeout);
  auto log = Orb::allocate<Log>();
  log->notifierIs(record);
  Dnsr::internal::answerApplied(*record, answerOf(ARES_SUCCESS, {a1}, ARES_SUCCESS, {b1}));
  EXPECT_EQ(log->events,
            (std::vector<std::string>{"192.0.2.1", "2001:db8::1", "lastError", "valid"}));
  EXPECT_EQ(record->lastError(), Dnsr::errNone);
  EXPECT_TRUE(record->valid());
}

TEST(LookupAnswerTest, AnsweredFamiliesAreReplacedAndFailedOnesKept) {
  auto record = Orb::allocate<Dnsr::ResolutionRecord>("a.test");
  Dnsr::internal::answerApplied(*record, answerOf(ARES_SUCCESS, {a1}, ARES_SUCCESS, {b1}));

  // A changes, AAAA times out: the old AAAA address stays.
  Dnsr::internal::answerApplied(*record, answerOf(ARES_SUCCESS, {a2}, ARES_ETIMEOUT, {}));
  EXPECT_FALSE(record->ipAddress(a1));
  EXPECT_TRUE(record->ipAddress(a2));
  EXPECT_TRUE(record->ip6Address(b1));

  // AAAA now says "none": the family empties.
  Dnsr::internal::answerApplied(*record, answerOf(ARES_SUCCESS, {a2}, ARES_ENODATA, {}));
  EXPECT_TRUE(record->ip6Address().empty());
  EXPECT_EQ(record->ipAddress().size(), 1u);
}

TEST(LookupAnswerTest, FailureTouchesOnlyTheError) {
  auto record = Orb::allocate<Dnsr::ResolutionRecord>("a.test");
  Dnsr::internal::answerApplied(*record, answerOf(ARES_SUCCESS, {a1}, ARES_SUCCESS, {b2}));
  auto log = Orb::allocate<Log>();
  log->notifierIs(record);
  Dnsr::internal::answerApplied(*record, answerOf(ARES_ENOTFOUND, {}, ARES_ENOTFOUND, {}));
  EXPECT_EQ(log->events, std::vector<std::string>{"lastError"});
  EXPECT_EQ(record->lastError(), Dnsr::errNoSuchName);
  EXPECT_TRUE(record->valid());
  EXPECT_TRUE(record->ipAddress(a1));
  EXPECT_TRUE(record->ip6Address(b2));
}

}  // namespace
