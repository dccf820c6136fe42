#pragma once

#include "Orb/HashMap.h"
#include "Orb/Name.h"
#include "Orb/Notifiee.h"
#include "Orb/NotifieeList.h"
#include "Orb/Ptr.h"
#include "Orb/TypeNode.h"

namespace Orb {

// A named, reference-counted node in a tree of entities. A parent owns its children through
// the attribute that holds them (an `Orb::Ptr`); the child points back at its parent without a
// reference, and records which attribute of the parent holds it. Each entity type declares its
// own `NotifieeConst` (a `BaseNotifiee` of that type) for the attributes it adds.
//
//   auto dir = Orb::allocate<ResponseDir>("retraResponse");
//   dir->parentIs(root);                 // root->entity("retraResponse") is now dir
//   dir->fullName();                     // "root/retraResponse"
class Entity : public PtrInterface {
 public:
  explicit Entity(const Name& name) : name_(name) {}
  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;

  [[nodiscard]] const Name& name() const noexcept { return name_; }
  // The path from the root of the tree: names joined by "/".
  [[nodiscard]] String fullName() const;

  [[nodiscard]] Entity* parent() const noexcept { return parent_; }
  // Moves the entity under `parent` (or out of any tree with null). Takes a raw pointer so that
  // a constructor can adopt children before its own object holds any reference.
  void parentIs(Entity* parent);
  void parentIs(const Ptr<Entity>& parent) { parentIs(parent.ptr()); }

  [[nodiscard]] AttributeId parentAttrId() const noexcept { return parentAttrId_; }
  void parentAttrIdIs(AttributeId id) { parentAttrId_ = id; }
  // The name of the parent's attribute that holds this entity, from the parent's type.
  [[nodiscard]] std::string_view parentAttrName() const;

  // Children by name (the `entity` collection); null when there is none.
  [[nodiscard]] Ptr<Entity> entity(const Name& name) const;
  [[nodiscard]] const HashMap<Name, Entity*>& entities() const noexcept { return children_; }

  // The registered descriptor of the entity's type; null for a plain `Orb::Entity`.
  [[nodiscard]] virtual const TypeNode* typeNode() const { return nullptr; }

  [[nodiscard]] NotifieeList& notifiees() const noexcept { return notifiees_; }

 protected:
  ~Entity() override;

 private:
  Name name_;
  Entity* parent_ = nullptr;
  AttributeId parentAttrId_ = 0;
  HashMap<Name, Entity*> children_;
  mutable NotifieeList notifiees_;
};

}  // namespace Orb
