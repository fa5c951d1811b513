// Coherence detection, direction weighting and the mode-3 band weights.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>

#include "Beamformer_core.h"

namespace {

using namespace kivbf;

constexpr float kSampleRate = 16000.0f;
constexpr float kSpeedOfSound = 343.0f;
constexpr float kHalfSpacing = 0.025f;  // microphones at x = -2.5 cm and +2.5 cm
constexpr float kPerfectMatchWeight = 0.952574f;  // 1 / (1 + e^-3)

std::unique_ptr<BfCoreState> MakeState() {
    auto s = std::make_unique<BfCoreState>();  // zeroed
    for (float &v : s->unit_vector) v = 1.0f;
    s->mode3_scale = 0.049787f;
    s->intensity_limit = -6.0f;
    s->band_weight_low = s->band_weight_wide = s->band_weight_mid = 1.0f;
    return s;
}

void RandomSpectrum(std::mt19937 &rng, float *spectrum) {
    std::normal_distribution<float> normal(0.0f, 1.0f);
    for (int32_t i = 0; i < kSpectrumFloats; ++i) spectrum[i] = normal(rng);
}

double BinFrequency(int32_t k) { return k * kSampleRate / 256.0; }

// tau1 - tau0 for a wave from angle_deg, in the units target_steering uses.
double DelayDifference(double angle_deg) {
    const double a = angle_deg * kPi / 180.0;
    return kTwoPi * (2.0 * kHalfSpacing * std::cos(a)) / kSpeedOfSound;
}

void SetTargetSteering(BfCoreState &s, double angle_deg) {
    const double d = DelayDifference(angle_deg);
    for (int32_t k = 0; k < kBins; ++k) {
        s.target_steering[2 * k] = static_cast<float>(std::cos(BinFrequency(k) * d));
        s.target_steering[2 * k + 1] = static_cast<float>(std::sin(-BinFrequency(k) * d));
    }
}

// A plane wave from angle_deg: the microphone nearer the source by distance r
// hears it r / c earlier, so X1 = X0 exp(+j f (tau1 - tau0)).
void PlaneWaveBlock(BfCoreState &s, std::mt19937 &rng, double angle_deg) {
    RandomSpectrum(rng, s.mic_spectrum[0]);
    const double d = DelayDifference(angle_deg);
    for (int32_t k = 0; k < kBins; ++k) {
        const double re = s.mic_spectrum[0][2 * k], im = s.mic_spectrum[0][2 * k + 1];
        const double c = std::cos(BinFrequency(k) * d), sn = std::sin(BinFrequency(k) * d);
        s.raw_mic1_spectrum[2 * k] = static_cast<float>(re * c - im * sn);
        s.raw_mic1_spectrum[2 * k + 1] = static_cast<float>(re * sn + im * c);
    }
    // The calibrated copy must not be what the coherence stages read.
    RandomSpectrum(rng, s.mic_spectrum[1]);
}

void RunDirectionStages(BfCoreState &s) {
    Bf_SpectraAverage(s);
    Bf_CoherenceDetect(s);
    Bf_DirectionScore(s);
    Bf_DirectionWeight(s);
}

void UncorrelatedBlock(BfCoreState &s, std::mt19937 &rng) {
    RandomSpectrum(rng, s.mic_spectrum[0]);
    RandomSpectrum(rng, s.raw_mic1_spectrum);
}

TEST(Coherence, FlagNeedsFourCoherentBlocksAndCounterStaysWithinZeroToTen) {
    auto s = MakeState();
    std::mt19937 rng(1);
    for (int block = 1; block <= 15; ++block) {
        PlaneWaveBlock(*s, rng, 90.0);  // broadside: identical signals
        RunDirectionStages(*s);
        EXPECT_GT(s->mean_coherence, 0.99f) << "block " << block;
        EXPECT_EQ(s->coherent_flag, block >= 4 ? 1 : 0) << "block " << block;
    }
    EXPECT_EQ(s->coherence_counter, 10);

    // Coherent blocks leave the five-block history one by one.
    for (int block = 1; block <= 40; ++block) {
        UncorrelatedBlock(*s, rng);
        RunDirectionStages(*s);
        if (block >= 5) {
            EXPECT_LT(s->mean_coherence, 0.3f) << "block " << block;
            EXPECT_EQ(s->coherent_flag, 0) << "block " << block;
        }
    }
    EXPECT_EQ(s->coherence_counter, 0);  // no wrap below zero
}

struct ArrivalCase {
    double target_deg;
    double source_deg;
};

class DirectionScore : public ::testing::TestWithParam<ArrivalCase> {};

// The score is the cosine of the phase error between the measured and the
// expected inter-microphone phase; a wrongly conjugated cross-spectrum would
// give cos(f (d_source + d_target)) instead.
TEST_P(DirectionScore, IsTheCosineOfThePhaseError) {
    const ArrivalCase c = GetParam();
    auto s = MakeState();
    SetTargetSteering(*s, c.target_deg);
    std::mt19937 rng(4);
    for (int block = 0; block < 3; ++block) {
        PlaneWaveBlock(*s, rng, c.source_deg);
        RunDirectionStages(*s);
    }
    const double error = DelayDifference(c.source_deg) - DelayDifference(c.target_deg);
    for (int32_t k = 0; k < kBins; ++k) {
        EXPECT_NEAR(s->direction_score[k], std::cos(BinFrequency(k) * error), 1e-4) << "bin " << k;
        if (c.source_deg == c.target_deg) {
            EXPECT_NEAR(s->direction_weight[k], kPerfectMatchWeight, 1e-5) << "bin " << k;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Arrivals, DirectionScore,
                         ::testing::Values(ArrivalCase{60.0, 60.0}, ArrivalCase{10.0, 10.0},
                                           ArrivalCase{60.0, 120.0}, ArrivalCase{30.0, 150.0},
                                           ArrivalCase{90.0, 0.0}));

TEST(BandWeighting, WithoutCoherentSourceEveryBinPasses) {
    auto s = MakeState();
    std::mt19937 rng(6);
    RandomSpectrum(rng, s->direction_score);  // any values
    RandomSpectrum(rng, s->direction_weight);
    s->band_weight_low = 0.3f;
    s->band_weight_wide = 0.4f;
    s->band_weight_mid = 0.5f;
    s->coherent_flag = 0;
    Bf_BandWeighting(*s);
    for (int32_t k = 0; k < kBins; ++k) EXPECT_EQ(s->direction_weight[k], 1.0f) << "bin " << k;
    EXPECT_EQ(s->band_weight_low, 0.3f);
    EXPECT_EQ(s->band_weight_wide, 0.4f);
    EXPECT_EQ(s->band_weight_mid, 0.5f);
}

// One coherent block from unity band weights; scores are 1 in [first, last]
// and `elsewhere` in every other bin.
std::unique_ptr<BfCoreState> BandWeightedBlock(int32_t first, int32_t last, float elsewhere) {
    auto s = MakeState();
    for (int32_t k = 0; k < kBins; ++k) {
        s->direction_score[k] = (k >= first && k <= last) ? 1.0f : elsewhere;
        s->direction_weight[k] = 1.0f;
    }
    s->coherent_flag = 1;
    Bf_BandWeighting(*s);
    return s;
}

TEST(BandWeighting, BandsAverageOnlyTheirOwnBins) {
    auto s = BandWeightedBlock(16, 87, -3.0f);  // bins outside 16..87 must not matter
    EXPECT_NEAR(s->band_weight_low, 0.9530f, 1e-4);
    EXPECT_NEAR(s->band_weight_wide, 0.9530f, 1e-4);
    EXPECT_NEAR(s->band_weight_mid, 0.9535f, 1e-4);
    for (int32_t k = 0; k < kBins; ++k) {
        const float expected = k < 8 ? s->band_weight_low
                               : k < 32 ? s->band_weight_mid
                                        : s->band_weight_wide;
        EXPECT_EQ(s->direction_weight[k], expected) << "bin " << k;
    }

    s = BandWeightedBlock(16, 31, 0.0f);
    EXPECT_NEAR(s->band_weight_low, 0.9530f, 1e-4);
    EXPECT_NEAR(s->band_weight_wide, 0.1673f, 1e-4);  // wide mean 16 / 72
}

}  // namespace
