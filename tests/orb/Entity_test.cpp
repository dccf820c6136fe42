#include "Orb/Entity.h"

#include <gtest/gtest.h>

namespace {

class Dir : public Orb::Entity {
 public:
  using Orb::Entity::Entity;
  const Orb::TypeNode* typeNode() const override { return &type; }
  static inline const Orb::TypeNode type{"Test::Dir", Orb::TypeNode::Kind::entity, {{258, "left"}}};
};

TEST(EntityTest, ParentAndChildLinksNeverDangle) {
  auto root = Orb::allocate<Dir>("root"), left = Orb::allocate<Dir>("left");
  left->parentIs(root);
  left->parentAttrIdIs(258);
  EXPECT_EQ(root->entity("left"), left);
  left->parentIs(nullptr);
  EXPECT_EQ(root->entity("left"), nullptr);
  EXPECT_EQ(left->parentAttrId(), 0u);

  left->parentIs(root);
  root = nullptr;  // the parent goes first
  EXPECT_EQ(left->parent(), nullptr);
  EXPECT_EQ(left->fullName(), "left");
  root = Orb::allocate<Dir>("root");
  left->parentIs(root);
  left = nullptr;  // the child goes first
  EXPECT_TRUE(root->entities().empty());
}

}  // namespace
