#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "Orb/Ptr.h"
#include "Orb/Seconds.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/engine/Root.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"
#include "engine/support/TraceCapture.h"

namespace EngineTest {

// A started engine keeps itself alive by design. Tests hand every engine they started (and shut
// down) to `retain`, which keeps it reachable until the process ends, so that the leak checker
// reports real leaks only.
void retain(const Orb::Ptr<Retra::RetraSm>& engine);

// Runs the activity loop until `done` holds, at most `timeout` seconds (stretched by
// `RetraTest::timeScale()`); returns `done()`.
bool runUntil(const std::function<bool()>& done, Orb::Seconds timeout = 10.0);
// Runs the loop until the framework holds no libuv handle; false if that takes over 5 seconds
// (stretched by `RetraTest::timeScale()`).
[[nodiscard]] bool runDry();

// A fixture around a `Root` whose resolver asks the given name servers. It captures the
// library's trace from the start. Tear-down shuts the engine down, destroys the root, and runs
// the loop dry, expecting no libuv handle left.
class RootFixture : public ::testing::Test {
 protected:
  void TearDown() override;

  // Creates the root with DNSR_SERVERS set to `servers` ("127.0.0.1:port").
  void rootIs(const std::string& servers);

  // Puts a request with default settings for `uri` into the request directory.
  Retra::RequestKey requestIs(const std::string& uri, Retra::Method method = Retra::GET);
  void requestIs(const Retra::Request& request);
  void requestDel(const Retra::RequestKey& key);
  [[nodiscard]] Orb::Ptr<Retra::Response> response(const std::string& uri,
                                                   Retra::Method method = Retra::GET) const;
  [[nodiscard]] Orb::Ptr<Retra::Response> response(const Retra::RequestKey& key) const;
  // The resolver request count of `host` (0 without entry).
  [[nodiscard]] unsigned resolverRequest(const std::string& host) const;

  TraceCapture trace_;
  Orb::Ptr<Retra::Root> root_;
  Orb::Ptr<Retra::RetraSm> engine_;
};

}  // namespace EngineTest
