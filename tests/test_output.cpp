// Output stage: conversion of the overlap-added frame to 16-bit PCM (wrapping
// or saturating) and the shift of the overlap-add accumulator.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "Beamformer_core.h"
#include "Beamformer_core_output.h"

TEST(OutputStage, TruncatesWrapsOrSaturatesAndShiftsTheAccumulator) {
    // value, gain, wrapped, saturated
    const std::tuple<float, float, int16_t, int16_t> cases[] = {
        {1000.4f, 0.7f, 1000, 1000},     {-1000.6f, 0.7f, -1000, -1000}, {40000.0f, 0.7f, -25536, 32767},
        {-40000.0f, 0.7f, 25536, -32768}, {1000.0f, 0.35f, 500, 500},     {1e12f, 0.7f, -1, 32767},
    };
    for (const auto &[value, gain, wrapped, saturated] : cases) {
        EXPECT_EQ(kivbf::Bf_PcmSample<false>(value, gain), wrapped) << value;
        EXPECT_EQ(kivbf::Bf_PcmSample<true>(value, gain), saturated) << value;
    }
    auto s = std::make_unique<BfCoreState>();
    s->output_gain = 0.7f;
    for (int i = 0; i < 256; ++i) {
        s->ola_buffer[i] = i < 128 ? 0.25f * i : 0.0f;  // the previous block's overlap
        s->synth_frame[i] = 3.0f * i - 200.4f;
    }
    s->synth_frame[5] = 40000.0f;
    int16_t out[128];
    Bf_OutputStage(*s, out);
    for (int i = 0; i < 128; ++i) {
        ASSERT_EQ(out[i], kivbf::Bf_PcmSample<kivbf::kSaturateOutput>(0.25f * i + s->synth_frame[i], 0.7f));
        ASSERT_EQ(s->ola_buffer[i], s->synth_frame[128 + i]);
        ASSERT_EQ(s->ola_buffer[128 + i], 0.0f);
    }
    EXPECT_EQ(out[5], kivbf::kSaturateOutput ? 32767 : -25535);  // 40001.25 -> 40001
}

// The conversion multiplies by 1 / 0.7 where its truncation is known to equal
// the quotient's. Sweep float bit patterns (all of them with
// KIVBF_EXHAUSTIVE=1, about 20 s) against the division.
TEST(OutputStage, ReciprocalProductTruncatesAsTheQuotient) {
    const uint64_t stride = std::getenv("KIVBF_EXHAUSTIVE") ? 1 : 193;
    uint64_t mismatches = 0;
    for (uint64_t bits = 0; bits < (uint64_t{1} << 32); bits += stride) {
        const auto pattern = static_cast<uint32_t>(bits);
        float value;
        std::memcpy(&value, &pattern, sizeof value);
        const auto expected = static_cast<int16_t>(kivbf::Bf_TruncatedQuotient(value));
        if (kivbf::Bf_PcmSample<false>(value, 1.0f) != expected && ++mismatches < 5)
            ADD_FAILURE() << std::hexfloat << value;
    }
    EXPECT_EQ(mismatches, 0u);
}
