#include "e2e/support/FetchFixture.h"

#include <sstream>
#include <stdexcept>

#include "Orb/ActivityManager.h"

namespace E2eTest {

Retra::Request FetchFixture::request(const std::string& uri, Retra::Method method) {
  return Retra::Request(Retra::RequestKey(method, Orb::String(uri)));
}

Orb::Ptr<Retra::Response> FetchFixture::fetch(const Retra::Request& request, Orb::Seconds limit) {
  return fetchAll({request}, limit).front();
}

std::vector<Orb::Ptr<Retra::Response>> FetchFixture::fetchAll(
    const std::vector<Retra::Request>& requests, Orb::Seconds limit) {
  for (const Retra::Request& r : requests) requestIs(r);
  std::vector<Orb::Ptr<Retra::Response>> responses;
  for (const Retra::Request& r : requests) {
    awaitUpdate(r.requestKey(), 0.0, limit);
    Orb::Ptr<Retra::Response> found = response(r.requestKey());
    // Callers read the responses at once: end the test cleanly rather than on a null pointer.
    if (!found) throw std::runtime_error("no response for " + r.uri().str());
    responses.push_back(found);
  }
  return responses;
}

bool FetchFixture::awaitUpdate(const Retra::RequestKey& key, Orb::Seconds after,
                               Orb::Seconds limit) {
  const bool done = EngineTest::runUntil(
      [&] {
        Orb::Ptr<Retra::Response> r = response(key);
        return r && r->finished() && r->lastUpdateTime() > after;
      },
      limit);
  EXPECT_TRUE(done) << key.uri() << " was not updated after " << after << ": " << describe(key);
  return done;
}

bool FetchFixture::await(const std::function<bool()>& done, const std::string& what,
                         Orb::Seconds limit) {
  const bool held = EngineTest::runUntil(done, limit);
  EXPECT_TRUE(held) << "waited in vain for " << what;
  return held;
}

Orb::Seconds FetchFixture::now() {
  return Orb::activityManager()->currentTime();
}

std::string FetchFixture::describe(const Retra::RequestKey& key) const {
  Orb::Ptr<Retra::Response> r = response(key);
  if (!r) return "no response";
  std::ostringstream out;
  out << "state=" << r->requestState() << ", error=" << r->lastError()
      << ", status=" << r->statusCode() << ", message='" << r->lastErrorMessage() << "'"
      << ", lastUpdateTime=" << r->lastUpdateTime()
      << ", finishes=" << (r->counter() ? r->counter()->numFinish() : 0);
  return out.str();
}

}  // namespace E2eTest
