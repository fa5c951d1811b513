// Vector kernels: one four-lane NEON loop per kernel plus a scalar tail for
// what is left. On x86 the same intrinsics come from SIMDe, so there is one
// source for both targets. Only intrinsics that exist on ARMv7 NEON as well
// as AArch64 are used.
#include "vector_kernels.h"

#if defined(__ARM_NEON)
#include <arm_neon.h>
#else
#include <simde/arm/neon.h>
#endif

#include <cfloat>
#include <cmath>
#include <limits>

namespace {

constexpr int32_t kLanes = 4;

// Calls lanes(i) for i = 0, 4, 8, ... while four indices remain below count,
// then tail(i) for each index left. Indices count elements or, for complex
// kernels, bins.
template <typename Lanes, typename Tail>
inline void ForEachLaneGroup(int32_t count, Lanes &&lanes, Tail &&tail) {
    int32_t i = 0;
    for (; i + kLanes <= count; i += kLanes) lanes(i);
    for (; i < count; ++i) tail(i);
}

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

// 1 / b: hardware estimate refined by two Newton-Raphson steps. Where the
// estimate is already exact (b = +-0 gives +-inf, b = +-inf gives +-0) it is
// kept: the refinement would turn 0 * inf into NaN.
inline float32x4_t Reciprocal(float32x4_t b) {
    b = FlushDenormal(b);
    const float32x4_t estimate = vrecpeq_f32(b);
    float32x4_t refined = vmulq_f32(estimate, vrecpsq_f32(b, estimate));
    refined = vmulq_f32(refined, vrecpsq_f32(b, refined));
    const float32x4_t infinity = vdupq_n_f32(std::numeric_limits<float>::infinity());
    const uint32x4_t exact = vorrq_u32(vceqq_f32(b, vdupq_n_f32(0.0f)),
                                       vceqq_f32(vabsq_f32(b), infinity));
    return vbslq_f32(exact, estimate, refined);
}

inline float ScalarQuotient(float a, float b) { return a / FlushDenormal(b); }

// sqrt(a) = a * (1 / sqrt(a)): reciprocal square-root estimate with one
// Newton-Raphson step, then one correction of the root by its residual,
// s + (a - s^2) / (2 sqrt(a)), which brings an 8-bit estimate to a few ULP.
// Zero gives zero, +inf gives +inf, negative or NaN gives NaN.
inline float32x4_t SquareRoot(float32x4_t a) {
    a = FlushDenormal(a);
    float32x4_t inv_root = vrsqrteq_f32(a);
    inv_root = vmulq_f32(inv_root, vrsqrtsq_f32(vmulq_f32(a, inv_root), inv_root));
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

// Four lane sums over the groups of four, combined as (l0 + l2) + (l1 + l3),
// then the remaining products added in order: one summation order on every
// target, so results match bit for bit.
float Dot(const float *a, const float *b, int32_t n) {
    float32x4_t lanes = vdupq_n_f32(0.0f);
    int32_t i = 0;
    for (; i + kLanes <= n; i += kLanes)
        lanes = vaddq_f32(lanes, vmulq_f32(vld1q_f32(a + i), vld1q_f32(b + i)));
    const float32x2_t pairs = vadd_f32(vget_low_f32(lanes), vget_high_f32(lanes));
    float sum = vget_lane_f32(vpadd_f32(pairs, pairs), 0);
    for (; i < n; ++i) sum += a[i] * b[i];
    return sum;
}

int32_t Mix(const float *a, const float *b, float alpha, float *out, int32_t n) {
    const float beta = 1.0f - alpha;
    ForEachLaneGroup(
        n,
        [&](int32_t i) {
            const float32x4_t from_a = vmulq_n_f32(vld1q_f32(a + i), alpha);
            const float32x4_t from_b = vmulq_n_f32(vld1q_f32(b + i), beta);
            vst1q_f32(out + i, vaddq_f32(from_a, from_b));
        },
        [&](int32_t i) { out[i] = alpha * a[i] + beta * b[i]; });
    return 0;
}

}  // namespace

const char *vec_kernels_backend() {
#if defined(__ARM_NEON)
    return "neon";
#else
    return "simde";
#endif
}

int32_t cplx_power(const float *a, float *out, int32_t n) {
    ForEachLaneGroup(
        BinsOf(n),
        [&](int32_t k) {
            const float32x4x2_t v = vld2q_f32(a + 2 * k);
            vst1q_f32(out + k,
                      vaddq_f32(vmulq_f32(v.val[0], v.val[0]), vmulq_f32(v.val[1], v.val[1])));
        },
        [&](int32_t k) {
            const float re = a[2 * k];
            const float im = a[2 * k + 1];
            out[k] = re * re + im * im;
        });
    return 0;
}

int32_t cplx_mul_real(const float *a, const float *b, float *out, int32_t n, int32_t plain) {
    ForEachLaneGroup(
        BinsOf(n),
        [&](int32_t k) {
            const float32x4x2_t x = vld2q_f32(a + 2 * k);
            const float32x4x2_t y = vld2q_f32(b + 2 * k);
            const float32x4_t rr = vmulq_f32(x.val[0], y.val[0]);
            const float32x4_t ii = vmulq_f32(x.val[1], y.val[1]);
            vst1q_f32(out + k, plain != 0 ? vsubq_f32(rr, ii) : vaddq_f32(rr, ii));
        },
        [&](int32_t k) {
            const float rr = a[2 * k] * b[2 * k];
            const float ii = a[2 * k + 1] * b[2 * k + 1];
            out[k] = plain != 0 ? rr - ii : rr + ii;
        });
    return 0;
}

int32_t cplx_mul_imag(const float *a, const float *b, float *out, int32_t n, int32_t plain) {
    ForEachLaneGroup(
        BinsOf(n),
        [&](int32_t k) {
            const float32x4x2_t x = vld2q_f32(a + 2 * k);
            const float32x4x2_t y = vld2q_f32(b + 2 * k);
            const float32x4_t ri = vmulq_f32(x.val[0], y.val[1]);
            const float32x4_t ir = vmulq_f32(x.val[1], y.val[0]);
            vst1q_f32(out + k, plain != 0 ? vaddq_f32(ri, ir) : vsubq_f32(ri, ir));
        },
        [&](int32_t k) {
            const float ri = a[2 * k] * b[2 * k + 1];
            const float ir = a[2 * k + 1] * b[2 * k];
            out[k] = plain != 0 ? ri + ir : ri - ir;
        });
    return 0;
}

// out[j] is the dot product of x[j..j+m-1] with the m taps.
int32_t vec_convolve(const float *x, const float *h, float *out, int32_t n, int32_t m) {
    const int32_t outputs = n + m - 1;
    for (int32_t j = 0; j < outputs; ++j) out[j] = Dot(x + j, h, m);
    return 0;
}

int32_t vec_floor(const float *a, float c, float *out, int32_t n) {
    const float32x4_t bound = vdupq_n_f32(c);
    ForEachLaneGroup(
        n, [&](int32_t i) { vst1q_f32(out + i, vmaxq_f32(vld1q_f32(a + i), bound)); },
        [&](int32_t i) { out[i] = ScalarMax(a[i], c); });
    return 0;
}

int32_t vec_ceil(const float *a, float c, float *out, int32_t n) {
    const float32x4_t bound = vdupq_n_f32(c);
    ForEachLaneGroup(
        n, [&](int32_t i) { vst1q_f32(out + i, vminq_f32(vld1q_f32(a + i), bound)); },
        [&](int32_t i) { out[i] = ScalarMin(a[i], c); });
    return 0;
}

int32_t cplx_scale_by_real(const float *a, const float *g, float *out, int32_t n) {
    ForEachLaneGroup(
        BinsOf(n),
        [&](int32_t k) {
            float32x4x2_t v = vld2q_f32(a + 2 * k);
            const float32x4_t gain = vld1q_f32(g + k);
            v.val[0] = vmulq_f32(v.val[0], gain);
            v.val[1] = vmulq_f32(v.val[1], gain);
            vst2q_f32(out + 2 * k, v);
        },
        [&](int32_t k) {
            out[2 * k] = a[2 * k] * g[k];
            out[2 * k + 1] = a[2 * k + 1] * g[k];
        });
    return 0;
}

int32_t vec_divide(const float *a, const float *b, float *out, int32_t n) {
    ForEachLaneGroup(
        n,
        [&](int32_t i) {
            vst1q_f32(out + i, vmulq_f32(vld1q_f32(a + i), Reciprocal(vld1q_f32(b + i))));
        },
        [&](int32_t i) { out[i] = ScalarQuotient(a[i], b[i]); });
    return 0;
}

int32_t vec_add(const float *a, const float *b, float *out, int32_t n) {
    ForEachLaneGroup(
        n, [&](int32_t i) { vst1q_f32(out + i, vaddq_f32(vld1q_f32(a + i), vld1q_f32(b + i))); },
        [&](int32_t i) { out[i] = a[i] + b[i]; });
    return 0;
}

int32_t vec_mix(const float *a, const float *b, float alpha, float *out, int32_t n) {
    return Mix(a, b, alpha, out, n);
}

int32_t vec_mix_alt(const float *a, const float *b, float alpha, float *out, int32_t n) {
    return Mix(a, b, alpha, out, n);
}

// The element-wise complex kernels are the real ones over both parts of
// every bin.
int32_t cplx_add(const float *a, const float *b, float *out, int32_t n) {
    return vec_add(a, b, out, 2 * BinsOf(n));
}

int32_t cplx_scale(const float *a, float c, float *out, int32_t n) {
    const int32_t floats = 2 * BinsOf(n);
    ForEachLaneGroup(
        floats, [&](int32_t i) { vst1q_f32(out + i, vmulq_n_f32(vld1q_f32(a + i), c)); },
        [&](int32_t i) { out[i] = a[i] * c; });
    return 0;
}

int32_t cplx_mix(const float *a, const float *b, float alpha, float *out, int32_t n) {
    return Mix(a, b, alpha, out, 2 * BinsOf(n));
}

int32_t cplx_divide_by_real(const float *a, const float *s, float *out, int32_t n) {
    ForEachLaneGroup(
        BinsOf(n),
        [&](int32_t k) {
            float32x4x2_t v = vld2q_f32(a + 2 * k);
            const float32x4_t inverse = Reciprocal(vld1q_f32(s + k));
            v.val[0] = vmulq_f32(v.val[0], inverse);
            v.val[1] = vmulq_f32(v.val[1], inverse);
            vst2q_f32(out + 2 * k, v);
        },
        [&](int32_t k) {
            out[2 * k] = ScalarQuotient(a[2 * k], s[k]);
            out[2 * k + 1] = ScalarQuotient(a[2 * k + 1], s[k]);
        });
    return 0;
}

int32_t cplx_interleave(const float *re, const float *im, float *out, int32_t n) {
    ForEachLaneGroup(
        n,
        [&](int32_t k) {
            float32x4x2_t v;
            v.val[0] = vld1q_f32(re + k);
            v.val[1] = vld1q_f32(im + k);
            vst2q_f32(out + 2 * k, v);
        },
        [&](int32_t k) {
            const float r = re[k];
            const float i = im[k];
            out[2 * k] = r;
            out[2 * k + 1] = i;
        });
    return 0;
}

int32_t cplx_deinterleave(const float *a, float *re, float *im, int32_t n) {
    ForEachLaneGroup(
        BinsOf(n),
        [&](int32_t k) {
            const float32x4x2_t v = vld2q_f32(a + 2 * k);
            vst1q_f32(re + k, v.val[0]);
            vst1q_f32(im + k, v.val[1]);
        },
        [&](int32_t k) {
            const float r = a[2 * k];
            const float i = a[2 * k + 1];
            re[k] = r;
            im[k] = i;
        });
    return 0;
}

int32_t vec_sqrt(const float *a, float *out, int32_t n) {
    ForEachLaneGroup(
        n, [&](int32_t i) { vst1q_f32(out + i, SquareRoot(vld1q_f32(a + i))); },
        [&](int32_t i) { out[i] = ScalarSquareRoot(a[i]); });
    return 0;
}

int32_t vec_mul(const float *a, const float *b, float *out, int32_t n) {
    ForEachLaneGroup(
        n, [&](int32_t i) { vst1q_f32(out + i, vmulq_f32(vld1q_f32(a + i), vld1q_f32(b + i))); },
        [&](int32_t i) { out[i] = a[i] * b[i]; });
    return 0;
}

int32_t vec_fill(float *a, float c, int32_t n) {
    const float32x4_t value = vdupq_n_f32(c);
    ForEachLaneGroup(
        n, [&](int32_t i) { vst1q_f32(a + i, value); }, [&](int32_t i) { a[i] = c; });
    return 0;
}

int32_t vec_scale(float *a, float c, int32_t n) {
    ForEachLaneGroup(
        n, [&](int32_t i) { vst1q_f32(a + i, vmulq_n_f32(vld1q_f32(a + i), c)); },
        [&](int32_t i) { a[i] *= c; });
    return 0;
}

float vec_dot(const float *a, const float *b, int32_t n) { return Dot(a, b, n); }

int32_t vec_exp(const float *a, float *out, int32_t n) {
    for (int32_t i = 0; i < n; ++i) out[i] = std::exp(a[i]);
    return 0;
}
