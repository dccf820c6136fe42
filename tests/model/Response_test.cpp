#include "Retra/model/Response.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "model/support/Recorder.h"

namespace {

using ModelTest::Log;
using Retra::Response;

class Recorder : public Response::NotifieeConst, public ModelTest::Recording {
 public:
  RETRA_RESPONSE_ATTRIBUTES(MODEL_RECORD)
};

struct ResponseTest : testing::Test {
  Orb::Ptr<Response> response = Orb::allocate<Response>(Retra::RequestKey(Retra::GET, "http://h/"));
  Orb::Ptr<Recorder> recorder = Orb::allocate<Recorder>();
  void SetUp() override { recorder->notifierIs(response); }
};

// The attribute kit on one type: scalars, counters, collections and children.
TEST_F(ResponseTest, AttributesNotifyOnlyOnRealChange) {
  response->statusCodeIs(200);
  response->statusCodeIs(200);
  response->bodyIs("<html/>");
  response->bodyIs(Orb::String(std::string("<html/>")));  // another buffer, equal content
  response->numRequestIs(UINT32_MAX);
  EXPECT_EQ(response->numRequestInc(2), 1u);  // counters wrap
  EXPECT_EQ(response->numRequestInc(0), 1u);  // adding zero is no change
  auto counter = response->counterIs();
  EXPECT_EQ(response->counterIs(), counter);
  EXPECT_EQ(response->counterDel(), counter);
  EXPECT_EQ(counter->parent(), nullptr);
  EXPECT_EQ(recorder->joined(),
            "onStatusCode onBody onNumRequest onNumRequest onCounter onCounter");
}

TEST_F(ResponseTest, DelAllNotifiesEachMemberThenTheCollectionEvenIfTheLastReferenceGoes) {
  response->headerIs("A", "1");
  response->headerIs("B", "2");
  recorder->log.clear();
  recorder->isWeakReferenceIs(true);
  recorder->reaction = [&](const std::string&) { response = nullptr; };  // the only strong one
  Response* raw = response.ptr();
  raw->headerDelAll();  // finishes its work before the response goes
  EXPECT_EQ(recorder->notifierPtr(), nullptr);
  ASSERT_EQ(recorder->log.size(), 5u);
  std::sort(recorder->log.begin(), recorder->log.begin() + 4);
  EXPECT_EQ(recorder->log, (Log{"onHeader(A)", "onHeader(B)", "onHeaderImmediate",
                                "onHeaderImmediate", "onHeader()"}));
}

TEST_F(ResponseTest, ResetClearsTheFetchResultInOrderAndKeepsTheRest) {
  response->usernameIs("bob");
  response->statusCodeIs(404);
  response->requestheaderIs("Accept", "*/*");
  response->headerIs("Server", "nginx");
  response->bodyIs("gone");
  response->hostIs("localhost");
  response->ipAddressIs(Ipkit::IpAddr("127.0.0.1"), true);
  response->numRequestInc(3);
  recorder->log.clear();
  response->doReset();
  response->doReset();  // nothing left to clear: silent
  EXPECT_EQ(recorder->joined(),
            "onStatusCode onHeader(Server) onHeaderImmediate onHeader() onBody onHost "
            "onIpAddress(127.0.0.1) onIpAddressImmediate onIpAddress()");
  // Kept: settings, sent headers and the dispatch count.
  EXPECT_EQ(response->username(), "bob");
  EXPECT_EQ(response->requestheader("Accept"), "*/*");
  EXPECT_EQ(response->numRequest(), 3u);
}

}  // namespace
