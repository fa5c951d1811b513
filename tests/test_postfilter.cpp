// Post-filter: raw gain, smoothing across frequency, application and mixing.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>

#include "Beamformer_core.h"

namespace {

using namespace kivbf;

std::unique_ptr<BfCoreState> MakeState(int32_t mode, int32_t pf_flow, float raw_gain = 0.0f) {
    auto s = std::make_unique<BfCoreState>();  // zeroed
    s->mode = mode;
    s->pf_flow = pf_flow;
    s->pf_mix = 0.001f;
    std::fill_n(s->speech_presence, kBins, 1.0f);
    std::fill_n(s->pf_gain, kBins, 1.0f);
    std::fill_n(s->pf_raw_gain, kBins, raw_gain);
    return s;
}

TEST(PostFilterGain, ConstantRawGainIsUnbiasedUpToBothEdgesAndMixes) {
    for (float c : {1.0f, 0.37f, 1e-3f}) {
        auto s = MakeState(4, 1, c);
        Bf_PostFilterGain(*s);
        for (int32_t k = 0; k < kBins; ++k) EXPECT_NEAR(s->pf_gain[k], c, 2e-6 * c) << c << k;
    }
    // Mixing works on the gain state only.
    auto s = MakeState(4, 0, 0.4f);
    for (int32_t k = 0; k < kSpectrumFloats; ++k) s->beam_output[k] = static_cast<float>(k);
    Bf_PostFilterGain(*s);
    Bf_PostFilterMix(*s);
    for (int32_t k = 0; k < kBins; ++k) EXPECT_NEAR(s->pf_gain[k], 0.001f + 0.999f * 0.4f, 1e-6);
    for (int32_t k = 0; k < kSpectrumFloats; ++k) EXPECT_EQ(s->beam_output[k], float(k)) << k;
}

TEST(PostFilterGain, SingleBinSpreadsWithTheKernelTaps) {
    constexpr int32_t kCentre = 64;
    auto s = MakeState(4, 1);
    s->pf_raw_gain[kCentre] = 1.0f;
    Bf_PostFilterGain(*s);
    EXPECT_NEAR(s->pf_gain[kCentre], 0.091f, 1e-5);
    EXPECT_NEAR(s->pf_gain[kCentre - 1], 0.0891f, 1e-5);
    EXPECT_NEAR(s->pf_gain[kCentre - 10], 0.0018f, 1e-5);
    for (int32_t d = 1; d <= 10; ++d) {
        EXPECT_NEAR(s->pf_gain[kCentre - d], s->pf_gain[kCentre + d], 1e-7) << d;
        EXPECT_LT(s->pf_gain[kCentre - d], s->pf_gain[kCentre - d + 1]) << d;
    }
    // Every other bin was raised to the 1e-6 floor.
    EXPECT_NEAR(s->pf_gain[kCentre - 11], 1e-6f, 1e-9);
    EXPECT_NEAR(s->pf_gain[kCentre + 11], 1e-6f, 1e-9);
    EXPECT_NEAR(std::accumulate(s->pf_gain + kCentre - 10, s->pf_gain + kCentre + 11, 0.0f), 1.0f,
                1e-4);
}

TEST(PostFilterGain, RawGainFollowsTheModeAndFlow) {
    for (int32_t flow : {1, 0, 2}) {
        auto s = MakeState(3, flow);
        std::fill_n(s->direction_weight, kBins, 0.5f);
        std::fill_n(s->speech_noise_ratio, kBins, 0.4f);
        Bf_PostFilterGain(*s);
        const float expected = flow == 1 ? 0.2f : 0.5f;
        EXPECT_FLOAT_EQ(s->pf_raw_gain[40], expected) << flow;
        EXPECT_NEAR(s->pf_gain[0], expected, 1e-6) << flow;
        EXPECT_NEAR(s->pf_gain[64], expected, 1e-6) << flow;
    }
    // Mode 4 keeps the previous raw gain, raised to the floor.
    auto s = MakeState(4, 1);
    for (int32_t k = 0; k < kBins; ++k) s->pf_raw_gain[k] = 0.005f * k;
    std::fill_n(s->direction_weight, kBins, 0.9f);
    std::fill_n(s->speech_noise_ratio, kBins, 0.9f);
    Bf_PostFilterGain(*s);
    EXPECT_EQ(s->pf_raw_gain[0], 1e-6f);
    for (int32_t k = 1; k < kBins; ++k) EXPECT_EQ(s->pf_raw_gain[k], 0.005f * k) << k;
    EXPECT_NEAR(s->pf_gain[64], 0.005f * 64, 1e-5);  // a ramp survives a symmetric kernel
}

TEST(PostFilterApply, KeepsTheDryShareAndResetsTheGain) {
    auto s = MakeState(3, 1);
    float input[kSpectrumFloats];
    for (int32_t i = 0; i < kSpectrumFloats; ++i) input[i] = s->beam_output[i] = 1000.0f - 7.0f * i;
    std::fill_n(s->pf_gain, kBins, 0.5f);
    s->pf_gain[5] = 0.0f;
    s->pf_gain[6] = 1.0f;
    Bf_PostFilterApply(*s);
    for (int part = 0; part < 2; ++part) {
        EXPECT_NEAR(s->beam_output[10 + part], 0.001f * input[10 + part], 1e-3);
        EXPECT_NEAR(s->beam_output[12 + part], input[12 + part], 1e-3);
        EXPECT_NEAR(s->beam_output[100 + part], 0.5005f * input[100 + part], 1e-3);
    }
    for (int32_t k = 0; k < kBins; ++k) EXPECT_EQ(s->pf_gain[k], 1.0f) << k;
}

}  // namespace
