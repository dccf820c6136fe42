#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "Orb/AttrLog.h"
#include "Orb/Attribute.h"
#include "Orb/Exception.h"
#include "Retra/model/Request.h"

namespace {

using Retra::Request;
using Retra::RequestKey;

const RequestKey key(Retra::POST, "http://127.0.0.1:8080/form");

TEST(RequestTest, NewRequestsHoldTheDefaultsAndOnlyTheDefaultRequestIsNull) {
  Request request(key);
  EXPECT_EQ(request.method(), Retra::POST);
  EXPECT_EQ(request.uri(), "http://127.0.0.1:8080/form");
  EXPECT_EQ(request.timeoutConnect() + request.timeoutRequest(), 120);
  EXPECT_EQ(request.timeoutRefresh(), 1800u);
  EXPECT_TRUE(request.sslVerifyPeer());
  EXPECT_FALSE(request.debug());
  EXPECT_TRUE(!Request(RequestKey()));
  EXPECT_FALSE(!Request(key));
  Request debug;
  debug.debugIs(true);
  EXPECT_FALSE(!debug);
  Request withHeader;
  withHeader.headerIs("Accept", "*/*");
  EXPECT_FALSE(!withHeader);
}

TEST(RequestTest, EveryAttributeTakesPartInEquality) {
  const Request base(key);
  std::vector<std::function<void(Request&)>> changes = {
      [](Request& r) { r = Request(RequestKey(Retra::GET, "http://127.0.0.1:8080/form")); },
      [](Request& r) { r.timeoutConnectIs(5); },
      [](Request& r) { r.timeoutRequestIs(5); },
      [](Request& r) { r.timeoutRefreshIs(5); },
      [](Request& r) { r.headerIs("X-A", "1"); },
      [](Request& r) { r.bodyIs("x=1"); },
      [](Request& r) { r.authTypeIs(Retra::authDigest); },
      [](Request& r) { r.usernameIs("user"); },
      [](Request& r) { r.passwordIs("secret"); },
      [](Request& r) { r.sslVerifyPeerIs(false); },
      [](Request& r) { r.pinnedPublicKeyIs("sha256//AAAA"); },
      [](Request& r) { r.outputPathIs("/tmp/out"); },
      [](Request& r) { r.debugIs(true); },
  };
  for (size_t i = 0; i < changes.size(); ++i) {
    Request changed = base;
    changes[i](changed);
    EXPECT_FALSE(changed == base) << "change " << i;
    Request copy = changed;  // copies carry every attribute, the headers included
    EXPECT_TRUE(copy == changed) << "change " << i;
  }
}

TEST(RequestTest, HeaderMutatorsAddReplaceAndRemove) {
  Request request(key);
  EXPECT_TRUE(request.newHeader("Accept", "text/plain"));
  EXPECT_FALSE(request.newHeader("Accept", "text/html"));  // present: left as it was
  EXPECT_EQ(request.header("Accept"), "text/plain");
  request.headerIs("Accept", "text/html");
  request.headerIs("X-Trace", "1");
  EXPECT_EQ(request.header("Accept"), "text/html");
  EXPECT_EQ(request.header().size(), 2u);
  EXPECT_EQ(request.header("Missing"), "");
  EXPECT_TRUE(request.headerDel("X-Trace"));
  EXPECT_FALSE(request.headerDel("X-Trace"));
  request.headerDelAll();
  EXPECT_TRUE(request.header().empty());
}

TEST(RequestTest, TextFormShowsEveryAttributeAndNoneForHeaders) {
  Request request(RequestKey(Retra::GET, "http://127.0.0.1/"));
  request.timeoutRefreshIs(30);
  request.headerIs("Accept", "*/*");
  request.authTypeIs(Retra::authBasic);
  request.usernameIs("bob");
  request.passwordIs("it's");
  request.debugIs(true);
  const char* expected =
      "Value('Retra::Request', ** {'requestKey': Value('Retra::RequestKey', ** {'method': GET, "
      "'uri': 'http://127.0.0.1/'}), 'timeoutConnect': 60, 'timeoutRequest': 60, "
      "'timeoutRefresh': 30, 'header': None, 'body': '', 'authType': authBasic, 'username': "
      "'bob', 'password': 'it\\'s', 'sslVerifyPeer': True, 'pinnedPublicKey': '', 'outputPath': "
      "'', 'debug': True})";
  EXPECT_EQ(Retra::valueToStrep(request), expected);
  std::ostringstream out;
  out << request;
  EXPECT_EQ(out.str(), expected);
}

TEST(RequestTest, CannotBeBuiltFromText) {
  Orb::String text = Retra::valueToStrep(Request(key));
  Orb::String::const_iterator it = text.begin();
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::internal);
  try {
    Request parsed(it, text.end());
    FAIL() << "a request was built from text";
  } catch (const Orb::InternalException& e) {
    EXPECT_STREQ(e.what(), "!\"No String constructor for Request - has collection\"");
  }
}

TEST(RequestTest, AttributeLogRoundTripsWithHeaders) {
  Request request(key);
  request.timeoutConnectIs(7);
  request.timeoutRefreshIs(4000000000u);
  request.headerIs("Accept", "text/plain");
  request.headerIs("Cookie", Orb::String("a\0b", 3));
  request.bodyIs("x=1&y=2");
  request.authTypeIs(Retra::authDigest);
  request.sslVerifyPeerIs(false);
  request.outputPathIs("/tmp/retra-out");
  Orb::AttrLogOut out;
  Retra::writeAttr(out, request);
  Orb::AttrLogIn in(out.bytes());
  Request back(in);
  in.expectEnd();
  EXPECT_TRUE(back == request);
  EXPECT_EQ(back.header("Cookie"), Orb::String("a\0b", 3));

  // Every byte counts: a log cut short does not read back.
  const std::string& bytes = out.bytes();
  Orb::AttrLogIn cut(bytes.data(), bytes.size() - 1);
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::parse);
  EXPECT_THROW(Request{cut}, Orb::ParseException);
}

TEST(RequestTest, AttributesAreNumberedFromTwoWithTheDerivedOnesLast) {
  EXPECT_EQ(Request::Attr::requestKey, 2u);
  EXPECT_EQ(Request::Attr::header, 6u);
  EXPECT_EQ(Request::Attr::debug, 14u);
  EXPECT_EQ(Request::Attr::method, 15u);
  EXPECT_EQ(Request::Attr::uri, 16u);
  EXPECT_EQ(Request::typeNode()->name(), "Retra::Request");
  EXPECT_EQ(Request::typeNode()->attributeName(11), "sslVerifyPeer");
}

}  // namespace
