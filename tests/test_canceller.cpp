// Sidelobe canceller with a target-only input: the beam passes untouched and
// the taps only leak, within the bound on |H|.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>
#include <vector>

#include "Beamformer_core.h"
#include "support.h"
#include "vector_lanes.h"

namespace {

using cd = std::complex<double>;
using kivbf_test::BinOf, kivbf_test::SetBinOf;
constexpr int kBins = kivbf::kBins;

}  // namespace

// With X1 = B X0 (through the same complex product) the reference U is exactly
// zero, so the power estimate sits on its floor and nothing adapts.
TEST(Canceller, TargetOnlyInputLeavesTheBeamAndOnlyLeaksBoundedTaps) {
    auto s = std::make_unique<BfCoreState>();
    for (int i = 0; i < kivbf::kSpectrumFloats; ++i) {
        s->mic_spectrum[0][i] = 10.0f * std::sin(1.7f * i);
        s->beam_weights[0][i] = std::cos(0.3f * i);
        s->beam_weights[1][i] = std::sin(0.9f * i + 0.4f);
    }
    for (int k = 0; k < kBins; ++k) SetBinOf(s->steering_phase, k, std::polar(1.0, 0.02 * k));
    Bf_ResetCanceller(*s);
    using namespace kivbf::lanes;
    for (int k = 0; k < kBins; ++k)
        StoreComplex(s->mic_spectrum[1], k,
                     Product(LoadComplex<float>(s->steering_phase, k), LoadComplex<float>(s->mic_spectrum[0], k)));
    SetBinOf(s->anc_filter, 3, std::polar(3.0 / 0.997, 0.8));
    SetBinOf(s->anc_filter, 4, std::polar(1.5 / 0.997, -2.0));
    SetBinOf(s->anc_filter, 5, 0.0);  // 2 / |H| must not become NaN
    float leaked = 1.0f;
    for (int block = 0; block < 5; ++block) {
        Bf_BeamSum(*s);
        const std::vector<float> beam(s->beam_output, s->beam_output + 258);
        Bf_Canceller(*s);
        ASSERT_EQ(std::vector<float>(s->beam_output, s->beam_output + 258), beam) << block;
        leaked *= 0.997f;
        for (int k = 0; k < kBins; ++k) {
            ASSERT_FLOAT_EQ(s->reference_power[k], 1e-6f);
            if (k >= 3 && k <= 5) continue;
            ASSERT_FLOAT_EQ(s->anc_filter[2 * k], leaked);
            ASSERT_EQ(s->anc_filter[2 * k + 1], 0.0f);
        }
        const cd bounded = BinOf(s->anc_filter, 3), kept = BinOf(s->anc_filter, 4);
        EXPECT_NEAR(std::abs(bounded - std::polar(2.0 * leaked / 0.997f, 0.8)), 0.0, 1e-5) << block;
        EXPECT_NEAR(std::abs(kept - std::polar(1.5 * leaked / 0.997f, -2.0)), 0.0, 1e-5) << block;
        EXPECT_EQ(BinOf(s->anc_filter, 5), cd(0.0, 0.0));
    }
}
