#include "Retra/model/Response.h"

#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

namespace Retra {

namespace {
// The method's name, kept per thread for the common small numbers.
Orb::String methodName(Method method) {
  thread_local Orb::String names[16];
  if (static_cast<uint32_t>(method) >= std::size(names)) return stringValue(method);
  Orb::String& name = names[static_cast<uint32_t>(method)];
  if (name.empty()) name = stringValue(method);
  return name;
}

// "METHOD uri", built in one allocation: every request names its response.
Orb::Name nameOf(const RequestKey& key) {
  const Orb::String method = methodName(key.method());
  const std::string_view uri = key.uri().view();
  const size_t size = method.size() + 1 + uri.size();
  char small[256];
  std::string large;
  char* text = small;
  if (size > sizeof small) {
    large.resize(size);
    text = large.data();
  }
  std::memcpy(text, method.charPtr(), method.size());
  text[method.size()] = ' ';
  std::memcpy(text + method.size() + 1, uri.data(), uri.size());
  return Orb::Name(Orb::String(text, size));
}
}  // namespace

Response::Response(const RequestKey& key) : Orb::Entity(nameOf(key)), requestKey_(key) {}

Response::~Response() {
  counter_ = nullptr;
  timer_ = nullptr;
  notifiees().deleteAll();
  // The address sets, header collections and the rest are released with the members.
}

void Response::doReset() {
  Orb::KeepAlive keep(*this);  // an observer may drop the last reference half-way
  statusCodeIs(0);
  lastErrorIs(errNone);
  effectiveUrlIs(Orb::String());
  lastErrorMessageIs(Orb::String());
  lastUpdateTimeIs(0.0);
  lastChangeTimeIs(0.0);
  headerDelAll();
  bodyIs(Orb::String());
  contentTypeIs(Orb::String());
  contentLengthUploadIs(-1);
  contentLengthDownloadIs(-1);
  resolvedIs(false);
  hostIs(Orb::String());
  ipAddressDelAll();
  ip6AddressDelAll();
  portIs(0);
}

const Orb::TypeNode* Response::staticTypeNode() {
  static const auto* node = new Orb::TypeNode(
      "Retra::Response", Orb::TypeNode::Kind::entity,
      ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, RETRA_RESPONSE_ATTRIBUTES));
  return node;
}

}  // namespace Retra
