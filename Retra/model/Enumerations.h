#pragma once

#include <concepts>
#include <cstdint>
#include <ostream>

#include "Orb/AttrLog.h"
#include "Orb/Enumeration.h"
#include "Orb/String.h"

namespace Retra {

// The library's enumerations. Each is an unsigned 32-bit number whose values are part of the
// contract (they are streamed and compared as numbers), registered with the framework under
// "Retra::<Name>" and printed as the enumerator's name.
//
//   Retra::Method m = Retra::MethodInstance(Orb::String("PUT"));   // PUT (4)
//   Retra::stringValue(Retra::errTimeout);                         // "errTimeout"
//   Retra::ErrorInstance(16);                                      // range exception
//   std::cout << Retra::stateFinished;                             // stateFinished

// HTTP request method. OPTIONS is deliberately 0, so a default key carries OPTIONS.
enum Method : uint32_t {
  OPTIONS = 0,
  GET = 1,
  HEAD = 2,
  POST = 3,
  PUT = 4,
  DELETE = 5,
  TRACE = 6,
  CONNECT = 7,
  PATCH = 8,
};

// The last error of a request (`Response::lastError`).
enum Error : uint32_t {
  errNone = 0,
  errUriParse = 1,
  errUnsupportedScheme = 2,
  errDnsLookup = 3,
  errTimeout = 4,
  errFile = 5,
  errCurlAlloc = 6,
  errCurlInit = 7,
  errCurlRequest = 8,
  errCurlNoFreeHandle = 9,
  errCurlRemoveHandle = 10,
  errCurlAddHandle = 11,
  errCancel = 12,
  errHttpStatusCode = 13,
  errConnRefused = 14,
  errCurlOther = 15,
};

// Progress of one request (`Response::requestState`).
enum RequestState : uint32_t {
  stateNotInit = 0,
  stateDnsResolving = 1,
  stateDispatchReady = 2,
  stateConnecting = 3,
  stateAuthen = 4,
  stateSendHeader = 5,
  stateSendBody = 6,
  stateRecvHeader = 7,
  stateRecvBody = 8,
  stateFinished = 9,
};

// Credential scheme for `username` / `password`.
enum HttpAuthenticationType : uint32_t {
  authNone = 0,
  authBasic = 1,
  authDigest = 2,
};

// URI scheme accepted for dispatch (`Response::scheme`).
enum Scheme : uint32_t {
  http = 0,
  https = 1,
};

// The framework descriptor of each enumeration (its name and table), for generic code.
[[nodiscard]] const Orb::EnumDescriptor& descriptorOf(Method);
[[nodiscard]] const Orb::EnumDescriptor& descriptorOf(Error);
[[nodiscard]] const Orb::EnumDescriptor& descriptorOf(RequestState);
[[nodiscard]] const Orb::EnumDescriptor& descriptorOf(HttpAuthenticationType);
[[nodiscard]] const Orb::EnumDescriptor& descriptorOf(Scheme);

// The enumerator for a number or a name; the range exception for anything not in the table.
[[nodiscard]] Method MethodInstance(unsigned int value);
[[nodiscard]] Method MethodInstance(const Orb::String& name);
[[nodiscard]] Error ErrorInstance(unsigned int value);
[[nodiscard]] Error ErrorInstance(const Orb::String& name);
[[nodiscard]] RequestState RequestStateInstance(unsigned int value);
[[nodiscard]] RequestState RequestStateInstance(const Orb::String& name);
[[nodiscard]] HttpAuthenticationType HttpAuthenticationTypeInstance(unsigned int value);
[[nodiscard]] HttpAuthenticationType HttpAuthenticationTypeInstance(const Orb::String& name);
[[nodiscard]] Scheme SchemeInstance(unsigned int value);
[[nodiscard]] Scheme SchemeInstance(const Orb::String& name);

// Any of the five enumerations above.
template <class E>
concept Enumeration = requires(E e) {
  { descriptorOf(e) } -> std::same_as<const Orb::EnumDescriptor&>;
};

// The enumerator's name; the range exception for a number outside the table.
template <Enumeration E>
[[nodiscard]] Orb::String stringValue(E value) {
  return descriptorOf(value).stringValue(value);
}

// The value's text form: the enumerator's name.
template <Enumeration E>
[[nodiscard]] Orb::String valueToStrep(const E& value) {
  return descriptorOf(value).valueToStrep(value);
}

// Writes the enumerator's name (the number when it has none).
template <Enumeration E>
std::ostream& operator<<(std::ostream& out, const E& value) {
  return descriptorOf(value).write(out, value);
}

// Reads the longest enumerator name at `it` and moves past it; the range exception when no
// enumerator name starts there.
template <Enumeration E>
void sequenceToValue(Orb::String::const_iterator& it, const Orb::String::const_iterator& end,
                     E* value) {
  *value = static_cast<E>(descriptorOf(E{}).sequenceToValue(it, end));
}

// Attribute-log streaming: the enumerator number, checked against the table when read back.
template <Enumeration E>
void writeAttr(Orb::AttrLogOut& out, const E& value) {
  out.writeEnum(value);
}
template <Enumeration E>
void readAttr(Orb::AttrLogIn& in, E* value) {
  *value = static_cast<E>(in.readEnum(descriptorOf(E{})));
}

}  // namespace Retra
