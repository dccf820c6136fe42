// The service at scale: a thousand clients connected at once write a hundred thousand requests
// over the socket; every write is acknowledged and every request fetched.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "service/support/ServiceProcess.h"
#include "support/NginxServer.h"

namespace {

using Retra::Wire::ReplyCode;
using ServiceTest::RawClient;

constexpr int kClients = 1000;
constexpr int kRequestsPerClient = 100;

TEST(ServiceScaleTest, AThousandClientsWriteAHundredThousandRequestsAllAcknowledgedAllFetched) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_GE(limit.rlim_cur, rlim_t(kClients + 100)) << "the descriptor limit is too low";

  RetraTest::NginxServer nginx;
  ServiceTest::ServiceProcess service({"--max-requests", "200000"});
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.push_back(std::make_unique<RawClient>(service.socketPath()));
    ASSERT_TRUE(clients.back()->handshake()) << "client " << c << "\n" << service.log();
  }
  for (int c = 0; c < kClients; ++c) {
    std::string frames;
    for (int i = 0; i < kRequestsPerClient; ++i) {
      Retra::Request request(Retra::RequestKey(
          Retra::GET,
          nginx.httpUrl("/small.txt?c=" + std::to_string(c) + "&i=" + std::to_string(i))));
      request.timeoutRefreshIs(86400);
      // Every request waits inside libcurl from its dispatch: the batch's last ones wait for
      // most of it, longer than the default minute on a loaded machine.
      request.timeoutConnectIs(900);
      request.timeoutRequestIs(900);
      Retra::Wire::appendFrame(frames,
                               Retra::Wire::encodeWriteRequest(uint64_t(i + 1), false, request));
    }
    clients[size_t(c)]->sendBytes(frames);
  }
  int acknowledged = 0;
  for (auto& client : clients) {
    for (int i = 0; i < kRequestsPerClient; ++i) {
      auto reply = client->nextReply(120);
      ASSERT_TRUE(reply) << service.log();
      ASSERT_EQ(reply->code, ReplyCode::ok) << reply->text;
      ++acknowledged;
    }
  }
  EXPECT_EQ(acknowledged, kClients * kRequestsPerClient);
  clients.clear();

  // Every request fetched: the listing shows each finished with 200.
  size_t finished = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(10);
  while (std::chrono::steady_clock::now() < deadline) {
    RawClient lister(service.socketPath());
    ASSERT_TRUE(lister.handshake());
    lister.sendFrame(Retra::Wire::encodeList(1, false));
    ASSERT_TRUE(lister.nextReply(120));
    ASSERT_EQ(lister.listing.size(), size_t(kClients * kRequestsPerClient));
    finished = 0;
    for (const auto& item : lister.listing) {
      if (item.state == Retra::stateFinished && item.statusCode == 200) ++finished;
    }
    if (finished == lister.listing.size()) break;
    std::this_thread::sleep_for(std::chrono::seconds(2));
  }
  EXPECT_EQ(finished, size_t(kClients * kRequestsPerClient)) << [&] {
    RawClient lister(service.socketPath());
    lister.handshake();
    lister.sendFrame(Retra::Wire::encodeList(1, false));
    lister.nextReply(120);
    std::map<std::string, int> outcomes;  // what the others show
    for (const auto& item : lister.listing) {
      ++outcomes[std::to_string(item.state) + "/" + std::to_string(item.statusCode) + "/" +
                 std::to_string(item.lastError)];
    }
    std::string text;
    for (const auto& [outcome, count] : outcomes)
      text += outcome + ": " + std::to_string(count) + "\n";
    return text;
  }();
  EXPECT_TRUE(service.isRunning());
}

}  // namespace
