#include "retra-ctl/ResponseChangeWatch.h"

#include <cstring>

#include "toolkit/ResponseJson.h"

namespace RetraCtl {

// Hears every attribute of one response: each callback names its attribute.
#define RETRA_CTL_CHANGE(kind, ...) RETRA_CTL_CHANGE_##kind(__VA_ARGS__)
#define RETRA_CTL_CHANGE_FIXED(...)
#define RETRA_CTL_CHANGE_DERIVED(...)
#define RETRA_CTL_CHANGE_OPERATION(...)
#define RETRA_CTL_CHANGE_SCALAR(name, Type, nameIs, onName, initial) \
  void onName() override {                                           \
    watch_->changed(*notifierPtr(), #name);                          \
  }
#define RETRA_CTL_CHANGE_COUNTER(name, Type, nameIs, nameInc, onName, initial) \
  void onName() override {                                                     \
    watch_->changed(*notifierPtr(), #name);                                    \
  }
#define RETRA_CTL_CHANGE_CHILD(name, Type, nameIs, nameDel, onName) \
  void onName() override {                                          \
    watch_->changed(*notifierPtr(), #name);                         \
  }
#define RETRA_CTL_CHANGE_COLLECTION(name, Key, Value, nameIs, nameDel, nameDelAll, onName, \
                                    onNameImmediate)                                       \
  using Retra::Response::NotifieeConst::onName;                                            \
  void onName(::Orb::ParamType<Key>) override {                                            \
    watch_->changed(*notifierPtr(), #name);                                                \
  }

class ResponseChangeWatch::ResponseObserver : public Retra::Response::NotifieeConst {
 public:
  explicit ResponseObserver(ResponseChangeWatch* watch) : watch_(watch) {}
  RETRA_RESPONSE_ATTRIBUTES(RETRA_CTL_CHANGE)

 private:
  ResponseChangeWatch* watch_;
};

#undef RETRA_CTL_CHANGE_COLLECTION
#undef RETRA_CTL_CHANGE_CHILD
#undef RETRA_CTL_CHANGE_COUNTER
#undef RETRA_CTL_CHANGE_SCALAR
#undef RETRA_CTL_CHANGE_OPERATION
#undef RETRA_CTL_CHANGE_DERIVED
#undef RETRA_CTL_CHANGE_FIXED
#undef RETRA_CTL_CHANGE

Orb::Ptr<ResponseChangeWatch> ResponseChangeWatch::ResponseChangeWatchIs(
    const Orb::Ptr<Retra::ResponseDir>& dir, Report report) {
  auto watch = Orb::allocate<ResponseChangeWatch>(std::move(report));
  watch->notifierIs(dir);
  for (const auto& [key, response] : dir->response()) watch->observe(response);
  return watch;
}

ResponseChangeWatch::ResponseChangeWatch(Report report) : report_(std::move(report)) {}

ResponseChangeWatch::~ResponseChangeWatch() = default;

void ResponseChangeWatch::reportSnapshots() {
  const Retra::ResponseDir* dir = notifierPtr();
  if (!dir) return;
  for (const auto& [key, response] : dir->response()) {
    nlohmann::ordered_json change = changeOf(key, "snapshot");
    change["response"] = RetraTool::responseJson(*response);
    report_(change);
  }
}

void ResponseChangeWatch::onResponse(const Retra::RequestKey& key) {
  Orb::Ptr<Retra::Response> response = notifierPtr()->response(key);
  if (response) {
    observe(response);
  } else {
    observers_.erase(key);
  }
  if (!muted_) report_(changeOf(key, response ? "added" : "removed"));
}

void ResponseChangeWatch::observe(const Orb::Ptr<Retra::Response>& response) {
  auto observer = Orb::allocate<ResponseObserver>(this);
  observer->notifierIs(response);
  observers_.insert_or_assign(response->requestKey(), observer);
}

void ResponseChangeWatch::changed(const Retra::Response& response, const char* attribute) {
  if (muted_) return;
  nlohmann::ordered_json change = changeOf(response.requestKey(), attribute);
  if (std::strcmp(attribute, "body") == 0) {
    change["bodyBytes"] = response.body().view().size();
  } else {
    change.update(RetraTool::attributeJson(response, attribute));
  }
  report_(change);
}

nlohmann::ordered_json ResponseChangeWatch::changeOf(const Retra::RequestKey& key,
                                                     const char* change) {
  return {{"method", Retra::stringValue(key.method()).str()},
          {"uri", key.uri().str()},
          {"change", change}};
}

}  // namespace RetraCtl
