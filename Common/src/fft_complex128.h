// 128-point complex forward DFT over four lanes, unscaled:
//   Y[k] = sum_n y[n] exp(-2 pi i k n / 128).
//
// Stockham form, 128 = 4 * 4 * 4 * 2: three radix-4 passes and one radix-2
// pass, each reading one array and writing another, so the output comes out
// in natural order without a bit-reversal pass. A pass with stride s keeps s
// independent sub-transforms side by side; from the second pass on s >= 4
// and the lanes run over them. The first pass (s = 1) runs its lanes over
// the butterfly index instead and transposes its four outputs on the store.
// The last radix-4 pass and the radix-2 pass run as one radix-8 pass in
// registers: the same operations on the same values, one store and load of
// the whole array fewer.
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

// One radix-4 butterfly on a, b, c, d = x[p], x[p + m], x[p + 2m], x[p + 3m]:
// y_r = w^(r p) * sum_j x[p + j m] (-i)^(j r). Written out without loops or
// arrays, so that the compiler keeps every value in a register.
struct Radix4Outputs {
    Complex4 y0, y1, y2, y3;
};

// w^p, w^(2p), w^(3p).
struct Radix4Twiddles4 {
    Complex4 w1, w2, w3;
};

inline Radix4Outputs Radix4Butterfly(Complex4 a, Complex4 b, Complex4 c, Complex4 d) {
    const Complex4 ac_sum = Add(a, c), ac_diff = Sub(a, c);
    const Complex4 bd_sum = Add(b, d), bd_diff = Sub(b, d);
    return {Add(ac_sum, bd_sum), SubTimesI(ac_diff, bd_diff), Sub(ac_sum, bd_sum), AddTimesI(ac_diff, bd_diff)};
}

inline Radix4Outputs Radix4Butterfly(Complex4 a, Complex4 b, Complex4 c, Complex4 d, const Radix4Twiddles4 &w) {
    const Radix4Outputs y = Radix4Butterfly(a, b, c, d);
    return {y.y0, Mul(y.y1, w.w1), Mul(y.y2, w.w2), Mul(y.y3, w.w3)};
}

// Rows r0..r3 stored as columns: out[4 j + r] = row r, lane j. Zips rather
// than vst4q, which SIMDe can only emulate lane by lane on x86.
inline void StoreTransposed(float *out, float32x4_t r0, float32x4_t r1, float32x4_t r2, float32x4_t r3) {
    const float32x4x2_t even = vzipq_f32(r0, r2);  // r0[0] r2[0] r0[1] r2[1] | r0[2] r2[2] r0[3] r2[3]
    const float32x4x2_t odd = vzipq_f32(r1, r3);
    const float32x4x2_t low = vzipq_f32(even.val[0], odd.val[0]);
    const float32x4x2_t high = vzipq_f32(even.val[1], odd.val[1]);
    vst1q_f32(out, low.val[0]);
    vst1q_f32(out + 4, low.val[1]);
    vst1q_f32(out + 8, high.val[0]);
    vst1q_f32(out + 12, high.val[1]);
}

// First pass: 128 points, stride 1. Lanes run over p; output r of
// butterfly p goes to 4 p + r, a 4 x 4 transpose for four p at once.
template <typename Source>
inline void FirstRadix4Pass(const Source &x, SplitArrays y) {
    constexpr int32_t kQuarter = kComplexPoints / 4;
    const auto &tw = kPass128Twiddles;
    for (int32_t p = 0; p < kQuarter; p += lanes::kLanes) {
        const Radix4Twiddles4 w{{vld1q_f32(&tw.re[0][p]), vld1q_f32(&tw.im[0][p])},
                                {vld1q_f32(&tw.re[1][p]), vld1q_f32(&tw.im[1][p])},
                                {vld1q_f32(&tw.re[2][p]), vld1q_f32(&tw.im[2][p])}};
        const Radix4Outputs out = Radix4Butterfly(x.Load(p), x.Load(p + kQuarter), x.Load(p + 2 * kQuarter),
                                                  x.Load(p + 3 * kQuarter), w);
        StoreTransposed(y.re + 4 * p, out.y0.re, out.y1.re, out.y2.re, out.y3.re);
        StoreTransposed(y.im + 4 * p, out.y0.im, out.y1.im, out.y2.im, out.y3.im);
    }
}

// Butterfly p's twiddles in every lane, from a table of repeated values.
template <typename Table>
inline Radix4Twiddles4 LaneTwiddles(const Table &table, int32_t p) {
    const auto &w = table.lanes[p];
    return {{vld1q_f32(w[0].data()), vld1q_f32(w[1].data())},
            {vld1q_f32(w[2].data()), vld1q_f32(w[3].data())},
            {vld1q_f32(w[4].data()), vld1q_f32(w[5].data())}};
}

// Second pass: 32-point sub-transforms with stride 4, one lane group per
// butterfly p; butterfly 0 has unit twiddles and skips them.
inline void SecondRadix4Pass(SplitArrays x, SplitArrays y) {
    constexpr int32_t kStride = 4;
    constexpr int32_t kQuarter = kComplexPoints / kStride / 4;
    for (int32_t p = 0; p < kQuarter; ++p) {
        const Complex4 a = x.Load(kStride * p);
        const Complex4 b = x.Load(kStride * (p + kQuarter));
        const Complex4 c = x.Load(kStride * (p + 2 * kQuarter));
        const Complex4 d = x.Load(kStride * (p + 3 * kQuarter));
        const Radix4Outputs out =
            p == 0 ? Radix4Butterfly(a, b, c, d) : Radix4Butterfly(a, b, c, d, LaneTwiddles(kPass32LaneTwiddles, p));
        y.Store(kStride * 4 * p, out.y0);
        y.Store(kStride * (4 * p + 1), out.y1);
        y.Store(kStride * (4 * p + 2), out.y2);
        y.Store(kStride * (4 * p + 3), out.y3);
    }
}

// Last two passes in one: the radix-4 pass over 8-point sub-transforms with
// stride 16 (butterflies p = 0 and p = 1 of each q) and the radix-2 pass
// with stride 64, which pairs output r of butterfly 0 (at q + 16 r) with
// output r of butterfly 1 (at q + 16 r + 64).
template <typename Sink>
inline void LastRadix8Pass(SplitArrays x, const Sink &y) {
    constexpr int32_t kStride = 16;
    constexpr int32_t kHalf = kComplexPoints / 2;
    const Radix4Twiddles4 w = LaneTwiddles(kPass8LaneTwiddles, 1);
    for (int32_t q = 0; q < kStride; q += lanes::kLanes) {
        const Radix4Outputs even =
            Radix4Butterfly(x.Load(q), x.Load(q + 2 * kStride), x.Load(q + 4 * kStride), x.Load(q + 6 * kStride));
        const Radix4Outputs odd = Radix4Butterfly(x.Load(q + kStride), x.Load(q + 3 * kStride),
                                                  x.Load(q + 5 * kStride), x.Load(q + 7 * kStride), w);
        y.Store(q, Add(even.y0, odd.y0));
        y.Store(q + kHalf, Sub(even.y0, odd.y0));
        y.Store(q + kStride, Add(even.y1, odd.y1));
        y.Store(q + kStride + kHalf, Sub(even.y1, odd.y1));
        y.Store(q + 2 * kStride, Add(even.y2, odd.y2));
        y.Store(q + 2 * kStride + kHalf, Sub(even.y2, odd.y2));
        y.Store(q + 3 * kStride, Add(even.y3, odd.y3));
        y.Store(q + 3 * kStride + kHalf, Sub(even.y3, odd.y3));
    }
}

// The whole transform: x through the source, y through the sink, with the
// two work arrays a and b in between. The source is read only by the first
// pass and the sink written only by the last, so they may share memory.
template <typename Source, typename Sink>
inline void ForwardDft128(const Source &x, SplitArrays a, SplitArrays b, const Sink &y) {
    FirstRadix4Pass(x, a);
    SecondRadix4Pass(a, b);
    LastRadix8Pass(b, y);
}

}  // namespace kivbf::fft
