#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Retra/model/RequestKey.h"

// Records an entity's notifications by callback name, through the entity's attribute list:
//
//   class ResponseRecorder : public Retra::Response::NotifieeConst, public ModelTest::Recording {
//     RETRA_RESPONSE_ATTRIBUTES(MODEL_RECORD)
//   };
//
// A scalar, counter or child records "onStatusCode"; a collection member "onHeader(Accept)", the
// whole collection "onHeader()", then "onHeaderImmediate"; a directory's key records its URI.
namespace ModelTest {

using Log = std::vector<std::string>;

// A key's or a value's text: a request key by its URI.
template <class T>
std::string text(const T& value) {
  if constexpr (requires { value.uri(); })
    return value.uri().str();
  else if constexpr (requires { value.str().str(); })
    return value.str().str();
  else
    return value.str();
}

struct Recording {
  Log log;
  std::function<void(const std::string&)> reaction;  // runs after each entry is recorded
  // The entries so far, separated by spaces.
  [[nodiscard]] std::string joined() const {
    std::string all;
    for (const std::string& entry : log) all += (all.empty() ? "" : " ") + entry;
    return all;
  }
  void record(const std::string& entry) {
    log.push_back(entry);
    if (reaction) reaction(entry);
  }
};

}  // namespace ModelTest

// clang-format off
#define MODEL_RECORD(kind, ...) MODEL_RECORD_##kind(__VA_ARGS__)
#define MODEL_RECORD_FIXED(...)
#define MODEL_RECORD_DERIVED(...)
#define MODEL_RECORD_OPERATION(...)
#define MODEL_RECORD_ONE(onName) void onName() override { record(#onName); }
#define MODEL_RECORD_SCALAR(name, Type, nameIs, onName, initial) MODEL_RECORD_ONE(onName)
#define MODEL_RECORD_COUNTER(name, Type, nameIs, nameInc, onName, initial) MODEL_RECORD_ONE(onName)
#define MODEL_RECORD_CHILD(name, Type, nameIs, nameDel, onName) MODEL_RECORD_ONE(onName)
#define MODEL_RECORD_DIRECTORY(name, Key, Value, onName, onNameImmediate)                         \
  void onName(Orb::ParamType<Key> key) override { record(#onName "(" + ModelTest::text(key) + ")"); } \
  MODEL_RECORD_ONE(onNameImmediate)
#define MODEL_RECORD_COLLECTION(name, Key, Value, nameIs, nameDel, nameDelAll, onName, onNameImmediate) \
  MODEL_RECORD_DIRECTORY(name, Key, Value, onName, onNameImmediate)                                \
  void onName() override { record(#onName "()"); }
// clang-format on
