// Vector kernels: one body over the element type each (vector_lanes.h), four
// lanes while four elements remain, then float. On x86 the same intrinsics
// come from SIMDe, so there is one source for both targets. Only intrinsics
// that exist on ARMv7 NEON as well as AArch64 are used.
#include "vector_kernels.h"

#include "vector_lanes.h"

using namespace kivbf::lanes;

int32_t vec_mix(const float *a, const float *b, float alpha, float *out, int32_t n) {
    const float beta = 1.0f - alpha;
    ForEachBin(n, [&](auto element, int32_t i) {
        using T = decltype(element);
        Store(out, i, Load<T>(a, i) * T(alpha) + Load<T>(b, i) * T(beta));
    });
    return 0;
}

int32_t vec_fill(float *a, float c, int32_t n) {
    ForEachBin(n, [&](auto element, int32_t i) { Store(a, i, decltype(element)(c)); });
    return 0;
}

int32_t vec_scale(float *a, float c, int32_t n) {
    ForEachBin(n, [&](auto element, int32_t i) {
        using T = decltype(element);
        Store(a, i, Load<T>(a, i) * T(c));
    });
    return 0;
}

// One summation order on every target, so results match bit for bit.
float vec_dot(const float *a, const float *b, int32_t n) {
    float32x4_t lanes = vdupq_n_f32(0.0f);
    int32_t i = 0;
    for (; i + kLanes <= n; i += kLanes)
        lanes = vaddq_f32(lanes, vmulq_f32(vld1q_f32(a + i), vld1q_f32(b + i)));
    const float32x2_t pairs = vadd_f32(vget_low_f32(lanes), vget_high_f32(lanes));
    float sum = vget_lane_f32(vpadd_f32(pairs, pairs), 0);
    for (; i < n; ++i) sum += a[i] * b[i];
    return sum;
}
