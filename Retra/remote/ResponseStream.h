#pragma once

#include <cstddef>
#include <string>

#include "Orb/AttrLog.h"
#include "Orb/TypeNode.h"
#include "Retra/model/Response.h"

// A response travels between processes as a snapshot (every stored attribute, of the response
// and of its "counter" and "timer" children) and then as changes, one attribute at a time. Both
// are built from the attribute declarations, so a new attribute travels without code here.
//
// An attribute is named by a target (0 for the response itself, else the number of its child,
// `Response::Attr::counter` or `Response::Attr::timer`) and its number within the target. A
// change is one of:
//   set        a scalar's new value
//   memberSet  a collection member's key and new value
//   memberDel  a collection member's key, removed
//   append     bytes appended to the body (a growing body costs its size on the wire, once)
//
// Applying goes through the mirror response's own mutators, so its observers are told of each
// real change exactly as observers of the original are. Attributes a newer peer sends that this
// side does not know are skipped.
//
//   // service                                             // client
//   std::string m = encodeSnapshot(*response, true);       applySnapshot(in, *mirror);
//   m = encodeScalarChange(*response, 0, Response::Attr::statusCode);
//                                                          applyChange(in, *mirror);
namespace Retra::Wire {

inline constexpr Orb::AttributeId responseTarget = 0;

// The whole snapshot message (type, key, attributes), the request state last. Without
// `withBody` the body is sent empty and the state left out: a large body follows as appends
// (`encodeBodyPiece`), then the state as a change.
[[nodiscard]] std::string encodeSnapshot(const Response& response, bool withBody);
// The change message of one scalar or child-scalar attribute, with its current value.
[[nodiscard]] std::string encodeScalarChange(const Response& response, Orb::AttributeId target,
                                             Orb::AttributeId attribute);
// The change message of one member of a response collection: memberSet with its current value
// when the key is present, else memberDel.
template <class K>
[[nodiscard]] std::string encodeMemberChange(const Response& response, Orb::AttributeId attribute,
                                             const K& key);
// The change message appending `response.body()[from, to)` to the body; with `replace`, setting
// the body to those bytes instead.
[[nodiscard]] std::string encodeBodyPiece(const Response& response, size_t from, size_t to,
                                          bool replace = false);

// Apply what follows the key in a snapshot or change message. Raise Orb::ParseException on a
// malformed encoding; a change already applied up to the failure stays applied.
void applySnapshot(Orb::AttrLogIn& in, Response& response);
void applyChange(Orb::AttrLogIn& in, Response& response);

}  // namespace Retra::Wire
