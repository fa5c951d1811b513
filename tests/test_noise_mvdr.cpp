#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>

#include "Beamformer_core.h"

using namespace kivbf;

namespace {

using cd = std::complex<double>;
using cf = std::complex<float>;

constexpr float kLoading = 0.001f;

// A core state holding what initialisation and the setters leave for these
// stages: unit memories, identity covariances, default intensity and loading.
std::unique_ptr<BfCoreState> FreshState() {
    auto s = std::make_unique<BfCoreState>();
    s->sample_rate = 16000;
    s->speed_of_sound = 343.0f;
    s->intensity_scale = 0.6f;
    s->intensity_floor = 0.31622699f;
    s->adaptive_intensity = 1;
    for (int32_t k = 0; k < kBins; ++k) {
        s->bin_frequency[k] = static_cast<float>(k * 16000) / 256.0f;
        s->bin_loading[k] = kLoading;
        s->unit_vector[k] = 1.0f;
        s->prior_snr_memory[0][k] = 1.0f;
        s->prior_snr_memory[1][k] = 1.0f;
    }
    Bf_ResetCovariance(*s);
    return s;
}

void SetBin(BfCoreState &s, int32_t m, int32_t k, cf value) {
    s.mic_spectrum[m][2 * k] = value.real();
    s.mic_spectrum[m][2 * k + 1] = value.imag();
}

// A spectrum that differs from bin to bin and between the microphones.
void FillSpectra(BfCoreState &s) {
    for (int32_t k = 0; k < kBins; ++k) {
        SetBin(s, 0, k, std::polar(0.001f * (1 + k % 7), 0.1f * k));
        SetBin(s, 1, k, std::polar(0.002f * (1 + k % 5), -0.3f * k));
    }
}

float ScaledPower(const BfCoreState &s, int32_t m, int32_t k) {
    const float re = s.mic_spectrum[m][2 * k];
    const float im = s.mic_spectrum[m][2 * k + 1];
    return 65536.0f * (re * re + im * im);
}

cf Entry(const float *matrix, int32_t row, int32_t column) {
    return {matrix[2 * (2 * row + column)], matrix[2 * (2 * row + column) + 1]};
}

void ExpectMatrix(const float *matrix, cf a00, cf a01, cf a10, cf a11, float tolerance) {
    EXPECT_NEAR(std::abs(Entry(matrix, 0, 0) - a00), 0.0f, tolerance);
    EXPECT_NEAR(std::abs(Entry(matrix, 0, 1) - a01), 0.0f, tolerance);
    EXPECT_NEAR(std::abs(Entry(matrix, 1, 0) - a10), 0.0f, tolerance);
    EXPECT_NEAR(std::abs(Entry(matrix, 1, 1) - a11), 0.0f, tolerance);
}

cd Weight(const BfCoreState &s, int32_t m, int32_t k) {
    return {s.beam_weights[m][2 * k], s.beam_weights[m][2 * k + 1]};
}

cd Steering(const BfCoreState &s, int32_t m, int32_t k) {
    return std::polar(1.0, static_cast<double>(s.bin_frequency[k]) * s.steer_delay[m]);
}

// Delays of a linear 5 cm array for a wave from `angle` degrees off broadside.
void SteerTo(BfCoreState &s, double angle) {
    const double projection = 0.025 * std::sin(angle * 3.14159265358979 / 180.0);
    s.steer_delay[0] = static_cast<float>(-6.2831852 * projection / 343.0);
    s.steer_delay[1] = static_cast<float>(6.2831852 * projection / 343.0);
}

}  // namespace

// --- Noise power and speech presence -------------------------------------------------

TEST(NoiseEstimate, FirstBlockTakesTheBlockPowerAndGain098Over198) {
    auto s = FreshState();
    FillSpectra(*s);
    Bf_NoiseEstimate(*s);
    for (int32_t m = 0; m < kMics; ++m)
        for (int32_t k = 0; k < kBins; ++k) {
            EXPECT_EQ(s->noise_psd[m][k], ScaledPower(*s, m, k));
            EXPECT_NEAR(s->wiener_gain[m][k], 0.98f / 1.98f, 1e-6f);
            EXPECT_EQ(s->prior_snr_memory[m][k], 0.0f);  // gamma is still 0
        }
    EXPECT_EQ(s->noise_counter, 1);

    // The second block initialises the smoothed presence from the instantaneous one.
    Bf_NoiseEstimate(*s);
    const float equal_power_presence = 1.0f / (1.0f + 32.622776f * std::exp(-0.9693466f));
    EXPECT_NEAR(s->spp_smoothed[0][5], equal_power_presence, 1e-5f);
    EXPECT_EQ(s->noise_counter, 2);
    Bf_NoiseEstimate(*s);
    EXPECT_EQ(s->noise_counter, 2);
}

TEST(NoiseEstimate, NoiseTracksByPresenceAndTheCapKeepsItMoving) {
    auto s = FreshState();
    s->noise_counter = 2;
    for (int32_t m = 0; m < kMics; ++m)
        for (int32_t k = 0; k < kBins; ++k) s->noise_psd[m][k] = 1.0f;
    const int32_t speech_bin = 10;   // gamma = P = 1024: p = 1
    const int32_t silent_bin = 20;   // P = 0: p at its minimum
    const int32_t stagnant_bin = 30; // p = 1 after a long run of speech: capped to 0.9
    SetBin(*s, 0, speech_bin, {0.125f, 0.0f});
    SetBin(*s, 0, stagnant_bin, {0.125f, 0.0f});
    s->spp_smoothed[0][stagnant_bin] = 1.0f;

    Bf_NoiseEstimate(*s);

    // p may miss 1 by an ulp or two of the kernels' reciprocal: 0.2 x 1024 x 1e-7.
    EXPECT_NEAR(s->noise_psd[0][speech_bin], 0.92f, 1e-4f);  // (0.2 x 0.6 + 0.8) lambda
    const float p_min = 1.0f / (1.0f + 32.622776f);
    EXPECT_NEAR(s->noise_psd[0][silent_bin], 0.2f * p_min * 0.6f + 0.8f, 1e-6f);
    EXPECT_NEAR(s->noise_psd[0][stagnant_bin], 0.2f * (0.1f * 1024 + 0.9f * 0.6f) + 0.8f, 1e-4f);
    EXPECT_NEAR(s->spp_smoothed[0][speech_bin], 0.1f, 1e-6f);
    // The a-priori SNR follows gamma - 1 and the gain its Wiener form.
    const float xi = 0.02f * (1024 - 1.0f) + 0.98f;
    EXPECT_NEAR(s->wiener_gain[0][speech_bin], xi / (1.0f + xi), 1e-5f);
    EXPECT_NEAR(s->wiener_gain[0][silent_bin], 0.98f / 1.98f, 1e-6f);
}

TEST(NoiseEstimate, CalibratedMicrophonesShareOneGain) {
    auto s = FreshState();
    s->calibration_flag = 1;
    for (int block = 0; block < 3; ++block) {
        FillSpectra(*s);
        SetBin(*s, 0, 40, {0.05f * block, 0.0f});
        Bf_NoiseEstimate(*s);
    }
    for (int32_t k = 0; k < kBins; ++k) {
        EXPECT_EQ(s->wiener_gain[1][k], s->wiener_gain[0][k]);
        EXPECT_EQ(s->noise_psd[1][k], 0.0f);  // microphone 1 is not tracked
    }
}

TEST(NoiseEstimate, SpeechNoiseRatioOnlyInPostFilterModesAndNeverNaN) {
    auto s = FreshState();
    FillSpectra(*s);
    SetBin(*s, 0, 0, {0.0f, 0.0f});  // silent bin: noise and speech both 0
    for (float &value : s->speech_noise_ratio) value = 7.0f;
    Bf_NoiseEstimate(*s);
    EXPECT_EQ(s->speech_noise_ratio[3], 7.0f);  // mode 0 leaves it alone

    const struct {
        int32_t intensity;
        float floor;
    } floors[] = {{1, 0.01f}, {2, 0.005f}, {4, 0.001f}};
    for (const auto &row : floors) {
        auto t = FreshState();
        t->mode = 3;
        t->adaptive_intensity = row.intensity;
        FillSpectra(*t);
        SetBin(*t, 0, 0, {0.0f, 0.0f});
        Bf_NoiseEstimate(*t);
        EXPECT_EQ(t->speech_noise_ratio[0], row.floor) << row.intensity;
        // First block: lambda = P, S = G^2 P, ratio G^2 x G.
        const float gain = 0.98f / 1.98f;
        EXPECT_NEAR(t->speech_noise_ratio[3], gain * gain * gain, 1e-5f);
        for (float value : t->speech_noise_ratio) EXPECT_FALSE(std::isnan(value));
    }
}

// --- Noise spatial covariance --------------------------------------------------------

TEST(NoiseCovariance, IdenticalSignalsGiveHalfInEveryEntry) {
    for (uint32_t estimation : {0u, 1u}) {
        auto s = FreshState();
        s->Noise_estimation = estimation;
        for (int32_t k = 0; k < kBins; ++k) {
            const cf x = std::polar(0.01f * (1 + k % 3), 0.2f * k);
            SetBin(*s, 0, k, x);
            SetBin(*s, 1, k, x);
            s->wiener_gain[0][k] = 0.3f;
            s->wiener_gain[1][k] = 0.3f;
        }
        Bf_NoiseCovarianceUpdate(*s);
        for (int32_t k = 0; k < kBins; ++k)
            ExpectMatrix(s->noise_covariance[k], 0.5f, 0.5f, 0.5f, 0.5f, 1e-6f);
        EXPECT_EQ(s->cov_counter, 1);
    }
}

TEST(NoiseCovariance, RunningMeanOfThirteenThenForgettingOneTwelfth) {
    auto s = FreshState();
    s->Noise_estimation = 1;
    const cf x{0.02f, -0.01f};
    auto update = [&](bool both) {
        for (int32_t k = 0; k < kBins; ++k) {
            SetBin(*s, 0, k, x);
            SetBin(*s, 1, k, both ? x : cf{});
        }
        Bf_NoiseCovarianceUpdate(*s);
    };
    for (int i = 0; i < 12; ++i) update(true);  // [[.5, .5], [.5, .5]]
    update(false);                              // [[1, 0], [0, 0]]
    EXPECT_EQ(s->cov_counter, 13);
    ExpectMatrix(s->noise_covariance[64], 7.0f / 13, 6.0f / 13, 6.0f / 13, 6.0f / 13, 1e-5f);

    update(false);
    EXPECT_EQ(s->cov_counter, 13);
    const float keep = 11.0f / 12;
    ExpectMatrix(s->noise_covariance[64], 1.0f / 12 + keep * 7 / 13, keep * 6 / 13, keep * 6 / 13,
                 keep * 6 / 13, 1e-5f);
}

TEST(NoiseCovariance, WithoutEstimationTheSecondUpdateBlendsOneTenth) {
    auto s = FreshState();
    for (int32_t k = 0; k < kBins; ++k) {
        SetBin(*s, 0, k, {0.01f, 0.0f});
        SetBin(*s, 1, k, {0.01f, 0.0f});
    }
    Bf_NoiseCovarianceUpdate(*s);
    for (int32_t k = 0; k < kBins; ++k) SetBin(*s, 1, k, {0.0f, 0.0f});
    Bf_NoiseCovarianceUpdate(*s);
    EXPECT_EQ(s->cov_counter, 1);
    ExpectMatrix(s->noise_covariance[7], 0.1f + 0.45f, 0.45f, 0.45f, 0.45f, 1e-6f);
}

TEST(NoiseCovariance, WeightsBySpeechAbsenceAndSurvivesZeroSnapshots) {
    // Calibrated: the normalised matrix is weighted by microphone 0's gain only.
    auto s = FreshState();
    s->calibration_flag = 1;
    for (int32_t k = 0; k < kBins; ++k) {
        SetBin(*s, 0, k, {0.01f, 0.01f});
        SetBin(*s, 1, k, {0.01f, 0.01f});
        s->wiener_gain[0][k] = 0.25f;
        s->wiener_gain[1][k] = 0.9f;
    }
    Bf_NoiseCovarianceUpdate(*s);
    ExpectMatrix(s->noise_covariance[50], 0.375f, 0.375f, 0.375f, 0.375f, 1e-6f);

    // A gain of 1 removes the whole snapshot: the guarded trace gives 0, not NaN.
    auto t = FreshState();
    t->Noise_estimation = 1;
    for (int32_t k = 0; k < kBins; ++k) {
        SetBin(*t, 0, k, {0.01f, 0.0f});
        t->wiener_gain[0][k] = 1.0f;
        t->wiener_gain[1][k] = 1.0f;
    }
    Bf_NoiseCovarianceUpdate(*t);
    for (int32_t k = 0; k < kBins; ++k)
        for (float value : t->noise_covariance[k]) EXPECT_EQ(value, 0.0f);
}

// --- Adaptive MVDR weights -----------------------------------------------------------

TEST(AdaptiveWeights, IdentityCovarianceGivesDelayAndSum) {
    auto s = FreshState();
    SteerTo(*s, 35.0);
    Bf_AdaptiveWeights(*s);
    for (int32_t k = 0; k < kBins; ++k)
        for (int32_t m = 0; m < kMics; ++m)
            EXPECT_NEAR(std::abs(Weight(*s, m, k) - std::conj(Steering(*s, m, k)) / 2.0), 0.0, 1e-6) << k;
}

TEST(AdaptiveWeights, UnitGainTowardTheTargetForAnyCovariance) {
    auto s = FreshState();
    SteerTo(*s, -50.0);
    for (int32_t k = 0; k < kBins; ++k) {
        // Hermitian, positive definite, different in every bin.
        const float a = 0.3f + 0.002f * k;
        const cf b = std::polar(0.25f, 0.05f * k);
        float *phi = s->noise_covariance[k];
        phi[0] = a;
        phi[2] = b.real();
        phi[3] = b.imag();
        phi[4] = b.real();
        phi[5] = -b.imag();
        phi[6] = 1.0f - a;
    }
    Bf_AdaptiveWeights(*s);
    for (int32_t k = 0; k < kBins; ++k) {
        const cd response = Weight(*s, 0, k) * Steering(*s, 0, k) + Weight(*s, 1, k) * Steering(*s, 1, k);
        EXPECT_NEAR(std::abs(response - 1.0), 0.0, 1e-5) << k;
    }
}

TEST(AdaptiveWeights, BroadsideWithSymmetricCovarianceWeighsBothEqually) {
    auto s = FreshState();
    SteerTo(*s, 0.0);
    for (int32_t k = 0; k < kBins; ++k) {
        float *phi = s->noise_covariance[k];
        phi[0] = phi[6] = 0.5f;
        phi[2] = phi[4] = 0.4f * std::cos(0.03f * k);
    }
    Bf_AdaptiveWeights(*s);
    for (int32_t k = 0; k < kBins; ++k) EXPECT_NEAR(std::abs(Weight(*s, 0, k) - Weight(*s, 1, k)), 0.0, 1e-6) << k;
}

TEST(AdaptiveWeights, LearnedPointInterfererIsNulled) {
    auto s = FreshState();
    s->Noise_estimation = 1;
    SteerTo(*s, 60.0);  // the interferer's direction
    float interferer_delay[kMics] = {s->steer_delay[0], s->steer_delay[1]};
    for (int block = 0; block < 20; ++block) {
        for (int32_t k = 0; k < kBins; ++k) {
            const cf amplitude = std::polar(0.01f, 0.7f * block + 0.1f * k);
            for (int32_t m = 0; m < kMics; ++m)
                SetBin(*s, m, k, amplitude * std::polar(1.0f, s->bin_frequency[k] * interferer_delay[m]));
        }
        Bf_NoiseCovarianceUpdate(*s);
    }
    SteerTo(*s, 0.0);  // the talker at broadside
    Bf_AdaptiveWeights(*s);
    // Above bin 110 the interferer's phase difference nears a full turn and
    // the two directions can no longer be told apart.
    for (int32_t k = 10; k <= 110; ++k) {
        cd target{};
        cd interferer{};
        for (int32_t m = 0; m < kMics; ++m) {
            target += Weight(*s, m, k) * Steering(*s, m, k);
            interferer += Weight(*s, m, k) * std::polar(1.0, double(s->bin_frequency[k]) * interferer_delay[m]);
        }
        EXPECT_NEAR(std::abs(target - 1.0), 0.0, 1e-4) << k;
        EXPECT_LT(std::abs(interferer), 0.03) << k;  // below -30 dB
    }
}
