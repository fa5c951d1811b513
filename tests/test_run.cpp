// KivBf_Run: argument and calling-order checks, the silent path, the
// clipping hold, the direction mapping and the noise-block gate.
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
    for (int i = 0; i < 128; ++i) {
        const double v = amplitude * std::sin(0.2 * (128 * block_index + i));
        block[2 * i] = static_cast<int16_t>(v);
        block[2 * i + 1] = static_cast<int16_t>(v / 2);
    }
    return block;
}

struct RunFixture : testing::Test {
    WorkingBuffer buffer;
    int16_t out[128] = {};
    float direction = 0.0f;
    BfCoreState &State() { return *Bf_StateOf(buffer.data()); }
    uint32_t Run(const std::vector<int16_t> &in) {
        return KivBf_Run(buffer.data(), in.data(), out, &direction);
    }
};

}  // namespace

TEST_F(RunFixture, NullArgumentsAreReportedWhateverTheLevel) {
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    State().debug_level = 0;
    const std::vector<int16_t> in = SineBlock(1000);
    CaptureStart();
    EXPECT_EQ(KivBf_Run(nullptr, in.data(), out, &direction), KIVBF_ERR_HANDLE);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR]  [BF] [Run] Fail! The handle is NULL\t\n");
    const std::string pointer_message = "[ALGO_MSG_ERR]  [BF] [Run] Fail! The input pointer is NULL\t\n";
    CaptureStart();
    EXPECT_EQ(KivBf_Run(h, nullptr, out, &direction), KIVBF_ERR_NULL_POINTER);
    EXPECT_EQ(KivBf_Run(h, in.data(), nullptr, &direction), KIVBF_ERR_NULL_POINTER);
    EXPECT_EQ(KivBf_Run(h, in.data(), out, nullptr), KIVBF_ERR_NULL_POINTER);
    EXPECT_EQ(CaptureStop(), pointer_message + pointer_message + pointer_message);
}

TEST_F(RunFixture, RefusesUntilInitConfigAndShapeInThatOrder) {
    const std::vector<int16_t> in = SineBlock(1000);
    std::memset(buffer.data(), 0, buffer.size());
    State().debug_level = DML_ERR;
    CaptureStart();
    EXPECT_EQ(Run(in), KIVBF_ERR_NOT_INITIALISED);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [BF] [Run] Fail! Please call KivBf_Init first!\t\n");

    AudioBfInit init = DefaultInit();
    ASSERT_NE(KivBf_Init(buffer.data(), &init), nullptr);
    CaptureStart();
    EXPECT_EQ(Run(in), KIVBF_ERR_PREREQUISITE);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [BF] [Run] Fail! Please call KivBf_SetConfig first!\t\n");
    EXPECT_EQ(State().run_flag, 0);

    AudioBfConfig config{};
    ASSERT_EQ(KivBf_GetConfig(buffer.data(), &config), KIVBF_OK);
    ASSERT_EQ(KivBf_SetConfig(buffer.data(), &config), KIVBF_OK);
    CaptureStart();
    EXPECT_EQ(Run(in), KIVBF_ERR_PREREQUISITE);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [BF] [Run] Fail! Please call KivBf_SetShape first!\t\n");

    // The refused block has left run_flag at 0, which bars SetShape: start over.
    MakeConfiguredHandle(buffer);
    std::memcpy(State().handle_marker, "XXXX", 4);
    CaptureStart();
    EXPECT_EQ(Run(in), KIVBF_ERR_HANDLE);
    EXPECT_EQ(CaptureStop(), "[ALGO_MSG_ERR] [BF][Run] Fail! The handle pointer seems to be dirty!!\r\n");
}

TEST_F(RunFixture, SilentBlockAnswersZerosWithoutRunningTheCore) {
    MakeConfiguredHandle(buffer);
    std::fill(std::begin(out), std::end(out), int16_t{77});
    std::fill(std::begin(State().pf_gain), std::end(State().pf_gain), 0.5f);
    State().vad_decision = 12345;  // the detector would overwrite it
    EXPECT_EQ(Run(std::vector<int16_t>(256, 0)), KIVBF_OK);
    for (int16_t v : out) ASSERT_EQ(v, 0);
    for (float g : State().pf_gain) ASSERT_EQ(g, 1.0f);
    EXPECT_EQ(State().vad_decision, 12345);
    EXPECT_EQ(State().run_flag, 0);

    EXPECT_EQ(Run(SineBlock(1000)), KIVBF_OK);
    EXPECT_NE(State().vad_decision, 12345);
    EXPECT_EQ(State().run_flag, 1);
}

TEST_F(RunFixture, InputWindowHoldsPreviousAndCurrentBlockPerChannel) {
    MakeConfiguredHandle(buffer);
    const std::vector<int16_t> first = SineBlock(3000, 0), second = SineBlock(3000, 1);
    ASSERT_EQ(Run(first), KIVBF_OK);
    ASSERT_EQ(Run(second), KIVBF_OK);
    for (int ch = 0; ch < 2; ++ch)
        for (int i = 0; i < 128; ++i) {
            ASSERT_EQ(State().input_window[ch][i], first[2 * i + ch] / 32768.0f);
            ASSERT_EQ(State().input_window[ch][128 + i], second[2 * i + ch] / 32768.0f);
        }
}

// The canceller must not adapt on a clipped block; only mode 2 clears the hold.
TEST_F(RunFixture, FullScaleSampleHoldsTheCancellerClearedOnlyInMode2) {
    for (uint32_t mode : {1u, 2u}) {
        AudioBfHandle h = MakeConfiguredHandle(buffer);
        ASSERT_EQ(KivBf_SetMode(h, mode, 0.0f), KIVBF_OK);
        const std::vector<float> filter(State().anc_filter, State().anc_filter + 258);
        std::vector<int16_t> in = SineBlock(8000);
        in[2 * 40 + 1] = -32768;
        ASSERT_EQ(Run(in), KIVBF_OK);
        EXPECT_EQ(State().canceller_hold, mode == 2 ? 0 : 1) << "mode " << mode;
        EXPECT_EQ(std::vector<float>(State().anc_filter, State().anc_filter + 258), filter);
        ASSERT_EQ(Run(SineBlock(8000, 1)), KIVBF_OK);
        const bool adapted =
            std::vector<float>(State().anc_filter, State().anc_filter + 258) != filter;
        EXPECT_EQ(adapted, mode == 2) << "mode " << mode;
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

// With the VAD off, the noise statistics learn only from blocks under the
// level threshold (-20 dBFS by default), and only in the adaptive modes.
TEST_F(RunFixture, NoiseCovarianceLearnsOnlyFromQuietBlocksInAdaptiveModes) {
    struct Case {
        uint32_t mode;
        double amplitude;
        bool learns;
    };
    for (const Case c : {Case{0, 1000, true}, Case{0, 20000, false}, Case{1, 1000, false}}) {
        AudioBfHandle h = MakeConfiguredHandle(buffer);
        ASSERT_EQ(KivBf_SetMode(h, c.mode, 0.0f), KIVBF_OK);
        float before[sizeof State().noise_covariance / sizeof(float)];
        std::memcpy(before, State().noise_covariance, sizeof before);
        for (int b = 0; b < 3; ++b) ASSERT_EQ(Run(SineBlock(c.amplitude, b)), KIVBF_OK);
        const bool changed = std::memcmp(before, State().noise_covariance, sizeof before) != 0;
        EXPECT_EQ(changed, c.learns) << "mode " << c.mode << " amplitude " << c.amplitude;
    }
}
