#include <gtest/gtest.h>

#include "Orb/Entity.h"

namespace {

class Dir : public Orb::Entity {
 public:
  using Orb::Entity::Entity;
  const Orb::TypeNode* typeNode() const override { return &type; }
  static inline const Orb::TypeNode type{
      "Test::Dir", Orb::TypeNode::Kind::entity, {{258, "left"}, {259, "right"}}};
};

TEST(EntityTest, ChildrenKnowTheirParentAndFullName) {
  auto root = Orb::allocate<Dir>("root");
  auto left = Orb::allocate<Dir>("left");
  auto leaf = Orb::allocate<Dir>("leaf");
  left->parentIs(root);
  left->parentAttrIdIs(258);
  leaf->parentIs(left);
  EXPECT_EQ(left->parent(), root.ptr());
  EXPECT_EQ(left->parentAttrName(), "left");
  EXPECT_EQ(root->entity("left"), left);
  EXPECT_EQ(root->entity("none"), nullptr);
  EXPECT_EQ(leaf->fullName(), "root/left/leaf");
  EXPECT_EQ(root->fullName(), "root");

  left->parentIs(nullptr);
  EXPECT_EQ(root->entity("left"), nullptr);
  EXPECT_EQ(left->parentAttrId(), 0u);
  EXPECT_EQ(leaf->fullName(), "left/leaf");
}

TEST(EntityTest, DestroyingEitherSideLeavesNoDanglingLink) {
  auto root = Orb::allocate<Dir>("root");
  auto child = Orb::allocate<Dir>("child");
  child->parentIs(root);
  root = nullptr;  // the parent goes first
  EXPECT_EQ(child->parent(), nullptr);
  EXPECT_EQ(child->fullName(), "child");

  root = Orb::allocate<Dir>("root");
  child->parentIs(root);
  child = nullptr;  // the child goes first
  EXPECT_TRUE(root->entities().empty());
}

}  // namespace
