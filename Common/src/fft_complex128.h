// 128-point complex forward DFT over four lanes, unscaled:
//   Y[k] = sum_n y[n] exp(-2 pi i k n / 128).
//
// Stockham form, 128 = 4 * 4 * 4 * 2: three radix-4 passes and one radix-2
// pass, each reading one array and writing another, so the output comes out
// in natural order without a bit-reversal pass. A pass with stride s keeps s
// independent sub-transforms side by side; from the second pass on s >= 4
// and the lanes run over them. The first pass (s = 1) runs its lanes over
// the butterfly index instead and interleaves its four outputs on the store.
//
// Work arrays hold the real and imaginary parts apart (128 floats each). The
// first pass reads through a source and the last writes through a sink, so
// the transform can start from or end in the caller's interleaved array.
// Only additions, subtractions and multiplications, never fused: the same
// bits on every target.
#pragma once

#include <cstdint>

#include "fft_twiddles.h"
#include "vector_lanes.h"

namespace kivbf::fft {

inline constexpr int32_t kComplexPoints = 128;

// Four complex values, one per lane.
struct Complex4 {
    float32x4_t re;
    float32x4_t im;
};

inline Complex4 Add(Complex4 a, Complex4 b) { return {vaddq_f32(a.re, b.re), vaddq_f32(a.im, b.im)}; }
inline Complex4 Sub(Complex4 a, Complex4 b) { return {vsubq_f32(a.re, b.re), vsubq_f32(a.im, b.im)}; }

inline Complex4 Mul(Complex4 a, Complex4 w) {
    return {vsubq_f32(vmulq_f32(a.re, w.re), vmulq_f32(a.im, w.im)),
            vaddq_f32(vmulq_f32(a.re, w.im), vmulq_f32(a.im, w.re))};
}

// a - i b and a + i b.
inline Complex4 SubTimesI(Complex4 a, Complex4 b) { return {vaddq_f32(a.re, b.im), vsubq_f32(a.im, b.re)}; }
inline Complex4 AddTimesI(Complex4 a, Complex4 b) { return {vsubq_f32(a.re, b.im), vaddq_f32(a.im, b.re)}; }

// Real and imaginary parts in two arrays. Swapping the two pointers swaps
// the parts, which turns the forward DFT into the inverse one:
// IDFT(y) = swap(DFT(swap(y))).
struct SplitArrays {
    float *re;
    float *im;

    Complex4 Load(int32_t i) const { return {vld1q_f32(re + i), vld1q_f32(im + i)}; }
    void Store(int32_t i, Complex4 v) const {
        vst1q_f32(re + i, v.re);
        vst1q_f32(im + i, v.im);
    }
};

// The caller's array of interleaved (re, im) pairs; with kSwapped each pair
// is read and written as (im, re), the interleaved twin of swapped pointers.
template <bool kSwapped>
struct InterleavedArray {
    float *pairs;

    Complex4 Load(int32_t i) const {
        const float32x4x2_t v = vld2q_f32(pairs + 2 * i);
        return kSwapped ? Complex4{v.val[1], v.val[0]} : Complex4{v.val[0], v.val[1]};
    }
    void Store(int32_t i, Complex4 v) const {
        float32x4x2_t pair;
        pair.val[0] = kSwapped ? v.im : v.re;
        pair.val[1] = kSwapped ? v.re : v.im;
        vst2q_f32(pairs + 2 * i, pair);
    }
};

// One radix-4 butterfly on a, b, c, d = x[p], x[p + m], x[p + 2m], x[p + 3m];
// out[r] = w^(r p) * sum_j x[p + j m] (-i)^(j r).
struct Radix4Outputs {
    Complex4 out[4];
};

template <bool kTwiddled>
inline Radix4Outputs Radix4Butterfly(Complex4 a, Complex4 b, Complex4 c, Complex4 d, const Complex4 *w) {
    const Complex4 ac_sum = Add(a, c), ac_diff = Sub(a, c);
    const Complex4 bd_sum = Add(b, d), bd_diff = Sub(b, d);
    Radix4Outputs y{{Add(ac_sum, bd_sum), SubTimesI(ac_diff, bd_diff), Sub(ac_sum, bd_sum),
                     AddTimesI(ac_diff, bd_diff)}};
    if constexpr (kTwiddled) {
        for (int32_t r = 1; r < 4; ++r) y.out[r] = Mul(y.out[r], w[r - 1]);
    }
    return y;
}

// First pass: 128 points, stride 1. Lanes run over p; output r of
// butterfly p goes to 4 p + r, which vst4q writes for four p at once.
template <typename Source>
inline void FirstRadix4Pass(const Source &x, SplitArrays y) {
    constexpr int32_t kQuarter = kComplexPoints / 4;
    const auto &tw = kPass128Twiddles;
    for (int32_t p = 0; p < kQuarter; p += lanes::kLanes) {
        Complex4 w[3];
        for (int32_t r = 0; r < 3; ++r) w[r] = {vld1q_f32(&tw.re[r][p]), vld1q_f32(&tw.im[r][p])};
        const Radix4Outputs out = Radix4Butterfly<true>(x.Load(p), x.Load(p + kQuarter),
                                                        x.Load(p + 2 * kQuarter), x.Load(p + 3 * kQuarter), w);
        float32x4x4_t re, im;
        for (int32_t r = 0; r < 4; ++r) {
            re.val[r] = out.out[r].re;
            im.val[r] = out.out[r].im;
        }
        vst4q_f32(y.re + 4 * p, re);
        vst4q_f32(y.im + 4 * p, im);
    }
}

// A middle pass over sub-transforms of kPoints points with stride kStride
// (kPoints * kStride = 128). Lanes run over q; the twiddles of butterfly p
// are the same in every lane. Butterfly 0 has unit twiddles and skips them.
template <int32_t kPoints, int32_t kStride, typename Twiddles>
inline void Radix4Pass(const Twiddles &tw, SplitArrays x, SplitArrays y) {
    static_assert(kPoints * kStride == kComplexPoints && kStride % lanes::kLanes == 0);
    constexpr int32_t kQuarter = kPoints / 4;
    for (int32_t p = 0; p < kQuarter; ++p) {
        Complex4 w[3];
        for (int32_t r = 0; r < 3; ++r) w[r] = {vdupq_n_f32(tw.re[r][p]), vdupq_n_f32(tw.im[r][p])};
        for (int32_t q = 0; q < kStride; q += lanes::kLanes) {
            const Complex4 a = x.Load(q + kStride * p);
            const Complex4 b = x.Load(q + kStride * (p + kQuarter));
            const Complex4 c = x.Load(q + kStride * (p + 2 * kQuarter));
            const Complex4 d = x.Load(q + kStride * (p + 3 * kQuarter));
            const Radix4Outputs out =
                p == 0 ? Radix4Butterfly<false>(a, b, c, d, w) : Radix4Butterfly<true>(a, b, c, d, w);
            for (int32_t r = 0; r < 4; ++r) y.Store(q + kStride * (4 * p + r), out.out[r]);
        }
    }
}

// Last pass: 2-point sub-transforms with stride 64, no twiddles.
template <typename Sink>
inline void LastRadix2Pass(SplitArrays x, const Sink &y) {
    constexpr int32_t kStride = kComplexPoints / 2;
    for (int32_t q = 0; q < kStride; q += lanes::kLanes) {
        const Complex4 a = x.Load(q);
        const Complex4 b = x.Load(q + kStride);
        y.Store(q, Add(a, b));
        y.Store(q + kStride, Sub(a, b));
    }
}

// The whole transform: x through the source, y through the sink, with the
// two work arrays a and b in between. The source is read only by the first
// pass and the sink written only by the last, so they may share memory.
template <typename Source, typename Sink>
inline void ForwardDft128(const Source &x, SplitArrays a, SplitArrays b, const Sink &y) {
    FirstRadix4Pass(x, a);
    Radix4Pass<32, 4>(kPass32Twiddles, a, b);
    Radix4Pass<8, 16>(kPass8Twiddles, b, a);
    LastRadix2Pass(a, y);
}

}  // namespace kivbf::fft
