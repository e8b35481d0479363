#include "descriptor_set.h"

#include <gtest/gtest.h>

TEST(DescriptorSet, HoldsWhatWasAdded) {
  DescriptorSet set;
  EXPECT_FALSE(set.Contains(0));
  ASSERT_TRUE(set.Add(0));
  EXPECT_TRUE(set.Contains(0));
}
