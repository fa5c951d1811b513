// Vector kernels: one four-lane NEON loop per kernel plus a scalar tail for
// what is left. On x86 the same intrinsics come from SIMDe, so there is one
// source for both targets. Only intrinsics that exist on ARMv7 NEON as well
// as AArch64 are used.
#include "math_functions.h"
#include "vector_kernels.h"

#include "vector_lanes.h"

using namespace kivbf::lanes;

namespace {

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
    for (int32_t i = 0; i < n; ++i) out[i] = kivbf::math::ExpF(a[i]);
    return 0;
}
