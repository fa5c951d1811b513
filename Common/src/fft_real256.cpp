// Split step between the 128-point complex spectrum Z of z[n] = x[2n] +
// i x[2n+1] and the 256-point real spectrum X (factors in fft_twiddles.h).
// Lanes run over k; the mirrored partner 128 - k is loaded four at a time
// and its lanes reversed.
#include "fft_real256.h"

#include "fft_complex128.h"
#include "fft_twiddles.h"
#include "vector_lanes.h"

namespace kivbf::fft {

namespace {

constexpr int32_t kHalf = kRealPoints / 2;  // 128
constexpr int32_t kHalfStride = kHalf + 1;  // Z[128] repeats Z[0]

// Swapping the pairs and then the halves; SIMDe makes one shuffle of it.
inline float32x4_t ReverseLanes(float32x4_t v) {
    const float32x4_t pairs_swapped = vrev64q_f32(v);
    return vextq_f32(pairs_swapped, pairs_swapped, 2);
}

// Values at 128 - k for k = k0 .. k0 + 3: lane j holds index 128 - k0 - j.
template <typename Array>
inline Complex4 LoadMirrored(const Array &array, int32_t k0) {
    const Complex4 v = array.Load(kHalf - k0 - (lanes::kLanes - 1));
    return {ReverseLanes(v.re), ReverseLanes(v.im)};
}

inline Complex4 Twiddles(const SplitTwiddles &table, int32_t k0) {
    return {vld1q_f32(&table.re[k0]), vld1q_f32(&table.im[k0])};
}

// A = v + conj(mirror), B = v - conj(mirror).
inline Complex4 SumWithConjugate(Complex4 v, Complex4 mirror) {
    return {vaddq_f32(v.re, mirror.re), vsubq_f32(v.im, mirror.im)};
}
inline Complex4 DifferenceWithConjugate(Complex4 v, Complex4 mirror) {
    return {vsubq_f32(v.re, mirror.re), vaddq_f32(v.im, mirror.im)};
}

inline Complex4 Scale(Complex4 v, float factor) {
    const float32x4_t f = vdupq_n_f32(factor);
    return {vmulq_f32(v.re, f), vmulq_f32(v.im, f)};
}

SplitArrays HalfSpectrum(float *half_spectrum) { return {half_spectrum, half_spectrum + kHalfStride}; }
SplitArrays WorkArray(float *work, int32_t which) {
    float *base = work + which * 2 * kComplexPoints;
    return {base, base + kComplexPoints};
}

}  // namespace

void RealForward256(float *data, float *half_spectrum, float *work) {
    const SplitArrays z = HalfSpectrum(half_spectrum);
    ForwardDft128(InterleavedArray<false>{data}, WorkArray(work, 0), WorkArray(work, 1), z);
    z.re[kHalf] = z.re[0];
    z.im[kHalf] = z.im[0];

    // X[k] = A / 2 + T B for k < 128.
    const InterleavedArray<false> x{data};
    for (int32_t k0 = 0; k0 < kHalf; k0 += lanes::kLanes) {
        const Complex4 v = z.Load(k0);
        const Complex4 mirror = LoadMirrored(z, k0);
        const Complex4 sum = SumWithConjugate(v, mirror);
        const Complex4 difference = DifferenceWithConjugate(v, mirror);
        x.Store(k0, Add(Scale(sum, 0.5f), Mul(difference, Twiddles(kForwardSplitTwiddles, k0))));
    }
    data[1] = 0.0f;
    data[kRealPoints] = z.re[0] - z.im[0];
    data[kRealPoints + 1] = 0.0f;
}

// The inverse's first pass reads Z[k] / 128 = A / 256 + U B (k < 128)
// straight from the caller's spectrum, parts swapped: the inverse DFT is the
// forward one on swapped parts. Each group of k is loaded once; the first
// pairs bin 0 with bin 128, whose imaginary parts do not count.
struct InverseSplitSource {
    InterleavedArray<false> x;

    Complex4 Load(int32_t k0) const {
        Complex4 v = x.Load(k0);
        Complex4 mirror = LoadMirrored(x, k0);
        if (k0 == 0) {
            v.im = vsetq_lane_f32(0.0f, v.im, 0);
            mirror.im = vsetq_lane_f32(0.0f, mirror.im, 0);
        }
        const Complex4 sum = SumWithConjugate(v, mirror);
        const Complex4 difference = DifferenceWithConjugate(v, mirror);
        const Complex4 z = Add(Scale(sum, 1.0f / 256.0f), Mul(difference, Twiddles(kInverseSplitTwiddles, k0)));
        return {z.im, z.re};
    }
};

void RealInverse256(float *data, float *work) {
    // The first pass reads all of data before the last one writes the
    // samples, which come out as the pairs' (re, im).
    ForwardDft128(InverseSplitSource{{data}}, WorkArray(work, 0), WorkArray(work, 1), InterleavedArray<true>{data});
    data[kRealPoints] = 0.0f;
    data[kRealPoints + 1] = 0.0f;
}

}  // namespace kivbf::fft
