#include "Retra/remote/ResponseStream.h"

#include <type_traits>
#include <utility>
#include <vector>

#include "Orb/Attribute.h"
#include "Orb/Exception.h"
#include "Retra/remote/WireProtocol.h"

namespace Retra::Wire {
namespace {

enum class ChangeOp : uint8_t { set = 0, memberSet = 1, memberDel = 2, append = 3 };

template <class Get, class E>
using ValueOf = std::decay_t<decltype(std::declval<Get>()(std::declval<const E&>()))>;

Orb::AttrLogOut startMessage(MessageType type, const RequestKey& key) {
  Orb::AttrLogOut out;
  out.writeEnum(uint32_t(type));
  writeAttr(out, key);
  return out;
}

// Calls `entry(target, attribute, write)` for each stored attribute of the response and of its
// children, where `write(out)` writes the attribute's value.
template <class F>
void forEachEntry(const Response& response, F&& entry) {
  auto visitEntity = [&](Orb::AttributeId target, const auto& entity) {
    using E = std::decay_t<decltype(entity)>;
    E::forEachAttribute(Orb::AttributeVisitor{
        [&](Orb::AttributeId id, const char*, auto get, auto) {
          entry(target, id, [&](Orb::AttrLogOut& out) { writeAttr(out, get(entity)); });
        },
        [&](Orb::AttributeId id, const char*, auto get, auto, auto) {
          entry(target, id, [&](Orb::AttrLogOut& out) { writeAttr(out, get(entity)); });
        },
        Orb::ignoreAttribute});
  };
  visitEntity(responseTarget, response);
  Response::forEachAttribute(
      Orb::AttributeVisitor{Orb::ignoreAttribute, Orb::ignoreAttribute,
                            [&](Orb::AttributeId id, const char*, auto get, auto) {
                              if (auto child = get(response)) visitEntity(id, *child);
                            }});
}

// Reads one value into the attribute `attribute` of `entity` through its mutators: a scalar's
// value, a whole collection (members not in it are removed), or, for a collection, one member
// change. An attribute the entity does not have has its value skipped.
template <class E>
void applyValue(Orb::AttrLogIn& in, E& entity, Orb::AttributeId attribute, ChangeOp op) {
  bool found = false;
  E::forEachAttribute(Orb::AttributeVisitor{
      [&](Orb::AttributeId id, const char*, auto get, auto set) {
        if (id != attribute || found) return;
        found = true;
        using T = ValueOf<decltype(get), E>;
        if (op == ChangeOp::append) {
          if constexpr (std::is_same_v<T, Orb::String>) {
            const Orb::String piece = in.readString();
            set(entity, get(entity) + piece);
            return;
          }
          Orb::throwParseException("append to an attribute that is no string");
        }
        if (op != ChangeOp::set) Orb::throwParseException("member change of a scalar");
        T value{};
        readAttr(in, &value);
        set(entity, value);
      },
      [&](Orb::AttributeId id, const char*, auto get, auto set, auto del) {
        if (id != attribute || found) return;
        found = true;
        using Map = ValueOf<decltype(get), E>;
        using K = typename Map::key_type;
        using V = typename Map::mapped_type;
        if (op == ChangeOp::set) {
          Map incoming;
          readAttr(in, &incoming);
          std::vector<K> gone;
          for (const auto& member : get(entity)) {
            if (!incoming.contains(member.first)) gone.push_back(member.first);
          }
          for (const K& key : gone) del(entity, key);
          for (const auto& member : incoming) set(entity, member.first, member.second);
          return;
        }
        K key{};
        readAttr(in, &key);
        if (op == ChangeOp::memberDel) {
          del(entity, key);
        } else if (op == ChangeOp::memberSet) {
          V value{};
          readAttr(in, &value);
          set(entity, key, value);
        } else {
          Orb::throwParseException("append to a collection");
        }
      },
      Orb::ignoreAttribute});
  if (found) return;
  // A newer peer's attribute: its payload is skipped.
  if (op == ChangeOp::memberSet) in.skipValue();
  in.skipValue();
}

// `applyValue` on the response or on the child `target`, created if needed.
void applyTo(Orb::AttrLogIn& in, Response& response, Orb::AttributeId target,
             Orb::AttributeId attribute, ChangeOp op) {
  if (target == responseTarget) return applyValue(in, response, attribute, op);
  bool found = false;
  Response::forEachAttribute(
      Orb::AttributeVisitor{Orb::ignoreAttribute, Orb::ignoreAttribute,
                            [&](Orb::AttributeId id, const char*, auto, auto make) {
                              if (id != target || found) return;
                              found = true;
                              applyValue(in, *make(response), attribute, op);
                            }});
  if (found) return;
  if (op == ChangeOp::memberSet) in.skipValue();
  in.skipValue();
}

ChangeOp readOp(Orb::AttrLogIn& in) {
  const uint8_t op = in.readU8();
  if (op > uint8_t(ChangeOp::append)) Orb::throwParseException("unknown change kind");
  return ChangeOp(op);
}

}  // namespace

std::string encodeSnapshot(const Response& response, bool withBody) {
  auto out = startMessage(MessageType::snapshot, response.requestKey());
  // The state goes last, so the other attributes are in place when a mirror sees it; without
  // the body it is left out and follows the body's pieces as a change.
  auto isState = [](Orb::AttributeId target, Orb::AttributeId id) {
    return target == responseTarget && id == Response::Attr::requestState;
  };
  uint32_t count = 0;
  forEachEntry(response, [&](Orb::AttributeId target, Orb::AttributeId id, auto&&) {
    if (withBody || !isState(target, id)) ++count;
  });
  out.beginCompound(count);
  auto writeEntry = [&](Orb::AttributeId target, Orb::AttributeId id, auto&& write) {
    out.beginCompound(3);
    out.writeU32(target);
    out.writeU32(id);
    if (!withBody && target == responseTarget && id == Response::Attr::body) {
      out.writeString(std::string_view());
    } else {
      write(out);
    }
    out.endCompound();
  };
  forEachEntry(response, [&](Orb::AttributeId target, Orb::AttributeId id, auto&& write) {
    if (!isState(target, id)) writeEntry(target, id, write);
  });
  if (withBody) {
    forEachEntry(response, [&](Orb::AttributeId target, Orb::AttributeId id, auto&& write) {
      if (isState(target, id)) writeEntry(target, id, write);
    });
  }
  out.endCompound();
  return out.bytes();
}

std::string encodeScalarChange(const Response& response, Orb::AttributeId target,
                               Orb::AttributeId attribute) {
  auto out = startMessage(MessageType::change, response.requestKey());
  bool found = false;
  forEachEntry(response, [&](Orb::AttributeId t, Orb::AttributeId id, auto&& write) {
    if (t != target || id != attribute || found) return;
    found = true;
    out.writeU32(target);
    out.writeU32(attribute);
    out.writeU8(uint8_t(ChangeOp::set));
    write(out);
  });
  if (!found) Orb::throwInternalException("no attribute " + std::to_string(attribute) + " to send");
  return out.bytes();
}

template <class K>
std::string encodeMemberChange(const Response& response, Orb::AttributeId attribute, const K& key) {
  auto out = startMessage(MessageType::change, response.requestKey());
  out.writeU32(responseTarget);
  out.writeU32(attribute);
  Response::forEachAttribute(Orb::AttributeVisitor{
      Orb::ignoreAttribute,
      [&](Orb::AttributeId id, const char*, auto get, auto, auto) {
        if (id != attribute) return;
        if constexpr (std::is_same_v<typename ValueOf<decltype(get), Response>::key_type, K>) {
          const auto& map = get(response);
          auto it = map.find(key);
          out.writeU8(uint8_t(it == map.end() ? ChangeOp::memberDel : ChangeOp::memberSet));
          writeAttr(out, key);
          if (it != map.end()) writeAttr(out, it->second);
        }
      },
      Orb::ignoreAttribute});
  return out.bytes();
}
template std::string encodeMemberChange(const Response&, Orb::AttributeId, const Orb::String&);
template std::string encodeMemberChange(const Response&, Orb::AttributeId, const Ipkit::IpAddr&);
template std::string encodeMemberChange(const Response&, Orb::AttributeId, const Ipkit::Ip6Addr&);

std::string encodeBodyPiece(const Response& response, size_t from, size_t to, bool replace) {
  auto out = startMessage(MessageType::change, response.requestKey());
  out.writeU32(responseTarget);
  out.writeU32(Response::Attr::body);
  out.writeU8(uint8_t(replace ? ChangeOp::set : ChangeOp::append));
  out.writeString(response.body().view().substr(from, to - from));
  return out.bytes();
}

void applySnapshot(Orb::AttrLogIn& in, Response& response) {
  for (uint32_t n = in.beginCompound(); n > 0; --n) {
    in.beginCompound();
    const Orb::AttributeId target = in.readU32();
    const Orb::AttributeId attribute = in.readU32();
    applyTo(in, response, target, attribute, ChangeOp::set);
    in.endCompound();
  }
  in.endCompound();
  in.expectEnd();
}

void applyChange(Orb::AttrLogIn& in, Response& response) {
  const Orb::AttributeId target = in.readU32();
  const Orb::AttributeId attribute = in.readU32();
  applyTo(in, response, target, attribute, readOp(in));
  in.expectEnd();
}

}  // namespace Retra::Wire
