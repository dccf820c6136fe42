#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Orb/Ptr.h"
#include "Retra/model/RequestTimer.h"

namespace {

using Retra::RequestTimer;
using Log = std::vector<std::string>;

class Recorder : public RequestTimer::NotifieeConst {
 public:
  Log log;
  void onHostLookup() override { log.push_back("hostLookup"); }
  void onConnect() override { log.push_back("connect"); }
  void onSslHandshake() override { log.push_back("sslHandshake"); }
  void onRequest() override { log.push_back("request"); }
  void onResponse() override { log.push_back("response"); }
  void onTotal() override { log.push_back("total"); }
};

struct RequestTimerTest : testing::Test {
  Orb::Ptr<RequestTimer> timer = Orb::allocate<RequestTimer>();
  Orb::Ptr<Recorder> recorder = Orb::allocate<Recorder>();
  void SetUp() override { recorder->notifierIs(timer); }
};

TEST_F(RequestTimerTest, PhasesSumAcrossTransfersAndNotifyOnlyOnChange) {
  EXPECT_EQ(timer->name(), "timer");
  EXPECT_EQ(timer->totalInc(0.25), 0.25);
  EXPECT_EQ(timer->totalInc(0.5), 0.75);
  EXPECT_EQ(timer->connectInc(0.0), 0.0);  // silent
  timer->requestIs(0.125);
  timer->requestIs(0.125);  // silent
  EXPECT_EQ(timer->responseInc(1.0), 1.0);
  EXPECT_EQ(timer->sslHandshakeInc(0.5), 0.5);
  timer->hostLookupIs(0.0);  // silent
  EXPECT_EQ(recorder->log, (Log{"total", "total", "request", "response", "sslHandshake"}));
  EXPECT_EQ(timer->hostLookup(), 0.0);
  EXPECT_EQ(timer->total(), 0.75);
}

TEST_F(RequestTimerTest, AttributesAreNumberedFrom258) {
  EXPECT_EQ(RequestTimer::Attr::hostLookup, 258u);
  EXPECT_EQ(RequestTimer::Attr::total, 263u);
  EXPECT_EQ(timer->typeNode()->name(), "Retra::RequestTimer");
  EXPECT_EQ(timer->typeNode()->attributeId("sslHandshake"), 260u);
}

}  // namespace
