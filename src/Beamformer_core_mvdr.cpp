// Noise spatial covariance and the adaptive MVDR weights built from it.
#include <cfloat>
#include <cmath>

#include "Beamformer_core.h"
#include "complex_matrix.h"
#include "vector_kernels.h"

using namespace kivbf;

namespace {

constexpr float kSnapshotScale = 256.0f;
constexpr uint16_t kRunningMeanUpdates = 13;  // plain mean over the first 13 snapshots
constexpr uint16_t kLastRunningMean = kRunningMeanUpdates - 1;
constexpr float kSlowForgetting = 1.0f / 12.0f;  // after the running mean
constexpr float kFastForgetting = 0.1f;          // Noise_estimation off

// Element (row, column) of a 2 x 2 complex matrix: offset of its real part.
constexpr int32_t Element(int32_t row, int32_t column) { return 2 * (2 * row + column); }

void ClearMatrix(float *matrix) {
    for (int32_t i = 0; i < kCmat2Floats; ++i) matrix[i] = 0.0f;
}

// x in column 0 of `column`, x^H in row 0 of `row`.
void PutVector(float *column, float *row, int32_t m, float re, float im) {
    column[Element(m, 0)] = re;
    column[Element(m, 0) + 1] = im;
    row[Element(0, m)] = re;
    row[Element(0, m) + 1] = -im;
}

// Snapshot of bin k, weighted by each microphone's noise share (1 - G) unless
// the microphones are calibrated, where the weight is applied later.
void PutSnapshot(BfCoreState &s, int32_t k) {
    const bool calibrated = s.calibration_flag == 1;
    for (int32_t m = 0; m < kMics; ++m) {
        const float re = s.mic_spectrum[m][2 * k];
        const float im = s.mic_spectrum[m][2 * k + 1];
        if (calibrated) {
            PutVector(s.cov_snapshot, s.cov_conjugate, m, kSnapshotScale * re, kSnapshotScale * im);
        } else {
            const double weight = static_cast<double>(1.0f - s.wiener_gain[m][k]) * kSnapshotScale;
            PutVector(s.cov_snapshot, s.cov_conjugate, m, static_cast<float>(weight * re),
                      static_cast<float>(weight * im));
        }
    }
}

void AverageCovariance(BfCoreState &s, float *phi) {
    const float *normalised = s.cov_normalised;
    const uint16_t n = s.cov_counter;
    if (s.Noise_estimation != 0) {
        if (n > kLastRunningMean) {
            cplx_mix(normalised, phi, kSlowForgetting, phi, kCmat2Floats);
        } else {
            cplx_scale(phi, static_cast<float>(n), phi, kCmat2Floats);
            cplx_add(phi, normalised, phi, kCmat2Floats);
            cplx_scale(phi, 1.0f / static_cast<float>(n + 1), phi, kCmat2Floats);
        }
    } else if (n != 0) {
        cplx_mix(normalised, phi, kFastForgetting, phi, kCmat2Floats);
    } else {
        for (int32_t i = 0; i < kCmat2Floats; ++i) phi[i] = normalised[i];
    }
}

// An element that the snapshots stop feeding (the imaginary parts while both
// microphones see the same phase) only shrinks under the forgetting; once
// subnormal it never reaches zero (0.9 times the smallest subnormal rounds
// back to it) and slows every later block on cores without flush-to-zero.
void FlushSubnormals(float *matrix) {
    for (int32_t i = 0; i < kCmat2Floats; ++i)
        if (std::fabs(matrix[i]) < FLT_MIN) matrix[i] = std::copysign(0.0f, matrix[i]);
}

}  // namespace

// Phi[k]: average of unit-trace snapshots x x^H / |x|^2, so that it holds the
// spatial structure of the noise and not its level.
void Bf_NoiseCovarianceUpdate(BfCoreState &s) {
    // Each bin rewrites column 0 and row 0 only; the rest stays zero.
    ClearMatrix(s.cov_snapshot);
    ClearMatrix(s.cov_conjugate);
    for (int32_t k = 0; k < kBins; ++k) {
        PutSnapshot(s, k);
        cmat2_product(s.cov_snapshot, s.cov_conjugate, s.cov_product);
        cmat2_trace(s.cov_product, s.cov_trace);
        cmat2_normalise(s.cov_product, s.cov_trace, s.cov_normalised);
        if (s.calibration_flag == 1) {
            cplx_scale(s.cov_normalised, 1.0f - s.wiener_gain[0][k], s.cov_normalised,
                       kCmat2Floats);
        }
        AverageCovariance(s, s.noise_covariance[k]);
        FlushSubnormals(s.noise_covariance[k]);
    }
    if (s.Noise_estimation != 0) {
        if (s.cov_counter < kRunningMeanUpdates) ++s.cov_counter;
    } else if (s.cov_counter == 0) {
        s.cov_counter = 1;
    }
}

// w^H = d^H M^-1 / (d^H M^-1 d) with M = Phi + loading, stored so that the
// beam sum W0 X0 + W1 X1 needs no conjugation.
void Bf_AdaptiveWeights(BfCoreState &s) {
    ClearMatrix(s.mvdr_column);  // as in the covariance update: column 0 and row 0 change
    ClearMatrix(s.mvdr_row);
    for (int32_t k = 0; k < kBins; ++k) {
        for (int32_t m = 0; m < kMics; ++m) {
            const double phase = s.bin_frequency[k] * s.steer_delay[m];
            PutVector(s.mvdr_column, s.mvdr_row, m, static_cast<float>(std::cos(phase)),
                      static_cast<float>(std::sin(phase)));
        }

        float *loaded = s.mvdr_loaded;
        for (int32_t i = 0; i < kCmat2Floats; ++i) loaded[i] = s.noise_covariance[k][i];
        loaded[Element(0, 0)] += s.bin_loading[k];
        loaded[Element(1, 1)] += s.bin_loading[k];
        cmat2_inverse(loaded, loaded);

        cmat2_product(loaded, s.mvdr_column, s.mvdr_inv_col);
        cmat2_product(s.mvdr_row, loaded, s.mvdr_row_inv);
        cmat2_product(s.mvdr_row_inv, s.mvdr_column, s.mvdr_scalar);

        const float s_re = s.mvdr_scalar[0];
        const float s_im = s.mvdr_scalar[1];
        const float magnitude = s_re * s_re + s_im * s_im;
        for (int32_t m = 0; m < kMics; ++m) {
            const float u_re = s.mvdr_inv_col[Element(m, 0)];
            const float u_im = s.mvdr_inv_col[Element(m, 0) + 1];
            s.beam_weights[m][2 * k] = (u_re * s_re + u_im * s_im) / magnitude;
            s.beam_weights[m][2 * k + 1] = (u_re * s_im - u_im * s_re) / magnitude;
        }
    }
}
