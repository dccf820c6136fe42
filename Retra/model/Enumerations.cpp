#include "Retra/model/Enumerations.h"

namespace Retra {

// The descriptors live until the process ends: the type registry points at them.

const Orb::EnumDescriptor& descriptorOf(Method) {
  static const auto& type = *new Orb::EnumDescriptor("Retra::Method", {{"OPTIONS", OPTIONS},
                                                                       {"GET", GET},
                                                                       {"HEAD", HEAD},
                                                                       {"POST", POST},
                                                                       {"PUT", PUT},
                                                                       {"DELETE", DELETE},
                                                                       {"TRACE", TRACE},
                                                                       {"CONNECT", CONNECT},
                                                                       {"PATCH", PATCH}});
  return type;
}

const Orb::EnumDescriptor& descriptorOf(Error) {
  static const auto& type =
      *new Orb::EnumDescriptor("Retra::Error", {{"errNone", errNone},
                                                {"errUriParse", errUriParse},
                                                {"errUnsupportedScheme", errUnsupportedScheme},
                                                {"errDnsLookup", errDnsLookup},
                                                {"errTimeout", errTimeout},
                                                {"errFile", errFile},
                                                {"errCurlAlloc", errCurlAlloc},
                                                {"errCurlInit", errCurlInit},
                                                {"errCurlRequest", errCurlRequest},
                                                {"errCurlNoFreeHandle", errCurlNoFreeHandle},
                                                {"errCurlRemoveHandle", errCurlRemoveHandle},
                                                {"errCurlAddHandle", errCurlAddHandle},
                                                {"errCancel", errCancel},
                                                {"errHttpStatusCode", errHttpStatusCode},
                                                {"errConnRefused", errConnRefused},
                                                {"errCurlOther", errCurlOther}});
  return type;
}

const Orb::EnumDescriptor& descriptorOf(RequestState) {
  static const auto& type =
      *new Orb::EnumDescriptor("Retra::RequestState", {{"stateNotInit", stateNotInit},
                                                       {"stateDnsResolving", stateDnsResolving},
                                                       {"stateDispatchReady", stateDispatchReady},
                                                       {"stateConnecting", stateConnecting},
                                                       {"stateAuthen", stateAuthen},
                                                       {"stateSendHeader", stateSendHeader},
                                                       {"stateSendBody", stateSendBody},
                                                       {"stateRecvHeader", stateRecvHeader},
                                                       {"stateRecvBody", stateRecvBody},
                                                       {"stateFinished", stateFinished}});
  return type;
}

const Orb::EnumDescriptor& descriptorOf(HttpAuthenticationType) {
  static const auto& type = *new Orb::EnumDescriptor(
      "Retra::HttpAuthenticationType",
      {{"authNone", authNone}, {"authBasic", authBasic}, {"authDigest", authDigest}});
  return type;
}

const Orb::EnumDescriptor& descriptorOf(Scheme) {
  static const auto& type =
      *new Orb::EnumDescriptor("Retra::Scheme", {{"http", http}, {"https", https}});
  return type;
}

Method MethodInstance(unsigned int value) {
  return Method(descriptorOf(Method{}).instance(value));
}
Method MethodInstance(const Orb::String& name) {
  return Method(descriptorOf(Method{}).instance(name));
}

Error ErrorInstance(unsigned int value) {
  return Error(descriptorOf(Error{}).instance(value));
}
Error ErrorInstance(const Orb::String& name) {
  return Error(descriptorOf(Error{}).instance(name));
}

RequestState RequestStateInstance(unsigned int value) {
  return RequestState(descriptorOf(RequestState{}).instance(value));
}
RequestState RequestStateInstance(const Orb::String& name) {
  return RequestState(descriptorOf(RequestState{}).instance(name));
}

HttpAuthenticationType HttpAuthenticationTypeInstance(unsigned int value) {
  return HttpAuthenticationType(descriptorOf(HttpAuthenticationType{}).instance(value));
}
HttpAuthenticationType HttpAuthenticationTypeInstance(const Orb::String& name) {
  return HttpAuthenticationType(descriptorOf(HttpAuthenticationType{}).instance(name));
}

Scheme SchemeInstance(unsigned int value) {
  return Scheme(descriptorOf(Scheme{}).instance(value));
}
Scheme SchemeInstance(const Orb::String& name) {
  return Scheme(descriptorOf(Scheme{}).instance(name));
}

}  // namespace Retra
