#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "vector_kernels.h"

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kSentinel = -12345.0f;
// Counts around the four-lane boundary, and the core's 129 bins.
constexpr int32_t kCounts[] = {0, 1, 2, 3, 4, 5, 7, 8, 9, 129};

std::vector<float> Random(int32_t count, float low, float high, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(low, high);
    std::vector<float> v(count);
    for (float &x : v) x = dist(rng);
    return v;
}

int64_t UlpDistance(float a, float b) {
    return std::llabs(static_cast<int64_t>(std::bit_cast<int32_t>(a)) - std::bit_cast<int32_t>(b));
}

// Runs `kernel` on an output seeded with `seed` (padded by one sentinel) and
// checks the written values exactly and that nothing past them changed.
void ExpectWrites(const std::function<void(float *)> &kernel, std::vector<float> seed,
                  const std::vector<float> &expected, const std::string &what) {
    seed.resize(expected.size() + 1, kSentinel);
    kernel(seed.data());
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(seed[i], expected[i]) << what << " @" << i;
    EXPECT_EQ(seed.back(), kSentinel) << what << " wrote past its end";
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
const struct {
    const char *name;
    Layout layout;
    Kernel run;
    Value expected;
} kElementwise[] = {
    {"power", kPerBin, KERNEL(cplx_power(a, o, n)), VALUE(a[2 * i] * a[2 * i] + a[2 * i + 1] * a[2 * i + 1])},
    {"a*b re", kPerBin, KERNEL(cplx_mul_real(a, b, o, n, 1)), VALUE(a[2 * i] * b[2 * i] - a[2 * i + 1] * b[2 * i + 1])},
    {"a*b im", kPerBin, KERNEL(cplx_mul_imag(a, b, o, n, 1)), VALUE(a[2 * i] * b[2 * i + 1] + a[2 * i + 1] * b[2 * i])},
    {"a'b re", kPerBin, KERNEL(cplx_mul_real(a, b, o, n, 0)), VALUE(a[2 * i] * b[2 * i] + a[2 * i + 1] * b[2 * i + 1])},
    {"a'b im", kPerBin, KERNEL(cplx_mul_imag(a, b, o, n, 0)), VALUE(a[2 * i] * b[2 * i + 1] - a[2 * i + 1] * b[2 * i])},
    {"a'a re", kPerBin, KERNEL(cplx_mul_real(a, a, o, n, 0)), VALUE(a[2 * i] * a[2 * i] + a[2 * i + 1] * a[2 * i + 1])},
    {"a'a im", kPerBin, KERNEL(cplx_mul_imag(a, a, o, n, 0)), VALUE(0.0f)},
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
    {"exp", kReal, KERNEL(vec_exp(a, o, n)), VALUE(std::exp(a[i]))},
};
#undef KERNEL
#undef VALUE

TEST(VectorKernels, ElementwiseKernelsMatchScalarArithmeticAtEveryTailLength) {
    for (const auto &c : kElementwise) {
        for (int32_t count : kCounts) {
            const int32_t floats = c.layout == kReal ? count : 2 * count;
            const auto a = Random(floats, -2.0f, 2.0f, 1), b = Random(floats, -2.0f, 2.0f, 2);
            std::vector<float> expected(c.layout == kPerBin ? count : floats);
            for (size_t i = 0; i < expected.size(); ++i) expected[i] = c.expected(a.data(), b.data(), int32_t(i));
            ExpectWrites([&](float *o) { c.run(o, c.layout == kPerBin ? a.data() : o, b.data(), floats); },
                         c.layout == kPerBin ? std::vector<float>{} : a, expected,
                         std::string(c.name) + " count=" + std::to_string(count));
        }
    }
}

TEST(VectorKernels, ComplexLayoutInPlacePowerAndDivision) {
    for (int32_t bins : kCounts) {
        const int32_t n = 2 * bins;
        const auto a = Random(n, -3.0f, 3.0f, 3), g = Random(bins, 0.5f, 4.0f, 4);
        const std::string at = " bins=" + std::to_string(bins);
        std::vector<float> power = a;
        cplx_power(power.data(), power.data(), n);
        for (int32_t k = 0; k < bins; ++k) EXPECT_EQ(power[k], a[2 * k] * a[2 * k] + a[2 * k + 1] * a[2 * k + 1]) << at;

        std::vector<float> split(n + 2, kSentinel), joined(n + 1, kSentinel);
        cplx_deinterleave(a.data(), split.data(), split.data() + bins + 1, n);
        cplx_interleave(split.data(), split.data() + bins + 1, joined.data(), bins);
        EXPECT_EQ(split[bins], kSentinel) << at;
        EXPECT_EQ(std::vector<float>(joined.begin(), joined.begin() + n), a) << at;
        EXPECT_EQ(joined.back(), kSentinel) << at;

        std::vector<float> quotient = a;
        cplx_divide_by_real(quotient.data(), g.data(), quotient.data(), n);
        for (int32_t i = 0; i < n; ++i) EXPECT_LE(UlpDistance(quotient[i], a[i] / g[i / 2]), 4) << at;
    }
}

TEST(VectorKernels, DivideAndSqrtAreWithinAFewUlpAndHandleSpecialValues) {
    std::mt19937 rng(6);
    std::uniform_real_distribution<float> exponent(-30.0f, 30.0f);
    std::vector<float> a(1025), b(1025), q(1025), r(1025);
    for (size_t i = 0; i < a.size(); ++i) {
        a[i] = std::exp2(exponent(rng)) * (i % 3 == 0 ? -1.0f : 1.0f);
        b[i] = std::exp2(exponent(rng)) * (i % 5 == 0 ? -1.0f : 1.0f);
    }
    vec_divide(a.data(), b.data(), q.data(), 1025);
    for (size_t i = 0; i < a.size(); ++i) EXPECT_LE(UlpDistance(q[i], a[i] / b[i]), 4) << i;
    for (float &x : a) x = std::fabs(x);
    vec_sqrt(a.data(), r.data(), 1025);
    for (size_t i = 0; i < a.size(); ++i) EXPECT_LE(UlpDistance(r[i], std::sqrt(a[i])), 4) << i;

    // Each special value once in a lane (index 0) and once in the tail (index 8).
    const float denormal = FLT_MIN / 4.0f, nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        float numerand, divisor, quotient, radicand, root;
    } specials[] = {{4.0f, 0.0f, kInf, 0.0f, 0.0f}, {-4.0f, 0.0f, -kInf, kInf, kInf},
                    {4.0f, -0.0f, -kInf, denormal, 0.0f}, {4.0f, denormal, kInf, -1.0f, nan},
                    {4.0f, kInf, 0.0f, nan, nan}};
    for (const auto &c : specials) {
        for (int32_t at : {0, 8}) {
            std::vector<float> x(9, 1.0f), y(9, 1.0f), out(9);
            x[at] = c.numerand, y[at] = c.divisor;
            vec_divide(x.data(), y.data(), out.data(), 9);
            EXPECT_EQ(out[at], c.quotient) << c.numerand << " / " << c.divisor << " @" << at;
            x[at] = c.radicand;
            vec_sqrt(x.data(), out.data(), 9);
            EXPECT_TRUE(std::isnan(c.root) ? std::isnan(out[at]) : out[at] == c.root) << c.radicand << " @" << at;
        }
    }

    // The canceller's bound: 4 / 0 = inf, sqrt(inf) = inf, min(inf, 1) = 1.
    std::vector<float> four(5, 4.0f), zero(5, 0.0f), bound(5);
    vec_divide(four.data(), zero.data(), bound.data(), 5);
    vec_sqrt(bound.data(), bound.data(), 5);
    vec_ceil(bound.data(), 1.0f, bound.data(), 5);
    EXPECT_EQ(bound, std::vector<float>(5, 1.0f));
}

TEST(VectorKernels, DotAndConvolutionSumInOneFixedOrder) {
    for (int32_t n : kCounts) {
        const auto a = Random(n, -1.0f, 1.0f, 7), b = Random(n, -1.0f, 1.0f, 8);
        float lane[4] = {0.0f, 0.0f, 0.0f, 0.0f};
        int32_t i = 0;
        for (; i + 4 <= n; i += 4)
            for (int32_t l = 0; l < 4; ++l) lane[l] += a[i + l] * b[i + l];
        float expected = (lane[0] + lane[2]) + (lane[1] + lane[3]);
        for (; i < n; ++i) expected += a[i] * b[i];
        EXPECT_EQ(vec_dot(a.data(), b.data(), n), expected) << "n=" << n;
    }

    // The post-filter's smoothing: 129 values padded by 21 on each side, 22 taps.
    const int32_t n = 129, m = 22;
    const auto x = Random(n + 2 * (m - 1), 0.0f, 1.0f, 9), h = Random(m, 0.0f, 0.1f, 10);
    std::vector<float> expected(n + m - 1);
    for (int32_t j = 0; j < n + m - 1; ++j) expected[j] = vec_dot(x.data() + j, h.data(), m);
    ExpectWrites([&](float *o) { vec_convolve(x.data(), h.data(), o, n, m); }, {}, expected, "conv");
}

}  // namespace
