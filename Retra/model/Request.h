#pragma once

#include <cstdint>
#include <ostream>

#include "Orb/AttrLog.h"
#include "Orb/Attribute.h"
#include "Orb/String.h"
#include "Orb/TypeNode.h"
#include "Retra/model/Enumerations.h"
#include "Retra/model/RequestKey.h"

// The attributes of `Request`, in declaration order (numbered from 2). Equality, the text form
// and streaming all follow this order.
#define RETRA_REQUEST_ATTRIBUTES(X)                                                      \
  X(READONLY, requestKey, RequestKey, {})                                                \
  X(FIELD, timeoutConnect, uint16_t, timeoutConnectIs, 60)                               \
  X(FIELD, timeoutRequest, uint16_t, timeoutRequestIs, 60)                               \
  X(FIELD, timeoutRefresh, uint32_t, timeoutRefreshIs, 1800)                             \
  X(MAP, header, Orb::String, Orb::String, headerIs, newHeader, headerDel, headerDelAll) \
  X(FIELD, body, Orb::String, bodyIs, {})                                                \
  X(FIELD, authType, HttpAuthenticationType, authTypeIs, authNone)                       \
  X(FIELD, username, Orb::String, usernameIs, {})                                        \
  X(FIELD, password, Orb::String, passwordIs, {})                                        \
  X(FIELD, sslVerifyPeer, bool, sslVerifyPeerIs, true)                                   \
  X(FIELD, pinnedPublicKey, Orb::String, pinnedPublicKeyIs, {})                          \
  X(FIELD, outputPath, Orb::String, outputPathIs, {})                                    \
  X(FIELD, debug, bool, debugIs, false)                                                  \
  X(DERIVED, method, Method)                                                             \
  X(DERIVED, uri, Orb::String)

namespace Retra {

// The client's description of one HTTP transfer, and the library's only input: a value (copied
// whole, compared whole), type name "Retra::Request", placed in a `RequestDir` under its key.
// The settings are plain members set before the request is handed over; they notify nobody.
//
//   Retra::Request request(Retra::RequestKey(Retra::GET, "http://127.0.0.1:8080/a"));
//   request.timeoutRefreshIs(30);
//   request.headerIs("Accept", "text/plain");
//   requestDir->requestIs(request);
//
// Defaults: both time-outs 60 s, refresh 1800 s, `sslVerifyPeer` true, `authType` authNone,
// `debug` false, everything else empty. (A `Response` starts with `sslVerifyPeer` false until
// the engine copies the request in; the difference is intended.) `timeoutConnect` and
// `timeoutRequest` are seconds handed to libcurl; `timeoutRefresh` is the period after which a
// finished request is fetched again. A non-empty `outputPath` sends the body to that file
// instead of `Response::body`; `debug` turns on libcurl's verbose trace for this request.
//
// The text form shows every attribute in order, the password as it is, and "None" for `header`
// whatever it holds: the text form cannot carry a collection, which is also why a request can
// never be built from text.
class Request {
 public:
  ORB_ATTRIBUTE_IDS(Orb::firstValueAttributeId, RETRA_REQUEST_ATTRIBUTES);

  explicit Request(const RequestKey& key = RequestKey()) : requestKey_(key) {}
  // Unsupported: always raises the internal exception
  // `!"No String constructor for Request - has collection"`.
  [[noreturn]] Request(Orb::String::const_iterator& it, const Orb::String::const_iterator& end);
  // Reads what `writeAttr` wrote, attributes in declaration order, headers included.
  explicit Request(Orb::AttrLogIn& in);

  RETRA_REQUEST_ATTRIBUTES(ORB_VALUE_ACCESSORS)
  [[nodiscard]] Method method() const noexcept { return requestKey_.method(); }
  [[nodiscard]] const Orb::String& uri() const noexcept { return requestKey_.uri(); }

  // All thirteen attributes equal, compared in declaration order.
  friend bool operator==(const Request& a, const Request& b) { return Orb::attributesEqual(a, b); }
  // True exactly for `Request(RequestKey())` with every default and no header.
  bool operator!() const { return *this == Request(); }

  // The descriptor registered under "Retra::Request".
  [[nodiscard]] static const Orb::TypeNode* typeNode();

  // The generic reflection interface: each stored attribute with its member.
  ORB_VALUE_REFLECTION(Request, RETRA_REQUEST_ATTRIBUTES)

 private:
  RETRA_REQUEST_ATTRIBUTES(ORB_VALUE_MEMBERS)
};

// "Value('Retra::Request', ** {'requestKey': ..., 'timeoutConnect': 60, ..., 'header': None,
// ..., 'debug': False})".
[[nodiscard]] Orb::String valueToStrep(const Request& request);
// Writes the same characters as `valueToStrep`.
std::ostream& operator<<(std::ostream& out, const Request& request);
// Attribute-log form: one compound of the thirteen attributes, the headers as (name, value)
// pairs.
void writeAttr(Orb::AttrLogOut& out, const Request& request);

}  // namespace Retra
