// The per-block adaptive stages on a hand-built core state: noise estimation,
// noise covariance and MVDR weights, and the 2 x 2 complex matrix helpers of
// the beam design.
#include <gtest/gtest.h>

#include <algorithm>
#include <complex>
#include <memory>
#include <vector>

#include "Beamformer_core.h"
#include "complex_matrix.h"
#include "support.h"

using namespace kivbf;
using kivbf_test::BinOf, kivbf_test::SetBinOf;

namespace {

using cd = std::complex<double>;
using cf = std::complex<float>;

// What initialisation and the setters leave for these stages: unit memories,
// identity covariances, intensity 1, a loading of 0.001, 16 kHz.
std::unique_ptr<BfCoreState> FreshState(uint32_t calibration_flag = 0) {
    auto s = std::make_unique<BfCoreState>();
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
        s->prior_snr_memory[0][k] = s->prior_snr_memory[1][k] = 1.0f;
    }
    Bf_ResetCovariance(*s);
    return s;
}

// Different from bin to bin and between the microphones.
void FillSpectra(BfCoreState &s) {
    for (int32_t k = 0; k < kBins; ++k) {
        SetBinOf(s.mic_spectrum[0], k, std::polar(0.001f * (1 + k % 7), 0.1f * k));
        SetBinOf(s.mic_spectrum[1], k, std::polar(0.002f * (1 + k % 5), -0.3f * k));
    }
}

cd Steering(const BfCoreState &s, int32_t m, int32_t k) {
    return std::polar(1.0, static_cast<double>(s.bin_frequency[k]) * s.steer_delay[m]);
}

}  // namespace

TEST(NoiseEstimate, FirstBlockGainAndCalibratedSharedGain) {
    for (uint32_t calibrated : {0u, 1u}) {
        auto s = FreshState(calibrated);
        FillSpectra(*s);
        Bf_NoiseEstimate(*s);
        for (int32_t k = 0; k < kBins; ++k) {
            const cf x{s->mic_spectrum[0][2 * k], s->mic_spectrum[0][2 * k + 1]};
            EXPECT_EQ(s->noise_psd[0][k], 65536.0f * std::norm(x));
            EXPECT_NEAR(s->wiener_gain[0][k], 0.98f / 1.98f, 1e-6f);  // no posterior SNR yet
        }
        for (int block = 0; block < 2; ++block) Bf_NoiseEstimate(*s);
        for (int32_t k = 0; calibrated && k < kBins; ++k) {
            EXPECT_EQ(s->wiener_gain[1][k], s->wiener_gain[0][k]) << k;
            EXPECT_EQ(s->noise_psd[1][k], 0.0f);  // microphone 1 is not tracked
        }
    }
}

TEST(NoiseCovariance, RunningMeanOfThirteenThenForgettingOneTwelfth) {
    auto s = FreshState();
    s->Noise_estimation = 1;
    const cf x{0.02f, -0.01f};
    const auto expect_matrix = [&](float a00, float a01, float a11) {
        const float expected[8] = {a00, 0.0f, a01, 0.0f, a01, 0.0f, a11, 0.0f};
        for (int i = 0; i < 8; ++i) EXPECT_NEAR(s->noise_covariance[i][64], expected[i], 1e-5f);
    };
    for (int i = 0; i < 14; ++i) {
        // Normalised [[.5, .5], [.5, .5]] twelve times, then [[1, 0], [0, 0]].
        for (int32_t k = 0; k < kBins; ++k) {
            SetBinOf(s->mic_spectrum[0], k, x);
            SetBinOf(s->mic_spectrum[1], k, i < 12 ? x : cf{});
        }
        Bf_NoiseCovarianceUpdate(*s);
        EXPECT_EQ(s->cov_counter, std::min(i + 1, 13));
        if (i == 12) expect_matrix(7.0f / 13, 6.0f / 13, 6.0f / 13);
    }
    const float keep = 11.0f / 12;
    expect_matrix(1.0f / 12 + keep * 7 / 13, keep * 6 / 13, keep * 6 / 13);
}

TEST(AdaptiveWeights, DelayAndSumForIdentityAndUnitGainForAnyCovariance) {
    auto s = FreshState();
    s->target_angle = 35.0f;
    Bf_TargetSteering(*s);
    Bf_AdaptiveWeights(*s);
    for (int32_t k = 0; k < kBins; ++k)
        for (int32_t m = 0; m < kMics; ++m)
            EXPECT_NEAR(std::abs(BinOf(s->beam_weights[m], k) - std::conj(Steering(*s, m, k)) / 2.0), 0.0, 1e-6)
                << k;

    for (int32_t k = 0; k < kBins; ++k) {
        // Hermitian, positive definite, different in every bin.
        const float a = 0.3f + 0.002f * k;
        const cf b = std::polar(0.25f, 0.05f * k);
        const float phi[8] = {a, 0.0f, b.real(), b.imag(), b.real(), -b.imag(), 1.0f - a, 0.0f};
        for (int e = 0; e < 8; ++e) s->noise_covariance[e][k] = phi[e];
    }
    Bf_AdaptiveWeights(*s);
    for (int32_t k = 0; k < kBins; ++k) {
        const cd response =
            BinOf(s->beam_weights[0], k) * Steering(*s, 0, k) + BinOf(s->beam_weights[1], k) * Steering(*s, 1, k);
        EXPECT_NEAR(std::abs(response - 1.0), 0.0, 1e-5) << k;
    }
}

// The target steering table and the MVDR steering vectors are kept between
// blocks while their delays hold. A table that outlived a change would steer
// at the old talker without any other symptom, so a state that has built them
// for other directions, spacings, speeds of sound and modes must end with
// exactly the table and weights of a fresh one.
TEST(AdaptiveWeights, KeptTablesFollowEveryChangeExactly) {
    struct Setting {
        float angle, half_spacing, speed;
        uint32_t mode;
    };
    const auto build = [](BfCoreState &s, const Setting &c) {
        s.target_angle = c.angle;
        s.mic_position[0][0] = -c.half_spacing;
        s.mic_position[1][0] = c.half_spacing;
        s.speed_of_sound = c.speed;
        s.mode = c.mode;
        Bf_TargetSteering(s);
        Bf_AdaptiveWeights(s);
        std::vector<float> kept(&s.beam_weights[0][0], &s.beam_weights[0][0] + 2 * kSpectrumFloats);
        if (c.mode == 3)  // only the post-filter builds the table
            kept.insert(kept.end(), std::begin(s.target_steering), std::end(s.target_steering));
        return kept;
    };
    // Mode 0 moves the delays without building the table; back in mode 3 it must catch up.
    const Setting sequence[] = {{35, 0.025f, 343, 3}, {35, 0.025f, 343, 3}, {80, 0.025f, 343, 3},
                                {80, 0.025f, 352, 3}, {80, 0.04f, 352, 3},  {100, 0.04f, 352, 0},
                                {100, 0.04f, 352, 3}, {35, 0.025f, 343, 3}};
    auto reused = FreshState();
    for (const Setting &c : sequence)
        EXPECT_EQ(build(*reused, c), build(*FreshState(), c)) << c.angle << " " << c.speed << " " << c.mode;
}

TEST(ComplexMatrix, InverseInPlaceAndNormaliseWithZeroGuard) {
    const cf a[4] = {{1.0f, 0.5f}, {0.25f, -1.0f}, {-0.5f, 0.3f}, {2.0f, 1.0f}};
    float m[kCmat2Floats];
    for (int i = 0; i < 4; ++i) SetBinOf(m, i, a[i]);
    cmat2_inverse(m, m);
    const cf det = a[0] * a[3] - a[1] * a[2];
    const cf expected[4] = {a[3] / det, -a[1] / det, -a[2] / det, a[0] / det};
    for (int i = 0; i < 4; ++i)
        EXPECT_NEAR(std::abs(BinOf(m, i) - cd(expected[i])), 0.0, 1e-5) << i;

    // |trace|^2 = 0 is taken as 1e-6: an all-zero matrix stays zero instead of NaN.
    const float zero[kCmat2Floats] = {};
    cmat2_normalise(zero, zero, m);
    for (float value : m) EXPECT_EQ(value, 0.0f);
}
