// A response as JSON: every attribute under its own name, in declaration order, with the forms
// the tool promises for enumerations, collections, children and bodies.

#include "toolkit/ResponseJson.h"

#include <gtest/gtest.h>

#include <string>

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Orb/Ptr.h"

namespace {

using Json = nlohmann::ordered_json;

TEST(ResponseJsonTest, EveryAttributeAppearsInDeclarationOrderWithItsValue) {
  auto response = Orb::allocate<Retra::Response>(
      Retra::RequestKey(Retra::DELETE, "https://example.test:8443/item"));
  response->requestStateIs(Retra::stateFinished);
  response->authTypeIs(Retra::authDigest);
  response->usernameIs("ann");
  response->timeoutRefreshIs(30);
  response->schemeIs(Retra::https);
  response->statusCodeIs(204);
  response->lastErrorIs(Retra::errHttpStatusCode);
  response->lastUpdateTimeIs(1700000000.25);
  response->requestheaderIs("X-Test", "yes");
  response->headerIs("Server", "nginx");
  response->headerIs("Content-Type", "text/plain");
  response->bodyIs("caf\xc3\xa9");
  response->contentLengthDownloadIs(5);
  response->counterIs()->bytesDownloadInc(5);
  response->counterIs()->speedDownloadIs(2.5);
  response->timerIs()->totalInc(0.125);
  response->numRequestInc(2);
  response->resolvedIs(true);
  response->hostIs("example.test");
  response->ipAddressIs(Ipkit::IpAddr(Orb::String("127.0.0.2")), true);
  response->ipAddressIs(Ipkit::IpAddr(Orb::String("127.0.0.1")), true);
  response->ip6AddressIs(Ipkit::Ip6Addr(Orb::String("::1")), true);
  response->portIs(8443);

  const Json json = RetraTool::responseJson(*response);

  const Json expected = Json::parse(R"({
    "requestKey": {"method": "DELETE", "uri": "https://example.test:8443/item"},
    "method": "DELETE", "uri": "https://example.test:8443/item", "requestState": "stateFinished",
    "authType": "authDigest", "username": "ann", "password": "", "sslVerifyPeer": false,
    "pinnedPublicKey": "", "outputPath": "", "timeoutConnect": 60, "timeoutRequest": 60,
    "timeoutRefresh": 30, "debug": false, "finished": true, "scheme": "https", "statusCode": 204,
    "effectiveUrl": "", "lastError": "errHttpStatusCode", "lastErrorMessage": "",
    "lastUpdateTime": 1700000000.25, "lastChangeTime": 0.0, "requestheader": {"X-Test": "yes"},
    "header": {"Content-Type": "text/plain", "Server": "nginx"}, "body": "café",
    "contentType": "", "contentLengthUpload": -1, "contentLengthDownload": 5,
    "counter": {"numConnect": 0, "numRedirect": 0, "numFinish": 0, "speedDownload": 2.5,
                "speedUpload": 0.0, "bytesDownload": 5, "bytesUpload": 0,
                "bytesHeaderDownload": 0, "bytesRequestUpload": 0},
    "timer": {"hostLookup": 0.0, "connect": 0.0, "sslHandshake": 0.0, "request": 0.0,
              "response": 0.0, "total": 0.125},
    "numRequest": 2, "resolved": true, "host": "example.test",
    "ipAddress": ["127.0.0.1", "127.0.0.2"], "ip6Address": ["::1"], "port": 8443})");
  EXPECT_EQ(json.dump(), expected.dump());
  // One line, and it reads back to the same object.
  const std::string line = RetraTool::jsonLine(json);
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  EXPECT_EQ(Json::parse(line), json);
}

TEST(ResponseJsonTest, BodiesThatAreNoUtf8GoOutAsBase64) {
  auto response = Orb::allocate<Retra::Response>(Retra::RequestKey(Retra::GET, "http://h/"));
  response->bodyIs(Orb::String("\xff\xfe\x00\x01", 4));
  response->headerIs("X-Latin1", "caf\xe9");  // not UTF-8: replaced, not fatal

  const Json json = RetraTool::responseJson(*response);
  EXPECT_FALSE(json.contains("body"));
  EXPECT_EQ(json["bodyBase64"], "//4AAQ==");
  EXPECT_EQ(Json::parse(RetraTool::jsonLine(json))["header"]["X-Latin1"], "caf\xef\xbf\xbd");

  EXPECT_TRUE(RetraTool::isUtf8(std::string("nul\0 \xe2\x82\xac \xf0\x9f\x98\x80", 13)));
  // Cut short, overlong '/', a surrogate.
  for (const char* text : {"\xc3", "\xc0\xaf", "\xed\xa0\x80"})
    EXPECT_FALSE(RetraTool::isUtf8(text)) << text;
  EXPECT_EQ(RetraTool::base64("fo"), "Zm8=");
}

}  // namespace
