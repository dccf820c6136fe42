#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "Orb/Ptr.h"
#include "Orb/Seconds.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/engine/Root.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"

namespace EngineTest {

// Captures every "RetraLib" trace line (levels 0 to 9) while it lives.
class TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // The messages (what follows "<function>: ") written so far, in order.
  [[nodiscard]] std::vector<std::string> messages() const;
  void clear();

 private:
  std::ostringstream out_;
};

// A started engine keeps itself alive by design. Tests hand every engine they started (and shut
// down) to `retain`, which keeps it reachable until the process ends, so that the leak checker
// reports real leaks only.
void retain(const Orb::Ptr<Retra::RetraSm>& engine);

// Runs the activity loop until `done` holds, at most `timeout` seconds stretched by
// `RetraTest::timeScale()`; returns `done()`. `done` may depend on a server's threads.
bool runUntil(const std::function<bool()>& done, Orb::Seconds timeout = 10.0);
// Runs the loop until the framework holds no libuv handle; false if that takes over 5 seconds.
[[nodiscard]] bool runDry();

// A library root fetching from servers on the loopback interface, as a host program uses it:
// requests go into `retraRequest`, the loop runs, responses are read from `retraResponse`.
// Tear-down shuts the engine down, destroys the root and expects no libuv handle left.
//
//   rootIs("");                                     // no name server needed for IP literals
//   auto response = fetch(request(nginx.httpUrl("/small.txt")));
class RootFixture : public ::testing::Test {
 protected:
  // Loop limit for a fetch: generous, a loaded sanitizer build must never hit it.
  static constexpr Orb::Seconds kFetchLimit = 30.0;

  void TearDown() override;
  // Creates the root with DNSR_SERVERS set to `servers` ("127.0.0.1:port").
  void rootIs(const std::string& servers);

  [[nodiscard]] static Retra::Request request(const std::string& uri,
                                              Retra::Method method = Retra::GET);
  Retra::RequestKey requestIs(const std::string& uri, Retra::Method method = Retra::GET);
  void requestIs(const Retra::Request& request);
  void requestDel(const Retra::RequestKey& key);
  [[nodiscard]] Orb::Ptr<Retra::Response> response(const Retra::RequestKey& key) const;

  // Writes the requests, then runs the loop until all their responses have finished a fetch.
  // A response that never appeared raises std::runtime_error, which fails the test.
  std::vector<Orb::Ptr<Retra::Response>> fetchAll(const std::vector<Retra::Request>& requests);
  Orb::Ptr<Retra::Response> fetch(const Retra::Request& r) { return fetchAll({r}).front(); }
  // Runs the loop until the key's response is finished with a `lastUpdateTime` later than
  // `after` (the engine stamps it when a fetch ends); false and a test failure otherwise.
  bool awaitUpdate(const Retra::RequestKey& key, Orb::Seconds after = 0.0);
  // Runs the loop until `done` holds; false and a test failure naming `what` otherwise.
  bool await(const std::function<bool()>& done, const std::string& what);

  [[nodiscard]] static Orb::Seconds now();
  // "state=..., error=..., status=..." of the key's response, for failure messages.
  [[nodiscard]] std::string describe(const Retra::RequestKey& key) const;

  TraceCapture trace_;
  Orb::Ptr<Retra::Root> root_;
  Orb::Ptr<Retra::RetraSm> engine_;
};

}  // namespace EngineTest
