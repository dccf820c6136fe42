#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Orb/AttrLog.h"
#include "Orb/Entity.h"
#include "Orb/HashMap.h"
#include "Orb/Ptr.h"
#include "Orb/String.h"
#include "Orb/TypeNode.h"
#include "Orb/ValueText.h"

// The attribute declaration kit: a type lists each of its attributes once, in declaration order,
// in an X-macro, and the kit turns that list into the attribute numbers, the type's attribute
// table, the observer callbacks, the stored members, the getters and the mutators. Every name
// the kit generates for an attribute is written out on the attribute's own line, so that a search
// for `statusCodeIs` or `onStatusCode` finds the declaration.
//
// A list takes one macro and calls it once per attribute with the attribute's kind first and its
// name second:
//
//   #define DEMO_GAUGE_ATTRIBUTES(X)     (each line continued with a backslash)
//     X(FIXED, unit, Orb::String)
//     X(SCALAR, level, uint32_t, levelIs, onLevel, 0)
//     X(COUNTER, hits, uint64_t, hitsIs, hitsInc, onHits, 0)
//     X(COLLECTION, tag, Orb::String, bool, tagIs, tagDel, tagDelAll, onTag, onTagImmediate)
//     X(DERIVED, empty, bool)
//     X(OPERATION, doClear, void)
//
//   class Gauge : public Orb::Entity {
//    public:
//     class NotifieeConst : public Orb::BaseNotifiee<Gauge> {
//      public:
//       DEMO_GAUGE_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)
//     };
//     ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, DEMO_GAUGE_ATTRIBUTES);  // Gauge::Attr::level
//     DEMO_GAUGE_ATTRIBUTES(ORB_ENTITY_ACCESSORS)
//    private:
//     DEMO_GAUGE_ATTRIBUTES(ORB_ENTITY_MEMBERS)
//   };
//
// Entity kinds and what each generates:
//
//   FIXED(name, Type)                 member `name_` and getter; set by the constructor, never
//                                     notified.
//   SCALAR(name, Type, nameIs, onName, initial)
//                                     getter; `nameIs(v)` stores and calls `onName()` only when
//                                     the value really changes.
//   COUNTER(name, Type, nameIs, nameInc, onName, initial)
//                                     a SCALAR plus `nameInc(amount)`: adds (unsigned values
//                                     wrap), notifies only on change, returns the new value.
//   COLLECTION(name, Key, Value, nameIs, nameDel, nameDelAll, onName, onNameImmediate)
//                                     a map; `name()` is the whole map, `name(key)` one value
//                                     (Value{} when absent). `nameIs(key, value)` and
//                                     `nameDel(key)` call `onName(key)` then `onNameImmediate()`
//                                     when the map changed. `nameDelAll()` removes the members
//                                     one by one, notifying each key as `nameDel` does, and then,
//                                     if it removed anything, calls the key-less `onName()` once.
//   CHILD(name, Type, nameIs, nameDel, onName)
//                                     a child entity named after the attribute. `nameIs()`
//                                     returns it, creating it first (with this entity as parent)
//                                     and then calling `onName()`; `nameDel()` unlinks it,
//                                     notifies and returns it.
//   DIRECTORY(name, Key, Value, onName, onNameImmediate)
//                                     a collection whose members and mutators the type writes
//                                     itself; the kit declares only the callbacks.
//   HELD(name, Type, onName)          one object the type holds (a reactor, a directory, a
//                                     service) and replaces through setters it writes itself,
//                                     which call `onName()` on a change; the kit declares the
//                                     callback, the member `name_` (Type{}) and the getter.
//   DERIVED(name, Type), OPERATION(name, Type)
//                                     numbered only; the type writes the getter or operation.
//
// Value-type kinds (see ORB_VALUE_ACCESSORS): FIELD, READONLY, MAP and DERIVED.
//
// Mutators that notify several times keep the entity alive until they are done, so that an
// observer may drop the last reference to it from a callback.
//
// The entity kinds need of their owner only `notifiees()` (and, for CHILD, that it is an
// `Orb::Entity`), so a counted state machine that is no entity (a `PtrInterface` with a
// `NotifieeList`) declares its attributes with them as well.

// -- Numbers and the attribute table -------------------------------------------------------------

#define ORB_ATTRIBUTE_ID(kind, name, ...) name,
#define ORB_ATTRIBUTE_NAME(kind, name, ...) #name,

// A nested `Attr` holding one number per attribute (`Response::Attr::statusCode`), counted from
// `first` in list order.
#define ORB_ATTRIBUTE_IDS(first, LIST)                                              \
  struct Attr {                                                                     \
    enum : ::Orb::AttributeId { beforeFirst_ = (first)-1, LIST(ORB_ATTRIBUTE_ID) }; \
  }

// The attribute table of a type descriptor: the list's names numbered from `first`.
#define ORB_ATTRIBUTE_TABLE(first, LIST) ::Orb::attributeTable((first), {LIST(ORB_ATTRIBUTE_NAME)})

// -- Observer callbacks (inside the type's NotifieeConst) ----------------------------------------

#define ORB_NOTIFIEE_CALLBACKS(kind, ...) ORB_NOTIFIEE_CALLBACKS_##kind(__VA_ARGS__)
#define ORB_NOTIFIEE_CALLBACKS_FIXED(...)
#define ORB_NOTIFIEE_CALLBACKS_DERIVED(...)
#define ORB_NOTIFIEE_CALLBACKS_OPERATION(...)
#define ORB_NOTIFIEE_CALLBACKS_SCALAR(name, Type, nameIs, onName, initial) \
  virtual void onName() {}
#define ORB_NOTIFIEE_CALLBACKS_COUNTER(name, Type, nameIs, nameInc, onName, initial) \
  virtual void onName() {}
#define ORB_NOTIFIEE_CALLBACKS_CHILD(name, Type, nameIs, nameDel, onName) \
  virtual void onName() {}
#define ORB_NOTIFIEE_CALLBACKS_COLLECTION(name, Key, Value, nameIs, nameDel, nameDelAll, onName, \
                                          onNameImmediate)                                       \
  virtual void onName(::Orb::ParamType<Key>) {}                                                  \
  virtual void onName() {}                                                                       \
  virtual void onNameImmediate() {}
#define ORB_NOTIFIEE_CALLBACKS_DIRECTORY(name, Key, Value, onName, onNameImmediate) \
  virtual void onName(::Orb::ParamType<Key>) {}                                     \
  virtual void onNameImmediate() {}
#define ORB_NOTIFIEE_CALLBACKS_HELD(name, Type, onName) \
  virtual void onName() {}

// -- Entity getters and mutators (public section of the entity) ----------------------------------

#define ORB_ENTITY_ACCESSORS(kind, ...) ORB_ENTITY_ACCESSORS_##kind(__VA_ARGS__)
#define ORB_ENTITY_ACCESSORS_DERIVED(...)
#define ORB_ENTITY_ACCESSORS_OPERATION(...)
#define ORB_ENTITY_ACCESSORS_DIRECTORY(...)
#define ORB_ENTITY_ACCESSORS_HELD(name, Type, onName) \
  [[nodiscard]] const Type& name() const noexcept {   \
    return name##_;                                   \
  }
#define ORB_ENTITY_ACCESSORS_FIXED(name, Type)                 \
  [[nodiscard]] ::Orb::ParamType<Type> name() const noexcept { \
    return name##_;                                            \
  }
#define ORB_ENTITY_ACCESSORS_SCALAR(name, Type, nameIs, onName, initial)                     \
  [[nodiscard]] ::Orb::ParamType<Type> name() const noexcept {                               \
    return name##_;                                                                          \
  }                                                                                          \
  void nameIs(::Orb::ParamType<Type> value) {                                                \
    if (::Orb::assignIfChanged(name##_, value)) notifiees().doVisit(&NotifieeConst::onName); \
  }
#define ORB_ENTITY_ACCESSORS_COUNTER(name, Type, nameIs, nameInc, onName, initial) \
  ORB_ENTITY_ACCESSORS_SCALAR(name, Type, nameIs, onName, initial)                 \
  Type nameInc(::Orb::ParamType<Type> amount) {                                    \
    const Type next = static_cast<Type>(name##_ + amount);                         \
    nameIs(next);                                                                  \
    return next;                                                                   \
  }
#define ORB_ENTITY_ACCESSORS_COLLECTION(name, Key, Value, nameIs, nameDel, nameDelAll, onName,   \
                                        onNameImmediate)                                         \
  [[nodiscard]] const ::Orb::HashMap<Key, Value>& name() const noexcept {                        \
    return name##_;                                                                              \
  }                                                                                              \
  [[nodiscard]] Value name(::Orb::ParamType<Key> key) const {                                    \
    return ::Orb::memberOr(name##_, key);                                                        \
  }                                                                                              \
  void nameIs(::Orb::ParamType<Key> key, ::Orb::ParamType<Value> value) {                        \
    ::Orb::memberIs(*this, name##_, key, value, &NotifieeConst::onName,                          \
                    &NotifieeConst::onNameImmediate);                                            \
  }                                                                                              \
  bool nameDel(::Orb::ParamType<Key> key) {                                                      \
    return ::Orb::memberDel(*this, name##_, key, &NotifieeConst::onName,                         \
                            &NotifieeConst::onNameImmediate);                                    \
  }                                                                                              \
  void nameDelAll() {                                                                            \
    ::Orb::memberDelAll(*this, name##_, &NotifieeConst::onName, &NotifieeConst::onNameImmediate, \
                        &NotifieeConst::onName);                                                 \
  }
#define ORB_ENTITY_ACCESSORS_CHILD(name, Type, nameIs, nameDel, onName)                   \
  [[nodiscard]] ::Orb::Ptr<Type> name() const noexcept {                                  \
    return name##_;                                                                       \
  }                                                                                       \
  ::Orb::Ptr<Type> nameIs() {                                                             \
    if (name##_) return name##_;                                                          \
    /* One name per thread for every child of the attribute: no allocation per child. */  \
    thread_local const ::Orb::Name childName(#name);                                      \
    return ::Orb::childIs(*this, name##_, Attr::name, childName, &NotifieeConst::onName); \
  }                                                                                       \
  ::Orb::Ptr<Type> nameDel() {                                                            \
    return ::Orb::childDel(*this, name##_, &NotifieeConst::onName);                       \
  }

// -- Entity members (private section of the entity) ----------------------------------------------

#define ORB_ENTITY_MEMBERS(kind, ...) ORB_ENTITY_MEMBERS_##kind(__VA_ARGS__)
#define ORB_ENTITY_MEMBERS_DERIVED(...)
#define ORB_ENTITY_MEMBERS_OPERATION(...)
#define ORB_ENTITY_MEMBERS_DIRECTORY(...)
#define ORB_ENTITY_MEMBERS_HELD(name, Type, onName) Type name##_{};
#define ORB_ENTITY_MEMBERS_FIXED(name, Type) Type name##_;
#define ORB_ENTITY_MEMBERS_SCALAR(name, Type, nameIs, onName, initial) Type name##_ = initial;
#define ORB_ENTITY_MEMBERS_COUNTER(name, Type, nameIs, nameInc, onName, initial) \
  Type name##_ = initial;
#define ORB_ENTITY_MEMBERS_COLLECTION(name, Key, Value, ...) ::Orb::HashMap<Key, Value> name##_;
#define ORB_ENTITY_MEMBERS_CHILD(name, Type, ...) ::Orb::Ptr<Type> name##_;

// -- Entity reflection and forwarding ------------------------------------------------------------
//
// `ORB_ENTITY_REFLECTION(Type, LIST)` (public section) adds `forEachAttribute(v)`, which hands the
// visitor `v` each stored attribute in list order, with its number, its name and functions that
// read and write it through the getters and mutators above (so writes notify as usual):
//
//   v.scalar(Attr::name, "name", get, set)               SCALAR and COUNTER: get(const T&) returns
//                                                        the value, set(T&, value) stores it.
//   v.collection(Attr::name, "name", get, set, del)      COLLECTION: get returns the map,
//                                                        set(T&, key, value), del(T&, key).
//   v.child(Attr::name, "name", get, make)               CHILD: get(const T&) the child or null,
//                                                        make(T&) the child, created if needed.
//
// Streaming an entity between processes (a snapshot, then each change) is built on it.
//
// `ORB_NOTIFIEE_FORWARDERS` (inside an observer derived from the type's `NotifieeConst`, which
// names that base `ForwardedNotifiee`) overrides every callback of SCALAR, COUNTER and CHILD
// attributes to call `attributeChanged(Attr::name)`, and every keyed COLLECTION callback to call
// `memberChanged(Attr::name, key)`: one observer that hears of every change by number.

#define ORB_ENTITY_VISIT(kind, ...) ORB_ENTITY_VISIT_##kind(__VA_ARGS__)
#define ORB_ENTITY_VISIT_FIXED(...)
#define ORB_ENTITY_VISIT_DERIVED(...)
#define ORB_ENTITY_VISIT_OPERATION(...)
#define ORB_ENTITY_VISIT_DIRECTORY(...)
#define ORB_ENTITY_VISIT_HELD(...)
#define ORB_ENTITY_VISIT_SCALAR(name, Type, nameIs, onName, initial)                       \
  v.scalar(                                                                                \
      Attr::name, #name, [](const Self& s) -> ::Orb::ParamType<Type> { return s.name(); }, \
      [](Self& s, ::Orb::ParamType<Type> value) { s.nameIs(value); });
#define ORB_ENTITY_VISIT_COUNTER(name, Type, nameIs, nameInc, onName, initial) \
  ORB_ENTITY_VISIT_SCALAR(name, Type, nameIs, onName, initial)
#define ORB_ENTITY_VISIT_COLLECTION(name, Key, Value, nameIs, nameDel, nameDelAll, onName, \
                                    onNameImmediate)                                       \
  v.collection(                                                                            \
      Attr::name, #name,                                                                   \
      [](const Self& s) -> const ::Orb::HashMap<Key, Value>& { return s.name(); },         \
      [](Self& s, ::Orb::ParamType<Key> key, ::Orb::ParamType<Value> value) {              \
        s.nameIs(key, value);                                                              \
      },                                                                                   \
      [](Self& s, ::Orb::ParamType<Key> key) { s.nameDel(key); });
#define ORB_ENTITY_VISIT_CHILD(name, Type, nameIs, nameDel, onName)                  \
  v.child(                                                                           \
      Attr::name, #name, [](const Self& s) -> ::Orb::Ptr<Type> { return s.name(); }, \
      [](Self& s) -> ::Orb::Ptr<Type> { return s.nameIs(); });

#define ORB_ENTITY_REFLECTION(Type, LIST) \
  template <class V>                      \
  static void forEachAttribute(V&& v) {   \
    using Self = Type;                    \
    LIST(ORB_ENTITY_VISIT)                \
  }

namespace Orb {
// A visitor for `forEachAttribute` made of three callables, one per kind; `ignoreAttribute` for
// a kind of no interest:
//   Entity::forEachAttribute(Orb::AttributeVisitor{onScalar, Orb::ignoreAttribute, onChild});
template <class S, class C, class K>
struct AttributeVisitor {
  S scalar;
  C collection;
  K child;
};
template <class S, class C, class K>
AttributeVisitor(S, C, K) -> AttributeVisitor<S, C, K>;
inline constexpr auto ignoreAttribute = [](auto&&...) {};
}  // namespace Orb

#define ORB_NOTIFIEE_FORWARDERS(kind, ...) ORB_NOTIFIEE_FORWARDERS_##kind(__VA_ARGS__)
#define ORB_NOTIFIEE_FORWARDERS_FIXED(...)
#define ORB_NOTIFIEE_FORWARDERS_DERIVED(...)
#define ORB_NOTIFIEE_FORWARDERS_OPERATION(...)
#define ORB_NOTIFIEE_FORWARDERS_DIRECTORY(...)
#define ORB_NOTIFIEE_FORWARDERS_HELD(...)
#define ORB_NOTIFIEE_FORWARDERS_SCALAR(name, Type, nameIs, onName, initial) \
  void onName() override {                                                  \
    attributeChanged(NotifierType::Attr::name);                             \
  }
#define ORB_NOTIFIEE_FORWARDERS_COUNTER(name, Type, nameIs, nameInc, onName, initial) \
  ORB_NOTIFIEE_FORWARDERS_SCALAR(name, Type, nameIs, onName, initial)
#define ORB_NOTIFIEE_FORWARDERS_CHILD(name, Type, nameIs, nameDel, onName) \
  void onName() override {                                                 \
    attributeChanged(NotifierType::Attr::name);                            \
  }
#define ORB_NOTIFIEE_FORWARDERS_COLLECTION(name, Key, Value, nameIs, nameDel, nameDelAll, onName, \
                                           onNameImmediate)                                       \
  using ForwardedNotifiee::onName;                                                                \
  void onName(::Orb::ParamType<Key> key) override {                                               \
    memberChanged(NotifierType::Attr::name, key);                                                 \
  }

// -- Value types ---------------------------------------------------------------------------------
//
// A value type (copied whole, compared whole, no notification) lists its attributes with the
// kinds:
//
//   FIELD(name, Type, nameIs, initial)      getter and plain setter `nameIs(v)`.
//   READONLY(name, Type, initial)           getter; set by constructors only.
//   MAP(name, Key, Value, nameIs, newName, nameDel, nameDelAll)
//                                           `name()` the map, `name(key)` one value (Value{}
//                                           when absent); `newName(k, v)` adds an absent member
//                                           and says whether it did; `nameIs(k, v)` replaces or
//                                           adds; `nameDel(k)` removes one; `nameDelAll()` all.
//   DERIVED(name, Type)                     numbered only.
//
// `ORB_VALUE_REFLECTION(Type, LIST)` adds `forEachAttribute(f)`, which calls
// `f("name", &Type::name_)` for each stored attribute in list order: equality
// (`attributesEqual`), the text form (`attributesText`) and attribute-log streaming
// (`writeAttributes` / `readAttributes`) are built on it.

#define ORB_VALUE_ACCESSORS(kind, ...) ORB_VALUE_ACCESSORS_##kind(__VA_ARGS__)
#define ORB_VALUE_ACCESSORS_DERIVED(...)
#define ORB_VALUE_ACCESSORS_READONLY(name, Type, initial)      \
  [[nodiscard]] ::Orb::ParamType<Type> name() const noexcept { \
    return name##_;                                            \
  }
#define ORB_VALUE_ACCESSORS_FIELD(name, Type, nameIs, initial) \
  [[nodiscard]] ::Orb::ParamType<Type> name() const noexcept { \
    return name##_;                                            \
  }                                                            \
  void nameIs(::Orb::ParamType<Type> value) {                  \
    name##_ = value;                                           \
  }
#define ORB_VALUE_ACCESSORS_MAP(name, Key, Value, nameIs, newName, nameDel, nameDelAll) \
  [[nodiscard]] const ::Orb::HashMap<Key, Value>& name() const noexcept {               \
    return name##_;                                                                     \
  }                                                                                     \
  [[nodiscard]] Value name(::Orb::ParamType<Key> key) const {                           \
    return ::Orb::memberOr(name##_, key);                                               \
  }                                                                                     \
  bool newName(::Orb::ParamType<Key> key, ::Orb::ParamType<Value> value) {              \
    return name##_.try_emplace(key, value).second;                                      \
  }                                                                                     \
  void nameIs(::Orb::ParamType<Key> key, ::Orb::ParamType<Value> value) {               \
    auto it = name##_.find(key);                                                        \
    if (it == name##_.end()) {                                                          \
      newName(key, value);                                                              \
    } else {                                                                            \
      it->second = value;                                                               \
    }                                                                                   \
  }                                                                                     \
  bool nameDel(::Orb::ParamType<Key> key) {                                             \
    return name##_.erase(key) > 0;                                                      \
  }                                                                                     \
  void nameDelAll() {                                                                   \
    name##_.clear();                                                                    \
  }

#define ORB_VALUE_MEMBERS(kind, ...) ORB_VALUE_MEMBERS_##kind(__VA_ARGS__)
#define ORB_VALUE_MEMBERS_DERIVED(...)
#define ORB_VALUE_MEMBERS_READONLY(name, Type, initial) Type name##_ = initial;
#define ORB_VALUE_MEMBERS_FIELD(name, Type, nameIs, initial) Type name##_ = initial;
#define ORB_VALUE_MEMBERS_MAP(name, Key, Value, ...) ::Orb::HashMap<Key, Value> name##_;

#define ORB_VALUE_VISIT(kind, name, ...) ORB_VALUE_VISIT_##kind(name)
#define ORB_VALUE_VISIT_DERIVED(name)
#define ORB_VALUE_VISIT_READONLY(name) f(#name, &Self::name##_);
#define ORB_VALUE_VISIT_FIELD(name) f(#name, &Self::name##_);
#define ORB_VALUE_VISIT_MAP(name) f(#name, &Self::name##_);

#define ORB_VALUE_REFLECTION(Type, LIST) \
  template <class F>                     \
  static void forEachAttribute(F&& f) {  \
    using Self = Type;                   \
    LIST(ORB_VALUE_VISIT)                \
  }

namespace Orb {

// How an attribute value is passed and returned: small scalars (up to 32 bits) by value,
// everything else (doubles, 64-bit numbers, strings, keys) by constant reference.
template <class T>
using ParamType = std::conditional_t<std::is_scalar_v<T> && sizeof(T) <= 4, T, const T&>;

// Builds a type's attribute table, numbering `names` from `first`.
[[nodiscard]] std::vector<AttributeInfo> attributeTable(
    AttributeId first, std::initializer_list<std::string_view> names);

// Stores `value` in `field` if it differs; returns whether it did. Doubles compare by value,
// strings by content.
template <class T>
[[nodiscard]] bool assignIfChanged(T& field, const T& value) {
  if (field == value) return false;
  field = value;
  return true;
}

// The value stored under `key`, or a default value when there is none.
template <class K, class V>
[[nodiscard]] V memberOr(const HashMap<K, V>& map, const K& key) {
  auto it = map.find(key);
  return it == map.end() ? V{} : it->second;
}

// Holds a reference to an entity (or any counted notifier) for the length of one mutator, so
// that an observer dropping the last reference from a callback does not destroy the entity
// under the mutator's feet. An entity no pointer holds yet is left alone.
class KeepAlive {
 public:
  explicit KeepAlive(const PtrInterface& e) : entity_(e.references() ? &e : nullptr) {}

 private:
  Ptr<const PtrInterface> entity_;
};

// Tells the observers of `entity` that the member `key` of a collection changed: first the keyed
// callback, then the immediate one. `Owner` is an entity or any counted type with
// `notifiees()`.
template <class Owner, class N, class K>
void notifyMember(const Owner& entity, void (N::*onMember)(ParamType<K>), void (N::*onImmediate)(),
                  const K& key) {
  KeepAlive keep(entity);
  const K member = key;  // `key` may live in the map, which an observer may change
  entity.notifiees().doVisit(onMember, member);
  entity.notifiees().doVisit(onImmediate);
}

// Collection mutators of entities; see COLLECTION above.
template <class Owner, class N, class K, class V>
void memberIs(const Owner& entity, HashMap<K, V>& map, const K& key, const V& value,
              void (N::*onMember)(ParamType<K>), void (N::*onImmediate)()) {
  auto [it, added] = map.try_emplace(key, value);
  if (added || assignIfChanged(it->second, value)) notifyMember(entity, onMember, onImmediate, key);
}

template <class Owner, class N, class K, class V>
bool memberDel(const Owner& entity, HashMap<K, V>& map, const K& key,
               void (N::*onMember)(ParamType<K>), void (N::*onImmediate)()) {
  const K removed = key;  // `key` may live in the member being erased
  if (map.erase(removed) == 0) return false;
  notifyMember(entity, onMember, onImmediate, removed);
  return true;
}

template <class Owner, class N, class K, class V>
void memberDelAll(const Owner& entity, HashMap<K, V>& map, void (N::*onMember)(ParamType<K>),
                  void (N::*onImmediate)(), void (N::*onCollection)()) {
  if (map.empty()) return;
  KeepAlive keep(entity);
  // Observers may change the map from their callbacks: walk a snapshot of the keys, so that
  // each member present at the start is removed and notified at most once.
  std::vector<K> keys;
  keys.reserve(map.size());
  for (const auto& member : map) keys.push_back(member.first);
  bool removed = false;
  for (const K& key : keys) removed |= memberDel(entity, map, key, onMember, onImmediate);
  if (removed) entity.notifiees().doVisit(onCollection);
}

// Child entities; see CHILD above.
template <class C, class N>
Ptr<C> childIs(Entity& parent, Ptr<C>& slot, AttributeId attr, const Name& name,
               void (N::*onChild)()) {
  if (slot) return slot;
  Ptr<C> child = allocate<C>(name);
  child->parentIs(&parent);
  child->parentAttrIdIs(attr);
  slot = child;
  parent.notifiees().doVisit(onChild);
  return child;
}

template <class C, class N>
Ptr<C> childDel(Entity& parent, Ptr<C>& slot, void (N::*onChild)()) {
  Ptr<C> child = std::exchange(slot, nullptr);
  if (!child) return child;
  child->parentIs(nullptr);
  parent.notifiees().doVisit(onChild);
  return child;
}

// -- Text form and attribute-log streaming of value types ----------------------------------------

// A collection has no text form: it is written as "None".
template <class K, class V>
[[nodiscard]] String valueToStrep(const HashMap<K, V>&) {
  return "None";
}

// Attribute-log primitives, overloaded by type. Value types add `writeAttr(AttrLogOut&, const T&)`
// beside them and a streaming constructor `T(AttrLogIn&)`, which `readAttr` then uses.
inline void writeAttr(AttrLogOut& out, bool value) {
  out.writeBool(value);
}
template <std::unsigned_integral T>
requires(!std::same_as<T, bool>) void writeAttr(AttrLogOut& out, T value) {
  out.writeU64(value);
}
template <std::signed_integral T>
void writeAttr(AttrLogOut& out, T value) {
  out.writeI64(value);
}
inline void writeAttr(AttrLogOut& out, double value) {
  out.writeDouble(value);
}
inline void writeAttr(AttrLogOut& out, const String& value) {
  out.writeString(value);
}

inline void readAttr(AttrLogIn& in, bool* value) {
  *value = in.readBool();
}
template <std::unsigned_integral T>
requires(!std::same_as<T, bool>) void readAttr(AttrLogIn& in, T* value) {
  if constexpr (sizeof(T) == 1) {
    *value = in.readU8();
  } else if constexpr (sizeof(T) == 2) {
    *value = in.readU16();
  } else if constexpr (sizeof(T) == 4) {
    *value = in.readU32();
  } else {
    *value = in.readU64();
  }
}
template <std::signed_integral T>
void readAttr(AttrLogIn& in, T* value) {
  if constexpr (sizeof(T) <= 4) {
    *value = static_cast<T>(in.readI32());
  } else {
    *value = in.readI64();
  }
}
inline void readAttr(AttrLogIn& in, double* value) {
  *value = in.readDouble();
}
inline void readAttr(AttrLogIn& in, String* value) {
  *value = in.readString();
}
template <class T>
requires std::constructible_from<T, AttrLogIn&>
void readAttr(AttrLogIn& in, T* value) {
  *value = T(in);
}

// A map is a compound of (key, value) compounds.
template <class K, class V>
void writeAttr(AttrLogOut& out, const HashMap<K, V>& map) {
  out.beginCompound(static_cast<uint32_t>(map.size()));
  for (const auto& [key, value] : map) {
    out.beginCompound(2);
    writeAttr(out, key);
    writeAttr(out, value);
    out.endCompound();
  }
  out.endCompound();
}

template <class K, class V>
void readAttr(AttrLogIn& in, HashMap<K, V>* map) {
  map->clear();
  for (uint32_t n = in.beginCompound(); n > 0; --n) {
    in.beginCompound();
    K key{};
    V value{};
    readAttr(in, &key);
    readAttr(in, &value);
    in.endCompound();
    map->insert_or_assign(std::move(key), std::move(value));
  }
  in.endCompound();
}

// Equality of two values, attribute by attribute in declaration order, stopping at the first
// difference.
template <class T>
[[nodiscard]] bool attributesEqual(const T& a, const T& b) {
  bool equal = true;
  T::forEachAttribute([&](const char*, auto member) { equal = equal && a.*member == b.*member; });
  return equal;
}

// The value form "Value('Type::Name', ** {'a': ..., 'b': ...})", each attribute in its own
// text form.
template <class T>
[[nodiscard]] String attributesText(const T& value) {
  std::string text = "Value('";
  text += T::typeNode()->name();
  text += "', ** {";
  const char* separator = "";
  T::forEachAttribute([&](const char* name, auto member) {
    text += separator;
    text += '\'';
    text += name;
    text += "': ";
    text += valueToStrep(value.*member).view();
    separator = ", ";
  });
  text += "})";
  return String(text);
}

// A value is one compound holding its stored attributes in declaration order.
template <class T>
void writeAttributes(AttrLogOut& out, const T& value) {
  uint32_t count = 0;
  T::forEachAttribute([&](const char*, auto) { ++count; });
  out.beginCompound(count);
  T::forEachAttribute([&](const char*, auto member) { writeAttr(out, value.*member); });
  out.endCompound();
}

// Reads what `writeAttributes` wrote; attributes a newer writer appended are skipped.
template <class T>
void readAttributes(AttrLogIn& in, T& value) {
  in.beginCompound();
  T::forEachAttribute([&](const char*, auto member) { readAttr(in, &(value.*member)); });
  in.endCompound();
}

// Parses a whole text into a value through its parsing constructor `T(it, end)`: nothing may
// follow the value.
template <class T>
[[nodiscard]] T valueFromStrep(std::string_view text) {
  const char* it = text.data();
  const char* end = text.data() + text.size();
  T value(it, end);
  expectEnd(it, end);
  return value;
}

}  // namespace Orb
