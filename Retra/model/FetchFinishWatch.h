#pragma once

#include <functional>

#include "Orb/HashMap.h"
#include "Orb/Ptr.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"
#include "Retra/model/ResponseDir.h"

namespace Retra {

// Tells a host each time a response of a `ResponseDir` finishes a fetch: the handler runs once
// whenever a response's fetch ends, its `requestState` turning `stateFinished` (first fetch,
// refresh, reset; but see below for fetches cut short), and
// once at once for a response that is already finished when the watch first sees it (present
// when the watch starts, or added finished, as a remote mirror adds a response it catches up
// on). The directory may be a `Root`'s or a `RemoteRoot`'s mirror alike.
//
// A fetch has finished when the engine has stamped it: `stateFinished` with `lastUpdateTime`
// set, which a watch created after the library's `Root` always sees (the engine's observers come
// first). A fetch cut short because its request was withdrawn or replaced also leaves its response
// in `stateFinished`, unstamped: that is not reported, so a response deleted before it finishes is
// never reported. The handler runs inside the notification and reads the response as the fetch
// left it (a refresh may reset it before the loop turn ends). It may write requests, delete
// responses or drop the watch.
//
// Ownership: the host holds the watch; the watch holds the directory and follows each of its
// responses. Dropping the last reference stops the callbacks.
//
//   auto watch = Retra::FetchFinishWatch::FetchFinishWatchIs(
//       root->retraResponse(), [](const Retra::Response& response) {
//         std::cout << response.uri() << " -> " << response.statusCode() << "\n";
//       });
//   root->retraRequest()->requestIs(Retra::Request(key));
//   Orb::activityManager()->run();
class FetchFinishWatch : public ResponseDir::NotifieeConst {
 public:
  using FinishHandler = std::function<void(const Response&)>;

  // A watch over `dir` calling `onFinish`; null `dir` raises the range exception.
  [[nodiscard]] static Orb::Ptr<FetchFinishWatch> FetchFinishWatchIs(
      const Orb::Ptr<ResponseDir>& dir, FinishHandler onFinish);

  explicit FetchFinishWatch(FinishHandler onFinish);

  using ResponseDir::NotifieeConst::onResponse;
  void onResponse(const RequestKey& key) override;

 protected:
  ~FetchFinishWatch() override;
  void onNotifierConnected() override;

 private:
  class ResponseReactor;

  void handleFinished(const Response& response);

  FinishHandler onFinish_;
  Orb::HashMap<RequestKey, Orb::Ptr<ResponseReactor>> reactors_;
};

}  // namespace Retra
