// Four-lane building blocks shared by the vector kernels and by stages that
// fuse several kernels into one pass over the bins. A fused loop gives the
// same bits as the kernels it replaces when it applies the same lane
// operations to bins 0..127 and the same scalar operations to the tail: the
// estimates behind Reciprocal and SquareRoot differ from IEEE division and
// square root, so which bins take which path is part of the result.
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
// kernels, bins.
template <typename Lanes, typename Tail>
inline void ForEachLaneGroup(int32_t count, Lanes &&lanes, Tail &&tail) {
    int32_t i = 0;
    for (; i + kLanes <= count; i += kLanes) lanes(i);
    for (; i < count; ++i) tail(i);
}

// How many of `count` indices ForEachLaneGroup hands to the lanes; the rest
// go to the tail.
constexpr int32_t LaneCount(int32_t count) { return count - count % kLanes; }

// A complex length counts floats; a lone trailing float is not a bin.
inline int32_t BinsOf(int32_t floats) { return floats / 2; }

// Denormal divisors and radicands count as zero of the same sign, as they do
// on NEON's flush-to-zero estimate instructions.
inline float FlushDenormal(float x) {
    return std::fabs(x) < FLT_MIN ? std::copysign(0.0f, x) : x;
}

inline float32x4_t FlushDenormal(float32x4_t x) {
    const uint32x4_t tiny = vcltq_f32(vabsq_f32(x), vdupq_n_f32(FLT_MIN));
    const uint32x4_t sign_only = vandq_u32(vreinterpretq_u32_f32(x), vdupq_n_u32(0x80000000u));
    return vbslq_f32(tiny, vreinterpretq_f32_u32(sign_only), x);
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
    b = FlushDenormal(b);
    const float32x4_t estimate = estimates::RecipEstimate(b);
    const float32x4_t refined = ReciprocalStep(b, ReciprocalStep(b, estimate));
    const float32x4_t infinity = vdupq_n_f32(std::numeric_limits<float>::infinity());
    const uint32x4_t exact = vorrq_u32(vceqq_f32(b, vdupq_n_f32(0.0f)),
                                       vceqq_f32(vabsq_f32(b), infinity));
    return vbslq_f32(exact, estimate, refined);
}

inline float ScalarQuotient(float a, float b) { return a / FlushDenormal(b); }

// IEEE division in every lane, for stages whose quotients are exact scalar
// divisions (not Reciprocal estimates). AArch64 has a vector division; ARMv7
// NEON has none, so there each lane divides alone. SIMDe keeps float32x4_t as
// __m128 on x86 but offers no vdivq_f32, so SSE divides the lanes.
inline float32x4_t ExactQuotient(float32x4_t a, float32x4_t b) {
#if defined(__aarch64__)
    return vdivq_f32(a, b);
#elif !defined(__ARM_NEON) && defined(SIMDE_X86_SSE_NATIVE)
    return _mm_div_ps(a, b);
#else
    float x[kLanes];
    float y[kLanes];
    vst1q_f32(x, a);
    vst1q_f32(y, b);
    for (int32_t i = 0; i < kLanes; ++i) x[i] = x[i] / y[i];
    return vld1q_f32(x);
#endif
}

// sqrt(a) = a * (1 / sqrt(a)): ARM's reciprocal square-root estimate with one
// Newton-Raphson step, x (3 - a x^2) / 2 in separate roundings (vrsqrtsq_f32
// fuses on AArch64), then one correction of the root by its residual,
// s + (a - s^2) / (2 sqrt(a)), which brings an 8-bit estimate to a few ULP.
// Zero gives zero, +inf gives +inf, negative or NaN gives NaN.
inline float32x4_t SquareRoot(float32x4_t a) {
    a = FlushDenormal(a);
    float32x4_t inv_root = estimates::RecipSqrtEstimate(a);
    const float32x4_t step = vsubq_f32(vdupq_n_f32(3.0f), vmulq_f32(vmulq_f32(a, inv_root), inv_root));
    inv_root = vmulq_f32(inv_root, vmulq_f32(step, vdupq_n_f32(0.5f)));
    const float32x4_t root = vmulq_f32(a, inv_root);
    const float32x4_t residual = vsubq_f32(a, vmulq_f32(root, root));
    const float32x4_t half_inv_root = vmulq_f32(inv_root, vdupq_n_f32(0.5f));
    float32x4_t result = vaddq_f32(root, vmulq_f32(residual, half_inv_root));

    const float32x4_t infinity = vdupq_n_f32(std::numeric_limits<float>::infinity());
    const uint32x4_t unchanged = vorrq_u32(vceqq_f32(a, vdupq_n_f32(0.0f)), vceqq_f32(a, infinity));
    const uint32x4_t invalid = vcltq_f32(a, vdupq_n_f32(0.0f));
    result = vbslq_f32(unchanged, a, result);
    return vbslq_f32(invalid, vdupq_n_f32(std::numeric_limits<float>::quiet_NaN()), result);
}

inline float ScalarSquareRoot(float a) { return std::sqrt(FlushDenormal(a)); }

// NEON's max/min return NaN when either operand is NaN; the tail matches.
inline float ScalarMax(float x, float c) {
    if (std::isnan(x) || std::isnan(c)) return std::numeric_limits<float>::quiet_NaN();
    return x > c ? x : c;
}

inline float ScalarMin(float x, float c) {
    if (std::isnan(x) || std::isnan(c)) return std::numeric_limits<float>::quiet_NaN();
    return x < c ? x : c;
}

}  // namespace kivbf::lanes
