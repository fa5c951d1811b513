#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>

#include "Beamformer_core.h"
#include "support.h"

using namespace kivbf;
using kivbf_test::BinOf, kivbf_test::kSpeedOfSound;

namespace {

using cd = std::complex<double>;

constexpr double kSpacing = 0.05;  // m

// A linear two-microphone array on the x axis at 16 kHz, configured as the
// setters leave it, with the beam designed toward the caller's angle.
std::unique_ptr<BfCoreState> DesignedBeam(float loading, float caller_angle) {
    auto s = std::make_unique<BfCoreState>();
    s->sample_rate = 16000;
    s->speed_of_sound = static_cast<float>(kSpeedOfSound);
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

// A unit plane wave at microphone m in bin k, arriving with `cosine` the
// cosine of its angle to the array's axis.
cd PlaneWave(int32_t m, int32_t k, double cosine) {
    const double x = (m == 0 ? -kSpacing : kSpacing) / 2;
    return std::polar(1.0, 2 * M_PI * (k * 16000.0 / 256.0) * x * cosine / kSpeedOfSound);
}

}  // namespace

// The beam sum applies the weights unconjugated and passes a unit plane wave
// from the look direction at unit gain; bin 0 always averages. More diagonal
// loading trades directivity for robustness: the end-fire weights, farthest
// from delay-and-sum, move toward conj(d) / 2 in both halves of the band.
TEST(BeamDesign, UnitGainTowardTheLookDirectionAndLoadingMovesTowardDelayAndSum) {
    double previous[2] = {1e30, 1e30};  // end-fire distance in bins 1..63 and 64..128
    for (float loading : {0.0001f, 0.001f, 0.01f}) {
        for (float angle : {0.0f, 30.0f, -60.0f, 90.0f, -90.0f}) {
            auto s = DesignedBeam(loading, angle);
            const double cosine = std::cos((angle + 90.0) * M_PI / 180.0);
            double distance[2] = {0.0, 0.0};
            for (int32_t m = 0; m < kMics; ++m) EXPECT_EQ(BinOf(s->beam_weights[m], 0), cd(0.5, 0.0)) << m;
            for (int32_t k = 1; k < kBins; ++k) {
                const cd response = BinOf(s->beam_weights[0], k) * PlaneWave(0, k, cosine) +
                                    BinOf(s->beam_weights[1], k) * PlaneWave(1, k, cosine);
                EXPECT_NEAR(std::abs(response - 1.0), 0.0, 2e-4) << loading << " " << angle << " bin " << k;
                for (int32_t m = 0; m < kMics; ++m)
                    distance[k < 64 ? 0 : 1] +=
                        std::norm(BinOf(s->beam_weights[m], k) - std::conj(PlaneWave(m, k, cosine)) / 2.0);
            }
            for (int band = 0; angle == -90.0f && band < 2; ++band) {
                EXPECT_LT(distance[band], previous[band]) << "loading " << loading << " band " << band;
                previous[band] = distance[band];
            }
        }
    }
}
