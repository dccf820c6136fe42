#include "support/HttpbinServer.h"

#include <gtest/gtest.h>

#include <cctype>

#include "harness/support/BlockingFetch.h"
#include "support/FreePort.h"

namespace {

using HarnessTest::BlockingFetch;

TEST(HttpbinServerTest, EchoesRequestsAndChecksDigestAuth) {
  uint16_t port;
  {
    RetraTest::HttpbinServer httpbin;
    port = httpbin.port();

    BlockingFetch headers(httpbin.url("/headers"));
    curl_slist* extra = curl_slist_append(nullptr, "X-Retra-Test: echoed");
    headers.option(CURLOPT_HTTPHEADER, extra).option(CURLOPT_USERAGENT, "retra-harness/1");
    EXPECT_EQ(headers.perform(), CURLE_OK);
    curl_slist_free_all(extra);
    EXPECT_EQ(headers.status(), 200);
    EXPECT_NE(headers.body().find("\"X-Retra-Test\":\"echoed\""), std::string::npos)
        << headers.body();
    EXPECT_NE(headers.body().find("\"User-Agent\":\"retra-harness/1\""), std::string::npos);

    BlockingFetch post(httpbin.url("/post"));
    curl_slist* json = curl_slist_append(nullptr, "Content-Type: application/json");
    post.option(CURLOPT_POSTFIELDS, "{\"n\":1}").option(CURLOPT_HTTPHEADER, json);
    EXPECT_EQ(post.perform(), CURLE_OK);
    curl_slist_free_all(json);
    EXPECT_EQ(post.status(), 200);
    EXPECT_NE(post.body().find("\"json\":{\"n\":1}"), std::string::npos) << post.body();

    for (const char* method : {"PUT", "PATCH", "DELETE"}) {
      std::string path = "/" + std::string(method);
      for (char& c : path) c = char(std::tolower(c));
      BlockingFetch other(httpbin.url(path));
      other.option(CURLOPT_CUSTOMREQUEST, method);
      EXPECT_EQ(other.perform(), CURLE_OK);
      EXPECT_EQ(other.status(), 200) << method;
    }
    BlockingFetch anything(httpbin.url("/anything/x?a=b"));
    EXPECT_EQ(anything.perform(), CURLE_OK);
    EXPECT_NE(anything.body().find("\"args\":{\"a\":\"b\"}"), std::string::npos) << anything.body();

    BlockingFetch teapot(httpbin.url("/status/418"));
    EXPECT_EQ(teapot.perform(), CURLE_OK);
    EXPECT_EQ(teapot.status(), 418);

    for (const char* credentials : {"user:passwd", "user:wrong"}) {
      BlockingFetch digest(httpbin.url("/digest-auth/auth/user/passwd"));
      digest.option(CURLOPT_HTTPAUTH, long(CURLAUTH_DIGEST)).option(CURLOPT_USERPWD, credentials);
      EXPECT_EQ(digest.perform(), CURLE_OK);
      bool right = std::string(credentials) == "user:passwd";
      EXPECT_EQ(digest.status(), right ? 200 : 401) << credentials;
      if (right) {
        EXPECT_NE(digest.body().find("\"authenticated\":true"), std::string::npos);
      }
    }

    BlockingFetch slow(httpbin.url("/delay/3"));
    slow.option(CURLOPT_TIMEOUT_MS, 200L);
    EXPECT_EQ(slow.perform(), CURLE_OPERATION_TIMEDOUT);
  }
  EXPECT_FALSE(RetraTest::FreePort::accepts(port)) << "httpbin outlived its fixture";
}

}  // namespace
