#include <gtest/gtest.h>
#include "support/access.h"
TEST(Smoke, Builds) { ClubTracker t; EXPECT_EQ(t.setting.axisIndex, 1); }
