#pragma once

#include <functional>

#include <nlohmann/json.hpp>

#include "Orb/HashMap.h"
#include "Orb/Ptr.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/ResponseDir.h"

namespace RetraCtl {

// Reports every change of the responses of a `ResponseDir` as one JSON object, as it happens:
//
//   {"method": "GET", "uri": "http://h/a", "change": "statusCode", "statusCode": 200}
//   {"method": "GET", "uri": "http://h/a", "change": "body", "bodyBytes": 1024}
//   {"method": "GET", "uri": "http://h/a", "change": "added"}          a new response
//   {"method": "GET", "uri": "http://h/a", "change": "removed"}
//   {"method": "GET", "uri": "http://h/a", "change": "snapshot", "response": {...}}
//
// The changed attribute's value is its member of RetraTool::responseJson (collections whole),
// except the body, which is reported by its size: `show` gives the body itself.
//
// While muted (a mirror being filled from the service's snapshots) nothing is reported;
// `reportSnapshots()` then reports each response whole. The watch holds the directory.
//
//   auto watch = ResponseChangeWatch::ResponseChangeWatchIs(root->retraResponse(), print);
class ResponseChangeWatch : public Retra::ResponseDir::NotifieeConst {
 public:
  using Report = std::function<void(const nlohmann::ordered_json& change)>;

  [[nodiscard]] static Orb::Ptr<ResponseChangeWatch> ResponseChangeWatchIs(
      const Orb::Ptr<Retra::ResponseDir>& dir, Report report);

  explicit ResponseChangeWatch(Report report);

  void mutedIs(bool muted) { muted_ = muted; }
  void reportSnapshots();

  void onResponse(const Retra::RequestKey& key) override;

 protected:
  ~ResponseChangeWatch() override;

 private:
  class ResponseObserver;

  void observe(const Orb::Ptr<Retra::Response>& response);
  void changed(const Retra::Response& response, const char* attribute);
  [[nodiscard]] static nlohmann::ordered_json changeOf(const Retra::RequestKey& key,
                                                       const char* change);

  Report report_;
  bool muted_ = false;
  Orb::HashMap<Retra::RequestKey, Orb::Ptr<ResponseObserver>> observers_;
};

}  // namespace RetraCtl
