#include "Orb/Entity.h"

namespace Orb {

Entity::~Entity() {
  if (parent_) {
    auto it = parent_->children_.find(name_);
    if (it != parent_->children_.end() && it->second == this) parent_->children_.erase(it);
  }
  for (auto& [name, child] : children_) child->parent_ = nullptr;
}

String Entity::fullName() const {
  if (!parent_) return name_.string();
  return parent_->fullName() + String("/") + name_.string();
}

void Entity::parentIs(Entity* parent) {
  if (parent == parent_) return;
  if (parent_) {
    auto it = parent_->children_.find(name_);
    if (it != parent_->children_.end() && it->second == this) {
      parent_->children_.erase(it);
    }
  }
  parent_ = parent;
  if (!parent) parentAttrId_ = 0;
  if (parent_) {
    parent_->children_[name_] = this;
  }
}

std::string_view Entity::parentAttrName() const {
  if (!parent_ || !parent_->typeNode()) return {};
  return parent_->typeNode()->attributeName(parentAttrId_);
}

Ptr<Entity> Entity::entity(const Name& name) const {
  auto it = children_.find(name);
  return it == children_.end() ? Ptr<Entity>() : Ptr<Entity>(it->second);
}

}  // namespace Orb
