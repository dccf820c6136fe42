#pragma once

#include <string>
#include <vector>

#include "Dnsr/ResolutionRecordDir.h"
#include "Dnsr/ResolutionRequestDir.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestDir.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"
#include "Retra/model/ResponseDir.h"
#include "dnsr/support/Dnsmasq.h"
#include "engine/support/EngineFixture.h"
#include "support/LoopbackHttpServer.h"

namespace EngineTest {

// How many trace lines at `level` end with `suffix` (request lines begin with their machine's
// address, so tests match their ends).
[[nodiscard]] size_t countEndingWith(const TraceCapture& trace, unsigned level,
                                     const std::string& suffix);

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
  // The server's record of the request for `target` (path and query), or an empty one.
  [[nodiscard]] RetraTest::LoopbackHttpServer::Received receivedFor(
      const std::string& target) const;

  DnsrTest::SilentServer silent_;
  RetraTest::LoopbackHttpServer server_;
};

// Engines built by hand over four directories of the test's own, with no resolver service:
// the test writes resolver records itself. Tear-down shuts every engine down and runs the loop
// dry.
class DirectoryFixture : public ::testing::Test {
 protected:
  void TearDown() override;

  // A new engine over the fixture's directories, on the activity manager's clock.
  Orb::Ptr<Retra::RetraSm> engineIs();
  // Puts a default request for `uri` into the request directory.
  Retra::RequestKey requestIs(const char* uri);
  [[nodiscard]] Orb::Ptr<Retra::Response> response(const Retra::RequestKey& key) const {
    return responses_->response(key);
  }

  TraceCapture trace_;
  Orb::Ptr<Retra::RequestDir> requests_ = Orb::allocate<Retra::RequestDir>("retraRequest");
  Orb::Ptr<Retra::ResponseDir> responses_ = Orb::allocate<Retra::ResponseDir>("retraResponse");
  Orb::Ptr<Dnsr::ResolutionRequestDir> dnsrRequests_ =
      Orb::allocate<Dnsr::ResolutionRequestDir>("dnsrRequest");
  Orb::Ptr<Dnsr::ResolutionRecordDir> dnsrRecords_ =
      Orb::allocate<Dnsr::ResolutionRecordDir>("dnsrRecord");
  std::vector<Orb::Ptr<Retra::RetraSm>> engines_;
};

}  // namespace EngineTest
