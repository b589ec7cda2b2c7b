#include "tarvik/AString.h"

#include <gtest/gtest.h>

TEST(AString, Builds) { tarvik::AString s("x"); EXPECT_EQ(s.length(), 1u); }
