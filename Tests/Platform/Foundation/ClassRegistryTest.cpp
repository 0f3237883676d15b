#include "Platform/Foundation/ClassRegistry.h"

#include <gtest/gtest.h>

#include "Platform/Foundation/Exception.h"
#include "Platform/Platform.h"

namespace {

using platform::ClassRegistry;

class Leaf final : public platform::Object {
 public:
  std::string_view className() const noexcept override { return "TestLeaf"; }
};

// Registered before main() begins, as the agent's own classes may be.
const bool registered = [] {
  auto& registry = ClassRegistry::shared();
  registry.registerClass({"TestBase", "", {"ITestBase"}, nullptr});
  registry.registerClass(
      {"TestLeaf", "TestBase", {"ITestLeaf"}, [] { return std::make_shared<Leaf>(); }});
  registry.registerClass({"TestRing", "TestRong", {}, nullptr});
  registry.registerClass({"TestRong", "TestRing", {}, nullptr});
  return true;
}();

TEST(ClassRegistryTest, FindsClassesAndTheirRelationsByText) {
  ASSERT_TRUE(registered);
  const auto& registry = ClassRegistry::shared();
  EXPECT_TRUE(registry.hasClass("TestLeaf"));
  EXPECT_FALSE(registry.hasClass("TestAbsent"));
  EXPECT_EQ(registry.find("TestAbsent").name, "");
  EXPECT_TRUE(registry.isSubclass("TestLeaf", "TestBase"));
  EXPECT_TRUE(registry.isSubclass("TestLeaf", "TestLeaf"));
  EXPECT_FALSE(registry.isSubclass("TestBase", "TestLeaf"));
  EXPECT_FALSE(registry.isSubclass("TestRing", "TestBase"));
  EXPECT_FALSE(registry.classConforms("TestRing", "ITestBase"));
  EXPECT_FALSE(registry.classConforms("TestBase", "ITestLeaf"));
}

TEST(ClassRegistryTest, MakesObjectsThatKnowTheirProtocols) {
  auto& registry = ClassRegistry::shared();
  const platform::ObjectRef leaf = registry.make("TestLeaf");
  ASSERT_NE(leaf, nullptr);
  EXPECT_EQ(leaf->className(), "TestLeaf");
  EXPECT_TRUE(leaf->conformsToProtocol("ITestLeaf"));
  EXPECT_TRUE(leaf->conformsToProtocol("ITestBase"));
  EXPECT_FALSE(leaf->conformsToProtocol("ITestOther"));
  EXPECT_EQ(registry.make("TestBase"), nullptr);
  EXPECT_EQ(registry.make("TestAbsent"), nullptr);
}

}  // namespace
