#pragma once

#include <string>

#include "Retra/model/Request.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"
#include "dnsr/support/Dnsmasq.h"
#include "engine/support/EngineFixture.h"
#include "support/LoopbackHttpServer.h"

namespace EngineTest {

// A root whose resolver never answers, and a loopback HTTP server for its transfers. Requests
// for 127.0.0.1 are dispatched at once; requests for host names wait until the test releases
// them (`releasedTo`).
//
//   const Retra::RequestKey key = requestIs(server_.url("/a"));
//   ASSERT_TRUE(finished(key));
//   EXPECT_EQ(server_.requests().at(0).method, "GET");
class TransferFixture : public RootFixture {
 protected:
  void SetUp() override { rootIs(silent_.server()); }

  // A request for `uri` with `method` and the given body, otherwise default.
  [[nodiscard]] static Retra::Request requestOf(const std::string& uri,
                                                Retra::Method method = Retra::GET,
                                                const std::string& body = "");
  // Runs the loop until the key's response is finished (at most `timeout` seconds).
  [[nodiscard]] bool finished(const Retra::RequestKey& key, Orb::Seconds timeout = 10.0);
  // Plays the resolver for a response waiting for its host: gives it `ip4` and `ip6` (either
  // may be empty) and makes it ready, which dispatches it.
  void releasedTo(const Retra::RequestKey& key, const std::string& ip4, const std::string& ip6);

  DnsrTest::SilentServer silent_;
  RetraTest::LoopbackHttpServer server_;
};

}  // namespace EngineTest
