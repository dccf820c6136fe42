// Fetches from httpbin, which echoes each request back as JSON: what the library sends for each
// method, which headers go out, and digest authentication.

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "engine/support/EngineFixture.h"
#include "support/HttpbinServer.h"

namespace {

using Retra::Response;

// The string member `name` of httpbin's compact JSON (first occurrence), or "<absent>".
std::string jsonString(const Orb::String& json, const std::string& name) {
  std::smatch match;
  const std::string text = json.str();
  const std::regex member("\"" + name + "\":\\s*\"((?:[^\"\\\\]|\\\\.)*)\"");
  return std::regex_search(text, match, member) ? match[1].str() : "<absent>";
}

class HttpbinFetchTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override { rootIs(""); }

  RetraTest::HttpbinServer httpbin_;
};

TEST_F(HttpbinFetchTest, MethodsBodiesHeadersAndCredentialsGoOutAsRequested) {
  const std::string payload = "payload of the request";
  struct Case {
    Retra::Method method;
    std::string body, sentMethod, sentData;
  };
  // HEAD and OPTIONS set no method of their own, so libcurl sends a GET; only POST and PUT carry
  // the request body, PATCH goes out without it; a POST without body sets only the body's size,
  // which leaves libcurl's GET alone.
  const Case cases[] = {{Retra::GET, "", "GET", ""},
                        {Retra::HEAD, "", "GET", ""},
                        {Retra::POST, payload, "POST", payload},
                        {Retra::PUT, payload, "PUT", payload},
                        {Retra::DELETE, "x", "DELETE", ""},
                        {Retra::PATCH, payload, "PATCH", ""},
                        {Retra::OPTIONS, "", "GET", ""},
                        {Retra::POST, "", "GET", ""}};
  std::vector<Retra::Request> requests;
  for (size_t i = 0; i < std::size(cases); ++i) {
    Retra::Request r = request(httpbin_.url("/anything?" + std::to_string(i)), cases[i].method);
    r.bodyIs(cases[i].body);
    r.headerIs("Content-Type", "text/plain");
    requests.push_back(r);
  }
  Retra::Request probe = request(httpbin_.url("/headers?probe"));
  probe.headerIs("X-Retra-Probe", "first: value");
  probe.debugIs(true);  // libcurl's verbose output into the trace
  Retra::Request agent = request(httpbin_.url("/headers?agent"));
  agent.headerIs("User-Agent", "RetraTest/2.0");
  // An empty value leaves the default set, but its line ("User-Agent: ") goes out too, and
  // libcurl takes a header line without content as "send no such header".
  Retra::Request blank = request(httpbin_.url("/headers?blank"));
  blank.headerIs("User-Agent", "");
  requests.insert(requests.end(), {probe, agent, blank});
  // The route names the credentials it accepts (it fails on a query string).
  for (const char* user : {"user", "other"}) {
    Retra::Request r = request(httpbin_.url(std::string("/digest-auth/auth/") + user + "/passwd"));
    r.authTypeIs(Retra::authDigest);
    r.usernameIs(user);
    r.passwordIs(user == std::string("user") ? "passwd" : "wrong");
    requests.push_back(r);
  }

  auto responses = fetchAll(requests);

  for (size_t i = 0; i < std::size(cases); ++i) {
    const Orb::Ptr<Response>& r = responses[i];
    SCOPED_TRACE(r->uri());
    EXPECT_EQ(r->statusCode(), 200);
    EXPECT_EQ(r->lastError(), Retra::errNone);
    EXPECT_EQ(r->contentType(), "application/json");
    EXPECT_EQ(jsonString(r->body(), "method"), cases[i].sentMethod) << r->body();
    EXPECT_EQ(jsonString(r->body(), "data"), cases[i].sentData);
    EXPECT_EQ(r->counter()->bytesUpload(), cases[i].sentData.size());
  }
  const size_t next = std::size(cases);
  EXPECT_EQ(jsonString(responses[next]->body(), "User-Agent"), "Mozilla/5.0 Retra/1.0.0");
  EXPECT_EQ(jsonString(responses[next]->body(), "X-Retra-Probe"), "first: value");
  EXPECT_EQ(responses[next]->requestheader("X-Retra-Probe"), "first: value");
  EXPECT_TRUE(responses[next]->debug());
  EXPECT_EQ(jsonString(responses[next + 1]->body(), "User-Agent"), "RetraTest/2.0");
  EXPECT_EQ(jsonString(responses[next + 2]->body(), "User-Agent"), "<absent>");
  EXPECT_EQ(responses[next + 3]->statusCode(), 200);
  EXPECT_NE(responses[next + 3]->body().view().find("\"authenticated\":true"), std::string::npos);
  EXPECT_EQ(responses[next + 4]->statusCode(), 401);
  EXPECT_EQ(responses[next + 4]->lastError(), Retra::errHttpStatusCode);
}

}  // namespace
