// KivBf_Run: argument and calling-order checks, the silent path, the
// clipping hold and the direction mapping.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "AudioBfProcess_internal.h"
#include "debug_msglevel.h"
#include "support.h"

using namespace kivbf_test;

namespace {

// 128 interleaved pairs of a sine on both channels (channel 1 at half level).
std::vector<int16_t> SineBlock(double amplitude, int block_index = 0) {
    std::vector<int16_t> block(256);
    for (int i = 0; i < 256; ++i)
        block[i] = static_cast<int16_t>(amplitude * std::sin(0.2 * (128 * block_index + i / 2)) / (1 + i % 2));
    return block;
}

struct RunFixture : testing::Test {
    WorkingBuffer buffer;
    int16_t out[128] = {};
    float direction = 0.0f;
    BfCoreState &State() { return *Bf_StateOf(buffer.data()); }
    uint32_t Run(const std::vector<int16_t> &in) { return KivBf_Run(buffer.data(), in.data(), out, &direction); }
    std::vector<float> Filter() { return {State().anc_filter, State().anc_filter + 258}; }
};

}  // namespace

TEST_F(RunFixture, ChecksArgumentsThenInitConfigAndShapeInThatOrder) {
    const std::vector<int16_t> in = SineBlock(1000);
    std::memset(buffer.data(), 0, buffer.size());  // message level 0 too
    const std::string null = "[ALGO_MSG_ERR]  [BF] [Run] Fail! The input pointer is NULL\t\n";
    // Null pointers are reported whatever the level, before any other test.
    EXPECT_EQ(Captured([&] {
                  EXPECT_EQ(KivBf_Run(nullptr, in.data(), out, &direction), KIVBF_ERR_HANDLE);
                  EXPECT_EQ(KivBf_Run(buffer.data(), nullptr, out, &direction), KIVBF_ERR_NULL_POINTER);
                  EXPECT_EQ(KivBf_Run(buffer.data(), in.data(), nullptr, &direction), KIVBF_ERR_NULL_POINTER);
                  EXPECT_EQ(KivBf_Run(buffer.data(), in.data(), out, nullptr), KIVBF_ERR_NULL_POINTER);
              }),
              "[ALGO_MSG_ERR]  [BF] [Run] Fail! The handle is NULL\t\n" + null + null + null);
    State().debug_level = DML_ERR;
    const std::string fail = kBfError + "[Run] Fail! ";
    EXPECT_EQ(Captured([&] { EXPECT_EQ(Run(in), KIVBF_ERR_NOT_INITIALISED); }), fail + "Please call KivBf_Init first!\t\n");
    AudioBfInit init = DefaultInit();
    ASSERT_NE(KivBf_Init(buffer.data(), &init), nullptr);
    EXPECT_EQ(Captured([&] { EXPECT_EQ(Run(in), KIVBF_ERR_PREREQUISITE); }), fail + "Please call KivBf_SetConfig first!\t\n");
    EXPECT_EQ(State().run_flag, 0);
    AudioBfConfig config = CurrentConfig(buffer.data());
    ASSERT_EQ(KivBf_SetConfig(buffer.data(), &config), KIVBF_OK);
    EXPECT_EQ(Captured([&] { EXPECT_EQ(Run(in), KIVBF_ERR_PREREQUISITE); }), fail + "Please call KivBf_SetShape first!\t\n");

    MakeConfiguredHandle(buffer);  // the refused block has left run_flag at 0, which bars SetShape
    std::memcpy(State().handle_marker, "XXXX", 4);
    EXPECT_EQ(Captured([&] { EXPECT_EQ(Run(in), KIVBF_ERR_HANDLE); }),
              "[ALGO_MSG_ERR] [BF][Run] Fail! The handle pointer seems to be dirty!!\r\n");
}

TEST_F(RunFixture, SilentBlockAnswersZerosWithoutRunningTheCore) {
    MakeConfiguredHandle(buffer);
    std::fill(std::begin(out), std::end(out), int16_t{77});
    std::fill(std::begin(State().pf_gain), std::end(State().pf_gain), 0.5f);
    State().vad_decision = 12345;  // the detector would overwrite it
    EXPECT_EQ(Run(std::vector<int16_t>(256, 0)), KIVBF_OK);
    for (int16_t v : out) ASSERT_EQ(v, 0);
    for (float g : State().pf_gain) ASSERT_EQ(g, 1.0f);
    EXPECT_EQ(std::make_pair(State().vad_decision, State().run_flag), std::make_pair(12345, 0));
    ASSERT_EQ(Run(SineBlock(3000)), KIVBF_OK);
    EXPECT_EQ(std::make_pair(State().vad_decision != 12345, State().run_flag), std::make_pair(true, 1));
}

// The canceller must not adapt on a clipped block; only mode 2 clears the hold.
TEST_F(RunFixture, FullScaleSampleHoldsTheCancellerClearedOnlyInMode2) {
    for (uint32_t mode : {1u, 2u}) {
        ASSERT_EQ(KivBf_SetMode(MakeConfiguredHandle(buffer), mode, 0.0f), KIVBF_OK);
        const std::vector<float> filter = Filter();
        std::vector<int16_t> in = SineBlock(8000);
        in[2 * 40 + 1] = -32768;
        ASSERT_EQ(Run(in), KIVBF_OK);
        EXPECT_EQ(State().canceller_hold, mode == 2 ? 0 : 1) << "mode " << mode;
        EXPECT_EQ(Filter(), filter);
        ASSERT_EQ(Run(SineBlock(8000, 1)), KIVBF_OK);
        EXPECT_EQ(Filter() != filter, mode == 2) << "mode " << mode;
    }
}

TEST_F(RunFixture, DirectionIsMirroredOnlyOnALinearArray) {
    for (uint32_t geometry : {0u, 1u}) {
        MakeConfiguredHandle(buffer, geometry);
        direction = 100.0f;
        ASSERT_EQ(Run(SineBlock(1000)), KIVBF_OK);
        EXPECT_EQ(State().target_angle, geometry == 0 ? 170.0f : 190.0f);
        direction = -30.0f;
        ASSERT_EQ(Run(SineBlock(1000, 1)), KIVBF_OK);
        EXPECT_EQ(State().target_angle, 60.0f);
    }
}
