// The library's own elementary functions. glibc picks CPU-specific variants
// of exp, sin, cos and log at run time, and arm64 builds of it use fused
// multiply-adds, so their last bits depend on the machine; these use only
// IEEE additions, multiplications and divisions in a fixed order (the build
// forbids contraction), and give the same bits everywhere.
//
// Float functions come as one body over the element type: a float and four
// float lanes run the very same operations, so a stage may use either and
// get identical bits. Their results never go subnormal (a result below
// FLT_MIN is 0): ARMv7's NEON would flush it while its scalar unit would not.
//
// Bounds, measured against long double over dense sweeps (tests/test_math.cpp
// checks them; worst seen in brackets):
//   ExpF     <= 1 ULP for results >= FLT_MIN (0.99)
//   LogF     <= 1 ULP for normal positive x (0.83)
//   Exp      <= 1 ULP (0.85)
//   Sin, Cos <= 1 ULP for |x| <= 2^20 (0.77); larger arguments are brought
//               down in coarse steps: finite and repeatable, not accurate
//   Atan     <= 2 ULP (1.6)
#pragma once

#if defined(__ARM_NEON)
#include <arm_neon.h>
#else
#include <simde/arm/neon.h>
#endif

#include <bit>
#include <cfloat>
#include <cstdint>
#include <limits>

#include "arm_estimates.h"

namespace kivbf::math {

namespace element {

// The handful of operations the float bodies need, for a float and for four
// lanes. Each pair computes the same IEEE operation.
inline float Splat(float c, float) { return c; }
inline float32x4_t Splat(float c, float32x4_t) { return vdupq_n_f32(c); }
inline float Add(float a, float b) { return a + b; }
inline float32x4_t Add(float32x4_t a, float32x4_t b) { return vaddq_f32(a, b); }
inline float Sub(float a, float b) { return a - b; }
inline float32x4_t Sub(float32x4_t a, float32x4_t b) { return vsubq_f32(a, b); }
inline float Mul(float a, float b) { return a * b; }
inline float32x4_t Mul(float32x4_t a, float32x4_t b) { return vmulq_f32(a, b); }
inline float Div(float a, float b) { return a / b; }
inline float32x4_t Div(float32x4_t a, float32x4_t b) { return estimates::Divide(a, b); }

// Masks: all ones where true.
inline uint32_t Less(float a, float b) { return a < b ? ~0u : 0u; }
inline uint32x4_t Less(float32x4_t a, float32x4_t b) { return vcltq_f32(a, b); }
inline uint32_t IsNaN(float a) { return a != a ? ~0u : 0u; }
inline uint32x4_t IsNaN(float32x4_t a) { return vmvnq_u32(vceqq_f32(a, a)); }
inline uint32_t Or(uint32_t a, uint32_t b) { return a | b; }
inline uint32x4_t Or(uint32x4_t a, uint32x4_t b) { return vorrq_u32(a, b); }
inline float Select(uint32_t mask, float yes, float no) { return mask != 0 ? yes : no; }
inline float32x4_t Select(uint32x4_t mask, float32x4_t yes, float32x4_t no) {
    return vbslq_f32(mask, yes, no);
}

// Integer view of the bits, and whole-number floats (|x| < 2^31) as integers.
inline int32_t ToInt(float a) { return static_cast<int32_t>(a); }
inline int32x4_t ToInt(float32x4_t a) { return vcvtq_s32_f32(a); }
inline float FromBits(int32_t bits) { return std::bit_cast<float>(bits); }
inline float32x4_t FromBits(int32x4_t bits) { return vreinterpretq_f32_s32(bits); }
inline int32_t Bits(float a) { return std::bit_cast<int32_t>(a); }
inline int32x4_t Bits(float32x4_t a) { return vreinterpretq_s32_f32(a); }
inline int32_t ToFloatExponentBits(int32_t e) { return (e + 127) << 23; }
inline int32x4_t ToFloatExponentBits(int32x4_t e) {
    return vshlq_n_s32(vaddq_s32(e, vdupq_n_s32(127)), 23);
}
inline int32_t HalfDown(int32_t k) { return k >> 1; }
inline int32x4_t HalfDown(int32x4_t k) { return vshrq_n_s32(k, 1); }
inline int32_t IntSub(int32_t a, int32_t b) { return a - b; }
inline int32x4_t IntSub(int32x4_t a, int32x4_t b) { return vsubq_s32(a, b); }
inline float IntToFloat(int32_t a) { return static_cast<float>(a); }
inline float32x4_t IntToFloat(int32x4_t a) { return vcvtq_f32_s32(a); }
inline int32_t IntSplat(int32_t c, int32_t) { return c; }
inline int32x4_t IntSplat(int32_t c, int32x4_t) { return vdupq_n_s32(c); }
inline int32_t IntAnd(int32_t a, int32_t b) { return a & b; }
inline int32x4_t IntAnd(int32x4_t a, int32x4_t b) { return vandq_s32(a, b); }
inline int32_t IntOr(int32_t a, int32_t b) { return a | b; }
inline int32x4_t IntOr(int32x4_t a, int32x4_t b) { return vorrq_s32(a, b); }
inline int32_t ShiftRight23(int32_t a) { return a >> 23; }
inline int32x4_t ShiftRight23(int32x4_t a) { return vshrq_n_s32(a, 23); }
inline uint32_t IntGreater(int32_t a, int32_t b) { return a > b ? ~0u : 0u; }
inline uint32x4_t IntGreater(int32x4_t a, int32x4_t b) { return vcgtq_s32(a, b); }
inline int32_t IntSelect(uint32_t mask, int32_t yes, int32_t no) { return mask != 0 ? yes : no; }
inline int32x4_t IntSelect(uint32x4_t mask, int32x4_t yes, int32x4_t no) {
    return vbslq_s32(mask, yes, no);
}

template <typename T>
using IntOf = decltype(ToInt(T{}));

}  // namespace element

// e^x: x = k ln2 + r with |r| <= ln2 / 2 (ln2 in two parts, so k ln2 is exact),
// e^r = 1 + (r + r^2 q(r)) with q the Taylor polynomial to r^7 / 7! (the one
// is added last, so only that sum rounds at full weight), then 2^k applied in
// two halves so that neither factor leaves the normal range.
template <typename T>
inline T ExpF(T x) {
    using namespace element;
    constexpr float kLog2E = 1.44269502f;
    constexpr float kLn2High = 0.693145751953125f;  // 16 bits: k * kLn2High is exact
    constexpr float kLn2Low = 1.42860677e-06f;
    constexpr float kRoundMagic = 12582912.0f;      // 1.5 * 2^23: adding it rounds to an integer
    constexpr float kLargest = 88.7228394f;         // above: overflow
    constexpr float kSmallest = -87.3365479f;       // below: under FLT_MIN, so 0
    constexpr float kTaylor[] = {1.0f / 5040, 1.0f / 720, 1.0f / 120, 1.0f / 24, 1.0f / 6, 0.5f};
    const auto nan = IsNaN(x);
    const auto below = Less(x, Splat(kSmallest, x));
    const auto above = Less(Splat(kLargest, x), x);
    // Out-of-range and NaN inputs are replaced before the integer conversion.
    const T bounded = Select(Or(Or(below, above), nan), Splat(0.0f, x), x);

    const T shifted = Add(Mul(bounded, Splat(kLog2E, x)), Splat(kRoundMagic, x));
    const T k = Sub(shifted, Splat(kRoundMagic, x));
    const T r = Sub(Sub(bounded, Mul(k, Splat(kLn2High, x))), Mul(k, Splat(kLn2Low, x)));
    T q = Splat(kTaylor[0], x);
#pragma GCC unroll 8
    for (int32_t i = 1; i < 6; ++i) q = Add(Mul(q, r), Splat(kTaylor[i], x));
    const T p = Add(Splat(1.0f, x), Add(r, Mul(Mul(r, r), q)));

    // k as an integer: the shifted sum's units are ones (|k| <= 128 is far
    // below 2^22), so its bits are those of the magic number plus k. This
    // spares the float-to-integer conversion, which SIMDe saturates lane by
    // lane as NEON does.
    const auto k_int = IntSub(Bits(shifted), IntSplat(std::bit_cast<int32_t>(kRoundMagic), Bits(shifted)));
    const auto half = HalfDown(k_int);
    T y = Mul(Mul(p, FromBits(ToFloatExponentBits(half))),
              FromBits(ToFloatExponentBits(IntSub(k_int, half))));
    y = Select(Less(y, Splat(FLT_MIN, x)), Splat(0.0f, x), y);
    y = Select(below, Splat(0.0f, x), y);
    y = Select(above, Splat(std::numeric_limits<float>::infinity(), x), y);
    return Select(nan, x, y);
}

// ln x: x = m 2^e with m in [sqrt(1/2), sqrt(2)), f = m - 1 (exact), then
// ln m = 2 atanh(s), s = f / (2 + f), written as f - (f^2/2 - s (f^2/2 + R))
// with R = 2 s^3/3 + 2 s^5/5 + ... over s, so that the rounded parts are the
// small corrections and f itself enters exactly.
// Zero gives -inf, negative gives NaN, +inf gives +inf; a subnormal counts
// as zero, as NEON's flush-to-zero would have it.
template <typename T>
inline T LogF(T x) {
    using namespace element;
    constexpr float kLn2High = 0.693145751953125f;
    constexpr float kLn2Low = 1.42860677e-06f;
    constexpr int32_t kSqrtHalfBits = 0x3F3504F3;  // float(sqrt(1/2))
    constexpr float kSeries[] = {2.0f / 11, 2.0f / 9, 2.0f / 7, 2.0f / 5, 2.0f / 3};
    const auto nan = IsNaN(x);
    const auto tiny = Less(x, Splat(FLT_MIN, x));
    const auto negative = Less(x, Splat(0.0f, x));
    const auto infinite = Less(Splat(FLT_MAX, x), x);
    const T bounded = Select(Or(Or(tiny, infinite), nan), Splat(1.0f, x), x);

    // 1.f 2^E becomes m 2^e: m = 1.f, e = E below sqrt(2), else m = 1.f / 2, e = E + 1.
    const auto bits = Bits(bounded);
    const auto mantissa_bits = IntAnd(bits, IntSplat(0x007FFFFF, bits));
    const auto low = IntGreater(IntSplat(kSqrtHalfBits & 0x007FFFFF, bits), mantissa_bits);
    const auto exponent = IntSub(IntSub(ShiftRight23(bits), IntSplat(127, bits)),
                                 IntSelect(low, IntSplat(0, bits), IntSplat(-1, bits)));
    const auto mantissa_exponent = IntSelect(low, IntSplat(127 << 23, bits), IntSplat(126 << 23, bits));
    const T m = FromBits(IntOr(mantissa_bits, mantissa_exponent));

    const T f = Sub(m, Splat(1.0f, x));
    const T s = Div(f, Add(Splat(2.0f, x), f));
    const T z = Mul(s, s);
    T series = Splat(kSeries[0], x);
#pragma GCC unroll 8
    for (int32_t i = 1; i < 5; ++i) series = Add(Mul(series, z), Splat(kSeries[i], x));
    const T r = Mul(z, series);
    const T half_f2 = Mul(Mul(Splat(0.5f, x), f), f);
    const T e = IntToFloat(exponent);
    const T correction = Add(Mul(s, Add(half_f2, r)), Mul(e, Splat(kLn2Low, x)));
    T y = Sub(Mul(e, Splat(kLn2High, x)), Sub(Sub(half_f2, correction), f));
    y = Select(infinite, Splat(std::numeric_limits<float>::infinity(), x), y);
    y = Select(tiny, Splat(-std::numeric_limits<float>::infinity(), x), y);
    y = Select(negative, Splat(std::numeric_limits<float>::quiet_NaN(), x), y);
    return Select(nan, x, y);
}

// e^x in place over an array, four lanes at a time: the same bits as one
// value at a time.
inline void ExpFInPlace(float *values, int32_t count) {
    int32_t i = 0;
    for (; i + 4 <= count; i += 4) vst1q_f32(values + i, ExpF(vld1q_f32(values + i)));
    for (; i < count; ++i) values[i] = ExpF(values[i]);
}

// Double precision, scalar only (the per-bin paths are float).
double Exp(double x);
double Sin(double x);
double Cos(double x);
double Atan(double x);

}  // namespace kivbf::math
