#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "Beamformer_core.h"
#include "window.h"
#include "windowfilt.h"

namespace {

constexpr int32_t kHop = 128;
constexpr int32_t kFrame = 256;

// Full 256-point window built from the half table, as the filter defines it.
double FullWindow(int32_t m) { return std::sin(M_PI * m / kFrame); }

TEST(WindowTables, HoldSinglePrecisionSineHalvesOfEveryLength) {
    const float *tables[] = {FloatingFftInWindow64, FloatingFftInWindow128, FloatingFftInWindow256,
                             FloatingFftInWindow512};
    EXPECT_EQ(sizeof FloatingFftInWindow512 / sizeof(float), 257u);
    for (int32_t t = 0, length = 64; t < 4; ++t, length *= 2) {
        for (int32_t n = 0; n <= length / 2; ++n)
            EXPECT_NEAR(tables[t][n], std::sin(M_PI * n / length), 3e-8) << length;
        EXPECT_EQ(tables[t][0], 0.0f);
        EXPECT_EQ(tables[t][length / 2], 1.0f);
    }
    EXPECT_EQ(FftInWindow, FloatingFftInWindow256);
    EXPECT_EQ(FftOutWindow, FloatingFftInWindow256);
}

TEST(WindowFilter, AppliesTheFullSymmetricWindowForBothSelectorsOnly) {
    for (int32_t selector : {WINDOW_ANALYSIS, WINDOW_SYNTHESIS, -1, 2, 3}) {
        std::vector<float> frame(kFrame, 1.0f);
        WindowFilter_Apply(frame.data(), selector);
        const bool windowed = selector == WINDOW_ANALYSIS || selector == WINDOW_SYNTHESIS;
        for (int32_t m = 1; m < kHop; ++m) EXPECT_EQ(frame[m], frame[kFrame - m]) << m;
        for (int32_t m = 0; m < kFrame; ++m)
            EXPECT_NEAR(frame[m], windowed ? FullWindow(m) : 1.0, windowed ? 3e-8 : 0.0) << selector << " @" << m;
        EXPECT_EQ(frame[128], 1.0f);
    }
}

// A zeroed core state with its FFT set up in a region of its own.
class SpectralTest : public testing::Test {
protected:
    void SetUp() override {
        std::memset(state_.get(), 0, sizeof(BfCoreState));
        state_->fft_record.fft_Ne10_cfg = region_.get();
        state_->fft_record.fft_size = kFrame;
        FFT_Init(&state_->fft_record);
        ASSERT_EQ(state_->fft_record.ne10_init_flag, 1);
    }

    // What the frame driver does: slide each window by one hop, append the block.
    void PushBlock(const std::vector<float> &mic0, const std::vector<float> &mic1) {
        for (int32_t ch = 0; ch < 2; ++ch) {
            float *window = state_->input_window[ch];
            std::memmove(window, window + kHop, sizeof(float) * kHop);
            std::memcpy(window + kHop, (ch == 0 ? mic0 : mic1).data(), sizeof(float) * kHop);
        }
    }

    std::unique_ptr<BfCoreState> state_{new BfCoreState};
    std::unique_ptr<unsigned char[]> region_{new unsigned char[FFT_GetBufferSize(kFrame)]};
};

TEST_F(SpectralTest, UnchangedSpectrumComesBackOneBlockLateAtPcmScale) {
    std::mt19937 rng(1);
    std::uniform_int_distribution<int> pcm(-32768, 32767);
    std::vector<std::vector<float>> blocks(6, std::vector<float>(kHop));
    for (auto &block : blocks)
        for (float &x : block) x = static_cast<float>(pcm(rng)) / 32768.0f;

    std::vector<float> overlap(kFrame, 0.0f);
    for (size_t b = 0; b < blocks.size(); ++b) {
        PushBlock(blocks[b], blocks[(b + 1) % blocks.size()]);
        Bf_Analysis(*state_);
        Bf_Synthesis(*state_, state_->mic_spectrum[0], state_->synth_frame);
        for (int32_t m = 0; m < kFrame; ++m) overlap[m] += state_->synth_frame[m];
        for (int32_t m = 0; m < kHop; ++m)
            EXPECT_NEAR(overlap[m], b == 0 ? 0.0f : 32768.0f * blocks[b - 1][m], 0.02) << "block " << b << " @" << m;
        std::memmove(overlap.data(), overlap.data() + kHop, sizeof(float) * kHop);
        std::fill(overlap.begin() + kHop, overlap.end(), 0.0f);
    }
}

TEST_F(SpectralTest, SilenceAndConstantInput) {
    Bf_Analysis(*state_);
    Bf_Synthesis(*state_, state_->mic_spectrum[0], state_->synth_frame);
    for (const auto &spectrum : state_->mic_spectrum)
        for (float x : spectrum) EXPECT_EQ(x, 0.0f);
    for (float x : state_->synth_frame) EXPECT_EQ(x, 0.0f);

    // A different level per microphone: each spectrum comes from its own frame.
    const float level[2] = {0.125f, -0.5f};
    const std::vector<float> block0(kHop, level[0]), block1(kHop, level[1]);
    PushBlock(block0, block1);
    PushBlock(block0, block1);
    Bf_Analysis(*state_);
    double window_sum = 0.0;
    for (int32_t m = 0; m < kFrame; ++m) window_sum += FullWindow(m);
    for (int32_t ch = 0; ch < 2; ++ch) {
        EXPECT_NEAR(state_->mic_spectrum[ch][0], level[ch] * window_sum, 1e-5) << ch;
        EXPECT_EQ(state_->mic_spectrum[ch][1], 0.0f) << ch;
        EXPECT_EQ(state_->mic_spectrum[ch][2 * 128 + 1], 0.0f) << ch;
    }
}

}  // namespace
