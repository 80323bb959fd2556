#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/Zol/Assert.h"
#include "runtime/Zol/TypeRegistry.h"

namespace Zol {
namespace {

// Fails if the text that names the broken condition changes, or the process goes on.
TEST(AssertDeathTest, stopsTheProcessAndNamesTheCondition) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const int count = 0;
  EXPECT_DEATH(ZOL_ASSERT(count > 0), "AssertTest.cpp:[0-9]+: assertion failed: count > 0\n");
  EXPECT_DEATH(ZOL_ASSERT_TEXT(count > 0, "!tunnelFibEntryMarkedUnprocesseds()"),
               "assertion failed: !tunnelFibEntryMarkedUnprocesseds\\(\\)\n");
  ZOL_ASSERT(count == 0);
}

TEST(Assert, trapsNest) {
  const AssertionTrap outer;
  { const AssertionTrap inner; }
  try {
    ZOL_ASSERT(1 + 1 == 3);
    FAIL();
  } catch (const AssertionException& error) {
    EXPECT_STREQ(error.what(), "1 + 1 == 3");
  }
}

TEST(TypeRegistry, keepsTheOrderOfRegistration) {
  TypeRegistry registry;
  for (const char* name : {"Tunnel::B", "Tunnel::A", "Tunnel::B"}) {
    registry.typeIs(name);
  }
  EXPECT_EQ(registry.types(), (std::vector<std::string>{"Tunnel::B", "Tunnel::A"}));
  EXPECT_TRUE(registry.typeHas("Tunnel::A"));
  EXPECT_FALSE(registry.typeHas("Tunnel"));
  EXPECT_EQ(&TypeRegistry::instance(), &TypeRegistry::instance());
}

}  // namespace
}  // namespace Zol
