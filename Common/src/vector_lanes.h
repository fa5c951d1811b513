// Four-lane building blocks, and the one vocabulary in which per-bin stages
// are written once over their element type.
//
// The lanes/last-bin rule: a per-bin stage runs bins 0..127 in groups of four
// lanes (Float4) and bin 128 on its own (float), through one template body
// (ForEachBin). Both instances apply the same IEEE operations in the same
// order; they differ only where lanes and scalars differ by nature, and there
// the body names the operation and each element type supplies its form:
//   Quotient     refined reciprocal estimate times a in lanes, IEEE a / b on
//                the last bin (denormal divisors count as zero in both)
//   SquareRoot   refined reciprocal-root estimate in lanes, IEEE sqrt on the
//                last bin
//   Max, Min     NaN in, NaN out in both, as NEON's max and min have it
//   AtLeast      Max against a constant floor
//   AtMost       Min against a constant ceiling
// ExactQuotient is IEEE division in both, for stages whose quotients have
// always been exact. A fused loop thus gives the bits of the element-wise
// kernels it replaces, and which bins take which path is part of the result.
#pragma once

#if defined(__ARM_NEON)
#include <arm_neon.h>
#else
#include <simde/arm/neon.h>
#endif

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>

#include "arm_estimates.h"

namespace kivbf::lanes {

inline constexpr int32_t kLanes = 4;

// Calls lanes(i) for i = 0, 4, 8, ... while four indices remain below count,
// then tail(i) for each index left. Indices count elements or, for complex
// arrays, bins.
template <typename Lanes, typename Tail>
inline void ForEachLaneGroup(int32_t count, Lanes &&lanes, Tail &&tail) {
    int32_t i = 0;
    for (; i + kLanes <= count; i += kLanes) lanes(i);
    for (; i < count; ++i) tail(i);
}

// How many of `count` indices ForEachLaneGroup hands to the lanes; the rest
// go to the tail.
constexpr int32_t LaneCount(int32_t count) { return count - count % kLanes; }

// Denormal divisors and radicands count as zero of the same sign, as they do
// on NEON's flush-to-zero estimate instructions.
inline float FlushDenormal(float x) {
    return std::fabs(x) < FLT_MIN ? std::copysign(0.0f, x) : x;
}

inline float32x4_t FlushDenormal(float32x4_t x) {
    // Clears all bits but the sign where |x| is below FLT_MIN.
    const uint32x4_t tiny = vcagtq_f32(vdupq_n_f32(FLT_MIN), x);
    const uint32x4_t magnitude_bits = vandq_u32(tiny, vdupq_n_u32(0x7FFFFFFFu));
    return vreinterpretq_f32_u32(vbicq_u32(vreinterpretq_u32_f32(x), magnitude_bits));
}

// One Newton-Raphson step towards 1 / b: x (2 - b x). Written as separate
// products and a difference rather than vrecpsq_f32, which AArch64 fuses
// into one rounding and ARMv7 and x86 do not.
inline float32x4_t ReciprocalStep(float32x4_t b, float32x4_t x) {
    return vmulq_f32(x, vsubq_f32(vdupq_n_f32(2.0f), vmulq_f32(b, x)));
}

// 1 / b: ARM's estimate refined by two Newton-Raphson steps. Where the
// estimate is already exact (b = +-0 gives +-inf, b = +-inf gives +-0) it is
// kept: the refinement would turn 0 * inf into NaN.
inline float32x4_t Reciprocal(float32x4_t b) {
#if !defined(__ARM_NEON)
    // Where the emulated estimate takes its short form, no lane is a denormal,
    // a zero or an infinity: the same result without the masks.
    if (estimates::UsualForRecipEstimate(b)) [[likely]]
        return ReciprocalStep(b, ReciprocalStep(b, estimates::UsualRecipEstimate(b)));
#endif
    b = FlushDenormal(b);
    const float32x4_t estimate = estimates::RecipEstimate(b);
    const float32x4_t refined = ReciprocalStep(b, ReciprocalStep(b, estimate));
    const float32x4_t infinity = vdupq_n_f32(std::numeric_limits<float>::infinity());
    const uint32x4_t exact = vorrq_u32(vceqq_f32(b, vdupq_n_f32(0.0f)),
                                       vceqq_f32(vabsq_f32(b), infinity));
    return vbslq_f32(exact, estimate, refined);
}


// IEEE division in every lane, for stages whose quotients are exact scalar
// divisions (not Reciprocal estimates). AArch64 has a vector division; ARMv7
// NEON has none, so there each lane divides alone. SIMDe keeps float32x4_t as
// __m128 on x86 but offers no vdivq_f32, so SSE divides the lanes.
inline float32x4_t ExactQuotient(float32x4_t a, float32x4_t b) { return estimates::Divide(a, b); }

// sqrt(a) = a * (1 / sqrt(a)) from an estimate of 1 / sqrt(a): one
// Newton-Raphson step, x (3 - a x^2) / 2 in separate roundings (vrsqrtsq_f32
// fuses on AArch64), then one correction of the root by its residual,
// s + (a - s^2) / (2 sqrt(a)), which brings an 8-bit estimate to a few ULP.
inline float32x4_t RefinedRoot(float32x4_t a, float32x4_t inv_root) {
    const float32x4_t step = vsubq_f32(vdupq_n_f32(3.0f), vmulq_f32(vmulq_f32(a, inv_root), inv_root));
    inv_root = vmulq_f32(inv_root, vmulq_f32(step, vdupq_n_f32(0.5f)));
    const float32x4_t root = vmulq_f32(a, inv_root);
    const float32x4_t residual = vsubq_f32(a, vmulq_f32(root, root));
    const float32x4_t half_inv_root = vmulq_f32(inv_root, vdupq_n_f32(0.5f));
    return vaddq_f32(root, vmulq_f32(residual, half_inv_root));
}

// sqrt(a) from ARM's reciprocal square-root estimate. Zero gives zero, +inf
// gives +inf, negative or NaN gives NaN.
inline float32x4_t SquareRoot(float32x4_t a) {
#if !defined(__ARM_NEON)
    // Likewise: no lane to flush, keep or turn into NaN.
    if (estimates::UsualForRecipSqrtEstimate(a)) [[likely]]
        return RefinedRoot(a, estimates::UsualRecipSqrtEstimate(a));
#endif
    a = FlushDenormal(a);
    float32x4_t result = RefinedRoot(a, estimates::RecipSqrtEstimate(a));
    const float32x4_t infinity = vdupq_n_f32(std::numeric_limits<float>::infinity());
    const uint32x4_t unchanged = vorrq_u32(vceqq_f32(a, vdupq_n_f32(0.0f)), vceqq_f32(a, infinity));
    const uint32x4_t invalid = vcltq_f32(a, vdupq_n_f32(0.0f));
    result = vbslq_f32(unchanged, a, result);
    return vbslq_f32(invalid, vdupq_n_f32(std::numeric_limits<float>::quiet_NaN()), result);
}

// --- The element types: Float4 (four bins) and float (the last bin) ----------

// Four floats, one per lane, with the element-wise IEEE operators.
struct Float4 {
    float32x4_t v;
    Float4() = default;
    explicit Float4(float32x4_t lanes) : v(lanes) {}
    explicit Float4(float value) : v(vdupq_n_f32(value)) {}
};

inline Float4 operator+(Float4 a, Float4 b) { return Float4(vaddq_f32(a.v, b.v)); }
inline Float4 operator-(Float4 a, Float4 b) { return Float4(vsubq_f32(a.v, b.v)); }
inline Float4 operator*(Float4 a, Float4 b) { return Float4(vmulq_f32(a.v, b.v)); }
inline Float4 operator-(Float4 a) {  // flips the sign bit, as scalar negation does
    return Float4(vreinterpretq_f32_u32(
        veorq_u32(vreinterpretq_u32_f32(a.v), vdupq_n_u32(0x80000000u))));
}

inline Float4 Quotient(Float4 a, Float4 b) { return a * Float4(Reciprocal(b.v)); }
inline float Quotient(float a, float b) { return a / FlushDenormal(b); }
inline Float4 ExactQuotient(Float4 a, Float4 b) { return Float4(ExactQuotient(a.v, b.v)); }
inline float ExactQuotient(float a, float b) { return a / b; }
inline Float4 SquareRoot(Float4 a) { return Float4(SquareRoot(a.v)); }
inline float SquareRoot(float a) { return std::sqrt(FlushDenormal(a)); }

inline Float4 Max(Float4 a, Float4 b) { return Float4(vmaxq_f32(a.v, b.v)); }
inline float Max(float a, float b) {
    if (std::isnan(a) || std::isnan(b)) return std::numeric_limits<float>::quiet_NaN();
    return a > b ? a : b;
}
// Max(a, floor) for a floor that is a number other than zero, which NEON's
// max and SSE's maxps agree on (maxps returns its second operand where
// either is NaN, and differs otherwise only in the sign of a zero result):
// one instruction on x86 instead of SIMDe's NaN-propagating emulation.
inline Float4 AtLeast(Float4 a, float floor) {
#if !defined(__ARM_NEON) && defined(SIMDE_X86_SSE_NATIVE)
    if (floor != 0.0f && floor == floor) return Float4(_mm_max_ps(_mm_set1_ps(floor), a.v));
#endif
    return Max(a, Float4(floor));
}
inline float AtLeast(float a, float floor) { return Max(a, floor); }
inline Float4 Min(Float4 a, Float4 b) { return Float4(vminq_f32(a.v, b.v)); }
inline float Min(float a, float b) {
    if (std::isnan(a) || std::isnan(b)) return std::numeric_limits<float>::quiet_NaN();
    return a < b ? a : b;
}
// Min(a, ceiling) for a ceiling that is a number other than zero: minps
// with the constant first, as AtLeast has maxps.
inline Float4 AtMost(Float4 a, float ceiling) {
#if !defined(__ARM_NEON) && defined(SIMDE_X86_SSE_NATIVE)
    if (ceiling != 0.0f && ceiling == ceiling) return Float4(_mm_min_ps(_mm_set1_ps(ceiling), a.v));
#endif
    return Min(a, Float4(ceiling));
}
inline float AtMost(float a, float ceiling) { return Min(a, ceiling); }

// Comparisons give a mask (all ones where true) in lanes, a bool on a float.
inline uint32x4_t Greater(Float4 a, Float4 b) { return vcgtq_f32(a.v, b.v); }
inline bool Greater(float a, float b) { return a > b; }
inline uint32x4_t GreaterEqual(Float4 a, Float4 b) { return vcgeq_f32(a.v, b.v); }
inline bool GreaterEqual(float a, float b) { return a >= b; }
inline uint32x4_t Both(uint32x4_t a, uint32x4_t b) { return vandq_u32(a, b); }
inline bool Both(bool a, bool b) { return a && b; }
inline Float4 Select(uint32x4_t mask, Float4 yes, Float4 no) {
    return Float4(vbslq_f32(mask, yes.v, no.v));
}
inline float Select(bool mask, float yes, float no) { return mask ? yes : no; }

// x, or `replacement` where x compares equal to zero.
inline Float4 ReplaceZero(Float4 x, float replacement) {
    return Select(vceqq_f32(x.v, vdupq_n_f32(0.0f)), Float4(replacement), x);
}
inline float ReplaceZero(float x, float replacement) { return x == 0.0f ? replacement : x; }

// Element k (and, for Float4, the three after it) of a real array.
template <typename T>
T Load(const float *a, int32_t k);
template <>
inline float Load<float>(const float *a, int32_t k) { return a[k]; }
template <>
inline Float4 Load<Float4>(const float *a, int32_t k) { return Float4(vld1q_f32(a + k)); }
inline void Store(float *a, int32_t k, float v) { a[k] = v; }
inline void Store(float *a, int32_t k, Float4 v) { vst1q_f32(a + k, v.v); }

// --- Complex bins: split into real and imaginary parts ------------------------

template <typename T>
struct Complex {
    T re;
    T im;
};

// Bin k (and the three after it) of an interleaved complex array.
template <typename T>
Complex<T> LoadComplex(const float *a, int32_t k);
template <>
inline Complex<float> LoadComplex<float>(const float *a, int32_t k) {
    return {a[2 * k], a[2 * k + 1]};
}
template <>
inline Complex<Float4> LoadComplex<Float4>(const float *a, int32_t k) {
    const float32x4x2_t v = vld2q_f32(a + 2 * k);
    return {Float4(v.val[0]), Float4(v.val[1])};
}
inline void StoreComplex(float *a, int32_t k, Complex<float> v) {
    a[2 * k] = v.re;
    a[2 * k + 1] = v.im;
}
inline void StoreComplex(float *a, int32_t k, Complex<Float4> v) {
    float32x4x2_t pair;
    pair.val[0] = v.re.v;
    pair.val[1] = v.im.v;
    vst2q_f32(a + 2 * k, pair);
}

// The values as an interleaved array holds them: groups of `kStride` floats,
// part[0] at 2k, part[1] at 2k + kStride.
template <typename T>
struct Interleaved;
template <>
struct Interleaved<float> {
    static constexpr int32_t kStride = 1;
    float part[2];
    explicit Interleaved(Complex<float> v) : part{v.re, v.im} {}
};
template <>
struct Interleaved<Float4> {
    static constexpr int32_t kStride = kLanes;
    Float4 part[2];
    explicit Interleaved(Complex<Float4> v) {
        const float32x4x2_t zipped = vzipq_f32(v.re.v, v.im.v);
        part[0] = Float4(zipped.val[0]);
        part[1] = Float4(zipped.val[1]);
    }
};

template <typename T>
Complex<T> operator+(Complex<T> a, Complex<T> b) { return {a.re + b.re, a.im + b.im}; }

// a * b
template <typename T>
Complex<T> Product(Complex<T> a, Complex<T> b) {
    return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
}

// conj(a) * b
template <typename T>
Complex<T> ConjugateProduct(Complex<T> a, Complex<T> b) {
    return {a.re * b.re + a.im * b.im, a.re * b.im - a.im * b.re};
}

template <typename T>
Complex<T> Conjugate(Complex<T> a) { return {a.re, -a.im}; }

// Both parts times a real g.
template <typename T>
Complex<T> Scale(Complex<T> a, T g) { return {a.re * g, a.im * g}; }

// Both parts over a real d, each by Quotient.
template <typename T>
Complex<T> DivideByReal(Complex<T> a, T d) { return {Quotient(a.re, d), Quotient(a.im, d)}; }

// re^2 + im^2
template <typename T>
T Power(Complex<T> a) { return a.re * a.re + a.im * a.im; }

// Calls body(T(), k) with T = Float4 for the bins ForEachLaneGroup hands to
// the lanes and T = float for the rest: one body, both instances.
template <typename Body>
inline void ForEachBin(int32_t count, Body &&body) {
    ForEachLaneGroup(
        count, [&](int32_t k) { body(Float4(0.0f), k); }, [&](int32_t k) { body(0.0f, k); });
}

}  // namespace kivbf::lanes
