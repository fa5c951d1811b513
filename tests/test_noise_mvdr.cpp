// The per-block adaptive stages on a hand-built core state: calibration and
// steering, noise estimation, noise covariance and MVDR weights.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <memory>

#include "Beamformer_core.h"

using namespace kivbf;

namespace {

using cd = std::complex<double>;
using cf = std::complex<float>;

// What initialisation and the setters leave for these stages: unit memories,
// identity covariances, intensity 1, a loading of 0.001, 16 kHz.
std::unique_ptr<BfCoreState> FreshState(int32_t mode = 0, uint32_t calibration_flag = 0) {
    auto s = std::make_unique<BfCoreState>();
    s->mode = mode;
    s->calibration_flag = calibration_flag;
    s->speed_of_sound = 343.0f;
    s->intensity_scale = 0.6f;
    s->intensity_floor = 0.31622699f;
    s->adaptive_intensity = 1;
    s->mic_position[0][0] = -0.025f;
    s->mic_position[1][0] = 0.025f;
    for (int32_t k = 0; k < kBins; ++k) {
        s->bin_frequency[k] = static_cast<float>(k * 16000) / 256.0f;
        s->bin_loading[k] = 0.001f;
        s->unit_vector[k] = 1.0f;
        s->prior_snr_memory[0][k] = s->prior_snr_memory[1][k] = 1.0f;
    }
    Bf_ResetCovariance(*s);
    return s;
}

cf Bin(const float *spectrum, int32_t k) { return {spectrum[2 * k], spectrum[2 * k + 1]}; }

void SetBin(BfCoreState &s, int32_t m, int32_t k, cf value) {
    s.mic_spectrum[m][2 * k] = value.real();
    s.mic_spectrum[m][2 * k + 1] = value.imag();
}

void SetAllBins(BfCoreState &s, cf mic0, cf mic1) {
    for (int32_t k = 0; k < kBins; ++k) {
        SetBin(s, 0, k, mic0);
        SetBin(s, 1, k, mic1);
    }
}

// Different from bin to bin and between the microphones.
void FillSpectra(BfCoreState &s) {
    for (int32_t k = 0; k < kBins; ++k) {
        SetBin(s, 0, k, std::polar(0.001f * (1 + k % 7), 0.1f * k));
        SetBin(s, 1, k, std::polar(0.002f * (1 + k % 5), -0.3f * k));
    }
}

void SetGains(BfCoreState &s, float mic0, float mic1) {
    std::fill_n(s.wiener_gain[0], kBins, mic0);
    std::fill_n(s.wiener_gain[1], kBins, mic1);
}

// A real 2x2 matrix [[a00, a01], [a01, a11]] with zero imaginary parts.
void ExpectMatrix(const float *matrix, float a00, float a01, float a11, float tolerance = 1e-6f) {
    const float expected[8] = {a00, 0.0f, a01, 0.0f, a01, 0.0f, a11, 0.0f};
    for (int i = 0; i < 8; ++i) EXPECT_NEAR(matrix[i], expected[i], tolerance) << "float " << i;
}

cd Weight(const BfCoreState &s, int32_t m, int32_t k) {
    return {s.beam_weights[m][2 * k], s.beam_weights[m][2 * k + 1]};
}

cd Steering(const BfCoreState &s, int32_t m, int32_t k) {
    return std::polar(1.0, static_cast<double>(s.bin_frequency[k]) * s.steer_delay[m]);
}

}  // namespace

TEST(Calibration, EqualisesMicrophoneOneMagnitudeAndKeepsItsPhase) {
    auto s = FreshState();
    FillSpectra(*s);
    const auto before = *s;
    Bf_Calibrate(*s);  // flag 0: only the raw copy
    EXPECT_EQ(std::memcmp(s->mic_spectrum, before.mic_spectrum, sizeof before.mic_spectrum), 0);
    EXPECT_EQ(Bin(s->raw_mic1_spectrum, 9), Bin(before.mic_spectrum[1], 9));

    s->calibration_flag = 1;
    Bf_Calibrate(*s);
    for (int32_t k = 0; k < kBins; ++k) {
        const cf raw = Bin(before.mic_spectrum[1], k);
        const cf calibrated = Bin(s->mic_spectrum[1], k);
        const float power = 65536.0f * std::norm(raw);
        EXPECT_NEAR(std::abs(calibrated),
                    std::abs(Bin(s->mic_spectrum[0], k)) * std::sqrt(power / (power + 1e-6f)),
                    1e-7f);
        EXPECT_NEAR(std::arg(calibrated / raw), 0.0f, 1e-5f);
    }
}

TEST(TargetSteering, BroadsideGivesUnitRelativeSteeringOnlyInPostFilterModes) {
    auto s = FreshState();
    s->target_angle = 90.0f;  // the caller's 0
    s->target_steering[6] = 7.0f;
    Bf_TargetSteering(*s);
    EXPECT_NEAR(s->steer_delay[0], s->steer_delay[1], 1e-9f);
    EXPECT_EQ(s->target_steering[6], 7.0f);  // mode 0: delays only

    s->mode = 3;
    s->target_angle = 0.0f;  // along +x: microphone 1 leads by d / c
    Bf_TargetSteering(*s);
    for (int32_t k = 0; k < kBins; ++k)
        EXPECT_NEAR(std::abs(Bin(s->target_steering, k) -
                             std::polar(1.0f, -s->bin_frequency[k] * 0.05f * 6.2831852f / 343.0f)),
                    0.0f, 1e-5f)
            << k;
}

TEST(NoiseEstimate, FirstBlocksSetUpNoiseGainAndPresence) {
    auto s = FreshState();
    FillSpectra(*s);
    Bf_NoiseEstimate(*s);
    for (int32_t m = 0; m < kMics; ++m)
        for (int32_t k = 0; k < kBins; ++k) {
            EXPECT_EQ(s->noise_psd[m][k], 65536.0f * std::norm(Bin(s->mic_spectrum[m], k)));
            EXPECT_NEAR(s->wiener_gain[m][k], 0.98f / 1.98f, 1e-6f);  // gamma still 0
        }
    EXPECT_EQ(s->noise_counter, 1);

    // Same power again: gamma = 1, and the smoothed presence starts from p.
    Bf_NoiseEstimate(*s);
    EXPECT_NEAR(s->spp_smoothed[0][5], 1.0f / (1.0f + 32.622776f * std::exp(-0.9693466f)), 1e-5f);
    Bf_NoiseEstimate(*s);
    EXPECT_EQ(s->noise_counter, 2);
}

TEST(NoiseEstimate, NoiseTracksByPresenceAndTheCapKeepsItMoving) {
    auto s = FreshState();
    s->noise_counter = 2;
    std::fill_n(s->noise_psd[0], kBins, 1.0f);
    const int32_t speech_bin = 10;    // gamma = P = 1024: p = 1
    const int32_t silent_bin = 20;    // P = 0: p at its minimum
    const int32_t stagnant_bin = 30;  // p = 1 after long speech: capped to 0.9
    SetBin(*s, 0, speech_bin, {0.125f, 0.0f});
    SetBin(*s, 0, stagnant_bin, {0.125f, 0.0f});
    s->spp_smoothed[0][stagnant_bin] = 1.0f;
    Bf_NoiseEstimate(*s);

    // p may miss 1 by an ulp or two of the kernels' reciprocal: 0.2 x 1024 x 1e-7.
    EXPECT_NEAR(s->noise_psd[0][speech_bin], 0.92f, 1e-4f);  // (0.2 x 0.6 + 0.8) lambda
    EXPECT_NEAR(s->noise_psd[0][silent_bin], 0.2f * 0.6f / 33.622776f + 0.8f, 1e-6f);
    EXPECT_NEAR(s->noise_psd[0][stagnant_bin], 0.2f * (0.1f * 1024 + 0.9f * 0.6f) + 0.8f, 1e-4f);
    const float xi = 0.02f * (1024 - 1.0f) + 0.98f;
    EXPECT_NEAR(s->wiener_gain[0][speech_bin], xi / (1.0f + xi), 1e-5f);
}

TEST(NoiseEstimate, CalibratedGainsAndSpeechNoiseRatio) {
    auto s = FreshState(0, 1);
    FillSpectra(*s);
    SetBin(*s, 0, 0, {0.0f, 0.0f});  // silent bin: noise and speech both 0
    std::fill_n(s->speech_noise_ratio, kBins, 7.0f);
    for (int block = 0; block < 3; ++block) Bf_NoiseEstimate(*s);
    for (int32_t k = 0; k < kBins; ++k) {
        EXPECT_EQ(s->wiener_gain[1][k], s->wiener_gain[0][k]);
        EXPECT_EQ(s->noise_psd[1][k], 0.0f);  // microphone 1 is not tracked
    }
    EXPECT_EQ(s->speech_noise_ratio[3], 7.0f);  // mode 0 leaves it alone

    for (auto [intensity, floor] : {std::pair{1, 0.01f}, {2, 0.005f}, {4, 0.001f}}) {
        auto t = FreshState(3);
        t->adaptive_intensity = intensity;
        FillSpectra(*t);
        SetBin(*t, 0, 0, {0.0f, 0.0f});
        Bf_NoiseEstimate(*t);
        EXPECT_EQ(t->speech_noise_ratio[0], floor) << intensity;  // 0/0 taken as 0, then floored
        const float gain = 0.98f / 1.98f;  // first block: S / lambda = G^2, times G
        EXPECT_NEAR(t->speech_noise_ratio[3], gain * gain * gain, 1e-5f);
    }
}

TEST(NoiseCovariance, CopyBlendAndSpeechWeightingWithoutEstimation) {
    auto s = FreshState();
    for (int32_t k = 0; k < kBins; ++k) {
        const cf x = std::polar(0.01f * (1 + k % 3), 0.2f * k);
        SetBin(*s, 0, k, x);
        SetBin(*s, 1, k, x);
    }
    SetGains(*s, 0.3f, 0.3f);
    Bf_NoiseCovarianceUpdate(*s);  // the first update copies
    for (const float *matrix : s->noise_covariance) ExpectMatrix(matrix, 0.5f, 0.5f, 0.5f);
    SetAllBins(*s, {0.01f, 0.0f}, {0.0f, 0.0f});  // [[1, 0], [0, 0]]
    Bf_NoiseCovarianceUpdate(*s);
    ExpectMatrix(s->noise_covariance[7], 0.1f + 0.45f, 0.45f, 0.45f);
    EXPECT_EQ(s->cov_counter, 1);

    // Calibrated: the normalised matrix is weighted by microphone 0's gain only.
    s = FreshState(0, 1);
    SetAllBins(*s, {0.01f, 0.01f}, {0.01f, 0.01f});
    SetGains(*s, 0.25f, 0.9f);
    Bf_NoiseCovarianceUpdate(*s);
    ExpectMatrix(s->noise_covariance[50], 0.375f, 0.375f, 0.375f);

    // A gain of 1 removes the snapshot: the guarded trace gives 0, not NaN.
    s = FreshState();
    SetAllBins(*s, {0.01f, 0.0f}, {});
    SetGains(*s, 1.0f, 1.0f);
    Bf_NoiseCovarianceUpdate(*s);
    for (const float *matrix : s->noise_covariance) ExpectMatrix(matrix, 0.0f, 0.0f, 0.0f, 0.0f);
}

TEST(NoiseCovariance, RunningMeanOfThirteenThenForgettingOneTwelfth) {
    auto s = FreshState();
    s->Noise_estimation = 1;
    const cf x{0.02f, -0.01f};
    for (int i = 0; i < 14; ++i) {
        SetAllBins(*s, x, i < 12 ? x : cf{});  // [[.5, .5], [.5, .5]], then [[1, 0], [0, 0]]
        Bf_NoiseCovarianceUpdate(*s);
        EXPECT_EQ(s->cov_counter, std::min(i + 1, 13));
        if (i == 12) ExpectMatrix(s->noise_covariance[64], 7.0f / 13, 6.0f / 13, 6.0f / 13, 1e-5f);
    }
    const float keep = 11.0f / 12;
    ExpectMatrix(s->noise_covariance[64], 1.0f / 12 + keep * 7 / 13, keep * 6 / 13, keep * 6 / 13,
                 1e-5f);
}

TEST(AdaptiveWeights, DelayAndSumForIdentityAndUnitGainForAnyCovariance) {
    auto s = FreshState();
    s->target_angle = 35.0f;
    Bf_TargetSteering(*s);
    Bf_AdaptiveWeights(*s);
    for (int32_t k = 0; k < kBins; ++k)
        for (int32_t m = 0; m < kMics; ++m)
            EXPECT_NEAR(std::abs(Weight(*s, m, k) - std::conj(Steering(*s, m, k)) / 2.0), 0.0, 1e-6)
                << k;

    for (int32_t k = 0; k < kBins; ++k) {
        // Hermitian, positive definite, different in every bin.
        const float a = 0.3f + 0.002f * k;
        const cf b = std::polar(0.25f, 0.05f * k);
        const float phi[8] = {a, 0.0f, b.real(), b.imag(), b.real(), -b.imag(), 1.0f - a, 0.0f};
        std::copy(phi, phi + 8, s->noise_covariance[k]);
    }
    Bf_AdaptiveWeights(*s);
    for (int32_t k = 0; k < kBins; ++k) {
        const cd response =
            Weight(*s, 0, k) * Steering(*s, 0, k) + Weight(*s, 1, k) * Steering(*s, 1, k);
        EXPECT_NEAR(std::abs(response - 1.0), 0.0, 1e-5) << k;
    }
}
