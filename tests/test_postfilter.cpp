// Post-filter: raw gain, smoothing across frequency, application and mixing.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>

#include "Beamformer_core.h"

namespace {

using namespace kivbf;

std::unique_ptr<BfCoreState> MakeState(int32_t mode, int32_t pf_flow) {
    auto s = std::make_unique<BfCoreState>();  // zeroed
    s->mode = mode;
    s->pf_flow = pf_flow;
    s->pf_mix = 0.001f;
    for (int32_t k = 0; k < kBins; ++k) {
        s->speech_presence[k] = 1.0f;
        s->pf_gain[k] = 1.0f;
    }
    return s;
}

void Fill(float *a, int32_t n, float value) { std::fill(a, a + n, value); }

TEST(PostFilterGain, ConstantRawGainIsUnbiasedUpToBothEdges) {
    for (float c : {1.0f, 0.37f, 1e-3f}) {
        auto s = MakeState(4, 1);
        Fill(s->pf_raw_gain, kBins, c);
        Bf_PostFilterGain(*s);
        for (int32_t k = 0; k < kBins; ++k) {
            EXPECT_NEAR(s->pf_gain[k], c, 2e-6 * c) << "gain " << c << " bin " << k;
        }
    }
}

TEST(PostFilterGain, SingleBinSpreadsWithTheKernelTaps) {
    constexpr int32_t kCentre = 64;
    constexpr float kFloor = 1e-6f;  // every other bin is raised to the floor
    auto s = MakeState(4, 1);
    s->pf_raw_gain[kCentre] = 1.0f;
    Bf_PostFilterGain(*s);

    EXPECT_NEAR(s->pf_gain[kCentre], 0.091f, 1e-5);
    EXPECT_NEAR(s->pf_gain[kCentre - 1], 0.0891f, 1e-5);
    EXPECT_NEAR(s->pf_gain[kCentre - 10], 0.0018f, 1e-5);
    for (int32_t d = 1; d <= 10; ++d) {
        EXPECT_NEAR(s->pf_gain[kCentre - d], s->pf_gain[kCentre + d], 1e-7) << "offset " << d;
        EXPECT_LT(s->pf_gain[kCentre - d], s->pf_gain[kCentre - d + 1]) << "offset " << d;
    }
    EXPECT_NEAR(s->pf_gain[kCentre - 11], kFloor, 1e-9);
    EXPECT_NEAR(s->pf_gain[kCentre + 11], kFloor, 1e-9);
    const float spread =
        std::accumulate(s->pf_gain + kCentre - 10, s->pf_gain + kCentre + 11, 0.0f);
    EXPECT_NEAR(spread, 1.0f, 1e-4);
}

TEST(PostFilterGain, Mode3RawGainDependsOnTheFlow) {
    for (int32_t flow : {1, 0, 2}) {
        auto s = MakeState(3, flow);
        Fill(s->direction_weight, kBins, 0.5f);
        Fill(s->speech_noise_ratio, kBins, 0.4f);
        Bf_PostFilterGain(*s);
        const float expected = flow == 1 ? 0.2f : 0.5f;
        EXPECT_FLOAT_EQ(s->pf_raw_gain[40], expected) << "flow " << flow;
        EXPECT_NEAR(s->pf_gain[0], expected, 1e-6) << "flow " << flow;
        EXPECT_NEAR(s->pf_gain[64], expected, 1e-6) << "flow " << flow;
    }
}

TEST(PostFilterGain, Mode4KeepsThePreviousRawGainAboveTheFloor) {
    auto s = MakeState(4, 1);
    for (int32_t k = 0; k < kBins; ++k) s->pf_raw_gain[k] = 0.005f * k;  // bin 0 is 0
    Fill(s->direction_weight, kBins, 0.9f);
    Fill(s->speech_noise_ratio, kBins, 0.9f);
    Bf_PostFilterGain(*s);
    EXPECT_EQ(s->pf_raw_gain[0], 1e-6f);
    for (int32_t k = 1; k < kBins; ++k) EXPECT_EQ(s->pf_raw_gain[k], 0.005f * k) << "bin " << k;
    EXPECT_NEAR(s->pf_gain[64], 0.005f * 64, 1e-5);  // a ramp survives a symmetric kernel
}

TEST(PostFilterApply, KeepsTheDryShareAndResetsTheGain) {
    auto s = MakeState(3, 1);
    float input[kSpectrumFloats];
    for (int32_t i = 0; i < kSpectrumFloats; ++i) input[i] = s->beam_output[i] = 1000.0f - 7.0f * i;
    Fill(s->pf_gain, kBins, 0.5f);
    s->pf_gain[5] = 0.0f;
    s->pf_gain[6] = 1.0f;

    Bf_PostFilterApply(*s);

    for (int part = 0; part < 2; ++part) {
        EXPECT_NEAR(s->beam_output[10 + part], 0.001f * input[10 + part], 1e-3);
        EXPECT_NEAR(s->beam_output[12 + part], input[12 + part], 1e-3);
        EXPECT_NEAR(s->beam_output[100 + part], 0.5005f * input[100 + part], 1e-3);
    }
    for (int32_t k = 0; k < kBins; ++k) EXPECT_EQ(s->pf_gain[k], 1.0f) << "bin " << k;
}

TEST(PostFilterMix, MixesTheGainStateAndLeavesTheBeamUntouched) {
    auto s = MakeState(4, 0);
    Fill(s->pf_raw_gain, kBins, 0.4f);
    for (int32_t k = 0; k < kSpectrumFloats; ++k) s->beam_output[k] = static_cast<float>(k);
    Bf_PostFilterGain(*s);
    Bf_PostFilterMix(*s);
    for (int32_t k = 0; k < kBins; ++k) {
        EXPECT_NEAR(s->pf_gain[k], 0.001f + 0.999f * 0.4f, 1e-6) << "bin " << k;
    }
    for (int32_t k = 0; k < kSpectrumFloats; ++k) {
        EXPECT_EQ(s->beam_output[k], static_cast<float>(k)) << "float " << k;
    }
}

}  // namespace
