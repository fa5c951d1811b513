// Noise spatial covariance and the adaptive MVDR weights built from it.
//
// Both stages keep each bin's 2 x 2 matrices in registers (complex_matrix.h,
// split form); the matrices that hold a vector in column 0 or row 0 spell out
// their zero entries, whose products take part in the sums exactly as they do
// in the 8-float functions.
#include <cmath>
#include <cstring>
#include <type_traits>

#include "math_functions.h"
#include "Beamformer_core.h"
#include "complex_matrix.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::lanes;

namespace {

constexpr uint16_t kRunningMeanUpdates = 13;  // plain mean over the first 13 snapshots
constexpr uint16_t kLastRunningMean = kRunningMeanUpdates - 1;
constexpr float kSlowForgetting = 1.0f / 12.0f;  // after the running mean
constexpr float kFastForgetting = 0.1f;          // Noise_estimation off

// Bins that run four at a time (Float4); the rest run one at a time in float.
// ARMv7 NEON flushes subnormal operands and results to zero, which its scalar
// unit does not, so there the lanes would not reproduce the float arithmetic
// and every bin runs in float.
#if defined(__ARM_NEON) && !defined(__aarch64__)
constexpr int32_t kLaneBins = 0;
#else
constexpr int32_t kLaneBins = LaneCount(kBins);
#endif

// Runs body(T(), k) with T = Float4 for bins 0 .. kLaneBins - 1 in groups of
// four and T = float for the rest.
template <typename Body>
void ForEachMvdrBin(Body &&body) {
    int32_t k = 0;
    for (; k < kLaneBins; k += kLanes) body(Float4(0.0f), k);
    for (; k < kBins; ++k) body(0.0f, k);
}

// Microphone m's snapshot of bin k, weighted by the microphone's noise share
// (1 - G) 256 unless the microphones are calibrated, where (1 - G) is applied
// later. The weight is exact in float (G lies in [0, 1]) and so is the product
// of two floats in double, which this product has always been rounded from:
// float arithmetic gives the same bits.
template <typename T>
Complex<T> Snapshot(const BfCoreState &s, int32_t m, int32_t k, bool calibrated) {
    T weight(kSpectrumScale);
    if (!calibrated) weight = (T(1.0f) - Load<T>(s.wiener_gain[m], k)) * T(kSpectrumScale);
    return Scale(LoadComplex<T>(s.mic_spectrum[m], k), weight);
}

// v = (v0, v1) in column 0, and v^H in row 0, of otherwise zero matrices.
template <typename T>
inline Cmat2Parts<T> ColumnMatrix(T v0_re, T v0_im, T v1_re, T v1_im) {
    const T zero(0.0f);
    return {{v0_re, zero, v1_re, zero}, {v0_im, zero, v1_im, zero}};
}

template <typename T>
inline Cmat2Parts<T> RowMatrix(T v0_re, T v0_im, T v1_re, T v1_im) {
    const T zero(0.0f);
    return {{v0_re, v1_re, zero, zero}, {-v0_im, -v1_im, zero, zero}};
}

// x x^H / trace(x x^H) of a snapshot x.
template <typename T>
inline Cmat2Parts<T> NormalisedSnapshot(T x0_re, T x0_im, T x1_re, T x1_im) {
    const Cmat2Parts<T> product = cmat2_parts_product(ColumnMatrix(x0_re, x0_im, x1_re, x1_im),
                                                      RowMatrix(x0_re, x0_im, x1_re, x1_im));
    return cmat2_parts_normalise(product, product.re.a00 + product.re.a11,
                                 product.im.a00 + product.im.a11);
}

// w = (u0, u1) / s with u = M^-1 d and s = d^H M^-1 d, M = Phi + loading.
template <typename T>
struct Weights {
    T re[kMics];
    T im[kMics];
};

template <typename T>
inline Weights<T> MvdrWeights(const Cmat2Parts<T> &phi, T loading, T c0, T s0, T c1, T s1) {
    const Cmat2Parts<T> column = ColumnMatrix(c0, s0, c1, s1);
    const Cmat2Parts<T> row = RowMatrix(c0, s0, c1, s1);
    const Cmat2Parts<T> loaded = {{phi.re.a00 + loading, phi.re.a01, phi.re.a10, phi.re.a11 + loading},
                                  phi.im};
    const Cmat2Parts<T> inverse = cmat2_parts_inverse(loaded);
    // Only column 0 of M^-1 d, row 0 of d^H M^-1 and element (0, 0) of the
    // scalar are read.
    const Cmat2Parts<T> inv_col = cmat2_parts_product(inverse, column);
    const Cmat2Parts<T> scalar = cmat2_parts_product(cmat2_parts_product(row, inverse), column);

    const T s_re = scalar.re.a00;
    const T s_im = scalar.im.a00;
    const T magnitude = s_re * s_re + s_im * s_im;
    const T u_re[kMics] = {inv_col.re.a00, inv_col.re.a10};
    const T u_im[kMics] = {inv_col.im.a00, inv_col.im.a10};
    Weights<T> w;
    for (int32_t m = 0; m < kMics; ++m) {
        w.re[m] = ExactQuotient(u_re[m] * s_re + u_im[m] * s_im, magnitude);
        w.im[m] = ExactQuotient(u_re[m] * s_im - u_im[m] * s_re, magnitude);
    }
    return w;
}

using Covariance = float[kCmat2Floats][kBins];

// Phi of bin k (and the three after it) in split form.
template <typename T>
Cmat2Parts<T> LoadPhi(const Covariance &phi, int32_t k) {
    const auto e = [&](int32_t element) { return Load<T>(phi[element], k); };
    return {{e(0), e(2), e(4), e(6)}, {e(1), e(3), e(5), e(7)}};
}

// Phi of bins k .. k + 3: element e of the four bins in lanes[e].
struct PhiLanes {
    float32x4_t lanes[kCmat2Floats];
};

PhiLanes LanesOf(const Cmat2Parts<Float4> &m) {
    return {{m.re.a00.v, m.im.a00.v, m.re.a01.v, m.im.a01.v, m.re.a10.v, m.im.a10.v, m.re.a11.v,
             m.im.a11.v}};
}

// The steering vector d per bin depends on the delays alone (the bin
// frequencies are fixed at Init), so it is rebuilt only when they change. The
// delays are compared bit for bit: +0 and -0 give vectors that differ in the
// sign of a zero.
void UpdateSteering(BfCoreState &s) {
    if (s.mvdr_steering_built == 1 &&
        std::memcmp(s.mvdr_steering_delay, s.steer_delay, sizeof s.steer_delay) == 0)
        return;
    for (int32_t k = 0; k < kBins; ++k) {
        for (int32_t m = 0; m < kMics; ++m) {
            const double phase = s.bin_frequency[k] * s.steer_delay[m];
            s.mvdr_steering[2 * m][k] = static_cast<float>(math::Cos(phase));
            s.mvdr_steering[2 * m + 1][k] = static_cast<float>(math::Sin(phase));
        }
    }
    std::memcpy(s.mvdr_steering_delay, s.steer_delay, sizeof s.steer_delay);
    s.mvdr_steering_built = 1;
}

// How this block's normalised snapshot N enters Phi. Each form is the
// sequence of element-wise kernel passes over a matrix's 8 floats (two full
// lane groups) that defines it, so it runs in lanes.
enum class Averaging { kRunningMean, kForgetting, kFirst };

struct BlockAveraging {
    Averaging form;
    float alpha;          // forgetting: alpha N + (1 - alpha) Phi
    float count;          // running mean: (count Phi + N) / (count + 1)
    float inverse_count;  // 1 / (count + 1)
};

BlockAveraging AveragingOf(const BfCoreState &s) {
    const uint16_t n = s.cov_counter;
    if (s.Noise_estimation != 0) {
        if (n > kLastRunningMean) return {Averaging::kForgetting, kSlowForgetting, 0.0f, 0.0f};
        return {Averaging::kRunningMean, 0.0f, static_cast<float>(n),
                1.0f / static_cast<float>(n + 1)};
    }
    if (n != 0) return {Averaging::kForgetting, kFastForgetting, 0.0f, 0.0f};
    return {Averaging::kFirst, 0.0f, 0.0f, 0.0f};
}

// Phi = Average(N, Phi) for one vector of 4 elements, then subnormal
// elements flushed: an element that the snapshots stop feeding (the
// imaginary parts while both microphones see the same phase) only shrinks
// under the forgetting; once subnormal it never reaches zero (0.9 times the
// smallest subnormal rounds back to it) and slows every later block on cores
// without flush-to-zero. The form is a template argument so that the lanes'
// element loop runs without a branch and in registers.
template <Averaging form>
[[gnu::always_inline]] inline float32x4_t AverageAndFlush(float32x4_t normalised, float32x4_t phi,
                                                          const BlockAveraging &a) {
    if constexpr (form == Averaging::kForgetting)
        phi = vaddq_f32(vmulq_n_f32(normalised, a.alpha), vmulq_n_f32(phi, 1.0f - a.alpha));
    else if constexpr (form == Averaging::kRunningMean)
        phi = vmulq_n_f32(vaddq_f32(vmulq_n_f32(phi, a.count), normalised), a.inverse_count);
    else
        phi = normalised;
    return FlushDenormal(phi);
}

template <Averaging form>
void CovarianceOneBin(BfCoreState &s, int32_t k, bool calibrated, const BlockAveraging &averaging) {
    const Complex<float> x0 = Snapshot<float>(s, 0, k, calibrated);
    const Complex<float> x1 = Snapshot<float>(s, 1, k, calibrated);
    const Cmat2Parts<float> n = NormalisedSnapshot(x0.re, x0.im, x1.re, x1.im);
    const float row0[4] = {n.re.a00, n.im.a00, n.re.a01, n.im.a01};
    const float row1[4] = {n.re.a10, n.im.a10, n.re.a11, n.im.a11};
    float32x4_t normalised[2] = {vld1q_f32(row0), vld1q_f32(row1)};
    if (calibrated) {
        const float noise_share = 1.0f - s.wiener_gain[0][k];
        for (float32x4_t &half : normalised) half = vmulq_n_f32(half, noise_share);
    }
    float phi[kCmat2Floats];
    for (int32_t e = 0; e < kCmat2Floats; ++e) phi[e] = s.noise_covariance[e][k];
    vst1q_f32(phi, AverageAndFlush<form>(normalised[0], vld1q_f32(phi), averaging));
    vst1q_f32(phi + 4, AverageAndFlush<form>(normalised[1], vld1q_f32(phi + 4), averaging));
    for (int32_t e = 0; e < kCmat2Floats; ++e) s.noise_covariance[e][k] = phi[e];
}

template <Averaging form>
void CovarianceFourBins(BfCoreState &s, int32_t k, bool calibrated, const BlockAveraging &averaging) {
    const Complex<Float4> x0 = Snapshot<Float4>(s, 0, k, calibrated);
    const Complex<Float4> x1 = Snapshot<Float4>(s, 1, k, calibrated);
    PhiLanes normalised = LanesOf(NormalisedSnapshot(x0.re, x0.im, x1.re, x1.im));
    if (calibrated) {
        const float32x4_t noise_share = vsubq_f32(vdupq_n_f32(1.0f), vld1q_f32(s.wiener_gain[0] + k));
        for (float32x4_t &lane : normalised.lanes) lane = vmulq_f32(lane, noise_share);
    }
#pragma GCC unroll 8
    for (int32_t e = 0; e < kCmat2Floats; ++e) {
        float *phi = s.noise_covariance[e] + k;
        vst1q_f32(phi, AverageAndFlush<form>(normalised.lanes[e], vld1q_f32(phi), averaging));
    }
}

template <Averaging form>
void UpdateCovariance(BfCoreState &s, bool calibrated, const BlockAveraging &averaging) {
    ForEachMvdrBin([&](auto element, int32_t k) {
        if constexpr (std::is_same_v<decltype(element), float>)
            CovarianceOneBin<form>(s, k, calibrated, averaging);
        else
            CovarianceFourBins<form>(s, k, calibrated, averaging);
    });
}

}  // namespace

// Phi[k]: average of unit-trace snapshots x x^H / |x|^2, so that it holds the
// spatial structure of the noise and not its level.
void Bf_NoiseCovarianceUpdate(BfCoreState &s) {
    const bool calibrated = s.calibration_flag == 1;
    const BlockAveraging averaging = AveragingOf(s);
    switch (averaging.form) {
        case Averaging::kForgetting: UpdateCovariance<Averaging::kForgetting>(s, calibrated, averaging); break;
        case Averaging::kRunningMean: UpdateCovariance<Averaging::kRunningMean>(s, calibrated, averaging); break;
        case Averaging::kFirst: UpdateCovariance<Averaging::kFirst>(s, calibrated, averaging); break;
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
    UpdateSteering(s);
    ForEachMvdrBin([&](auto element, int32_t k) {
        using T = decltype(element);
        const auto d = [&](int32_t row) { return Load<T>(s.mvdr_steering[row], k); };
        const Weights<T> w =
            MvdrWeights(LoadPhi<T>(s.noise_covariance, k), Load<T>(s.bin_loading, k), d(0), d(1), d(2), d(3));
        for (int32_t m = 0; m < kMics; ++m) StoreComplex(s.beam_weights[m], k, Complex<T>{w.re[m], w.im[m]});
    });
}
