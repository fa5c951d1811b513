// Array shape: stock shapes, refusals, and the shape that stays in force.
#include <gtest/gtest.h>

#include <cmath>

#include "AudioBfProcess_internal.h"
#include "support.h"

using namespace kivbf_test;

TEST(Geometry, StockShapesAt5cm) {
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer, 0, 16000, 5.0f);
    const BfCoreState &s = *Bf_StateOf(h);
    float pos[6];
    ASSERT_EQ(KivBf_GetArrayPosition(h, pos), KIVBF_OK);
    const float expected[6] = {-2.5f, 0.0f, 0.0f, 2.5f, 0.0f, 0.0f};
    for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(pos[i], expected[i]) << i;
    EXPECT_EQ(std::make_tuple(s.mic_distance_matrix[1][0], s.mic_relative_position[1][0]), std::make_tuple(0.05f, 0.05f));

    h = MakeConfiguredHandle(buffer, 1, 16000, 5.0f);
    // Microphone 0 at 180 degrees keeps the tiny y that the truncated pi gives.
    EXPECT_EQ(s.mic_position[0][1], static_cast<float>(0.025 * std::sin(3.1415926)));
    EXPECT_EQ(s.mic_relative_position[1][1], -s.mic_position[0][1]);
    EXPECT_FLOAT_EQ(s.mic_distance_matrix[0][1], 0.05f);
    ASSERT_EQ(KivBf_GetArrayPosition(h, pos), KIVBF_OK);
    EXPECT_GT(pos[1], 0.0f);
}

TEST(Geometry, RefusalsLeaveTheShapeAsItWasAndNoShapeChangesOnceRunning) {
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    BfCoreState &s = *Bf_StateOf(h);
    s.debug_level = 1;
    s.shape_flag = 2;  // as before any shape call
    const float skewed[4] = {-3.0f, 0.0f, 3.0f, 1.0f}, linear[4] = {-3.0f, 0.0f, 3.0f, 0.0f};
    float pos[6];
    for (uint32_t geometry : {2u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Captured([&] {
                      EXPECT_EQ(KivBf_SetShape(h, geometry), KIVBF_ERR_ARRAY_GEOMETRY);
                      EXPECT_EQ(KivBf_SetArbitraryShape(h, skewed), KIVBF_ERR_ARRAY_GEOMETRY);
                  }),
                  kBfError + "[SetShape] Fail! The array_geometry setting is not allow, it should be 0 or 1 !!\r\n" +
                      kBfError + "[Set_ArbitraryShape] Fail! Two microphone array must be linear. "
                                 "Can't use Arbitrary shape !\t\n");
        EXPECT_EQ(KivBf_GetArrayPosition(h, pos), geometry == 2 ? KIVBF_ERR_NO_SHAPE : KIVBF_OK);
        ASSERT_EQ(KivBf_SetShape(h, 0), KIVBF_OK);
    }
    const std::string running = " Fail! Can't not change array shape during run process!\t\n";
    for (int32_t run_flag : {0, 1}) {
        s.run_flag = run_flag;
        EXPECT_EQ(Captured([&] {
                      EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_ERR_SHAPE_AFTER_RUN);
                      EXPECT_EQ(KivBf_SetArbitraryShape(h, linear), KIVBF_ERR_SHAPE_AFTER_RUN);
                  }),
                  kBfError + "[SetShape]" + running + kBfError + "[SetArbitraryShape]" + running);
        EXPECT_EQ(KivBf_GetArrayPosition(h, pos), KIVBF_OK);  // readable while running
    }
    s.config_flag = 0;  // config is tested before the run state
    EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_ERR_PREREQUISITE);
    s.debug_level = 0;  // null-pointer messages print anyway
    EXPECT_EQ(Captured([&] {
                  EXPECT_EQ(KivBf_SetShape(nullptr, 0), KIVBF_ERR_HANDLE);
                  EXPECT_EQ(KivBf_SetArbitraryShape(h, nullptr), KIVBF_ERR_NULL_POINTER);
                  EXPECT_EQ(KivBf_GetArrayPosition(h, nullptr), KIVBF_ERR_NULL_POINTER);
              }),
              kBfError + "[SetShape] Fail! The handle is NULL!!\r\n" + kBfError +
                  "[SetArbitraryShape] Fail! The array_pos is NULL!!\r\n" + kBfError +
                  "[GetArrayPosition] Fail! The array_pos is NULL!!\r\n");
}
