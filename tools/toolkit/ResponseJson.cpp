#include "toolkit/ResponseJson.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Orb/HashMap.h"
#include "Orb/String.h"
#include "Retra/model/RequestKey.h"

namespace RetraTool {
namespace {

using Json = nlohmann::ordered_json;

template <class T>
Json valueJson(const T& value) {
  return value;
}

template <Retra::Enumeration E>
Json valueJson(const E& value) {
  return Retra::stringValue(value).str();
}

Json valueJson(const Orb::String& value) {
  return value.str();
}

Json valueJson(const Retra::RequestKey& key) {
  return Json{{"method", valueJson(key.method())}, {"uri", valueJson(key.uri())}};
}

Json valueJson(const Orb::HashMap<Orb::String, Orb::String>& map) {
  std::vector<std::pair<std::string, std::string>> members;
  for (const auto& [name, value] : map) members.emplace_back(name.str(), value.str());
  std::sort(members.begin(), members.end());
  Json object = Json::object();
  for (const auto& [name, value] : members) object[name] = value;
  return object;
}

template <class Address>
Json valueJson(const Orb::HashMap<Address, bool>& addresses) {
  std::vector<Address> sorted;
  for (const auto& member : addresses) sorted.push_back(member.first);
  std::sort(sorted.begin(), sorted.end());
  Json array = Json::array();
  for (const Address& address : sorted) array.push_back(address.str().str());
  return array;
}

#define RETRA_TOOL_JSON_MEMBER(kind, name, ...) object[#name] = valueJson(entity->name());

Json valueJson(const Orb::Ptr<Retra::RequestCounter>& counter) {
  Orb::Ptr<Retra::RequestCounter> entity =
      counter ? counter : Orb::allocate<Retra::RequestCounter>();
  Json object = Json::object();
  RETRA_REQUEST_COUNTER_ATTRIBUTES(RETRA_TOOL_JSON_MEMBER)
  return object;
}

Json valueJson(const Orb::Ptr<Retra::RequestTimer>& timer) {
  Orb::Ptr<Retra::RequestTimer> entity = timer ? timer : Orb::allocate<Retra::RequestTimer>();
  Json object = Json::object();
  RETRA_REQUEST_TIMER_ATTRIBUTES(RETRA_TOOL_JSON_MEMBER)
  return object;
}

#undef RETRA_TOOL_JSON_MEMBER

// One entry per attribute of the response's declaration; `doReset` is an operation, no value.
void put(Json& object, const char* name, const Json& value) {
  object[name] = value;
}

void putBody(Json& object, const Orb::String& body) {
  if (isUtf8(body.view())) {
    object["body"] = body.str();
  } else {
    object["bodyBase64"] = base64(body.view());
  }
}

#define RETRA_TOOL_RESPONSE_MEMBER(kind, name, ...) RETRA_TOOL_RESPONSE_##kind(name)
#define RETRA_TOOL_RESPONSE_OPERATION(name)
#define RETRA_TOOL_RESPONSE_ANY(name)                 \
  if (only.empty() || only == #name) {                \
    if (std::string_view(#name) == "body") {          \
      putBody(object, response.body());               \
    } else {                                          \
      put(object, #name, valueJson(response.name())); \
    }                                                 \
  }
#define RETRA_TOOL_RESPONSE_FIXED(name) RETRA_TOOL_RESPONSE_ANY(name)
#define RETRA_TOOL_RESPONSE_DERIVED(name) RETRA_TOOL_RESPONSE_ANY(name)
#define RETRA_TOOL_RESPONSE_SCALAR(name) RETRA_TOOL_RESPONSE_ANY(name)
#define RETRA_TOOL_RESPONSE_COUNTER(name) RETRA_TOOL_RESPONSE_ANY(name)
#define RETRA_TOOL_RESPONSE_COLLECTION(name) RETRA_TOOL_RESPONSE_ANY(name)
#define RETRA_TOOL_RESPONSE_CHILD(name) RETRA_TOOL_RESPONSE_ANY(name)

// Every attribute, or the one named `only`.
Json attributesJson(const Retra::Response& response, std::string_view only) {
  Json object = Json::object();
  RETRA_RESPONSE_ATTRIBUTES(RETRA_TOOL_RESPONSE_MEMBER)
  return object;
}

}  // namespace

Json responseJson(const Retra::Response& response) {
  return attributesJson(response, {});
}

Json attributeJson(const Retra::Response& response, std::string_view name) {
  return name.empty() ? Json::object() : attributesJson(response, name);
}

std::string jsonLine(const Json& object) {
  return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

bool isUtf8(std::string_view bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    const auto lead = static_cast<unsigned char>(bytes[i]);
    size_t length = 0;
    uint32_t code = 0;
    uint32_t least = 0;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2, code = lead & 0x1F, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, code = lead & 0x0F, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, code = lead & 0x07, least = 0x10000;
    } else {
      return false;
    }
    if (bytes.size() - i < length) return false;
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(bytes[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    if (code < least || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

std::string base64(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t n = static_cast<unsigned char>(bytes[i]) << 16 |
                       static_cast<unsigned char>(bytes[i + 1]) << 8 |
                       static_cast<unsigned char>(bytes[i + 2]);
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  const size_t rest = bytes.size() - i;
  if (rest > 0) {
    uint32_t n = static_cast<unsigned char>(bytes[i]) << 16;
    if (rest == 2) n |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += rest == 2 ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

}  // namespace RetraTool
