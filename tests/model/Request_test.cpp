#include "Retra/model/Request.h"

#include <gtest/gtest.h>

#include <sstream>

#include "Orb/AttrLog.h"
#include "orb/support/OrbTest.h"

namespace {

using Retra::Request;
using Retra::RequestKey;

// The value kit on one type: equality, printing and the attribute log cover every field.
TEST(RequestTest, EqualityTextAndAttributeLogCoverEveryField) {
  EXPECT_TRUE(!Request());
  Request request(RequestKey(Retra::GET, "http://127.0.0.1/"));
  request.timeoutRefreshIs(4000000000u);
  EXPECT_FALSE(request == Request(request.requestKey()));
  request.headerIs("Cookie", Orb::String("a\0b", 3));
  EXPECT_FALSE(request.newHeader("Cookie", "c"));  // present: left as it was
  EXPECT_TRUE(request.newHeader("X-A", "1") && request.headerDel("X-A"));
  request.authTypeIs(Retra::authBasic);
  request.passwordIs("it's");
  request.debugIs(true);
  std::ostringstream out;
  out << request;
  EXPECT_CONTAINS(out.str(),
                  "'timeoutRefresh': 4000000000, 'header': None, 'body': '', "
                  "'authType': authBasic, 'username': '', 'password': 'it\\'s'");

  Orb::AttrLogOut log;
  Retra::writeAttr(log, request);
  Orb::AttrLogIn in(log.bytes());
  EXPECT_TRUE(Request(in) == request);
  in.expectEnd();
}

}  // namespace
