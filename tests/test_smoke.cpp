#include <gtest/gtest.h>

#include "support.h"

TEST(Smoke, BufferSizeIsPositive) { EXPECT_GT(KivBf_GetBufferSize(), 0u); }
