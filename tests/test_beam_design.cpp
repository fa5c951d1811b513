#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>

#include "Beamformer_core.h"

using namespace kivbf;

namespace {

using cd = std::complex<double>;

constexpr double kSpeed = 343.0;   // m/s at 20 degrees C
constexpr double kSpacing = 0.05;  // m
constexpr double kPiDouble = 3.14159265358979323846;

// A linear two-microphone array on the x axis, configured as the setters
// leave it, without going through the API.
std::unique_ptr<BfCoreState> LinearArray(float loading, uint32_t sample_rate = 16000) {
    auto s = std::make_unique<BfCoreState>();
    s->sample_rate = sample_rate;
    s->speed_of_sound = static_cast<float>(kSpeed);
    s->mic_position[0][0] = static_cast<float>(-kSpacing / 2);
    s->mic_position[1][0] = static_cast<float>(kSpacing / 2);
    s->mic_distance_matrix[0][1] = static_cast<float>(kSpacing);
    s->mic_distance_matrix[1][0] = static_cast<float>(kSpacing);
    for (int32_t k = 0; k < kBins; ++k) {
        s->bin_frequency[k] = static_cast<float>(k * sample_rate) / 256.0f;
        s->bin_loading[k] = loading;
    }
    return s;
}

void Design(BfCoreState &s, float caller_angle) {
    s.steering_angle = caller_angle + 90.0f;
    Bf_DesignFixedBeam(s);
}

cd Weight(const BfCoreState &s, int32_t m, int32_t k) {
    return {s.beam_weights[m][2 * k], s.beam_weights[m][2 * k + 1]};
}

// Spectrum of microphone m for a unit plane wave from the caller's angle.
cd PlaneWave(double caller_angle, int32_t m, double frequency) {
    const double direction = (caller_angle + 90.0) * kPiDouble / 180.0;
    const double x = (m == 0 ? -kSpacing : kSpacing) / 2;
    return std::polar(1.0, 2 * kPiDouble * frequency * x * std::cos(direction) / kSpeed);
}

// The beam sum applies the stored weights without conjugation.
cd BeamResponse(const BfCoreState &s, int32_t k, double caller_angle) {
    const double f = k * static_cast<double>(s.sample_rate) / 256.0;
    return Weight(s, 0, k) * PlaneWave(caller_angle, 0, f) +
           Weight(s, 1, k) * PlaneWave(caller_angle, 1, f);
}

}  // namespace

TEST(BeamDesign, UnitGainTowardTheLookDirectionInEveryBin) {
    for (float loading : {0.0001f, 0.001f, 0.01f}) {
        for (float angle : {0.0f, 30.0f, -60.0f, -90.0f, 90.0f}) {
            auto s = LinearArray(loading);
            Design(*s, angle);
            for (int32_t k = 0; k < kBins; ++k) {
                const cd response = BeamResponse(*s, k, angle);
                ASSERT_NEAR(std::abs(response - 1.0), 0.0, 2e-4)
                    << "loading " << loading << " angle " << angle << " bin " << k;
            }
        }
    }
}

// The design solves (G/2 + mu I) w = a up to normalisation, with G the sinc
// coherence of a diffuse field.
TEST(BeamDesign, MatchesDiffuseFieldSolutionWithHalvedCoherence) {
    const double loading = 0.001;
    const float angle = 30.0f;
    auto s = LinearArray(static_cast<float>(loading));
    Design(*s, angle);
    for (int32_t k = 1; k < kBins; ++k) {
        const double f = k * 16000.0 / 256.0;
        const double x = 2 * kPiDouble * f * kSpacing / kSpeed;
        const double coherence = std::sin(x) / x / 2;
        const double diagonal = 0.5 + loading;
        const cd a0 = PlaneWave(angle, 0, f);
        const cd a1 = PlaneWave(angle, 1, f);
        // (G/2 + mu I)^-1 a, the determinant dropped by the normalisation.
        const cd p0 = diagonal * a0 - coherence * a1;
        const cd p1 = -coherence * a0 + diagonal * a1;
        const cd d = std::conj(a0) * p0 + std::conj(a1) * p1;
        EXPECT_NEAR(std::abs(Weight(*s, 0, k) - std::conj(p0 / d)), 0.0, 2e-4) << k;
        EXPECT_NEAR(std::abs(Weight(*s, 1, k) - std::conj(p1 / d)), 0.0, 2e-4) << k;
    }
}

TEST(BeamDesign, HeavierLoadingMovesTowardDelayAndSum) {
    auto light = LinearArray(0.0001f);
    auto heavy = LinearArray(0.01f);
    Design(*light, -90.0f);
    Design(*heavy, -90.0f);
    double light_distance = 0.0;
    double heavy_distance = 0.0;
    for (int32_t k = 1; k < kBins; ++k) {
        const double f = k * 16000.0 / 256.0;
        for (int32_t m = 0; m < kMics; ++m) {
            const cd delay_and_sum = std::conj(PlaneWave(-90.0, m, f)) / 2.0;
            light_distance += std::abs(Weight(*light, m, k) - delay_and_sum);
            heavy_distance += std::abs(Weight(*heavy, m, k) - delay_and_sum);
        }
    }
    EXPECT_LT(heavy_distance, 0.7 * light_distance);
    // Superdirective at low frequencies: the light loading's weights are large.
    EXPECT_GT(std::abs(Weight(*light, 0, 1)), 2.0);
}

TEST(BeamDesign, SteeringPhaseRotatesAlongTheEndfireAxis) {
    auto s = LinearArray(0.001f);
    Design(*s, -90.0f);  // looking along +x
    const double wavenumber_per_hz = 6.2831852 / kSpeed;
    for (int32_t k = 0; k < kBins; ++k) {
        const double phase = s->bin_frequency[k] * kSpacing * wavenumber_per_hz;
        EXPECT_NEAR(s->steering_phase[2 * k], std::cos(phase), 2e-5) << k;
        EXPECT_NEAR(s->steering_phase[2 * k + 1], std::sin(phase), 2e-5) << k;
    }
}

// Bin 0 always averages; at broadside the average is the design in every bin.
TEST(BeamDesign, BinZeroAndBroadsideWeightsAreOneHalf) {
    for (float angle : {0.0f, 45.0f, -90.0f}) {
        auto s = LinearArray(0.001f);
        Design(*s, angle);
        for (int32_t m = 0; m < kMics; ++m) EXPECT_EQ(Weight(*s, m, 0), cd(0.5, 0.0)) << angle;
        for (int32_t k = 0; angle == 0.0f && k < kBins; ++k) {
            EXPECT_NEAR(std::abs(Weight(*s, 0, k) - 0.5), 0.0, 1e-5) << k;
            EXPECT_NEAR(std::abs(Weight(*s, 1, k) - 0.5), 0.0, 1e-5) << k;
        }
    }
}
