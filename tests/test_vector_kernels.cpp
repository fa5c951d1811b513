#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <vector>

#include "math_functions.h"
#include "vector_kernels.h"
#include "vector_lanes.h"

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kSentinel = -12345.0f;
// Counts around the four-lane boundary, and the core's 129 bins.
constexpr int32_t kCounts[] = {0, 1, 2, 3, 4, 5, 7, 8, 9, 129};

std::vector<float> Random(int32_t count, float low, float high, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<float> v(count);
    for (float &x : v) x = std::uniform_real_distribution<float>(low, high)(rng);
    return v;
}

int64_t UlpDistance(float a, float b) {
    return std::llabs(static_cast<int64_t>(std::bit_cast<int32_t>(a)) - std::bit_cast<int32_t>(b));
}

// kReal: `count` floats, out aliases a. kComplex: `count` complex values, out
// aliases a. kPerBin: one output per complex value of a and b.
enum Layout { kReal, kComplex, kPerBin };
using Kernel = void (*)(float *out, const float *a, const float *b, int32_t floats);
using Value = float (*)(const float *a, const float *b, int32_t i);
#define KERNEL(call) \
    [](float *o, [[maybe_unused]] const float *a, [[maybe_unused]] const float *b, int32_t n) { call; }
#define VALUE(expr) \
    []([[maybe_unused]] const float *a, [[maybe_unused]] const float *b, [[maybe_unused]] int32_t i) -> float { \
        return expr; \
    }
const struct { const char *name; Layout layout; Kernel run; Value expected; } kElementwise[] = {
    {"power", kPerBin, KERNEL(cplx_power(a, o, n)), VALUE(a[2 * i] * a[2 * i] + a[2 * i + 1] * a[2 * i + 1])},
    {"a*b re", kPerBin, KERNEL(cplx_mul_real(a, b, o, n, 1)), VALUE(a[2 * i] * b[2 * i] - a[2 * i + 1] * b[2 * i + 1])},
    {"a*b im", kPerBin, KERNEL(cplx_mul_imag(a, b, o, n, 1)), VALUE(a[2 * i] * b[2 * i + 1] + a[2 * i + 1] * b[2 * i])},
    {"a'b re", kPerBin, KERNEL(cplx_mul_real(a, b, o, n, 0)), VALUE(a[2 * i] * b[2 * i] + a[2 * i + 1] * b[2 * i + 1])},
    {"a'b im", kPerBin, KERNEL(cplx_mul_imag(a, b, o, n, 0)), VALUE(a[2 * i] * b[2 * i + 1] - a[2 * i + 1] * b[2 * i])},
    {"cplx add", kComplex, KERNEL(cplx_add(a, b, o, n)), VALUE(a[i] + b[i])},
    {"cplx scale", kComplex, KERNEL(cplx_scale(a, 0.25f, o, n)), VALUE(a[i] * 0.25f)},
    {"cplx mix", kComplex, KERNEL(cplx_mix(a, b, 0.9f, o, n)), VALUE(0.9f * a[i] + (1.0f - 0.9f) * b[i])},
    {"cplx gain", kComplex, KERNEL(cplx_scale_by_real(a, b, o, n)), VALUE(a[i] * b[i / 2])},
    {"add", kReal, KERNEL(vec_add(a, b, o, n)), VALUE(a[i] + b[i])},
    {"mul", kReal, KERNEL(vec_mul(a, b, o, n)), VALUE(a[i] * b[i])},
    {"mix", kReal, KERNEL(vec_mix(a, b, 0.3f, o, n)), VALUE(0.3f * a[i] + (1.0f - 0.3f) * b[i])},
    {"mix alt", kReal, KERNEL(vec_mix_alt(a, b, 0.3f, o, n)), VALUE(0.3f * a[i] + (1.0f - 0.3f) * b[i])},
    {"floor", kReal, KERNEL(vec_floor(a, 0.5f, o, n)), VALUE(std::max(a[i], 0.5f))},
    {"ceil", kReal, KERNEL(vec_ceil(a, 0.5f, o, n)), VALUE(std::min(a[i], 0.5f))},
    {"scale", kReal, KERNEL(vec_scale(o, -1.5f, n)), VALUE(a[i] * -1.5f)},
    {"fill", kReal, KERNEL(vec_fill(o, 2.5f, n)), VALUE(2.5f)},
    {"exp", kReal, KERNEL(vec_exp(a, o, n)), VALUE(kivbf::math::ExpF(a[i]))},
};

// Each output checked exactly against the scalar expression, plus one sentinel
// past the end; real and complex kernels run in place.
TEST(VectorKernels, ElementwiseKernelsMatchScalarArithmeticAtEveryTailLength) {
    for (const auto &c : kElementwise) {
        for (int32_t count : kCounts) {
            const int32_t floats = c.layout == kReal ? count : 2 * count;
            const auto a = Random(floats, -2.0f, 2.0f, 1), b = Random(floats, -2.0f, 2.0f, 2);
            const size_t written = c.layout == kPerBin ? count : floats;
            std::vector<float> out = c.layout == kPerBin ? std::vector<float>{} : a;
            out.resize(written + 1, kSentinel);
            c.run(out.data(), c.layout == kPerBin ? a.data() : out.data(), b.data(), floats);
            for (size_t i = 0; i < written; ++i)
                EXPECT_EQ(out[i], c.expected(a.data(), b.data(), int32_t(i))) << c.name << " " << count << " @" << i;
            EXPECT_EQ(out.back(), kSentinel) << c.name << " " << count << " wrote past its end";
        }
    }
}

// The divisions and roots run on refined hardware estimates.
TEST(VectorKernels, DivisionsAndSqrtAreWithinAFewUlpAndHandleSpecialValues) {
    std::mt19937 rng(6);
    std::uniform_real_distribution<float> exponent(-30.0f, 30.0f);
    std::vector<float> a(1025), b(1025), q(1025), r(1025), scaled = a;
    for (size_t i = 0; i < a.size(); ++i)
        a[i] = std::exp2(exponent(rng)), b[i] = std::exp2(exponent(rng)) * (i % 5 == 0 ? -1.0f : 1.0f);
    vec_divide(a.data(), b.data(), q.data(), 1025);
    vec_sqrt(a.data(), r.data(), 1025);
    cplx_divide_by_real(a.data(), b.data(), scaled.data(), 1022);  // 511 bins: a scalar tail
    for (size_t i = 0; i < a.size(); ++i) {
        EXPECT_LE(UlpDistance(q[i], a[i] / b[i]), 4) << i;
        EXPECT_LE(UlpDistance(r[i], std::sqrt(a[i])), 4) << i;
        EXPECT_LE(UlpDistance(scaled[i], i < 1022 ? a[i] / b[i / 2] : 0.0f), 4) << i;
    }

    // Each special value once in a lane (index 0) and once in the tail (index 8).
    const float denormal = FLT_MIN / 4.0f, nan = std::numeric_limits<float>::quiet_NaN();
    const struct { float numerand, divisor, quotient, radicand, root; } specials[] = {
        {4.0f, 0.0f, kInf, 0.0f, 0.0f}, {-4.0f, 0.0f, -kInf, kInf, kInf}, {4.0f, -0.0f, -kInf, denormal, 0.0f},
        {4.0f, denormal, kInf, -1.0f, nan}, {4.0f, kInf, 0.0f, nan, nan}};
    for (const auto &c : specials) {
        for (int32_t at : {0, 8}) {
            std::vector<float> x(9, 1.0f), y(9, 1.0f), result(9);
            x[at] = c.numerand, y[at] = c.divisor;
            vec_divide(x.data(), y.data(), result.data(), 9);
            EXPECT_EQ(result[at], c.quotient) << c.numerand << " / " << c.divisor << " @" << at;
            x[at] = c.radicand;
            vec_sqrt(x.data(), result.data(), 9);
            EXPECT_TRUE(std::isnan(c.root) ? std::isnan(result[at]) : result[at] == c.root) << c.radicand;
        }
    }

    // The canceller's bound for q = 0: 4 / 0 = inf, sqrt(inf) = inf, min(inf, 1) = 1.
    std::vector<float> four(5, 4.0f), zero(5, 0.0f), bound(5);
    vec_divide(four.data(), zero.data(), bound.data(), 5);
    vec_sqrt(bound.data(), bound.data(), 5);
    vec_ceil(bound.data(), 1.0f, bound.data(), 5);
    EXPECT_EQ(bound, std::vector<float>(5, 1.0f));
}

TEST(VectorKernels, DotAndConvolutionCoverEveryTerm) {
    for (int32_t n : kCounts) {  // small integers: exact in any summation order
        std::vector<float> a(n), b(n, 2.0f);
        for (int32_t i = 0; i < n; ++i) a[i] = static_cast<float>(i + 1);
        EXPECT_EQ(vec_dot(a.data(), b.data(), n), static_cast<float>(n * (n + 1))) << "n=" << n;
    }

    // The post-filter's smoothing: 129 values padded by 21 on each side, 22 taps.
    const int32_t n = 129, m = 22;
    const auto x = Random(n + 2 * (m - 1), 0.0f, 1.0f, 9), h = Random(m, 0.0f, 0.1f, 10);
    std::vector<float> out(n + m, kSentinel);
    vec_convolve(x.data(), h.data(), out.data(), n, m);
    for (int32_t j = 0; j < n + m - 1; ++j) EXPECT_EQ(out[j], vec_dot(x.data() + j, h.data(), m)) << j;
    EXPECT_EQ(out.back(), kSentinel);
}

}  // namespace

// Stages whose quotients are IEEE divisions divide four lanes at once; every
// lane must be the scalar quotient bit for bit, specials and subnormals too.
TEST(VectorKernels, ExactQuotientIsTheScalarDivisionInEveryLane) {
    const float specials[] = {0.0f, -0.0f, kInf, -kInf, std::numeric_limits<float>::quiet_NaN(),
                              FLT_MIN, FLT_MIN / 8.0f, -FLT_MAX, 1.0f, 3.0f};
    std::vector<float> a = Random(400, -1e3f, 1e3f, 7), b = Random(400, -2.0f, 2.0f, 8);
    for (float x : specials)
        for (float y : specials) {
            a.push_back(x);
            b.push_back(y);
        }
    while (a.size() % 4 != 0) {
        a.push_back(1.0f);
        b.push_back(7.0f);
    }
    for (size_t i = 0; i < a.size(); i += 4) {
        float out[4];
        vst1q_f32(out, kivbf::lanes::ExactQuotient(vld1q_f32(&a[i]), vld1q_f32(&b[i])));
        for (size_t j = 0; j < 4; ++j) {
            const float expected = a[i + j] / b[i + j];
            if (std::isnan(expected))
                EXPECT_TRUE(std::isnan(out[j])) << a[i + j] << " / " << b[i + j];
            else
                EXPECT_EQ(std::bit_cast<uint32_t>(out[j]), std::bit_cast<uint32_t>(expected))
                    << a[i + j] << " / " << b[i + j];
        }
    }
}
