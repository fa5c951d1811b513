// Post-filter: smoothing across frequency, mixing and application.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "Beamformer_core.h"

namespace {

using namespace kivbf;

// Mode 4 leaves the raw gain as it is, so it can be set directly.
std::unique_ptr<BfCoreState> MakeState(int32_t mode, int32_t pf_flow, float raw_gain = 0.0f) {
    auto s = std::make_unique<BfCoreState>();  // zeroed
    s->mode = mode;
    s->pf_flow = pf_flow;
    s->pf_mix = 0.001f;
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
    // Mixing works on the gain only; the spectrum is not touched yet.
    auto s = MakeState(4, 0, 0.4f);
    for (int32_t k = 0; k < kSpectrumFloats; ++k) s->beam_output[k] = static_cast<float>(k);
    Bf_PostFilterGain(*s);
    Bf_PostFilterMix(*s);
    for (int32_t k = 0; k < kBins; ++k) EXPECT_NEAR(s->pf_gain[k], 0.001f + 0.999f * 0.4f, 1e-6);
    for (int32_t k = 0; k < kSpectrumFloats; ++k) EXPECT_EQ(s->beam_output[k], float(k)) << k;
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
