// Beam sum and sidelobe canceller against a direct complex-arithmetic
// reference, the target-only case and the tap bound.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>
#include <random>
#include <vector>

#include "Beamformer_core.h"
#include "vector_kernels.h"

namespace {

using cd = std::complex<double>;
constexpr int kBins = kivbf::kBins;

cd Bin(const float *a, int k) { return {a[2 * k], a[2 * k + 1]}; }
void SetBin(float *a, int k, cd v) {
    a[2 * k] = static_cast<float>(v.real());
    a[2 * k + 1] = static_cast<float>(v.imag());
}

struct CancellerFixture : testing::Test {
    std::unique_ptr<BfCoreState> s = std::make_unique<BfCoreState>();
    std::mt19937 rng{7};
    std::uniform_real_distribution<float> uniform{-1.0f, 1.0f};

    void Randomise(float *a, int n, float scale) {
        for (int i = 0; i < n; ++i) a[i] = scale * uniform(rng);
    }
    void SetUp() override {
        for (int m = 0; m < 2; ++m) {
            Randomise(s->mic_spectrum[m], kivbf::kSpectrumFloats, 10.0f);
            Randomise(s->beam_weights[m], kivbf::kSpectrumFloats, 1.0f);
        }
        for (int k = 0; k < kBins; ++k) SetBin(s->steering_phase, k, std::polar(1.0, 0.02 * k));
        Bf_ResetCanceller(*s);
    }
};

}  // namespace

TEST_F(CancellerFixture, OneBlockMatchesTheLeakyNormalisedLmsUpdate) {
    Randomise(s->anc_filter, 258, 1.0f);
    for (float &p : s->reference_power) p = 50.0f + 50.0f * uniform(rng);
    auto before = std::make_unique<BfCoreState>(*s);
    Bf_BeamSum(*s);
    Bf_Canceller(*s);
    for (int k = 0; k < kBins; ++k) {
        const cd x0 = Bin(before->mic_spectrum[0], k), x1 = Bin(before->mic_spectrum[1], k);
        const cd y = Bin(before->beam_weights[0], k) * x0 + Bin(before->beam_weights[1], k) * x1;
        const cd u = x1 - Bin(before->steering_phase, k) * x0;
        const cd h = Bin(before->anc_filter, k);
        const double power = std::max(0.01 * std::norm(u) + 0.99 * before->reference_power[k], 1e-6);
        const cd e = y - std::conj(u) * h;
        cd updated = 0.997 * h + 0.01 * (u / power) * std::conj(e);
        if (std::abs(updated) > 2.0) updated *= 2.0 / std::abs(updated);
        const double tol = 1e-4 * (1.0 + std::abs(e));
        ASSERT_NEAR(std::abs(Bin(s->beam_output, k) - e), 0.0, tol) << k;
        ASSERT_NEAR(s->reference_power[k], power, 1e-4 * power) << k;
        ASSERT_NEAR(std::abs(Bin(s->anc_filter, k) - updated), 0.0, 1e-4) << k;
    }
}

// With X1 = B X0 (through the same product kernels) the reference U is exactly
// zero: the beam passes untouched and the taps only leak, within |H| <= 2.
TEST_F(CancellerFixture, TargetOnlyInputLeavesTheBeamAndOnlyLeaksBoundedTaps) {
    cplx_mul_real(s->steering_phase, s->mic_spectrum[0], s->scratch_re, 258, 1);
    cplx_mul_imag(s->steering_phase, s->mic_spectrum[0], s->scratch_im, 258, 1);
    cplx_interleave(s->scratch_re, s->scratch_im, s->mic_spectrum[1], kBins);
    SetBin(s->anc_filter, 3, std::polar(3.0 / 0.997, 0.8));
    SetBin(s->anc_filter, 4, std::polar(1.5 / 0.997, -2.0));
    SetBin(s->anc_filter, 5, 0.0);  // 2 / |H| must not become NaN
    float leaked = 1.0f;
    for (int block = 0; block < 5; ++block) {
        Bf_BeamSum(*s);
        const std::vector<float> beam(s->beam_output, s->beam_output + 258);
        Bf_Canceller(*s);
        ASSERT_EQ(std::vector<float>(s->beam_output, s->beam_output + 258), beam) << block;
        leaked *= 0.997f;
        for (int k = 0; k < kBins; ++k) {
            ASSERT_FLOAT_EQ(s->reference_power[k], 1e-6f);  // floored, so U / S stays finite
            if (k >= 3 && k <= 5) continue;
            ASSERT_FLOAT_EQ(s->anc_filter[2 * k], leaked);
            ASSERT_EQ(s->anc_filter[2 * k + 1], 0.0f);
        }
        const cd bounded = Bin(s->anc_filter, 3), kept = Bin(s->anc_filter, 4);
        EXPECT_NEAR(std::abs(bounded), 2.0 * leaked / 0.997f, 1e-5);
        EXPECT_NEAR(std::arg(bounded), 0.8, 1e-5);
        EXPECT_NEAR(std::abs(kept), 1.5 * leaked / 0.997f, 1e-5);
        EXPECT_NEAR(std::arg(kept), -2.0, 1e-5);
        EXPECT_EQ(Bin(s->anc_filter, 5), cd(0.0, 0.0));
    }
}
