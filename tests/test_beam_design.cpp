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

// A linear two-microphone array on the x axis at 16 kHz, configured as the
// setters leave it, with the beam designed toward the caller's angle.
std::unique_ptr<BfCoreState> DesignedBeam(float loading, float caller_angle) {
    auto s = std::make_unique<BfCoreState>();
    s->sample_rate = 16000;
    s->speed_of_sound = static_cast<float>(kSpeed);
    s->mic_position[0][0] = static_cast<float>(-kSpacing / 2);
    s->mic_position[1][0] = static_cast<float>(kSpacing / 2);
    s->mic_distance_matrix[0][1] = s->mic_distance_matrix[1][0] = static_cast<float>(kSpacing);
    for (int32_t k = 0; k < kBins; ++k) {
        s->bin_frequency[k] = static_cast<float>(k * 16000) / 256.0f;
        s->bin_loading[k] = loading;
    }
    s->steering_angle = caller_angle + 90.0f;
    Bf_DesignFixedBeam(*s);
    return s;
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

}  // namespace

// The design solves (G/2 + mu I) w = a up to normalisation, with G the sinc
// coherence of a diffuse field; the beam sum applies the weights unconjugated
// and passes the look direction at unit gain. Bin 0 always averages, and so
// does broadside in every bin.
TEST(BeamDesign, DiffuseFieldSolutionWithUnitGainTowardTheLookDirection) {
    for (double loading : {0.0001, 0.001, 0.01}) {
        for (float angle : {0.0f, 30.0f, -60.0f, -90.0f, 90.0f}) {
            auto s = DesignedBeam(static_cast<float>(loading), angle);
            for (int32_t m = 0; m < kMics; ++m) EXPECT_EQ(Weight(*s, m, 0), cd(0.5, 0.0));
            for (int32_t k = 1; k < kBins; ++k) {
                const double f = k * 16000.0 / 256.0;
                const double x = 2 * kPiDouble * f * kSpacing / kSpeed;
                const double coherence = std::sin(x) / x / 2;
                const cd a0 = PlaneWave(angle, 0, f), a1 = PlaneWave(angle, 1, f);
                const cd response = Weight(*s, 0, k) * a0 + Weight(*s, 1, k) * a1;
                ASSERT_NEAR(std::abs(response - 1.0), 0.0, 2e-4) << loading << " " << angle;
                if (loading < 0.001) continue;  // too ill-conditioned to compare weights
                // (G/2 + mu I)^-1 a, the determinant dropped by the normalisation.
                const cd p0 = (0.5 + loading) * a0 - coherence * a1;
                const cd p1 = -coherence * a0 + (0.5 + loading) * a1;
                const cd d = std::conj(a0) * p0 + std::conj(a1) * p1;
                const double tolerance = angle == 0.0f ? 1e-5 : 2e-4;
                EXPECT_NEAR(std::abs(Weight(*s, 0, k) - std::conj(p0 / d)), 0.0, tolerance) << k;
                EXPECT_NEAR(std::abs(Weight(*s, 1, k) - std::conj(p1 / d)), 0.0, tolerance) << k;
            }
        }
    }
}

TEST(BeamDesign, SteeringPhaseRotatesAlongTheEndfireAxis) {
    auto s = DesignedBeam(0.001f, -90.0f);  // looking along +x
    for (int32_t k = 0; k < kBins; ++k) {
        const double phase = s->bin_frequency[k] * kSpacing * 6.2831852 / kSpeed;
        EXPECT_NEAR(s->steering_phase[2 * k], std::cos(phase), 2e-5) << k;
        EXPECT_NEAR(s->steering_phase[2 * k + 1], std::sin(phase), 2e-5) << k;
    }
}
