#include <gtest/gtest.h>
#include "vo.h"
TEST(Smoke, Builds) { EXPECT_EQ(VOPROG, 0x20000604u); }
