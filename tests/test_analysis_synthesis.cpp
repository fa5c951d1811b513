#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "Beamformer_core.h"

namespace {

constexpr int32_t kHop = 128;
constexpr int32_t kFrame = 256;

// Analysis of both microphones, then synthesis of each unchanged spectrum and
// overlap-add: every block comes back one block late, at PCM scale. This only
// holds if the analysis and synthesis windows together add up to one.
TEST(AnalysisSynthesis, UnchangedSpectrumComesBackOneBlockLate) {
    auto state = std::make_unique<BfCoreState>();
    std::memset(state.get(), 0, sizeof(BfCoreState));
    std::vector<unsigned char> region(FFT_GetBufferSize(kFrame));
    state->fft_record.fft_Ne10_cfg = region.data();
    state->fft_record.fft_size = kFrame;
    FFT_Init(&state->fft_record);
    ASSERT_EQ(state->fft_record.ne10_init_flag, 1);

    std::mt19937 rng(1);
    std::uniform_int_distribution<int> pcm(-32768, 32767);
    std::vector<float> input[2], output[2];
    for (int32_t ch = 0; ch < 2; ++ch) {
        output[ch].assign(7 * kHop, 0.0f);
        for (int32_t i = 0; i < 6 * kHop; ++i) input[ch].push_back(static_cast<float>(pcm(rng)) / 32768.0f);
    }
    for (int32_t b = 0; b < 6; ++b) {
        for (int32_t ch = 0; ch < 2; ++ch) {  // what the frame driver does: slide by one hop
            float *window = state->input_window[ch];
            std::memmove(window, window + kHop, sizeof(float) * kHop);
            std::memcpy(window + kHop, &input[ch][b * kHop], sizeof(float) * kHop);
        }
        Bf_Analysis(*state);
        for (int32_t ch = 0; ch < 2; ++ch) {
            Bf_Synthesis(*state, state->mic_spectrum[ch], state->synth_frame);
            for (int32_t m = 0; m < kFrame; ++m) output[ch][b * kHop + m] += state->synth_frame[m];
        }
    }
    for (int32_t ch = 0; ch < 2; ++ch)
        for (int32_t p = 0; p < 6 * kHop; ++p)
            EXPECT_NEAR(output[ch][p], p < kHop ? 0.0f : 32768.0f * input[ch][p - kHop], 0.02) << ch << " @" << p;
}

}  // namespace
