// Array shape: stock shapes, the refusals and their order, the shape that
// stays in force after a failed call.
#include <gtest/gtest.h>

#include <cmath>

#include "AudioBfProcess_internal.h"
#include "level_file.h"
#include "support.h"

using namespace kivbf_test;

namespace {

uint32_t Positions(AudioBfHandle h, float (&pos)[6]) { return KivBf_GetArrayPosition(h, pos); }

AudioBfHandle InitAndConfigure(WorkingBuffer &buffer) {
    AudioBfInit init = DefaultInit();
    AudioBfHandle h = KivBf_Init(buffer.data(), &init);
    AudioBfConfig config{};
    EXPECT_EQ(KivBf_GetConfig(h, &config), KIVBF_OK);
    EXPECT_EQ(KivBf_SetConfig(h, &config), KIVBF_OK);
    return h;
}

}  // namespace

TEST(Geometry, LinearShape) {
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer, 0, 16000, 5.0f);
    const BfCoreState &s = *Bf_StateOf(h);
    float pos[6];
    ASSERT_EQ(Positions(h, pos), KIVBF_OK);
    const float expected[6] = {-2.5f, 0.0f, 0.0f, 2.5f, 0.0f, 0.0f};
    for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(pos[i], expected[i]) << i;
    EXPECT_EQ(s.mic_distance_matrix[0][1], 0.05f);
    EXPECT_EQ(s.mic_distance_matrix[1][0], 0.05f);
    EXPECT_EQ(s.mic_distance_matrix[0][0], 0.0f);
    EXPECT_EQ(s.mic_relative_position[1][0], 0.05f);
    EXPECT_EQ(s.mic_relative_position[0][0], 0.0f);
    EXPECT_EQ(s.array_geometry, 0u);
}

TEST(Geometry, CircularShapeKeepsTheTruncatedPiOffset) {
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer, 1, 16000, 5.0f);
    const BfCoreState &s = *Bf_StateOf(h);
    EXPECT_EQ(s.array_geometry, 1u);
    EXPECT_EQ(s.mic_position[0][0], static_cast<float>(0.025 * std::cos(3.1415926)));
    EXPECT_EQ(s.mic_position[0][1], static_cast<float>(0.025 * std::sin(3.1415926)));
    EXPECT_GT(s.mic_position[0][1], 1e-9f);  // about 2.7e-8 * d
    EXPECT_EQ(s.mic_position[1][0], 0.025f);
    EXPECT_EQ(s.mic_position[1][1], 0.0f);
    float pos[6];
    ASSERT_EQ(Positions(h, pos), KIVBF_OK);
    EXPECT_FLOAT_EQ(pos[0], -2.5f);
    EXPECT_GT(pos[1], 0.0f);
    EXPECT_FLOAT_EQ(pos[3], 2.5f);
    EXPECT_EQ(pos[2], 0.0f);
    EXPECT_FLOAT_EQ(s.mic_distance_matrix[0][1], 0.05f);
}

TEST(Geometry, BadGeometryKeepsAShapeAlreadyInForce) {
    SetMessageLevel(3);
    const std::string bad =
        "[ALGO_MSG_ERR] [BF] [SetShape] Fail! The array_geometry setting is not allow, it should "
        "be 0 or 1 !!\r\n";
    const std::string overwrite =
        "[ALGO_MSG_WRN] [BF] [SetShape] Warning!You may have called KivBf_SetArbitraryShape "
        "first. The array geometry will be overwrite !\t\n";
    WorkingBuffer buffer;
    AudioBfHandle h = InitAndConfigure(buffer);
    float pos[6];
    for (uint32_t geometry : {2u, 3u, 0xFFFFFFFFu}) {
        CaptureStart();
        EXPECT_EQ(KivBf_SetShape(h, geometry), KIVBF_ERR_ARRAY_GEOMETRY);
        EXPECT_EQ(CaptureStop(), bad);
    }
    CaptureStart();
    EXPECT_EQ(Positions(h, pos), KIVBF_ERR_NO_SHAPE);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_ERR] [BF] [GetArrayPosition] Fail! Please call KivBf_SetShape or "
              "KivBf_SetArbitraryShape first!\t\n");

    ASSERT_EQ(KivBf_SetShape(h, 0), KIVBF_OK);
    CaptureStart();
    EXPECT_EQ(KivBf_SetShape(h, 2), KIVBF_ERR_ARRAY_GEOMETRY);
    EXPECT_EQ(CaptureStop(), overwrite + bad);
    EXPECT_EQ(Positions(h, pos), KIVBF_OK);
    EXPECT_FLOAT_EQ(pos[0], -2.5f);

    CaptureStart();
    EXPECT_EQ(KivBf_SetShape(h, 1), KIVBF_OK);
    EXPECT_EQ(CaptureStop(), overwrite);
    Bf_StateOf(h)->debug_level = 1;  // without the warning bit: silent
    CaptureStart();
    EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_OK);
    EXPECT_EQ(CaptureStop(), "");
}

TEST(Geometry, ShapeIsSettableOnlyBeforeTheFirstBlock) {
    SetMessageLevel(1);
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    BfCoreState &s = *Bf_StateOf(h);
    const float free_positions[4] = {-3.0f, 0.0f, 3.0f, 0.0f};
    for (int32_t run_flag : {0, 1}) {
        s.run_flag = run_flag;
        CaptureStart();
        EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_ERR_SHAPE_AFTER_RUN);
        EXPECT_EQ(KivBf_SetArbitraryShape(h, free_positions), KIVBF_ERR_SHAPE_AFTER_RUN);
        EXPECT_EQ(CaptureStop(),
                  "[ALGO_MSG_ERR] [BF] [SetShape] Fail! Can't not change array shape during run "
                  "process!\t\n"
                  "[ALGO_MSG_ERR] [BF] [SetArbitraryShape] Fail! Can't not change array shape "
                  "during run process!\t\n");
        float pos[6];
        EXPECT_EQ(Positions(h, pos), KIVBF_OK);  // readable while running
    }
    // Config is tested before the run state.
    s.config_flag = 0;
    EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_ERR_PREREQUISITE);
    s.init_flag = 2;
    EXPECT_EQ(KivBf_SetShape(h, 0), KIVBF_ERR_NOT_INITIALISED);
}

TEST(Geometry, ArbitraryShapeIsAlwaysRefusedForAPair) {
    SetMessageLevel(3);
    WorkingBuffer buffer;
    AudioBfHandle h = InitAndConfigure(buffer);
    const std::string pair =
        "[ALGO_MSG_ERR] [BF] [Set_ArbitraryShape] Fail! Two microphone array must be linear. "
        "Can't use Arbitrary shape !\t\n";
    const float distinct[4] = {-3.0f, 0.0f, 3.0f, 1.0f};
    const float same[4] = {1.0f, 1.0f, 1.0f, 1.0f};
    for (const float *positions : {distinct, same}) {
        CaptureStart();
        EXPECT_EQ(KivBf_SetArbitraryShape(h, positions), KIVBF_ERR_ARRAY_GEOMETRY);
        EXPECT_EQ(CaptureStop(), pair);
    }
    float pos[6];
    EXPECT_EQ(Positions(h, pos), KIVBF_ERR_NO_SHAPE);  // first shape call failed

    ASSERT_EQ(KivBf_SetShape(h, 0), KIVBF_OK);
    CaptureStart();
    EXPECT_EQ(KivBf_SetArbitraryShape(h, distinct), KIVBF_ERR_ARRAY_GEOMETRY);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_WRN] [BF] [SetArbitraryShape] Warning!You may have called KivBf_SetShape "
              "first.It is going to overwrite the array geometry !\t\n" +
                  pair);
    EXPECT_EQ(Positions(h, pos), KIVBF_OK);
}

TEST(Geometry, NullPointersPrintWhateverTheLevel) {
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    Bf_StateOf(h)->debug_level = 0;
    CaptureStart();
    EXPECT_EQ(KivBf_SetShape(nullptr, 0), KIVBF_ERR_HANDLE);
    EXPECT_EQ(KivBf_SetArbitraryShape(nullptr, nullptr), KIVBF_ERR_HANDLE);
    EXPECT_EQ(KivBf_SetArbitraryShape(h, nullptr), KIVBF_ERR_NULL_POINTER);
    EXPECT_EQ(KivBf_GetArrayPosition(nullptr, nullptr), KIVBF_ERR_HANDLE);
    EXPECT_EQ(KivBf_GetArrayPosition(h, nullptr), KIVBF_ERR_NULL_POINTER);
    EXPECT_EQ(CaptureStop(),
              "[ALGO_MSG_ERR] [BF] [SetShape] Fail! The handle is NULL!!\r\n"
              "[ALGO_MSG_ERR] [BF] [SetArbitraryShape] Fail! The handle is NULL!!\r\n"
              "[ALGO_MSG_ERR] [BF] [SetArbitraryShape] Fail! The array_pos is NULL!!\r\n"
              "[ALGO_MSG_ERR] [BF] [GetArrayPosition] Fail! The handle is NULL!!\r\n"
              "[ALGO_MSG_ERR] [BF] [GetArrayPosition] Fail! The array_pos is NULL!!\r\n");
}
