// Coherence detection, direction weighting and the mode-3 band weights.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>
#include <random>

#include "Beamformer_core.h"
#include "support.h"

namespace {

using namespace kivbf;

constexpr float kPerfectMatchWeight = 0.952574f;  // 1 / (1 + e^-3)

std::unique_ptr<BfCoreState> MakeState() {
    auto s = std::make_unique<BfCoreState>();  // zeroed
    s->mode3_scale = 0.049787f;
    s->direction_slope = -6.0f;
    s->band_weight_low = s->band_weight_wide = s->band_weight_mid = 1.0f;
    return s;
}

void RandomSpectrum(std::mt19937 &rng, float *spectrum) {
    std::normal_distribution<float> normal(0.0f, 1.0f);
    for (int32_t i = 0; i < kSpectrumFloats; ++i) spectrum[i] = normal(rng);
}

double BinFrequency(int32_t k) { return k * 16000.0 / 256.0; }

// tau1 - tau0 for a wave from angle_deg on microphones 5 cm apart, in the
// units target_steering uses.
double DelayDifference(double angle_deg) {
    return kTwoPi * 0.05 * std::cos(angle_deg * kPi / 180.0) / 343.0;
}

// A plane wave from angle_deg: the microphone nearer the source by distance r
// hears it r / c earlier, so X1 = X0 exp(+j f (tau1 - tau0)). Without a
// direction the two microphones are uncorrelated.
void Block(BfCoreState &s, std::mt19937 &rng, const double *angle_deg) {
    RandomSpectrum(rng, s.mic_spectrum[0]);
    RandomSpectrum(rng, s.raw_mic1_spectrum);
    for (int32_t k = 0; angle_deg != nullptr && k < kBins; ++k) {
        const auto delay = std::polar(1.0, BinFrequency(k) * DelayDifference(*angle_deg));
        kivbf_test::SetBinOf(s.raw_mic1_spectrum, k, kivbf_test::BinOf(s.mic_spectrum[0], k) * delay);
    }
    // The calibrated copy must not be what the coherence stages read.
    RandomSpectrum(rng, s.mic_spectrum[1]);
    Bf_SpectraAverage(s);
    Bf_CoherenceDetect(s);
    Bf_DirectionScore(s);
    Bf_DirectionWeight(s);
}

TEST(Coherence, FlagNeedsFourCoherentBlocksAndCounterStaysWithinZeroToTen) {
    auto s = MakeState();
    std::mt19937 rng(1);
    const double broadside = 90.0;  // identical signals
    for (int block = 1; block <= 15; ++block) {
        Block(*s, rng, &broadside);
        EXPECT_EQ(s->coherent_flag, block >= 4 ? 1 : 0) << block;
    }
    EXPECT_EQ(s->coherence_counter, 10);
    for (int block = 1; block <= 40; ++block) Block(*s, rng, nullptr);
    EXPECT_EQ(s->coherent_flag, 0);
    EXPECT_EQ(s->coherence_counter, 0);  // no wrap below zero

    // Every bin at coherence `level`: just above 0.3 counts as coherent.
    for (float level : {0.305f, 0.295f}) {
        auto t = MakeState();
        for (int32_t k = 0; k < kBins; ++k) {
            t->avg_power[0][k] = t->avg_power[1][k] = 1.0f;
            t->avg_cross[2 * k] = std::sqrt(level);
        }
        for (int block = 0; block < 4; ++block) Bf_CoherenceDetect(*t);
        EXPECT_EQ(t->coherent_flag, level > 0.3f ? 1 : 0) << level;
    }
}

// A source on the target direction scores 1 in every bin and gets the
// weight of a perfect match.
TEST(DirectionScore, SourceOnTargetScoresOne) {
    for (double target : {60.0, 10.0, 150.0}) {
        auto s = MakeState();
        for (int32_t k = 0; k < kBins; ++k) {
            const double phase = BinFrequency(k) * DelayDifference(target);
            s->target_steering[2 * k] = static_cast<float>(std::cos(phase));
            s->target_steering[2 * k + 1] = static_cast<float>(std::sin(-phase));
        }
        std::mt19937 rng(4);
        for (int block = 0; block < 3; ++block) Block(*s, rng, &target);
        for (int32_t k = 0; k < kBins; ++k) {
            EXPECT_NEAR(s->direction_score[k], 1.0, 1e-4) << k;
            EXPECT_NEAR(s->direction_weight[k], kPerfectMatchWeight, 1e-5) << k;
        }
    }
}

// One block from band weights 0.3 / 0.4 / 0.5 (coherent: from 1); scores are
// 1 in [first, last] and `other` in every other bin.
std::unique_ptr<BfCoreState> BandWeighted(int coherent, int32_t first, int32_t last, float other) {
    auto s = MakeState();
    if (!coherent) {
        s->band_weight_low = 0.3f;
        s->band_weight_wide = 0.4f;
        s->band_weight_mid = 0.5f;
    }
    for (int32_t k = 0; k < kBins; ++k) {
        s->direction_score[k] = (k >= first && k <= last) ? 1.0f : other;
        s->direction_weight[k] = coherent ? 1.0f : 0.25f;
    }
    s->coherent_flag = coherent;
    Bf_BandWeighting(*s);
    return s;
}

TEST(BandWeighting, BandsAverageOnlyTheirOwnBinsAndOnlyForACoherentSource) {
    auto s = BandWeighted(0, 16, 87, -3.0f);  // every bin passes, the weights stay
    for (int32_t k = 0; k < kBins; ++k) EXPECT_EQ(s->direction_weight[k], 1.0f) << k;
    EXPECT_EQ(s->band_weight_low, 0.3f);
    EXPECT_EQ(s->band_weight_wide, 0.4f);
    EXPECT_EQ(s->band_weight_mid, 0.5f);

    s = BandWeighted(1, 16, 87, -3.0f);  // bins outside 16..87 must not matter
    EXPECT_NEAR(s->band_weight_low, 0.9530f, 1e-4);
    EXPECT_NEAR(s->band_weight_wide, 0.9530f, 1e-4);
    EXPECT_NEAR(s->band_weight_mid, 0.9535f, 1e-4);
    for (int32_t k = 0; k < kBins; ++k) {
        const float expected = k < 8 ? s->band_weight_low
                               : k < 32 ? s->band_weight_mid
                                        : s->band_weight_wide;
        EXPECT_EQ(s->direction_weight[k], expected) << k;
    }
    s = BandWeighted(1, 16, 31, 0.0f);
    EXPECT_NEAR(s->band_weight_low, 0.9530f, 1e-4);
    EXPECT_NEAR(s->band_weight_wide, 0.1673f, 1e-4);  // wide mean 16 / 72
}

}  // namespace
