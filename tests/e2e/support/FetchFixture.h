#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Orb/Ptr.h"
#include "Orb/Seconds.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"
#include "engine/support/EngineFixture.h"

namespace E2eTest {

// A library root fetching from real servers on the loopback interface, as a host program uses
// it: requests go into `retraRequest`, the activity loop runs, responses are read from
// `retraResponse`. Tear-down (inherited) shuts the engine down, destroys the root and expects
// the loop to end with no libuv handle left.
//
//   rootIs("");                                     // no name server needed for IP literals
//   auto response = fetch(request(nginx.httpUrl("/small.txt")));
//   EXPECT_EQ(response->statusCode(), 200);
class FetchFixture : public EngineTest::RootFixture {
 protected:
  // Loop limit for a fetch: generous, a loaded sanitizer build must never hit it.
  static constexpr Orb::Seconds kFetchLimit = 30.0;

  // A request for `uri` with every default.
  [[nodiscard]] static Retra::Request request(const std::string& uri,
                                              Retra::Method method = Retra::GET);

  // Writes `request` and runs the loop until its response has finished a fetch; returns the
  // response. A failed wait is a test failure with the response's state; a response that never
  // appeared raises std::runtime_error, which fails the test.
  Orb::Ptr<Retra::Response> fetch(const Retra::Request& request, Orb::Seconds limit = kFetchLimit);
  // Writes every request, then runs the loop until all their responses have finished.
  std::vector<Orb::Ptr<Retra::Response>> fetchAll(const std::vector<Retra::Request>& requests,
                                                  Orb::Seconds limit = kFetchLimit);
  // Runs the loop until the response of `key` reads finished with a `lastUpdateTime` later than
  // `after` (the engine stamps it when a fetch ends, in success or failure); false (and a test
  // failure) otherwise. With `after` 0, the first fetch; with the last stamp, the next one.
  bool awaitUpdate(const Retra::RequestKey& key, Orb::Seconds after = 0.0,
                   Orb::Seconds limit = kFetchLimit);
  // Runs the loop until `done` holds; false (and a test failure naming `what`) otherwise.
  bool await(const std::function<bool()>& done, const std::string& what,
             Orb::Seconds limit = kFetchLimit);

  // The current time of the framework clock, which stamps responses.
  [[nodiscard]] static Orb::Seconds now();
  // "state=..., error=..., status=..., message=..." of the key's response, for failure messages.
  [[nodiscard]] std::string describe(const Retra::RequestKey& key) const;
};

}  // namespace E2eTest
