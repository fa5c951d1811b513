// Beam design and the preparations KivBf_SetMode makes for each mode.
#include <cmath>

#include "math_functions.h"
#include "Beamformer_core.h"
#include "complex_matrix.h"
#include "debug_msglevel.h"
#include "vector_kernels.h"

using namespace kivbf;

void Bf_ResetCovariance(BfCoreState &s) {
    constexpr int32_t kDiagonalReal[] = {0, 6};  // (0, 0) and (1, 1), real parts
    for (float(&element)[kBins] : s.noise_covariance) vec_fill(element, 0.0f, kBins);
    for (int32_t e : kDiagonalReal) vec_fill(s.noise_covariance[e], 1.0f, kBins);
}

void Bf_ResetCanceller(BfCoreState &s) {
    for (int32_t k = 0; k < kBins; ++k) {
        s.anc_filter[2 * k] = 1.0f;
        s.anc_filter[2 * k + 1] = 0.0f;
    }
    vec_fill(s.reference_power, 0.0f, kBins);
}

void Bf_SetUnityGains(BfCoreState &s) {
    s.band_weight_low = 1.0f;
    s.band_weight_wide = 1.0f;
    s.band_weight_mid = 1.0f;
}

namespace {

// Element (row, column) of a 2 x 2 complex matrix: offset of its real part.
constexpr int32_t Element(int32_t row, int32_t column) { return 2 * (2 * row + column); }

// The microphone count as a complex divisor, 2 + 0i.
constexpr float kMicCountDivisor[2] = {static_cast<float>(kMics), 0.0f};

// Diffuse-field coherence of bin k into gamma (8 floats), halved by the
// microphone count and loaded.
void DesignCoherence(const BfCoreState &s, int32_t k, float wavenumber_per_hz, float *gamma) {
    for (int32_t i = 0; i < kMics; ++i) {
        for (int32_t j = 0; j < kMics; ++j) {
            const float distance = s.mic_distance_matrix[i][j];
            float coherence = 1.0f;
            if (k != 0 && distance != 0.0f) {
                const float x = s.bin_frequency[k] * wavenumber_per_hz * distance;
                coherence = static_cast<float>(math::Sin(static_cast<double>(x))) / x;
            }
            gamma[Element(i, j)] = coherence;
            gamma[Element(i, j) + 1] = 0.0f;
        }
    }
    cmat2_normalise(gamma, kMicCountDivisor, gamma);
    gamma[Element(0, 0)] += s.bin_loading[k];
    gamma[Element(1, 1)] += s.bin_loading[k];
}

bool AllFinite(const float *values, int32_t count) {
    for (int32_t i = 0; i < count; ++i)
        if (!std::isfinite(values[i])) return false;
    return true;
}

// A finite but absurd spacing (metres of it, or 1e38 cm) overflows the
// phases and the coherence inverse into inf and NaN. Such a design is
// replaced by the plain average of the two microphones, a delay-and-sum beam
// with no steering, which is what a spacing too large to model can still use.
void KeepDesignFinite(BfCoreState &s) {
    if (AllFinite(s.beam_weights[0], kSpectrumFloats) && AllFinite(s.beam_weights[1], kSpectrumFloats) &&
        AllFinite(s.steering_phase, kSpectrumFloats))
        return;
    for (int32_t k = 0; k < kBins; ++k) {
        for (float(&weights)[kSpectrumFloats] : s.beam_weights) {
            weights[2 * k] = 0.5f;
            weights[2 * k + 1] = 0.0f;
        }
        s.steering_phase[2 * k] = 1.0f;
        s.steering_phase[2 * k + 1] = 0.0f;
    }
    DML_PRINT(s.debug_level, DML_WRN,
              "[%s] %s[BF] [SetMode] The beam design overflowed at this microphone distance; "
              "using a delay-and-sum beam\t\n");
}

}  // namespace

// Superdirective (diffuse-noise MVDR) weights toward steering_angle:
// w = (G/2 + mu I)^-1 a / (a^H (G/2 + mu I)^-1 a), stored conjugated.
void Bf_DesignFixedBeam(BfCoreState &s) {
    const float wavenumber_per_hz =
        static_cast<float>(kTwoPi / static_cast<double>(s.speed_of_sound));
    const double look = static_cast<double>(s.steering_angle / 180.0f) * kPi;
    for (int32_t m = 0; m < kMics; ++m) {
        const double projection =
            math::Cos(look) * s.mic_position[m][0] + math::Sin(look) * s.mic_position[m][1];
        s.mic_phase_rate[m] = static_cast<float>(projection * wavenumber_per_hz);
    }

    // Per bin, 2 x 2 complex each: A, the steering vector in column 0; B,
    // the conjugated steering vector in row 0; Gamma, loaded and inverted in
    // place; P = Gamma^-1 A; S = B Gamma^-1 A.
    float steering[kCmat2Floats];
    float conjugate[kCmat2Floats];
    float gamma[kCmat2Floats];
    float product[kCmat2Floats];
    float scalar[kCmat2Floats];
    for (int32_t k = 0; k < kBins; ++k) {
        const float frequency = s.bin_frequency[k];
        for (int32_t i = 0; i < kCmat2Floats; ++i) {
            steering[i] = 0.0f;
            conjugate[i] = 0.0f;
        }
        for (int32_t m = 0; m < kMics; ++m) {
            float re = 1.0f;
            float im = 0.0f;
            if (s.mic_phase_rate[m] != 0.0f) {
                const double phase = frequency * s.mic_phase_rate[m];
                re = static_cast<float>(math::Cos(phase));
                im = static_cast<float>(math::Sin(phase));
            }
            steering[Element(m, 0)] = re;
            steering[Element(m, 0) + 1] = im;
            conjugate[Element(0, m)] = re;
            conjugate[Element(0, m) + 1] = -im;
        }

        DesignCoherence(s, k, wavenumber_per_hz, gamma);
        cmat2_inverse(gamma, gamma);
        cmat2_product(gamma, steering, product);
        cmat2_product(conjugate, gamma, scalar);
        cmat2_product(scalar, steering, scalar);

        const float d_re = scalar[0];
        const float d_im = scalar[1];
        const float magnitude = d_re * d_re + d_im * d_im;
        for (int32_t m = 0; m < kMics; ++m) {
            const float p_re = product[Element(m, 0)];
            const float p_im = product[Element(m, 0) + 1];
            const float w_re = (p_re * d_re + p_im * d_im) / magnitude;
            const float w_im = (p_im * d_re - p_re * d_im) / magnitude;
            s.beam_weights[m][2 * k] = w_re;
            s.beam_weights[m][2 * k + 1] = -w_im;
        }

        const double relative_phase = frequency * (s.mic_phase_rate[1] - s.mic_phase_rate[0]);
        s.steering_phase[2 * k] = static_cast<float>(math::Cos(relative_phase));
        s.steering_phase[2 * k + 1] = static_cast<float>(math::Sin(relative_phase));
    }
    KeepDesignFinite(s);
}
