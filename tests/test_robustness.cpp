// Pathological inputs that once reached the state: a direction or look angle
// that is not a finite number, a spacing too large for the beam design, and the
// near-silent decay that left the noise covariance subnormal (and every later
// block slow). Non-finite spacings are refused by Init (test_lifecycle).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "AudioBfProcess_internal.h"
#include "support.h"

using namespace kivbf_test;

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// `blocks` blocks of a tone that reaches microphone 1 a sample late, with a
// little hiss of its own at each microphone.
std::vector<int16_t> Tone(size_t blocks) {
    std::vector<int16_t> pcm(256 * blocks);
    for (size_t n = 0; n < 128 * blocks; ++n) {
        const size_t i = n % 128;
        pcm[2 * n] = static_cast<int16_t>(7000.0 * std::sin(0.07 * n) + static_cast<int>(i * 53 % 199) - 99);
        pcm[2 * n + 1] = static_cast<int16_t>(7000.0 * std::sin(0.07 * (n - 1.0)) - static_cast<int>(i * 31 % 97));
    }
    return pcm;
}

// Output of `blocks` tone blocks in `mode`, with the direction of each block.
std::vector<int16_t> RunTone(uint32_t mode, float mode_angle, const std::vector<float> &directions) {
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    EXPECT_EQ(KivBf_SetMode(h, mode, 20.0f), KIVBF_OK);
    EXPECT_EQ(KivBf_SetMode(h, mode, mode_angle), KIVBF_OK);
    const std::vector<int16_t> input = Tone(directions.size());
    std::vector<int16_t> output(128 * directions.size());
    for (size_t b = 0; b < directions.size(); ++b)
        EXPECT_EQ(KivBf_Run(h, &input[256 * b], &output[128 * b], &directions[b]), KIVBF_OK);
    return output;
}

}  // namespace

TEST(Robustness, NonFiniteDirectionOrAngleKeepsThePreviousOne) {
    std::vector<float> steady(120, 25.0f);
    std::vector<float> spoiled = steady;
    for (size_t b = 30; b < 90; b += 7) spoiled[b] = b % 2 ? kNaN : (b % 3 ? kInf : -kInf);
    for (uint32_t mode : {0u, 3u}) EXPECT_EQ(RunTone(mode, 0.0f, spoiled), RunTone(mode, 0.0f, steady));
    // The fixed beam keeps the look direction of the previous SetMode (20).
    for (uint32_t mode : {1u, 2u})
        for (float angle : {kNaN, kInf}) EXPECT_EQ(RunTone(mode, angle, steady), RunTone(mode, 20.0f, steady));
}

// A finite spacing far beyond any array overflows the beam design; the beam
// falls back to delay-and-sum and every block stays finite.
TEST(Robustness, AbsurdSpacingKeepsTheBeamFinite) {
    for (float distance : {3e38f, 1e30f}) {
        for (uint32_t mode : {0u, 1u, 2u, 3u}) {
            SCOPED_TRACE(testing::Message() << distance << " cm, mode " << mode);
            WorkingBuffer buffer;
            AudioBfHandle h = MakeConfiguredHandle(buffer, 0, 16000, distance);
            ASSERT_EQ(KivBf_SetMode(h, mode, 30.0f), KIVBF_OK);
            const std::vector<int16_t> output = RunStream(h, Tone(40), 30.0f);
            const BfCoreState &s = *Bf_StateOf(h);
            for (const auto &weights : s.beam_weights)
                for (float w : weights) ASSERT_TRUE(std::isfinite(w));
            for (float v : s.ola_buffer) ASSERT_TRUE(std::isfinite(v));
            EXPECT_NE(output, std::vector<int16_t>(output.size(), 0));
        }
    }
}

// The transform's set-up failing inside Init fails the core's set-up, so
// KivBf_Init returns NULL instead of a handle that cannot run.
TEST(Robustness, FftSetUpFailureFailsTheCoreSetUp) {
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    BfCoreState &s = *Bf_StateOf(h);
    EXPECT_EQ(Bf_CoreInit(s), 0);
    s.fft_record.fft_Ne10_cfg = nullptr;
    const std::string printed = Captured([&] { EXPECT_NE(Bf_CoreInit(s), 0); });
    EXPECT_NE(printed.find("[FFT]"), std::string::npos) << printed;
}

TEST(Robustness, NearSilentDecayLeavesNoSubnormalCovariance) {
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    AudioBfConfig config = CurrentConfig(h);
    config.vad_enable = 1;
    ASSERT_EQ(KivBf_SetConfig(h, &config), KIVBF_OK);
    ASSERT_EQ(KivBf_SetMode(h, KIVBF_MODE_ADAPTIVE, 0.0f), KIVBF_OK);
    // Speech-like tone, then one 1-LSB tick per block and microphone: just
    // above the silence gate, and imaginary parts of the cross terms only decay.
    std::vector<int16_t> input = Tone(2000);
    std::fill(input.begin() + 256 * 200, input.end(), int16_t{0});
    uint32_t random = 777u;
    for (size_t b = 200; b < 2000; ++b)
        for (int ch = 0; ch < 2; ++ch) {
            random = random * 1664525u + 1013904223u;
            input[256 * b + ch] = random >> 31 ? 1 : -1;
        }
    RunStream(h, input);
    int subnormals = 0;
    for (const float *element : Bf_StateOf(h)->noise_covariance)
        for (int k = 0; k < kivbf::kBins; ++k)
            subnormals += std::fpclassify(element[k]) == FP_SUBNORMAL;
    EXPECT_EQ(subnormals, 0);
}

// A bin that is exactly zero on the first block has zero noise and zero speech
// power: its speech-to-noise ratio is 0/0, which must come out as "no speech"
// (the intensity's floor), never NaN.
TEST(Robustness, SilentBinGivesTheRatioFloorNotNaN) {
    WorkingBuffer buffer;
    AudioBfHandle h = MakeConfiguredHandle(buffer);
    ASSERT_EQ(KivBf_SetMode(h, 3, 0.0f), KIVBF_OK);
    BfCoreState &s = *Bf_StateOf(h);
    for (int32_t k = 0; k < kivbf::kBins; ++k) {
        const float value = (k == 5) ? 0.0f : 0.01f * static_cast<float>(k + 1);
        s.mic_spectrum[0][2 * k] = s.mic_spectrum[1][2 * k] = value;
    }
    for (int block = 0; block < 3; ++block) {
        Bf_NoiseEstimate(s);
        for (int32_t k = 0; k < kivbf::kBins; ++k) ASSERT_TRUE(std::isfinite(s.speech_noise_ratio[k])) << k;
        EXPECT_EQ(s.speech_noise_ratio[5], 0.01f);  // intensity 1's floor
    }
}
