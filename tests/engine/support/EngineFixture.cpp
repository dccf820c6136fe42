#include "engine/support/EngineFixture.h"

#include <chrono>
#include <stdexcept>

#include "Orb/ActivityManager.h"
#include "Orb/Trace.h"
#include "support/TimeScale.h"

namespace EngineTest {

TraceCapture::TraceCapture() {
  Orb::TraceHandle::outputIs(&out_);
  Orb::TraceHandle::configurationIs("RetraLib/0-9");
}

TraceCapture::~TraceCapture() {
  Orb::TraceHandle::configurationIs("");
  Orb::TraceHandle::outputIs(nullptr);
}

std::vector<std::string> TraceCapture::messages() const {
  // "<time> <facility> <level> <file>:<line> <function>: <message>"
  std::vector<std::string> messages;
  std::istringstream in(out_.str());
  for (std::string text; std::getline(in, text);) {
    std::istringstream fields(text);
    std::string time, facility, level, where;
    fields >> time >> facility >> level >> where;
    const size_t colon = text.find(": ", text.find(where) + where.size() + 1);
    if (colon != std::string::npos) messages.push_back(text.substr(colon + 2));
  }
  return messages;
}

void TraceCapture::clear() {
  out_.str("");
  out_.clear();
}

void retain(const Orb::Ptr<Retra::RetraSm>& engine) {
  static auto* engines = new std::vector<Orb::Ptr<Retra::RetraSm>>;  // reachable until exit
  engines->push_back(engine);
}

bool runUntil(const std::function<bool()>& done, Orb::Seconds timeout) {
  // A turn waits for the loop's own events only: a condition a server's thread makes true would
  // go unnoticed until the time limit. Short turns look at it again soon enough.
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration<double>(timeout * RetraTest::timeScale());
  while (!Orb::activityManager()->runUntil(done, 0.02)) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
  }
  return true;
}

bool runDry() {
  Orb::ActivityManager* manager = Orb::activityManager();
  return runUntil([manager] { return manager->liveHandles() == 0; }, 5.0);
}

void RootFixture::TearDown() {
  if (root_ && root_->retraSm()) engine_ = root_->retraSm();
  if (engine_) {
    engine_->shutdown();
    retain(engine_);
    engine_ = nullptr;
  }
  root_ = nullptr;
  ::unsetenv("DNSR_SERVERS");
  EXPECT_TRUE(runDry()) << Orb::activityManager()->liveHandles() << " libuv handles left";
}

void RootFixture::rootIs(const std::string& servers) {
  ::setenv("DNSR_SERVERS", servers.c_str(), 1);
  root_ = Orb::allocate<Retra::Root>("retra");
  engine_ = root_->retraSm();
}

Retra::Request RootFixture::request(const std::string& uri, Retra::Method method) {
  return Retra::Request(Retra::RequestKey(method, Orb::String(uri)));
}

Retra::RequestKey RootFixture::requestIs(const std::string& uri, Retra::Method method) {
  const Retra::Request r = request(uri, method);
  requestIs(r);
  return r.requestKey();
}

void RootFixture::requestIs(const Retra::Request& request) {
  root_->retraRequest()->requestIs(request);
}

void RootFixture::requestDel(const Retra::RequestKey& key) {
  (void)root_->retraRequest()->requestDel(key);
}

Orb::Ptr<Retra::Response> RootFixture::response(const Retra::RequestKey& key) const {
  return root_->retraResponse()->response(key);
}

std::vector<Orb::Ptr<Retra::Response>> RootFixture::fetchAll(
    const std::vector<Retra::Request>& requests) {
  for (const Retra::Request& r : requests) requestIs(r);
  std::vector<Orb::Ptr<Retra::Response>> responses;
  for (const Retra::Request& r : requests) {
    awaitUpdate(r.requestKey());
    responses.push_back(response(r.requestKey()));
    if (!responses.back()) throw std::runtime_error("no response for " + r.uri().str());
  }
  return responses;
}

bool RootFixture::awaitUpdate(const Retra::RequestKey& key, Orb::Seconds after) {
  const bool done = runUntil(
      [&] {
        Orb::Ptr<Retra::Response> r = response(key);
        return r && r->finished() && r->lastUpdateTime() > after;
      },
      kFetchLimit);
  EXPECT_TRUE(done) << key.uri() << " was not updated after " << after << ": " << describe(key);
  return done;
}

bool RootFixture::await(const std::function<bool()>& done, const std::string& what) {
  const bool held = runUntil(done, kFetchLimit);
  EXPECT_TRUE(held) << "waited in vain for " << what;
  return held;
}

Orb::Seconds RootFixture::now() {
  return Orb::activityManager()->currentTime();
}

std::string RootFixture::describe(const Retra::RequestKey& key) const {
  Orb::Ptr<Retra::Response> r = response(key);
  if (!r) return "no response";
  std::ostringstream out;
  out << "state=" << r->requestState() << ", error=" << r->lastError()
      << ", status=" << r->statusCode() << ", message='" << r->lastErrorMessage() << "'";
  return out.str();
}

}  // namespace EngineTest
