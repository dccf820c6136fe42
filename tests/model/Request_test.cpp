#include "Retra/model/Request.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "Orb/AttrLog.h"
#include "Orb/Exception.h"

namespace {

using Retra::Request;
using Retra::RequestKey;

const RequestKey key(Retra::POST, "http://127.0.0.1:8080/form");

TEST(RequestTest, EveryAttributeTakesPartInEqualityAndCopiesAndOnlyTheDefaultIsNull) {
  EXPECT_TRUE(!Request());
  const std::vector<std::function<void(Request&)>> changes = {
      [](Request& r) { r = Request(key); },
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
    Request changed;
    changes[i](changed);
    EXPECT_FALSE(changed == Request()) << "change " << i;
    EXPECT_FALSE(!changed) << "change " << i;
    EXPECT_TRUE(Request(changed) == changed) << "change " << i;
  }
}

TEST(RequestTest, TextFormShowsEveryAttributeWithNoneForHeaders) {
  Request request(RequestKey(Retra::GET, "http://127.0.0.1/"));
  request.timeoutRefreshIs(30);
  request.headerIs("Accept", "*/*");
  request.authTypeIs(Retra::authBasic);
  request.passwordIs("it's");
  request.debugIs(true);
  std::ostringstream out;
  out << request;
  EXPECT_EQ(
      out.str(),
      "Value('Retra::Request', ** {'requestKey': Value('Retra::RequestKey', ** {'method': GET, "
      "'uri': 'http://127.0.0.1/'}), 'timeoutConnect': 60, 'timeoutRequest': 60, "
      "'timeoutRefresh': 30, 'header': None, 'body': '', 'authType': authBasic, 'username': "
      "'', 'password': 'it\\'s', 'sslVerifyPeer': True, 'pinnedPublicKey': '', 'outputPath': "
      "'', 'debug': True})");
}

TEST(RequestTest, HeadersAndAllReadBackFromTheAttributeLogAndACutLogIsRejected) {
  Request request(key);
  request.timeoutRefreshIs(4000000000u);
  request.headerIs("Accept", "text/plain");
  request.headerIs("Cookie", Orb::String("a\0b", 3));
  EXPECT_FALSE(request.newHeader("Accept", "text/html"));  // present: left as it was
  EXPECT_TRUE(request.newHeader("X-A", "1"));
  EXPECT_TRUE(request.headerDel("X-A"));
  request.authTypeIs(Retra::authDigest);
  request.sslVerifyPeerIs(false);
  Orb::AttrLogOut out;
  Retra::writeAttr(out, request);
  Orb::AttrLogIn in(out.bytes());
  EXPECT_TRUE(Request(in) == request);
  in.expectEnd();
  Orb::AttrLogIn cut(out.bytes().data(), out.bytes().size() - 1);
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::parse);
  EXPECT_THROW(Request{cut}, Orb::ParseException);
}

}  // namespace
