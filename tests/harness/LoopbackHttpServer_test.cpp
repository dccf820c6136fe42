#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "support/LoopbackHttpServer.h"
#include "support/LoopbackSocket.h"

namespace {

size_t collect(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

// Fetches with a plain blocking easy handle: the harness is checked independently of the engine.
long fetch(const std::string& url, std::string* body, const char* post = nullptr) {
  CURL* easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, body);
  if (post) curl_easy_setopt(easy, CURLOPT_POSTFIELDS, post);
  long status = 0;
  if (curl_easy_perform(easy) == CURLE_OK) curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_cleanup(easy);
  return status;
}

TEST(LoopbackHttpServerTest, AnswersRoutesAndRecordsRequests) {
  for (bool ipv6 : {false, true}) {
    RetraTest::LoopbackHttpServer server(ipv6);
    server.routeIs("/hello", {200, {{"X-Test", "yes"}}, "hi there"});
    std::string body;
    EXPECT_EQ(fetch(server.url("/hello?x=1"), &body), 200);
    EXPECT_EQ(body, "hi there");
    body.clear();
    EXPECT_EQ(fetch(server.url("/missing"), &body), 404);
    EXPECT_EQ(fetch(server.url("/hello"), &body, "a=b"), 200);
    auto received = server.requests();
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[0].method, "GET");
    EXPECT_EQ(received[0].target, "/hello?x=1");
    EXPECT_EQ(received[2].method, "POST");
    EXPECT_EQ(received[2].body, "a=b");
    EXPECT_EQ(received[2].headers.at("content-length"), "3");
    EXPECT_EQ(server.connections(), 3u);
  }
}

TEST(LoopbackHttpServerTest, HandlersWriteRawBytes) {
  RetraTest::LoopbackHttpServer server;
  server.routeIs("/cut", [](int socket, const RetraTest::LoopbackHttpServer::Received&) {
    RetraTest::LoopbackHttpServer::sendAll(
        socket, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly part");
  });
  std::string body;
  EXPECT_EQ(fetch(server.url("/cut"), &body), 0);  // the transfer fails: body cut short
  EXPECT_EQ(body, "only part");
}

}  // namespace

namespace {

TEST(LoopbackHttpServerTest, SlowHandlersHoldUpNoOtherConnectionAndEndAtDestruction) {
  std::string silentReply = "unset";
  std::thread silentClient;
  {
    RetraTest::LoopbackHttpServer server;
    server.routeIs("/wait", [&server](int, const RetraTest::LoopbackHttpServer::Received&) {
      server.waitUntilStopping();
    });
    server.routeIs("/quick", {200, {}, "quick"});
    silentClient = std::thread([&] {
      silentReply = RetraTest::LoopbackSocket::exchange(server.port(),
                                                        "GET /wait HTTP/1.1\r\nHost: x\r\n\r\n",
                                                        false, std::chrono::milliseconds(60000));
    });
    while (server.requests().empty()) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    std::string body;
    EXPECT_EQ(fetch(server.url("/quick"), &body), 200);
    EXPECT_EQ(body, "quick");
    EXPECT_EQ(server.connections(), 2u);

    // A POST that asks to continue is told to, rather than left to wait for a timeout.
    std::string reply = RetraTest::LoopbackSocket::exchange(
        server.port(),
        "POST /quick HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\n",
        false, std::chrono::milliseconds(1000));
    EXPECT_EQ(reply.rfind("HTTP/1.1 100 Continue\r\n\r\n", 0), 0u) << reply;
  }
  silentClient.join();
  EXPECT_EQ(silentReply, "");  // closed by the server's destruction, with no answer
}

}  // namespace
