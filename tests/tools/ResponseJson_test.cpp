// A response as JSON: every attribute under its own name, in declaration order, with the forms
// the tool promises for enumerations, collections, children and bodies.

#include "retra-fetch/ResponseJson.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Orb/Ptr.h"

namespace {

using Json = nlohmann::ordered_json;

std::vector<std::string> keysOf(const Json& object) {
  std::vector<std::string> keys;
  for (const auto& item : object.items()) keys.push_back(item.key());
  return keys;
}

// The words of `text`, split at blanks.
std::vector<std::string> wordsOf(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

// Every attribute of a response, derived ones included, as the library declares them.
const std::vector<std::string> kResponseKeys = wordsOf(
    "requestKey method uri requestState authType username password sslVerifyPeer pinnedPublicKey "
    "outputPath timeoutConnect timeoutRequest timeoutRefresh debug finished scheme statusCode "
    "effectiveUrl lastError lastErrorMessage lastUpdateTime lastChangeTime requestheader header "
    "body contentType contentLengthUpload contentLengthDownload counter timer numRequest resolved "
    "host ipAddress ip6Address port");

TEST(ResponseJsonTest, EveryAttributeAppearsInDeclarationOrderWithItsValue) {
  auto response = Orb::allocate<Retra::Response>(
      Retra::RequestKey(Retra::DELETE, "https://example.test:8443/item"));
  response->requestStateIs(Retra::stateFinished);
  response->authTypeIs(Retra::authDigest);
  response->usernameIs("ann");
  response->sslVerifyPeerIs(true);
  response->timeoutRefreshIs(30);
  response->schemeIs(Retra::https);
  response->statusCodeIs(204);
  response->effectiveUrlIs("https://example.test:8443/item");
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

  const Json json = RetraFetch::responseJson(*response);
  EXPECT_EQ(keysOf(json), kResponseKeys);
  EXPECT_EQ(json["requestKey"],
            (Json{{"method", "DELETE"}, {"uri", "https://example.test:8443/item"}}));
  EXPECT_EQ(json["method"], "DELETE");
  EXPECT_EQ(json["uri"], "https://example.test:8443/item");
  EXPECT_EQ(json["requestState"], "stateFinished");
  EXPECT_EQ(json["authType"], "authDigest");
  EXPECT_EQ(json["username"], "ann");
  EXPECT_EQ(json["sslVerifyPeer"], true);
  EXPECT_EQ(json["timeoutConnect"], 60);
  EXPECT_EQ(json["timeoutRefresh"], 30);
  EXPECT_EQ(json["finished"], true);
  EXPECT_EQ(json["scheme"], "https");
  EXPECT_EQ(json["statusCode"], 204);
  EXPECT_EQ(json["lastError"], "errHttpStatusCode");
  EXPECT_EQ(json["lastUpdateTime"], 1700000000.25);
  EXPECT_EQ(json["lastChangeTime"], 0.0);
  EXPECT_EQ(json["requestheader"], (Json{{"X-Test", "yes"}}));
  EXPECT_EQ(json["header"], (Json{{"Content-Type", "text/plain"}, {"Server", "nginx"}}));
  EXPECT_EQ(keysOf(json["header"]), (std::vector<std::string>{"Content-Type", "Server"}));
  EXPECT_EQ(json["body"], "caf\xc3\xa9");
  EXPECT_EQ(json["contentLengthUpload"], -1);
  EXPECT_EQ(json["contentLengthDownload"], 5);
  EXPECT_EQ(keysOf(json["counter"]),
            wordsOf("numConnect numRedirect numFinish speedDownload speedUpload bytesDownload "
                    "bytesUpload bytesHeaderDownload bytesRequestUpload"));
  EXPECT_EQ(json["counter"]["bytesDownload"], 5);
  EXPECT_EQ(json["counter"]["speedDownload"], 2.5);
  EXPECT_EQ(keysOf(json["timer"]),
            wordsOf("hostLookup connect sslHandshake request response total"));
  EXPECT_EQ(json["timer"]["total"], 0.125);
  EXPECT_EQ(json["numRequest"], 2);
  EXPECT_EQ(json["resolved"], true);
  EXPECT_EQ(json["host"], "example.test");
  EXPECT_EQ(json["ipAddress"], (Json{"127.0.0.1", "127.0.0.2"}));
  EXPECT_EQ(json["ip6Address"], (Json{"::1"}));
  EXPECT_EQ(json["port"], 8443);

  // One line, and it reads back to the same object.
  const std::string line = RetraFetch::jsonLine(json);
  ASSERT_FALSE(line.empty());
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  EXPECT_EQ(Json::parse(line), json);
}

TEST(ResponseJsonTest, BinaryBodyIsBase64AndFreshResponseHasZeroChildren) {
  auto response = Orb::allocate<Retra::Response>(Retra::RequestKey(Retra::GET, "http://h/"));
  response->bodyIs(Orb::String("\xff\xfe\x00\x01", 4));
  response->headerIs("X-Latin1", "caf\xe9");  // not UTF-8: replaced, not fatal

  const Json json = RetraFetch::responseJson(*response);
  EXPECT_FALSE(json.contains("body"));
  EXPECT_EQ(json["bodyBase64"], "//4AAQ==");
  EXPECT_EQ(json.size(), kResponseKeys.size());
  EXPECT_EQ(json["counter"]["numFinish"], 0);
  EXPECT_EQ(json["timer"]["total"], 0.0);
  EXPECT_EQ(json["ipAddress"], Json::array());
  EXPECT_EQ(json["requestheader"], Json::object());
  EXPECT_EQ(json["requestState"], "stateNotInit");
  EXPECT_EQ(json["finished"], false);

  const Json back = Json::parse(RetraFetch::jsonLine(json));
  EXPECT_EQ(back["header"]["X-Latin1"], "caf\xef\xbf\xbd");
}

TEST(ResponseJsonTest, Utf8CheckRejectsMalformedSequencesAndBase64FollowsTheStandard) {
  for (const std::string text : {"", "plain ascii", "\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"}) {
    EXPECT_TRUE(RetraFetch::isUtf8(text)) << text;
  }
  EXPECT_TRUE(RetraFetch::isUtf8(std::string("nul\0inside", 10)));
  // Cut short, overlong '/', a surrogate, above U+10FFFF, a lone continuation, a bad one.
  for (const char* text :
       {"\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\x80", "\xe2\x28\xa1"}) {
    EXPECT_FALSE(RetraFetch::isUtf8(text)) << text;
  }
  const std::pair<std::string, const char*> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"},
                                                         {"\xfb\xff", "+/8="}};
  for (const auto& [bytes, encoded] : vectors) EXPECT_EQ(RetraFetch::base64(bytes), encoded);
}

}  // namespace
